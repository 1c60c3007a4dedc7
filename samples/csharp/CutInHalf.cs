// Uses the engine from C# with interop signatures written by hand:
//   csc CutInHalf.cs
//   CutInHalf IN.ogg OUT.wav
// Needs the registered engine in the program's bitness. Each interface declares its methods in the
// order of the type library and may omit the methods after the last used one. "tlbimp Tessaly.dll"
// would generate all interfaces.
using System;
using System.Runtime.InteropServices;
using System.Threading;

[ComImport, Guid("86B3DC4E-2401-48A9-A393-3D946F030260"), InterfaceType(ComInterfaceType.InterfaceIsDual)]
interface IAudioReader
{
    void ReadAudio(long nSamplePos,
                   [In, Out, MarshalAs(UnmanagedType.SafeArray, SafeArraySubType = VarEnum.VT_R4)]
                   float[] psaAudioData);
    void GetFormat(out int pnSamplesPerSec, out short pnChannels);
    long GetSampleCount();
}

[ComImport, Guid("059AD7E3-685C-4049-AAE3-E91427840565"), InterfaceType(ComInterfaceType.InterfaceIsDual)]
interface IAudioWriter
{
}

[ComImport, Guid("49FAFF9E-BF19-4FFC-8414-A043D0FB4C45"), InterfaceType(ComInterfaceType.InterfaceIsDual)]
interface IAudioPool
{
    void Lock();
    void Unlock();
    void GetFileHandles(out long pnHandleAudio, out long pnHandlePeak);
    void GetFormat(out int pnSamplesPerSec, out short pnChannels);
    // Returns null if the pool has no take.
    IAudioReader CreateLastReader();
}

[ComImport, Guid("AF905BC1-1608-4C54-8654-EAFC2E81686A"), InterfaceType(ComInterfaceType.InterfaceIsDual)]
interface IImportFilter
{
    // PreserveSig returns the HRESULT instead of throwing, because every code except S_OK means "no".
    [PreserveSig]
    int QueryCanLoad([MarshalAs(UnmanagedType.BStr)] string bstrFileName);
    void Initialize([MarshalAs(UnmanagedType.BStr)] string bstrFileName, IAudioWriter pWriter);
}

[ComImport, Guid("954699CD-EEFE-46D8-A102-73014CAED9B4"), InterfaceType(ComInterfaceType.InterfaceIsDual)]
interface IExportFilter
{
    [return: MarshalAs(UnmanagedType.VariantBool)]
    bool QuerySupportsExtension([MarshalAs(UnmanagedType.BStr)] string bstrExtension);
    void Initialize([MarshalAs(UnmanagedType.BStr)] string bstrFileName, IAudioReader pReader);
    void SetBitsPerSample(short nBitsPerSample);
}

[ComImport, Guid("E2911F9F-7486-4C61-AF14-ACEA286A878A"), InterfaceType(ComInterfaceType.InterfaceIsDual)]
interface ICoreTask
{
    void Start();
    void Cancel();
    [return: MarshalAs(UnmanagedType.VariantBool)]
    bool QueryIsTaskRunning();
    float GetProgress();
}

[ComImport, Guid("FC8DCAF9-FDE2-49D2-A5B3-28C00F2BD8FE"), InterfaceType(ComInterfaceType.InterfaceIsDual)]
interface IEditedAudio
{
    // The array holds floats, although the type library declares it as short.
    void ReadWaveplot(long nBegin, long nEnd,
                      [In, Out, MarshalAs(UnmanagedType.SafeArray, SafeArraySubType = VarEnum.VT_R4)]
                      float[] psaPeaks);
    void SetFormat(int nSamplesPerSec, short nChannels, short nBitsPerSample);
    void Insert(long nPosition, IEditedAudio peaInsert);
    void Copy(IEditedAudio peaDest, long nBegin, long nEnd);
    void CopyAll(IEditedAudio peaDest);
    void Clear();
    void InsertSegment(long nPosition, IAudioReader parSource, long nBegin, long nEnd);
    void AppendSegment(IAudioReader parSource, long nBegin, long nEnd);
    // An IntPtr, because C# would release an IAudioReader, but the caller does not own the reader.
    int GetFirstSegment(out IntPtr pparSource, out long pnBegin, out long pnEnd);
    int GetNextSegment(out IntPtr pparSource, out long pnBegin, out long pnEnd);
    void Delete(long nBegin, long nEnd);
}

static class Program
{
    static object Create(string progId)
    {
        return Activator.CreateInstance(Type.GetTypeFromProgID(progId, true));
    }

    static void RunTask(object filter)
    {
        var task = (ICoreTask)filter;
        task.Start();
        while (task.QueryIsTaskRunning()) Thread.Sleep(10);
    }

    // The objects need a single-threaded apartment.
    [STAThread]
    static int Main(string[] words)
    {
        if (words.Length != 2)
        {
            Console.Error.WriteLine("usage: CutInHalf IN.ogg OUT.wav");
            return 2;
        }
        var pool = (IAudioPool)Create("Marlinda.AudioPool");
        var import = (IImportFilter)Create("Marlinda.OggImport");
        import.Initialize(words[0], (IAudioWriter)pool);
        RunTask(import);
        IAudioReader take = pool.CreateLastReader();
        if (take == null)
        {
            Console.Error.WriteLine("nothing could be decoded");
            return 1;
        }
        long frames = take.GetSampleCount();
        int rate;
        short channels;
        take.GetFormat(out rate, out channels);

        var document = (IEditedAudio)Create("Marlinda.EditedAudio");
        document.AppendSegment(take, 0, frames);
        document.Delete(frames / 2, frames);

        // Holds a minimum and a maximum for each column and channel.
        const int Columns = 64;
        var peaks = new float[Columns * 2 * channels];
        document.ReadWaveplot(0, frames / 2, peaks);
        for (int column = 0; column < Columns; ++column)
        {
            float height = Math.Min(1.0F, Math.Max(0.0F, peaks[column * 2 * channels + 1]));
            Console.Write(" .:-=+*#%@"[(int)(9.0F * height)]);
        }
        Console.WriteLine();

        var wav = (IExportFilter)Create("Marlinda.WavExportFilter");
        wav.Initialize(words[1], (IAudioReader)document);
        RunTask(wav);
        Console.WriteLine("{0} of {1} frames written", frames / 2, frames);
        return 0;
    }
}
