#!/usr/bin/env bash
# Sets up, builds the renderer and renders the generated demo into ./quenda-demo
# (the original, the tilted render, response.png, and band levels printed before and after).
# The folder holds only the demo's own files, so a rerun replaces them.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/build.sh build -- quenda-render
./build/cli/quenda-render --demo quenda-demo --overwrite
