"""minimize, quadratic, and methods for scipy.optimize.minimize."""

from __future__ import annotations

import inspect
from collections.abc import Callable
from contextlib import suppress
from contextvars import ContextVar
from typing import Any

import numpy as np

from . import _core
from ._compiled import NUMBER
from ._options import options_of, technique
from ._problem import (
    add_hessian,
    constrained,
    differences_or_function,
    function,
    further_arguments,
    hessian_or_none,
    number,
    start_point,
    symmetric,
    vector,
)
from ._progress import Live
from ._result import Part, Result, make_result

# Ends the runs of this context when it is set.
STOP: ContextVar[_core.StopFlag | None] = ContextVar("STOP", default=None)

def _form_of(callback: Callable) -> str:
    """What a callback takes: the point, the intermediate result by its name, or both."""
    try:
        parameters = list(inspect.signature(callback).parameters.values())
    except (TypeError, ValueError):
        return "point"
    if [one.name for one in parameters] == ["intermediate_result"]:
        return "result"
    named = (inspect.Parameter.POSITIONAL_ONLY, inspect.Parameter.POSITIONAL_OR_KEYWORD)
    wanted = [one for one in parameters if one.kind in named and one.default is one.empty]
    return "both" if len(wanted) == 2 else "point"


def _look(callback: Callable | None, live: Live) -> Callable:
    """SciPy's forms of a callback, and the live line, as the core calls them."""
    if callback is None:
        return lambda _, *at: live.show_run(*at)
    told: Callable = function(callback, "callback")
    takes = _form_of(told)

    def look(x: np.ndarray, fun: float, iteration: int, calls: int, gradient: float) -> bool:
        live.show_run(fun, iteration, calls, gradient)
        at = Part(x=x, fun=fun, nit=iteration, nfev=calls)
        try:
            if takes == "result":
                answer = told(intermediate_result=at)
            else:
                answer = told(x, at) if takes == "both" else told(x)
        except StopIteration:
            return True
        return isinstance(answer, (bool, np.bool_)) and bool(answer)

    return look


def tell(error: BaseException, name: str, value: Any) -> None:
    """Sets an attribute of an exception, unless its class has no room for it."""
    with suppress(AttributeError, TypeError):
        setattr(error, name, value)


def solve(problem: dict[str, Any], x: np.ndarray, options: dict[str, Any], callback: Any) -> Result:
    """Runs the core. What a function raises carries the best point so far as `partial`."""
    wanted = options.pop("progress", False)
    if (names := options.pop("names", None)) is not None:
        problem["names"] = names
    stop, squares = STOP.get() or _core.StopFlag(), problem["kind"] == "least_squares"
    try:
        with Live(wanted) as live:
            if wanted or callback is not None:
                options["progress"] = _look(callback, live)
            return make_result(_core.solve(problem, x.tolist(), options, stop), names, squares)
    except BaseException as raised:
        found = getattr(raised, "partial", None)
        if isinstance(found, dict) and not isinstance(found, Result):
            tell(raised, "partial", make_result(found, names, squares))
        raise


def scalar_problem(
    fun: Any, x0: Any, args: Any, method: str | None, jac: Any, hess: Any, bounds: Any,
    constraints: Any, tol: float | None, options: dict[str, Any] | None,
) -> tuple[dict[str, Any], np.ndarray, dict[str, Any]]:  # fmt: skip
    """Problem, start and options of `minimize` for the core."""
    x = start_point(x0)
    further = further_arguments(args)
    takes = () if jac is True else NUMBER
    problem: dict[str, Any] = {"kind": "minimize", "fun": function(fun, "fun", takes, further)}
    problem["args"] = further
    inside = constrained(problem, x, bounds, constraints)
    general = bool(problem["linear"] or problem["nonlinear"])
    made = options_of(options, method, tol, general)
    problem["jac"] = True if jac is True else differences_or_function(jac, made)
    second = hessian_or_none(hess)
    if second is not None:
        if problem["jac"] is None:
            raise ValueError("jac must be a function where hess is one: they are used together")
        add_hessian(problem, second, inside)
    return problem, x, made


def minimize(
    fun: Callable[..., Any],
    x0: Any,
    args: Any = (),
    method: str | None = "auto",
    jac: Any = None,
    hess: Any = None,
    bounds: Any = None,
    constraints: Any = (),
    tol: float | None = None,
    options: dict[str, Any] | None = None,
    callback: Callable[..., Any] | None = None,
    *,
    hessp: None = None,
) -> Result:
    """Minimizes a function of several variables.

    Parameters
    ----------
    fun : callable
        ``fun(x, *args) -> float``, x a read-only array of shape (n,) that is valid in the call;
        ``(float, gradient)`` where `jac` is True.
    x0 : array_like, shape (n,)
        The start, which need not satisfy the constraints.
    args : tuple
        Further arguments of `fun`, `jac` and `hess`.
    method : str
        ``"auto"``, a technique (``"quasi_newton"``), a subroutine (``"NLPQN"``) or a method of
        SciPy that has its like here (``"BFGS"``).
    jac : callable, True, "2-point", "3-point", "cs" or None
        ``jac(x, *args) -> (n,)``; differences without one.
    hess : callable
        ``hess(x, *args) -> (n, n)``, dense or sparse, of which either triangle will do; only
        together with `jac`. SciPy's other forms leave the choice to the technique.
    bounds : sequence of (min, max), or an object with lb and ub
    constraints : one or several of
        dictionaries with type, fun, jac, args; objects with A, lb, ub; with fun, lb, ub, jac.
    tol : float
        The gradient tolerances; of simplex searches those of objective and step.
    options : dict
        By the names of the library (docs/cpp.md), or maxiter, maxfev, gtol, disp; ``"progress":
        True`` shows a live line on standard error.
    callback : callable
        ``callback(x)``, ``callback(x, state)`` or ``callback(intermediate_result)`` after each
        iteration, the latter two with x, fun, nit, nfev; True or StopIteration ends the run.
    hessp
        Refused: the techniques want the Hessian itself, which may be sparse.

    Returns
    -------
    Result

    Raises
    ------
    TypeError, ValueError
        Where an argument, or what a function returns, has another type or shape.
    Exception
        What a function raises, with the best point so far as ``partial``. `EvaluationFailed`
        marks a point that has no value instead.
    KeyboardInterrupt
        Ctrl-C, within an evaluation or an iteration; with ``partial``.

    Notes
    -----
    `fun`, `jac`, `hess` and those of constraints may be compiled: a `scipy.LowLevelCallable`, a
    `numba.cfunc` or a function of ctypes with the signature ``double (int, double *)``, or ``void
    (int, double *, double *)`` for what fills an array by rows. They run without the interpreter.

    The techniques, and the publications that they follow, stand in docs/algorithms.md.
    """
    if hessp is not None:
        raise ValueError("hessp is not taken; give the Hessian itself as hess")
    said = scalar_problem(fun, x0, args, method, jac, hess, bounds, constraints, tol, options)
    return solve(*said, callback)


def quadratic(
    h: Any,
    g: Any = None,
    c: float = 0.0,
    x0: Any = None,
    bounds: Any = None,
    constraints: Any = (),
    method: str = "auto",
    tol: float | None = None,
    options: dict[str, Any] | None = None,
) -> Result:
    """Minimizes ``c + g @ x + x @ h @ x / 2``, which need not be convex.

    Parameters
    ----------
    h : array_like or sparse matrix, shape (n, n), or (n,) for a diagonal
        Of a sparse matrix either triangle will do.
    g : array_like, shape (n,)
    c : float
    x0 : array_like, shape (n,)
        The start; zeros without one.
    bounds, constraints, method, tol, options
        As of `minimize`; with nonlinear constraints it is solved like any other objective.

    Returns
    -------
    Result

    Raises
    ------
    TypeError, ValueError
        Where an argument has another type or shape, or h is not symmetric.
    """
    problem: dict[str, Any] = {"kind": "quadratic", "c": number(c, "c"), **symmetric(h)}
    n = problem["n"]
    problem["g"] = None if g is None else vector(g, "g", n)
    x = np.zeros(n) if x0 is None else vector(x0, "x0", n)
    constrained(problem, x, bounds, constraints)
    made = options_of(options, method, tol, True)
    return solve(problem, x, made, None)


def method(name: str | None) -> Callable[..., Result]:
    """A method for ``scipy.optimize.minimize(..., method=tqnlp.method("NLPQN"))``.

    Parameters
    ----------
    name : str
        As the `method` of `minimize`.

    Returns
    -------
    callable
        With the arguments that SciPy gives to a method of the user's own; it answers a `Result`.

    Raises
    ------
    TypeError, ValueError
        Where there is no such method.
    """
    technique(name)  # refused here rather than in the run

    def run(
        fun: Callable[..., Any],
        x0: Any,
        args: Any = (),
        jac: Any = None,
        hess: Any = None,
        hessp: Any = None,
        bounds: Any = None,
        constraints: Any = (),
        callback: Callable[..., Any] | None = None,
        tol: float | None = None,
        **options: Any,
    ) -> Result:
        said = (bounds, constraints, tol, options, callback)
        return minimize(fun, x0, args, name, jac, hess, *said, hessp=hessp)

    run.__name__ = name or "auto"
    return run
