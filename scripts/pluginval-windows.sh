#!/usr/bin/env bash
# Validates the Windows Quenda.dll and Quenda.vst3 with pluginval.exe (cross-built by
# scripts/build-pluginval-windows.sh) under Wine, with the same strictness, rates, block sizes,
# repeat and test order as the Linux run (scripts/pluginval-settings.sh).
#
#   bash scripts/pluginval-windows.sh BUILD_DIR     # a folder scripts/build-windows.sh filled
#
# Exit status: 0 both formats pass, 1 a failure, 77 skipped (no pluginval sources: a checkout
# outside CI, where ../shared is absent). Logs go to PLUGINVAL_OUTPUT_DIR (default
# BUILD_DIR/pluginval-logs); tests switched off for Windows only are listed in
# tests/pluginval/disabled-Windows-FORMAT.txt.
set -uo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?usage: pluginval-windows.sh BUILD_DIR}" && pwd)
skip=77

pluginval=$(bash "$repo/scripts/build-pluginval-windows.sh" "$build/deps/prefix")
case $? in
    0) ;;
    77) echo "pluginval-windows: skipped: ${PLUGINVAL_TOOLS:-../shared/tools/pluginval} is absent (the shared tools come with the CI workplace)"
        exit $skip ;;
    *) echo "pluginval-windows: could not build pluginval.exe" >&2
       exit 1 ;;
esac

plugins=("$build/Quenda_artefacts/Release/VST/Quenda.dll" "$build/Quenda_artefacts/Release/VST3/Quenda.vst3")
for plugin in "${plugins[@]}"; do
    if [ ! -e "$plugin" ]; then
        echo "pluginval-windows: $plugin is missing; run scripts/build-windows.sh first" >&2
        exit 1
    fi
done

logs=${PLUGINVAL_OUTPUT_DIR:-$build/pluginval-logs}
mkdir -p "$logs"

export WINEPREFIX=${WINEPREFIX:-$build/wine}
source "$repo/scripts/wine-display.sh"
if [ ! -e "$WINEPREFIX/system.reg" ]; then
    wine wineboot --init > /dev/null 2>&1
fi
wineserver -w

source "$repo/scripts/pluginval-settings.sh"

status=0
for plugin in "${plugins[@]}"; do
    format=$(basename "$(dirname "$plugin")")
    log=$logs/Windows-$format.log
    args=("${pluginval_settings[@]}")

    disabled=$(pluginval_disabled_for "Windows-$format" || true)
    [ -n "$disabled" ] && args+=(--disabled-tests "$disabled")

    echo "pluginval-windows: $format: $plugin"
    start=$(date +%s)
    # Windows' line ends are dropped so the log reads like the Linux one.
    wine "$pluginval" "${args[@]}" --validate "$(winepath -w "$plugin")" 2>&1 | tr -d '\r' > "$log"
    result=${PIPESTATUS[0]}
    wineserver -w
    seconds=$(( $(date +%s) - start ))

    if [ "$result" -eq 0 ] && grep -q "^SUCCESS" "$log"; then
        echo "pluginval-windows: $format: passed in ${seconds} s (log: $log)"
    else
        echo "pluginval-windows: $format: FAILED (status $result) after ${seconds} s; failures:"
        pluginval_failures "$log"
        echo "pluginval-windows: full log: $log"
        status=1
    fi
done

# A pass above means something only if "Allocations during process" sees the plug-in's own
# heap (pluginval-windows.patch redirects its imports): the VST3 wrapper's per-block allocation,
# disabled above, must still show when the test runs, and nothing else may fail.
log=$logs/Windows-allocation-check.log
wine "$pluginval" --strictness-level 10 --validate-in-process --skip-gui-tests --sample-rates 48000 --block-sizes 64 \
    --validate "$(winepath -w "${plugins[1]}")" 2>&1 | tr -d '\r' > "$log"
wineserver -w
others=$(pluginval_failures "$log" | grep -v " x Allocations during process\.\.\. | ")
if grep -q "Illegal malloc of 8 bytes in the plug-in" "$log" && [ -z "$others" ]; then
    echo "pluginval-windows: the allocation check sees the plug-in's allocations"
else
    echo "pluginval-windows: the allocation check did not see JUCE's VST3 wrapper allocate, or other tests failed (log: $log)"
    [ -n "$others" ] && echo "$others"
    status=1
fi

exit $status
