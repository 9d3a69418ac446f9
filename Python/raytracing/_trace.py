"""The stateless call: one RayTracing request, everything built and released within it."""

from __future__ import annotations

import functools

import numpy as np

from . import _flavours, _inputs, _query


def trace(
    vertices,
    faces,
    origins,
    directions,
    mode: str,
    *,
    distances=None,
    max_distance=np.inf,
    device: str = "auto",
    gpu: int = 0,
    free_memory: int = 0,
    diagnostics: bool = False,
    progress: bool = False,
):
    """One stateless call of the library's RayTracing.

    ``mode`` is one of "nearest", "nearest-index", "both", "both-index", "count", "all" (raycast's names).
    The arguments are those of Scene and its queries (``faces`` None for a triangle soup). Returns what the
    matching Scene query returns: NearestHits ("nearest", "nearest-index"), NearestFarthestHits ("both",
    "both-index"), a uint64 array of counts ("count") or AllHits ("all"); triangle fields are None in the
    modes without "-index". With ``progress=True`` the rays go in slices, each a call of its own that builds
    the acceleration structures again; a Scene pays that once.
    """
    if mode not in _query.MODES:
        raise ValueError(f"mode: {mode!r}; expected one of {', '.join(_query.MODES)}")
    triangles = _inputs.triangles_from(vertices, faces)
    rays = _inputs.rays_from(origins, directions, distances)
    max_distance = _inputs.max_distance_from(max_distance)
    device = _inputs.device_from(device)
    gpu = _inputs.gpu_from(gpu)
    free_memory = _inputs.free_memory_from(free_memory)
    flavour = _flavours.load(device, gpu)
    call = functools.partial(flavour.trace, triangles, gpu, free_memory, bool(diagnostics), max_distance)
    return _query.run(
        call, rays, _query.MODES[mode], sliced=False, progress=bool(progress), diagnostics=bool(diagnostics)
    )
