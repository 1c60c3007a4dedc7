// Imports an audio file, deletes its second half and writes the rest as WAV:
//   cscript cut_in_half.js IN OUT.wav FRAMES
// "marlinda info IN" prints FRAMES, the length of the file. Needs the registered engine and the
// registered InterfacePicker.dll (see README.md).
//
// Limits of the language:
// - It cannot query an object for another interface, so InterfacePicker does that.
// - It has no 64-bit numbers, so the length is an argument instead of the result of GetSampleCount.
//   Arguments of methods may be whole numbers up to 2^53.
// - It has no [out] parameters besides the result, so it cannot call GetFormat.
// - It has no arrays of floats, so it cannot call ReadAudio, WriteAudio, ReadPeaks and ReadWaveplot.
if (WScript.Arguments.length != 3 || !(Number(WScript.Arguments(2)) > 0)) {
  WScript.Echo("usage: cscript cut_in_half.js IN OUT.wav FRAMES");
  WScript.Quit(2);
}
var input = WScript.Arguments(0), output = WScript.Arguments(1);
var frames = Number(WScript.Arguments(2)), half = Math.floor(frames / 2);
var pick = new ActiveXObject("Tessaly.InterfacePicker");

// Returns null if no listed filter reads the file. "marlinda install-filters" puts the engine's filters on the list.
var filter = new ActiveXObject("Marlinda.FileFilterMgr").CreateImportFilter(input);
if (!filter) {
  WScript.Echo("No import filter reads " + input);
  WScript.Quit(1);
}
var pool = new ActiveXObject("Marlinda.AudioPool");
filter.Initialize(input, pool);
runTask(pick(filter, "ICoreTask"));
var take = pool.CreateLastReader();

var document = new ActiveXObject("Marlinda.EditedAudio");
var edit = pick(document, "IEditedAudio");
edit.AppendSegment(take, 0, frames);
edit.Delete(half, frames);

var task = new ActiveXObject("Marlinda.WavExportFilter");
pick(task, "IExportFilter").Initialize(output, document);
pick(task, "ILabelSupport").AddLabel(0, "Begin");
runTask(task);
WScript.Echo(half + " of " + frames + " frames written");

function runTask(job) {
  job.Start();
  while (job.QueryIsTaskRunning()) {
    // Wine's script host has no Sleep.
    try { WScript.Sleep(10); } catch (error) { }
  }
}
