"""raytracing.dask on a local cluster of two single-threaded worker processes, against one Scene call."""

import os

import numpy as np
import pytest

da = pytest.importorskip("dask.array")
distributed = pytest.importorskip("distributed")

import raytracing as rt  # noqa: E402
from raytracing import dask as rtd  # noqa: E402
from conftest import boxes, random_rays  # noqa: E402

# Uneven chunks, an empty one among them, so that all-hits offsets are rebased by different amounts.
CHUNKS = (137, 0, 263, 100, 500)


@pytest.fixture(scope="module")
def client():
    cluster = distributed.LocalCluster(n_workers=2, processes=True, threads_per_worker=1, dashboard_address=None)
    with cluster, distributed.Client(cluster) as client:
        client.wait_for_workers(2)
        yield client


@pytest.fixture
def mesh(client):
    vertices, faces = boxes()
    with rtd.scatter_mesh(client, vertices, faces, device="cpu") as handle:
        yield handle, rt.Scene(vertices, faces, device="cpu")


def kept(client, handle):
    """Per worker: what cached_scenes says of the handle's mesh, None when the worker does not keep it."""
    return [scenes.get(handle.key) for scenes in client.run(rtd.cached_scenes).values()]


def exit_once(block, marker):
    """Kills the worker process running it, the first time only (the marker file is created atomically)."""
    try:
        os.close(os.open(marker, os.O_CREAT | os.O_EXCL))
    except FileExistsError:
        return block
    os._exit(1)


@pytest.mark.parametrize("method", ["nearest", "nearest_farthest", "count", "all_hits"])
def test_every_mode_equals_one_scene_call(mesh, method):
    handle, scene = mesh
    origins, directions, distances = random_rays(sum(CHUNKS))
    kwargs = dict(distances=distances, max_distance=3.0)
    expected = getattr(scene, method)(origins, directions, **kwargs)
    lazy = getattr(rtd, method)(handle, origins, da.from_array(directions, chunks=(CHUNKS, 3)), **kwargs)
    result = lazy.compute()
    if method == "count":
        np.testing.assert_array_equal(result, expected)
    elif method == "all_hits":
        np.testing.assert_array_equal(result.offsets, expected.offsets)
        np.testing.assert_array_equal(result.distances, expected.distances)
    else:
        for name in type(expected).__slots__:
            np.testing.assert_array_equal(getattr(result, name), getattr(expected, name), err_msg=name)


def test_batch_shape_point_origin_and_numpy_chunks(mesh):
    handle, scene = mesh
    _, directions, _ = random_rays(1000)
    directions = directions.reshape(20, 50, 3)
    result = rtd.nearest(handle, (0.1, 0.2, 0.3), directions, triangles=False, rays_per_chunk=333)
    assert result.distance.shape == (20, 50) and result.triangle is None
    expected = scene.nearest((0.1, 0.2, 0.3), directions, triangles=False)
    np.testing.assert_array_equal(result.compute().distance, expected.distance)


def test_scene_built_once_per_worker_with_its_thread_share_and_dropped_on_release(mesh, client):
    handle, _ = mesh
    origins, directions, _ = random_rays(2000)
    for _ in range(2):
        rtd.count(handle, origins, directions, rays_per_chunk=100).compute()
    threads = os.environ.get("RAYTRACING_CPU_THREADS", "1")
    for state in kept(client, handle):
        assert state["builds"] == 1
        assert f"host, {threads} threads" in state["scene"]
    handle.release()
    assert kept(client, handle) == [None, None]
    with pytest.raises(ValueError, match="released"):
        rtd.count(handle, origins, directions)


def test_a_killed_worker_is_survived(mesh, client, tmp_path):
    handle, scene = mesh
    origins, directions, _ = random_rays(3000)
    hits = rtd.nearest(handle, origins, directions, rays_per_chunk=250)
    distance = hits.distance.map_blocks(exit_once, str(tmp_path / "killed"), meta=np.empty(0, np.float32))
    np.testing.assert_array_equal(distance.compute(), scene.nearest(origins, directions).distance)
    assert (tmp_path / "killed").exists()
    client.wait_for_workers(2)  # the nanny restarted it; the next test gets both again


def test_errors(client, mesh):
    handle, _ = mesh
    origins, directions, _ = random_rays(100)
    with pytest.raises(ValueError, match="origins"):
        rtd.nearest(handle, origins[:50], directions)
    vertices, faces = boxes()
    # Too little memory for the scene: the library's OutOfMemory, raised at compute() with its code.
    with pytest.raises(rt.RayTracingError) as local:
        rt.Scene(vertices, faces, device="cpu", free_memory=1)
    with rtd.scatter_mesh(client, vertices, faces, device="cpu", free_memory=1) as starved:
        with pytest.raises(rt.RayTracingError) as remote:
            rtd.count(starved, origins, directions).compute()
    assert (type(remote.value), remote.value.code, str(remote.value)) == (
        type(local.value),
        local.value.code,
        str(local.value),
    )
