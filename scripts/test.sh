#!/usr/bin/env bash
# Builds both flavours and runs the test suite (GPU-only tests skip themselves without a GPU), then runs the
# CPU flavour's suite again under AddressSanitizer and UBSan. `scripts/test.sh quick` skips the second pass.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh default
ctest --preset default -j "$(nproc)"
if [ "${1:-}" != "quick" ]; then
    bash scripts/build.sh asan
    ctest --preset asan -j "$(nproc)"
fi
