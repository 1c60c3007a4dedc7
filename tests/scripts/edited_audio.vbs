' A document of silence, cut and joined, with labels and markers.
Option Explicit
Dim pick, silence, name, document, edit, labels, markers
Set pick = CreateObject("Tessaly.InterfacePicker")
Set silence = CreateObject("Marlinda.NullReader")
silence.Create 1000, 44100, 2
For Each name In Array("Marlinda.EditedAudio.1", "Marlinda.EditedAudio")
  Set document = CreateObject(name)
  Set edit = pick(document, "IEditedAudio")
  Set labels = pick(document, "ILabelSupport")
  Set markers = pick(document, "ISectionMarkerSupport")
  Expect "an empty document", TypeName(document) & " " & document.GetSampleCount, "IAudioReader 0"
  edit.AppendSegment silence, 0, 1000
  labels.AddLabel 100, "early"
  labels.AddLabel 250, "deleted"
  labels.AddLabel 900, "late"
  markers.AddSectionMarker 150, 400, "across"
  edit.Delete 200, 300
  Expect "after a deletion", State, "900 frames, 2 labels, 2 markers"
  edit.InsertSegment 0, silence, 10, 60
  On Error Resume Next
  labels.RemoveLabel 2
  Expect "a label that is not there", Err.Number <> 0, True
  On Error GoTo 0
  labels.RemoveLabel 1
  Expect "after an insertion", State, "950 frames, 1 labels, 2 markers"
  edit.Clear
  Expect "nothing", State, "0 frames, 0 labels, 0 markers"
Next
WScript.Echo "passed"

Function State
  State = document.GetSampleCount & " frames, " & labels.GetLabelCount & " labels, " & markers.GetMarkerCount & " markers"
End Function

Sub Expect(what, actual, expected)
  If actual <> expected Then
    WScript.Echo what & ": " & actual & " instead of " & expected
    WScript.Quit 1
  End If
End Sub
