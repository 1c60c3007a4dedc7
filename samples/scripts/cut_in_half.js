// Imports an audio file, leaves its second half away and writes the rest as WAV:
//   cscript cut_in_half.js IN OUT.wav FRAMES
// FRAMES is the length of the file, which "marlinda info IN" tells. Needs the registered engine and,
// beside it, InterfacePicker.dll: see README.md.
//
// What the language cannot do here:
// - Ask an object for another interface; pick does that.
// - Hold a 64-bit number: what GetSampleCount returns is of no use, so the length is an argument.
//   As arguments of methods, whole numbers up to 2^53 are taken.
// - Receive through [out] parameters that are not the result, or make an array of floats: ReadAudio,
//   WriteAudio, ReadPeaks, ReadWaveplot and GetFormat are out of reach.
if (WScript.Arguments.length != 3 || !(Number(WScript.Arguments(2)) > 0)) {
  WScript.Echo("usage: cscript cut_in_half.js IN OUT.wav FRAMES");
  WScript.Quit(2);
}
var input = WScript.Arguments(0), output = WScript.Arguments(1);
var frames = Number(WScript.Arguments(2)), half = Math.floor(frames / 2);
var pick = new ActiveXObject("Tessaly.InterfacePicker");

// Null: no listed filter reads the file. "marlinda install-filters" lists those of the engine.
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
