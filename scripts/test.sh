#!/usr/bin/env bash
# Builds both flavours and runs the test suite (GPU-only tests skip themselves without a GPU), then runs the
# CPU flavour's suite again under AddressSanitizer and UBSan (`scripts/test.sh quick` skips that pass), then
# installs the Python package into a fresh virtual environment and runs its tests on the installed package.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh default
ctest --preset default -j "$(nproc)"
if [ "${1:-}" != "quick" ]; then
    bash scripts/build.sh asan
    ctest --preset asan -j "$(nproc)"
fi

venv=build/venv
rm -rf "$venv"
python3 -m venv "$venv"
cmake_args=""
if command -v ccache >/dev/null 2>&1; then
    cmake_args="-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_CUDA_COMPILER_LAUNCHER=ccache"
fi
CMAKE_ARGS="$cmake_args" CMAKE_BUILD_PARALLEL_LEVEL="$(nproc)" \
    "$venv/bin/python" -m pip install --quiet --disable-pip-version-check ".[test,dask]"
# From inside the environment, so that `import raytracing` finds the installed package, not the sources.
tests="$PWD/Python/tests"
(cd "$venv" && bin/python -m pytest -q --rootdir "$tests" "$tests")
