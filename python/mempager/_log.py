"""The library's log in Python's logging, under the logger "mempager".

The library writes lines with its locks held, and from any thread. They wait in a queue of 256
until a call of this package returns, which holds none of these locks, and go to `logging` there.
"""
from __future__ import annotations

import atexit
import logging
import os

from . import _core

_logger = logging.getLogger("mempager")

# The library's levels, of which lower is graver.
_LEVELS = {
    1: logging.CRITICAL, 2: logging.CRITICAL, 3: logging.ERROR, 4: logging.WARNING,
    5: logging.INFO, 6: logging.INFO, 7: logging.DEBUG,
}


def flush_log() -> None:
    """Hands the lines that wait to `logging`. Calls of the package do so when they return."""
    _core.flush_log()


def deliver(lines: list[tuple[int, str, int, str, str]], lost: int) -> None:
    """Called by the compiled part: (level, source, line, function, text) of each."""
    for level, source, line, function, text in lines:
        grade = _LEVELS.get(level, logging.DEBUG)
        if _logger.isEnabledFor(grade):
            _logger.handle(_logger.makeRecord(
                _logger.name, grade, source, line, text, (), None, function))
    if lost:
        _logger.warning("%d lines of the log found no place in the queue", lost)


_core.listen()
# What the library says after that is of what lives at the end, which Python's objects may do.
atexit.register(flush_log)
os.register_at_fork(after_in_child=_core.forget_log)
