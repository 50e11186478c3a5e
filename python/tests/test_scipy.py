"""SciPy's own kinds of problems, by both ways of calling; the C++ face in bits."""

import functools
import os
import pickle
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import tqnlp

scipy = pytest.importorskip("scipy.optimize")
sys.path.insert(0, str(Path(__file__).parents[2] / "bench" / "python"))
import problems  # noqa: E402

CONSTRAINED = [*problems.bounded(), *problems.constrained()]
REGRESSIONS = [p for p in problems.nist() if p.name in ("Misra1a 2", "Chwirut2 1", "Rat43 2", "Gauss1 1")]


def both_ways(**case):
    """The result of tqnlp.minimize; that through SciPy has the same bits."""
    ours = tqnlp.minimize(**case)
    case = {"method": tqnlp.method(case.pop("method", "auto")), **case}
    through = scipy.minimize(**case)
    assert through.x.tobytes() == ours.x.tobytes() and through.status == ours.status
    assert type(through) is tqnlp.Result
    return ours


@pytest.mark.parametrize("n", [2, 5, 10])
@pytest.mark.parametrize("given", [{}, {"jac": scipy.rosen_der},
                                   {"jac": scipy.rosen_der, "hess": scipy.rosen_hess}])  # fmt: skip
def test_rosenbrocks(n, given):
    found = both_ways(fun=scipy.rosen, x0=[1.3, 0.7] * (n // 2) + [0.8] * (n % 2), **given)
    assert found.optimality.verdict == "optimal" and found.fun < 1e-6
    assert found.success or not given  # differences may leave no better point to be found
    np.testing.assert_allclose(found.x, np.ones(n), atol=2e-3 if not given else 1e-5)


def forms(problem, which):
    """Constraints as dictionaries, or as objects."""
    e, count = problem.equalities, problem.values(np.array(problem.x0, float)).size
    if which == "object":
        upper = np.where(np.arange(count) < e, 0.0, np.inf)
        return scipy.NonlinearConstraint(problem.values, 0.0, upper, problem.normals)
    blocks = []
    for kind, part in (("eq", slice(0, e)), ("ineq", slice(e, count))):
        if part.start < part.stop:
            block = {"type": kind, "args": (part,), "fun": lambda x, part: problem.values(x)[part]}
            blocks.append({**block, "jac": lambda x, part: problem.normals(x)[part]})
    return blocks


@pytest.mark.parametrize("problem", CONSTRAINED, ids=lambda p: p.name)
def test_constrained_problems(problem):
    case = {"fun": problem.fun, "x0": problem.x0, "jac": problem.grad, "bounds": problem.bounds}
    if problem.constraints is not None:
        case["constraints"] = forms(problem, "dictionary")
    found = both_ways(**case)
    assert found.success and problem.violation(found.x) < 1e-6
    assert min(abs(found.fun - m) / max(1.0, abs(m)) for m in problem.minima) < 1e-5
    if problem.bounds is not None:
        lower, upper = np.array(problem.bounds, dtype=float).T
        case["bounds"] = scipy.Bounds(lower, upper)
    if problem.constraints is not None:
        case["constraints"] = forms(problem, "object")
    again = both_ways(**case)
    np.testing.assert_allclose(again.fun, found.fun, rtol=1e-6, atol=1e-6)


def test_every_argument_means_what_it_means_in_scipy():
    fun, grad = lambda x, a, b: a * scipy.rosen(x) + b, lambda x, a, b: a * scipy.rosen_der(x)
    case = {"fun": fun, "x0": [-1.2, 1.0], "args": (2.0, 3.0)}
    assert both_ways(**case, jac=grad).fun == pytest.approx(3.0, abs=1e-8)
    pair = {**case, "fun": lambda x, a, b: (fun(x, a, b), grad(x, a, b))}
    assert tqnlp.minimize(**pair, jac=True).fun == pytest.approx(3.0, abs=1e-8)
    plain = {"options": {"analysis": False}}  # which would go on where tol is too large
    rough, fine = (both_ways(**case, **plain, jac=grad, tol=tol) for tol in (1e-1, 1e-12))
    assert rough.success and rough.nit < fine.nit and abs(fine.x - 1).max() < 1e-6
    short = both_ways(**case, jac=grad, options={"maxiter": 3})
    assert short.nit == 3 and not short.success and short.ending == "count_limit"
    ended = both_ways(**case, jac=grad, callback=lambda x: bool(x[0] > -0.95))
    assert ended.ending == "stopped_by_caller" and -0.95 < ended.x[0] < 0.0
    assert tqnlp.minimize(**case, callback=lambda x: 2 * x).success
    assert tqnlp.minimize(**case, callback=lambda x, state: np.True_ & (state.nit == 2)).nit == 2
    for tight in ({"tol": 1e-10}, {"options": {"fatol": 1e-10, "xatol": 1e-10}}):
        assert abs(tqnlp.minimize(**case, method="Nelder-Mead", **tight).x - 1).max() < 1e-5
    with pytest.raises(ValueError, match="hessp"):
        tqnlp.minimize(**case, jac=grad, hessp=lambda x, p: p)
    with pytest.raises(ValueError, match="hessp"):
        scipy.minimize(**case, jac=grad, hessp=lambda x, p, a, b: p, method=tqnlp.method("NLPTR"))
    with pytest.raises(ValueError, match="conjugate_gradient"):
        tqnlp.minimize(**case, method="L-BFGS-B")


@pytest.mark.parametrize("problem", REGRESSIONS, ids=lambda p: p.name)
@pytest.mark.parametrize("jac", [True, False])
def test_fits(problem, jac):
    given = problem.jacobian if jac else "2-point"
    ours = tqnlp.least_squares(problem.residuals, problem.x0, given)
    peer = scipy.least_squares(problem.residuals, problem.x0, given, x_scale="jac", xtol=1e-12)
    assert ours.cost == pytest.approx(problem.minima[0] / 2, rel=1e-7)
    np.testing.assert_allclose(ours.x, peer.x, rtol=1e-4)
    np.testing.assert_allclose(ours.jac, peer.jac, rtol=1e-3, atol=1e-3 * abs(peer.jac).max())
    (t, y), weights = problem.data, 0.5 + np.arange(problem.data[1].size) % 3
    slopes = (lambda t, *b: problem.jacobian(np.array(b))) if jac else None
    for sigma in (None, weights, np.diag(weights**2) + 0.01):
        for absolute in (False, True):
            said = {"sigma": sigma, "absolute_sigma": absolute, "jac": slopes}
            x, covariance = tqnlp.curve_fit(problem.model, t, y, problem.x0, **said)
            theirs = scipy.curve_fit(problem.model, t, y, problem.x0, **said)
            np.testing.assert_allclose(x, theirs[0], rtol=1e-4)
            sizes = np.sqrt(np.outer(np.diag(theirs[1]), np.diag(theirs[1])))
            assert abs((covariance - theirs[1]) / sizes).max() < 1e-2


def test_least_squares_within_bounds_and_with_scipys_names():
    line = lambda x: np.array([x[0] + x[1] * k - k * k for k in range(4)])
    case = {"fun": line, "x0": [0.5, 0.5], "bounds": ([0, -np.inf], [1, 2])}
    ours, peer = tqnlp.least_squares(**case), scipy.least_squares(**case)
    np.testing.assert_allclose(ours.x, peer.x, atol=1e-6)
    assert (ours.active_mask == peer.active_mask).all()
    assert tqnlp.least_squares(**case, ftol=1e-10, xtol=1e-10, gtol=1e-10, max_nfev=50).success
    for name, value in {"loss": "huber", "diff_step": 1e-3, "x_scale": [1, -1]}.items():
        with pytest.raises(ValueError, match=name):
            tqnlp.least_squares(**case, **{name: value})
    theirs = {"x_scale": [1, 2], "f_scale": 1.0, "tr_options": {}, "verbose": 0, "jac": "cs"}
    np.testing.assert_allclose(tqnlp.least_squares(**case, **theirs).x, peer.x, atol=1e-6)
    for technique in ("quasi_newton", "trust_region", "gauss_newton"):
        found = tqnlp.least_squares(line, [0.5, 0.5], method=technique)
        assert found.success and "stderr" not in repr(found) and found.stderr.shape == (2,)
        again = pickle.loads(pickle.dumps(tqnlp.least_squares(line, [0.5, 0.5])))
        assert not hasattr(again, "jac") and not hasattr(again, "stderr")
    with pytest.raises(ValueError, match="pair a parameter"):
        tqnlp.least_squares(line, [0.5, 0.5], bounds=[(0, 3), (0, 3)])


def test_models_with_keywords_are_counted():
    t = np.linspace(0, 1, 9)
    model = functools.partial(lambda t, a, b, c: a + b * t * c, c=2.0)
    np.testing.assert_allclose(tqnlp.curve_fit(model, t, 1 + 6 * t)[0], [1, 3], atol=1e-6)


# ---- The same bits as in C++ ----------------------------------------------------------------


def rosenbrock(x):
    a, b = x[1] - x[0] * x[0], 1.0 - x[0]
    return 100.0 * a * a + b * b


def gradient(x):
    a = x[1] - x[0] * x[0]
    return [-400.0 * x[0] * a - 2.0 * (1.0 - x[0]), 200.0 * a]


def solve_as_in_cpp(technique, name):
    start, disk = [-1.2, 1.0], lambda x: x[0] * x[0] + x[1] * x[1]
    if name == "quadratic":
        matrix = [[2.0, 0.5], [0.5, 1.0]]
        return tqnlp.quadratic(matrix, [-1.0, -1.0], x0=start, method=technique)
    if name == "squares":
        rows = lambda x: [10.0 * (x[1] - x[0] * x[0]), 1.0 - x[0], 0.5 * x[0] * x[1]]
        return tqnlp.least_squares(rows, start, method=technique)
    more = {
        "values": {},
        "gradient": {"jac": gradient},
        "bounds": {"jac": gradient, "bounds": [(None, 0.5), (None, None)]},
        "row": {"jac": gradient, "constraints": scipy.LinearConstraint([[1, 2]], -np.inf, 1)},
        "disk": {"constraints": scipy.NonlinearConstraint(disk, -np.inf, 1)},
    }
    return tqnlp.minimize(rosenbrock, start, method=technique, **more[name])


@pytest.mark.skipif("TQNLP_BITS" not in os.environ, reason="TQNLP_BITS names no program")
def test_bits_are_those_of_the_cpp_face():
    lines = subprocess.run(os.environ["TQNLP_BITS"], capture_output=True, text=True, check=True)
    techniques = set()
    for line in lines.stdout.splitlines():
        technique, name, code, *x = line.split()
        found = solve_as_in_cpp(technique, name)
        wanted = [float.fromhex(value) for value in x]
        assert (found.status, found.x.tolist()) == (int(code), wanted), line
        techniques.add(technique)
    assert len(techniques) == 18
