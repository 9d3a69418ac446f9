"""Checking and converting the caller's arrays before any library call: bad input raises ValueError or
TypeError naming the argument. Float32 C-contiguous arrays pass without a copy; other real dtypes and layouts
are converted once."""

from __future__ import annotations

import numbers
import operator
from typing import NamedTuple, Optional, Tuple

import numpy as np

DEVICES = ("auto", "gpu", "cpu")


def _array(value, name: str, kinds: str, what: str) -> np.ndarray:
    try:
        array = np.asarray(value)
    except (TypeError, ValueError) as error:
        raise TypeError(f"{name}: not an array of {what} ({error})") from None
    if array.dtype.kind not in kinds:
        raise TypeError(f"{name}: {what} expected, got dtype {array.dtype}")
    return array


def _real(value, name: str) -> np.ndarray:
    return _array(value, name, "fiu", "real numbers")


def _float32(array: np.ndarray) -> np.ndarray:
    if array.dtype == np.float32 and array.flags.c_contiguous:
        return array
    # Values beyond float32's range become infinities, which the finiteness checks then report.
    with np.errstate(over="ignore"):
        return np.ascontiguousarray(array, dtype=np.float32)


def _check_finite(array: np.ndarray, name: str) -> None:
    # NaN propagates through min and max, and an infinity is one of them: no temporary array is needed.
    if array.size and not (np.isfinite(array.min()) and np.isfinite(array.max())):
        raise ValueError(f"{name}: NaN or infinite values (in float32)")


def triangles_from(vertices, faces) -> np.ndarray:
    """The triangle soup the library takes: float32 (m, 9), C-contiguous."""
    if faces is None and hasattr(vertices, "vertices") and hasattr(vertices, "faces"):
        vertices, faces = vertices.vertices, vertices.faces
    points = _real(vertices, "vertices")
    if faces is None:
        if points.ndim == 3 and points.shape[1:] == (3, 3) or points.ndim == 2 and points.shape[1] == 9:
            soup = _float32(points).reshape(-1, 9)
        elif points.ndim == 2 and points.shape[1] == 3:
            raise ValueError(
                f"vertices: shape {points.shape} needs faces; a triangle soup without faces has shape "
                "(m, 3, 3) or (m, 9)"
            )
        else:
            raise ValueError(
                f"vertices: shape {points.shape}; expected (n, 3) with faces, or (m, 3, 3) or (m, 9) without"
            )
        _check_finite(soup, "vertices")
        return soup
    if points.ndim != 2 or points.shape[1] != 3:
        raise ValueError(f"vertices: shape {points.shape}; with faces, vertices have shape (n, 3)")
    indices = _array(faces, "faces", "iu", "integer vertex indices")
    if indices.ndim != 2 or indices.shape[1] != 3:
        raise ValueError(f"faces: shape {indices.shape}; expected (m, 3)")
    if indices.size and (indices.min() < 0 or indices.max() >= len(points)):
        raise ValueError(
            f"faces: indices from {indices.min()} to {indices.max()} for {len(points)} vertices; "
            "they must lie in [0, n)"
        )
    points = _float32(points)
    _check_finite(points, "vertices")
    return points[indices].reshape(-1, 9)


class Rays(NamedTuple):
    origins: Optional[np.ndarray]  # float32 (n, 3) or None (all at the origin)
    directions: np.ndarray  # float32 (n, 3)
    distances: Optional[np.ndarray]  # float32 (n,) or None
    shape: Tuple[int, ...]  # the batch shape of the results

    @property
    def count(self) -> int:
        return len(self.directions)


def rays_from(origins, directions, distances) -> Rays:
    """Rays as the library takes them, flattened in C order."""
    d = _real(directions, "directions")
    if d.ndim < 1 or d.shape[-1] != 3:
        raise ValueError(f"directions: shape {d.shape}; expected (..., 3)")
    shape = d.shape[:-1]
    flat_directions = _float32(d).reshape(-1, 3)
    _check_finite(flat_directions, "directions")
    n = len(flat_directions)

    flat_origins = None
    if origins is not None:
        o = _real(origins, "origins")
        if o.shape == (3,):
            flat_origins = np.empty((n, 3), np.float32)
            flat_origins[:] = o
        elif o.shape == d.shape:
            flat_origins = _float32(o).reshape(-1, 3)
        else:
            raise ValueError(
                f"origins: shape {o.shape} does not match directions' shape {d.shape}; origins are None, one "
                "point (3,) or one per ray"
            )
        _check_finite(flat_origins, "origins")

    flat_distances = None
    if distances is not None:
        t = _real(distances, "distances")
        if t.shape != shape:
            raise ValueError(f"distances: shape {t.shape} does not match directions' batch shape {shape}")
        # NaN and infinite distances pass: they mean something to the library.
        flat_distances = _float32(t).reshape(-1)
    return Rays(flat_origins, flat_directions, flat_distances, shape)


def max_distance_from(value) -> float:
    if not isinstance(value, numbers.Real):
        raise TypeError(f"max_distance: a real number expected, got {value!r}")
    with np.errstate(over="ignore"):
        return float(np.float32(value))


def device_from(value) -> str:
    if value not in DEVICES:
        raise ValueError(f"device: {value!r}; expected one of {', '.join(DEVICES)}")
    return value


def gpu_from(value) -> int:
    try:
        return operator.index(value)
    except TypeError:
        raise TypeError(f"gpu: an integer device ordinal expected, got {value!r}") from None


def free_memory_from(value) -> int:
    try:
        free_memory = operator.index(value)
    except TypeError:
        raise TypeError(f"free_memory: an integer number of bytes expected, got {value!r}") from None
    if free_memory < 0:
        raise ValueError(f"free_memory: {free_memory} bytes; 0 measures the free memory")
    return free_memory
