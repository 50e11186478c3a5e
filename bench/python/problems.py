"""Published problems in NumPy, with exact derivatives; their sources stand in problems/README.md.

A function is written once, for numbers: it is called with the point x of shape (n,), and for
derivatives with one column a direction, x of shape (n, n), by which a complex step gives all of
them in one call to the last digit. `t` are data of shape (m,), or (m, 1) then.
"""

import re
from dataclasses import dataclass, field
from pathlib import Path

import numpy as np
from numpy import arctan, cos, exp, log, pi, sin, sqrt

STEP = 1e-30
INF = np.inf


def _rows(values):
    """An array of what a function answers: one of shape (m,) or (m, n), or a list of these rows."""
    if isinstance(values, np.ndarray):
        return values
    first = values[0]
    if len(values) == 1:
        return np.array([first])
    return np.array(values) if np.ndim(first) == 0 else np.stack(np.broadcast_arrays(*values))


def _derivatives(function, x):
    return _rows(function(x[:, None] + 1j * STEP * np.eye(x.size))).imag / STEP


@dataclass
class Problem:
    """minimize body(x) or the sum of squares of its values, within bounds, `equalities` c(x) = 0
    and then c(x) >= 0. `minima` holds the known minimum, and others that a descent may end in."""

    name: str
    x0: list
    minima: list
    body: object
    squares: bool = False
    data: object = None
    bounds: list = None
    constraints: object = None
    equalities: int = 0
    certified: list = field(default_factory=list)

    def _values(self, x):
        if self.data is None:
            return self.body(x)
        return self.body(x, self.data if x.ndim == 1 else self.data[..., None])

    def residuals(self, x):
        return _rows(self._values(x))

    def jacobian(self, x):
        return _derivatives(self._values, x)

    def fun(self, x):
        if not self.squares:
            return self.body(x)
        r = self.residuals(x)
        return float(r @ r)

    def grad(self, x):
        if self.squares:
            return 2.0 * (self.residuals(x) @ self.jacobian(x))
        return (self.body(x[:, None] + 1j * STEP * np.eye(x.size)) + np.zeros(x.size)).imag / STEP

    def hess(self, x):
        """Central differences of the gradient, right to some ten digits."""
        h = np.empty((x.size, x.size))
        for j in range(x.size):
            step = np.zeros(x.size)
            step[j] = 6e-6 * max(1.0, abs(x[j]))
            h[j] = (self.grad(x + step) - self.grad(x - step)) / (2 * step[j])
        return 0.5 * (h + h.T)

    def values(self, x):
        return _rows(self.constraints(x))

    def normals(self, x):
        return _derivatives(self.constraints, x)

    def violation(self, x):
        """The largest, relative to the side of a bound where that is above 1."""
        worst = 0.0
        for side, sign in ((0, 1), (1, -1)) if self.bounds is not None else ():
            b = np.array([pair[side] for pair in self.bounds], dtype=float)
            at = np.isfinite(b)
            gap = sign * (b - x)[at] / np.maximum(1.0, np.abs(b[at]))
            worst = max(worst, gap.max(initial=0.0))
        if self.constraints is not None:
            c = self.values(x)
            equal, other = c[: self.equalities], c[self.equalities :]
            worst = max(worst, np.abs(equal).max(initial=0.0), (-other).max(initial=0.0))
        return worst


# ---- More, Garbow and Hillstrom -----------------------------------------------------------------

KOWALIK = np.array(
    [[4, 2, 1, 0.5, 0.25, 0.167, 0.125, 0.1, 0.0833, 0.0714, 0.0625],
     [0.1957, 0.1947, 0.1735, 0.1600, 0.0844, 0.0627, 0.0456, 0.0342, 0.0323, 0.0235, 0.0246]]
)  # fmt: skip
BARD = np.array(
    [0.14, 0.18, 0.22, 0.25, 0.29, 0.32, 0.35, 0.39, 0.37, 0.58, 0.73, 0.96, 1.34, 2.10, 4.39]
)
GAUSS = np.array(
    [0.0009, 0.0044, 0.0175, 0.0540, 0.1295, 0.2420, 0.3521, 0.3989,
     0.3521, 0.2420, 0.1295, 0.0540, 0.0175, 0.0044, 0.0009]
)  # fmt: skip
N10 = np.arange(1.0, 11.0)


def _shifted(x, by):
    """The element by places on, 0 beyond the ends."""
    y = np.zeros_like(x)
    if by > 0:
        y[:-by] = x[by:]
    else:
        y[-by:] = x[:by]
    return y


def _along(t, x):
    return t if x.ndim == 1 else t[:, None]


def _helical(x):
    angle = arctan(x[1] / x[0]) / (2 * pi) + np.where(x[0].real < 0, 0.5, 0.0)
    return [10 * (x[2] - 10 * angle), 10 * (sqrt(x[0] ** 2 + x[1] ** 2) - 1), x[2]]


def _powell(x):
    a, b, c, d = x[0::4], x[1::4], x[2::4], x[3::4]
    parts = [a + 10 * b, sqrt(5) * (c - d), (b - 2 * c) ** 2, sqrt(10) * (a - d) ** 2]
    return np.concatenate(parts)


def _penalty_2(x):
    n = len(x)
    i = _along(np.arange(1.0, n), x)
    y = exp((i + 1) / 10) + exp(i / 10)
    e = exp(x / 10)
    sum_ = (_along(np.arange(n, 0.0, -1), x) * x * x).sum(axis=0) - 1
    root = sqrt(1e-5)
    pairs, singles = root * (e[1:] + e[:-1] - y), root * (e[1:] - exp(-0.1))
    return np.concatenate([x[:1] - 0.2, pairs, singles, np.array([sum_])])


def _variable(x):
    s = (_along(N10, x) * (x - 1)).sum(axis=0)
    return np.concatenate([x - 1, np.array([s, s * s])])


def _trigonometric(x):
    c = cos(x)
    return len(x) - c.sum(axis=0) + _along(N10, x) * (1 - c) - sin(x)


def _almost_linear(x):
    return np.concatenate([x[:-1] + x.sum(axis=0) - 11, np.array([x.prod(axis=0) - 1])])


def _boundary(x):
    h = 1 / 11
    return 2 * x - _shifted(x, 1) - _shifted(x, -1) + h * h * (x + _along(N10 * h, x) + 1) ** 3 / 2


def _integral(x):
    h = 1 / 11
    t = _along(N10 * h, x)
    cubes = (x + t + 1) ** 3
    below = np.cumsum(t * cubes, axis=0)
    above = ((1 - t) * cubes).sum(axis=0) - np.cumsum((1 - t) * cubes, axis=0)
    return x + h * ((1 - t) * below + t * above) / 2


def _banded(x):
    y = x * (1 + x)
    near = sum(_shifted(y, by) for by in (1, -1, -2, -3, -4, -5))
    return x * (2 + 5 * x * x) + 1 - near


def _watson(x):
    n = len(x)
    powers = (np.arange(1.0, 30.0) / 29)[:, None] ** np.arange(n)
    slope = (powers[:, :-1] * np.arange(1.0, n)) @ x[1:]
    return np.concatenate([slope - (powers @ x) ** 2 - 1, x[:1], x[1:2] - x[:1] ** 2 - 1])


def _chebyquad(x):
    t = 2 * x - 1
    before, present, rows = np.ones_like(x), t, []
    for i in range(1, len(x) + 1):
        rows.append(present.sum(axis=0) / len(x) + (1 / (i * i - 1) if i % 2 == 0 else 0))
        before, present = present, 2 * t * present - before
    return rows


def _gulf(x, t):
    y = 25 + (-50 * log(t)) ** (2 / 3)
    return exp(-(sqrt((y - x[1]) ** 2) ** x[2]) / x[0]) - t


def _rosenbrocks(x):
    return np.concatenate([10 * (x[1::2] - x[0::2] ** 2), 1 - x[0::2]])


def _wood(x):
    a, b, c, d = x
    last = [sqrt(10) * (b + d - 2), (b - d) / sqrt(10)]
    return [10 * (b - a * a), 1 - a, sqrt(90) * (d - c * c), 1 - c, *last]


def _penalty_1(x):
    return np.concatenate([sqrt(1e-5) * (x - 1), np.array([(x * x).sum(axis=0) - 0.25])])


def _tridiagonal(x):
    return (3 - 2 * x) * x + 1 - _shifted(x, -1) - 2 * _shifted(x, 1)


def more_garbow_hillstrom():
    def squares(name, x0, minima, body, data=None):
        return Problem(name, x0, minima, body, squares=True, data=data)

    t10, t13, t15 = N10 / 10, np.arange(1.0, 14.0) / 10, np.arange(1.0, 16.0)
    t20 = np.arange(1.0, 21.0) / 5
    biggs = exp(-t13) - 5 * exp(-10 * t13) + 3 * exp(-4 * t13)
    grid = N10 / 11
    return [
        squares("Rosenbrock", [-1.2, 1], [0], _rosenbrocks),
        squares("Freudenstein and Roth", [0.5, -2], [0, 48.98425367924],
            lambda x: [-13 + x[0] + ((5 - x[1]) * x[1] - 2) * x[1],
                       -29 + x[0] + ((x[1] + 1) * x[1] - 14) * x[1]]),
        squares("Powell badly scaled", [0, 1], [0],
            lambda x: [1e4 * x[0] * x[1] - 1, exp(-x[0]) + exp(-x[1]) - 1.0001]),
        squares("Brown badly scaled", [1, 1], [0],
            lambda x: [x[0] - 1e6, x[1] - 2e-6, x[0] * x[1] - 2]),
        squares("Beale", [1, 1], [0],
            lambda x: [1.5 - x[0] * (1 - x[1]), 2.25 - x[0] * (1 - x[1] ** 2),
                       2.625 - x[0] * (1 - x[1] ** 3)]),
        squares("Jennrich and Sampson", [0.3, 0.4], [124.3621823556148],
            lambda x, t: 2 + 2 * t - (exp(t * x[0]) + exp(t * x[1])), N10),
        squares("Helical valley", [-1, 0, 0], [0], _helical),
        squares("Bard", [1, 1, 1], [8.214877306578970e-3, 17.42869333],
            lambda x, t: t[1] - (x[0] + t[0] / ((16 - t[0]) * x[1] + t[2] * x[2])),
            np.array([t15, BARD, np.minimum(t15, 16 - t15)])),
        squares("Gaussian", [0.4, 1, 0], [1.127932769618710e-8],
            lambda x, t: x[0] * exp(-x[1] * (t[0] - x[2]) ** 2 / 2) - t[1],
            np.array([(8 - t15) / 2, GAUSS])),
        squares("Gulf research", [5, 2.5, 0.15], [0, 0.038], _gulf, np.arange(1.0, 100.0) / 100),
        squares("Box three-dimensional", [0, 10, 20], [0, 0.0755887],
            lambda x, t: exp(-t * x[0]) - exp(-t * x[1]) - x[2] * (exp(-t) - exp(-10 * t)), t10),
        squares("Kowalik and Osborne", [0.25, 0.39, 0.415, 0.39], [3.075056038e-4, 1.02734e-3],
            lambda x, t: t[1] - x[0] * (t[0] ** 2 + t[0] * x[1])
                         / (t[0] ** 2 + t[0] * x[2] + x[3]), KOWALIK),
        squares("Brown and Dennis", [25, 5, -5, -1], [85822.20162635],
            lambda x, t: (x[0] + t * x[1] - exp(t)) ** 2 + (x[2] + sin(t) * x[3] - cos(t)) ** 2,
            t20),
        squares("Biggs EXP6", [1, 2, 1, 1, 1, 1], [0, 5.655649925516e-3],
            lambda x, t: x[2] * exp(-t[0] * x[0]) - x[3] * exp(-t[0] * x[1])
                         + x[5] * exp(-t[0] * x[4]) - t[1], np.array([t13, biggs])),
        squares("Powell singular", [3, -1, 0, 1], [0], _powell),
        squares("Wood", [-3, -1, -3, -1], [0], _wood),
        squares("Watson 6", [0] * 6, [2.287670053552e-3], _watson),
        squares("Watson 9", [0] * 9, [1.399760138e-6], _watson),
        squares("Extended Rosenbrock 10", [-1.2, 1] * 5, [0], _rosenbrocks),
        squares("Extended Powell singular 12", [3, -1, 0, 1] * 3, [0], _powell),
        squares("Penalty I 4", [1, 2, 3, 4], [2.249977500e-5], _penalty_1),
        squares("Penalty I 10", list(N10), [7.087651467e-5], _penalty_1),
        squares("Penalty II 4", [0.5] * 4, [9.376293007e-6], _penalty_2),
        squares("Penalty II 10", [0.5] * 10, [2.936605374e-4], _penalty_2),
        squares("Variably dimensioned", list(1 - N10 / 10), [0], _variable),
        squares("Trigonometric", [0.1] * 10, [0, 2.795056121e-5], _trigonometric),
        squares("Brown almost-linear", [0.5] * 10, [0, 1], _almost_linear),
        squares("Discrete boundary value", list(grid * (grid - 1)), [0], _boundary),
        squares("Discrete integral equation", list(grid * (grid - 1)), [0], _integral),
        squares("Broyden tridiagonal", [-1] * 10, [0], _tridiagonal),
        squares("Broyden banded", [-1] * 10, [0, 3.05727842], _banded),
        squares("Chebyquad 8", list(np.arange(1, 9) / 9), [3.516873725677e-3], _chebyquad),
    ]  # fmt: skip


# ---- Hock and Schittkowski ----------------------------------------------------------------------


def _rosenbrock(x):
    return 100 * (x[1] - x[0] ** 2) ** 2 + (1 - x[0]) ** 2


def _hs38(x):
    a, b, c, d = x
    return (100 * (b - a * a) ** 2 + (1 - a) ** 2 + 90 * (d - c * c) ** 2 + (1 - c) ** 2
            + 10.1 * ((b - 1) ** 2 + (d - 1) ** 2) + 19.8 * (b - 1) * (d - 1))  # fmt: skip


def _hs110(x):
    return (log(x - 2) ** 2 + log(10 - x) ** 2).sum(axis=0) - x.prod(axis=0) ** 0.2


def bounded():
    """With bounds: those of the book, and unconstrained ones whose solution a bound cuts off."""
    return [
        Problem("HS1", [-2, 1], [0], _rosenbrock, bounds=[(-INF, INF), (-1.5, INF)]),
        Problem("HS2", [-2, 1], [0.0504261879, 4.9412293], _rosenbrock,
            bounds=[(-INF, INF), (1.5, INF)]),
        Problem("HS3", [10, 1], [0], lambda x: x[1] + 1e-5 * (x[1] - x[0]) ** 2,
            bounds=[(-INF, INF), (0, INF)]),
        Problem("HS4", [1.125, 0.125], [8 / 3], lambda x: (x[0] + 1) ** 3 / 3 + x[1],
            bounds=[(1, INF), (0, INF)]),
        Problem("HS5", [0, 0], [-1.9132229549810362],
            lambda x: sin(x[0] + x[1]) + (x[0] - x[1]) ** 2 - 1.5 * x[0] + 2.5 * x[1] + 1,
            bounds=[(-1.5, 4), (-3, 3)]),
        Problem("HS38", [-3, -1, -3, -1], [0], _hs38, bounds=[(-10, 10)] * 4),
        Problem("HS45", [2] * 5, [1], lambda x: 2 - x.prod(axis=0) / 120,
            bounds=[(0, k) for k in (1, 2, 3, 4, 5)]),
        Problem("HS110", [9] * 10, [-45.77846971], _hs110, bounds=[(2.001, 9.999)] * 10),
        Problem("Rosenbrock, cut off", [-1.2, 0.4], [0.25], _rosenbrock,
            bounds=[(-INF, 0.5), (-INF, INF)]),
        Problem("Wood, halved", [-3, -1, -3, -1], [0.5701396836644903], _wood, squares=True,
            bounds=[(-10, 0.5), (-10, 10), (-10, 10), (-10, 10)]),
        Problem("Powell singular, cut off", [3, 1, 1, 2], [122.0], _powell, squares=True,
            bounds=[(1, INF)] * 4),
        Problem("Extended Rosenbrock, cut off", [-1.2, 0.3] * 5, [1.25],
            lambda x: (_rosenbrocks(x) ** 2).sum(axis=0), bounds=[(-INF, 0.5), (-INF, INF)] * 5),
    ]  # fmt: skip


def _hs64(x):
    return 5 * x[0] + 50000 / x[0] + 20 * x[1] + 72000 / x[1] + 10 * x[2] + 144000 / x[2]


def _hs43(x):
    a, b, c, d = x
    return [8 - a * a - b * b - c * c - d * d - a + b - c + d,
            10 - a * a - 2 * b * b - c * c - 2 * d * d + a + d,
            5 - 2 * a * a - b * b - c * c - 2 * a + b + d]  # fmt: skip


def _hs77(x):
    return ((x[0] - 1) ** 2 + (x[0] - x[1]) ** 2 + (x[2] - 1) ** 2 + (x[3] - 1) ** 4
            + (x[4] - 1) ** 6)  # fmt: skip


def _sphere(x):
    squares = (x * x).sum(axis=0) - 10
    return [squares, x[1] * x[2] - 5 * x[3] * x[4], x[0] ** 3 + x[1] ** 3 + 1]


def _hs79(x):
    return ((x[0] - 1) ** 2 + (x[0] - x[1]) ** 2 + (x[1] - x[2]) ** 2 + (x[2] - x[3]) ** 4
            + (x[3] - x[4]) ** 4)  # fmt: skip


def _hs100(x):
    return ((x[0] - 10) ** 2 + 5 * (x[1] - 12) ** 2 + x[2] ** 4 + 3 * (x[3] - 11) ** 2
            + 10 * x[4] ** 6 + 7 * x[5] ** 2 + x[6] ** 4 - 4 * x[5] * x[6] - 10 * x[5]
            - 8 * x[6])  # fmt: skip


def _hs100_constraints(x):
    a, b, c, d, e, f, g = x
    return [127 - 2 * a * a - 3 * b**4 - c - 4 * d * d - 5 * e,
            282 - 7 * a - 3 * b - 10 * c * c - d + e,
            196 - 23 * a - b * b - 6 * f * f + 8 * g,
            -4 * a * a - b * b + 3 * a * b - 2 * c * c - 5 * f + 11 * g]  # fmt: skip


def _reactor(x):
    return 0.4 * (x[0] / x[6]) ** 0.67 + 0.4 * (x[1] / x[7]) ** 0.67 + 10 - x[0] - x[1]


def _hs104(x):
    middle = [
        1 - 4 * x[2 + i] / x[4 + i] - 2 * x[2 + i] ** -0.71 / x[4 + i]
        - 0.0588 * x[2 + i] ** -1.3 * x[6 + i]
        for i in range(2)
    ]  # fmt: skip
    return [1 - 0.0588 * x[4] * x[6] - 0.1 * x[0], 1 - 0.0588 * x[5] * x[7] - 0.1 * (x[0] + x[1]),
            *middle, _reactor(x) - 0.1, 4.2 - _reactor(x)]  # fmt: skip


def _hs113(x):
    return (x[0] ** 2 + x[1] ** 2 + x[0] * x[1] - 14 * x[0] - 16 * x[1] + (x[2] - 10) ** 2
            + 4 * (x[3] - 5) ** 2 + (x[4] - 3) ** 2 + 2 * (x[5] - 1) ** 2 + 5 * x[6] ** 2
            + 7 * (x[7] - 11) ** 2 + 2 * (x[8] - 10) ** 2 + (x[9] - 7) ** 2 + 45)  # fmt: skip


def _hs113_constraints(x):
    return [120 - 3 * (x[0] - 2) ** 2 - 4 * (x[1] - 3) ** 2 - 2 * x[2] ** 2 + 7 * x[3],
            40 - 5 * x[0] ** 2 - 8 * x[1] - (x[2] - 6) ** 2 + 2 * x[3],
            30 - 0.5 * (x[0] - 8) ** 2 - 2 * (x[1] - 4) ** 2 - 3 * x[4] ** 2 + x[5],
            -x[0] ** 2 - 2 * (x[1] - 2) ** 2 + 2 * x[0] * x[1] - 14 * x[4] + 6 * x[5],
            3 * x[0] - 6 * x[1] - 12 * (x[8] - 8) ** 2 + 7 * x[9],
            105 - 4 * x[0] - 5 * x[1] + 3 * x[6] - 9 * x[7],
            -10 * x[0] + 8 * x[1] + 17 * x[6] - 2 * x[7],
            12 + 8 * x[0] - 2 * x[1] - 5 * x[8] + 2 * x[9]]  # fmt: skip


def constrained():
    waves = lambda x: [
        x[0] ** 2 * x[3] + sin(x[3] - x[4]) - 2 * sqrt(2),
        x[1] + x[2] ** 4 * x[3] ** 2 - 8 - sqrt(2),
    ]
    positive = [(0, INF)]
    return [
        Problem("HS6", [-1.2, 1], [0], lambda x: (1 - x[0]) ** 2, equalities=1,
            constraints=lambda x: [10 * (x[1] - x[0] ** 2)]),
        Problem("HS7", [2, 2], [-sqrt(3)], lambda x: log(1 + x[0] ** 2) - x[1], equalities=1,
            constraints=lambda x: [(1 + x[0] ** 2) ** 2 + x[1] ** 2 - 4]),
        Problem("HS10", [-10, 10], [-1], lambda x: x[0] - x[1],
            constraints=lambda x: [-3 * x[0] ** 2 + 2 * x[0] * x[1] - x[1] ** 2 + 1]),
        Problem("HS11", [4.9, 0.1], [-8.498464223], lambda x: (x[0] - 5) ** 2 + x[1] ** 2 - 25,
            constraints=lambda x: [x[1] - x[0] ** 2]),
        Problem("HS12", [0, 0], [-30],
            lambda x: 0.5 * x[0] ** 2 + x[1] ** 2 - x[0] * x[1] - 7 * x[0] - 7 * x[1],
            constraints=lambda x: [25 - 4 * x[0] ** 2 - x[1] ** 2]),
        Problem("HS14", [2, 2], [9 - 2.875 * sqrt(7)],
            lambda x: (x[0] - 2) ** 2 + (x[1] - 1) ** 2, equalities=1,
            constraints=lambda x: [x[0] - 2 * x[1] + 1, 1 - 0.25 * x[0] ** 2 - x[1] ** 2]),
        Problem("HS18", [2, 2], [5], lambda x: 0.01 * x[0] ** 2 + x[1] ** 2,
            bounds=[(2, 50), (0, 50)],
            constraints=lambda x: [x[0] * x[1] - 25, x[0] ** 2 + x[1] ** 2 - 25]),
        Problem("HS24", [1, 0.5], [-1],
            lambda x: ((x[0] - 3) ** 2 - 9) * x[1] ** 3 / (27 * sqrt(3)), bounds=positive * 2,
            constraints=lambda x: [x[0] / sqrt(3) - x[1], x[0] + sqrt(3) * x[1],
                                   6 - x[0] - sqrt(3) * x[1]]),
        Problem("HS26", [-2.6, 2, 2], [0],
            lambda x: (x[0] - x[1]) ** 2 + (x[1] - x[2]) ** 4, equalities=1,
            constraints=lambda x: [(1 + x[1] ** 2) * x[0] + x[2] ** 4 - 3]),
        Problem("HS27", [2, 2, 2], [0.04],
            lambda x: 0.01 * (x[0] - 1) ** 2 + (x[1] - x[0] ** 2) ** 2, equalities=1,
            constraints=lambda x: [x[0] + x[2] ** 2 + 1]),
        Problem("HS28", [-4, 1, 1], [0], lambda x: (x[0] + x[1]) ** 2 + (x[1] + x[2]) ** 2,
            equalities=1, constraints=lambda x: [x[0] + 2 * x[1] + 3 * x[2] - 1]),
        Problem("HS29", [1, 1, 1], [-16 * sqrt(2)], lambda x: -x[0] * x[1] * x[2],
            constraints=lambda x: [48 - x[0] ** 2 - 2 * x[1] ** 2 - 4 * x[2] ** 2]),
        Problem("HS31", [1, 1, 1], [6], lambda x: 9 * x[0] ** 2 + x[1] ** 2 + 9 * x[2] ** 2,
            bounds=[(-10, 10), (1, 10), (-10, 1)], constraints=lambda x: [x[0] * x[1] - 1]),
        Problem("HS34", [0, 1.05, 2.9], [-log(log(10.0))], lambda x: -x[0],
            bounds=[(0, 100), (0, 100), (0, 10)],
            constraints=lambda x: [x[1] - exp(x[0]), x[2] - exp(x[1])]),
        Problem("HS39", [2] * 4, [-1], lambda x: -x[0], equalities=2,
            constraints=lambda x: [x[1] - x[0] ** 3 - x[2] ** 2, x[0] ** 2 - x[1] - x[3] ** 2]),
        Problem("HS40", [0.8] * 4, [-0.25], lambda x: -x.prod(axis=0), equalities=3,
            constraints=lambda x: [x[0] ** 3 + x[1] ** 2 - 1, x[0] ** 2 * x[3] - x[2],
                                   x[3] ** 2 - x[1]]),
        Problem("HS43", [0] * 4, [-44],
            lambda x: x[0] ** 2 + x[1] ** 2 + 2 * x[2] ** 2 + x[3] ** 2 - 5 * x[0] - 5 * x[1]
                      - 21 * x[2] + 7 * x[3], constraints=_hs43),
        Problem("HS64", [1] * 3, [6299.842428], _hs64, bounds=[(1e-5, INF)] * 3,
            constraints=lambda x: [1 - 4 / x[0] - 32 / x[1] - 120 / x[2]]),
        Problem("HS65", [-5, 5, 0], [0.9535288567],
            lambda x: (x[0] - x[1]) ** 2 + (x[0] + x[1] - 10) ** 2 / 9 + (x[2] - 5) ** 2,
            bounds=[(-4.5, 4.5), (-4.5, 4.5), (-5, 5)],
            constraints=lambda x: [48 - (x * x).sum(axis=0)]),
        Problem("HS66", [0, 1.05, 2.9], [0.5181632741], lambda x: 0.2 * x[2] - 0.8 * x[0],
            bounds=[(0, 100), (0, 100), (0, 10)],
            constraints=lambda x: [x[1] - exp(x[0]), x[2] - exp(x[1])]),
        Problem("HS71", [1, 5, 5, 1], [17.0140173],
            lambda x: x[0] * x[3] * (x[0] + x[1] + x[2]) + x[2], bounds=[(1, 5)] * 4, equalities=1,
            constraints=lambda x: [(x * x).sum(axis=0) - 40, x.prod(axis=0) - 25]),
        Problem("HS77", [2] * 5, [0.24150513], _hs77, equalities=2, constraints=waves),
        Problem("HS78", [-2, 1.5, 2, -1, -1], [-2.91970041], lambda x: x.prod(axis=0),
            equalities=3, constraints=_sphere),
        Problem("HS79", [2] * 5, [0.0787768209], _hs79, equalities=3,
            constraints=lambda x: [x[0] + x[1] ** 2 + x[2] ** 3 - 2 - 3 * sqrt(2),
                                   x[1] - x[2] ** 2 + x[3] + 2 - 2 * sqrt(2), x[0] * x[4] - 2]),
        Problem("HS80", [-2, 2, 2, -1, -1], [0.0539498478], lambda x: exp(x.prod(axis=0)),
            bounds=[(-2.3, 2.3)] * 2 + [(-3.2, 3.2)] * 3, equalities=3, constraints=_sphere),
        Problem("HS100", [1, 2, 0, 4, 0, 1, 1], [680.6300573], _hs100,
            constraints=_hs100_constraints),
        Problem("HS104", [6, 3, 0.4, 0.2, 6, 6, 1, 0.5], [3.9511634396], _reactor,
            bounds=[(0.1, 10)] * 8, constraints=_hs104),
        Problem("HS113", [2, 3, 5, 5, 1, 2, 7, 3, 6, 10], [24.3062091], _hs113,
            constraints=_hs113_constraints),
    ]  # fmt: skip


# ---- Regressions --------------------------------------------------------------------------------

# Name, responses and predictors by the names of their tables (or the predictors by a formula of the
# index from 0), model, far and near start, certified parameters.
_GAUSS_START = ([97, 0.009, 100, 65, 20, 70, 178, 16.5], [94, 0.0105, 99, 63, 25, 71, 180, 20])
_CUBES = lambda x, a, b, c, d, e, f, g: (
    (a + x * (b + x * (c + x * d))) / (1 + x * (e + x * (f + x * g)))
)
_PEAKS = lambda x, a, b, c, d, e, f, g, h: (
    a * exp(-b * x) + c * exp(-(((x - d) / e) ** 2)) + f * exp(-(((x - g) / h) ** 2))
)
_SUM_3 = lambda x, a, b, c, d, e, f: a * exp(-b * x) + c * exp(-d * x) + e * exp(-f * x)
_CHWIRUT = lambda x, a, b, c: exp(-a * x) / (b + c * x)
_CYCLES = lambda x, a, b, c, d, e, f, g, h, i: (
    a + b * cos(pi * x / 6) + c * sin(pi * x / 6) + e * cos(2 * pi * x / d)
    + f * sin(2 * pi * x / d) + h * cos(2 * pi * x / g) + i * sin(2 * pi * x / g)
)  # fmt: skip
NIST = [
    ("Misra1a", "misra1", None, lambda x, a, b: a * (1 - exp(-b * x)),
     [500, 0.0001], [250, 0.0005], 0.12455138894),
    ("Chwirut2", "chwirut2", None, _CHWIRUT, [0.1, 0.01, 0.02], [0.15, 0.008, 0.01], 513.04802941),
    ("Chwirut1", "chwirut1", None, _CHWIRUT, [0.1, 0.01, 0.02], [0.15, 0.008, 0.01], 2384.4771393),
    ("Lanczos3", "lanczos3", lambda i: i / 20, _SUM_3,
     [1.2, 0.3, 5.6, 5.5, 6.5, 7.6], [0.5, 0.7, 3.6, 4.2, 4, 6.3], 1.6117193594e-08),
    ("Gauss1", "gauss1", lambda i: i + 1, _PEAKS, *_GAUSS_START, 1315.8222432),
    ("Gauss2", "gauss2", lambda i: i + 1, _PEAKS, [96, 0.009, 103, 106, 18, 72, 151, 18],
     [98, 0.0105, 103, 105, 20, 73, 150, 20], 1247.5282092),
    ("DanWood", "danwood", None, lambda x, a, b: a * x**b, [1, 5], [0.7, 4], 0.0043173084083),
    ("Misra1b", "misra1", None, lambda x, a, b: a * (1 - 1 / (1 + b * x / 2) ** 2),
     [500, 0.0001], [300, 0.0002], 0.075464681533),
    ("Kirby2", "kirby2", None,
     lambda x, a, b, c, d, e: (a + x * (b + x * c)) / (1 + x * (d + x * e)),
     [2, -0.1, 0.003, -0.001, 1e-05], [1.5, -0.15, 0.0025, -0.0015, 2e-05], 3.9050739624),
    ("Hahn1", "hahn1", None, _CUBES, [10, -1, 0.05, -1e-05, -0.05, 0.001, -1e-06],
     [1, -0.1, 0.005, -1e-06, -0.005, 0.0001, -1e-07], 1.5324382854),
    ("MGH17", "mgh17", lambda i: 10 * i,
     lambda x, a, b, c, d, e: a + b * exp(-d * x) + c * exp(-e * x),
     [50, 150, -100, 1, 2], [0.5, 1.5, -1, 0.01, 0.02], 5.4648946975e-05),
    ("Lanczos2", "lanczos2", lambda i: i / 20, _SUM_3,
     [1.2, 0.3, 5.6, 5.5, 6.5, 7.6], [0.5, 0.7, 3.6, 4.2, 4, 6.3], 2.2299428125e-11),
    ("Gauss3", "gauss3", lambda i: i + 1, _PEAKS, [94.9, 0.009, 90.1, 113, 20, 73.8, 140, 20],
     [96, 0.0096, 80, 110, 25, 74, 139, 25], 1244.484636),
    ("Misra1c", "misra1", None, lambda x, a, b: a * (1 - (1 + 2 * b * x) ** -0.5),
     [500, 0.0001], [600, 0.0002], 0.040966836971),
    ("Misra1d", "misra1", None, lambda x, a, b: a * b * x / (1 + b * x),
     [500, 0.0001], [450, 0.0003], 0.056419295283),
    ("Roszman1", "roszman1", None, lambda x, a, b, c, d: a - b * x - arctan(c / (x - d)) / pi,
     [0.1, -1e-05, 1000, -100], [0.2, -5e-06, 1200, -150], 0.00049484847331),
    ("ENSO", "enso", lambda i: i + 1, _CYCLES,
     [11, 3, 0.5, 40, -0.7, -1.3, 25, -0.3, 1.4], [10, 3, 0.5, 44, -1.5, 0.5, 26, -0.1, 1.5],
     788.53978668),
    ("MGH09", "mgh09", None, lambda x, a, b, c, d: a * (x * x + x * b) / (x * x + x * c + d),
     [25, 39, 41.5, 39], [0.25, 0.39, 0.415, 0.39], 0.00030750560385),
    ("Thurber", "thurber", None, _CUBES, [1000, 1000, 400, 40, 0.7, 0.3, 0.03],
     [1300, 1500, 500, 75, 1, 0.4, 0.05], 5642.7082397),
    ("BoxBOD", "boxbod", None, lambda x, a, b: a * (1 - exp(-b * x)),
     [1, 1], [100, 0.75], 1168.0088766),
    ("Rat42", "rat42", None, lambda x, a, b, c: a / (1 + exp(b - c * x)),
     [100, 1, 0.1], [75, 2.5, 0.07], 8.0565229338),
    ("MGH10", "mgh10", lambda i: 50 + 5 * i, lambda x, a, b, c: a * exp(b / (x + c)),
     [2, 400000, 25000], [0.02, 4000, 250], 87.945855171),
    ("Eckerle4", "eckerle4", None, lambda x, a, b, c: a / b * exp(-0.5 * ((x - c) / b) ** 2),
     [1, 10, 500], [1.5, 5, 450], 0.0014635887487),
    ("Rat43", "rat43", lambda i: i + 1,
     lambda x, a, b, c, d: a / (1 + exp(b - c * x)) ** (1 / d),
     [100, 10, 1, 1], [700, 5, 0.75, 1.3], 8786.404908),
    ("Bennett5", "bennett5", None, lambda x, a, b, c: a * (b + x) ** (-1 / c),
     [-2000, 50, 0.8], [-1500, 45, 0.85], 0.00052404744073),
]  # fmt: skip


def _tables():
    text = (Path(__file__).parents[2] / "problems" / "nist_data.h").read_text()
    found = re.findall(r"std::array (\w+) = \{([^}]*)\}", text)
    return {name: np.array([float(v) for v in values.split(",") if v.strip()])
            for name, values in found}  # fmt: skip


def nist():
    """Each regression from both starts; the model stands in `model`."""
    tables, all_ = _tables(), []
    for name, data, formula, model, far, near, minimum in NIST:
        y = tables[data + "_y"]
        x = tables[data + "_x"] if formula is None else formula(np.arange(y.size, dtype=float))
        for which, start in ((1, far), (2, near)):
            body = lambda b, t, model=model: model(t[0], *b) - t[1]
            problem = Problem(
                f"{name} {which}", start, [minimum], body, squares=True, data=np.array([x, y])
            )
            problem.model = model
            all_.append(problem)
    return all_
