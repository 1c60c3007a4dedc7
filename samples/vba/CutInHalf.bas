Attribute VB_Name = "CutInHalf"
' The engine from Visual Basic for Applications, 64-bit, with a reference to "Marlinda 1.0 Type Library"
' (Tools, References). Neither compiled nor run by our tests. Takes an engine that is registered, of
' the application's own bitness: LongLong exists in 64-bit applications only, and a 32-bit one cannot
' pass or receive a position. Draws no overview: VBA passes its arrays by reference, and the engine's
' methods take them by value.
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

    ' Set asks the object for the interface of the variable.
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
