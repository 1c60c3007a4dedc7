' A pool by either of its names, without anything in it.
Option Explicit
Dim name, pool, writer
Dim pick
Set pick = CreateObject("TessalySamples.InterfacePicker")
For Each name In Array("Marlinda.AudioPool.1", "Marlinda.AudioPool")
  Set pool = CreateObject(name)
  Expect "type", TypeName(pool), "IAudioPool"
  pool.SetBitDepth 16, 1
  Expect "a reader of an empty pool", pool.CreateLastReader Is Nothing, True
  Expect "a reader before that", pool.CreatePrevReader Is Nothing, True
  Set writer = pick(pool, "IAudioWriter")
  writer.SetFormat 44100, 2
  Expect "ready", writer.QueryIsReady, 1
  pool.Lock
  Expect "ready while locked", writer.QueryIsReady, 0
  pool.Unlock
  Expect "ready again", writer.QueryIsReady, 1
  writer.OpenDevice
  writer.CloseDevice
  Expect "a take without samples", pool.CreateLastReader Is Nothing, True
Next
WScript.Echo "passed"

Sub Expect(what, actual, expected)
  If actual <> expected Then
    WScript.Echo what & ": " & actual & " instead of " & expected
    WScript.Quit 1
  End If
End Sub
