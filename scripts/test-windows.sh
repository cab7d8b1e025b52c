#!/usr/bin/env bash
# The Windows stage: cross-builds Quenda.dll, Quenda.vst3 and the host test programs, then runs
# them under Wine (its own prefix under the build folder, on a private Xvfb display): the
# host-level suite against the DLL, the VST3 through JUCE's hosting classes, the lock shared
# with another Wine process, the editor in a host window, photographed to
# BUILD_DIR/editor-windows.png, and pluginval.exe on both formats (scripts/pluginval-windows.sh).
# Usage: test-windows.sh [BUILD_DIR] (default build-windows).
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=$(realpath -m "${1:-build-windows}")
started=$(date +%s)

bash scripts/setup-windows.sh
bash scripts/build-windows.sh "$build_dir"
built=$(date +%s)

export WINEPREFIX=$build_dir/wine
source scripts/wine-display.sh

if [ ! -e "$WINEPREFIX/system.reg" ]; then
    wine wineboot --init >/dev/null 2>&1
fi
wineserver -w

dll=$build_dir/Quenda_artefacts/Release/VST/Quenda.dll
QUENDA_VST2_PATH=$(winepath -w "$dll")
export QUENDA_VST2_PATH

# The VST3 through JUCE's hosting classes, against the VST2 DLL's audio and state.
QUENDA_VST3_BUNDLE=$(winepath -w "$build_dir/Quenda_artefacts/Release/VST3/Quenda.vst3")
export QUENDA_VST3_BUNDLE

failed=0
for program in quenda_vst2_host_tests quenda_wavelab_host_tests quenda_hostile_host_tests formats/quenda_wavelab_format_tests; do
    echo "test-windows: $program under Wine"
    wine "$build_dir/tests/$program.exe" --gtest_brief=1 || failed=1
    wineserver -w
done

# The editor in a host window, on screen long enough to be photographed.
shot=$build_dir/editor-windows.png
rm -f "$shot"
exec 4< <(wine "$build_dir/tests/quenda-editor-window.exe" "$QUENDA_VST2_PATH" 4)
if read -r -t 60 word x y width height <&4 && [ "$word" = window ]; then
    sleep 1
    import -window root -crop "${width}x${height}+${x}+${y}" +repage "$shot"
fi
cat <&4 >/dev/null || true
wineserver -w

# A window that failed to paint is one flat colour.
if [ ! -s "$shot" ] || [ "$(identify -format '%[fx:standard_deviation > 0.02]' "$shot")" != 1 ]; then
    echo "test-windows: the editor did not show in its host window" >&2
    failed=1
else
    echo "test-windows: editor window photographed to $shot"
fi

# pluginval at the Linux run's settings; skipped (77) where ../shared is absent.
validated=$(date +%s)
result=0
bash scripts/pluginval-windows.sh "$build_dir" || result=$?
[ $result -eq 0 ] || [ $result -eq 77 ] || failed=1

echo "test-windows: build $(( built - started )) s, Wine runs $(( validated - built )) s, pluginval $(( $(date +%s) - validated )) s"
exit $failed
