"""Covariance, confidence limits and profiles of a result."""

from __future__ import annotations

import operator
from collections.abc import Iterable, Sequence
from html import escape
from typing import Any, NamedTuple

import numpy as np

from . import _core
from ._problem import number, vector


class Covariance(NamedTuple):
    """Covariance of the parameters, in the null space of the active constraints.

    Attributes
    ----------
    matrix : ndarray, shape (n, n)
        NaN where a parameter is not determined, 0 where constraints hold it.
    errors : ndarray, shape (n,)
        Standard errors, in the units of the parameters.
    correlation : ndarray, shape (n, n)
        NaN where an error is 0 or NaN.
    states : list of str
        "estimated", "at_bound" (held by its own bound), "held" (by other constraints),
        "undetermined" (can be moved without an effect on the objective), "unknown".
    known : bool
        Are all free parameters determined? `message` tells what is not.
    kind : str
        "crossproduct" (of least squares: inverse of J'J) or "hessian".
    residual_variance, freedom : float
        Of least squares: variance of a residual, and residuals less free parameters.
    """

    matrix: np.ndarray
    errors: np.ndarray
    correlation: np.ndarray
    states: list[str]
    known: bool
    ending: str
    message: str
    kind: str
    residual_variance: float
    freedom: float

    def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
        return np.array(self.matrix, dtype=dtype)


class Limit(NamedTuple):
    """Confidence limits of one parameter; NaN on a side whose `ending` is not "found"."""

    parameter: int
    name: str
    level: float
    estimate: float
    lower: float
    upper: float
    lower_ending: str
    upper_ending: str

    def _side(self, value: float, ending: str) -> str:
        return f"{value:.6g}" if ending == "found" else ending.replace("_", " ")

    def __str__(self) -> str:
        low = self._side(self.lower, self.lower_ending)
        high = self._side(self.upper, self.upper_ending)
        return f"{self.name}  {self.estimate:.6g}  [{low}, {high}]  {100 * self.level:g} %"


class Limits(Sequence):
    """Confidence limits, parameter by parameter and level by level.

    Attributes
    ----------
    better : ndarray, shape (n,) or (0,)
        A point better than the result, when one was met: start again from there.
    better_objective : float
    optimizations : int
    """

    def __init__(self, found: dict[str, Any]) -> None:
        self._rows = [Limit(*row) for row in found["rows"]]
        self.better: np.ndarray = found["better"]
        self.better_objective: float = found["better_objective"]
        self.optimizations: int = found["optimizations"]
        self.log: list[tuple[Any, ...]] = found["log"]

    def __getitem__(self, place: Any) -> Any:
        return self._rows[place]

    def __len__(self) -> int:
        return len(self._rows)

    def __repr__(self) -> str:
        cells = [_cells(row) for row in self._rows]
        widths = [max(map(len, column)) for column in zip(_HEAD, *cells)]
        return "\n".join(
            "  ".join([line[0].ljust(widths[0]), *map(str.rjust, line[1:], widths[1:])])
            for line in [_HEAD, *cells]
        )

    def _repr_html_(self) -> str:
        def row(cells: Iterable[str], tag: str) -> str:
            return "".join(f"<{tag}>{escape(cell)}</{tag}>" for cell in cells)

        body = "".join(f"<tr>{row(_cells(limit), 'td')}</tr>" for limit in self._rows)
        return f"<table><tr>{row(_HEAD, 'th')}</tr>{body}</table>"


_HEAD = ("", "estimate", "lower", "upper", "level")


def _cells(limit: Limit) -> tuple[str, ...]:
    sides = (
        limit._side(limit.lower, limit.lower_ending),
        limit._side(limit.upper, limit.upper_ending),
    )
    return (limit.name, f"{limit.estimate:.6g}", *sides, f"{100 * limit.level:g} %")


class Profile(NamedTuple):
    """The optimum over all other parameters as a function of one, ascending.

    Attributes
    ----------
    values : ndarray, shape (k,)
        Values of the parameter.
    objective : ndarray, shape (k,)
        The optimum there, as the user states it.
    root : ndarray, shape (k,)
        Signed root of the likelihood ratio; a straight line where Wald limits are right.
    level, quantile : float
        The limits of the level stand where the root is -quantile and quantile.
    """

    parameter: int
    name: str
    estimate: float
    values: np.ndarray
    objective: np.ndarray
    root: np.ndarray
    level: float
    quantile: float

    def plot(self, axes: Any = None) -> Any:
        """Draws the root over the parameter; needs Matplotlib. Answers the axes."""
        if axes is None:
            import matplotlib.pyplot as plt

            _, axes = plt.subplots()
        axes.plot(self.values, self.root, marker=".", color="tab:blue")
        for side in (-self.quantile, self.quantile):
            axes.axhline(side, color="0.8", linewidth=0.8)
            text = f"{100 * self.level:g} %"
            axes.annotate(text, (0.01, side), xycoords=("axes fraction", "data"), va="bottom")
        axes.axvline(self.estimate, color="0.8", linewidth=0.8)
        axes.set_xlabel(self.name)
        axes.set_ylabel("signed root of the likelihood ratio")
        return axes


def _correlation(matrix: np.ndarray, errors: np.ndarray) -> np.ndarray:
    scales = np.where(errors > 0, errors, np.nan)
    return matrix / np.outer(scales, scales)


def covariance(
    fit: _core.Fit, kind: str, multiple: float, residual_variance: float | None
) -> Covariance:
    found = fit.covariance(kind, multiple, residual_variance)
    found["correlation"] = _correlation(found["matrix"], found["errors"])
    return Covariance(**found)


def _chosen(parameters: Any, names: list[str]) -> list[int]:
    """Numbers of parameters that are given by number or name, one or several."""
    if parameters is None:
        return []
    if isinstance(parameters, (str, bytes)) or not isinstance(parameters, Iterable):
        parameters = [parameters]
    chosen = [_number(parameter, names) for parameter in parameters]
    if not chosen:
        raise ValueError("parameters must name at least one; all without it")
    return chosen


def _number(parameter: Any, names: list[str]) -> int:
    if isinstance(parameter, str):
        if parameter not in names:
            raise ValueError(f"parameter must be a number or one of {names}, not {parameter!r}")
        return names.index(parameter)
    if isinstance(parameter, (bool, np.bool_)) or not hasattr(parameter, "__index__"):
        raise TypeError(f"parameter must be a number or a name, not {parameter!r}")
    return operator.index(parameter)


def limits(
    fit: _core.Fit,
    names: list[str],
    level: Any,
    kind: str,
    parameters: Any,
    multiple: float,
    residual_variance: float | None,
) -> Limits:
    levels = vector(level, "level").tolist()
    if not levels:
        raise ValueError("level must hold at least one number")
    chosen = _chosen(parameters, names)
    return Limits(fit.limits(kind, levels, chosen, multiple, residual_variance))


def profile(
    fit: _core.Fit,
    names: list[str],
    parameter: Any,
    level: float,
    multiple: float,
    residual_variance: float | None,
) -> Profile:
    place = _number(parameter, names)
    return Profile(**fit.profile(place, number(level, "level"), multiple, residual_variance))
