"""Every query of Scene and trace against the double-precision brute force."""

import numpy as np
import pytest

import raytracing as rt
from conftest import Mesh, Reference, random_rays, soup_of

MODES = rt.MODES


def scene_query(scene, mode, origins, directions, **kwargs):
    if mode.startswith("nearest"):
        return scene.nearest(origins, directions, triangles=mode.endswith("-index"), **kwargs)
    if mode.startswith("both"):
        return scene.nearest_farthest(origins, directions, triangles=mode.endswith("-index"), **kwargs)
    return scene.count(origins, directions, **kwargs) if mode == "count" else scene.all_hits(origins, directions, **kwargs)


# (origins, distances, max_distance): origins None or one point start rays at one place; per-ray origins
# with per-ray distances and a max_distance that cuts some rays short.
RAY_CASES = {
    "at-origin": (lambda o: None, False, np.inf),
    "one-point": (lambda o: o[7], False, 2.5),
    "per-ray": (lambda o: o, True, 3.0),
}


@pytest.fixture(params=sorted(RAY_CASES))
def rays(request):
    origins, directions, distances = random_rays()
    pick, with_distances, max_distance = RAY_CASES[request.param]
    return pick(origins), directions, distances if with_distances else None, max_distance


@pytest.mark.parametrize("mode", MODES)
def test_trace_matches_reference(scene_arrays, rays, mode):
    vertices, faces = scene_arrays
    origins, directions, distances, max_distance = rays
    result = rt.trace(vertices, faces, origins, directions, mode, distances=distances, max_distance=max_distance)
    Reference(vertices, faces, origins, directions, distances, max_distance).check(result, mode)


@pytest.mark.parametrize("mode", MODES)
def test_scene_matches_reference(scene_arrays, rays, mode):
    vertices, faces = scene_arrays
    origins, directions, distances, max_distance = rays
    scene = rt.Scene(vertices, faces)
    assert len(scene) == len(soup_of(vertices, faces))
    result = scene_query(scene, mode, origins, directions, distances=distances, max_distance=max_distance)
    Reference(vertices, faces, origins, directions, distances, max_distance).check(result, mode)
