#!/usr/bin/env bash
# Builds the Linux pluginval the project validates with and prints the binary's path: the
# shared build (../shared/tools/pluginval/build.sh: pluginval b107dd2 on Debian's JUCE 7.0.5)
# made against a copy of Debian's JUCE modules with tests/pluginval/*.patch applied (JUCE's
# LV2 host fix: a saved state holds the parameter values set since the last block).
#
#   bash scripts/build-pluginval.sh [CACHE_DIR]   # default: ~/.cache/pluginval-b107dd2-lv2fix
#
# A second call prints the path at once; a change to the patches or to the shared build
# starts it over. About 5 minutes on 2 cores. PLUGINVAL_TOOLS names the shared folder when
# ../shared is elsewhere. Exit status 77: the shared tools are absent.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
tools=${PLUGINVAL_TOOLS:-$repo/../shared/tools/pluginval}
cache=${1:-${XDG_CACHE_HOME:-$HOME/.cache}/pluginval-b107dd2-lv2fix}
bin=$cache/pluginval

if [ ! -f "$tools/build.sh" ]; then
    echo "build-pluginval: $tools/build.sh is absent (the shared tools come with the CI workplace)" >&2
    exit 77
fi

patches=("$repo"/tests/pluginval/*.patch)
config=$(ls -d /usr/lib/*/cmake/JUCE-7.0.5 2> /dev/null | head -n 1 || true)
if [ -z "$config" ] || [ ! -d /usr/share/juce/modules ]; then
    echo "build-pluginval: Debian's JUCE 7.0.5 is missing; run scripts/setup.sh" >&2
    exit 1
fi

mkdir -p "$cache"
# One build at a time per cache: the CI stages may ask for it together.
exec 9> "$cache/.lock"
flock 9

stamp=$(cat "$tools/build.sh" "$tools/debian-juce7.patch" "$tools/newdelete.dynlist" \
            "$tools/pluginval-b107dd2.tar.gz" "${patches[@]}" | sha256sum | cut -d' ' -f1)

if [ -x "$bin" ] && [ "$(cat "$cache/stamp" 2> /dev/null)" = "$stamp" ]; then
    echo "$bin"
    exit 0
fi

rm -f "$bin" "$cache/stamp"

# pluginval's find_package (JUCE) finds the copy first through JUCE_ROOT; the copy's config
# is Debian's with the modules' folder moved.
juce=$cache/juce
rm -rf "$juce"
mkdir -p "$juce/lib/cmake"
cp -r /usr/share/juce/modules "$juce/modules"
for patch in "${patches[@]}"; do
    patch -s -d "$juce/modules" -p1 --fuzz=0 < "$patch" \
        || { echo "build-pluginval: $patch does not apply to Debian's JUCE" >&2; exit 1; }
done
cp -r "$config" "$juce/lib/cmake/"
sed -i "s|/usr/share/juce/modules|$juce/modules|g" "$juce/lib/cmake/JUCE-7.0.5/JUCEConfig.cmake"

JUCE_ROOT=$juce bash "$tools/build.sh" "$cache" > /dev/null

# A build that fell back to Debian's own JUCE would pass for a fixed one.
if ! grep -q "$juce/modules/juce_audio_processors" "$cache/build/build.ninja"; then
    rm -f "$bin"
    echo "build-pluginval: pluginval was not built against the patched JUCE in $juce" >&2
    exit 1
fi

echo "$stamp" > "$cache/stamp"
echo "$bin"
