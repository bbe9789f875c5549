"""How long operations tell how far they are."""
from __future__ import annotations

from typing import Any, Callable, Union

#: Called as progress(bytes done, bytes in all); True is a bar by tqdm; None is nothing.
Progress = Union[None, bool, Callable[[int, int], Any]]


class Meter:
    """Tells a Progress of what is done. A context manager, for the bar to be closed."""

    def __init__(self, progress: Progress, total: int) -> None:
        self._done = 0
        self._total = total
        self._bar: Any = None
        self._tell = progress if callable(progress) else None
        if progress is True:
            try:
                from tqdm import tqdm
            except ImportError:
                raise ImportError("progress=True needs tqdm; a function will do as well") from None
            self._bar = tqdm(total=total, unit="B", unit_scale=True)

    def __enter__(self) -> Meter:
        return self

    def __exit__(self, *failure: Any) -> None:
        if self._bar is not None:
            self._bar.close()

    def add(self, count: int) -> None:
        """Tells that `count` more bytes are done."""
        self._done += count
        if self._bar is not None:
            self._bar.update(count)
        if self._tell is not None:
            self._tell(self._done, self._total)
