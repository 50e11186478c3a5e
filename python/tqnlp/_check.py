"""Comparison of derivatives with differences."""

from __future__ import annotations

from dataclasses import dataclass
from html import escape
from typing import Any, NamedTuple

from . import _core
from ._multistart import Problem
from ._problem import number
from ._result import table_of


class WrongElement(NamedTuple):
    """An element of a derivative that differences contradict.

    Attributes
    ----------
    derivative : str
        "gradient", "hessian", "jacobian" or "constraint_jacobian".
    row : int
        Which residual, which value of the nonlinear constraints, which row of the Hessian.
    parameter : int
    given, difference, error : float
        The element, the same by differences, and an estimate of the error of these.
    """

    derivative: str
    row: int
    parameter: int
    given: float
    difference: float
    error: float

    @property
    def name(self) -> str:
        """The element as Python would write it."""
        row = "" if self.derivative == "gradient" else f"{self.row}, "
        return f"{self.derivative}[{row}{self.parameter}]"


@dataclass(frozen=True)
class DerivativeCheck:
    """What `check_derivatives` found; true where nothing is wrong.

    Attributes
    ----------
    wrong : list of WrongElement
    compared : int
        The number of elements that were.
    left_out : int
        Elements of parameters without room between their bounds, or whose functions have no value
        beside the point.
    names : list of str or None
        Of the parameters, where the options of a problem say them.
    """

    wrong: list[WrongElement]
    compared: int
    left_out: int
    names: list[str] | None = None

    def __bool__(self) -> bool:
        return not self.wrong

    def _sentence(self) -> str:
        left = f", {self.left_out} left out" if self.left_out else ""
        return f"{len(self.wrong)} wrong of {self.compared} elements{left}"

    def _rows(self) -> list[list[str]]:
        heads = ["element", "given", "by differences", "error"]
        rows = [heads] + [
            [one.name, f"{one.given:.8g}", f"{one.difference:.8g}", f"{one.error:.1e}"]
            for one in self.wrong
        ]
        if self.names is not None:
            which = ["parameter", *(self.names[one.parameter] for one in self.wrong)]
            rows = [[row[0], name, *row[1:]] for row, name in zip(rows, which)]
        return rows

    def __repr__(self) -> str:
        return self._sentence() + ("\n" + table_of(self._rows()) if self.wrong else "")

    def _repr_html_(self) -> str:
        return f"<p>{escape(self._sentence())}</p>" + table_of(self._rows(), html=True)


def check_derivatives(
    fun: Any,
    x: Any,
    args: Any = (),
    jac: Any = None,
    hess: Any = None,
    bounds: Any = None,
    constraints: Any = (),
    *,
    residuals: bool = False,
    m: int | None = None,
    digits: float | None = None,
) -> DerivativeCheck:
    """Compares derivatives at a point with central differences, element by element.

    Parameters
    ----------
    fun : callable or Problem
        The objective, the residuals where `residuals` is true, or a problem that holds it all.
    x : array_like, shape (n,)
        Some point that is not special: at zero or at a minimum many errors do not show.
    args, jac, hess, bounds, constraints, m
        As of `minimize` and `least_squares`. A Hessian is compared with differences of the
        gradient, the Jacobian of each constraint that has one.
    digits : float
        Decimal digits that are right in the functions, above 0; all of them without it.

    Returns
    -------
    DerivativeCheck

    Raises
    ------
    ValueError
        Where there is no derivative to be checked, and as `minimize` does.

    Notes
    -----
    An element is wrong that is further from its difference than 1e-6 of its size and the estimated
    error of the difference, from steps of two lengths [1]_. The cost is 4 evaluations a parameter.

    References
    ----------
    .. [1] Gill, Murray and Wright, Practical Optimization, 1981, sections 4.6 and 8.1.

    Examples
    --------
    >>> found = check_derivatives(lambda x: x[0] ** 2 * x[1], [1.0, 2.0], jac=lambda x: [4.0, 2.0])
    >>> print(found)  # doctest: +ELLIPSIS
    1 wrong of 2 elements
    element      given  by differences  error
    gradient[1]  2      1               ...e-10
    """
    if not isinstance(fun, Problem):
        fun = Problem(fun, args, jac=jac, hess=hess, bounds=bounds, constraints=constraints,
                      residuals=residuals, m=m)  # fmt: skip
    problem, point, options = fun.for_core(x)
    if problem["jac"] is None and not any(block["jac"] for block in problem["nonlinear"]):
        raise ValueError("jac must be given, or the jac of constraints: there is nothing to check")
    if digits is not None:
        if not number(digits, "digits") > 0:
            raise ValueError(f"digits must be above 0, not {digits!r}")
        options |= {"objective_digits": float(digits), "constraint_digits": float(digits)}
    options.pop("progress", None)
    names = options.pop("names", None)
    rows = _keep_those_with_jacobian(problem)
    wrong, compared, left_out = _core.check_derivatives(problem, point.tolist(), options)
    found = [WrongElement(*one) for one in wrong]
    found = [
        one._replace(row=rows[one.row]) if one.derivative == "constraint_jacobian" else one
        for one in found
    ]
    return DerivativeCheck(found, compared, left_out, names)


def _keep_those_with_jacobian(problem: dict[str, Any]) -> list[int]:
    """Drops the other nonlinear constraints, for whose sake a run has differences of all of them.

    Answers the numbers of the values that are left.
    """
    rows: list[int] = []
    first = 0
    for block in problem["nonlinear"]:
        behind = first + len(block["lower"])
        if block["jac"] is not None:
            rows += range(first, behind)
        first = behind
    problem["nonlinear"] = [block for block in problem["nonlinear"] if block["jac"] is not None]
    return rows
