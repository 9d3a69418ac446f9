"""The persistent scene: triangles prepared once on a device, then traced by many queries."""

from __future__ import annotations

import functools
import os
from typing import Optional

import numpy as np

from . import _flavours, _inputs, _query, _raytracing
from ._results import AllHits, NearestFarthestHits, NearestHits


class Scene:
    """Triangles kept on one device for many queries.

    ``vertices`` float (n, 3) with ``faces`` integer (m, 3); or, with ``faces`` None, a triangle soup
    (m, 3, 3) or (m, 9); or any object with ``.vertices`` and ``.faces`` (a trimesh.Trimesh, say).
    ``device`` "auto" takes the GPU flavour when a CUDA device and the driver's OptiX answer, else the CPU
    flavour; "gpu" raises RayTracingError with the reason when it cannot run; "cpu" forces the CPU flavour.
    ``gpu`` is the device ordinal, ``free_memory`` the free device memory in bytes to plan with (0: measure).

    Every query takes ``origins`` None (all rays start at the origin), one point (3,) or an array of the
    directions' shape; ``directions`` (..., 3); ``distances`` None or the batch shape (...): each ray's own
    maximum distance; ``max_distance`` the maximum of every ray. Results have the batch shape. With
    ``progress=True`` long queries show their progress (with tqdm when installed); Ctrl-C stops a long
    query between slices. The GIL is released while the library works; one scene may be queried from
    several threads (its calls run one after another), different scenes trace at the same time.
    """

    def __init__(
        self,
        vertices,
        faces=None,
        *,
        device: str = "auto",
        gpu: int = 0,
        free_memory: int = 0,
        diagnostics: bool = False,
    ):
        triangles = _inputs.triangles_from(vertices, faces)
        device = _inputs.device_from(device)
        gpu = _inputs.gpu_from(gpu)
        free_memory = _inputs.free_memory_from(free_memory)
        self._flavour = _flavours.load(device, gpu)
        self._diagnostics = bool(diagnostics)
        self._native = _raytracing.Scene(self._flavour, triangles, gpu, free_memory, self._diagnostics)
        _query._show(self._native.log, self._diagnostics)

    @property
    def device(self) -> str:
        """"gpu" or "cpu"."""
        return "gpu" if self._flavour.is_gpu else "cpu"

    @property
    def device_name(self) -> str:
        """The GPU's name, or the CPU flavour's host threads, e.g. "host, 2 threads"."""
        return self._flavour.device_name

    @property
    def flavour_library(self) -> str:
        """Path of the flavour library that runs the scene."""
        return self._flavour.library_path

    @property
    def kept_structures(self) -> bool:
        """Whether the last query ran on acceleration structures the scene keeps (False: they did not fit
        the memory budget beside the rays and were built chunk by chunk within the query)."""
        return self._native.kept_structures

    def __len__(self) -> int:
        return self._native.triangle_count

    def __repr__(self) -> str:
        count = f"{len(self):,} triangle{'' if len(self) == 1 else 's'}"
        library = os.path.basename(self.flavour_library)
        note = f"; {self._flavour.note}" if self._flavour.note else ""
        return (
            f"<raytracing.Scene: {count} on {self.device} ({self.device_name}), "
            f"{self._flavour.name} flavour {library}{note}>"
        )

    def nearest(
        self, origins, directions, *, distances=None, max_distance=np.inf, triangles: bool = True, progress=False
    ) -> NearestHits:
        """Nearest hit per ray: ``.distance`` float32 (max_distance for a miss, also when the ray's own
        distance is shorter) and ``.triangle`` int32 (-1 for a miss), None when ``triangles`` is False."""
        mode = "nearest-index" if triangles else "nearest"
        return self._query(mode, origins, directions, distances, max_distance, progress)

    def nearest_farthest(
        self, origins, directions, *, distances=None, max_distance=np.inf, triangles: bool = True, progress=False
    ) -> NearestFarthestHits:
        """Nearest and farthest hit per ray: ``.nearest``, ``.nearest_triangle``, ``.farthest`` (a miss:
        -3.4028235e38), ``.farthest_triangle``; the triangle fields None when ``triangles`` is False."""
        mode = "both-index" if triangles else "both"
        return self._query(mode, origins, directions, distances, max_distance, progress)

    def count(self, origins, directions, *, distances=None, max_distance=np.inf, progress=False) -> np.ndarray:
        """Number of hits per ray, uint64 of the batch shape."""
        return self._query("count", origins, directions, distances, max_distance, progress)

    def all_hits(self, origins, directions, *, distances=None, max_distance=np.inf, progress=False) -> AllHits:
        """Every hit distance per ray, sorted along the ray: ``.offsets`` uint64 (n + 1,), ``.distances``
        float32; ``hits[i]`` is ray i's distances (rays flattened in C order)."""
        return self._query("all", origins, directions, distances, max_distance, progress)

    def _query(self, mode: str, origins, directions, distances, max_distance, progress: Optional[bool]):
        rays = _inputs.rays_from(origins, directions, distances)
        call = functools.partial(self._native.trace, _inputs.max_distance_from(max_distance))
        return _query.run(
            call, rays, _query.MODES[mode], sliced=True, progress=bool(progress), diagnostics=self._diagnostics
        )
