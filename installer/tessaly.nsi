; The set-up program: copies the files, registers the modules, lists the import filters, and takes all of
; it back. Built by scripts/package.sh, which defines VERSION, FOLDER (the files) and OUT.
;   tessaly-VERSION-x64-setup.exe [/S] [/AllUsers | /CurrentUser] [/D=FOLDER]
; For everybody where the user may, else for the user alone. Exit statuses: 0 done, 1 cancelled by the
; user, 2 not installed, or not removed, and nothing changed; also after a switch that is none of these.

; The 64-bit stub: a 32-bit one would see the other view of registry and system folder.
Target amd64-unicode
Unicode true
SetCompressor /SOLID lzma

!define NAME "Tessaly"
!define TITLE "Tessaly audio engine"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\${NAME}"
!define SETTINGS_KEY "Software\Brevant\Cutloom"

RequestExecutionLevel highest
!include MUI2.nsh
!include LogicLib.nsh
!include FileFunc.nsh
!include WordFunc.nsh

Var Scope ; machine or user, as the modules' variable TESSALY_REGISTRATION has it

Name "${TITLE}"
OutFile "${OUT}"
ShowInstDetails show
ShowUninstDetails show
VIProductVersion "${VERSION}.0"
VIAddVersionKey ProductName "${NAME}"
VIAddVersionKey ProductVersion "${VERSION}"
VIAddVersionKey FileVersion "${VERSION}"
VIAddVersionKey FileDescription "${TITLE} set-up"
VIAddVersionKey LegalCopyright ""

!define MUI_ABORTWARNING
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE English

; A failure before anything was changed: told in words, and by the status where nobody reads.
!macro Refuse message
  DetailPrint "${message}"
  MessageBox MB_ICONSTOP "${message}" /SD IDOK
  SetErrorLevel 2
  Quit
!macroend

; Modules and program must not be in use: half of them replaced would be worse than none. A file that runs
; or is loaded cannot be opened for writing.
!macro DefineRequireUnused un
  Function ${un}RequireUnused
    Push Tessaly.dll
    Push Converter.dll
    Push InterfacePicker.dll
    Push marlinda.exe
    ${For} $1 1 4
      Pop $2
      ${DoWhile} ${FileExists} "$INSTDIR\$2"
        ClearErrors
        FileOpen $0 "$INSTDIR\$2" a
        ${IfNot} ${Errors}
          FileClose $0
          ${Break}
        ${EndIf}
        MessageBox MB_RETRYCANCEL|MB_ICONEXCLAMATION \
          "$INSTDIR\$2 is in use, or may not be written. Close the programs that use it and try again." \
          /SD IDCANCEL IDRETRY again
        !insertmacro Refuse "$2 is in use, or may not be written; nothing was changed."
        again:
      ${Loop}
    ${Next}
  FunctionEnd
!macroend
!insertmacro DefineRequireUnused ""
!insertmacro DefineRequireUnused "un."

; Registers in a process of its own, which unloads the module again. $0: status, 0 for success.
!macro Register module options
  nsExec::Exec '"$SYSDIR\regsvr32.exe" /s ${options} "$INSTDIR\${module}"'
  Pop $0
!macroend

!macro DefineTakeBack un
  ; Undoes all that Install does. What was not done is not missed.
  Function ${un}TakeBack
    ${If} $Scope == machine
      nsExec::Exec '"$INSTDIR\marlinda.exe" install-filters --remove'
      Pop $0
    ${EndIf}
    !insertmacro Register InterfacePicker.dll /u
    !insertmacro Register Converter.dll /u
    !insertmacro Register Tessaly.dll /u
    ; The engine makes the keys of its settings when it looks for them, the machine's too where the user
    ; may. What is in them is the user's, or the application's.
    DeleteRegKey /ifempty HKLM "${SETTINGS_KEY}\Import Filters"
    DeleteRegKey /ifempty HKLM "${SETTINGS_KEY}"
    DeleteRegKey /ifempty HKLM "Software\Brevant"
    DeleteRegKey /ifempty HKCU "${SETTINGS_KEY}\Directories"
    DeleteRegKey /ifempty HKCU "${SETTINGS_KEY}\EncoderSettings"
    DeleteRegKey /ifempty HKCU "${SETTINGS_KEY}"
    DeleteRegKey /ifempty HKCU "Software\Brevant"
    DeleteRegKey SHCTX "${UNINSTALL_KEY}"
    ; File by file, for the folder may hold more than ours.
    !include "${FOLDER}.remove.nsh"
    Delete "$INSTDIR\uninstall.exe"
    RMDir "$INSTDIR"
    ; Not part of every user's profile: it may have come with us. Others' programs keep it.
    ${If} $INSTDIR == "$LOCALAPPDATA\Programs\${NAME}"
      RMDir "$LOCALAPPDATA\Programs"
    ${EndIf}
  FunctionEnd
!macroend
!insertmacro DefineTakeBack ""
!insertmacro DefineTakeBack "un."

!macro GiveUp message
  DetailPrint "${message}"
  Call TakeBack
  !insertmacro Refuse "${message} Nothing is left of the installation."
!macroend

!macro InstallModule module
  !insertmacro Register ${module} ""
  ${If} $0 != 0
    !insertmacro GiveUp "${module} could not be registered (regsvr32: $0)."
  ${EndIf}
!macroend

Section
  ReadRegStr $R0 SHCTX "${UNINSTALL_KEY}" InstallLocation
  ${If} $R0 != ""
  ${AndIf} $R0 != $INSTDIR
    !insertmacro Refuse "An installation in $R0 is there already. Remove it first, or renew it there."
  ${EndIf}
  Call RequireUnused
  SetOutPath "$INSTDIR"
  ClearErrors
  File /r "${FOLDER}\*"
  WriteUninstaller "$INSTDIR\uninstall.exe"
  ${If} ${Errors}
    !insertmacro GiveUp "Not all files could be written to $INSTDIR."
  ${EndIf}
  SetOutPath "$TEMP" ; a current folder cannot be removed

  !insertmacro InstallModule Tessaly.dll
  !insertmacro InstallModule Converter.dll
  !insertmacro InstallModule InterfacePicker.dll
  ; The list is the machine's; marlinda.exe works without it.
  ${If} $Scope == machine
    nsExec::Exec '"$INSTDIR\marlinda.exe" install-filters'
    Pop $0
    ${If} $0 != 0
      !insertmacro GiveUp "The import filters could not be listed (status $0)."
    ${EndIf}
  ${EndIf}

  WriteRegStr SHCTX "${UNINSTALL_KEY}" DisplayName "${TITLE} ${VERSION}"
  WriteRegStr SHCTX "${UNINSTALL_KEY}" DisplayVersion "${VERSION}"
  WriteRegStr SHCTX "${UNINSTALL_KEY}" DisplayIcon "$INSTDIR\marlinda.exe"
  WriteRegStr SHCTX "${UNINSTALL_KEY}" Publisher "${NAME}"
  WriteRegStr SHCTX "${UNINSTALL_KEY}" InstallLocation "$INSTDIR"
  WriteRegStr SHCTX "${UNINSTALL_KEY}" UninstallString '"$INSTDIR\uninstall.exe"'
  WriteRegStr SHCTX "${UNINSTALL_KEY}" QuietUninstallString '"$INSTDIR\uninstall.exe" /S'
  WriteRegDWORD SHCTX "${UNINSTALL_KEY}" NoModify 1
  WriteRegDWORD SHCTX "${UNINSTALL_KEY}" NoRepair 1
  ${GetSize} "$INSTDIR" "/S=0K" $0 $1 $2
  IntFmt $0 "0x%08X" $0
  WriteRegDWORD SHCTX "${UNINSTALL_KEY}" EstimatedSize $0
SectionEnd

Section Uninstall
  SetOutPath "$TEMP" ; a current folder cannot be removed
  Call un.RequireUnused
  Call un.TakeBack
SectionEnd

; The uninstaller runs as a copy in the temporary folder, which cannot remove itself: a command processor
; waits for its end, in the folder that the section has made the current one.
Function un.onUninstSuccess
  ${If} $EXEDIR != $INSTDIR
    ExecShell "" "$SYSDIR\cmd.exe" '/d /c for /l %i in (1,1,60) do \
      (del "$EXEPATH" & rmdir "$EXEDIR" & if exist "$EXEDIR" ping -n 2 127.0.0.1)' SW_HIDE
  ${EndIf}
FunctionEnd

; The user's own setting of the variable must not interfere.
!macro EnterScope
  SetRegView 64
  ${If} $Scope == machine
    SetShellVarContext all
  ${Else}
    SetShellVarContext current
  ${EndIf}
  System::Call 'kernel32::SetEnvironmentVariable(t "TESSALY_REGISTRATION", t "$Scope")'
!macroend

Function .onInit
  UserInfo::GetAccountType
  Pop $R0
  ${GetParameters} $R1 ; without /D
  ; A switch that is mistyped would be passed over, and something else installed than was meant.
  ${WordReplace} " $R1 " " " "  " "+" $R3 ; each word has its own two spaces
  ${WordReplace} $R3 " /S " "" "+" $R3
  ${WordReplace} $R3 " /NCRC " "" "+" $R3
  ${WordReplace} $R3 " /AllUsers " "" "+" $R3
  ${WordReplace} $R3 " /CurrentUser " "" "+" $R3
  ${WordReplace} $R3 " " "" "+" $R3
  ${If} $R3 != ""
    !insertmacro Refuse "Not a switch of this program: $R1"
  ${EndIf}
  StrCpy $Scope user
  ${If} $R0 == Admin
    StrCpy $Scope machine
  ${EndIf}
  ClearErrors
  ${GetOptions} $R1 /CurrentUser $R2
  ${IfNot} ${Errors}
    StrCpy $Scope user
    ClearErrors
    ${GetOptions} $R1 /AllUsers $R2
    ${IfNot} ${Errors}
      !insertmacro Refuse "/AllUsers and /CurrentUser contradict each other."
    ${EndIf}
  ${EndIf}
  ClearErrors
  ${GetOptions} $R1 /AllUsers $R2
  ${IfNot} ${Errors}
    StrCpy $Scope machine
    ${If} $R0 != Admin
      !insertmacro Refuse "Only an administrator can install for all users."
    ${EndIf}
  ${EndIf}
  !insertmacro EnterScope

  ; An installation is renewed where it is; two of them would share one registration.
  ReadRegStr $R0 SHCTX "${UNINSTALL_KEY}" InstallLocation
  ${If} $INSTDIR == "" ; no /D
    StrCpy $INSTDIR $R0
    ${If} $INSTDIR == ""
      StrCpy $INSTDIR "$PROGRAMFILES64\${NAME}"
      ${If} $Scope == user
        StrCpy $INSTDIR "$LOCALAPPDATA\Programs\${NAME}"
      ${EndIf}
    ${EndIf}
  ${EndIf}
FunctionEnd

Function un.onInit
  SetRegView 64
  StrCpy $Scope machine
  ReadRegStr $R0 HKCU "${UNINSTALL_KEY}" InstallLocation
  ${If} $R0 == $INSTDIR
    StrCpy $Scope user
  ${EndIf}
  UserInfo::GetAccountType
  Pop $R0
  ${If} $Scope == machine
  ${AndIf} $R0 != Admin
    !insertmacro Refuse "Only an administrator can remove what is installed for all users."
  ${EndIf}
  !insertmacro EnterScope
FunctionEnd
