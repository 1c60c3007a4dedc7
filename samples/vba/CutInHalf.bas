Attribute VB_Name = "CutInHalf"
' Calls the engine from 64-bit Visual Basic for Applications, with a reference to "Marlinda 1.0 Type
' Library" (Tools, References). Needs the registered 64-bit engine. 32-bit applications lack LongLong, so
' they cannot pass positions. Draws no overview, because VBA passes arrays by reference, but the
' engine's methods take arrays by value. The tests neither compile nor run this file.
Option Explicit

#If VBA7 Then
Private Declare PtrSafe Sub Sleep Lib "kernel32" (ByVal Milliseconds As Long)
#End If

Public Sub CutInHalf(ByVal Source As String, ByVal Target As String)
    Dim Pool As New CAudioPool
    Dim Writer As IAudioWriter
    Dim Import As IImportFilter
    Dim Take As IAudioReader
    Dim Frames As LongLong

    ' Set queries the object for the variable's interface.
    Set Writer = Pool
    Set Import = New COggImport
    Import.Initialize Source, Writer
    RunTask Import
    Set Take = Pool.CreateLastReader
    If Take Is Nothing Then Err.Raise 5, , Source & ": nothing could be decoded"
    Frames = Take.GetSampleCount

    Dim Document As IEditedAudio
    Dim Result As IAudioReader
    Set Document = New CEditedAudio
    Document.AppendSegment Take, 0, Frames
    Document.Delete Frames \ 2, Frames
    Set Result = Document

    Dim Export As IExportFilter
    Set Export = New CWavExportFilter
    Export.Initialize Target, Result
    RunTask Export
    Debug.Print (Frames \ 2) & " of " & Frames & " frames written"
End Sub

Private Sub RunTask(ByVal Filter As Object)
    Dim Task As ICoreTask
    Set Task = Filter
    Task.Start
    Do While Task.QueryIsTaskRunning
        DoEvents
        Sleep 10
    Loop
End Sub
