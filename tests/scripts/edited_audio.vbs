' A document of silence, cut and joined, with labels and markers.
Option Explicit
Dim pick, silence, name, document, edit, labels, markers
Set pick = CreateObject("Tessaly.InterfacePicker")
Set silence = CreateObject("Marlinda.NullReader")
silence.Create 1000, 44100, 2
For Each name In Array("Marlinda.EditedAudio.1", "Marlinda.EditedAudio")
  Set document = CreateObject(name)
  Expect "type", TypeName(document), "IAudioReader"
  Expect "an empty document", CStr(document.GetSampleCount), "0"
  Set edit = pick(document, "IEditedAudio")
  Set labels = pick(document, "ILabelSupport")
  Set markers = pick(document, "ISectionMarkerSupport")
  edit.AppendSegment silence, 0, 1000
  Expect "the whole", CStr(document.GetSampleCount), "1000"
  labels.AddLabel 100, "early"
  labels.AddLabel 250, "deleted"
  labels.AddLabel 900, "late"
  markers.AddSectionMarker 150, 400, "across"
  edit.Delete 200, 300
  Expect "without the deleted part", CStr(document.GetSampleCount), "900"
  Expect "labels that are left", labels.GetLabelCount, 2
  Expect "the marker in two", markers.GetMarkerCount, 2
  edit.InsertSegment 0, silence, 10, 60
  Expect "with the inserted part", CStr(document.GetSampleCount), "950"
  On Error Resume Next
  labels.RemoveLabel 2
  Expect "a label that is not there", Err.Number <> 0, True
  Err.Clear
  On Error GoTo 0
  labels.RemoveLabel 1
  Expect "labels", labels.GetLabelCount, 1
  edit.Clear
  Expect "nothing", CStr(document.GetSampleCount), "0"
  Expect "no marker", markers.GetMarkerCount, 0
Next
WScript.Echo "passed"

Sub Expect(what, actual, expected)
  If actual <> expected Then
    WScript.Echo what & ": " & actual & " instead of " & expected
    WScript.Quit 1
  End If
End Sub
