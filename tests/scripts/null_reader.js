// The silence source by either of its names, with good arguments and with bad ones.
var names = ["Marlinda.NullReader.1", "Marlinda.NullReader"];
for (var i = 0; i < names.length; ++i) {
  var silence = new ActiveXObject(names[i]);
  silence.Create(4294967296 * 3, 44100, 2);
  silence.Create("1000", "48000", "1");
  expectError("too few arguments", function () { silence.Create(1); });
  expectError("not a number", function () { silence.Create("abc", 44100, 2); });
  expectError("an unknown method", function () { silence.NoSuchMethod(); });
}
var pick = new ActiveXObject("TessalySamples.InterfacePicker");
var reader = pick(silence, "IAudioReader");
reader.OpenDevice();
reader.CloseDevice();
WScript.Echo("passed");

function expectError(what, call) {
  try {
    call();
  } catch (error) {
    return;
  }
  WScript.Echo(what + ": accepted");
  WScript.Quit(1);
}
