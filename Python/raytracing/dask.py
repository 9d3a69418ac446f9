"""Ray sets of any size traced across a Dask cluster, one Scene per worker process.

    from distributed import Client
    from raytracing import dask as rtd

    client = Client(cluster_or_address)
    with rtd.scatter_mesh(client, vertices, faces) as mesh:
        hits = rtd.nearest(mesh, origins, directions)    # dask arrays: hits.distance, hits.triangle
        result = hits.compute()                          # raytracing.NearestHits, one pass over the rays

The queries take the rays as dask arrays, chunked along the rays (numpy arrays are accepted and cut into
``rays_per_chunk`` rays), with the keyword arguments of the Scene methods, and return dask arrays of the batch
shape. Shapes are checked when the query is made; the values of the arrays are checked on the workers, so
NaN origins, say, raise ValueError at compute(). A failed library call raises RayTracingError at compute()
with the worker's message.

The mesh travels once: it is registered as a worker plugin, which the scheduler keeps (one copy in its
memory) and hands to every worker, also to those that join or restart later. (Scattered data would not do: Dask's memory manager drops
the replicas of scattered data that no task is waiting for, and the mesh is lost with its last holder.) Each
worker process builds its Scene from it on the first chunk it traces and keeps it for all later chunks, until
the handle is released: ``mesh.release()``, the end of a ``with`` block or the handle's garbage collection
unregister the plugin, and every worker drops its Scene. Workers should be processes (a Scene is per process).

On a machine without a GPU the workers use the CPU flavour with their share of the cores: each worker process
sets RAYTRACING_CPU_THREADS to its number of Dask threads before the flavour loads, unless that variable is
set already. For GPUs start one worker per GPU, each seeing only its own (CUDA_VISIBLE_DEVICES), as the
README shows.
"""

from __future__ import annotations

import numbers
import os
import threading
import uuid
import weakref
from typing import NamedTuple, Optional, Tuple

import dask
import dask.array as da
import numpy as np
from distributed import WorkerPlugin, get_worker

import raytracing as rt

from . import _inputs

RAYS_PER_CHUNK = 1 << 20
THREADS_VARIABLE = "RAYTRACING_CPU_THREADS"
_SCENE_OPTIONS = {
    "device": _inputs.device_from,
    "gpu": _inputs.gpu_from,
    "free_memory": _inputs.free_memory_from,
    "diagnostics": bool,
}


class MeshHandle:
    """A mesh kept on every worker of ``client``'s cluster. ``len(handle)`` is its number of triangles.

    ``release()`` (or leaving ``with``, or dropping the last reference) lets every worker drop its Scene;
    queries on a released handle raise ValueError.
    """

    def __init__(self, client, key: str, triangle_count: int, scene_options: dict):
        self.client = client
        self.key = key
        self.scene_options = scene_options
        self._triangle_count = triangle_count
        self._release = weakref.finalize(self, _unregister, client, key)
        self._release.atexit = False  # the client may be gone by then

    @property
    def released(self) -> bool:
        return not self._release.alive

    def release(self) -> None:
        self._release()

    def __enter__(self) -> "MeshHandle":
        return self

    def __exit__(self, *exc_info) -> None:
        self.release()

    def __len__(self) -> int:
        return self._triangle_count

    def __repr__(self) -> str:
        state = "released" if self.released else "kept"
        return f"<raytracing.dask.MeshHandle {self.key}: {len(self):,} triangles, {state}>"


def _unregister(client, key: str) -> None:
    if client.status == "running":
        client.unregister_worker_plugin(key)


class _KeptMesh(WorkerPlugin):
    """On each worker: the mesh, then the Scene built from it by the first chunk traced there."""

    def __init__(self, triangles: np.ndarray, scene_options: dict):
        self.triangles = triangles
        self.scene_options = scene_options

    def setup(self, worker) -> None:
        self.threads = worker.state.nthreads
        self.builds = 0
        self._scene = None
        self._lock = threading.Lock()

    def teardown(self, worker) -> None:
        self._scene = None  # chunks still tracing hold it until they finish

    def scene(self) -> rt.Scene:
        with self._lock:
            if self._scene is None:
                # Read when the CPU flavour loads: the first Scene of the process decides.
                os.environ.setdefault(THREADS_VARIABLE, str(self.threads))
                self._scene = rt.Scene(self.triangles, **self.scene_options)
                self.builds += 1
                self.triangles = None  # the Scene has its own copy and is never rebuilt
            return self._scene


def scatter_mesh(client, vertices, faces=None, **scene_options) -> MeshHandle:
    """Sends a mesh to every worker of ``client`` (a ``distributed.Client``) and returns its handle.

    ``vertices`` and ``faces`` are those of ``raytracing.Scene``; ``scene_options`` its keywords ``device``,
    ``gpu``, ``free_memory`` and ``diagnostics``, used by every worker. Bad arrays raise here.
    """
    if getattr(client, "asynchronous", True):
        raise TypeError("client: a synchronous distributed.Client expected")
    unknown = sorted(set(scene_options) - set(_SCENE_OPTIONS))
    if unknown:
        raise TypeError(
            f"scatter_mesh: unexpected keyword(s) {', '.join(unknown)}; Scene takes {', '.join(_SCENE_OPTIONS)}"
        )
    options = {name: _SCENE_OPTIONS[name](value) for name, value in scene_options.items()}
    triangles = _inputs.triangles_from(vertices, faces)
    key = f"raytracing-mesh-{uuid.uuid4().hex}"
    client.register_plugin(_KeptMesh(triangles, options), name=key)
    return MeshHandle(client, key, len(triangles), options)


def cached_scenes(dask_worker=None) -> dict:
    """For ``client.run(cached_scenes)``: per mesh key kept by this worker, ``builds`` (Scenes built from it
    in this process: 1 once a chunk ran, whatever the number of chunks) and ``scene`` (its repr, or None)."""
    worker = dask_worker or get_worker()
    return {
        name: {"builds": plugin.builds, "scene": None if plugin._scene is None else repr(plugin._scene)}
        for name, plugin in worker.plugins.items()
        if isinstance(plugin, _KeptMesh)
    }


def _worker_scene(key: str) -> rt.Scene:
    try:
        plugin = get_worker().plugins[key]
    except ValueError:
        raise RuntimeError(
            "raytracing.dask queries run on the Dask workers of the client that scattered the mesh"
        ) from None
    except KeyError:
        raise ValueError(f"mesh {key} is not on this worker: it was released") from None
    return plugin.scene()


def _trace_chunk(directions, origins, distances, *, key: str, method: str, options: dict):
    scene = _worker_scene(key)
    return getattr(scene, method)(origins, directions, distances=distances, **options)


class _Rays(NamedTuple):
    directions: da.Array  # (n, 3), one chunk across the last axis
    origins: object  # None, one point (3,), or a dask array chunked as directions
    distances: Optional[da.Array]  # (n,) chunked as directions
    shape: Tuple[int, ...]  # the batch shape


def _flat(array, name: str, rays_per_chunk: int, width: Optional[int]) -> da.Array:
    """``array`` flattened to (n, width), or (n,) without width, chunked along the rays."""
    if isinstance(array, da.Array):
        if width:
            return array.rechunk({array.ndim - 1: -1}).reshape(-1, width)
        return array.reshape(-1)
    array = np.asarray(array)
    if array.dtype.kind not in "fiu":
        raise TypeError(f"{name}: real numbers expected, got dtype {array.dtype}")
    flat = array.reshape(-1, width) if width else array.reshape(-1)
    return da.from_array(flat, chunks=(rays_per_chunk,) + flat.shape[1:])


def _rays(origins, directions, distances, rays_per_chunk: int) -> _Rays:
    if not (isinstance(rays_per_chunk, numbers.Integral) and rays_per_chunk > 0):
        raise ValueError(f"rays_per_chunk: {rays_per_chunk!r}; a positive number of rays expected")
    rays_per_chunk = int(rays_per_chunk)
    d_shape = np.shape(directions)
    if len(d_shape) < 1 or d_shape[-1] != 3:
        raise ValueError(f"directions: shape {d_shape}; expected (..., 3)")
    shape = d_shape[:-1]
    flat = _flat(directions, "directions", rays_per_chunk, 3)

    if origins is None:
        pass
    elif np.shape(origins) == (3,):
        origins = np.asarray(origins)
    elif np.shape(origins) == d_shape:
        origins = _flat(origins, "origins", rays_per_chunk, 3).rechunk(flat.chunks)
    else:
        raise ValueError(
            f"origins: shape {np.shape(origins)} does not match directions' shape {d_shape}; origins are "
            "None, one point (3,) or one per ray"
        )
    if distances is not None:
        if np.shape(distances) != shape:
            raise ValueError(
                f"distances: shape {np.shape(distances)} does not match directions' batch shape {shape}"
            )
        distances = _flat(distances, "distances", rays_per_chunk, None).rechunk(flat.chunks[:1])
    return _Rays(flat, origins, distances, shape)


def _trace(mesh: MeshHandle, rays: _Rays, method: str, meta: np.ndarray, **options) -> da.Array:
    """One task per chunk of rays, returning what the Scene method returns for it."""
    if not isinstance(mesh, MeshHandle):
        raise TypeError(f"mesh: a handle from scatter_mesh expected, got {type(mesh).__name__}")
    if mesh.released:
        raise ValueError(f"mesh: {mesh.key} was released")
    options["max_distance"] = _inputs.max_distance_from(options["max_distance"])
    origins = (rays.origins, "ij") if isinstance(rays.origins, da.Array) else (rays.origins, None)
    distances = (rays.distances, "i") if rays.distances is not None else (None, None)
    return da.blockwise(
        _trace_chunk,
        "i",
        rays.directions,
        "ij",
        *origins,
        *distances,
        concatenate=True,
        meta=meta,
        token=f"raytracing-{method}",  # the dashboard's name for the tracing tasks
        key=mesh.key,
        method=method,
        options=options,
    )


def _field(traced: da.Array, name: str, dtype, shape=None, chunks=None) -> da.Array:
    array = traced.map_blocks(getattr, name, dtype=dtype, meta=np.empty((0,), dtype), chunks=chunks)
    return array if shape is None else array.reshape(shape)


def _compute(arrays, **kwargs) -> list:
    """The arrays computed in one pass (their chunks share the tracing tasks); None stays None."""
    wanted = [a for a in arrays if a is not None]
    values = iter(dask.compute(*wanted, **kwargs))
    return [None if a is None else next(values) for a in arrays]


class NearestHits:
    """``raytracing.NearestHits`` as dask arrays. ``compute()`` returns the numpy result in one pass; computing
    ``distance`` and ``triangle`` one after the other would trace twice."""

    __slots__ = ("distance", "triangle")

    def __init__(self, distance: da.Array, triangle: Optional[da.Array]):
        self.distance = distance
        self.triangle = triangle

    def compute(self, **kwargs) -> rt.NearestHits:
        return rt.NearestHits(*_compute((self.distance, self.triangle), **kwargs))


class NearestFarthestHits:
    """``raytracing.NearestFarthestHits`` as dask arrays; ``compute()`` returns the numpy result."""

    __slots__ = ("nearest", "nearest_triangle", "farthest", "farthest_triangle")

    def __init__(self, nearest, nearest_triangle, farthest, farthest_triangle):
        self.nearest = nearest
        self.nearest_triangle = nearest_triangle
        self.farthest = farthest
        self.farthest_triangle = farthest_triangle

    def compute(self, **kwargs) -> rt.NearestFarthestHits:
        fields = (self.nearest, self.nearest_triangle, self.farthest, self.farthest_triangle)
        return rt.NearestFarthestHits(*_compute(fields, **kwargs))


class AllHits:
    """``raytracing.AllHits`` as dask arrays: ``offsets`` uint64 (n + 1,) in one layout over all rays
    (flattened in C order), ``distances`` float32 of unknown chunk sizes. ``compute()`` returns the numpy
    result."""

    __slots__ = ("offsets", "distances", "shape")

    def __init__(self, offsets: da.Array, distances: da.Array, shape: Tuple[int, ...]):
        self.offsets = offsets
        self.distances = distances
        self.shape = shape

    def compute(self, **kwargs) -> rt.AllHits:
        return rt.AllHits(*_compute((self.offsets, self.distances), **kwargs), self.shape)


def nearest(
    mesh,
    origins,
    directions,
    *,
    distances=None,
    max_distance=np.inf,
    triangles=True,
    rays_per_chunk=RAYS_PER_CHUNK,
) -> NearestHits:
    """``Scene.nearest`` over the cluster: ``.distance`` float32 and ``.triangle`` int32 (None when
    ``triangles`` is False) dask arrays of the batch shape."""
    rays = _rays(origins, directions, distances, rays_per_chunk)
    traced = _trace(
        mesh, rays, "nearest", np.empty((0,), object), max_distance=max_distance, triangles=bool(triangles)
    )
    triangle = _field(traced, "triangle", np.int32, rays.shape) if triangles else None
    return NearestHits(_field(traced, "distance", np.float32, rays.shape), triangle)


def nearest_farthest(
    mesh,
    origins,
    directions,
    *,
    distances=None,
    max_distance=np.inf,
    triangles=True,
    rays_per_chunk=RAYS_PER_CHUNK,
) -> NearestFarthestHits:
    """``Scene.nearest_farthest`` over the cluster: dask arrays of the batch shape."""
    rays = _rays(origins, directions, distances, rays_per_chunk)
    traced = _trace(
        mesh,
        rays,
        "nearest_farthest",
        np.empty((0,), object),
        max_distance=max_distance,
        triangles=bool(triangles),
    )

    def field(name, dtype, wanted=True):
        return _field(traced, name, dtype, rays.shape) if wanted else None

    return NearestFarthestHits(
        field("nearest", np.float32),
        field("nearest_triangle", np.int32, triangles),
        field("farthest", np.float32),
        field("farthest_triangle", np.int32, triangles),
    )


def count(
    mesh, origins, directions, *, distances=None, max_distance=np.inf, rays_per_chunk=RAYS_PER_CHUNK
) -> da.Array:
    """``Scene.count`` over the cluster: a uint64 dask array of the batch shape."""
    rays = _rays(origins, directions, distances, rays_per_chunk)
    return _trace(mesh, rays, "count", np.empty((0,), np.uint64), max_distance=max_distance).reshape(rays.shape)


def _hit_count(hits: rt.AllHits) -> np.ndarray:
    return hits.offsets[-1:]


def _rebased_offsets(hits: rt.AllHits, start: np.ndarray) -> np.ndarray:
    return hits.offsets[:-1] + start


def all_hits(
    mesh, origins, directions, *, distances=None, max_distance=np.inf, rays_per_chunk=RAYS_PER_CHUNK
) -> AllHits:
    """``Scene.all_hits`` over the cluster. Each chunk counts its offsets from its own first hit; they are
    rebased by the hits of the chunks before it into one layout."""
    rays = _rays(origins, directions, distances, rays_per_chunk)
    traced = _trace(mesh, rays, "all_hits", np.empty((0,), object), max_distance=max_distance)
    uint64 = np.empty((0,), np.uint64)
    hits = traced.map_blocks(_hit_count, chunks=((1,) * traced.numblocks[0],), dtype=np.uint64, meta=uint64)
    starts = da.cumsum(hits) - hits
    # map_blocks pairs the blocks by index: one start per chunk.
    rebased = da.map_blocks(_rebased_offsets, traced, starts, chunks=traced.chunks, dtype=np.uint64, meta=uint64)
    offsets = da.concatenate([rebased, hits.sum(keepdims=True)])
    unknown = ((np.nan,) * traced.numblocks[0],)
    return AllHits(offsets, _field(traced, "distances", np.float32, chunks=unknown), rays.shape)
