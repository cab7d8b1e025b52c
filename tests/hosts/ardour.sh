#!/usr/bin/env bash
# Quenda's LV2 and VST3 builds in Ardour 7, headless: values restored from a preset, the
# session reloaded in a new process; Ardour's eight controls must equal what the plug-in
# itself saved, and the preset's values.
#
#   bash tests/hosts/ardour.sh LV2_BUNDLE VST3_BUNDLE
#
# Exit status 0 pass, 1 fail, 77 skipped (Ardour is not installed).
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
lv2=${1:?usage: ardour.sh LV2_BUNDLE VST3_BUNDLE}
vst3=${2:?usage: ardour.sh LV2_BUNDLE VST3_BUNDLE}

if ! command -v ardour7-lua > /dev/null; then
    echo "ardour: skipped: ardour7-lua is not installed (Debian package ardour; scripts/setup.sh installs it)"
    exit 77
fi

work=$(mktemp -d /tmp/quenda-ardour.XXXXXX)
trap 'rm -rf "$work"' EXIT

# A home of its own: Ardour's configuration, plug-in cache and presets stay out of the
# user's, and only this build's Quenda can be found.
export HOME=$work/home
mkdir -p "$HOME/.lv2" "$HOME/.vst3"
ln -s "$(cd "$lv2" && pwd)" "$HOME/.lv2/Quenda.lv2"
ln -s "$(cd "$vst3" && pwd)" "$HOME/.vst3/Quenda.vst3"
export LV2_PATH=$HOME/.lv2:/usr/lib/lv2
export VST3_PATH=$HOME/.vst3

# Ardour finds VST3 plug-ins in the cache its scanner writes; the GUI runs it, a Lua session
# does not.
scanner=/usr/lib/ardour7/ardour-vst3-scanner
LD_LIBRARY_PATH=/usr/lib/ardour7 "$scanner" -q "$HOME/.vst3/Quenda.vst3" \
    || { echo "ardour: FAILED: $scanner cannot index $vst3"; exit 1; }

run () {
    timeout 300 ardour7-lua "$here/ardour-session.lua" "$@" > "$work/out.txt" 2>&1
    local status=$?
    grep -v "^\[WARNING\]\|^Butler\|^lua/unknown" "$work/out.txt"
    return $status
}

run create "$work/session" LV2 VST3 || { echo "ardour: FAILED to create the session"; exit 1; }
run read "$work/session" > "$work/values.txt" || { cat "$work/values.txt"; echo "ardour: FAILED to read the session back"; exit 1; }
cat "$work/values.txt"

# Each line: format, id, Ardour's value, the plug-in's, the preset's (float precision).
awk '
    NF == 5 && ($1 == "LV2" || $1 == "VST3") {
        if ($3 - $4 > 1e-6 || $4 - $3 > 1e-6) { print "ardour: " $1 " " $2 ": Ardour shows " $3 ", the plug-in has " $4; bad = 1 }
        if ($4 - $5 > 1e-5 || $5 - $4 > 1e-5) { print "ardour: " $1 " " $2 ": the plug-in has " $4 ", the preset held " $5; bad = 1 }
    }
    END { exit bad }' "$work/values.txt" || { echo "ardour: FAILED"; exit 1; }

for format in LV2 VST3; do
    [ "$(grep -c "^$format " "$work/values.txt")" -eq 8 ] || { echo "ardour: FAILED: $format: not all eight values read"; exit 1; }
done
echo "ardour: passed"
