#!/usr/bin/env bash
# Cross-builds pluginval 1.0.3 for 64-bit Windows from the shared tools' tarball and Debian
# patch (../shared/tools/pluginval), with our MinGW-w64 toolchain, Debian's JUCE 7.0.5, VST2
# hosting (fst headers) and VST3 hosting, and prints the path of pluginval.exe on stdout.
#
#   bash scripts/build-pluginval-windows.sh DEPS_PREFIX [CACHE_DIR]
#
# DEPS_PREFIX holds the Windows builds of libpng, libjpeg and zlib that scripts/build-windows.sh
# makes (BUILD_DIR/deps/prefix). CACHE_DIR defaults to ~/.cache/pluginval-win-b107dd2; a second
# call prints the cached path at once, unless the patches or this script have changed since.
# PLUGINVAL_TOOLS names another folder with the shared tools (a worktree beside the checkout).
# Exit status 77: the shared tools are absent (a checkout outside CI).
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
shared=${PLUGINVAL_TOOLS:-$repo/../shared/tools/pluginval}
prefix=$(realpath "${1:?usage: build-pluginval-windows.sh DEPS_PREFIX [CACHE_DIR]}")
cache=${2:-${XDG_CACHE_HOME:-$HOME/.cache}/pluginval-win-b107dd2}
bin=$cache/pluginval.exe

if [ ! -f "$shared/pluginval-b107dd2.tar.gz" ]; then
    echo "build-pluginval-windows: $shared is absent (the shared tools come with the CI workplace)" >&2
    exit 77
fi

# Two stages building at once would delete each other's folders: the second waits, then
# finds the first one's binary.
mkdir -p "$cache"
exec 9> "$cache/.lock"
flock 9

# What the binary is made from; a change to any of them means a rebuild.
stamp=$(cat "$shared/pluginval-b107dd2.tar.gz" "$shared/debian-juce7.patch" "$repo/scripts/pluginval-windows.patch" \
             "$repo/cmake/MinGW-w64-x86_64.cmake" "${BASH_SOURCE[0]}" | sha256sum | cut -d' ' -f1)
if [ -x "$bin" ] && [ "$(cat "$cache/stamp" 2>/dev/null)" = "$stamp" ]; then
    echo "$bin"
    exit 0
fi

started=$(date +%s)
rm -rf "$cache/src" "$cache/build" "$cache/vst2sdk" "$bin" "$cache/stamp"
tar -xzf "$shared/pluginval-b107dd2.tar.gz" -C "$cache"
mv "$cache/pluginval-b107dd2" "$cache/src"
(cd "$cache/src" && patch -s -p1 < "$shared/debian-juce7.patch" && patch -s -p1 < "$repo/scripts/pluginval-windows.patch")

# JUCE's VST2 host code writes 8 speaker entries where fst declares an open array: padded, as
# the Linux build does, or the host's heap is corrupted.
sdk=$cache/vst2sdk/pluginterfaces/vst2.x
mkdir -p "$sdk"
cp /usr/include/pluginterfaces/fst/aeffect.h /usr/include/pluginterfaces/fst/aeffectx.h "$sdk/"
sed 's/t_fstSpeakerProperties speakers\[\];/t_fstSpeakerProperties speakers[8];/' \
    /usr/include/pluginterfaces/fst/fst.h > "$sdk/fst.h"
grep -q 'speakers\[8\]' "$sdk/fst.h" || { echo "build-pluginval-windows: could not pad fst.h" >&2; exit 1; }

launcher=()
command -v ccache > /dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

# The toolchain links the GCC runtime, libstdc++ and winpthread statically.
{
    cmake -S "$cache/src" -B "$cache/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/MinGW-w64-x86_64.cmake" -DQUENDA_WINDOWS_PREFIX="$prefix" \
        -DPLUGINVAL_FETCH_JUCE=OFF -DVST2_SDK_DIR="$cache/vst2sdk" "${launcher[@]}"
    cmake --build "$cache/build" -j "$(nproc)"
} > "$cache/build.log" 2>&1 || { echo "build-pluginval-windows: build failed; see $cache/build.log" >&2; tail -n 30 "$cache/build.log" >&2; exit 1; }

built=$cache/build/pluginval_artefacts/Release/pluginval.exe

# Wine must run it with Windows' own DLLs only.
source "$repo/scripts/windows-imports.sh"
windows_imports_only_system "$built" build-pluginval-windows

cp "$built" "$bin"
echo "$stamp" > "$cache/stamp"
echo "build-pluginval-windows: built in $(( $(date +%s) - started )) s" >&2
echo "$bin"
