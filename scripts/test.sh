#!/usr/bin/env bash
# Builds both flavours and runs the test suite (GPU-only tests skip themselves without a GPU).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh default
ctest --preset default -j "$(nproc)"
