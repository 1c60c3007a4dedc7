; Source of the set-up program and the uninstaller. The set-up program copies the files, registers the modules of both
; bitnesses, lists the import filters in the registry and adds entries to the Start menu. scripts/package.sh builds it
; and defines VERSION, OUT and FOLDER. ${FOLDER} holds the files to install. Lists of these files and of the modules are
; beside ${FOLDER}.
;   tessaly-VERSION-setup.exe [/S] [/AllUsers | /CurrentUser] [/Path] [/D=FOLDER]
; By default, installs for all users if the user is an administrator, else for the current user. /Path adds
; $INSTDIR\x64 to the PATH. /D sets $INSTDIR. Exit status: 0 done, 1 cancelled by the user, 2 refused or failed. A
; refusal changes nothing. A failure removes the whole installation.

; A 32-bit set-up program would see the 32-bit views of the registry and the system folder.
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
!include Sections.nsh
!include WinMessages.nsh

Var Scope ; machine or user, the values of the environment variable TESSALY_REGISTRATION
Var SysWow64 ; the folder of the system's 32-bit programs; empty if the system runs none

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
!define MUI_PAGE_HEADER_TEXT "Other people's code"
!define MUI_PAGE_HEADER_SUBTEXT "What is inside, and its licences"
!define MUI_LICENSEPAGE_TEXT_TOP "Press Page Down for the text of each licence."
!define MUI_LICENSEPAGE_TEXT_BOTTOM "The folder licences will hold these texts."
!define MUI_LICENSEPAGE_BUTTON "&Next >"
!insertmacro MUI_PAGE_LICENSE "${FOLDER}.licences.txt"
!insertmacro MUI_PAGE_COMPONENTS
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE English

; Shows a message and ends with status 2.
!macro Refuse message
  DetailPrint "${message}"
  MessageBox MB_ICONSTOP "${message}" /SD IDOK
  SetErrorLevel 2
  Quit
!macroend

; Refuses to continue while a module or program is in use, because it could not be replaced or
; removed with the others. Opens each file for writing, which fails for a file in use.
!macro RequireUnused folder kind
  FindFirst $1 $2 "$INSTDIR\${folder}\*.${kind}"
  ${DoUntil} $2 == ""
    ClearErrors
    FileOpen $0 "$INSTDIR\${folder}\$2" a
    ${IfNot} ${Errors}
      FileClose $0
      FindNext $1 $2
    ${ElseIf} ${Cmd} `MessageBox MB_RETRYCANCEL|MB_ICONEXCLAMATION \
      "$INSTDIR\${folder}\$2 is in use, or may not be written. Close the programs that use it and try again." \
      /SD IDCANCEL IDCANCEL`
      !insertmacro Refuse "$2 is in use or cannot be written. Nothing was changed. Close the programs that use it and try again."
    ${EndIf}
  ${Loop}
  FindClose $1
!macroend
!macro DefineRequireUnused un
  Function ${un}RequireUnused
    !insertmacro RequireUnused x64 dll
    !insertmacro RequireUnused x64 exe
    !insertmacro RequireUnused x86 dll
    !insertmacro RequireUnused x86 exe
  FunctionEnd
!macroend
!insertmacro DefineRequireUnused ""
!insertmacro DefineRequireUnused "un."

; Registers the module in a separate process of the module's bitness. $0 receives the status. It is 0 on success,
; and for a 32-bit module on a system that cannot run 32-bit programs.
!macro Register folder module options
  StrCpy $0 0
  !if ${folder} == x64
    StrCpy $1 $SYSDIR
  !else
    StrCpy $1 $SysWow64
  !endif
  ${If} $1 != ""
    nsExec::Exec '"$1\regsvr32.exe" /s ${options} "$INSTDIR\${folder}\${module}"'
    Pop $0
  ${EndIf}
!macroend
!macro TakeBackModule folder module
  !insertmacro Register ${folder} ${module} /u
!macroend

; Adds the built-in import filters of one bitness to the registry's filter list, or removes them.
; The list is only in HKLM, so an installation for the current user adds none. marlinda.exe finds
; built-in filters without the list.
!macro ListFilters folder options
  StrCpy $0 0
  ${If} $Scope == machine
    !if ${folder} == x86
    ${AndIf} $SysWow64 != ""
    !endif
    nsExec::Exec '"$INSTDIR\${folder}\marlinda.exe" install-filters ${options}'
    Pop $0
  ${EndIf}
!macroend

; Removes the empty settings keys. The engine creates its keys when it reads settings, but in HKLM
; only if the user may write there. Keys with values belong to the user or the application and stay.
!macro RemoveEmptySettings view
  SetRegView ${view}
  DeleteRegKey /ifempty HKLM "${SETTINGS_KEY}\Import Filters"
  DeleteRegKey /ifempty HKLM "${SETTINGS_KEY}"
  DeleteRegKey /ifempty HKLM "Software\Brevant"
  DeleteRegKey /ifempty HKCU "${SETTINGS_KEY}\Directories"
  DeleteRegKey /ifempty HKCU "${SETTINGS_KEY}\EncoderSettings"
  DeleteRegKey /ifempty HKCU "${SETTINGS_KEY}"
  DeleteRegKey /ifempty HKCU "Software\Brevant"
!macroend

!macro DefineChangePath un
  ; Appends $INSTDIR\x64 to the PATH of $Scope if $R9 is "add", else removes it. The PATH is not held in a
  ; variable, because variables have at most 1,024 characters.
  Function ${un}ChangePath
    StrCpy $R0 -2147483647 ; HKEY_CURRENT_USER
    StrCpy $R1 "Environment"
    ${If} $Scope == machine
      StrCpy $R0 -2147483646 ; HKEY_LOCAL_MACHINE
      StrCpy $R1 "System\CurrentControlSet\Control\Session Manager\Environment"
    ${EndIf}
    StrCpy $R2 "$INSTDIR\x64;"
    System::Call 'advapi32::RegOpenKeyExW(p R0, w R1, i 0, i 0x103, *p .r1) i .r0'
    System::Alloc 70000 ; a value of an environment has 65,534 bytes at most
    Pop $2
    StrCpy $4 2 ; REG_EXPAND_SZ, unless the value has another type
    IntPtrOp $3 $2 + 2
    System::Call 'advapi32::RegQueryValueExW(p r1, w "Path", p 0, *i r4r4, p r3, *i 65534) i .r5'
    ${If} $5 == 2 ; the value does not exist
      StrCpy $5 0
    ${EndIf}
    ${If} $5 == 0
      ; Adds semicolons at both ends, so that each folder has a semicolon on either side.
      System::Call '*$2(&i2 0x3B)'
      System::Call 'kernel32::lstrlenW(p r2) i .r6'
      ${If} $6 > 1
        System::Call 'kernel32::lstrcatW(p r2, w ";")'
      ${EndIf}
      System::Call 'shlwapi::StrStrIW(p r2, w ";$R2") p .r5'
      StrCpy $8 same
      ${If} $R9 == add
      ${AndIf} $5 == 0
        StrCpy $8 changed
        System::Call 'kernel32::lstrcatW(p r2, w R2)'
      ${ElseIf} $R9 != add
      ${AndIf} $5 != 0
        StrCpy $8 changed
        StrLen $6 $R2
        IntOp $6 $6 * 2
        IntPtrOp $7 $5 + $6
        System::Call 'kernel32::lstrlenW(p r7) i .r6'
        IntOp $6 $6 * 2
        IntOp $6 $6 + 2
        System::Call 'ntdll::memmove(p r5, p r7, p r6)'
      ${EndIf}
      System::Call 'kernel32::lstrlenW(p r2) i .r6'
      ${If} $8 == same
      ${ElseIf} $6 > 1
        IntOp $6 $6 - 1
        IntOp $6 $6 * 2
        IntPtrOp $7 $2 + $6
        System::Call '*$7(&i2 0)'
        System::Call 'advapi32::RegSetValueExW(p r1, w "Path", i 0, i r4, p r3, i r6)'
      ${Else}
        System::Call 'advapi32::RegDeleteValueW(p r1, w "Path")'
      ${EndIf}
      ${If} $8 == changed
        SendMessage ${HWND_BROADCAST} ${WM_SETTINGCHANGE} 0 "STR:Environment" /TIMEOUT=1000
      ${EndIf}
    ${EndIf}
    System::Free $2
    System::Call 'advapi32::RegCloseKey(p r1)'
  FunctionEnd
!macroend
!insertmacro DefineChangePath ""
!insertmacro DefineChangePath "un."

!macro DefineTakeBack un
  ; Undoes an installation, also an incomplete one.
  Function ${un}TakeBack
    !insertmacro ListFilters x64 --remove
    !insertmacro ListFilters x86 --remove
    !define Module "!insertmacro TakeBackModule"
    !include "${FOLDER}.modules.nsh"
    !undef Module
    !insertmacro RemoveEmptySettings 32
    !insertmacro RemoveEmptySettings 64
    StrCpy $R9 remove
    Call ${un}ChangePath
    Delete "$SMPROGRAMS\${NAME}\*.lnk"
    RMDir "$SMPROGRAMS\${NAME}"
    DeleteRegKey SHCTX "${UNINSTALL_KEY}"
    ; Deletes file by file, because the folder may hold other files.
    !include "${FOLDER}.remove.nsh"
    Delete "$INSTDIR\uninstall.exe"
    RMDir "$INSTDIR"
    ; The installation may have created the folder Programs. RMDir removes it only if it is empty.
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
  !insertmacro Refuse "${message} The installation was undone."
!macroend

!macro InstallModule folder module
  !insertmacro Register ${folder} ${module} ""
  ${If} $0 != 0
    !insertmacro GiveUp "${folder}\${module} could not be registered (regsvr32: $0)."
  ${EndIf}
!macroend
!macro InstallFilters folder
  !insertmacro ListFilters ${folder} ""
  ${If} $0 != 0
    !insertmacro GiveUp "The import filters of ${folder} could not be listed (status $0)."
  ${EndIf}
!macroend

Section "Engine, programs, documents"
  SectionIn RO
  ReadRegStr $R0 SHCTX "${UNINSTALL_KEY}" InstallLocation
  ${If} $R0 != ""
  ${AndIf} $R0 != $INSTDIR
    !insertmacro Refuse "Tessaly is already installed in $R0. Remove it first, or install into that folder."
  ${EndIf}
  Call RequireUnused
  SetOutPath "$INSTDIR"
  ClearErrors
  File /r "${FOLDER}\*"
  WriteUninstaller "$INSTDIR\uninstall.exe"
  ${If} ${Errors}
    !insertmacro GiveUp "Some files could not be written to $INSTDIR. Check that the disk has room and that you may write there."
  ${EndIf}
  SetOutPath "$TEMP" ; a current folder cannot be removed

  ${If} $SysWow64 == ""
    DetailPrint "This system runs no 32-bit programs: the modules in x86 are not registered."
  ${EndIf}
  !define Module "!insertmacro InstallModule"
  !include "${FOLDER}.modules.nsh"
  !undef Module
  !insertmacro InstallFilters x64
  !insertmacro InstallFilters x86

  WriteRegStr SHCTX "${UNINSTALL_KEY}" DisplayName "${TITLE} ${VERSION}"
  WriteRegStr SHCTX "${UNINSTALL_KEY}" DisplayVersion "${VERSION}"
  WriteRegStr SHCTX "${UNINSTALL_KEY}" DisplayIcon "$INSTDIR\x64\marlinda.exe"
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

Section "Entries in the Start menu"
  SetOutPath "$INSTDIR" ; the working folder of the shortcuts
  CreateDirectory "$SMPROGRAMS\${NAME}"
  CreateShortcut "$SMPROGRAMS\${NAME}\${NAME} console.lnk" "$INSTDIR\console.cmd"
  CreateShortcut "$SMPROGRAMS\${NAME}\${NAME} documents.lnk" "$INSTDIR\docs"
  CreateShortcut "$SMPROGRAMS\${NAME}\${NAME} editor.lnk" "$INSTDIR\x64\marlinda-editor.exe"
  SetOutPath "$TEMP"
SectionEnd

Section /o "marlinda in the PATH" PathSection
  StrCpy $R9 add
  Call ChangePath
SectionEnd

Section Uninstall
  SetOutPath "$TEMP" ; a current folder cannot be removed
  Call un.RequireUnused
  Call un.TakeBack
SectionEnd

; The uninstaller runs as a copy in the temporary folder. The copy cannot delete itself, so cmd.exe waits for its end
; and deletes it. cmd.exe starts in $TEMP, the current folder that section Uninstall has set.
Function un.onUninstSuccess
  ${If} $EXEDIR != $INSTDIR
    ExecShell "" "$SYSDIR\cmd.exe" '/d /c for /l %i in (1,1,60) do \
      (del "$EXEPATH" & rmdir "$EXEDIR" & if exist "$EXEDIR" ping -n 2 127.0.0.1)' SW_HIDE
  ${EndIf}
FunctionEnd

; Uses the registry, folders and registration of $Scope, and ignores the user's TESSALY_REGISTRATION.
!macro EnterScope
  SetRegView 64
  ${If} $Scope == machine
    SetShellVarContext all
  ${Else}
    SetShellVarContext current
  ${EndIf}
  System::Call 'kernel32::SetEnvironmentVariable(t "TESSALY_REGISTRATION", t "$Scope")'
  StrCpy $SysWow64 ""
  ${If} ${FileExists} "$WINDIR\SysWOW64\regsvr32.exe"
    StrCpy $SysWow64 "$WINDIR\SysWOW64"
  ${EndIf}
!macroend

Function .onInit
  UserInfo::GetAccountType
  Pop $R0
  ${GetParameters} $R1 ; without /D
  ; Rejects unknown switches, because NSIS would ignore them.
  ${WordReplace} " $R1 " " " "  " "+" $R3 ; each word has its own two spaces
  ${WordReplace} $R3 " /S " "" "+" $R3
  ${WordReplace} $R3 " /NCRC " "" "+" $R3
  ${WordReplace} $R3 " /AllUsers " "" "+" $R3
  ${WordReplace} $R3 " /CurrentUser " "" "+" $R3
  ${WordReplace} $R3 " /Path " "" "+" $R3
  ${WordReplace} $R3 " " "" "+" $R3
  ${If} $R3 != ""
    !insertmacro Refuse "Unknown switch: $R1. Use /S, /AllUsers, /CurrentUser, /Path, /D=FOLDER."
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
      !insertmacro Refuse "/AllUsers and /CurrentUser exclude each other. Use one of them."
    ${EndIf}
  ${EndIf}
  ClearErrors
  ${GetOptions} $R1 /AllUsers $R2
  ${IfNot} ${Errors}
    StrCpy $Scope machine
    ${If} $R0 != Admin
      !insertmacro Refuse "Only an administrator can install for all users. Use /CurrentUser, or run this program as administrator."
    ${EndIf}
  ${EndIf}
  !insertmacro EnterScope
  ClearErrors
  ${GetOptions} $R1 /Path $R2
  ${IfNot} ${Errors}
    !insertmacro SelectSection ${PathSection}
  ${EndIf}

  ; A new version replaces an existing installation in its folder, because two would share one registration.
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
    !insertmacro Refuse "Only an administrator can remove an installation for all users. Run this program as administrator."
  ${EndIf}
  !insertmacro EnterScope
FunctionEnd
