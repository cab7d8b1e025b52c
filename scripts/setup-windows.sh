#!/usr/bin/env bash
# Installs what the Windows build and its Wine tests need, and enables the source lines of the
# archive the machine already uses (the Windows builds of FFTW, libpng and libjpeg are made
# from Debian's own source packages). Safe to run again.
set -euo pipefail

packages=(
    g++-mingw-w64-x86-64-posix libz-mingw-w64-dev nasm make dpkg-dev
    wine wine64 xvfb xauth imagemagick x11-apps nsis zip unzip
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

source_list=/etc/apt/sources.list.d/quenda-deb-src
needs_sources=false
[ -e "$source_list.sources" ] || [ -e "$source_list.list" ] || needs_sources=true

if [ ${#missing[@]} -eq 0 ] && ! $needs_sources; then
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "setup-windows: needs root to install ${missing[*]:-nothing} and enable deb-src lines" >&2
    exit 1
fi

if $needs_sources; then
    # Same archive, suites and keys as the binary entries, as deb-src.
    if [ -e /etc/apt/sources.list.d/debian.sources ]; then
        sed 's/^Types:.*$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources > "$source_list.sources"
    else
        grep -E '^deb ' /etc/apt/sources.list | sed 's/^deb /deb-src /' > "$source_list.list"
    fi
fi

export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
if [ ${#missing[@]} -gt 0 ]; then
    echo "setup-windows: installing ${missing[*]}"
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
