#!/usr/bin/env bash
# The Windows release files from a Windows build (scripts/build-windows.sh): the installer
# Quenda-<version>-windows-x64-setup.exe (NSIS) and Quenda-<version>-windows-x64.zip with the
# same files for copying by hand.   windows-package.sh [BUILD_DIR] [OUT_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=$(realpath -m "${1:-build-windows}")
out_dir=$(realpath -m "${2:-$build_dir/packages}")

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build_dir/CMakeCache.txt")
[ -n "$version" ] || { echo "windows-package: no configured build in $build_dir" >&2; exit 1; }
artefacts=$build_dir/Quenda_artefacts/Release
for file in "$artefacts/VST/Quenda.dll" "$artefacts/VST3/Quenda.vst3/Contents/x86_64-win/Quenda.vst3"; do
    [ -f "$file" ] || { echo "windows-package: $file is missing; run scripts/build-windows.sh" >&2; exit 1; }
done

stage=$build_dir/stage
rm -rf "$stage"
mkdir -p "$stage/Quenda.vst3/Contents/x86_64-win" "$out_dir"
cp "$artefacts/VST/Quenda.dll" "$stage/"
cp "$artefacts/VST3/Quenda.vst3/Contents/x86_64-win/Quenda.vst3" "$stage/Quenda.vst3/Contents/x86_64-win/"
# Windows line ends, so that Notepad shows the lines.
sed 's/$/\r/' LICENSE > "$stage/LICENSE.txt"
sed 's/$/\r/' CHANGELOG.md > "$stage/CHANGELOG.txt"
cat > "$stage/README.txt" <<TEXT
Quenda $version for 64-bit Windows
Copy the folder Quenda.vst3 into C:\\Program Files\\Common Files\\VST3 (VST3 hosts), and/or
Quenda.dll into the folder your host scans for VST 2.4 plug-ins, usually
C:\\Program Files\\VSTPlugins. Then let the host rescan. Nothing else needs installing.
TEXT
sed -i 's/$/\r/' "$stage/README.txt"

setup=$out_dir/Quenda-$version-windows-x64-setup.exe
zip=$out_dir/Quenda-$version-windows-x64.zip
rm -f "$setup" "$zip"
makensis -V2 -DVERSION="$version" -DSTAGE="$stage" -DOUTFILE="$setup" packaging/windows/quenda.nsi
(cd "$stage" && zip -q -X -r "$zip" Quenda.dll Quenda.vst3 LICENSE.txt CHANGELOG.txt README.txt)
echo "windows-package: $(basename "$setup") $(stat -c %s "$setup") bytes, $(basename "$zip") $(stat -c %s "$zip") bytes"
