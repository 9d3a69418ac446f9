"""Long queries: slices with progress and Ctrl-C between them, and memory budgets that force chunks."""

import _thread

import numpy as np
import pytest

import raytracing as rt
from raytracing import _query
from conftest import Reference, boxes, random_rays
from test_queries import MODES, per_ray_arrays, scene_query


@pytest.fixture
def small_slices(monkeypatch):
    monkeypatch.setattr(_query, "FIRST_SLICE_RAYS", 16)
    monkeypatch.setattr(_query, "SLICE_SECONDS", 0.0)  # no growth: 100 rays make 7 slices


@pytest.mark.parametrize("mode", MODES)
def test_slices_give_the_answers_of_one_call(small_slices, mode, capsys):
    vertices, faces = boxes()
    origins, directions, distances = random_rays(100)
    one_call = rt.trace(vertices, faces, origins, directions, mode, distances=distances)
    sliced = [
        rt.trace(vertices, faces, origins, directions, mode, distances=distances, progress=True),
        scene_query(rt.Scene(vertices, faces), mode, origins, directions, distances=distances),
    ]
    for result in sliced:
        for a, b in zip(per_ray_arrays(result), per_ray_arrays(one_call)):
            np.testing.assert_array_equal(a, b)
        if mode == "all":
            np.testing.assert_array_equal(result.offsets, one_call.offsets)
            np.testing.assert_array_equal(result.distances, one_call.distances)
    assert "100" in capsys.readouterr().err  # the progress line (or tqdm's bar) counts the rays


def test_ctrl_c_stops_between_slices_and_the_scene_answers_after(small_slices, monkeypatch):
    vertices, faces = boxes()
    origins, directions, _ = random_rays(100)
    scene = rt.Scene(vertices, faces)
    updates = []

    class InterruptingBar:
        def update(self, n):
            updates.append(n)
            _thread.interrupt_main()  # as Ctrl-C would

        def close(self):
            pass

    monkeypatch.setattr(_query, "progress_bar", lambda total, enabled: InterruptingBar())
    with pytest.raises(KeyboardInterrupt):
        scene.all_hits(origins, directions, progress=True)
    assert updates == [16]
    monkeypatch.undo()
    Reference(vertices, faces, origins, directions).check(scene.all_hits(origins, directions), "all")


def least_free_memory(accepts):
    """The least free_memory (to 4 KiB) that the library accepts: the smallest chunks and batches."""
    low, high = 1, 1 << 40
    while high - low > 4096:
        middle = (low + high) // 2
        try:
            accepts(middle)
            high = middle
        except rt.OutOfMemoryError:
            low = middle
    return high


@pytest.mark.parametrize("mode", MODES)
def test_least_free_memory_builds_chunks_and_answers_alike(mode):
    vertices, faces = boxes()
    origins, directions, distances = random_rays(200)
    reference = Reference(vertices, faces, origins, directions, distances)

    def trace(free_memory):
        return rt.trace(vertices, faces, origins, directions, mode, distances=distances, free_memory=free_memory)

    least = least_free_memory(trace)
    reference.check(trace(least), mode)
    with pytest.raises(rt.OutOfMemoryError) as error:
        trace(least - 4096)
    assert error.value.code == 2 and isinstance(error.value, MemoryError)
    assert "Not enough free GPU memory" in str(error.value)

    def query(free_memory):
        return scene_query(rt.Scene(vertices, faces, free_memory=free_memory), mode, origins, directions,
                           distances=distances)

    scene = rt.Scene(vertices, faces, free_memory=least_free_memory(query))
    reference.check(scene_query(scene, mode, origins, directions, distances=distances), mode)
    assert not scene.kept_structures
    roomy = rt.Scene(vertices, faces)
    scene_query(roomy, mode, origins, directions)
    assert roomy.kept_structures
