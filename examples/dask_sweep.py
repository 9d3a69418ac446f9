"""A sensor sweep on a Dask cluster: a depth camera at many positions around a mesh, one picture of them all.

    python examples/dask_sweep.py                      # a local cluster of 2 worker processes, 1 thread each
    python examples/dask_sweep.py --gpus 2             # one worker per GPU, each pinned to its own
    python examples/dask_sweep.py --scheduler tcp://host:8786 --mesh part.obj

Without --mesh it writes a torus knot to OBJ and reads that file back. Other formats than OBJ load through
trimesh when it is installed. The rays are made on the workers, chunk by chunk of positions, and never
gathered; only the depth picture is (a PNG with matplotlib, else a PGM). Needs `pip install raytracing[dask]`.
"""

import argparse
import math
import time
from pathlib import Path

import dask.array as da
import numpy as np
from distributed import Client, LocalCluster, Nanny, Scheduler, SpecCluster

from raytracing import dask as rtd


def write_torus_knot(path: Path, p=2, q=3, segments=600, sides=24, tube=0.18) -> None:
    """A (p, q) torus knot as a tube: segments x sides quads, two triangles each."""
    t = np.linspace(0, 2 * np.pi, segments, endpoint=False)
    radius = 1 + 0.45 * np.cos(q * t)
    centre = np.stack([radius * np.cos(p * t), radius * np.sin(p * t), 0.45 * np.sin(q * t)], axis=1)
    tangent = np.roll(centre, -1, axis=0) - np.roll(centre, 1, axis=0)
    tangent /= np.linalg.norm(tangent, axis=1, keepdims=True)
    normal = np.cross(tangent, [0.0, 0.0, 1.0])
    normal /= np.linalg.norm(normal, axis=1, keepdims=True)
    binormal = np.cross(tangent, normal)
    a = np.linspace(0, 2 * np.pi, sides, endpoint=False)
    ring = np.cos(a)[None, :, None] * normal[:, None] + np.sin(a)[None, :, None] * binormal[:, None]
    vertices = (centre[:, None] + tube * ring).reshape(-1, 3)
    i, j = np.meshgrid(np.arange(segments), np.arange(sides), indexing="ij")
    corner = lambda di, dj: ((i + di) % segments) * sides + (j + dj) % sides  # noqa: E731
    quads = np.stack([corner(0, 0), corner(1, 0), corner(1, 1), corner(0, 1)], axis=-1).reshape(-1, 4)
    faces = np.concatenate([quads[:, [0, 1, 2]], quads[:, [0, 2, 3]]])
    with open(path, "w") as file:
        file.write("# torus knot\n")
        np.savetxt(file, vertices, fmt="v %.6f %.6f %.6f")
        np.savetxt(file, faces + 1, fmt="f %d %d %d")


def read_mesh(path: Path):
    """(vertices, faces) of an OBJ file (polygons fanned into triangles), or of any format trimesh reads."""
    if path.suffix.lower() != ".obj":
        import trimesh

        mesh = trimesh.load(path, force="mesh")
        return np.asarray(mesh.vertices), np.asarray(mesh.faces)
    vertices, faces = [], []
    for line in path.read_text().splitlines():
        fields = line.split()
        if fields and fields[0] == "v":
            vertices.append([float(x) for x in fields[1:4]])
        elif fields and fields[0] == "f":
            corners = [int(field.split("/")[0]) for field in fields[1:]]
            corners = [c - 1 if c > 0 else len(vertices) + c for c in corners]
            faces += [[corners[0], corners[k], corners[k + 1]] for k in range(1, len(corners) - 1)]
    return np.array(vertices), np.array(faces)


def sensor_positions(count: int, distance: float) -> np.ndarray:
    """Positions on a rising helix around the z axis: two turns from below to above the object."""
    turn = np.linspace(0, 4 * np.pi, count, endpoint=False)
    height = np.linspace(-0.6, 0.6, count) * distance
    return np.stack([distance * np.cos(turn), distance * np.sin(turn), height], axis=1).astype(np.float32)


def camera_directions(positions: np.ndarray, size: int, fov_degrees: float) -> np.ndarray:
    """Pinhole rays (positions, size, size, 3) of cameras at ``positions`` looking at the origin."""
    forward = -positions / np.linalg.norm(positions, axis=1, keepdims=True)
    right = np.cross(forward, [0.0, 0.0, 1.0])
    right /= np.linalg.norm(right, axis=1, keepdims=True)
    up = np.cross(right, forward)
    s = math.tan(math.radians(fov_degrees) / 2) * np.linspace(-1, 1, size)
    v, u = np.meshgrid(-s, s, indexing="ij")
    rays = (
        forward[:, None, None] + u[None, ..., None] * right[:, None, None] + v[None, ..., None] * up[:, None, None]
    )
    return (rays / np.linalg.norm(rays, axis=-1, keepdims=True)).astype(np.float32)


def one_worker_per_gpu(gpus: int) -> SpecCluster:
    """A local cluster with one single-threaded worker process per GPU, each seeing only its own GPU (as
    device 0, which Scene's default gpu=0 then takes)."""
    workers = {
        f"gpu-{i}": {"cls": Nanny, "options": {"nthreads": 1, "env": {"CUDA_VISIBLE_DEVICES": str(i)}}}
        for i in range(gpus)
    }
    return SpecCluster(scheduler={"cls": Scheduler, "options": {"dashboard_address": ":0"}}, workers=workers)


def save_picture(picture: np.ndarray, stem: Path) -> Path:
    try:
        import matplotlib.pyplot as plt
    except ImportError:
        path = stem.with_suffix(".pgm")
        grey = (np.nan_to_num(1 - picture, nan=0.0) * 255).astype(np.uint8)  # near bright, misses black
        path.write_bytes(b"P5 %d %d 255\n" % (grey.shape[1], grey.shape[0]) + grey.tobytes())
        return path
    path = stem.with_suffix(".png")
    plt.imsave(path, np.ma.masked_invalid(picture), cmap="inferno_r")
    return path


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--mesh", type=Path, help="mesh file (default: a torus knot written to --out)")
    parser.add_argument("--positions", type=int, default=360, help="sensor positions (default 360)")
    parser.add_argument("--size", type=int, default=64, help="camera pixels per side (default 64)")
    parser.add_argument("--per-chunk", type=int, default=24, help="positions per chunk (default 24)")
    parser.add_argument("--workers", type=int, default=2, help="local worker processes (default 2)")
    parser.add_argument("--gpus", type=int, default=0, help="one local worker per GPU instead")
    parser.add_argument("--scheduler", help="address of a running Dask scheduler instead of a local cluster")
    parser.add_argument("--out", type=Path, default=Path("dask-sweep-output"), help="output folder")
    args = parser.parse_args()

    args.out.mkdir(parents=True, exist_ok=True)
    if args.mesh is None:
        args.mesh = args.out / "torus_knot.obj"
        write_torus_knot(args.mesh)
    vertices, faces = read_mesh(args.mesh)
    extent = np.abs(vertices - vertices.mean(axis=0)).max()
    vertices = (vertices - vertices.mean(axis=0)) / extent  # centred in the unit cube

    if args.scheduler:
        cluster = None
        client = Client(args.scheduler)
    else:
        if args.gpus:
            cluster = one_worker_per_gpu(args.gpus)
        else:
            cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1, dashboard_address=":0")
        client = Client(cluster)
    print(f"{len(faces):,} triangles from {args.mesh}; dashboard {client.dashboard_link}")

    distance = 3.5
    positions = da.from_array(sensor_positions(args.positions, distance), chunks=(args.per_chunk, 3))
    shape = (args.positions, args.size, args.size, 3)
    chunks = (positions.chunks[0], (args.size,), (args.size,), (3,))
    directions = positions.map_blocks(
        camera_directions, args.size, 34.0, new_axis=[1, 2], chunks=chunks, dtype=np.float32
    )
    origins = da.broadcast_to(positions[:, None, None, :], shape, chunks=chunks)

    with rtd.scatter_mesh(client, vertices, faces) as mesh:
        depth = rtd.nearest(mesh, origins, directions, max_distance=2 * distance, triangles=False).distance
        # Misses report max_distance: blank them, then spread the hits over [0, 1].
        depth = da.where(depth < 2 * distance, (depth - (distance - 1.8)) / 3.6, np.nan)
        columns = math.ceil(math.sqrt(args.positions))
        rows = math.ceil(args.positions / columns)
        padded = da.pad(depth, ((0, rows * columns - args.positions), (0, 0), (0, 0)), constant_values=np.nan)
        sheet = padded.reshape(rows, columns, args.size, args.size).transpose(0, 2, 1, 3)
        began = time.perf_counter()
        picture = sheet.reshape(rows * args.size, columns * args.size).compute()
        seconds = time.perf_counter() - began
        devices = {scenes[mesh.key]["scene"] for scenes in client.run(rtd.cached_scenes).values() if scenes}

    rays = args.positions * args.size**2
    hit = np.isfinite(picture).sum() / rays
    path = save_picture(np.clip(picture, 0, 1), args.out / "dask_sweep")
    print(
        f"{rays:,} rays from {args.positions} positions in {seconds:.2f} s ({rays / seconds / 1e6:.2f} M rays/s), "
        f"{hit:.0%} hit; picture: {path}"
    )
    for scene in sorted(filter(None, devices)):
        print(f"  worker scene: {scene}")
    client.close()
    if cluster is not None:
        cluster.close()


if __name__ == "__main__":
    main()
