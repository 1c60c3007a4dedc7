// From an Ogg file to an edited WAV file: import_edit_export.js IN.ogg OUT.wav FRAMES_IN
// The length is given because JScript has no 64-bit numbers.
var input = WScript.Arguments(0), output = WScript.Arguments(1);
var frames = Number(WScript.Arguments(2));
var pick = new ActiveXObject("TessalySamples.InterfacePicker");
var pool = new ActiveXObject("Marlinda.AudioPool");
var filter = new ActiveXObject("Marlinda.OggImport");
filter.Initialize(input, pool);
run(pick(filter, "ICoreTask"), "Loading " + input);
var reader = pool.CreateLastReader();

var doc = new ActiveXObject("Marlinda.EditedAudio");
var edit = pick(doc, "IEditedAudio");
edit.AppendSegment(reader, 0, frames);
edit.Delete(0, 100);
edit.InsertSegment(50, reader, 0, 100);

var task = new ActiveXObject("Marlinda.WavExportFilter");
var exporter = pick(task, "IExportFilter");
expect("merit", exporter.GetMerit(), 200);
expect("lossy", exporter.QueryIsLossy(), false);
exporter.Initialize(output, doc);
exporter.SetBitsPerSample(24);
run(task, "Saving " + output);
WScript.Echo("passed");

function run(job, name) {
  expect("name", job.GetName(), name);
  job.Start();
  while (job.QueryIsTaskRunning()) {
    // Wine's script host cannot sleep.
  }
  expect("progress", job.GetProgress(), 1);
}

function expect(what, actual, expected) {
  if (actual === expected) return;
  WScript.Echo(what + ": " + actual + " instead of " + expected);
  WScript.Quit(1);
}
