"""Every query of Scene and trace against the double-precision brute force."""

import numpy as np
import pytest

import raytracing as rt
from conftest import Mesh, Reference, boxes, random_rays, soup_of

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


def every_mode(vertices, faces, origins, directions, **kwargs):
    """Results of every mode, by rt.trace and by one Scene."""
    scene = rt.Scene(vertices, faces)
    return {
        (how, mode): rt.trace(vertices, faces, origins, directions, mode, **kwargs)
        if how == "trace"
        else scene_query(scene, mode, origins, directions, **kwargs)
        for how in ("trace", "scene")
        for mode in MODES
    }


def per_ray_arrays(result):
    if isinstance(result, np.ndarray):
        return [result]
    if isinstance(result, rt.AllHits):
        return [result.counts]
    return [a for a in (getattr(result, s) for s in result.__slots__) if a is not None]


def test_batch_shapes_follow_the_directions():
    vertices, faces = boxes()
    origins, directions, distances = random_rays(24)
    flat = every_mode(vertices, faces, origins[3], directions, distances=distances)
    shaped = every_mode(vertices, faces, origins[3], directions.reshape(2, 3, 4, 3),
                        distances=distances.reshape(2, 3, 4))
    for key, result in shaped.items():
        for a, b in zip(per_ray_arrays(result), per_ray_arrays(flat[key])):
            assert a.shape == (2, 3, 4)
            np.testing.assert_array_equal(a.reshape(-1), b)
        if isinstance(result, rt.AllHits):
            np.testing.assert_array_equal(result.distances, flat[key].distances)
            assert len(result) == 24 and result.shape == (2, 3, 4)


def test_one_ray_without_batch_axes():
    vertices, faces = boxes()
    hits = rt.Scene(vertices, faces).nearest(None, [0.0, 0.0, 1.0])
    assert hits.distance.shape == () and hits.distance == pytest.approx(1.3)


def test_other_dtypes_layouts_and_mesh_objects_give_the_same_answers():
    vertices, faces = boxes()
    origins, directions, distances = random_rays(50)
    expected = every_mode(vertices, faces, origins, directions, distances=distances)
    # float64 in Fortran order, origins as a strided view, int32 faces inside a mesh object, lists.
    converted = every_mode(
        Mesh(np.asfortranarray(vertices), faces.astype(np.int32)), None,
        np.repeat(origins, 2, axis=0)[::2], np.asfortranarray(directions.astype(np.float64)),
        distances=distances.tolist(),
    )
    for key, result in converted.items():
        for a, b in zip(per_ray_arrays(result), per_ray_arrays(expected[key])):
            np.testing.assert_array_equal(a, b)


@pytest.mark.parametrize("how", ["trace", "scene"])
def test_no_triangles_misses_and_no_rays_answer_empty(how):
    _, directions, _ = random_rays(10)
    nothing = np.zeros((0, 3, 3), np.float32)
    results = every_mode(nothing, None, None, directions, max_distance=7.0)
    assert np.all(results[(how, "nearest-index")].distance == 7.0)
    assert np.all(results[(how, "nearest-index")].triangle == -1)
    assert np.all(results[(how, "both")].farthest == -np.finfo(np.float32).max)
    assert np.all(results[(how, "count")] == 0)
    assert len(results[(how, "all")].distances) == 0 and len(results[(how, "all")]) == 10

    vertices, faces = boxes()
    for key, result in every_mode(vertices, faces, None, np.zeros((0, 3))).items():
        assert all(a.shape == (0,) for a in per_ray_arrays(result))
        if isinstance(result, rt.AllHits):
            assert result.offsets.tolist() == [0] and len(result) == 0


@pytest.mark.parametrize("mode", ["nearest-index", "all"])
def test_trimesh_meshes_are_taken_as_they_are(mode):
    trimesh = pytest.importorskip("trimesh")
    mesh = trimesh.creation.icosphere(subdivisions=3, radius=1.2)
    origins, directions, distances = random_rays(300)
    result = scene_query(rt.Scene(mesh), mode, origins, directions, distances=distances)
    Reference(mesh.vertices, mesh.faces, origins, directions, distances).check(result, mode)
