#!/usr/bin/env bash
# One command for a release: the Debian package (scripts/deb.sh), the Windows installer and zip
# (scripts/build-windows.sh, scripts/windows-package.sh), copied into dist/ with SHA256SUMS.
#   bash scripts/release.sh          # as root; RELEASE_PROVE=1 also runs the package proofs
# Builds in build/ and build-windows/ (reused when present, as CI leaves them).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/setup-windows.sh

prove=${RELEASE_PROVE:-0}
DEB_SKIP_PROOF=$(( 1 - prove )) bash scripts/deb.sh build
bash scripts/build-windows.sh build-windows
bash scripts/windows-package.sh build-windows
[ "$prove" = 1 ] && bash scripts/test-windows-installer.sh build-windows

rm -rf dist
mkdir dist
cp build/packages/quenda_*_amd64.deb build-windows/packages/Quenda-*-windows-x64-setup.exe \
   build-windows/packages/Quenda-*-windows-x64.zip dist/
(cd dist && sha256sum -- * > SHA256SUMS)
echo "release: dist/"
(cd dist && ls -l)
