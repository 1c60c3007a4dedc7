' From an Ogg file to an edited WAV file: import_edit_export.vbs IN.ogg OUT.wav
' Prints the frames that went in and those that came out.
Option Explicit
Dim pick, pool, filter, reader, frames
Set pick = CreateObject("TessalySamples.InterfacePicker")
Set pool = CreateObject("Marlinda.AudioPool")
Set filter = CreateObject("Marlinda.OggImport")
filter.Initialize WScript.Arguments(0), pool
Expect "merit", filter.GetMerit, 200
Run pick(filter, "ICoreTask"), "Loading " & WScript.Arguments(0)
Set reader = pool.CreateLastReader
Expect "a take", reader Is Nothing, False
frames = reader.GetSampleCount
Expect "the whole file", CStr(frames), CStr(filter.GetSourceSampleCount)

Dim document, edit
Set document = CreateObject("Marlinda.EditedAudio")
Set edit = pick(document, "IEditedAudio")
edit.AppendSegment reader, 0, frames
edit.Delete 1000, 3000
pick(document, "ILabelSupport").AddLabel 500, "Begin"
Expect "without the deleted part", CStr(document.GetSampleCount), CStr(frames - 2000)

Dim task, export
Set task = CreateObject("Marlinda.WavExportFilter")
Expect "type", TypeName(task), "ICoreTask"
Set export = pick(task, "IExportFilter")
Expect "wav is supported", export.QuerySupportsExtension("WAV"), True
Expect "mp3 is supported", export.QuerySupportsExtension("mp3"), False
export.Initialize WScript.Arguments(1), document
export.SetBitsPerSample 16
pick(task, "IMetaDataWriter").SetMetaData "Title", "Artist", "Album", "2009", "Genre"
pick(task, "ILabelSupport").AddLabel 500, "Begin"
Run task, "Saving " & WScript.Arguments(1)
WScript.Echo "frames " & frames & " " & document.GetSampleCount
WScript.Echo "passed"

Sub Run(job, jobName)
  Expect "name", job.GetName, jobName
  job.Start
  ' Wine's script host cannot sleep.
  Do While job.QueryIsTaskRunning
  Loop
  Expect "progress", job.GetProgress, 1
End Sub

Sub Expect(what, actual, expected)
  If actual <> expected Then
    WScript.Echo what & ": " & actual & " instead of " & expected
    WScript.Quit 1
  End If
End Sub
