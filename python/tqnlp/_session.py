"""The language face."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np

from . import _core
from ._result import LogRecord, Table

_NO_RUN = ("NLPFDD", "NLPFEA")  # answer no return code


class Session:
    """Subroutines by name on modules that are Python functions.

    ::

        tql = tqnlp.Session()
        tql.module("F", lambda x: (x[0] - 1) ** 2 + x[1] ** 2)
        rc, x = tql.call("NLPQN", "F", [5.0, 5.0])

    A module gets the point as a read-only array of shape (n,).
    """

    def __init__(self) -> None:
        self._core = _core.Session()

    def module(self, name: str, body: Callable[[np.ndarray], Any]) -> None:
        """Makes a function known as a module.

        Parameters
        ----------
        name : str
            Of any case; at most one module has it.
        body : callable
            ``body(x)``, x of shape (n,), answers a number or an array of numbers; an exception of
            it ends the call and comes out of it. `EvaluationFailed` marks a point without a value.

        Raises
        ------
        TypeError
            Where the body is no function.
        """
        self._core.module(name, body)

    def termination_module(self, name: str, body: Callable[[np.ndarray, float], float]) -> None:
        """A function of point and objective that answers the code of the termination test."""
        self._core.termination_module(name, body)

    def remove_module(self, name: str) -> bool:
        """Forgets a module; answers whether there was one."""
        return self._core.remove_module(name)

    def has_module(self, name: str) -> bool:
        """Is there a module of this name?"""
        return self._core.has_module(name)

    def call(self, subroutine: str, *arguments: Any) -> list[Any]:
        """Calls a subroutine with names, arrays (a vector is a row), None for what is left out.

        Returns
        -------
        list
            Of the optimizers ``[rc, x]``, an int and an array of shape (n,); of NLPFEA ``[x]``;
            of NLPFDD the three matrices.

        Raises
        ------
        CallError
            Where the subroutine refuses the call: `code` and `log` tell why.
        TypeError, ValueError
            Where an argument is no matrix of numbers.
        """
        results: list[Any] = list(self._core.call(subroutine, *arguments))
        name = subroutine.upper()
        if name not in _NO_RUN and results:
            results[0] = int(results[0][0, 0])
        if name != "NLPFDD" and results:
            results[-1] = results[-1].ravel()
        return results

    def sink(self, write: Callable[[str], Any] | None) -> None:
        """Gives the report to a function line by line; None ends that."""
        self._core.sink(write)

    def variable(self, name: str) -> np.ndarray:
        """A matrix that a module or a call has left under a name, of shape (rows, columns)."""
        return self._core.variable(name)

    @property
    def log(self) -> list[LogRecord]:
        """The log of the last call."""
        return [LogRecord(*record) for record in self._core.log()]

    @property
    def tables(self) -> list[Table]:
        """The report tables of the last call."""
        return [Table(*table) for table in self._core.tables()]

    def report(self) -> str:
        """Log and tables of the last call as text."""
        return self._core.report()
