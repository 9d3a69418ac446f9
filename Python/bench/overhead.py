"""Call overhead of a small query: 1,000 rays on a kept scene, in microseconds per call.

Prints the whole call (checks, result arrays, library) and the native call alone with its arrays made
beforehand (the library's work and the binding), so the package's Python share shows; then a stateless
rt.trace of the same rays for comparison. Run it on an installed package: python3 Python/bench/overhead.py
"""

import argparse
import statistics
import time

import numpy as np

import raytracing as rt


def sphere(n_latitude=64, n_longitude=128, radius=1.0):
    """A closed latitude-longitude sphere of 2 * n_latitude * n_longitude triangles (poles included)."""
    theta = np.linspace(0, np.pi, n_latitude + 1)
    phi = np.linspace(0, 2 * np.pi, n_longitude + 1)
    t, p = np.meshgrid(theta, phi, indexing="ij")
    grid = radius * np.stack([np.sin(t) * np.cos(p), np.sin(t) * np.sin(p), np.cos(t)], axis=-1)
    a, b, c, d = grid[:-1, :-1], grid[:-1, 1:], grid[1:, 1:], grid[1:, :-1]
    return np.concatenate([np.stack([a, b, c], -2), np.stack([a, c, d], -2)]).reshape(-1, 3, 3)


def per_call_microseconds(call, repeats):
    times = []
    for _ in range(repeats):
        began = time.perf_counter()
        call()
        times.append(time.perf_counter() - began)
    return statistics.median(times) * 1e6


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rays", type=int, default=1000)
    parser.add_argument("--repeats", type=int, default=2000)
    parser.add_argument("--device", default="auto")
    options = parser.parse_args()

    rng = np.random.default_rng(7)
    directions = rng.normal(size=(options.rays, 3)).astype(np.float32)
    origins = np.zeros(3, np.float32)
    soup = sphere()
    scene = rt.Scene(soup, device=options.device)
    native = scene._native
    flat_origins = np.zeros((options.rays, 3), np.float32)
    distance = np.empty(options.rays, np.float32)
    triangle = np.empty(options.rays, np.int32)

    whole = per_call_microseconds(lambda: scene.nearest(origins, directions), options.repeats)
    bare = per_call_microseconds(
        lambda: native.trace(np.inf, flat_origins, directions, None, distance, triangle, None, None, None, False),
        options.repeats,
    )
    stateless = per_call_microseconds(
        lambda: rt.trace(soup, None, origins, directions, "nearest-index", device=options.device), 20
    )
    print(f"# {scene!r}")
    print(f"scene.nearest rays={options.rays} whole_us={whole:.1f} native_us={bare:.1f} "
          f"package_us={whole - bare:.1f} stateless_trace_us={stateless:.0f}")


if __name__ == "__main__":
    main()
