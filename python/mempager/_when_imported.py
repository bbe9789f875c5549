"""Does something once a module is imported, be that now, later or never."""
from __future__ import annotations

import importlib.util
import sys
from typing import Any, Callable


def when_imported(name: str, then: Callable[[], Any]) -> None:
    """Calls `then` behind the import of the module, or at once if that was before."""
    if name in sys.modules:
        then()
    else:
        sys.meta_path.insert(0, _Finder(name, then))  # type: ignore[arg-type]


class _Finder:
    """Finds one module as others do, and adds a call to its loading."""

    def __init__(self, name: str, then: Callable[[], Any]) -> None:
        self._name = name
        self._then = then

    def find_spec(self, name: str, path: Any = None, target: Any = None) -> Any:
        """Called for each import."""
        if name != self._name:
            return None
        sys.meta_path.remove(self)  # type: ignore[arg-type]
        spec = importlib.util.find_spec(name)
        if spec is not None and spec.loader is not None:
            load = spec.loader.exec_module

            def exec_module(module: Any) -> None:
                load(module)
                self._then()

            spec.loader.exec_module = exec_module  # type: ignore
        return spec
