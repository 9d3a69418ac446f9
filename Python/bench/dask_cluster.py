"""Measures raytracing.dask on local clusters of this machine; prints figures, asserts nothing.

    python Python/bench/dask_cluster.py    # 10M rays against 1M triangles, then the cost per chunk
    python Python/bench/dask_cluster.py --rays 2000000 --triangles 200000 --layouts 1x2 2x1

For each layout (workers x threads per worker): the mesh sent to the workers, the first query (every worker
builds its Scene) and the best of the later ones, in M rays/s, beside one Scene call in this process on the
same rays. The rays are made on the workers beforehand and only a checksum comes back: the figures are tracing
plus Dask, not making rays or moving them to the client. Then the scheduler's cost per chunk: the same rays as
one chunk and as many small ones, on 2 single-threaded workers.
"""

import argparse
import os
import time

import dask.array as da
import numpy as np
from distributed import Client, LocalCluster, wait

import raytracing as rt
from raytracing import dask as rtd


def bumpy_sphere(triangles: int):
    """A closed sphere of about ``triangles`` triangles, its radius rippled so that the tree has work."""
    rings = max(4, int(np.sqrt(triangles / 4)))
    sectors = max(4, triangles // (2 * rings))
    theta = np.linspace(0, np.pi, rings + 1)[:, None]
    phi = np.linspace(0, 2 * np.pi, sectors, endpoint=False)[None, :]
    radius = 1 + 0.05 * np.sin(7 * theta) * np.cos(11 * phi)
    points = np.stack(
        [
            radius * np.sin(theta) * np.cos(phi),
            radius * np.sin(theta) * np.sin(phi),
            radius * np.cos(theta) + 0 * phi,
        ],
        axis=-1,
    ).reshape(-1, 3)
    i, j = np.meshgrid(np.arange(rings), np.arange(sectors), indexing="ij")
    a, b = i * sectors + j, i * sectors + (j + 1) % sectors
    c, d = a + sectors, b + sectors
    faces = np.concatenate([np.stack([a, c, d], -1).reshape(-1, 3), np.stack([a, d, b], -1).reshape(-1, 3)])
    return points.astype(np.float32), faces.astype(np.int32)


def random_rays(count: int, rays_per_chunk: int, seed: int = 7):
    """Origins inside the sphere, random directions: every ray hits once or more. Dask arrays made on the
    workers."""
    rng = da.random.default_rng(seed)
    origins = rng.uniform(-0.5, 0.5, (count, 3), chunks=(rays_per_chunk, 3)).astype(np.float32)
    directions = rng.standard_normal((count, 3), chunks=(rays_per_chunk, 3)).astype(np.float32)
    return origins, directions


def checksum(mesh, origins, directions) -> float:
    hits = rtd.nearest(mesh, origins, directions)
    distance_sum, triangle_sum = da.compute(hits.distance.sum(dtype=np.float64), hits.triangle.sum(dtype=np.int64))
    return float(distance_sum) + float(triangle_sum)


def timed(function, *args, **kwargs):
    began = time.perf_counter()
    result = function(*args, **kwargs)
    return time.perf_counter() - began, result


def layout_figures(layout: str, vertices, faces, origins, directions, repeats: int) -> float:
    workers, threads = (int(x) for x in layout.split("x"))
    cluster = LocalCluster(n_workers=workers, threads_per_worker=threads, processes=True, dashboard_address=None)
    with cluster, Client(cluster) as client:
        client.wait_for_workers(workers)
        origins, directions = client.persist([origins, directions])  # made once, outside the timing
        wait([origins, directions])
        send_s, mesh = timed(rtd.scatter_mesh, client, vertices, faces, device="cpu")
        first_s, first = timed(checksum, mesh, origins, directions)
        later = [timed(checksum, mesh, origins, directions) for _ in range(repeats)]
        best_s = min(s for s, _ in later)
        assert all(value == first for _, value in later), "results differ between runs"
        n = origins.shape[0]
        print(
            f"dask {layout:>4}: scatter_mesh {send_s:5.2f} s, first query {first_s:6.2f} s (scene builds), "
            f"best of {repeats} {best_s:6.2f} s = {n / best_s / 1e6:6.2f} M rays/s",
            flush=True,
        )
        mesh.release()
        return first


def chunk_overhead(vertices, faces, rays: int, small: int, repeats: int) -> None:
    cluster = LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None)
    with cluster, Client(cluster) as client:
        client.wait_for_workers(2)
        with rtd.scatter_mesh(client, vertices, faces, device="cpu") as mesh:
            figures = {}
            for per_chunk in (rays, small):
                origins, directions = random_rays(rays, per_chunk)
                origins, directions = client.persist([origins, directions])  # made once, outside the timing
                checksum(mesh, origins, directions)  # scenes built, rays in place
                figures[per_chunk] = min(timed(checksum, mesh, origins, directions)[0] for _ in range(repeats))
    chunks = rays // small
    per_chunk_ms = (figures[small] - figures[rays]) / (chunks - 1) * 1e3
    print(
        f"chunks: {rays:,} rays as 1 chunk {figures[rays] * 1e3:7.1f} ms, as {chunks:,} chunks of {small:,} "
        f"{figures[small] * 1e3:7.1f} ms: {per_chunk_ms:.2f} ms per chunk (2 workers x 1 thread)",
        flush=True,
    )


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rays", type=int, default=10_000_000)
    parser.add_argument("--triangles", type=int, default=1_000_000)
    parser.add_argument("--rays-per-chunk", type=int, default=1_000_000)
    parser.add_argument("--layouts", nargs="+", default=["1x2", "2x1"], help="workers x threads per worker")
    parser.add_argument("--repeats", type=int, default=3)
    parser.add_argument("--overhead-rays", type=int, default=200_000)
    parser.add_argument("--overhead-chunk", type=int, default=500, help="rays per small chunk")
    args = parser.parse_args()

    vertices, faces = bumpy_sphere(args.triangles)
    print(
        f"{len(faces):,} triangles, {args.rays:,} rays in chunks of {args.rays_per_chunk:,}; "
        f"{os.cpu_count()} cores; CPU flavour",
        flush=True,
    )
    origins, directions = random_rays(args.rays, args.rays_per_chunk)
    o, d = da.compute(origins, directions)
    scene = rt.Scene(vertices, faces, device="cpu")
    first_s = timed(scene.nearest, o, d)[0]
    best_s = min(timed(scene.nearest, o, d)[0] for _ in range(args.repeats))
    print(
        f"one Scene here ({scene.device_name}):   first query {first_s:6.2f} s (scene build), best of "
        f"{args.repeats} {best_s:6.2f} s = {args.rays / best_s / 1e6:6.2f} M rays/s",
        flush=True,
    )
    del scene, o, d

    sums = [layout_figures(layout, vertices, faces, origins, directions, args.repeats) for layout in args.layouts]
    if len(set(sums)) > 1:
        print(f"note: checksums differ between layouts: {sums}")
    chunk_overhead(vertices, faces, args.overhead_rays, args.overhead_chunk, args.repeats)


if __name__ == "__main__":
    main()
