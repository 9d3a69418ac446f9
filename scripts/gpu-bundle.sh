#!/usr/bin/env bash
# Builds here what a GPU machine needs to verify the GPU flavour (both flavours, the GPU tests, the
# differential check, the tools) and packs it with the shared libraries it needs into .gpu-bundle/, which one
# device call carries: `bash .gpu-bundle/gpu-check.sh OUTDIR` there (README, "Verifying the GPU flavour").
# The GPU machine has the CUDA driver, Python and a C++ runtime of its own, but none of our Debian packages
# (Embree, TBB, Assimp, ...): those travel in the bundle, compressed to stay well under the 64 MiB a call
# may carry.
set -euo pipefail
cd "$(dirname "$0")/.."
bundle=.gpu-bundle
limit=$((60 * 1024 * 1024)) # the call's 64 MiB also holds the working tree

bash scripts/deps.sh
export PATH="/usr/local/cuda/bin:$PATH"
launcher=()
if command -v ccache >/dev/null 2>&1; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_CUDA_COMPILER_LAUNCHER=ccache)
fi
cmake --preset default "${launcher[@]}" >/dev/null
binaries=(GpuFlavourTests gpu-differential optix-probe raycast raycast-bench)
libraries=(libRayTracing.so libRayTracingCpu.so libRayTracingCpuOptix.so)
cmake --build --preset default -j "$(nproc)" --target "${binaries[@]}" RayTracing RayTracingCpu OptixStandIn

rm -rf "$bundle"
stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir -p "$stage/bin" "$stage/lib/fallback" "$bundle"
for b in "${binaries[@]}"; do cp build/default/bin/"$b" "$stage/bin/"; done
for l in "${libraries[@]}"; do cp build/default/lib/"$l" "$stage/lib/"; done
strip --strip-unneeded "$stage"/bin/* "$stage"/lib/*.so

# Everything ldd resolves, except the C library and loader, which the GPU machine has. Its C++ runtime is
# newer than ours; ours waits in lib/fallback for a machine where it is not.
system='^(libc|libm|libdl|libpthread|librt|libresolv|ld-linux-x86-64)\.so'
runtime='^(libstdc\+\+|libgcc_s)\.so'
for f in "$stage"/bin/* "$stage"/lib/*.so; do
    ldd "$f" | awk '$2 == "=>" && $3 ~ /^\// { print $3 }'
done | sort -u | while read -r dependency; do
    name=$(basename "$dependency")
    if [[ $name =~ $system ]] || [ -e "$stage/lib/$name" ]; then
        continue
    elif [[ $name =~ $runtime ]]; then
        cp -L "$dependency" "$stage/lib/fallback/"
    else
        cp -L "$dependency" "$stage/lib/"
    fi
done

# Nothing may be missing once the bundle's folder is on the library path; the GPU flavour must not need TBB.
missing=$(for f in "$stage"/bin/* "$stage"/lib/*.so*; do
    LD_LIBRARY_PATH="$stage/lib" ldd "$f" 2>&1 | grep -E "not found" | sed "s|^|$(basename "$f"): |"
done || true)
if [ -n "$missing" ]; then
    echo "gpu-bundle: unresolved libraries:" >&2
    echo "$missing" >&2
    exit 1
fi
if ldd "$stage/lib/libRayTracing.so" | grep -q libtbb; then
    echo "gpu-bundle: libRayTracing.so must not need TBB" >&2
    exit 1
fi

cache=build/default/CMakeCache.txt
{
    echo "commit $(git rev-parse --short HEAD)$([ -z "$(git status --porcelain)" ] || echo ' with uncommitted changes')"
    echo "built $(date -u +%Y-%m-%dT%H:%M:%SZ) on $(. /etc/os-release && echo "$PRETTY_NAME")"
    echo "nvcc $(nvcc --version | sed -n 's/.*release \([0-9.]*\).*/\1/p')"
    echo "ptx_isa $(sed -n 's/^RAYTRACING_PTX_ISA:INTERNAL=//p' "$cache")"
    echo "ptx_min_driver $(sed -n 's/^RAYTRACING_PTX_MIN_DRIVER:INTERNAL=//p' "$cache")"
} >"$stage/BUILD-INFO.txt"

tar -C "$stage" -cf - . | xz -T2 -6 >"$bundle/payload.tar.xz"
cp scripts/gpu-check.sh "$bundle/"
size=$(du -sb "$bundle" | cut -f1)
echo "gpu-bundle: $bundle is $((size / 1024)) KiB ($(du -sb "$stage" | cut -f1 | awk '{printf "%d", $1 / 1048576}') MiB unpacked)"
if [ "$size" -gt "$limit" ]; then
    echo "gpu-bundle: larger than $((limit / 1048576)) MiB" >&2
    exit 1
fi
