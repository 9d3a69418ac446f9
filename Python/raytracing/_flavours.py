"""The flavour libraries, loaded once per device choice from the package's own folder."""

import threading

from . import _raytracing

_lock = threading.Lock()
_loaded = {}


def load(device: str, gpu: int) -> "_raytracing.Flavour":
    """The flavour for ``device`` ("auto", "gpu" or "cpu"); RayTracingError when it cannot run."""
    key = (device, gpu)
    with _lock:
        flavour = _loaded.get(key)
        if flavour is None:
            flavour = _loaded[key] = _raytracing.Flavour.load(device, gpu)
        return flavour
