' The filter manager with the Ogg importer listed: file_filters.vbs OGG_FILE TEXT_FILE
' The list lies in the registry; what was listed before is put back by the program that runs this.
Option Explicit
Dim name, manager, filter
For Each name In Array("Marlinda.FileFilterMgr.1", "Marlinda.FileFilterMgr")
  Set manager = CreateObject(name)
  Expect "type", TypeName(manager), "IFileFilterMgr"
  Expect "filter string", manager.GetImportFilterString, _
      "All Known Audio File Types (*.ogg)|*.ogg|Ogg Vorbis Files (*.ogg)|*.ogg|All Files (*.*)|*.*"
  Set filter = manager.CreateImportFilter(WScript.Arguments(0))
  Expect "type of the filter", TypeName(filter), "IImportFilter"
  Expect "merit", filter.GetMerit, 200
  Expect "a filter for a text", manager.CreateImportFilter(WScript.Arguments(1)) Is Nothing, True
Next
WScript.Echo "passed"

Sub Expect(what, actual, expected)
  If actual <> expected Then
    WScript.Echo what & ": " & actual & " instead of " & expected
    WScript.Quit 1
  End If
End Sub
