; SPDX-License-Identifier: GPL-3.0-or-later
; Quenda's Windows installer: the VST3 into the system's VST3 folder, the VST2 DLL into a folder
; the user picks, an uninstaller registered in Add/Remove Programs. Silent with /S (the VST2
; folder then from /D=...). Built by scripts/windows-installer.sh:
;   makensis -DVERSION=1.1.0 -DSTAGE=<folder with Quenda.dll, Quenda.vst3, LICENSE.txt> -DOUTFILE=... quenda.nsi
; A 64-bit installer for a 64-bit product (and Wine here runs 64-bit programs only).
Target amd64-unicode
SetCompressor /SOLID lzma
!include "MUI2.nsh"
!include "x64.nsh"

!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\Quenda"
!define SETTINGS_KEY "Software\Selvane\Quenda"

Name "Quenda ${VERSION}"
OutFile "${OUTFILE}"
RequestExecutionLevel admin
; The folder the directory page asks for is the VST2 one.
InstallDir "$PROGRAMFILES64\VSTPlugins"
InstallDirRegKey HKLM "${SETTINGS_KEY}" "VST2Folder"

!define MUI_DIRECTORYPAGE_TEXT_TOP "Quenda.vst3 goes into the system's VST3 folder ($COMMONFILES64\VST3). Choose the folder your host scans for VST 2.4 plug-ins; Quenda.dll goes there."
!define MUI_DIRECTORYPAGE_TEXT_DESTINATION "VST 2.4 plug-in folder"
!insertmacro MUI_PAGE_LICENSE "${STAGE}\LICENSE.txt"
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "English"

Function .onInit
    ${IfNot} ${RunningX64}
        MessageBox MB_ICONSTOP "Quenda needs 64-bit Windows." /SD IDOK
        Abort
    ${EndIf}
    SetRegView 64
FunctionEnd

Function un.onInit
    SetRegView 64
FunctionEnd

Section "Quenda"
    SetOutPath "$COMMONFILES64\VST3\Quenda.vst3\Contents\x86_64-win"
    File "${STAGE}\Quenda.vst3\Contents\x86_64-win\Quenda.vst3"

    SetOutPath "$INSTDIR"
    File "${STAGE}\Quenda.dll"

    SetOutPath "$PROGRAMFILES64\Quenda"
    File "${STAGE}\LICENSE.txt"
    File "${STAGE}\CHANGELOG.txt"
    WriteUninstaller "$PROGRAMFILES64\Quenda\Uninstall.exe"

    ; The uninstaller finds the VST2 folder here, wherever the user put it.
    WriteRegStr HKLM "${SETTINGS_KEY}" "VST2Folder" "$INSTDIR"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "Quenda ${VERSION}"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "Publisher" "Selvane"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$PROGRAMFILES64\Quenda"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$PROGRAMFILES64\Quenda\Uninstall.exe"'
    WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$PROGRAMFILES64\Quenda\Uninstall.exe" /S'
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoModify" 1
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoRepair" 1
SectionEnd

Section "Uninstall"
    ReadRegStr $0 HKLM "${SETTINGS_KEY}" "VST2Folder"
    ${If} $0 != ""
        Delete "$0\Quenda.dll"
        ; Only if nothing else is in it: other plug-ins share the folder.
        RMDir "$0"
    ${EndIf}

    Delete "$COMMONFILES64\VST3\Quenda.vst3\Contents\x86_64-win\Quenda.vst3"
    RMDir "$COMMONFILES64\VST3\Quenda.vst3\Contents\x86_64-win"
    RMDir "$COMMONFILES64\VST3\Quenda.vst3\Contents"
    RMDir "$COMMONFILES64\VST3\Quenda.vst3"
    RMDir "$COMMONFILES64\VST3"

    Delete "$PROGRAMFILES64\Quenda\LICENSE.txt"
    Delete "$PROGRAMFILES64\Quenda\CHANGELOG.txt"
    Delete "$PROGRAMFILES64\Quenda\Uninstall.exe"
    RMDir "$PROGRAMFILES64\Quenda"

    DeleteRegKey HKLM "${UNINSTALL_KEY}"
    DeleteRegKey HKLM "${SETTINGS_KEY}"
    DeleteRegKey /ifempty HKLM "Software\Selvane"
SectionEnd
