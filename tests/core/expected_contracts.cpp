#include "tests/core/expected_contracts.h"

// After windows.h.
#include <objbase.h>
#include <ocidl.h>

#include <sstream>
#include <stdexcept>

namespace marlinda::testing {
namespace {

// A heading stands at the margin, its lines are indented by two, continuations by more.
constexpr char kInterfaces[] = R"(
dual IAudioConnector {B5267ADC-334E-45CC-AEE6-E3A3C77718D0}
  SetupImportToExport([in] IUnknown* punkImportFilter, [in] IUnknown* punkExportFilter,
      [in] long nSamplesPerSec, [in] short nChannels)
  SetupReaderToExport([in] IUnknown* punkAudioReader, [in] IUnknown* punkExportFilter,
      [in] long nSamplesPerSec, [in] short nChannels)
dual ICoreTask {E2911F9F-7486-4C61-AF14-ACEA286A878A}
  Start()
  Cancel()
  QueryIsTaskRunning([out,retval] VARIANT_BOOL* pbRunning)
  GetProgress([out,retval] float* pfProgress)
  GetName([out,retval] BSTR* pbstrName)
dual IAudioReader {86B3DC4E-2401-48A9-A393-3D946F030260}
  ReadAudio([in] int64 nSamplePos, [in,out] SAFEARRAY(float) psaAudioData)
  GetFormat([out] long* pnSamplesPerSec, [out] short* pnChannels)
  GetSampleCount([out,retval] int64* pnSamples)
  OpenDevice()
  CloseDevice()
dual IAudioWriter {059AD7E3-685C-4049-AAE3-E91427840565}
  WriteAudio([in] SAFEARRAY(float) psaAudioData)
  OpenDevice()
  CloseDevice()
  SetFormat([in] long nSamplesPerSec, [in] short nChannels)
  QueryIsReady([out,retval] long* pbReady)
dual IAudioGrabber {15AF7257-A0F1-4A41-8059-73733ECF76BF}
  SetFormat([in] long nSamplesPerSec, [in] short nChannels, [in] short nBitsPerSample)
  SetDevice([in] long nDeviceId)
dual IAudioPlayback {6A3C5042-F2CB-461B-9F5A-20759BC74586}
  SetBufferLength([in] long nMilliSecs)
  SetFormat([in] long nSamplesPerSec, [in] short nChannels, [in] short nBitsPerSample)
  GetPlaybackPos([out,retval] int64* nPlaybackPos)
  SetPosOffset([in] int64 nOffset)
  GetPosOffset([out,retval] int64* pnOffset)
  Break()
  SetDevice([in] ULONG nDeviceId)
  GetOutputLevel([in] short niChannel, [out] float* pfOutputLevel)
dual IAudioPool {49FAFF9E-BF19-4FFC-8414-A043D0FB4C45}
  Lock()
  Unlock()
  GetFileHandles([out] int64* pnHandleAudio, [out] int64* pnHandlePeak)
  GetFormat([out] long* pnSamplesPerSec, [out] short* pnChannels)
  CreateLastReader([out,retval] IAudioReader** ppAudioReader)
  CreatePrevReader([out,retval] IAudioReader** ppAudioReader)
  SetBitDepth([in] short nBitsPerSample, [in] short nDitheringMode)
dual IAudioPoolReader {52CF898E-E53A-4366-B27D-0B18FE902AB5}
  Create([in] IAudioPool* pPool, [in] int64 nAudioByteOffset, [in] int64 nPeakByteOffset,
      [in] int64 nByteCount, [in] short nBitsPerSample)
custom IPeakReader {49F2FED7-01D9-4375-B5C4-53113E024C42}
  ReadPeaks([in] int64 nPeakPosition, [in,out] SAFEARRAY(float) psaPeakData)
  GetSamplesPerPeak([out] long* pnSamplesPerPeak)
dual IAudioScrubber {6E5E31C3-B908-49A4-AF78-B16749476EB1}
  Start([in] IAudioWriter* pAudioWriter, [in] long nSamplesInBlocks, [in] long nSamplesPerSec,
      [in] short nChannels)
  Stop()
  WriteBlock([in] SAFEARRAY(float) psaAudio)
dual IExportFilter {954699CD-EEFE-46D8-A102-73014CAED9B4}
  QuerySupportsExtension([in] BSTR bstrExtension, [out,retval] VARIANT_BOOL* pbSupported)
  Initialize([in] BSTR bstrFileName, [in] IAudioReader* pReader)
  SetBitsPerSample([in] short nBitsPerSample)
  GetFilterStrings([out] BSTR* pbstrFilterString, [out] BSTR* pbstrExtensions)
  QueryHasSettingsDlg([in] BSTR bstrExtension, [out] VARIANT_BOOL* pbHasSettings)
  ShowSettingsDlg([in] BSTR bstrExtension, [in] ULONG nHwndParent)
  GetMerit([out,retval] short* pnMerit)
  QueryIsLossy([out,retval] VARIANT_BOOL* pbLossy)
dual IMetaDataWriter {074BC53B-7064-47EC-B53F-98E250C1FDD9}
  SetMetaData([in] BSTR bstrTitle, [in] BSTR bstrArtist, [in] BSTR bstrAlbum,
      [in] BSTR bstrYear, [in] BSTR bstrGenre)
events _IEAUpdateEvents {6A88B075-BB17-4F48-A59D-4531136460D3}
  FireStartedPlayback()
  FireStoppedPlayback()
  FireContentChanged()
events _IEAUndoEvents {C5157AF8-AD97-48AC-8F4B-96F56BAB2739}
  FireStoreUndo([in] BSTR bstrName, [in] IUnknown* punkUndo)
dual IScrubSupport {749FBD14-C98D-4E0E-B285-38F3FECD312B}
  StartScrub()
  SetScrubPosition([in] int64 nPosition)
  StopScrub()
dual ILabelSupport {91450B93-5170-46A1-9838-78BBECA02646}
  AddLabel([in] int64 nPosition, [in] BSTR bstrName)
  GetLabelCount([out,retval] long* pnLabelCount)
  GetLabel([in] long niLabel, [out] int64* pnPosition, [out] BSTR* pbstrName)
  SetLabel([in] long niLabel, [in] int64 nPosition, [in] BSTR bstrName)
  RemoveLabel([in] long niLabel)
  RemoveAllLabels()
dual ISectionMarkerSupport {88B6B20D-308A-4BF1-8EA2-0DB25ABB378C}
  AddSectionMarker([in] int64 nBegin, [in] int64 nEnd, [in] BSTR bstrName)
  GetMarkerCount([out,retval] long* pnMarkerCount)
  GetSectionMarker([in] long niSectionMarker, [out] int64* pnBegin, [out] int64* pnEnd,
      [out] BSTR* pbstrName)
  SetSectionMarker([in] long niSectionMarker, [in] int64 nBegin, [in] int64 nEnd,
      [in] BSTR bstrName)
  RemoveSectionMarker([in] long niSectionMarker)
  RemoveAllSectionMarkers()
dual IEditedAudio {FC8DCAF9-FDE2-49D2-A5B3-28C00F2BD8FE}
  ReadWaveplot([in] int64 nBegin, [in] int64 nEnd, [in,out] SAFEARRAY(short) psaPeaks)
  SetFormat([in] long nSamplesPerSec, [in] short nChannels, [in] short nBitsPerSample)
  Insert([in] int64 nPosition, [in] IEditedAudio* peaInsert)
  Copy([in] IEditedAudio* peaDest, [in] int64 nBegin, [in] int64 nEnd)
  CopyAll([in] IEditedAudio* peaDest)
  Clear()
  InsertSegment([in] int64 nPosition, [in] IAudioReader* parSource, [in] int64 nBegin,
      [in] int64 nEnd)
  AppendSegment([in] IAudioReader* parSource, [in] int64 nBegin, [in] int64 nEnd)
  GetFirstSegment([out] IAudioReader** pparSource, [out] int64* pnBegin, [out] int64* pnEnd,
      [out,retval] long* bValid)
  GetNextSegment([out] IAudioReader** pparSource, [out] int64* pnBegin, [out] int64* pnEnd,
      [out,retval] long* bValid)
  Delete([in] int64 nBegin, [in] int64 nEnd)
  InitChange([in] long bStoreUndo, [in] BSTR bstrOperation)
  CommitChange()
  RollbackChange()
  Play([in] int64 nBegin, [in] int64 nEnd, [in] ULONG dwChannelMask, [in] VARIANT_BOOL bLooped)
  StopPlay()
  GetPlayStatus([out] VARIANT_BOOL* pbPlaying, [out] int64* pnPosition)
  GetOutputLevel([in] short niChannel, [out] float* pfOutputLevel)
  SetPlaybackDevice([in] long niDevice)
  GetBitsPerSample([out] short* pnBitsPerSample)
  ModifyPlaySection([in] int64 nBegin, [in] int64 nEnd)
dual IAcidWriter {B450BED4-AB39-4B2A-8F09-3C864394774D}
  SetAcidData([in] short nRootNote, [in] short nMeterBeats, [in] short nMeterDelimiter,
      [in] long nBeatCount, [in] float fTempo)
dual IImportFilter {AF905BC1-1608-4C54-8654-EAFC2E81686A}
  QueryCanLoad([in] BSTR bstrFileName)
  Initialize([in] BSTR bstrFileName, [in] IAudioWriter* pWriter)
  GetFilterStrings([out] BSTR* pbstrFilterString, [out] BSTR* pbstrExtensions)
  GetSourceSampleCount([out,retval] int64* pnSampleCount)
  GetMerit([out,retval] short* pnMerit)
dual IExFormatInfo {EA102866-B5DA-4E10-A68D-676C54BB8DD1}
  GetFormat([out] long* pnSamplesPerSec, [out] short* pnChannels)
  GetBitsPerSample([out,retval] short* pnBitsPerSample)
  GetAvgBytesPerSec([out,retval] long* pnAvgBytesPerSec)
dual IMetaDataReader {51572A2E-726A-41C9-81F2-3895CF7618C1}
  GetMetaData([out] BSTR* pbstrTitle, [out] BSTR* pbstrArtist, [out] BSTR* pbstrAlbum,
      [out] BSTR* pbstrYear, [out] BSTR* pbstrGenre)
  SetFilename([in] BSTR bstrFileName)
dual IAcidReader {AF1905FC-2790-496C-B89F-27309585918C}
  QueryAcidDataAvailable([out] VARIANT_BOOL* pbDataAvailable)
  GetAcidData([out] short* pnRootNote, [out] short* pnMeterBeats, [out] short* pnMeterDelimiter,
      [out] long* pnBeatCount, [out] float* pfTempo)
dual IFileFilterMgr {CD912258-0FF9-4137-89F9-E21112A7C9A0}
  CreateImportFilter([in] BSTR bstrPathName, [out,retval] IImportFilter** ppImportFilter)
  GetImportFilterString([out,retval] BSTR* pbstrFilterString)
dual INullReader {76FA1434-367B-4BDA-A8E8-652D74E4DFEA}
  Create([in] int64 nSampleCount, [in] long nSamplesPerSec, [in] short nChannels)
dual IWaveWriter {82F55CA9-527D-41E3-8132-215EC8B87D0D}
  SetWriteThrough([in] IAudioWriter* pawWriteThrough)
  SetResolution([in] short nBitsPerSample)
  SetTargetFile([in] BSTR bstrFileName)
)";

constexpr char kClasses[] = R"(
class CAudioConnector {8AB19A67-C05A-4B8B-9EA9-AB1368F99273} Marlinda.AudioConnector.1
  interfaces IAudioConnector, ICoreTask, IAudioReader, IAudioWriter
class CAudioGrabber {26F2E15F-A6B7-481D-BCDF-CC9077AE5BF6} Marlinda.AudioGrabber.1
  interfaces IAudioGrabber, IAudioReader
class CAudioPlayback {2DD2B5BC-2127-45A4-A2C0-A391053A313C} Marlinda.AudioPlayback.1
  interfaces IAudioPlayback, IAudioWriter
class CAudioPool {1A66174D-7E72-4209-A0D9-D524ACD94210} Marlinda.AudioPool.1
  interfaces IAudioPool, IAudioWriter
class CAudioPoolReader {F58F3E5B-105A-4B7C-BBA3-D4A7515002A1} Marlinda.AudioPoolReader.1
  interfaces IAudioPoolReader, IPeakReader, IAudioReader
class CAudioScrubber {3770515C-8044-4EA5-96B1-17E892DD2B6C} Marlinda.AudioScrubber.1
  interfaces IAudioScrubber
class CDShowExport {2F392C1E-8EC0-402C-A7DA-DC6431BB82FA} Marlinda.DShowExport.1
  interfaces ICoreTask, IExportFilter, IMetaDataWriter
class CEditedAudio {7D106EC9-92F0-428D-8A5A-58D445DC3580} Marlinda.EditedAudio.1
  interfaces IAudioReader, IScrubSupport, ILabelSupport, ISectionMarkerSupport, IEditedAudio
  events _IEAUpdateEvents, _IEAUndoEvents
  platform IConnectionPointContainer, IProvideClassInfo2
class CWavExportFilter {A1C2E206-01E2-4491-BA66-706843198EC9} Marlinda.WavExportFilter.1
  interfaces ICoreTask, IExportFilter, ILabelSupport, IMetaDataWriter, ISectionMarkerSupport,
      IAcidWriter
class CDShowImport {E0E38925-4864-4E36-B7C9-6C908F5289FF} Marlinda.DShowImport.1
  interfaces IImportFilter, IExFormatInfo, ICoreTask, ILabelSupport, IMetaDataReader,
      ISectionMarkerSupport, IAcidReader
class CFileFilterMgr {F9866FF8-ED3C-43D9-B7B9-F459EEAC472B} Marlinda.FileFilterMgr.1
  interfaces IFileFilterMgr
class CNullReader {95E1D938-FE65-44BB-B2AD-1EF81D278512} Marlinda.NullReader.1
  interfaces INullReader, IAudioReader, IPeakReader
class COggImport {2A54BF54-1E13-4AC8-A8FB-EA25D67E29C0} Marlinda.OggImport.1
  interfaces IImportFilter, IExFormatInfo, ICoreTask, IMetaDataReader
class CWaveWriter {B9928AE3-DB1D-4A3B-A08B-3F8EC7FA756D} Marlinda.WaveWriter.1
  interfaces IWaveWriter, IAudioWriter
)";

// The lines of a table with their continuations joined.
std::vector<std::string> Lines(const char* table) {
  std::vector<std::string> lines;
  std::istringstream text(table);
  for (std::string line; std::getline(text, line);) {
    if (line.empty()) continue;
    const std::size_t indent = line.find_first_not_of(' ');
    if (indent > 2) {
      lines.back() += " " + line.substr(indent);
    } else {
      lines.push_back(line);
    }
  }
  return lines;
}

std::vector<std::string> Names(std::istringstream& words) {
  std::vector<std::string> names;
  for (std::string name; words >> name;) {
    if (name.back() == ',') name.pop_back();
    names.push_back(name);
  }
  return names;
}

std::vector<ExpectedInterface> ParseInterfaces() {
  std::vector<ExpectedInterface> interfaces;
  for (const std::string& line : Lines(kInterfaces)) {
    if (line.front() == ' ') {
      interfaces.back().methods.push_back(line.substr(2));
      continue;
    }
    std::istringstream words(line);
    std::string guid;
    ExpectedInterface& added = interfaces.emplace_back();
    words >> added.kind >> added.name >> guid;
    added.iid = ParseGuid(guid);
  }
  return interfaces;
}

std::vector<ExpectedClass> ParseClasses() {
  std::vector<ExpectedClass> classes;
  for (const std::string& line : Lines(kClasses)) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word == "class") {
      std::string guid;
      ExpectedClass& added = classes.emplace_back();
      words >> added.name >> guid >> added.prog_id;
      added.clsid = ParseGuid(guid);
    } else if (word == "interfaces") {
      classes.back().interfaces = Names(words);
    } else if (word == "events") {
      classes.back().events = Names(words);
    } else if (word == "platform") {
      classes.back().platform = Names(words);
    } else {
      throw std::runtime_error("a line of the class table is not understood: " + line);
    }
  }
  return classes;
}

}  // namespace

const std::vector<ExpectedInterface>& ExpectedInterfaces() {
  static const std::vector<ExpectedInterface> interfaces = ParseInterfaces();
  return interfaces;
}

const std::vector<ExpectedClass>& ExpectedClasses() {
  static const std::vector<ExpectedClass> classes = ParseClasses();
  return classes;
}

IID IidOf(std::string_view name) {
  if (name == "IUnknown") return IID_IUnknown;
  if (name == "IDispatch") return IID_IDispatch;
  if (name == "IProvideClassInfo") return IID_IProvideClassInfo;
  if (name == "IProvideClassInfo2") return IID_IProvideClassInfo2;
  if (name == "IConnectionPointContainer") return IID_IConnectionPointContainer;
  for (const ExpectedInterface& known : ExpectedInterfaces()) {
    if (known.name == name) return known.iid;
  }
  throw std::runtime_error("no such interface: " + std::string(name));
}

GUID ParseGuid(std::string_view text) {
  GUID guid = {};
  if (FAILED(CLSIDFromString(std::wstring(text.begin(), text.end()).c_str(), &guid))) {
    throw std::runtime_error("no identifier: " + std::string(text));
  }
  return guid;
}

}  // namespace marlinda::testing
