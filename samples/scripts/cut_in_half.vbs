' Imports an audio file, deletes its second half and writes the rest as WAV:
'   cscript cut_in_half.vbs IN OUT.wav
' Needs the registered engine and the registered InterfacePicker.dll (see README.md).
'
' Limits of the language:
' - It cannot query an object for another interface, so InterfacePicker does that.
' - It has no arrays of floats, so it cannot call ReadAudio, WriteAudio, ReadPeaks and ReadWaveplot.
'   This sample therefore draws no overview.
Option Explicit
If WScript.Arguments.Count <> 2 Then
  WScript.Echo "usage: cscript cut_in_half.vbs IN OUT.wav"
  WScript.Quit 2
End If
Dim pick, manager, pool, import, take, frames
Set pick = CreateObject("Tessaly.InterfacePicker")

' Returns Nothing if no listed filter reads the file. "marlinda install-filters" puts the engine's filters on the list.
Set manager = CreateObject("Marlinda.FileFilterMgr")
Set import = manager.CreateImportFilter(WScript.Arguments(0))
If import Is Nothing Then
  WScript.Echo "No import filter reads " & WScript.Arguments(0)
  WScript.Quit 1
End If
Set pool = CreateObject("Marlinda.AudioPool")
import.Initialize WScript.Arguments(0), pool
RunTask pick(import, "ICoreTask")
Set take = pool.CreateLastReader
frames = take.GetSampleCount

' The default interface of a document is IAudioReader, which exports accept directly.
Dim document, edit
Set document = CreateObject("Marlinda.EditedAudio")
Set edit = pick(document, "IEditedAudio")
edit.AppendSegment take, 0, frames
edit.Delete frames \ 2, frames
pick(document, "ILabelSupport").AddLabel 0, "Begin"

Dim task, export
Set task = CreateObject("Marlinda.WavExportFilter")
Set export = pick(task, "IExportFilter")
export.Initialize WScript.Arguments(1), document
pick(task, "ILabelSupport").AddLabel 0, "Begin"
RunTask task
WScript.Echo document.GetSampleCount & " of " & frames & " frames written"

Sub RunTask(job)
  job.Start
  Do While job.QueryIsTaskRunning
    Pause
  Loop
End Sub

' Wine's script host has no Sleep.
Sub Pause
  On Error Resume Next
  WScript.Sleep 10
End Sub
