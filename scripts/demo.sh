#!/usr/bin/env bash
# Builds the library and runs the main job on its embedded scene; pictures land in ./demo-output.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh default
mkdir -p demo-output
./build/default/bin/raycast demo --output-dir demo-output "$@"
