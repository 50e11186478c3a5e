"""Nonlinear optimization: minimize, fit and solve quadratics, under constraints.

The functions have SciPy's shape::

    >>> import tqnlp
    >>> rosenbrock = lambda x: 100 * (x[1] - x[0] ** 2) ** 2 + (1 - x[0]) ** 2
    >>> found = tqnlp.minimize(rosenbrock, [-1.2, 1.0])
    >>> found.success
    True
    >>> print(abs(found.x - 1).max() < 1e-4)
    True

`Session` is the language face, with the subroutines by their own names.
"""

from ._check import DerivativeCheck, WrongElement, check_derivatives
from ._core import CallError, EvaluationFailed, FatalError
from ._fit import curve_fit, least_squares
from ._minimize import method, minimize, quadratic
from ._multistart import ManyResults, Problem, Solution, multistart
from ._result import LogRecord, Result, Table
from ._session import Session
from ._statistics import Covariance, Limit, Limits, Profile

__all__ = [
    "CallError",
    "Covariance",
    "DerivativeCheck",
    "EvaluationFailed",
    "FatalError",
    "Limit",
    "Limits",
    "LogRecord",
    "ManyResults",
    "Problem",
    "Profile",
    "Result",
    "Session",
    "Solution",
    "Table",
    "WrongElement",
    "check_derivatives",
    "curve_fit",
    "least_squares",
    "method",
    "minimize",
    "multistart",
    "quadratic",
]
__version__ = "0.1.0"
