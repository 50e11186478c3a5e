"""Many starts on every executor. This file is what the workers import."""

import concurrent.futures as futures
import os
import pickle
import shutil
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import tqnlp

HERE = os.path.dirname(__file__)
STARTS = np.linspace(-3, 3, 7).reshape(-1, 1)  # the last ones lead to the minimum on the right


def hills(x, shift=0.0):
    return np.cos(3 * x[0]) + 0.1 * (x[0] - shift) ** 2


def deadly(x):
    if x[0] == STARTS[4]:
        os.kill(os.getpid(), signal.SIGKILL)
    return hills(x)


def broken(x):
    for start, seconds in ((STARTS[2], 0.2), (STARTS[5], 0.0)):
        if x[0] == start:
            time.sleep(seconds)
            raise KeyError(float(x[0]))
    return hills(x)


PROBLEM = tqnlp.Problem(hills, args=(0.1,), bounds=[(-4, 4)])


def check(found, lost=()):
    wanted = tqnlp.multistart(PROBLEM, STARTS)
    assert [one.starts for one in wanted.solutions] != [list(range(7))]
    assert wanted.best.optimality.verdict == "optimal"
    assert sorted(found.lost) == list(lost)
    for i, result in enumerate(found.results):
        assert (result is None) if i in lost else (result.x == wanted.results[i].x).all()
    if not lost:
        assert [one.starts for one in found.solutions] == [one.starts for one in wanted.solutions]
        assert repr(found) == repr(pickle.loads(pickle.dumps(found))) == repr(wanted)


def test_threads_processes_and_no_executor_agree():
    seen = []
    check(tqnlp.multistart(PROBLEM, STARTS, on_result=lambda i, end: seen.append((i, end.nit))))
    assert [i for i, _ in seen] == list(range(7))
    with futures.ThreadPoolExecutor(3) as threads, futures.ProcessPoolExecutor(2) as processes:
        check(tqnlp.multistart(PROBLEM, STARTS, threads))
        check(tqnlp.multistart(PROBLEM, iter(STARTS), processes))


def test_dask():
    distributed = pytest.importorskip("distributed")
    import dask

    settings = {
        "distributed.scheduler.allowed-failures": 0,  # deaths that a start outlives
        "distributed.comm.timeouts.connect": "5s",
    }
    workers = {"n_workers": 2, "threads_per_worker": 1, "dashboard_address": None}
    with dask.config.set(settings), distributed.LocalCluster(
        **workers, silence_logs=50
    ) as cluster, distributed.Client(cluster) as client:
        check(tqnlp.multistart(PROBLEM, STARTS, client.get_executor()))
        with pytest.raises(KeyError) as raised:
            tqnlp.multistart(tqnlp.Problem(broken), np.repeat(STARTS, 3), client.get_executor())
        assert raised.value.start == 6
        deaths = tqnlp.multistart(tqnlp.Problem(deadly), STARTS, client.get_executor())
    assert "KilledWorker" in repr(deaths.lost[4])
    assert all((result is None) == (i in deaths.lost) for i, result in enumerate(deaths.results))


def test_mpi(tmp_path):
    pytest.importorskip("mpi4py.futures")
    if shutil.which("mpiexec") is None:
        pytest.skip("no mpiexec")
    script = tmp_path / "run.py"
    script.write_text("""
import test_multistart as t
from mpi4py.futures import MPIPoolExecutor
if __name__ == "__main__":
    with MPIPoolExecutor() as executor:
        t.check(t.tqnlp.multistart(t.PROBLEM, t.STARTS, executor))
    print("done")
""")
    root = ["--allow-run-as-root"] if os.getuid() == 0 else []
    run = ["mpiexec", *root, "--oversubscribe", "-n", "2", sys.executable]
    paths = os.pathsep.join([HERE, os.environ.get("PYTHONPATH", "")])
    env = {**os.environ, "PYTHONPATH": paths}
    run = [*run, "-m", "mpi4py.futures", str(script)]
    out = subprocess.run(run, env=env, capture_output=True, text=True, timeout=60)
    assert out.stdout.strip() == "done", out.stderr


def test_a_worker_that_dies_costs_its_start():
    problem = tqnlp.Problem(deadly)
    with futures.ProcessPoolExecutor(2) as processes:
        found = tqnlp.multistart(problem, STARTS, processes)
    assert list(found.lost) == [4] and found.results[4] is None
    assert sum(len(one.starts) for one in found.solutions) == 6
    assert "start 4 was lost" in repr(found)


def test_the_first_exception_is_raised_whatever_ends_first():
    with futures.ThreadPoolExecutor(7) as threads:
        for executor in (None, threads):
            with pytest.raises(KeyError) as raised:
                tqnlp.multistart(tqnlp.Problem(broken), STARTS, executor)
            assert raised.value.start == 2 and raised.value.args == (STARTS[2, 0],)


@pytest.mark.parametrize(
    "error, text, starts", [(ValueError, r"starts\[1\] .*\(1,\)", [[1.0], [1.0, 2.0]]),
                            (TypeError, r"starts\[0\]: x0", [["a"]]), (ValueError, "k > 0", [])]
)  # fmt: skip
def test_wrong_starts_are_named(error, text, starts):
    with pytest.raises(error, match=text):
        tqnlp.multistart(PROBLEM, starts)


def test_what_an_interrupted_run_had_found_is_kept():
    calls = []

    def interrupted(x):
        calls.append(hills(x))
        return calls[-1] if len(calls) < 4 else signal.raise_signal(signal.SIGINT)

    with pytest.raises(KeyboardInterrupt) as stopped:
        tqnlp.multistart(tqnlp.Problem(interrupted), STARTS)
    assert stopped.value.partial.best.objective == min(calls[:3])


def test_interrupts_end_all_threads():
    def slow(x):
        time.sleep(0.002)
        return float(x @ x)

    main = threading.get_ident()
    threading.Timer(0.3, signal.pthread_kill, (main, signal.SIGINT)).start()
    with futures.ThreadPoolExecutor(2) as threads:
        with pytest.raises(KeyboardInterrupt) as stopped:
            tqnlp.multistart(tqnlp.Problem(slow), np.ones((9, 500)), threads)
        began = time.monotonic()
    assert time.monotonic() - began < 1.0 and stopped.value.partial.solutions == []
