#!/usr/bin/env bash
# Configures and builds one preset (default: both flavours). Usage: scripts/build.sh [preset]
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
bash scripts/deps.sh
export PATH="/usr/local/cuda/bin:$PATH"
launcher=()
if command -v ccache >/dev/null 2>&1; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_CUDA_COMPILER_LAUNCHER=ccache)
fi
cmake --preset "$preset" "${launcher[@]}" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
