"""NumPy arrays in pager memory: more data than address space or memory limits take.

Data lies in shared memory, or beyond a limit in temp files, and takes address space only while it
is mapped. `empty`, `zeros` and `array` make a `Piece`, which is one stretch of memory; `Array` has
any size, in chunks. Both can be pickled to other processes, which read them where they lie.

Without memory an operation raises OutOfMemoryError, a MemoryError that tells the cause. Any thread
may call anything; the interpreter's lock is free while the library works.
"""
import importlib as _importlib

from ._array import Array, map_blocks
from ._config import Config, Status, clear_cache, config, status
from ._core import View, version as __version__
from ._errors import FreedError, OutOfMemoryError, StillMappedWarning
from ._handover import by_bytes
from ._log import flush_log
from ._piece import Piece, array, empty, zeros
from ._when_imported import when_imported as _when_imported

_when_imported("distributed", lambda: _importlib.import_module("mempager._dask"))

__all__ = [
    "Array", "Config", "FreedError", "OutOfMemoryError", "Piece", "Status", "StillMappedWarning",
    "View", "array", "by_bytes", "clear_cache", "config", "empty", "flush_log", "map_blocks",
    "status", "zeros",
]
