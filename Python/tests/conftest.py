"""Small scenes, rays and a double-precision brute force that every query is checked against.

The library intersects in single precision, so rays whose answer could flip under rounding (grazing an edge,
a hit at the ends of the interval, nearly tied nearest or farthest hits) are flagged ambiguous and skipped.
"""

import numpy as np
import pytest

FLT_MAX = float(np.finfo(np.float32).max)
TOLERANCE = 1e-5  # relative to the scene's scale


class Mesh:
    """What trimesh.Trimesh offers the package: .vertices and .faces."""

    def __init__(self, vertices, faces):
        self.vertices = vertices
        self.faces = faces


def boxes():
    """Three closed boxes, float64 vertices with int64 faces; rays inside and out cross several walls."""
    corners = np.array([[x, y, z] for x in (0, 1) for y in (0, 1) for z in (0, 1)], np.float64)
    quads = [(0, 1, 3, 2), (4, 6, 7, 5), (0, 4, 5, 1), (2, 3, 7, 6), (0, 2, 6, 4), (1, 5, 7, 3)]
    faces = np.array([t for a, b, c, d in quads for t in ((a, b, c), (a, c, d))], np.int64)
    vertices, all_faces = [], []
    for i, (centre, size) in enumerate((((-0.6, -0.4, -0.7), 1.0), ((0.7, 0.2, 0.1), 0.6), ((0, 0, 0), 2.6))):
        vertices.append((corners - 0.5) * size + centre)
        all_faces.append(faces + 8 * i)
    return np.concatenate(vertices), np.concatenate(all_faces)


def random_soup(n=150, seed=3):
    rng = np.random.default_rng(seed)
    centres = rng.uniform(-1, 1, (n, 1, 3))
    return (centres + rng.uniform(-0.3, 0.3, (n, 3, 3))).astype(np.float32)  # (m, 3, 3)


def random_rays(n=400, seed=5):
    """Origins in a ball of radius 1.5, directions of lengths 0.5 to 2 (not normalised), per-ray distances
    from 0.5 to 4 with a few NaN and infinite ones."""
    rng = np.random.default_rng(seed)
    origins = rng.normal(size=(n, 3))
    origins *= 1.5 * rng.uniform(0, 1, (n, 1)) ** (1 / 3) / np.linalg.norm(origins, axis=1, keepdims=True)
    directions = rng.normal(size=(n, 3))
    directions *= rng.uniform(0.5, 2, (n, 1)) / np.linalg.norm(directions, axis=1, keepdims=True)
    distances = rng.uniform(0.5, 4, n)
    distances[::17] = np.nan
    distances[5::23] = np.inf
    return origins.astype(np.float32), directions.astype(np.float32), distances.astype(np.float32)


SCENES = {"boxes": lambda: boxes(), "soup": lambda: (random_soup(), None)}


@pytest.fixture(params=sorted(SCENES))
def scene_arrays(request):
    """(vertices, faces) of a small scene; faces None for a soup."""
    return SCENES[request.param]()


def soup_of(vertices, faces):
    vertices = np.asarray(vertices, np.float32)
    return (vertices if faces is None else vertices[np.asarray(faces)]).reshape(-1, 3, 3).astype(np.float64)


class Reference:
    """Every hit of every ray in double precision, as the library defines them: t along the direction as
    given, nearest and farthest over [0, tmax], counts and all hits over (0, tmax], tmax the smaller of the
    ray's distance and max_distance (a NaN one ignored), no hits unless tmax > 0."""

    def __init__(self, vertices, faces, origins, directions, distances=None, max_distance=np.inf):
        tri = soup_of(vertices, faces)
        d = np.asarray(directions, np.float64).reshape(-1, 3)
        o = np.zeros_like(d) if origins is None else np.broadcast_to(np.asarray(origins, np.float64), d.shape)
        tmax = np.full(len(d), np.float32(max_distance), np.float64)
        if distances is not None:
            t = np.asarray(distances, np.float64).reshape(-1)
            tmax = np.where(np.isnan(t), tmax, np.where(np.isnan(tmax), t, np.minimum(t, tmax)))
        scale = max(1.0, np.abs(tri).max(initial=0), np.abs(o).max(initial=0))

        # Moeller-Trumbore over all ray-triangle pairs: (rays, triangles).
        v0, e1, e2 = tri[:, 0], tri[:, 1] - tri[:, 0], tri[:, 2] - tri[:, 0]
        normal = np.cross(e1, e2)
        twice_area = np.linalg.norm(normal, axis=1)
        p = np.cross(d[:, None, :], e2[None])
        det = np.einsum("tk,rtk->rt", e1, p)
        with np.errstate(divide="ignore", invalid="ignore"):
            s = o[:, None, :] - v0[None]
            q = np.cross(s, e1[None])
            u = np.einsum("rtk,rtk->rt", s, p) / det
            v = np.einsum("rk,rtk->rt", d, q) / det
            t = np.einsum("tk,rtk->rt", e2, q) / det
            cosine = np.abs(det) / (np.linalg.norm(d, axis=1)[:, None] * twice_area[None])
        conditioning = np.maximum(np.nan_to_num(cosine), 1e-6)
        tol_plane = TOLERANCE * scale / conditioning
        tol_t = tol_plane / np.linalg.norm(d, axis=1)[:, None]
        edges = np.stack([np.linalg.norm(tri[:, 2] - tri[:, 1], axis=1), np.linalg.norm(e2, axis=1),
                          np.linalg.norm(e1, axis=1)], axis=1)
        altitudes = twice_area[:, None] / np.where(edges > 0, edges, np.inf)
        weights = np.stack([1 - u - v, u, v], axis=-1)
        eps = tol_plane[..., None] / np.where(altitudes > 0, altitudes, 0)[None]
        valid = (det != 0) & (twice_area[None] > 0)
        inside = valid & np.all(weights >= -eps, axis=-1) & (t >= -tol_t) & (t <= tmax[:, None] + tol_t)
        boundary = np.any(weights <= eps, axis=-1) | (np.abs(t) <= tol_t) | (np.abs(t - tmax[:, None]) <= tol_t)
        self.ambiguous = np.any(inside & boundary, axis=1)
        hit = inside & (t >= 0) & (t <= tmax[:, None]) & (tmax[:, None] > 0)

        self.hits = []  # per ray: (t ascending, triangle indices)
        for i in range(len(d)):
            js = np.flatnonzero(hit[i])
            order = np.argsort(t[i, js], kind="stable")
            ts, js = t[i, js][order], js[order]
            self.hits.append((ts, js))
            tol = tol_t[i, js]
            if len(ts) >= 2 and (ts[1] - ts[0] <= tol[0] + tol[1] or ts[-1] - ts[-2] <= tol[-1] + tol[-2]):
                self.ambiguous[i] = True
        self.max_distance = float(np.float32(max_distance))
        self.scale = scale

    def nearest(self):
        dist = np.array([ts[0] if len(ts) else self.max_distance for ts, _ in self.hits])
        tri = np.array([js[0] if len(js) else -1 for _, js in self.hits])
        return dist, tri

    def farthest(self):
        dist = np.array([ts[-1] if len(ts) else -FLT_MAX for ts, _ in self.hits])
        tri = np.array([js[-1] if len(js) else -1 for _, js in self.hits])
        return dist, tri

    def all_hits(self):
        return [ts[ts > 0] for ts, _ in self.hits]

    def counts(self):
        return np.array([len(h) for h in self.all_hits()], np.uint64)

    def check(self, result, mode):
        """Asserts that a result of raycast mode ``mode`` agrees on every unambiguous ray."""
        ok = ~self.ambiguous
        assert ok.mean() > 0.8, "too many ambiguous rays for a meaningful comparison"
        close = dict(rtol=1e-4, atol=1e-5 * self.scale)
        if mode in ("nearest", "nearest-index"):
            pairs = [(result.distance, result.triangle, self.nearest())]
        elif mode in ("both", "both-index"):
            pairs = [(result.nearest, result.nearest_triangle, self.nearest()),
                     (result.farthest, result.farthest_triangle, self.farthest())]
        elif mode == "count":
            np.testing.assert_array_equal(result.reshape(-1)[ok], self.counts()[ok])
            return
        else:
            expected = self.all_hits()
            assert len(result) == len(expected) and result.offsets[0] == 0
            np.testing.assert_array_equal(np.diff(result.offsets)[ok], self.counts()[ok])
            for i in np.flatnonzero(ok):
                np.testing.assert_allclose(result[i], expected[i], **close)
            return
        for distance, triangle, (ref_distance, ref_triangle) in pairs:
            assert distance.dtype == np.float32
            np.testing.assert_allclose(distance.reshape(-1)[ok], ref_distance[ok], **close)
            if mode.endswith("-index"):
                assert triangle.dtype == np.int32
                np.testing.assert_array_equal(triangle.reshape(-1)[ok], ref_triangle[ok])
            else:
                assert triangle is None
