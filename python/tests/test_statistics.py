"""Covariance, limits and profiles: against a linear fit in closed form, SciPy, and each other."""

import gc
import pickle
import subprocess
import sys
import weakref
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import tqnlp

T = np.arange(1.0, 7.0)
Y = np.array([1.1, 1.9, 3.2, 3.9, 5.1, 5.8])
STUDENT = 2.7764451051977987  # 97.5 % with 4 degrees of freedom


def fit(**options):
    return tqnlp.least_squares(lambda p: p[0] + p[1] * T - Y, [0.0, 0.0], options=options)


def test_a_linear_fit_in_closed_form():
    found = fit(names=["a", "b"])
    design = np.column_stack([np.ones(6), T])
    variance = 2 * found.cost / 4
    exact = variance * np.linalg.inv(design.T @ design)
    assert np.allclose(found.jac, design, atol=1e-6)
    assert np.allclose(found.covariance, exact, rtol=1e-5)
    assert np.allclose(found.stderr**2, np.diag(exact), rtol=1e-5)
    known = found.covariances("hessian", residual_variance=1.0)
    assert np.allclose(known.matrix * variance, exact, rtol=1e-4) and known.states == ["estimated"] * 2
    for kind in ("wald", "profile"):
        for limit, error in zip(found.limits(0.95, kind), np.sqrt(np.diag(exact))):
            assert limit.upper - limit.estimate == pytest.approx(STUDENT * error, rel=1e-5)
    assert [one.name for one in found.limits([0.5, 0.9], parameters=["b", 0])] == ["b", "b", "a", "a"]
    profile = found.profile("b", 0.95)
    inside = np.abs(profile.root) <= profile.quantile + 1e-6
    limit = found.limits(parameters=1)[0]
    assert profile.quantile == pytest.approx(STUDENT)
    assert np.allclose(profile.values[inside][[0, -1]], [limit.lower, limit.upper], rtol=1e-6)
    axes = pytest.importorskip("matplotlib.pyplot")
    axes.switch_backend("Agg")
    assert found.plot_profile("b").get_xlabel() == "b"


def test_likelihoods_bounds_and_what_does_not_exist():
    minus_log = tqnlp.minimize(lambda x: 0.5 * x @ np.diag([4.0, 25.0]) @ x, [1.0, 1.0])
    assert np.allclose(minus_log.stderr, [0.5, 0.2], rtol=1e-4)
    twice = tqnlp.minimize(lambda x: x @ np.diag([4.0, 25.0]) @ x, [1.0, 1.0])
    assert np.allclose(twice.covariances(multiple=2.0).errors, [0.5, 0.2], rtol=1e-4)
    pairs = [minus_log.limits(), twice.limits(multiple=2.0)]
    assert np.allclose(*([limit.upper for limit in limits] for limits in pairs), rtol=1e-4)
    bounded = tqnlp.minimize(lambda x: (x**2).sum(), [1.0, 1.0], bounds=[(0.5, None), (None, None)])
    assert bounded.covariances().states == ["at_bound", "estimated"]
    assert bounded.limits()[0].lower_ending == "at_bound" and "at bound" in str(bounded.limits())
    flat = tqnlp.least_squares(lambda p: p[0] + p[1] + T - Y, [0.0, 0.0])
    assert not flat.covariances().known and np.isnan(flat.stderr).all()


def test_refusals_and_results_of_other_processes():
    found = fit()
    for words, call in [
        ("level: 2", lambda: found.limits(2)),
        ("kind must be 'profile' or 'wald'", lambda: found.limits(kind="likely")),
        ("one of ['X1', 'X2'], not 'c'", lambda: found.limits(parameters="c")),
        ("from 0 to 1", lambda: found.profile(5)),
        ("residual_variance", lambda: found.covariances(residual_variance=0.0)),
        ("another process", lambda: pickle.loads(pickle.dumps(found)).limits()),
    ]:
        with pytest.raises(ValueError) as raised:
            call()
        assert words in str(raised.value)
    with pytest.raises(TypeError, match="names must be a sequence"):
        fit(names="ab")
    divisor = [1.0]
    broken = tqnlp.minimize(lambda x: float(x[0]) ** 2 / divisor[0], [1.0])
    divisor[0] = 0
    with pytest.raises(ZeroDivisionError):
        broken.limits()


def test_an_object_that_keeps_its_result_is_collected():
    class Model:
        def loss(self, x):
            return float((x**2).sum())

        def fit(self):
            self.result = tqnlp.minimize(self.loss, [1.0])
            self.session = tqnlp.Session()
            self.session.module("F", self.loss)
            return weakref.ref(self)

    gone = [Model().fit() for _ in range(3)]
    gc.collect()
    assert [one() for one in gone] == [None] * 3


def test_threads_share_a_result():
    def both(x):
        return float((x**2).sum() + (x**4).sum()), 2 * x + 4 * x**3

    found = tqnlp.minimize(both, [1.0, 1.0], jac=True)
    wanted = str(found.limits())
    with ThreadPoolExecutor(4) as pool:
        assert {str(limits) for limits in pool.map(lambda _: found.limits(), range(40))} == {wanted}


def test_the_end_of_the_interpreter_abandons_a_run():
    code = (
        "import threading, time, tqnlp\n"
        "slow = lambda x: (time.sleep(0.01), float(x @ x))[1]\n"
        "run = lambda: tqnlp.minimize(slow, [1.0] * 50)\n"
        "threading.Thread(target=run, daemon=True).start()\n"
        "time.sleep(0.1)"
    )
    assert subprocess.run([sys.executable, "-c", code], timeout=30).returncode == 0
