"""Result objects of the queries. Per-ray arrays have the batch shape of the directions (their shape without
the last axis)."""

from __future__ import annotations

from typing import Iterator, Optional, Tuple

import numpy as np


class NearestHits:
    """Nearest hit per ray: ``distance`` float32 (max_distance for a miss) and ``triangle`` int32 (-1 for a
    miss), or ``triangle`` None when the query did not ask for indices."""

    __slots__ = ("distance", "triangle")

    def __init__(self, distance: np.ndarray, triangle: Optional[np.ndarray]):
        self.distance = distance
        self.triangle = triangle

    def __repr__(self) -> str:
        return f"NearestHits(shape={self.distance.shape}, triangles={self.triangle is not None})"


class NearestFarthestHits:
    """Nearest and farthest hit per ray. A miss: nearest max_distance, farthest -3.4028235e38, triangles -1.
    The triangle fields are None when the query did not ask for indices."""

    __slots__ = ("nearest", "nearest_triangle", "farthest", "farthest_triangle")

    def __init__(self, nearest, nearest_triangle, farthest, farthest_triangle):
        self.nearest = nearest
        self.nearest_triangle = nearest_triangle
        self.farthest = farthest
        self.farthest_triangle = farthest_triangle

    def __repr__(self) -> str:
        return f"NearestFarthestHits(shape={self.nearest.shape}, triangles={self.nearest_triangle is not None})"


class AllHits:
    """Every hit distance of every ray, sorted along each ray.

    Rays are flattened in C order: ray i's distances are ``distances[offsets[i]:offsets[i + 1]]``, also
    ``hits[i]``; ``len(hits)`` is the number of rays and ``shape`` their batch shape.
    """

    __slots__ = ("offsets", "distances", "shape")

    def __init__(self, offsets: np.ndarray, distances: np.ndarray, shape: Tuple[int, ...]):
        self.offsets = offsets
        self.distances = distances
        self.shape = shape

    def __len__(self) -> int:
        return len(self.offsets) - 1

    def __getitem__(self, i: int) -> np.ndarray:
        n = len(self)
        i = int(i)
        if not -n <= i < n:
            raise IndexError(f"ray {i} out of range for {n} rays")
        i %= n
        return self.distances[self.offsets[i] : self.offsets[i + 1]]

    def __iter__(self) -> Iterator[np.ndarray]:
        for i in range(len(self)):
            yield self.distances[self.offsets[i] : self.offsets[i + 1]]

    @property
    def counts(self) -> np.ndarray:
        """Hits per ray, uint64 of the batch shape."""
        return np.diff(self.offsets).reshape(self.shape)

    def __repr__(self) -> str:
        return f"AllHits(rays={len(self)}, hits={len(self.distances)}, shape={self.shape})"
