"""Methods and options by the names of this package, of the subroutines, and of SciPy."""

from __future__ import annotations

from collections.abc import Iterable
from difflib import get_close_matches
from typing import Any

import numpy as np

from . import _core
from ._problem import number

SUBROUTINES = {
    "nlpqn": "quasi_newton",
    "nlpdd": "double_dogleg",
    "nlpcg": "conjugate_gradient",
    "nlptr": "trust_region",
    "nlpnra": "newton_line_search",
    "nlpnrr": "newton_ridge",
    "nlpnms": "nelder_mead",
    "nlpvmc": "watchdog",
    "nlplm": "levenberg_marquardt",
    "nlphqn": "hybrid_quasi_newton",
    "nlpqua": "quadratic_active_set",
}
SCIPY = {
    "nelder-mead": "nelder_mead",
    "cg": "conjugate_gradient",
    "bfgs": "quasi_newton",
    "slsqp": "quasi_newton",
    "cobyla": "cobyla",
    "trust-exact": "trust_region",
    "lm": "levenberg_marquardt",
    "trf": "levenberg_marquardt",
    "dogbox": "levenberg_marquardt",
}
_NEAREST = {  # to methods of SciPy that have no like here
    "l-bfgs-b": "'auto', for many parameters 'conjugate_gradient'",
    "tnc": "'auto', for many parameters 'conjugate_gradient'",
    "trust-constr": "'auto' or 'watchdog'",
    "newton-cg": "'trust_region', with hess",
    "dogleg": "'double_dogleg' or 'trust_region'",
    "trust-ncg": "'trust_region', with hess",
    "trust-krylov": "'trust_region', with hess",
    "powell": "'nelder_mead' or 'cobyla'",
}
_OTHER_NAMES = {"auto": "automatic", **SUBROUTINES, **SCIPY}

_SCIPY_OPTIONS = {
    "maxiter": "iterations",
    "maxfev": "calls",
    "maxfun": "calls",
    "max_nfev": "calls",
    "gtol": "gradient_tolerance",
    "ftol": "relative_objective_tolerance",
    "xtol": "relative_step_tolerance",
    "fatol": "objective_tolerance",
    "xatol": "step_tolerance",
}
_SIMPLEX_TOLERANCES = {"fatol", "xatol", "ftol", "xtol"}
_SIMPLEX = ("nelder_mead", "nelder_mead_2", "cobyla")


def technique(name: Any, constrained: bool = False) -> str:
    """The technique of a name; simplex search under constraints is COBYLA."""
    if name is None:
        return "automatic"
    if not isinstance(name, str):
        raise TypeError(f"method must be a name, not {name!r}")
    if name.lower() in _NEAREST:
        raise ValueError(f"method {name!r} is none of this package; near is {_NEAREST[name.lower()]}")
    found = _OTHER_NAMES.get(name.lower(), name.lower())
    if found not in _core.TECHNIQUES:
        known = [*_core.TECHNIQUES, *(key.upper() for key in SUBROUTINES)]
        raise ValueError(f"method {name!r} is not known{_perhaps(name, known)}")
    if name.lower() == "nlpnms" and constrained:
        return "cobyla"
    return found


def _perhaps(name: str, known: list[str]) -> str:
    near = get_close_matches(name, known, n=3) or get_close_matches(name.upper(), known, n=3)
    return f"; near are {', '.join(near)}" if near else f"; there are {', '.join(known)}"


def _from_tolerance(tol: float, name: str) -> dict[str, float]:
    if name in _SIMPLEX:
        names = ("relative_objective_tolerance", "predicted_reduction_tolerance", "step_tolerance")
        return dict.fromkeys(names, tol)
    return {"gradient_tolerance": tol, "relative_gradient_tolerance": tol}


def _names(value: Any) -> list[str]:
    several = isinstance(value, Iterable) and not isinstance(value, str)
    if not several or not all(isinstance(name, str) for name in value):
        raise TypeError(f"options: names must be a sequence of str, one a parameter, not {value!r}")
    return list(value)


def options_of(options: Any, method: Any, tol: float | None, constrained: bool) -> dict[str, Any]:
    """Options for the core."""
    if options is not None and not isinstance(options, dict):
        raise TypeError(f"options must be a dictionary, not {options!r}")
    name = technique(method, constrained)
    made: dict[str, Any] = {} if tol is None else _from_tolerance(number(tol, "tol"), name)
    for key, value in (options or {}).items():
        key = _SCIPY_OPTIONS.get(key, key)
        if key == "technique":
            raise ValueError("options: technique goes by the argument method")
        if key in ("disp", "verbose"):
            if value:
                made.setdefault("report", 1 if key == "disp" else value)
                made.setdefault("sink", print)
        elif key == "progress":
            if not isinstance(value, (bool, np.bool_, type(None))):
                raise TypeError(f"options: progress must be True or False, not {value!r}")
            made[key] = bool(value)
        elif key == "names":
            if value is not None:
                made[key] = _names(value)
        elif key == "sink" and value is not None and not callable(value):
            raise TypeError(f"options: sink must be a function of a line, not {value!r}")
        elif key in _core.OPTIONS:
            if value is not None:
                made[key] = value
        else:
            known = [*_core.OPTIONS, *_SCIPY_OPTIONS, "disp", "verbose", "names", "progress"]
            raise ValueError(f"options: {key!r} is not known{_perhaps(str(key), known)}")
    given = {key for key, value in (options or {}).items() if value is not None}
    if name in _SIMPLEX and not _SIMPLEX_TOLERANCES.isdisjoint(given):
        made.setdefault("predicted_reduction_tolerance", 0.0)  # which would be met first
    return {**made, "technique": name}
