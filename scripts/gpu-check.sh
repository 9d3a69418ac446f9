#!/usr/bin/env bash
# Verifies the GPU flavour on a machine with an NVIDIA GPU, from the bundle that scripts/gpu-bundle.sh makes:
# what the machine offers (GPU, driver, where the driver's OptiX library is and whether it serves ABI 105),
# the GPU test suite, the GPU flavour against the CPU flavour, the tool and the benchmark on the GPU. Writes
# OUTDIR/summary.txt first, then one log per step: six files. Without a GPU it says so in one line and exits
# 0; otherwise the exit status is 0 when every step passed. About five minutes on a 16-core machine.
# Usage: gpu-check.sh OUTDIR   (run from .gpu-bundle/ or from scripts/)
set -uo pipefail
out=${1:?usage: gpu-check.sh OUTDIR}

if ! nvidia-smi -L 2>/dev/null | grep -q '^GPU ' && [ -z "$(ls /proc/driver/nvidia/gpus 2>/dev/null)" ]; then
    echo "gpu-check: no NVIDIA GPU on this machine (nvidia-smi lists none); nothing to check."
    exit 0
fi

here=$(cd "$(dirname "$0")" && pwd)
payload=$here/payload.tar.xz
[ -f "$payload" ] || payload=$here/../.gpu-bundle/payload.tar.xz
if [ ! -f "$payload" ]; then
    echo "gpu-check: no bundle beside this script or in .gpu-bundle/ (make it with scripts/gpu-bundle.sh)" >&2
    exit 2
fi
mkdir -p "$out" && out=$(cd "$out" && pwd)
work=$(mktemp -d /tmp/gpu-check.XXXXXX)
trap 'rm -rf "$work"' EXIT
tar -xJf "$payload" -C "$work"
export LD_LIBRARY_PATH="$work/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
runtime="this machine's C++ runtime"
if ldd "$work"/bin/* "$work"/lib/*.so* 2>&1 | grep -qE "(GLIBCXX|CXXABI|GCC)_[0-9.]+' not found"; then
    export LD_LIBRARY_PATH="$work/lib/fallback:$LD_LIBRARY_PATH"
    runtime="the bundle's C++ runtime (this machine's is older)"
fi

summary=$out/summary.txt
say() { echo "$*" | tee -a "$summary"; }
info() { sed -n "s/^$1 //p" "$work/BUILD-INFO.txt"; }
: >"$summary"
driver=$(nvidia-smi --query-gpu=driver_version --format=csv,noheader 2>/dev/null | head -1)
need=$(info ptx_min_driver)
say "gpu-check $(date -u +%Y-%m-%dT%H:%M:%SZ) on $(hostname)"
say "bundle: commit $(info commit), nvcc $(info nvcc), PTX ISA $(info ptx_isa); runs with $runtime"
say "GPU: $(nvidia-smi --query-gpu=name,memory.total,compute_cap --format=csv,noheader 2>/dev/null | head -1)"
if [[ ${driver%%.*} =~ ^[0-9]+$ && $need =~ ^[0-9]+$ ]]; then
    [ "${driver%%.*}" -ge "$need" ] && verdict="accepts" || verdict="is TOO OLD for"
    say "driver $driver $verdict PTX ISA $(info ptx_isa) (drivers from r$need on)"
else
    say "driver '$driver': cannot compare with the oldest driver for PTX ISA $(info ptx_isa) (r$need)"
fi

failed=0
# step NAME SECONDS COMMAND...: runs one step into NAME.txt and adds its line to the summary.
step() {
    local name=$1 limit=$2 start=$SECONDS rc note=""
    shift 2
    timeout --kill-after=10 "$limit" "$@" >"$out/$name.txt" 2>&1
    rc=$?
    [ "$rc" -eq 124 ] && note=", timed out after $limit s"
    if [ "$name" = gpu-tests ]; then
        note="$note; $(grep -E '^\[  (PASSED|FAILED|SKIPPED) +\] [0-9]+ tests?' "$out/$name.txt" | tr -s ' ' |
            sed 's/\[ //; s/ \]//; s/,.*//; s/\.$//' | paste -sd ',' -)"
        # On a GPU machine a skip hides a failure.
        grep -qE '^\[  SKIPPED \] [0-9]' "$out/$name.txt" && rc=1
    fi
    if [ "$name" = bench ] && ! grep -q '^bench-gpu ' "$out/$name.txt"; then
        rc=1
        note="$note; no GPU case ran"
    fi
    [ "$rc" -eq 0 ] || failed=1
    say "$(printf '%-12s %s (exit %d, %d s%s) -> %s.txt' "$name" "$([ "$rc" -eq 0 ] && echo PASS || echo FAIL)" \
        "$rc" $((SECONDS - start)) "$note" "$name")"
}

machine() {
    echo "== nvidia-smi"
    nvidia-smi
    echo "== /proc/driver/nvidia/version"
    cat /proc/driver/nvidia/version
    echo "== system"
    uname -a
    grep PRETTY_NAME /etc/os-release
    echo "== loader cache: libcuda, libnvoptix"
    ldconfig -p | grep -E 'libcuda\.so|libnvoptix' || echo "(neither)"
    echo "== libnvoptix files under /usr, /lib64, /opt"
    timeout 30 find /usr /lib64 /opt -name 'libnvoptix.so*' 2>/dev/null
    echo "== optix-probe (LD_LIBRARY_PATH=$LD_LIBRARY_PATH)"
    "$work/bin/optix-probe"
    local rc=$?
    echo "== ldd"
    for f in "$work"/bin/* "$work"/lib/*.so; do
        echo "$(basename "$f"):"
        ldd "$f"
    done
    return $rc
}
export -f machine
export work

step machine 60 bash -c machine
say "libraries: $(grep -E 'not found' "$out/machine.txt" | sort -u | paste -sd ';' - | grep . || echo 'ldd resolves all')"
say "OptiX: $(grep -E 'loads from|does not load|is missing|optixQueryFunctionTable\(' "$out/machine.txt" | paste -sd ';' -)"
step gpu-tests 180 "$work/bin/GpuFlavourTests"
step differential 210 "$work/bin/gpu-differential"
step tool 45 "$work/bin/raycast" demo --device gpu --resolution 1280x720 --output-dir "$work"
step bench 120 "$work/bin/raycast-bench" --quick --repeats 2
grep -E '^(FAIL|differential:)' "$out/differential.txt" | head -20 | sed 's/^/    /' | tee -a "$summary"
grep -E '^(bench-gpu|# no GPU run)' "$out/bench.txt" | sed 's/^/    /' | tee -a "$summary"
say "overall: $([ "$failed" -eq 0 ] && echo PASS || echo FAIL)"
exit "$failed"
