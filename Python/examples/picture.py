"""A shaded picture of a torus from scene.nearest on pinhole-camera rays (pip install matplotlib)."""

import matplotlib.pyplot as plt
import numpy as np

import raytracing as rt


def torus(radius=1.0, tube=0.4, n_around=128, n_tube=64):
    """Vertices (n, 3) and faces (m, 3) of a closed torus around the z axis."""
    u, v = np.meshgrid(np.linspace(0, 2 * np.pi, n_around, endpoint=False),
                       np.linspace(0, 2 * np.pi, n_tube, endpoint=False), indexing="ij")
    ring = radius + tube * np.cos(v)
    vertices = np.stack([ring * np.cos(u), ring * np.sin(u), tube * np.sin(v)], axis=-1).reshape(-1, 3)
    i, j = np.meshgrid(np.arange(n_around), np.arange(n_tube), indexing="ij")
    a, b = i * n_tube + j, (i + 1) % n_around * n_tube + j
    c, d = (i + 1) % n_around * n_tube + (j + 1) % n_tube, i * n_tube + (j + 1) % n_tube
    faces = np.concatenate([np.stack([a, b, c], -1), np.stack([a, c, d], -1)]).reshape(-1, 3)
    return vertices, faces


vertices, faces = torus()
scene = rt.Scene(vertices, faces)
print(scene)

# One ray per pixel from the eye through a 640 x 400 image plane; directions have shape (400, 640, 3).
width, height, eye = 640, 400, np.array([0.0, -3.2, 2.0])
forward = -eye / np.linalg.norm(eye)
right = np.cross(forward, [0.0, 0.0, 1.0])
right /= np.linalg.norm(right)
up = np.cross(right, forward)
x, y = np.meshgrid(np.arange(width) - width / 2, height / 2 - np.arange(height))
directions = forward + (x[..., None] * right + y[..., None] * up) / (0.9 * height)

hits = scene.nearest(eye, directions)  # hits.distance and hits.triangle have shape (400, 640)

# Shade by the angle between each hit triangle's normal and the ray; black where rays miss.
corners = vertices[faces]
normals = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
normals /= np.linalg.norm(normals, axis=1, keepdims=True)
unit = directions / np.linalg.norm(directions, axis=-1, keepdims=True)
shade = np.abs(np.einsum("hwk,hwk->hw", normals[hits.triangle], unit))
picture = np.where(hits.triangle >= 0, shade, 0.0)
plt.imsave("torus.png", picture, cmap="gray", vmin=0, vmax=1)
print("wrote torus.png; nearest distances from", hits.distance[hits.triangle >= 0].min())
