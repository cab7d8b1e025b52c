#!/usr/bin/env bash
# Validates every plug-in format a build made with pluginval at strictness 10, the way a
# strict host would load it: many sample rates and block sizes, a random test order from a
# fixed seed, editor tests under Xvfb.
#
#   bash scripts/pluginval.sh BUILD_DIR
#
# Exit status: 0 all formats pass, 1 a failure, 77 skipped (no pluginval sources: a checkout
# outside CI, where ../shared is absent). PLUGINVAL_OUTPUT_DIR keeps the logs (default
# BUILD_DIR/pluginval-logs). PLUGINVAL_REPEAT and PLUGINVAL_SEED override the repeat count and
# the seed for local runs (scripts/pluginval-settings.sh), PLUGINVAL_TOOLS the shared pluginval
# folder when ../shared is elsewhere.
set -uo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?usage: pluginval.sh BUILD_DIR}" && pwd)
tools=${PLUGINVAL_TOOLS:-$repo/../shared/tools/pluginval}
skip=77

if [ ! -f "$tools/build.sh" ]; then
    echo "pluginval: skipped: $tools/build.sh is absent (the shared tools come with the CI workplace)"
    exit $skip
fi

if ! command -v xvfb-run > /dev/null; then
    echo "pluginval: xvfb-run is missing; run scripts/setup.sh" >&2
    exit 1
fi

# The shared pluginval with JUCE's LV2 host fix, cached after the first build (about 5 minutes
# on 2 cores; scripts/build-pluginval.sh).
pluginval=$(PLUGINVAL_TOOLS=$tools bash "$repo/scripts/build-pluginval.sh") || { echo "pluginval: could not build pluginval" >&2; exit 1; }

plugins=()
for pattern in "VST/Quenda.so" "VST3/Quenda.vst3" "LV2/Quenda.lv2"; do
    for candidate in "$build"/Quenda_artefacts/*/$pattern; do
        [ -e "$candidate" ] && plugins+=("$candidate")
    done
done

if [ ${#plugins[@]} -eq 0 ]; then
    echo "pluginval: no plug-in under $build/Quenda_artefacts; build Quenda's formats first" >&2
    exit 1
fi

logs=${PLUGINVAL_OUTPUT_DIR:-$build/pluginval-logs}
mkdir -p "$logs"

source "$repo/scripts/pluginval-settings.sh"

status=0
for plugin in "${plugins[@]}"; do
    format=$(basename "$(dirname "$plugin")")
    log=$logs/$format.log
    args=("${pluginval_settings[@]}")

    disabled=$(pluginval_disabled_for "$format" || true)
    [ -n "$disabled" ] && args+=(--disabled-tests "$disabled")

    # JUCE finds LV2 plug-ins by URI, only in its fixed folders (~/.lv2 among them, whatever
    # LV2_PATH says): the bundle is shown to it in the ~/.lv2 of a home of its own.
    target=$plugin
    home=$HOME
    if [ "$format" = LV2 ]; then
        # The subject written on the line before "a lv2:Plugin".
        target=$(awk '/^[[:space:]]*a lv2:Plugin/ { print previous; exit } { previous = $0 }' "$plugin/manifest.ttl" | tr -d '<> \t')
        home=$logs/lv2-home
        rm -rf "$home"
        mkdir -p "$home/.lv2"
        ln -s "$plugin" "$home/.lv2/$(basename "$plugin")"
    fi

    echo "pluginval: $format: $target"
    start=$(date +%s)
    HOME=$home xvfb-run -a -s "-screen 0 1280x1024x24" "$pluginval" "${args[@]}" --validate "$target" > "$log" 2>&1
    result=$?
    seconds=$(( $(date +%s) - start ))

    if [ $result -eq 0 ] && grep -q "SUCCESS" "$log"; then
        echo "pluginval: $format: passed in ${seconds} s (log: $log)"
    else
        echo "pluginval: $format: FAILED (status $result) after ${seconds} s; failures:"
        pluginval_failures "$log"
        echo "pluginval: full log: $log"
        status=1
    fi
done

exit $status
