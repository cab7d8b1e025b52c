#!/usr/bin/env bash
# Sets up, builds the renderer and renders the embedded demo into ./quenda-demo.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/build.sh build -- quenda-render
./build/cli/quenda-render --demo quenda-demo
