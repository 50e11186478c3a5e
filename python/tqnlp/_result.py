"""What a run answers."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from html import escape
from textwrap import fill
from typing import Any, NamedTuple

import numpy as np

from ._statistics import Covariance, Limits, Profile, covariance, limits, profile


class LogRecord(NamedTuple):
    """A line of the log of a run.

    Attributes
    ----------
    group, number : int
        Which message it is, as docs/messages.md lists them.
    severity : str
        "note", "warning" or "error".
    text : str
    """

    group: int
    number: int
    severity: str
    text: str


class Table(NamedTuple):
    """A table of the report; str() is its text.

    Attributes
    ----------
    name, title : str
    columns : list of str
    rows : list of list
        A cell is a number or a text, NaN where it is missing.
    text : str
        The table as the report shows it.
    """

    name: str
    title: str
    columns: list[str]
    rows: list[list[Any]]
    text: str

    def __str__(self) -> str:
        return self.text


class _Fields(dict):
    """A dictionary whose keys are attributes too."""

    def __getattr__(self, name: str) -> Any:
        try:
            return self[name]
        except KeyError as missing:
            why = "".join(missing.args[1:])
            raise AttributeError(f"{type(self).__name__} has no field {name!r}{why}") from None

    def __setattr__(self, name: str, value: Any) -> None:
        self[name] = value

    def __delattr__(self, name: str) -> None:
        del self[name]

    def __dir__(self) -> list[str]:
        return [*super().__dir__(), *self]


class Part(_Fields):
    """A group of fields of a result."""


def _numbers(values: np.ndarray, most: int = 8) -> str:
    shown = ", ".join(f"{value:.8g}" for value in values[:most])
    return shown if len(values) <= most else f"{shown}, ... ({len(values)} in all)"


def table_of(rows: Sequence[Sequence[str]], html: bool = False) -> str:
    """Text rows, the first of them heads, as an aligned table."""
    if not html:
        widths = [max(map(len, column)) for column in zip(*rows)]
        return "\n".join("  ".join(map(str.ljust, row, widths)).rstrip() for row in rows)
    lines = [
        "<tr>" + "".join(f"<{tag}>{escape(cell)}</{tag}>" for cell in row) + "</tr>"
        for row, tag in zip(rows, ["th", *["td"] * len(rows)])
    ]
    return f"<table>{''.join(lines)}</table>"


class Result(_Fields):
    """The result of a run: SciPy's fields, and more.

    Attributes
    ----------
    x : ndarray, shape (n,)
        The solution; after a failure the best feasible point that was evaluated.
    fun : float
        The objective there (of least squares: the residuals, ndarray of shape (m,)).
    jac : ndarray, shape (n,)
        The gradient there (of least squares: the Jacobian, where it was asked for).
    success : bool
        Did the run converge, or could nothing improve a point that passes the independent check?
        What that finds stands in `optimality`.
    status : int
        The code of the run: positive where it converged.
    message : str
        Why it ended, what is true now, what to try.
    nit, nfev, njev, nhev : int
        Iterations, and calls of the user's functions.
    technique, ending : str
        The technique that ran, and why it ended, by name.
    multipliers, active : Part
        One a bound, linear row, nonlinear constraint: `bounds`, `linear`, `nonlinear`. Active is
        -1 at the lower side, 1 at the upper, 2 at both.
    linear, constraints : ndarray
        Values of the linear rows and of the nonlinear constraints.
    optimality : Part
        The check of the point: `verdict`, `feasibility`, `stationarity`, ...
    history : Part
        A column each: `iteration`, `calls`, `objective`, `gradient`, `violation`, `step`.
    counts : Part
        All calls; `tables`, `log`: the report.
    covariance : ndarray, shape (n, n); stderr : ndarray, shape (n,)
        Of least squares, and where the objective is minus (or is, maximized) a log-likelihood.
        Evaluated when it is asked for, as is `jac` of least squares; see `covariances`.
    """

    def __missing__(self, name: str) -> Any:
        if name not in _LATER or "fit" not in self:
            raise KeyError(name)
        if not self.fit.alive:
            raise KeyError(name, ": it needs the functions of the problem; solve again from x")
        if name == "jac":
            self[name] = self.fit.jacobian()
        else:
            found = self.covariances()
            self.covariance, self.stderr = found.matrix, found.errors
        return self[name]

    def covariances(
        self,
        kind: str = "automatic",
        *,
        multiple: float = 1.0,
        residual_variance: float | None = None,
    ) -> Covariance:
        """Covariance of the parameters at x, with what is known of each; evaluates derivatives.

        Parameters
        ----------
        kind : {"automatic", "hessian", "crossproduct"}
            The inverse Hessian, or of least squares (automatic) s2 times the inverse of J'J.
        multiple : float
            The objective is so many times a log-likelihood: 2 for -2 log L.
        residual_variance : float
            s2 where it is known; otherwise it is estimated.

        Raises
        ------
        ValueError
            For arguments out of range, and where the result comes from another process.
        """
        return covariance(self.fit, kind, multiple, residual_variance)

    def limits(
        self,
        level: Any = 0.95,
        kind: str = "profile",
        parameters: Any = None,
        *,
        multiple: float = 1.0,
        residual_variance: float | None = None,
    ) -> Limits:
        """Confidence limits of the parameters.

        Parameters
        ----------
        level : float or sequence of float
            Of confidence, between 0 and 1.
        kind : {"profile", "wald"}
            By the profile likelihood, for which the other parameters are optimized again, or by
            standard errors.
        parameters : int, str or sequence of these
            Numbers, or names of ``options={"names": ...}`` and of `curve_fit`; all without it.
        multiple, residual_variance
            As of `covariances`.

        Returns
        -------
        Limits
            A sequence of `Limit`: name, level, estimate, lower, upper, and why a side has none.

        References
        ----------
        Venzon and Moolgavkar (1988), Applied Statistics 37, 87-94.
        """
        names = self.names
        return limits(self.fit, names, level, kind, parameters, multiple, residual_variance)

    def profile(
        self,
        parameter: Any,
        level: float = 0.99,
        *,
        multiple: float = 1.0,
        residual_variance: float | None = None,
    ) -> Profile:
        """The profile of one parameter, by number or name, as far as its limits at the level."""
        return profile(self.fit, self.names, parameter, level, multiple, residual_variance)

    def shown_x(self, most: int = 8) -> str:
        """The first elements of x as text."""
        return _numbers(self.x, most)

    def _summary(self) -> list[tuple[str, str]]:
        rows = [
            ("message", str(self.message)),
            ("success", f"{self.success} (status {self.status}, {self.ending})"),
            ("technique", str(self.technique)),
            ("objective", f"{self.objective:.10g}"),
            ("x", _numbers(self.x)),
            ("check", str(self.optimality["sentence"])),
            ("work", f"{self.nit} iterations, {self.nfev} calls, {self.seconds:.3g} s"),
        ]
        if "stderr" in self:  # which a summary does not evaluate
            rows.insert(5, ("stderr", _numbers(self.stderr)))
        return rows

    def __repr__(self) -> str:
        further = " " * 12
        return "\n".join(
            fill(text, 100, initial_indent=f"{name:>10}: ", subsequent_indent=further)
            for name, text in self._summary()
        )

    __str__ = __repr__

    def _repr_html_(self) -> str:
        rows = "".join(
            f"<tr><th style='text-align:right'>{name}</th>"
            f"<td style='text-align:left'>{escape(text)}</td></tr>"
            for name, text in self._summary()
        )
        return f"<table>{rows}</table>"

    # ---- Pictures; Matplotlib is imported here alone ------------------------------------------

    def plot_history(self, axes: Any = None) -> Any:
        """Draws objective and largest projected gradient over the iterations; answers the axes."""
        axes = _axes(axes)
        history = self.history
        axes.plot(history.iteration, history.objective, color="tab:blue")
        axes.set_xlabel("iteration")
        axes.set_ylabel("objective", color="tab:blue")
        if (history.gradient > 0).any():
            gradient = axes.twinx()
            gradient.semilogy(history.iteration, history.gradient, color="tab:orange")
            gradient.set_ylabel("largest projected gradient", color="tab:orange")
        return axes

    def plot_profile(self, parameter: Any, level: float = 0.99, axes: Any = None) -> Any:
        """Draws the `profile` of a parameter, by number or name; answers the axes."""
        return self.profile(parameter, level).plot(_axes(axes))

    def plot_fit(self, model: Callable[..., Any] | None = None, axes: Any = None) -> Any:
        """Draws data and fit of a `curve_fit` with ``full_output=True``; answers the axes.

        Parameters
        ----------
        model : callable
            The f of the fit, drawn between the data too; without it the fit at the data alone.
        axes : matplotlib.axes.Axes

        Raises
        ------
        ValueError
            Where the result is of no `curve_fit`, or xdata is no vector of numbers.
        """
        x = np.asarray(self.get("xdata"))
        if x.dtype.kind not in "biuf" or x.shape != self.ydata.shape:
            raise ValueError("plot_fit needs the result of a curve_fit with xdata of shape (m,)")
        axes = _axes(axes)
        bars = self.sigma if np.shape(self.sigma) == x.shape else None
        axes.errorbar(x, self.ydata, bars, fmt="o", color="tab:blue", label="data")
        at, fitted = np.sort(x), self.fitted[np.argsort(x)]
        if model is not None:
            at = np.linspace(at[0], at[-1], 200)
            fitted = np.broadcast_to(model(at, *self.x), at.shape)
        axes.plot(at, fitted, "-" if model is not None else "x", color="tab:orange", label="fit")
        axes.legend()
        return axes


def _axes(axes: Any) -> Any:
    if axes is not None:
        return axes
    import matplotlib.pyplot as plt

    return plt.subplots()[1]


_LATER = ("covariance", "stderr", "jac")


def make_result(found: dict[str, Any], names: list[str] | None, squares: bool) -> Result:
    """A result with SciPy's names for what the core answers, also those of least squares."""
    result = Result(found)
    result.names = names or [f"X{j + 1}" for j in range(len(result.x))]
    counts = found["counts"]
    for name in ("multipliers", "active", "optimality", "counts", "history"):
        result[name] = Part(found[name])
    result.tables = [Table(*table) for table in found["tables"]]
    result.log = [LogRecord(*record) for record in found["log"]]
    stands = found["ending"] == "no_progress" and found["optimality"]["verdict"] == "optimal"
    result.update(
        success=found["success"] or stands,
        fun=found["objective"],
        jac=found["gradient"],
        status=result.pop("code"),
        nit=counts["iterations"],
        nfev=counts["objective"],
        njev=counts["gradient"],
        nhev=counts["hessian"],
    )
    if squares:
        result.update(cost=result.objective, grad=result.gradient, fun=result.residuals)
        result.active_mask = result.active.bounds
        del result.jac  # which comes when it is asked for
    return result
