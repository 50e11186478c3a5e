"""Arguments in SciPy's shapes, checked and brought into the form that the core takes.

SciPy's own classes are recognized by their attributes, so that SciPy need not be there.
"""

from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import Any

import numpy as np

from ._compiled import NUMBER, VALUES, compiled
from ._core import Compiled


def vector(value: Any, name: str, length: int | None = None) -> np.ndarray:
    """An array of shape (length,) of finite or infinite doubles."""
    try:
        array = np.asarray(value)
        if array.dtype.kind not in "biufO" or (array == None).any():  # noqa: E711
            raise TypeError
        array = array.astype(float)
    except (TypeError, ValueError):
        raise TypeError(f"{name} must hold numbers, not {_shown(value)}") from None
    if array.ndim == 0:
        array = array.reshape(1)
    wanted = "(n,)" if length is None else f"({length},)"
    if array.ndim != 1 or (length is not None and array.size != length):
        raise ValueError(f"{name} must have the shape {wanted}, not {array.shape}")
    return array


def start_point(x0: Any) -> np.ndarray:
    x = vector(x0, "x0")
    if x.size == 0:
        raise ValueError("x0 must have the shape (n,) with n > 0, not (0,)")
    return x


def number(value: Any, name: str) -> float:
    try:
        if isinstance(value, str):
            raise TypeError
        return float(value)
    except (TypeError, ValueError):
        raise TypeError(f"{name} must be a number, not {_shown(value)}") from None


def read_only(x: np.ndarray) -> np.ndarray:
    """A point as every call of a function gets it."""
    at = x.copy()
    at.flags.writeable = False
    return at


def further_arguments(args: Any) -> tuple:
    return args if isinstance(args, tuple) else (args,)


def function(value: Any, name: str, takes: tuple[str, ...] = (), args: tuple = ()) -> Any:
    """A Python function as it is, one of C where its signature is one of takes as `Compiled`."""
    if takes and (found := compiled(value, name, takes)) is not None:
        if args:
            raise ValueError(f"args must be (): {name} is compiled, and gets its user data alone")
        return found
    if not callable(value):
        raise TypeError(f"{name} must be a function, not {_shown(value)}")
    return value


_DIFFERENCES = {"2-point": "forward", "3-point": "central", "cs": None}


def differences_or_function(jac: Any, options: dict[str, Any], name: str = "jac") -> Any:
    """A derivative that is a function or None; SciPy's names of differences set an option."""
    if jac is None or jac is False:
        return None
    if (found := compiled(jac, name, VALUES)) is not None or callable(jac):
        return found or jac
    if not isinstance(jac, str) or jac not in _DIFFERENCES:
        raise ValueError(
            f"{name} must be a function, '2-point', '3-point' or None, not {_shown(jac)}"
        )
    if (kind := _DIFFERENCES[jac]) is not None:
        options.setdefault("differences", kind)
    return None


def hessian_or_none(hess: Any) -> Any:
    """A Hessian that is a function; what SciPy takes for a matrix of differences or of updates is
    left to the technique."""
    if hess is None or (isinstance(hess, str) and hess in _DIFFERENCES) or hasattr(hess, "update"):
        return None
    if (found := compiled(hess, "hess", VALUES)) is not None or callable(hess):
        return found or hess
    raise ValueError(
        f"hess must be a function, '2-point', '3-point', 'cs', a HessianUpdateStrategy or None, "
        f"not {_shown(hess)}"
    )


def _shown(value: Any) -> str:
    text = repr(value)
    return text if len(text) <= 60 else f"{text[:57]}... of type {type(value).__name__}"


# ---- Bounds ---------------------------------------------------------------------------------


def _sides(lower: Any, upper: Any, count: int, name: str) -> tuple[np.ndarray, np.ndarray]:
    both = []
    for side, which in ((lower, "lb"), (upper, "ub")):
        array = vector(side, f"{name}.{which}")
        if array.size not in (1, count):
            raise ValueError(f"{name}.{which} must have the shape ({count},), not {array.shape}")
        if np.isnan(array).any():
            raise ValueError(f"{name}.{which} must hold no NaN")
        both.append(np.array(np.broadcast_to(array, count)))
    return both[0], both[1]


def bounds_of(bounds: Any, n: int) -> tuple[np.ndarray, np.ndarray] | None:
    """Lower and upper bounds from an object with lb and ub, or from n pairs, None for none."""
    if bounds is None:
        return None
    if hasattr(bounds, "lb") and hasattr(bounds, "ub"):
        return _sides(bounds.lb, bounds.ub, n, "bounds")
    try:
        pairs = [(low, high) for low, high in bounds]
    except (TypeError, ValueError):
        raise TypeError(
            f"bounds must be (min, max) pairs or have lb and ub, not {_shown(bounds)}"
        ) from None
    if len(pairs) != n:
        raise ValueError(f"bounds must hold one pair a parameter: {n}, not {len(pairs)}")
    lower = [-np.inf if low is None else low for low, _ in pairs]
    upper = [np.inf if high is None else high for _, high in pairs]
    return _sides(lower, upper, n, "bounds")


# ---- Constraints ----------------------------------------------------------------------------


def _refuse_complex(matrix: Any, name: str) -> None:
    if matrix.dtype.kind not in "biuf":
        raise TypeError(f"{name} must hold numbers, not a sparse matrix of {matrix.dtype}")


def _compressed(matrix: Any, n: int, name: str) -> dict[str, np.ndarray]:
    """Rows in compressed form."""
    if hasattr(matrix, "tocsr"):
        rows = matrix.tocsr().copy()  # the user's own keeps its duplicates
        _refuse_complex(rows, f"{name}.A")
        rows.sum_duplicates()
        shape, starts, columns, values = rows.shape, rows.indptr, rows.indices, rows.data
    else:
        dense = np.asarray(matrix)
        if dense.dtype.kind not in "biuf":
            raise TypeError(f"{name}.A must hold numbers, not {_shown(matrix)}")
        dense = np.atleast_2d(dense)
        shape = dense.shape
        where = np.nonzero(dense)
        starts = np.concatenate(([0], np.cumsum(np.count_nonzero(dense, axis=1))))
        columns, values = where[-1], dense[where]
    if len(shape) != 2 or shape[1] != n:
        raise ValueError(f"{name}.A must have the shape (rows, {n}), not {shape}")
    return {"starts": starts, "columns": columns, "values": values}


def _linear(constraint: Any, n: int, name: str) -> dict[str, Any]:
    rows = _compressed(constraint.A, n, name)
    count = len(rows["starts"]) - 1
    lower, upper = _sides(constraint.lb, constraint.ub, count, name)
    return {**rows, "lower": lower, "upper": upper}


def _count_of(block: dict[str, Any], x: np.ndarray, stated: int) -> int:
    """The number of values, which the run then knows at x; of a compiled function the stated one."""
    if isinstance(block["fun"], Compiled):
        return stated
    value = np.array(block["fun"](read_only(x), *block["args"]))
    if value.dtype.kind not in "biufO" or value.squeeze().ndim > 1:
        raise ValueError(
            f"{block['name']}.fun must return numbers of shape (k,), "
            f"not {value.shape} of {value.dtype}"
        )
    block["known"] = {"fun": (x, value)}
    return value.size


def _block(name: str, fun: Any, jac: Any, args: Any) -> dict[str, Any]:
    args = further_arguments(args)
    block = {"name": name, "fun": function(fun, f"{name}.fun", NUMBER + VALUES, args)}
    return {**block, "args": args, "jac": differences_or_function(jac, {}, f"{name}.jac")}


def _by_dictionary(said: Any, x: np.ndarray, name: str) -> dict[str, Any]:
    kind = str(said.get("type", "")).lower()
    if kind not in ("eq", "ineq"):
        raise ValueError(f"{name}['type'] must be 'eq' or 'ineq', not {said.get('type')!r}")
    if "fun" not in said:
        raise ValueError(f"{name} must have a 'fun'")
    known = ("type", "fun", "jac", "args", "count")
    if unknown := [key for key in said if key not in known]:
        raise ValueError(f"{name} must have no {unknown[0]!r}, only {', '.join(known)}")
    block = _block(name, said["fun"], said.get("jac"), said.get("args", ()))
    count = _count_of(block, x, int(said.get("count", 1)))
    upper = np.zeros(count) if kind == "eq" else np.full(count, np.inf)
    return {**block, "lower": np.zeros(count), "upper": upper}


def _by_sides(said: Any, x: np.ndarray, name: str) -> dict[str, Any]:
    block = _block(name, said.fun, getattr(said, "jac", None), ())
    stated = np.broadcast(said.lb, said.ub).size
    lower, upper = _sides(said.lb, said.ub, _count_of(block, x, stated), name)
    return {**block, "lower": lower, "upper": upper}


def one_or_several(constraints: Any) -> Sequence:
    """Constraints as a sequence of them; a named tuple with sides is one."""
    several = isinstance(constraints, Sequence) and not hasattr(constraints, "lb")
    return constraints if several else (constraints,)


def constraints_of(constraints: Any, x: np.ndarray) -> tuple[list[dict], list[dict]]:
    """Linear rows and nonlinear blocks. The functions are called once, for their number."""
    linear: list[dict] = []
    nonlinear: list[dict] = []
    for k, said in enumerate(one_or_several(constraints)):
        name = f"constraints[{k}]"
        if isinstance(said, dict):
            nonlinear.append(_by_dictionary(said, x, name))
        elif hasattr(said, "A") and hasattr(said, "lb"):
            linear.append(_linear(said, x.size, name))
        elif hasattr(said, "fun") and hasattr(said, "lb"):
            nonlinear.append(_by_sides(said, x, name))
        else:
            raise TypeError(
                f"{name} must be a dictionary, or have lb, ub and A or fun, not {_shown(said)}"
            )
    return linear, nonlinear


def constrained(
    problem: dict[str, Any], x: np.ndarray, bounds: Any, constraints: Any
) -> np.ndarray:
    """Adds size, bounds and constraints to a problem; answers the point of the bounds at x."""
    problem["n"] = x.size
    inside = x
    pair = bounds_of(bounds, x.size)
    if pair is not None:
        problem["lower"], problem["upper"] = pair
        inside = np.minimum(np.maximum(x, pair[0]), pair[1])
    problem["linear"], problem["nonlinear"] = constraints_of(constraints, inside)
    return inside


# ---- Symmetric matrices ---------------------------------------------------------------------


def add_hessian(problem: dict[str, Any], hess: Any, x: np.ndarray) -> None:
    """Adds a Hessian; what is sparse at the start has its pattern from there."""
    problem["hess"] = hess
    if isinstance(hess, Compiled):
        return
    args = problem["args"]
    first = hess(read_only(x), *args)
    if not hasattr(first, "tocoo"):
        problem["known"] = {"hess": (x, np.array(first))}
        return
    n = x.size
    pattern = np.unique(_lower(first, n)[0])

    def values(at: np.ndarray, *further: Any) -> np.ndarray:
        places, data = _lower(hess(at, *further), n)
        where = np.minimum(np.searchsorted(pattern, places), pattern.size - 1)
        if (pattern[where] != places).any():
            raise ValueError("hess has elements that its pattern at x0 does not have")
        return np.bincount(where, weights=data, minlength=pattern.size)

    problem["hess"] = values
    problem["pattern"] = [divmod(int(place), n) for place in pattern]


def _lower(matrix: Any, n: int) -> tuple[np.ndarray, np.ndarray]:
    """Places row * n + column of the lower triangle, and the values there.

    What stands above counts where nothing stands below: the matrix may be any one triangle.
    """
    if not hasattr(matrix, "tocoo") or matrix.shape != (n, n):
        raise ValueError(f"hess must return a sparse matrix of shape ({n}, {n}) at every point")
    elements = matrix.tocoo()
    _refuse_complex(elements, "hess")
    rows, columns = elements.row.astype(np.int64), elements.col.astype(np.int64)
    above = rows < columns
    places = np.where(above, columns * n + rows, rows * n + columns)
    kept = ~above
    kept[above] = ~np.isin(places[above], places[~above])
    return places[kept], elements.data[kept]


def symmetric(h: Any) -> dict[str, Any]:
    """The matrix of a quadratic: dense, sparse, or a vector for a diagonal."""
    if hasattr(h, "tocoo"):
        rows = h.tocoo().copy()  # the user's own keeps its duplicates
        _refuse_complex(rows, "h")
        rows.sum_duplicates()
        _square(rows.shape)
        places = np.stack([rows.row, rows.col], axis=1)
        return {"n": rows.shape[0], "h": rows.data, "places": places}
    dense = np.asarray(h)
    if dense.dtype.kind not in "biuf":
        raise TypeError(f"h must hold numbers, not {_shown(h)}")
    if dense.ndim == 1:
        count = np.arange(dense.size)
        return {"n": dense.size, "h": dense, "places": np.stack([count, count], axis=1)}
    _square(dense.shape)
    return {"n": dense.shape[0], "h": dense}


def _square(shape: tuple) -> None:
    if len(shape) != 2 or shape[0] != shape[1] or shape[0] == 0:
        raise ValueError(f"h must have the shape (n, n) or (n,), not {shape}")
