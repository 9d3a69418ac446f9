"""What a scene says about itself, where its flavour comes from, and threads."""

import os
import subprocess
import sys
import threading
import time
from pathlib import Path

import numpy as np

import raytracing as rt
from conftest import boxes, random_rays


def test_scene_describes_itself_and_loads_its_flavour_beside_the_module():
    vertices, faces = boxes()
    scene = rt.Scene(vertices, faces, device="cpu")
    assert len(scene) == len(faces) and scene.device == "cpu"
    assert scene.device_name == f"host, {os.cpu_count()} threads"
    assert Path(scene.flavour_library).parent == Path(rt.__file__).parent
    text = repr(scene)
    assert f"{len(faces)} triangles" in text and "cpu" in text and "CPU flavour" in text
    assert rt.Scene(vertices, faces).device in ("gpu", "cpu")


def measure_two_threads():
    """Two scenes traced one after the other, then by two threads at once; returns a line of figures."""
    rng = np.random.default_rng(1)
    soup = (rng.uniform(-1, 1, (50000, 1, 3)) + rng.uniform(-0.05, 0.05, (50000, 3, 3))).astype(np.float32)
    origins, directions, _ = random_rays(200000)
    scenes = [rt.Scene(soup, device="cpu") for _ in range(2)]

    def work(scene):
        scene.count(origins, directions)

    for scene in scenes:
        work(scene)  # warm up both pipelines
    began = time.perf_counter()
    for scene in scenes:
        work(scene)
    sequential = time.perf_counter() - began
    threads = [threading.Thread(target=work, args=(scene,)) for scene in scenes]
    began = time.perf_counter()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    together = time.perf_counter() - began
    return (f"{scenes[0].device_name}: one after the other {sequential * 1e3:.0f} ms, two threads at once "
            f"{together * 1e3:.0f} ms ({sequential / together:.2f}x)")


def test_two_threads_trace_at_once(capsys):
    """Prints the measurement (no timed assertion), with the CPU flavour on one worker thread per call, where
    only a released GIL lets two calls overlap, and on its default threads."""
    one_thread = subprocess.run([sys.executable, __file__], env=dict(os.environ, RAYTRACING_CPU_THREADS="1"),
                                capture_output=True, text=True, check=True).stdout.strip()
    with capsys.disabled():
        print(f"\ntwo scenes, 200k rays each: {one_thread}; {measure_two_threads()}")


if __name__ == "__main__":
    print(measure_two_threads())
