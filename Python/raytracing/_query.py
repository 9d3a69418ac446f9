"""One query: result arrays for a mode, the library called once or slice by slice, and the result object.

Long queries run in slices of rays so that progress can be shown and Ctrl-C takes effect between slices
(the library answers each call in one piece, with the GIL released). Slices grow while one takes less than
a second, since a call that builds acceleration structures pays that per slice.
"""

from __future__ import annotations

import sys
import time
from typing import Callable, NamedTuple, Optional

import numpy as np

from ._inputs import Rays
from ._progress import progress_bar
from ._results import AllHits, NearestFarthestHits, NearestHits


class Mode(NamedTuple):
    nearest: bool = False
    indices: bool = False
    farthest: bool = False
    counts: bool = False
    all_hits: bool = False


MODES = {
    "nearest": Mode(nearest=True),
    "nearest-index": Mode(nearest=True, indices=True),
    "both": Mode(nearest=True, farthest=True),
    "both-index": Mode(nearest=True, indices=True, farthest=True),
    "count": Mode(counts=True),
    "all": Mode(counts=True, all_hits=True),
}

FIRST_SLICE_RAYS = 1 << 18
SLICE_SECONDS = 1.0

# call(origins, directions, distances, nearest, nearest_triangle, farthest, farthest_triangle, counts,
#      all_hits) -> (all-hits distances or None, log)
NativeCall = Callable[..., tuple]


class _Outputs(NamedTuple):
    nearest: Optional[np.ndarray]
    nearest_triangle: Optional[np.ndarray]
    farthest: Optional[np.ndarray]
    farthest_triangle: Optional[np.ndarray]
    counts: Optional[np.ndarray]

    @staticmethod
    def allocate(mode: Mode, n: int) -> "_Outputs":
        def array(wanted, dtype, length=n):
            return np.empty(length, dtype) if wanted else None

        counts = array(mode.counts, np.uint64, n + 1 if mode.all_hits else n)
        if mode.all_hits:
            counts[0] = 0  # the library writes no offsets for zero rays
        return _Outputs(
            array(mode.nearest, np.float32),
            array(mode.nearest and mode.indices, np.int32),
            array(mode.farthest, np.float32),
            array(mode.farthest and mode.indices, np.int32),
            counts,
        )

    def slice(self, start: int, stop: int, all_hits: bool) -> tuple:
        def part(array, extra=0):
            return None if array is None else array[start : stop + extra]

        return (
            part(self.nearest),
            part(self.nearest_triangle),
            part(self.farthest),
            part(self.farthest_triangle),
            part(self.counts, 1 if all_hits else 0),
        )


def run(call: NativeCall, rays: Rays, mode: Mode, *, sliced: bool, progress: bool, diagnostics: bool):
    """Runs the query in one call, or in slices with progress, or when ``sliced`` and the rays are many."""
    outputs = _Outputs.allocate(mode, rays.count)
    if progress or (sliced and rays.count > FIRST_SLICE_RAYS):
        hits = _run_slices(call, rays, mode, outputs, progress, diagnostics)
    else:
        hits, log = call(rays.origins, rays.directions, rays.distances, *outputs, mode.all_hits)
        _show(log, diagnostics)
    return _result(mode, outputs, hits, rays.shape)


def _run_slices(call, rays: Rays, mode: Mode, outputs: _Outputs, progress: bool, diagnostics: bool):
    n = rays.count
    pieces = []
    hits_so_far = 0
    bar = progress_bar(n, progress)
    try:
        start, size = 0, FIRST_SLICE_RAYS
        while start < n:
            stop = min(n, start + size)
            began = time.perf_counter()
            hits, log = call(
                None if rays.origins is None else rays.origins[start:stop],
                rays.directions[start:stop],
                None if rays.distances is None else rays.distances[start:stop],
                *outputs.slice(start, stop, mode.all_hits),
                mode.all_hits,
            )
            _show(log, diagnostics)
            if mode.all_hits:
                # Each call counts its offsets from its own first ray.
                outputs.counts[start : stop + 1] += np.uint64(hits_so_far)
                hits_so_far += len(hits)
                pieces.append(hits)
            bar.update(stop - start)
            start = stop
            if time.perf_counter() - began < SLICE_SECONDS:
                size *= 2
    finally:
        bar.close()
    if not mode.all_hits:
        return None
    if len(pieces) == 1:
        return pieces[0]
    return np.concatenate(pieces) if pieces else np.empty(0, np.float32)


def _result(mode: Mode, outputs: _Outputs, hits, shape):
    if mode.all_hits:
        return AllHits(outputs.counts, hits, shape)
    if mode.counts:
        return outputs.counts.reshape(shape)

    def shaped(array):
        return None if array is None else array.reshape(shape)

    if mode.farthest:
        return NearestFarthestHits(
            shaped(outputs.nearest),
            shaped(outputs.nearest_triangle),
            shaped(outputs.farthest),
            shaped(outputs.farthest_triangle),
        )
    return NearestHits(shaped(outputs.nearest), shaped(outputs.nearest_triangle))


def _show(log: str, diagnostics: bool) -> None:
    if diagnostics and log:
        sys.stderr.write(log)
