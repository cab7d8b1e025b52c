#!/usr/bin/env bash
# Installs the Debian packages Quenda builds and tests with. Safe to run again.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config ccache git python3
    juce-modules-source fst-dev lv2-dev libfftw3-dev
    libgtest-dev libbenchmark-dev
    clang clang-format libclang-rt-dev llvm lld
    libasound2-dev libfreetype-dev libfontconfig1-dev libx11-dev libxcomposite-dev
    libxcursor-dev libxext-dev libxinerama-dev libxrandr-dev libxrender-dev
    libflac-dev libvorbis-dev libogg-dev
    sordi
    libebur128-dev sox hyperfine
    xvfb xauth x11-utils procps
    ardour audacity
    lintian mmdebstrap desktop-file-utils man-db
)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages: ${missing[*]} (run as root or install them)" >&2
    exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
