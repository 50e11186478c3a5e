"""Functions of C, called without the interpreter."""

import ctypes
import os
import signal
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import numpy as np
import pytest

import tqnlp

scipy = pytest.importorskip("scipy")
LIBRARY = Path(tqnlp._core.__file__).parents[1] / "tests" / "functions.so"
C = ctypes.CDLL(str(LIBRARY))
POINT = ctypes.POINTER(ctypes.c_double)
SHAPES = {
    "rosen": (ctypes.c_double, ctypes.c_int, POINT),
    "rosen_gradient": (None, ctypes.c_int, POINT, POINT),
    "rosen_hessian": (None, ctypes.c_long, POINT, POINT),
    "rosen_residuals": (None, ctypes.c_int, POINT, POINT, ctypes.c_void_p),
    "disk": (ctypes.c_double, ctypes.c_int, POINT),
    "meet": (ctypes.c_double, ctypes.c_int, POINT, ctypes.c_void_p),
    "slow": (ctypes.c_double, ctypes.c_int, POINT),
}
for name, (answer, *arguments) in SHAPES.items():
    getattr(C, name).restype, getattr(C, name).argtypes = answer, arguments


def python_of(name):
    """The same function, called by the interpreter."""

    def body(x):
        point, out = np.array(x), np.empty(SIZES.get(name, 1))
        rest = [out.ctypes.data_as(POINT)] if name in SIZES else []
        value = getattr(C, name)(x.size, point.ctypes.data_as(POINT), *rest)
        return value if value is not None else out.reshape(2, 2) if out.size == 4 else out

    return body


SIZES = {"rosen_gradient": 2, "rosen_hessian": 4}
WHOLE = {"fun": "rosen", "jac": "rosen_gradient"}
CASES = [
    {"fun": "rosen"},
    WHOLE,
    {**WHOLE, "hess": "rosen_hessian"},
    {**WHOLE, "constraints": "disk"},
]


@pytest.mark.parametrize("case", CASES)
def test_answers_are_those_of_the_same_functions_in_python(case):
    def solve(made):
        said = {key: made(name) for key, name in case.items()}
        if "constraints" in said:
            said["constraints"] = {"type": "ineq", "fun": said["constraints"]}
        return tqnlp.minimize(x0=[-1.2, 1.0], **said)

    peer = solve(python_of)
    for wrap in (scipy.LowLevelCallable, lambda body: body):
        ours = solve(lambda name: wrap(getattr(C, name)))
        assert ours.success and (ours.x == peer.x).all() and ours.nfev == peer.nfev


def test_residuals_with_user_data():
    scale = ctypes.c_double(3.0)
    data = ctypes.cast(ctypes.pointer(scale), ctypes.c_void_p)
    fun = scipy.LowLevelCallable(C.rosen_residuals, data)
    found = tqnlp.least_squares(fun, [-1.2, 1.0], m=2)
    assert found.success and found.x == pytest.approx([1, 1], abs=1e-5)
    assert found.jac == pytest.approx(3 * np.array([[-20, 10], [-1, 0]]), abs=1e-3)
    with pytest.raises(ValueError, match="number of residuals"):
        tqnlp.least_squares(fun, [-1.2, 1.0])


@pytest.mark.parametrize(
    "text, case",
    [
        (r"fun must .*'double \(int, double \*\)'.*not 'void", {"fun": C.rosen_gradient}),
        (r"jac must .*'void \(int, double \*, double \*\)'.*not 'double", {"jac": C.rosen}),
        ("user data", {"args": (1,)}),
    ],
)
def test_other_signatures_are_refused(text, case):
    with pytest.raises(ValueError, match=text):
        tqnlp.minimize(**{"fun": C.rosen, "x0": [1.0, 2.0], **case})


def test_two_runs_are_in_a_function_at_the_same_time():
    callers = ctypes.c_int(0)
    data = ctypes.cast(ctypes.pointer(callers), ctypes.c_void_p)
    fun = scipy.LowLevelCallable(C.meet, data)
    threads = ThreadPoolExecutor(2) if os.cpu_count() == 1 else None
    found = tqnlp.multistart(tqnlp.Problem(fun), [[1.0], [2.0]], threads)
    assert [one.starts for one in found.solutions] == [[0, 1]] and found.best.success


def test_interrupts_end_a_run_of_compiled_functions():
    program = f"""
import ctypes, numpy as np, tqnlp
C = ctypes.CDLL({str(LIBRARY)!r})
C.slow.restype, C.slow.argtypes = ctypes.c_double, (ctypes.c_int, ctypes.POINTER(ctypes.c_double))
print("ready", flush=True)
try:
    tqnlp.minimize(C.slow, np.ones(1000))  # would take minutes
except KeyboardInterrupt as stop:
    print(stop.partial.x.size, stop.partial.objective <= 1000 * 1001 / 2)
"""
    child = subprocess.Popen([sys.executable, "-c", program], stdout=subprocess.PIPE, text=True)
    assert child.stdout.readline() == "ready\n"
    time.sleep(0.3)
    child.send_signal(signal.SIGINT)
    assert child.communicate(timeout=20)[0].strip() == "1000 True"
