#!/usr/bin/env bash
# Proves the Windows installer and zip (scripts/windows-package.sh) under Wine, in a fresh Wine
# prefix: a silent install, the host-level tests (VST2 and VST3) against the plug-ins where
# the installer put them, the zip holding the same files, then the silent uninstall leaving no
# file and no registry key of Quenda's behind.   test-windows-installer.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=$(realpath -m "${1:-build-windows}")
setup=$(ls "$build_dir"/packages/Quenda-*-windows-x64-setup.exe)
zip=$(ls "$build_dir"/packages/Quenda-*-windows-x64.zip)
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build_dir/CMakeCache.txt")
started=$(date +%s)

export WINEPREFIX=$build_dir/wine-installer
rm -rf "$WINEPREFIX"
work=$(mktemp -d)
WINE_DISPLAY_CLEANUP="rm -rf $work"
source scripts/wine-display.sh

failed=0
check () { if ! "$@"; then echo "test-windows-installer: FAILED: ${failing:-$*}"; failed=1; fi; }

wine wineboot --init > /dev/null 2>&1
wineserver -w
c=$WINEPREFIX/drive_c
snapshot () { (cd "$c" && find . -not -path './windows/*' -not -path './users/*/Temp*' -not -path './users/*/AppData/Local/Temp*' | sort); }
snapshot > "$work/before"

uninstall_key='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\Quenda'
settings_key='HKLM\Software\Selvane\Quenda'
vst3_dir="$c/Program Files/Common Files/VST3/Quenda.vst3"
vst2_dll="$c/Program Files/VSTPlugins/Quenda.dll"

echo "test-windows-installer: $(basename "$setup") /S"
wine "$setup" /S
wineserver -w
for file in "$vst3_dir/Contents/x86_64-win/Quenda.vst3" "$vst2_dll" "$c/Program Files/Quenda/Uninstall.exe"; do
    failing="installed $file" check test -f "$file"
done
failing="Add/Remove Programs entry with version $version" check \
    bash -c "wine reg query '$uninstall_key' /v DisplayVersion 2>/dev/null | grep -q '$version'"

# The zip holds the same plug-ins.
mkdir "$work/zip"
(cd "$work/zip" && unzip -q "$zip")
failing="zip's Quenda.dll equals the installed one" check cmp -s "$work/zip/Quenda.dll" "$vst2_dll"
failing="zip's Quenda.vst3 equals the installed one" check \
    cmp -s "$work/zip/Quenda.vst3/Contents/x86_64-win/Quenda.vst3" "$vst3_dir/Contents/x86_64-win/Quenda.vst3"

# The host-level tests from where the installer put the plug-ins.
export QUENDA_VST2_PATH='C:\Program Files\VSTPlugins\Quenda.dll'
export QUENDA_VST3_BUNDLE='C:\Program Files\Common Files\VST3\Quenda.vst3'
for program in quenda_vst2_host_tests formats/quenda_wavelab_format_tests; do
    echo "test-windows-installer: $program against the installed plug-ins"
    failing="$program" check wine "$build_dir/tests/$program.exe" --gtest_brief=1
    wineserver -w
done

echo "test-windows-installer: uninstall /S"
wine "$c/Program Files/Quenda/Uninstall.exe" /S
wineserver -w
sleep 2
wineserver -w
snapshot > "$work/after"
left=$(comm -13 "$work/before" "$work/after")
failing="files left after uninstalling: $left" check test -z "$left"
for key in "$uninstall_key" "$settings_key"; do
    failing="registry key $key left" check bash -c "! wine reg query '$key' > /dev/null 2>&1"
done
failing="Quenda named in the registry after uninstalling" check bash -c "! grep -qi quenda '$WINEPREFIX/system.reg'"

echo "test-windows-installer: $([ $failed = 0 ] && echo passed || echo FAILED) in $(( $(date +%s) - started )) s"
exit $failed
