' The silence source by either of its names, with good arguments and with bad ones.
Option Explicit
Dim name, silence
For Each name In Array("Marlinda.NullReader.1", "Marlinda.NullReader")
  Set silence = CreateObject(name)
  Expect "type", TypeName(silence), "INullReader"
  silence.Create 4294967296 * 3, 44100, 2
  silence.Create "1000", "48000", "1"
  On Error Resume Next
  silence.Create 1
  Expect "too few arguments", Err.Number, 450
  Err.Clear
  silence.Create "abc", 44100, 2
  Expect "not a number", Err.Number, 13
  Err.Clear
  silence.Create 1, 44100, 100000
  Expect "more channels than fit", Err.Number, 6
  Err.Clear
  silence.NoSuchMethod
  Expect "an unknown method", Err.Number, 438
  Err.Clear
  On Error GoTo 0
Next

Dim pick, reader
Set pick = CreateObject("TessalySamples.InterfacePicker")
silence.Create 4294967296 * 3, 44100, 2
Set reader = pick(silence, "IAudioReader")
Expect "a length beyond 32 bits", CStr(reader.GetSampleCount), "12884901888"
reader.OpenDevice
reader.CloseDevice
WScript.Echo "passed"

Sub Expect(what, actual, expected)
  If actual <> expected Then
    WScript.Echo what & ": " & actual & " instead of " & expected
    WScript.Quit 1
  End If
End Sub
