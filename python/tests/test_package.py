"""Faults at the border between Python and the library; its numbers have tests of their own."""

import doctest
import gc
import importlib
import pickle
import signal
import subprocess
import sys
import threading

import numpy as np
import pytest

import tqnlp

scipy = pytest.importorskip("scipy.optimize")


def rosen(x):
    return 100 * (x[1] - x[0] ** 2) ** 2 + (1 - x[0]) ** 2


def rosen_gradient(x):
    step = x[1] - x[0] ** 2
    return np.array([-400 * x[0] * step - 2 * (1 - x[0]), 200 * step])


CORNER = scipy.LinearConstraint([[1.0, 1.0]], -np.inf, 1.0)
DISK = scipy.NonlinearConstraint(lambda x: x @ x, -np.inf, 1.0)
DISK_OLD = {"type": "ineq", "fun": lambda x: 1 - x @ x, "jac": lambda x: -2 * x}
CASES = [
    {},
    {"jac": rosen_gradient},
    {"jac": True, "fun": lambda x: (rosen(x), rosen_gradient(x))},
    {"jac": rosen_gradient, "hess": scipy.rosen_hess},
    {"bounds": [(None, 0.5), (0, None)]},
    {"bounds": scipy.Bounds(-2, [0.5, 2]), "jac": rosen_gradient},
    {"constraints": CORNER},
    {"constraints": [DISK], "jac": rosen_gradient},
    {"constraints": DISK_OLD},
]


@pytest.mark.parametrize("case", CASES)
def test_both_ways_of_calling_agree_with_scipy(case):
    case = {"fun": rosen, "x0": [-0.3, 0.1], **case}
    peer_case = {key: value for key, value in case.items() if key != "hess"}
    peer = scipy.minimize(**peer_case, tol=1e-10)
    ours = tqnlp.minimize(**case)
    assert ours.success
    assert ours.optimality.verdict == "optimal"
    np.testing.assert_allclose(ours.x, peer.x, atol=2e-4)
    through = scipy.minimize(**case, method=tqnlp.method("auto"))
    np.testing.assert_allclose(through.x, ours.x, atol=1e-5)


VALUES = [  # of a function at [1, 2], and what comes of it
    (2, None),
    (np.float32(2), None),
    (np.array(2), None),
    (np.array([[2]]), None),
    (np.array(2, dtype=object), None),
    ("2", TypeError),
    (None, TypeError),
    (2j, TypeError),
    ([1.0, 2.0], ValueError),
]


@pytest.mark.parametrize("value, error", VALUES)
def test_values_of_every_type(value, error):
    if error is None:
        assert tqnlp.minimize(lambda x: value, [1, 2]).objective == 2
        return
    with pytest.raises(error, match="fun must return"):
        tqnlp.minimize(lambda x: value, [1, 2])


@pytest.mark.parametrize(
    "x0", [(1, 2), np.array([1, 2]), np.arange(8.0)[1:5:2], np.array([1, 2.0], dtype=object)]
)
def test_starts_of_every_type(x0):
    assert tqnlp.minimize(lambda x: (x**2).sum(), x0).success


REFUSED = [
    (ValueError, r"x0 .*shape \(n,\)", {"x0": [[1.0, 2.0]]}),
    (TypeError, "x0 must hold numbers", {"x0": ["a", "b"]}),
    (ValueError, "start.*finite", {"x0": [np.nan, 1.0]}),
    (TypeError, "fun must be a function", {"fun": 3}),
    (ValueError, r"jac must return an array of shape \(2,\)", {"jac": lambda x: [1.0, 2.0, 3.0]}),
    (ValueError, "one pair a parameter: 2, not 1", {"bounds": [(0, 1)]}),
    (ValueError, r"bounds.lb .*\(2,\)", {"bounds": scipy.Bounds([0, 0, 0], 1)}),
    (ValueError, r"A must have the shape \(rows, 2\)",
     {"constraints": scipy.LinearConstraint([[1, 1, 1]], 0, 1)}),
    (ValueError, "'type'", {"constraints": {"fun": rosen}}),
    (TypeError, r"constraints\[0\]", {"constraints": [3]}),
    (ValueError, "BFSG.*", {"method": "BFSG"}),
    (ValueError, "gradient_tolerance", {"options": {"gradient_tolerence": 1}}),
    (TypeError, "iterations must be a number", {"options": {"iterations": "many"}}),
    (ValueError, "one of", {"method": "NLPLM"}),
    (ValueError, "argument method", {"options": {"technique": "cobyla"}}),
    (TypeError, "sink must be", {"options": {"sink": 3}}),
    (TypeError, "tol must be", {"tol": "a"}),
    (ValueError, "hess must be", {"jac": rosen_gradient, "hess": "x"}),
    (ValueError, "jac must be", {"hess": scipy.rosen_hess}),
    (ValueError, "'jacobian'", {"constraints": {**DISK_OLD, "jacobian": rosen_gradient}}),
    (ValueError, r"constraints\[0\].jac", {"constraints": {**DISK_OLD, "jac": "x"}}),
]


@pytest.mark.parametrize("error, text, change", REFUSED)
def test_errors_name_the_argument(error, text, change):
    with pytest.raises(error, match=text):
        tqnlp.minimize(**{"fun": rosen, "x0": [1.0, 2.0], **change})


def test_points_that_are_kept_stay_as_they_were():
    kept, views, same = [], [], set()

    def fun(x):
        assert not x.flags.writeable
        kept.append(x)
        views.append((x[:1], float(x[0])))
        return rosen(x)

    tqnlp.minimize(fun, [-1.2, 1.0])
    assert all(view[0] == value for view, value in views) and len({id(x) for x in kept}) > 10
    tqnlp.minimize(lambda x: same.add(id(x)) or rosen(x), [-1.2, 1.0])
    assert len(same) < 5


def test_exceptions_pass_with_the_best_point_and_leak_nothing():
    class Mine(Exception):
        pass

    for where in ("fun", "jac", "callback"):
        calls = []

        def broken(x):
            calls.append(1)
            if len(calls) == 5:
                raise Mine(where)
            return rosen_gradient(x) if where == "jac" else rosen(x) if where == "fun" else None

        marker = object()
        args = {"fun": lambda x, m: rosen(x), "jac": lambda x, m: rosen_gradient(x)}
        args[where] = broken if where == "callback" else lambda x, m: broken(x)
        before = sys.getrefcount(marker), sys.getrefcount(broken)
        for _ in range(3):
            calls.clear()
            with pytest.raises(Mine) as raised:
                tqnlp.minimize(x0=[-1.2, 1.0], args=(marker,), **args)
            assert raised.traceback[-1].name == "broken"
            assert raised.value.partial.objective <= rosen([-1.2, 1.0])
            del raised
        assert (sys.getrefcount(marker), sys.getrefcount(broken)) == before


FAILURES = [  # what a function gives at its third call
    {"fun": lambda: None},
    {"fun": lambda: [1.0, 2.0]},
    {"fun": lambda: "2"},
    {"jac": lambda: np.zeros(3)},
    {"hess": lambda: np.array([object()] * 4).reshape(2, 2)},
    {"constraints": lambda: np.zeros(2)},
    {"fun": lambda: 1 / 0},
    {"fun": lambda: signal.raise_signal(signal.SIGINT)},
]


@pytest.mark.parametrize("failure", FAILURES)
def test_failures_leak_nothing(failure):
    marker = object()
    good = {"fun": rosen, "jac": rosen_gradient, "hess": scipy.rosen_hess}
    good["constraints"] = lambda x: 1.0

    def attempt():
        def body(which):
            calls = []

            def run(x, marked):
                calls.append(x)
                broken = len(calls) == 3 and which in failure
                return failure[which]() if broken else good[which](x)

            return run

        said = {key: body(key) for key in good}
        rest = {"type": "ineq", "fun": said.pop("constraints"), "args": (marker,)}
        if "constraints" in failure:
            said["constraints"] = rest
            del said["hess"]
        with pytest.raises((TypeError, ValueError, ZeroDivisionError, KeyboardInterrupt)) as raised:
            tqnlp.minimize(x0=[-1.2, 1.0], args=(marker,), **said)
        assert raised.value.partial.x.shape == (2,)

    def blocks():
        sys._clear_type_cache()  # keeps names of attributes
        gc.collect()
        return sys.getallocatedblocks()

    for _ in range(10):
        attempt()
    before = blocks(), sys.getrefcount(marker)
    for _ in range(200):
        attempt()
    assert blocks() - before[0] < 100 and sys.getrefcount(marker) == before[1]


def test_a_point_without_value_is_backed_away_from():
    def fun(x):
        if x[0] > 1.1:
            raise tqnlp.EvaluationFailed
        return (x[0] - 1) ** 2

    found = tqnlp.minimize(fun, [-30.0])
    assert found.success and abs(found.x[0] - 1) < 1e-4


@pytest.mark.parametrize("body", ["np.sort(big)", "0"])
def test_interrupts_end_the_run_at_once(body):
    program = f"""
import numpy as np, tqnlp, os, signal
big, calls = np.zeros(10), []
def fun(x):
    calls.append(1)
    if len(calls) == 20: print("ready", flush=True)
    {body}
    return float((x[:-1] ** 2).sum()) + 1e-9 * len(calls) ** 2 * np.sin(1e5 * x[0])
try:
    while True: tqnlp.minimize(fun, np.ones(50))
except KeyboardInterrupt as stop:
    print(hasattr(stop, "partial") and stop.partial.x.size == 50)
"""
    child = subprocess.Popen([sys.executable, "-c", program], stdout=subprocess.PIPE, text=True)
    assert child.stdout.readline() == "ready\n"
    child.send_signal(signal.SIGINT)
    assert child.communicate(timeout=10)[0].strip() == "True"


def test_threads_run_side_by_side():
    found = [None] * 4

    def work(k):
        found[k] = tqnlp.minimize(rosen, [-1.2, 1.0 + k])

    threads = [threading.Thread(target=work, args=(k,)) for k in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert all(abs(result.x - 1).max() < 1e-3 for result in found)


def test_results_pickle_and_print():
    found = tqnlp.minimize(rosen, [-1.2, 1.0], options={"report": 1})
    again = pickle.loads(pickle.dumps(found))
    assert repr(again) == repr(found) and "objective" in found._repr_html_()
    assert again.tables[0].name and again.history.objective[-1] == pytest.approx(found.fun)


@pytest.mark.parametrize("sigma, absolute", [(None, False), (0.5, True), ("2-d", True)])
def test_fits_agree_with_scipy(sigma, absolute):
    t = np.linspace(0, 4, 30)
    y = 2.5 * np.exp(-1.3 * t) + 0.5 + 0.05 * np.sin(37 * t)
    if sigma == "2-d":
        sigma = np.diag(0.1 + t / 10) + 0.01
    elif sigma is not None:
        sigma = np.full(t.size, sigma)

    def model(time, a, b, c):
        return a * np.exp(-b * time) + c

    ours = tqnlp.curve_fit(model, t, y, sigma=sigma, absolute_sigma=absolute, full_output=True)
    peer = scipy.curve_fit(model, t, y, sigma=sigma, absolute_sigma=absolute)
    np.testing.assert_allclose(ours[0], peer[0], rtol=1e-4)
    np.testing.assert_allclose(ours[1], peer[1], rtol=1e-3)
    assert ours[2].technique == "levenberg_marquardt"


def test_quadratics_of_every_form():
    sparse = pytest.importorskip("scipy.sparse")
    h, g = np.array([[2.0, 0.5], [0.5, 1.0]]), [-1.0, -1.0]
    rows = {"constraints": scipy.LinearConstraint([[1, 1]], 1, 1), "bounds": [(0, None)] * 2}
    wanted = tqnlp.quadratic(h, g, **rows).x
    assert wanted.sum() == pytest.approx(1) and (wanted >= 0).all()
    twice = sparse.coo_matrix(([1, 1, 1, 0.5], ([0, 0, 1, 1], [0, 0, 1, 0])))
    for form in (sparse.csr_matrix(h), sparse.tril(h), sparse.triu(h), twice):
        before = form.nnz
        np.testing.assert_allclose(tqnlp.quadratic(form, g, **rows).x, wanted, atol=1e-9)
        assert form.nnz == before  # duplicates of the user's own matrix stay
    row = sparse.csr_matrix((np.array([0.5, 0.5, 1]), [0, 0, 1], [0, 3]), shape=(1, 2))
    rows["constraints"] = scipy.LinearConstraint(row, 1, 1)
    np.testing.assert_allclose(tqnlp.quadratic(h, g, **rows).x, wanted, atol=1e-9)
    assert row.nnz == 3
    with pytest.raises(TypeError, match="complex"):
        tqnlp.quadratic(sparse.csr_matrix(h * 1j))
    np.testing.assert_allclose(tqnlp.quadratic([2.0, 4.0], g).x, [0.5, 0.25])


def test_a_sparse_hessian_has_its_pattern_from_the_start():
    sparse = pytest.importorskip("scipy.sparse")
    case = {"fun": rosen, "x0": [-1.2, 1.0], "jac": rosen_gradient}

    def hessian(x, corner=1):
        return sparse.csr_matrix(scipy.rosen_hess(x) * [[1, corner], [corner, 1]])

    found = tqnlp.minimize(hess=hessian, **case)
    assert found.technique == "newton_line_search" and abs(found.x - 1).max() < 1e-4
    for part in (sparse.tril, sparse.triu):
        assert (tqnlp.minimize(hess=lambda x: part(hessian(x)), **case).x == found.x).all()
    with pytest.raises(ValueError, match="pattern"):
        tqnlp.minimize(hess=lambda x: hessian(x, float(x[0] != -1.2)), **case)


def test_sessions_speak_the_language():
    tql = tqnlp.Session()
    tql.module("F", rosen)
    tql.module("G", rosen_gradient)
    rc, x = tql.call("NLPQN", "F", [-1.2, 1.0], None, [[np.nan, np.nan], [0.5, np.nan]],
                     None, None, None, "G")
    assert rc > 0 and x == pytest.approx([0.5, 0.25], abs=1e-4) and tql.tables is not None
    value, gradient, hessian = tql.call("NLPFDD", "F", [1.0, 1.0])
    assert hessian.shape == (2, 2) and value[0, 0] == 0
    with pytest.raises(tqnlp.CallError) as refused:
        tql.call("NLPQN", "NOBODY", [1.0])
    assert refused.value.code == 3 and refused.value.log
    with pytest.raises(TypeError, match="argument 2"):
        tql.call("NLPQN", "F", object())
    tql.module("F", lambda x: 1 / 0)
    with pytest.raises(ZeroDivisionError):
        tql.call("NLPQN", "F", [1.0])


def test_wrong_derivatives_are_named():
    def gradient(x):
        return rosen_gradient(x) + [0, 0.5]

    def hessian(x):
        return scipy.rosen_hess(x) * [[1, 1.1], [1.1, 1]]

    cases = {"fun": rosen, "x": [-1.2, 1.5], "jac": rosen_gradient, "constraints": DISK_OLD}
    assert tqnlp.check_derivatives(**cases).compared == 4
    disk = {"type": "ineq", "fun": lambda x: [1 - x @ x, x[0]], "jac": lambda x: [-2 * x, [1, 1]]}
    found = tqnlp.check_derivatives(**{**cases, "jac": gradient, "hess": hessian,
                                       "constraints": disk})  # fmt: skip
    assert [one.name for one in found.wrong] == [
        "gradient[1]", "constraint_jacobian[1, 1]", "hessian[0, 1]"]  # fmt: skip
    slope = rosen_gradient([-1.2, 1.5])[1]
    assert found.wrong[0][3:5] == pytest.approx((slope + 0.5, slope)) and not found
    assert "gradient[1]" in repr(found) and "<td>hessian[0, 1]" in found._repr_html_()
    partly = [{**disk, "jac": None}, disk]
    named = tqnlp.Problem(rosen, constraints=partly, options={"names": ["a", "b"], "progress": True})
    found = tqnlp.check_derivatives(named, [-1.2, 1.5])
    assert found.compared == 4 and found.wrong[0].name == "constraint_jacobian[3, 1]"
    assert "  b  " in repr(found)
    with pytest.raises(ValueError, match="nothing to check"):
        tqnlp.check_derivatives(rosen, [0.0, 1.0])


@pytest.mark.parametrize("name", ["tqnlp", "tqnlp._check", "tqnlp._multistart"])
def test_examples_of_docstrings(name):
    found = doctest.testmod(importlib.import_module(name))
    assert found.attempted > 0 and found.failed == 0


@pytest.mark.parametrize("missing", [[], ["tqdm.auto"], ["tqdm.auto", "rich.console"]])
def test_the_live_line_ends_cleanly(missing, monkeypatch, capfd):
    for name in missing:
        monkeypatch.setitem(sys.modules, name, None)
    shown = {"options": {"progress": True}}
    tqnlp.minimize(rosen, [-1.2, 1.0], **shown)
    told = capfd.readouterr().err
    assert "iterations, " in told and "objective" in told and told.endswith("\n")
    with pytest.raises(ZeroDivisionError):
        tqnlp.minimize(rosen, [-1.2, 1.0], callback=lambda x: 1 / 0, **shown)
    told = capfd.readouterr().err
    assert "1 iterations" in told and told.endswith("\n")
    tqnlp.multistart(tqnlp.Problem(rosen, **shown), [[-1.2, 1.0], [0, 0]])
    assert capfd.readouterr().err.count("2 of 2 starts") >= 1


def test_pictures_show_what_was_found():
    pytest.importorskip("matplotlib").use("Agg")
    t = np.array([3.0, 0.0, 1.0, 2.0])
    _, _, fit = tqnlp.curve_fit(lambda t, a: a * t, t, 2 * t, p0=[1.0], full_output=True)
    curve = fit.plot_fit().lines[-1]
    assert curve.get_xydata() == pytest.approx(np.array([[0, 0], [1, 2], [2, 4], [3, 6]]), abs=1e-6)
    assert fit.plot_fit(lambda t, a: a * t).lines[-1].get_xydata()[-1] == pytest.approx([3, 6])
    history = fit.plot_history()
    assert (history.lines[0].get_ydata() == fit.history.objective).all()
    with pytest.raises(ValueError, match="curve_fit"):
        tqnlp.minimize(rosen, [0.0, 0.0]).plot_fit()
