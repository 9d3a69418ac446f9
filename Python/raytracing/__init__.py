"""Batch ray casting against triangle meshes: numpy in, numpy out, on the GPU or the CPU flavour.

    import raytracing as rt
    scene = rt.Scene(vertices, faces)               # kept on the device for many queries
    hits = scene.nearest(origins, directions)       # hits.distance, hits.triangle

``rt.trace`` answers one request statelessly. Failed library calls raise RayTracingError (OutOfMemoryError
for want of memory); bad arrays raise ValueError or TypeError naming the argument before any library call.
"""

from ._errors import OutOfMemoryError, RayTracingError
from ._query import MODES as _MODES
from ._results import AllHits, NearestFarthestHits, NearestHits
from ._scene import Scene
from ._trace import trace

MODES = tuple(_MODES)
__version__ = "1.0.0"

__all__ = [
    "AllHits",
    "MODES",
    "NearestFarthestHits",
    "NearestHits",
    "OutOfMemoryError",
    "RayTracingError",
    "Scene",
    "trace",
]
