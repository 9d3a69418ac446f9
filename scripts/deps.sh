#!/usr/bin/env bash
# Installs the Debian packages the build needs and a fresh machine lacks (the CUDA toolkit must be present).
set -euo pipefail
packages=(cmake ninja-build g++ ccache libembree-dev libtbb-dev libassimp-dev libcli11-dev libstb-dev
          libgtest-dev libgmock-dev libbenchmark-dev python3-dev python3-venv python3-pip)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
if ! command -v nvcc >/dev/null 2>&1 && [ ! -x /usr/local/cuda/bin/nvcc ]; then
    echo "nvcc not found: the CUDA toolkit (13.0) is needed to build (it compiles the device programs)." >&2
    exit 1
fi
