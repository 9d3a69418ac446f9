"""Bad input raises ValueError or TypeError naming the argument before any library call; failed library
calls raise RayTracingError with the library's code and message."""

import numpy as np
import pytest

import raytracing as rt
from conftest import boxes

VERTICES, FACES = boxes()
DIRECTIONS = np.ones((4, 3), np.float32)


def with_nan(array, value=np.nan):
    array = np.array(array, np.float64)
    array.flat[5] = value
    return array


# (description, keyword arguments of rt.trace, exception, words the message must name)
BAD_INPUT = [
    ("vertices (n, 3) without faces", dict(faces=None), ValueError, ["vertices", "faces"]),
    ("vertices of the wrong shape", dict(vertices=np.zeros((4, 4))), ValueError, ["vertices"]),
    ("vertices not numbers", dict(vertices=[["a", "b", "c"]]), TypeError, ["vertices"]),
    ("complex vertices", dict(vertices=VERTICES.astype(complex)), TypeError, ["vertices"]),
    ("NaN vertex", dict(vertices=with_nan(VERTICES)), ValueError, ["vertices"]),
    ("infinite soup vertex", dict(vertices=with_nan(VERTICES[FACES], np.inf), faces=None), ValueError, ["vertices"]),
    ("float faces", dict(faces=FACES.astype(float)), TypeError, ["faces"]),
    ("faces of the wrong shape", dict(faces=FACES[:, :2]), ValueError, ["faces"]),
    ("face index too large", dict(faces=FACES + 1), ValueError, ["faces"]),
    ("negative face index", dict(faces=FACES - 1), ValueError, ["faces"]),
    ("directions not (..., 3)", dict(directions=np.ones((4, 2))), ValueError, ["directions"]),
    ("NaN direction", dict(directions=with_nan(DIRECTIONS)), ValueError, ["directions"]),
    ("direction beyond float32", dict(directions=DIRECTIONS.astype(float) * 1e39), ValueError, ["directions"]),
    ("infinite origin", dict(origins=with_nan(DIRECTIONS, -np.inf)), ValueError, ["origins"]),
    ("NaN single origin", dict(origins=[0, np.nan, 0]), ValueError, ["origins"]),
    ("origins for other rays", dict(origins=np.ones((5, 3))), ValueError, ["origins", "directions"]),
    ("distances for other rays", dict(distances=np.ones(5)), ValueError, ["distances", "directions"]),
    ("boolean distances", dict(distances=np.ones(4, bool)), TypeError, ["distances"]),
    ("max_distance not a number", dict(max_distance="far"), TypeError, ["max_distance"]),
    ("unknown mode", dict(mode="nearest_index"), ValueError, ["mode"]),
    ("unknown device", dict(device="tpu"), ValueError, ["device"]),
    ("gpu not an integer", dict(gpu=0.5), TypeError, ["gpu"]),
    ("negative free_memory", dict(free_memory=-1), ValueError, ["free_memory"]),
]


@pytest.mark.parametrize("case", BAD_INPUT, ids=[case[0] for case in BAD_INPUT])
def test_bad_input_names_the_argument_before_any_library_call(case):
    _, changes, exception, words = case
    # device "gpu" raises RayTracingError on a machine without one: a check after loading would show.
    arguments = dict(vertices=VERTICES, faces=FACES, origins=None, directions=DIRECTIONS, mode="nearest",
                     device="gpu")
    arguments.update(changes)
    with pytest.raises(exception) as error:
        positional = [arguments.pop(name) for name in ("vertices", "faces", "origins", "directions", "mode")]
        rt.trace(*positional, **arguments)
    assert all(word in str(error.value) for word in words), str(error.value)


@pytest.mark.parametrize("query", ["nearest", "nearest_farthest", "count", "all_hits"])
def test_scene_queries_check_their_rays(query):
    scene = rt.Scene(VERTICES, FACES, device="cpu")
    with pytest.raises(ValueError, match="origins"):
        getattr(scene, query)(np.ones((3, 3)), DIRECTIONS)
    with pytest.raises(ValueError, match="directions"):
        getattr(scene, query)(None, with_nan(DIRECTIONS))
    with pytest.raises(TypeError, match="vertices"):
        rt.Scene("not a mesh", device="gpu")


def test_nan_and_infinite_distances_pass():
    distances = np.array([np.nan, np.inf, -np.inf, 1.0], np.float32)
    hits = rt.trace(VERTICES, FACES, None, DIRECTIONS, "nearest", distances=distances, max_distance=9.0)
    assert hits.distance.shape == (4,)


@pytest.mark.parametrize(
    "arguments, exception, code, words",
    [
        (dict(gpu=1, device="cpu"), rt.RayTracingError, 4, "invalid device ordinal"),
        (dict(free_memory=1000), rt.OutOfMemoryError, 2, "Not enough free GPU memory."),
    ],
    ids=["no such device", "too little memory"],
)
@pytest.mark.parametrize("how", ["trace", "scene"])
def test_library_failures_keep_code_and_message(how, arguments, exception, code, words):
    with pytest.raises(exception) as error:
        if how == "trace":
            rt.trace(VERTICES, FACES, None, DIRECTIONS, "nearest", **arguments)
        else:
            rt.Scene(VERTICES, FACES, **arguments).nearest(None, DIRECTIONS)
    assert error.value.code == code and words in str(error.value)
    assert isinstance(error.value, RuntimeError) and isinstance(error.value, MemoryError) == (code == 2)


def test_gpu_device_without_a_gpu_flavour_says_why():
    scene = rt.Scene(VERTICES, FACES)
    if scene.device == "gpu":
        pytest.skip("a GPU answers here")
    with pytest.raises(rt.RayTracingError, match="GPU flavour is not available: .+") as error:
        rt.Scene(VERTICES, FACES, device="gpu")
    assert error.value.code == 4
