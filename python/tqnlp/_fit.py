"""Least squares and curve fitting."""

from __future__ import annotations

import inspect
from collections.abc import Callable
from typing import Any

import numpy as np

from ._compiled import VALUES
from ._core import Compiled
from ._minimize import solve, tell
from ._options import options_of
from ._problem import (
    bounds_of,
    constrained,
    differences_or_function,
    function,
    further_arguments,
    read_only,
    start_point,
    vector,
)
from ._result import Result


def _two_sides(bounds: Any) -> tuple[Any, Any]:
    try:
        lower, upper = bounds
    except (TypeError, ValueError):
        raise ValueError(
            f"bounds must be (lower, upper), each a number or of shape (n,), not {bounds!r}"
        ) from None
    return lower, upper


def _pair_of_bounds(bounds: Any, n: int) -> Any:
    """SciPy's pair of sides for least squares, each a number or a vector, as pairs."""
    if bounds is None or hasattr(bounds, "lb"):
        return bounds
    lower, upper = _two_sides(bounds)
    if isinstance(lower, float) and isinstance(upper, float) and lower == -upper == -np.inf:
        return None
    sides = []
    for side, name in ((lower, "lower"), (upper, "upper")):
        array = vector(side, f"{name} bounds")
        if array.size not in (1, n):
            raise ValueError(f"{name} bounds must have the shape ({n},), not {array.shape}")
        sides.append(np.broadcast_to(array, n))
    if np.isinf(sides[0]).all() and np.isinf(sides[1]).all():
        return None
    if (sides[0] == sides[1]).all():
        raise ValueError(
            f"bounds leave no parameter free: they must be (lower, upper), "
            f"not a (min, max) pair a parameter: {bounds!r}"
        )
    return list(zip(*sides))


_DEFAULTS = {"iterations": 1000, "calls": 10000}
_FOR_SQUARES = ("levenberg_marquardt", "hybrid_quasi_newton", "gauss_newton")


def _options(options: Any, method: Any, tol: float | None, problem: dict[str, Any]) -> dict:
    """Options for the core; techniques of least squares have a better test than a gradient's."""
    made = options_of(options, method, tol, bool(problem["linear"] or problem["nonlinear"]))
    automatic = made["technique"] == "automatic" and not problem["nonlinear"]
    if automatic or made["technique"] in _FOR_SQUARES:
        made.setdefault("gradient_tolerance", 0.0)
    return {**_DEFAULTS, **made}


_REFUSED: dict[str, tuple[tuple, str]] = {  # of SciPy's arguments all but these values
    "loss": (("linear",), "there are no robust losses"),
    "f_scale": ((1.0, None), "there are no robust losses"),
    "diff_step": ((None,), "steps are chosen; the option objective_digits says how noisy fun is"),
    "tr_solver": ((None,), "techniques have one solver"),
    "tr_options": ((None, {}), "techniques have one solver"),
    "jac_sparsity": ((None,), "Jacobians are dense"),
}


def _refuse_all_but_defaults(**said: Any) -> None:
    for name, value in said.items():
        taken, why = _REFUSED[name]
        plain = isinstance(value, (str, int, float, dict))
        if not any(value is one or (plain and value == one) for one in taken):
            raise ValueError(f"{name} must be {taken[0]!r}, not {value!r}: {why}")


def _scale(x_scale: Any, x0: Any) -> list[float] | None:
    """Sizes of the parameters for the option scale; None where they are found in the run."""
    if x_scale is None or isinstance(x_scale, str) and x_scale == "jac":
        return None
    n, sizes = start_point(x0).size, vector(x_scale, "x_scale")
    if sizes.size not in (1, n):
        raise ValueError(f"x_scale must have the shape ({n},), not {sizes.shape}")
    if not (np.isfinite(sizes) & (sizes > 0)).all():
        raise ValueError(f"x_scale must hold numbers above 0, not {x_scale!r}")
    return None if np.ndim(x_scale) == 0 else np.broadcast_to(sizes, n).tolist()


def squares_problem(
    fun: Any, x0: Any, jac: Any, bounds: Any, method: str, tol: float | None, constraints: Any,
    args: Any, kwargs: dict[str, Any] | None, m: int | None, options: dict[str, Any] | None,
) -> tuple[dict[str, Any], np.ndarray, dict[str, Any]]:  # fmt: skip
    """Problem, start and options of `least_squares` for the core."""
    x = start_point(x0)
    further = further_arguments(args)
    residuals = function(fun, "fun", VALUES, further)
    if further or kwargs:
        residuals = _with_arguments(residuals, further, kwargs or {})
        if callable(jac):
            jac = _with_arguments(jac, further, kwargs or {})
    problem: dict[str, Any] = {"kind": "least_squares", "fun": residuals}
    inside = constrained(problem, x, _pair_of_bounds(bounds, x.size), constraints)
    problem["m"] = _number_of_residuals(residuals, inside, m, problem)
    made = _options(options, method, tol, problem)
    problem["jac"] = differences_or_function(jac, made)
    return problem, x, made


def least_squares(
    fun: Callable[..., Any],
    x0: Any,
    jac: Any = None,
    bounds: Any = (-np.inf, np.inf),
    method: str = "auto",
    tol: float | None = None,
    *,
    constraints: Any = (),
    args: Any = (),
    kwargs: dict[str, Any] | None = None,
    m: int | None = None,
    ftol: float | None = None,
    xtol: float | None = None,
    gtol: float | None = None,
    max_nfev: int | None = None,
    x_scale: Any = None,
    loss: str = "linear",
    f_scale: float = 1.0,
    diff_step: Any = None,
    tr_solver: Any = None,
    tr_options: Any = None,
    jac_sparsity: Any = None,
    verbose: int = 0,
    options: dict[str, Any] | None = None,
    callback: Callable[..., Any] | None = None,
) -> Result:
    """Minimizes half the sum of squares of residuals.

    Parameters
    ----------
    fun : callable
        ``fun(x, *args, **kwargs) -> (m,)``, the residuals at x of shape (n,).
    x0 : array_like, shape (n,)
    jac : callable, "2-point", "3-point", "cs" or None
        ``jac(x, *args, **kwargs) -> (m, n)``.
    bounds : (lower, upper), each a number or of shape (n,); or an object with lb and ub
    m : int
        The number of residuals, where `fun` is compiled; the others tell it themselves.
    ftol, xtol, gtol, max_nfev
        SciPy's names for the options relative_objective_tolerance, relative_step_tolerance,
        gradient_tolerance and calls.
    x_scale : array_like, shape (n,), or "jac"
        Typical sizes of the parameters, the option scale; a number and "jac" leave it to the run.
    verbose : int
        The option report, printed as the run goes.
    loss, f_scale, diff_step, tr_solver, tr_options, jac_sparsity
        SciPy's; all but their defaults are refused.
    constraints, options, callback, tol
        As of `minimize`; but a run goes on until the decrease that is still predicted is a share
        of 1e-8 of the sum of squares, as the size of a gradient says nothing about a fit.

    Returns
    -------
    Result
        With `cost`, `fun` (the residuals), `grad`, `active_mask`, and evaluated when they are
        asked for `jac` (m, n), `covariance` (residual variance times the inverse of J'J) and
        `stderr`.

    Raises
    ------
    TypeError, ValueError, Exception
        As `minimize` does.
    """
    _refuse_all_but_defaults(loss=loss, f_scale=f_scale, diff_step=diff_step, tr_solver=tr_solver,
                             tr_options=tr_options, jac_sparsity=jac_sparsity)  # fmt: skip
    if isinstance(options, dict) or options is None:
        scipys: dict[str, Any] = {"ftol": ftol, "xtol": xtol, "gtol": gtol, "max_nfev": max_nfev}
        scipys.update(scale=_scale(x_scale, x0), verbose=verbose)
        options = {**scipys, **(options or {})}
    said = squares_problem(fun, x0, jac, bounds, method, tol, constraints, args, kwargs, m, options)
    return solve(*said, callback)


def _number_of_residuals(
    fun: Any, x: np.ndarray, stated: int | None, problem: dict[str, Any]
) -> int:
    if isinstance(fun, Compiled):
        if stated is None or stated < 1:
            raise ValueError("m must be the number of residuals, as fun is compiled")
        return stated
    first = np.array(fun(read_only(x)))
    if first.dtype.kind not in "biufO":
        raise TypeError(f"fun must return numbers, not an array of type {first.dtype}")
    if first.squeeze().ndim > 1 or first.size == 0:
        raise ValueError(f"fun must return residuals of shape (m,), not {first.shape}")
    problem["known"] = {"fun": (x, first)}
    return first.size


def _with_arguments(fun: Callable, args: tuple, kwargs: dict[str, Any]) -> Callable:
    return lambda x: fun(x, *args, **kwargs)


# ---- curve_fit ------------------------------------------------------------------------------


def _names_of_parameters(f: Callable) -> list[str]:
    """The parameters of a model behind xdata; none where they cannot be told.

    Those that go by keywords alone, also as `functools.partial` has set them, are none of the fit.
    """
    try:
        parameters = list(inspect.signature(f).parameters.values())
    except (TypeError, ValueError):
        return []
    named = (inspect.Parameter.POSITIONAL_ONLY, inspect.Parameter.POSITIONAL_OR_KEYWORD)
    if any(p.kind is inspect.Parameter.VAR_POSITIONAL for p in parameters):
        return []
    return [p.name for p in parameters if p.kind in named][1:]


def _number_of_parameters(names: list[str]) -> int:
    if not names:
        raise ValueError("p0 must be given: the parameters of f cannot be counted")
    return len(names)


def _default_start(bounds: Any, n: int) -> np.ndarray:
    """Ones; within bounds the middle, or one beside the side that there is."""
    pairs = bounds_of(_pair_of_bounds(bounds, n), n)
    start = np.ones(n)
    if pairs is None:
        return start
    low, high = pairs
    for j in range(n):
        if np.isfinite(low[j]) and np.isfinite(high[j]):
            start[j] = 0.5 * (low[j] + high[j])
        elif np.isfinite(low[j]):
            start[j] = low[j] + 1
        elif np.isfinite(high[j]):
            start[j] = high[j] - 1
    return start


def _weighting(sigma: Any, m: int) -> Callable[[np.ndarray], np.ndarray]:
    """Divides residuals, or the rows of a Jacobian, by their standard deviations."""
    if sigma is None:
        return lambda rows: rows
    try:
        array = np.asarray(sigma, dtype=float)
    except (TypeError, ValueError):
        raise TypeError(f"sigma must hold numbers, not {sigma!r}") from None
    if array.shape == (m,) or array.size == 1:
        weights = 1.0 / np.broadcast_to(array.ravel(), m)
        return lambda rows: rows * (weights if rows.ndim == 1 else weights[:, None])
    if array.shape == (m, m):
        try:
            whitening = np.linalg.inv(np.linalg.cholesky(array))  # once, not in every evaluation
        except np.linalg.LinAlgError:
            raise ValueError("sigma must be positive definite where it is a matrix") from None

        def whitened(rows: np.ndarray) -> np.ndarray:
            with np.errstate(invalid="ignore"):  # infinities: there is no value
                return whitening @ rows

        return whitened
    raise ValueError(f"sigma must have the shape ({m},) or ({m}, {m}), not {array.shape}")


def curve_fit(
    f: Callable[..., Any],
    xdata: Any,
    ydata: Any,
    p0: Any = None,
    sigma: Any = None,
    absolute_sigma: bool = False,
    check_finite: bool = True,
    bounds: Any = (-np.inf, np.inf),
    method: str | None = None,
    jac: Any = None,
    *,
    full_output: bool = False,
    **kwargs: Any,
) -> Any:
    """Fits ``f(xdata, *parameters)`` to ydata by least squares.

    Parameters
    ----------
    f : callable
        ``f(xdata, p1, p2, ...) -> (m,)``.
    xdata : any; ydata : array_like, shape (m,)
    p0 : array_like, shape (n,)
        The start; ones, or the middle of the bounds, without one.
    sigma : array_like, shape (m,) or (m, m)
        Standard deviations of ydata, or its covariance matrix.
    absolute_sigma : bool
        Is sigma, or 1 without it, in the units of ydata? Otherwise only the ratios count.
    jac : callable
        ``jac(xdata, p1, p2, ...) -> (m, n)``.
    full_output : bool
        Answer the result too.
    **kwargs
        Arguments of `least_squares`.

    Returns
    -------
    popt : ndarray, shape (n,)
    pcov : ndarray, shape (n, n)
        Infinite where the data do not determine the parameters.
    result : Result
        With `full_output`.

    Raises
    ------
    RuntimeError
        Where the fit fails; with the result as ``partial``.
    """
    y = vector(ydata, "ydata")
    if y.size == 0:
        raise ValueError("ydata must not be empty")
    if isinstance(xdata, (list, tuple, np.ndarray)):
        xdata = np.asarray(xdata)
    if check_finite:
        for name, data in (("xdata", xdata), ("ydata", y)):
            is_float = isinstance(data, np.ndarray) and data.dtype.kind == "f"
            if is_float and not np.isfinite(data).all():
                raise ValueError(f"{name} must be finite")
    names = _names_of_parameters(f)
    start = _default_start(bounds, _number_of_parameters(names)) if p0 is None else start_point(p0)
    weighted = _weighting(sigma, y.size)

    def residuals(p: np.ndarray) -> np.ndarray:
        values = np.asarray(f(xdata, *p))
        if values.shape not in (y.shape, ()):
            raise ValueError(f"f must return the shape {y.shape} of ydata, not {values.shape}")
        return weighted(values - y)

    def derivatives(p: np.ndarray) -> np.ndarray:
        return weighted(np.asarray(jac(xdata, *p), dtype=float))

    if len(names) == start.size:
        kwargs["options"] = {"names": names, **(kwargs.get("options") or {})}
    chosen = derivatives if callable(jac) else jac
    if "maxfev" in kwargs:
        kwargs["max_nfev"] = kwargs.pop("maxfev")
    if unknown := kwargs.keys() - inspect.signature(least_squares).parameters.keys():
        raise TypeError(f"curve_fit() got an unexpected keyword argument {min(unknown)!r}")
    result = least_squares(residuals, start, chosen, bounds, method or "auto", **kwargs)
    if not result.success:
        failed = RuntimeError(f"curve_fit: {result.message}")
        tell(failed, "partial", result)
        raise failed
    result.update(xdata=xdata, ydata=y, sigma=sigma, fitted=np.array(f(xdata, *result.x)) + 0 * y)
    found = result.covariances(residual_variance=1.0 if absolute_sigma else None)
    pcov = found.matrix if found.known else np.full_like(found.matrix, np.inf)
    return (result.x, pcov, result) if full_output else (result.x, pcov)
