"""Problems as values, and runs of them from many starts on any executor."""

from __future__ import annotations

import os
from collections.abc import Callable, Generator, Iterable
from concurrent.futures import BrokenExecutor, Executor, ProcessPoolExecutor, ThreadPoolExecutor
from dataclasses import dataclass, field, replace
from html import escape
from queue import SimpleQueue
from typing import Any, NamedTuple, Union

import numpy as np

from . import _core
from ._compiled import is_compiled
from ._fit import least_squares, squares_problem
from ._minimize import STOP, minimize, scalar_problem, tell
from ._problem import function, one_or_several, start_point
from ._progress import Live
from ._result import Result, table_of


@dataclass(frozen=True)
class Problem:
    """What `minimize` or `least_squares` is called with, but for the start.

    A value that pickles when its functions do: those of modules go by their names, so that other
    processes must be able to import them.

    Parameters
    ----------
    fun : callable
        The objective; the residuals where `residuals` is true.
    args, method, jac, hess, bounds, constraints, tol, options
        As of `minimize`.
    residuals : bool
        Is half the sum of squares of what `fun` returns to be minimized?
    m : int
        The number of residuals, where `fun` is compiled.

    Examples
    --------
    >>> problem = Problem(lambda x: (x[0] - 2) ** 2, bounds=[(0, 1)])
    >>> print(problem.solve([0.5]).x)
    [1.]
    """

    fun: Any
    args: tuple = ()
    method: str = "auto"
    jac: Any = None
    hess: Any = None
    bounds: Any = None
    constraints: Any = ()
    tol: float | None = None
    options: dict[str, Any] | None = None
    residuals: bool = False
    m: int | None = None

    def solve(self, x0: Any, callback: Callable[..., Any] | None = None) -> Result:
        """Runs from a start, an array of shape (n,); answers and raises as `minimize` does."""
        if self.residuals:
            return least_squares(x0=x0, callback=callback, **self._arguments())
        return minimize(x0=x0, callback=callback, **self._arguments())

    def _arguments(self) -> dict[str, Any]:
        names = ["fun", "args", "method", "jac", "bounds", "constraints", "tol", "options"]
        said = {name: getattr(self, name) for name in [*names, "m" if self.residuals else "hess"]}
        if self.residuals and self.bounds is None:
            said["bounds"] = (-np.inf, np.inf)
        return said

    def for_core(self, x0: Any) -> tuple[dict[str, Any], np.ndarray, dict[str, Any]]:
        """What the core takes of it, and of a start."""
        if self.residuals:
            return squares_problem(x0=x0, kwargs=None, **self._arguments())
        return scalar_problem(x0=x0, **self._arguments())

    def _runs_without_the_interpreter(self) -> bool:
        used = [self.fun, self.jac, self.hess]
        for block in one_or_several(self.constraints):
            used += [_part(block, "fun"), _part(block, "jac")]
        return all(is_compiled(one) or not callable(one) for one in used)


def _part(block: Any, key: str) -> Any:
    return block.get(key) if isinstance(block, dict) else getattr(block, key, None)


class Solution(NamedTuple):
    """A point that runs led to.

    Attributes
    ----------
    result : Result
        Of the first of its starts.
    starts : list of int
        Their numbers, ascending.
    """

    result: Result
    starts: list[int]


End = Union[Result, BaseException]
Ends = Generator[tuple[int, End], None, None]


@dataclass
class ManyResults:
    """What runs from many starts led to; the same whatever ended first.

    Attributes
    ----------
    solutions : list of Solution
        The best first: those that pass the check of optimality, then other converged runs, then
        feasible points, each by objective, then by the first start. Runs that converged to the
        same point, within 1e-4 of 1 + the size of each parameter and 1e-6 of 1 + that of the
        objective, are one solution.
    results : list of Result or None
        One a start; None where it was lost.
    lost : dict of int to Exception
        Starts whose worker died.
    """

    solutions: list[Solution]
    results: list[Result | None] = field(repr=False)
    lost: dict[int, BaseException]

    @property
    def best(self) -> Result:
        """The result of the first solution; IndexError where there is none."""
        return self.solutions[0].result

    _HEADS = ("objective", "starts", "first", "ending", "check", "x")

    def _rows(self) -> list[tuple[str, ...]]:
        return [
            (f"{one.result.objective:.10g}", str(len(one.starts)), str(one.starts[0]),
             one.result.ending, one.result.optimality.verdict, one.result.shown_x(4))
            for one in self.solutions
        ]  # fmt: skip

    def _lost_line(self) -> str:
        return "".join(f"\nstart {i} was lost: {why!r}" for i, why in sorted(self.lost.items()))

    def __repr__(self) -> str:
        return table_of([self._HEADS, *self._rows()]) + self._lost_line()

    def _repr_html_(self) -> str:
        return table_of([self._HEADS, *self._rows()], html=True) + escape(self._lost_line())


# ---- Ends of runs, as they come -------------------------------------------------------------


def _run(problem: Problem, x: np.ndarray, stop: _core.StopFlag) -> Result:
    """A run on a worker. In this process the flag ends it; a copy in another one is never set."""
    token = STOP.set(stop)
    try:
        return problem.solve(x)
    finally:
        STOP.reset(token)


def _died(error: BaseException) -> bool:
    """Did the worker end, rather than the run? Dask's error is known by its name."""
    return isinstance(error, BrokenExecutor) or type(error).__name__ == "KilledWorker"


class _Runs:
    """Runs of a problem from points; `ends` answers how each ended, in any order.

    Starts behind one that raised are not begun. Those before it come to their ends, so that the
    first exception in the order of the starts is always the same.
    """

    def __init__(self, problem: Problem, points: list[np.ndarray]) -> None:
        self.problem, self.points = problem, points
        self.stop = _core.StopFlag()
        self.first_raised = len(points)
        self.interrupted: tuple[int, Any] = (0, None)  # a start run here, and what it had found

    def ends(self, executor: Executor | None) -> Ends:
        if executor is not None:
            yield from self._on(executor)
        elif self.problem._runs_without_the_interpreter():
            with ThreadPoolExecutor(min(len(self.points), os.cpu_count() or 1)) as threads:
                yield from self._on(threads)
        else:
            yield from self._in_order()

    def _in_order(self) -> Ends:
        for i, x in enumerate(self.points):
            try:
                end: End = _run(self.problem, x, self.stop)
            except Exception as raised:
                end = raised
            except BaseException as raised:  # Ctrl-C
                self.interrupted = (i, getattr(raised, "partial", None))
                raise
            yield i, end
            if isinstance(end, Exception):
                return

    def _on(self, executor: Executor) -> Ends:
        broken = []
        for i, end in self._submitted(lambda _: executor, range(len(self.points))):
            if isinstance(end, BrokenExecutor) and isinstance(executor, ProcessPoolExecutor):
                broken.append(i)  # one worker has died, and all starts that had not ended failed
            else:
                yield i, end
        at_once = getattr(executor, "_max_workers", 1)
        for first in range(0, len(broken), at_once):
            yield from self._alone(executor, sorted(broken)[first : first + at_once])

    def _submitted(self, executor_of: Callable[[int], Executor], starts: Iterable[int]) -> Ends:
        futures: dict[Any, int] = {}
        ended: SimpleQueue = SimpleQueue()  # also gets what was cancelled, on every executor
        try:
            for i in starts:
                try:
                    future = executor_of(i).submit(_run, self.problem, self.points[i], self.stop)
                except BrokenExecutor as broken:
                    yield i, broken
                else:
                    futures[future] = i
                    future.add_done_callback(ended.put)
            for _ in range(len(futures)):
                future = ended.get()
                if future.cancelled():
                    continue
                error = future.exception()
                if error is not None and not _died(error):
                    self._raised(futures[future], futures)
                yield futures[future], future.result() if error is None else error
        finally:
            for future in futures:
                future.cancel()

    def _raised(self, i: int, futures: dict[Any, int]) -> None:
        self.first_raised = min(self.first_raised, i)
        for future, other in futures.items():
            if other > self.first_raised:
                future.cancel()

    def _alone(self, like: Executor, starts: list[int]) -> Ends:
        """Each start in a process of its own: if one dies, it is that start's."""
        inherited = {
            name: getattr(like, f"_{name}")
            for name in ("mp_context", "initializer", "initargs")
            if hasattr(like, f"_{name}")
        }
        pools = {i: ProcessPoolExecutor(1, **inherited) for i in starts if i < self.first_raised}
        try:
            yield from self._submitted(pools.__getitem__, pools)
        finally:
            for pool in pools.values():
                pool.shutdown()


# ---- Many starts ----------------------------------------------------------------------------


def _points(starts: Any) -> list[np.ndarray]:
    if not isinstance(starts, Iterable):
        raise TypeError(f"starts must be of shape (k, n), not {starts!r}")
    points = []
    for i, start in enumerate(starts):
        try:
            points.append(start_point(start))
        except (TypeError, ValueError) as wrong:
            raise type(wrong)(f"starts[{i}]: {wrong}") from None
        if points[i].size != points[0].size:
            raise ValueError(
                f"starts[{i}] must have the shape ({points[0].size},), not ({points[i].size},)"
            )
    if not points:
        raise ValueError("starts must have the shape (k, n) with k > 0")
    return points


def _together(results: list[Result | None], lost: dict[int, BaseException]) -> ManyResults:
    ended = [i for i, result in enumerate(results) if result is not None]
    groups = _core.merged_starts([results[i] for i in ended])
    solutions = []
    for group in groups:
        starts = [ended[place] for place in group]
        solutions.append(Solution(results[starts[0]], starts))  # type: ignore[arg-type]
    return ManyResults(solutions, results, lost)


def _without_progress(problem: Problem) -> tuple[bool, Problem]:
    """Is a live line wanted? One for all starts, not one a run."""
    options = dict(problem.options or {})
    wanted = options.pop("progress", False)
    return bool(wanted), replace(problem, options=options)


def _watched(ends: Ends, count: int, wanted: bool) -> Ends:
    least = np.inf
    with Live(wanted) as live:
        for done, (i, end) in enumerate(ends, 1):
            if isinstance(end, Result):
                least = min(least, end.objective)
            live.show(f"{done} of {count} starts, least objective {least:.8g}")
            yield i, end


def multistart(
    problem: Problem,
    starts: Any,
    executor: Executor | None = None,
    on_result: Callable[[int, End], Any] | None = None,
) -> ManyResults:
    """Solves a problem from each of many starts.

    Parameters
    ----------
    problem : Problem
    starts : array_like, shape (k, n)
        One start a row; or any iterable of points of shape (n,).
    executor : concurrent.futures.Executor
        Runs the starts: threads, processes, ``dask_client.get_executor()``,
        ``mpi4py.futures.MPIPoolExecutor``. Without one, threads run them where all functions are
        compiled, and otherwise they run one after the other here.
    on_result : callable
        ``on_result(start, end)``, called here as each run ends, in any order. `end` is a Result,
        or the exception of a run that was lost.

    Returns
    -------
    ManyResults
        Independent of the executor and of what ends first.

    Raises
    ------
    Exception
        What a function raised, of the first start that did; its number as ``start``. Starts behind
        it are given up. Ctrl-C ends all runs in this process, with what has ended as ``partial``.
    RuntimeError
        Where every start was lost.

    Notes
    -----
    A worker that dies costs its start, which is reported in ``lost``. A pool of processes does not
    tell whose worker died: what had not ended by then runs again, each start in a process of its
    own.
    """
    if not isinstance(problem, Problem):
        raise TypeError(f"problem must be a tqnlp.Problem, not {problem!r}")
    if executor is not None and not hasattr(executor, "submit"):
        raise TypeError(f"executor must be one of concurrent.futures or like it, not {executor!r}")
    if on_result is not None:
        function(on_result, "on_result")
    points = _points(starts)
    results: list[Result | None] = [None] * len(points)
    lost: dict[int, BaseException] = {}
    raised: dict[int, BaseException] = {}
    wanted, problem = _without_progress(problem)
    runs = _Runs(problem, points)
    ends = runs.ends(executor)
    try:
        for i, end in _watched(ends, len(points), wanted):
            if isinstance(end, Result):
                results[i] = end
            else:
                (lost if _died(end) else raised)[i] = end
            if on_result is not None and i not in raised:
                on_result(i, end)
    except BaseException as stopped:
        runs.stop.set()
        ends.close()
        start, found = runs.interrupted
        if isinstance(found, Result) and np.isfinite(found.objective):
            results[start] = found
        tell(stopped, "partial", _together(results, lost))
        raise
    if raised:
        first = min(raised)
        tell(raised[first], "start", first)
        raise raised[first]
    if len(lost) == len(points):
        raise RuntimeError(f"every start was lost: {lost[0]!r}") from lost[0]
    return _together(results, lost)
