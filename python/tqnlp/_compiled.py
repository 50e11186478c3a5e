"""Functions that run without the interpreter, recognized without importing who made them."""

from __future__ import annotations

import ctypes
import re
from typing import Any

from . import _core

NUMBER = ("double (int, double *)", "double (int, double *, void *)")
VALUES = ("void (int, double *, double *)", "void (int, double *, double *, void *)")

_FUNCTION: Any = ctypes.CFUNCTYPE(None).__mro__[1]  # what all functions of ctypes derive from
_FORM = re.compile(r"(double|void)\(([a-z_0-9 ]+),double\*(,double\*)?(,void\*)?\)")
_COUNTS = {
    "int": False,
    **dict.fromkeys(("long", "long long", "int64_t", "intptr_t", "ptrdiff_t", "npy_intp"), True),
    **dict.fromkeys(("ssize_t", "Py_ssize_t", "size_t", "unsigned long"), True),
}


def _is_capsule(value: Any) -> bool:
    return type(value).__name__ == "PyCapsule"


def _name_of(kind: Any) -> str:
    """A type of ctypes as C writes it."""
    if kind is None:
        return "void"
    if kind is ctypes.c_void_p:
        return "void *"
    if hasattr(kind, "contents"):
        return f"{_name_of(kind._type_)} *"
    return kind.__name__.removeprefix("c_")


def _from_ctypes(value: Any) -> tuple[str, int, int]:
    kinds = ", ".join(_name_of(kind) for kind in value.argtypes or ())
    address = ctypes.cast(value, ctypes.c_void_p).value or 0
    return f"{_name_of(value.restype)} ({kinds})", address, 0


def _parts(value: Any) -> tuple[str, int, int] | None:
    """Signature, address and user data; None for what is no compiled function."""
    if isinstance(value, tuple) and len(value) == 3 and _is_capsule(tuple.__getitem__(value, 0)):
        return _core.read_capsule(tuple.__getitem__(value, 0))  # scipy.LowLevelCallable
    if _is_capsule(value):
        return _core.read_capsule(value)
    if isinstance(value, _FUNCTION) and value.argtypes is not None:
        return _from_ctypes(value)
    if hasattr(value, "address") and isinstance(getattr(value, "ctypes", None), _FUNCTION):
        return _from_ctypes(value.ctypes)  # numba.cfunc
    return None


def is_compiled(value: Any) -> bool:
    return _parts(value) is not None


def compiled(value: Any, name: str, takes: tuple[str, ...]) -> _core.Compiled | None:
    """The function of C that a value holds, None where it is something else.

    Parameters
    ----------
    takes : tuple of str
        The signatures that will do; the count may be a long as well as an int.

    Raises
    ------
    ValueError
        Where the signature is another one.
    """
    parts = _parts(value)
    if parts is None:
        return None
    signature, address, data = parts
    form = _form_of(signature)
    if form is None or (NUMBER if form[0] else VALUES)[0] not in takes:
        raise ValueError(
            f"{name} must be a Python function or one of C with the signature "
            f"{' or '.join(repr(one) for one in takes)}, not {signature!r}"
        )
    return _core.Compiled(address, data, *form, value)


def _form_of(signature: str) -> tuple[bool, bool, bool] | None:
    """Does it answer a number, take a count of 64 bits, take user data? None: another signature."""
    plain = re.sub(r"\s+", " ", re.sub(r"\bconst\b", " ", signature))
    match = _FORM.fullmatch(re.sub(r"\s*([(),*])\s*", r"\1", plain).strip())
    if match is None or match[2] not in _COUNTS:
        return None
    number = match[1] == "double"
    return (number, _COUNTS[match[2]], match[4] is not None) if number != bool(match[3]) else None
