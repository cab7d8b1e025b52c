#!/usr/bin/env bash
# Cross-builds Quenda.dll and Quenda.vst3 for 64-bit Windows, and the Windows host test
# programs, with MinGW-w64. Usage: build-windows.sh [BUILD_DIR] (default build-windows).
#
# FFTW, libpng and libjpeg for Windows are built once, static, from Debian's source packages
# into BUILD_DIR/deps/prefix; a rerun finds them there and skips that step.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$PWD

build_dir=$(realpath -m "${1:-build-windows}")
deps_dir=$build_dir/deps
prefix=$deps_dir/prefix
host=x86_64-w64-mingw32
jobs=$(nproc)
toolchain=$source_dir/cmake/MinGW-w64-x86_64.cmake
export CC=$host-gcc-posix CXX=$host-g++-posix AR=$host-gcc-ar-posix RANLIB=$host-gcc-ranlib-posix

stamp() { date +%s; }
started=$(stamp)

# Unpacks a Debian source package (with Debian's patches applied) into deps/src/NAME. When
# the newest version cannot be fetched (a mirror that lags behind its index), older ones of
# the same archive are tried.
fetch_source()
{
    local package=$1 version
    local dir=$deps_dir/src/$package
    rm -rf "$dir"
    mkdir -p "$dir"
    chmod 0777 "$dir"   # apt's download user writes there
    for version in "" $(apt-cache showsrc "$package" | sed -n 's/^Version: /=/p'); do
        if (cd "$dir" && apt-get source -qq "$package$version" >/dev/null 2>"$dir.log"); then
            find "$dir" -mindepth 1 -maxdepth 1 -type d | head -n 1
            return 0
        fi
        echo "build-windows: could not fetch $package$version, trying an older version" >&2
        rm -rf "${dir:?}"/*
    done
    cat "$dir.log" >&2
    return 1
}

build_fftw()
{
    local dir
    dir=$(fetch_source fftw3)
    # Single precision for fftwf_*; FFTW's own aligned allocator, since MinGW has no memalign.
    (cd "$dir" && ./configure --host=$host --prefix="$prefix" --enable-static --disable-shared \
        --enable-single --enable-sse2 --enable-avx --with-our-malloc \
        --disable-fortran --disable-doc --disable-dependency-tracking >/dev/null \
     && make -j"$jobs" >/dev/null && make install >/dev/null)
}

build_png()
{
    local dir
    dir=$(fetch_source libpng1.6)
    (cd "$dir" && ./configure --host=$host --prefix="$prefix" --enable-static --disable-shared \
        --disable-dependency-tracking CPPFLAGS="-I/usr/$host/include" LDFLAGS="-L/usr/$host/lib" >/dev/null \
     && make -j"$jobs" >/dev/null && make install >/dev/null)
}

build_jpeg()
{
    local dir
    dir=$(fetch_source libjpeg-turbo)
    cmake -S "$dir" -B "$dir/build" -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_SYSTEM_NAME=Windows -DCMAKE_SYSTEM_PROCESSOR=AMD64 \
        -DCMAKE_C_COMPILER=$CC -DCMAKE_RC_COMPILER=$host-windres -DCMAKE_ASM_NASM_COMPILER=nasm \
        -DCMAKE_INSTALL_PREFIX="$prefix" -DENABLE_SHARED=OFF -DENABLE_STATIC=ON \
        -DWITH_TURBOJPEG=OFF -DWITH_JPEG8=OFF >/dev/null
    cmake --build "$dir/build" --parallel "$jobs" --target install >/dev/null
    # JUCE's loader reads the decompressor's internals, as Debian's libjpeg-dev allows.
    cp "$dir/jpegint.h" "$prefix/include/"
    # JUCE includes jpeglib.h inside a namespace of its own after windows.h, and uses that
    # namespace's boolean: declare it there even when rpcndr.h has declared the same type.
    sed -i '/#ifndef __RPCNDR_H__/{N;N;s/#ifndef __RPCNDR_H__[^\n]*\n\(typedef unsigned char boolean;\)\n#endif/\1/}' \
        "$prefix/include/jconfig.h"
}

# Each library is built once; its stamp in the prefix marks it done.
for library in fftw png jpeg; do
    if [ ! -e "$prefix/.built-$library" ]; then
        echo "build-windows: building $library for Windows into $prefix"
        build_$library
        touch "$prefix/.built-$library"
    fi
done
rm -rf "$deps_dir/src"
echo "build-windows: dependencies ready after $(( $(stamp) - started )) s"

# The plug-in and the programs the Wine stage runs; nothing else (no renderer, no benchmarks).
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DQUENDA_WINDOWS_PREFIX="$prefix" -DQUENDA_BUILD_BENCH=OFF >/dev/null
cmake --build "$build_dir" --parallel "$jobs" --target \
    Quenda_VST Quenda_VST3 quenda_vst2_host_tests quenda_wavelab_host_tests quenda_hostile_host_tests \
    quenda_wavelab_format_tests quenda-lock-holder quenda-editor-window

dll=$build_dir/Quenda_artefacts/Release/VST/Quenda.dll
# JUCE 7.0.5 writes no moduleinfo.json (its CMake has no manifest step); hosts then load the
# module to read its factory, as they do for every VST3 made before SDK 3.7.5.
vst3=$build_dir/Quenda_artefacts/Release/VST3/Quenda.vst3/Contents/x86_64-win/Quenda.vst3

# Each must load on a bare Windows and export its format's entry point.
source "$(dirname "${BASH_SOURCE[0]}")/windows-imports.sh"
check_module () {
    local module=$1 entry=$2 headers
    windows_imports_only_system "$module" build-windows
    headers=$($host-objdump -p "$module")
    if ! grep -qE "^\s*\[\s*[0-9]+\] $entry\$" <<<"$headers"; then
        echo "build-windows: $(basename "$module") does not export $entry" >&2
        exit 1
    fi
}
check_module "$dll" VSTPluginMain
check_module "$vst3" GetPluginFactory

echo "build-windows: $dll and $vst3 ready ($(( $(stamp) - started )) s)"
