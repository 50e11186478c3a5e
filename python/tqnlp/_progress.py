"""A live line that tells how far a run is."""

from __future__ import annotations

import sys
import time
from typing import Any, Protocol

_PERIOD = 0.1  # seconds between two looks


class _Line(Protocol):
    def show(self, text: str) -> None: ...
    def close(self) -> None: ...


class _Tqdm:
    def __init__(self) -> None:
        from tqdm.auto import tqdm

        self._bar = tqdm(bar_format="{desc}")

    def show(self, text: str) -> None:
        self._bar.set_description_str(text)

    def close(self) -> None:
        self._bar.close()


class _Rich:
    def __init__(self) -> None:
        from rich.console import Console
        from rich.live import Live

        self._console = Console(stderr=True)
        self._live = Live(console=self._console, auto_refresh=False)
        self._live.start()

    def show(self, text: str) -> None:
        self._live.update(text, refresh=True)

    def close(self) -> None:
        self._live.stop()
        if not self._console.is_terminal:
            sys.stderr.write("\n")


class _Plain:
    """Writes over its line on a terminal; elsewhere the last text alone."""

    def __init__(self) -> None:
        self._last = ""

    def show(self, text: str) -> None:
        if sys.stderr.isatty():
            sys.stderr.write("\r" + text.ljust(len(self._last)))
            sys.stderr.flush()
        self._last = text

    def close(self) -> None:
        sys.stderr.write("\n" if sys.stderr.isatty() else self._last + "\n")


def _line() -> _Line:
    kinds: tuple[type[_Line], ...] = (_Tqdm, _Rich)
    for kind in kinds:
        try:
            return kind()
        except ImportError:
            pass
    return _Plain()


class Live:
    """A line on standard error by tqdm, by rich, or plain; it ends with the block it is made for.

    Without `wanted` nothing is shown.
    """

    def __init__(self, wanted: Any) -> None:
        self._line = _line() if wanted else None
        self._text = ""
        self._next = 0.0

    def __enter__(self) -> Live:
        return self

    def __exit__(self, *_: Any) -> None:
        if self._line is not None:
            if self._text:
                self._line.show(self._text)
            self._line.close()

    def show(self, text: str) -> None:
        """Shows a text, unless the last one was shown just now."""
        self._text = text
        if self._line is not None and time.monotonic() >= self._next:
            self._line.show(text)
            self._next = time.monotonic() + _PERIOD

    def show_run(self, fun: float, iteration: int, calls: int, gradient: float) -> None:
        slope = "" if gradient != gradient else f", gradient {gradient:.2e}"
        self.show(f"{iteration} iterations, {calls} calls, objective {fun:.8g}{slope}")
