"""What the process has, and how it is to be configured."""
from __future__ import annotations

from typing import Any, NamedTuple, Optional

from . import _core


class Status(NamedTuple):
    """What the process's pager holds at one moment. Sizes are bytes."""

    blocks: int  #: regions, of this process and of others
    local_blocks: int  #: those that this process made
    local_block_bytes: int
    local_piece_bytes: int  #: what the pieces in them take
    foreign_block_bytes: int
    foreign_piece_bytes: int
    mapped_bytes: int  #: in the address space, cached ones included
    cached_bytes: int  #: of these, views that nobody uses and that wait to be used again
    shared_memory_bytes: int  #: that this process's regions take of shared memory
    spare_file_bytes: int  #: of regions in the temp folder, as shared memory had no room for them
    temp_file_bytes: int  #: of the files that regions beyond `config.shared_memory_mb` lie in
    resident_bytes: Optional[int]  #: of mapped bytes, in physical memory; None if not asked for


def status(resident: bool = False) -> Status:
    """A picture of what the process holds. Threads: any.

    With `resident` it also counts what is in physical memory, some 40 ms for each mapped GB; None
    where the system doesn't tell.
    """
    return Status(*_core.status(resident))


def clear_cache() -> int:
    """Ends the views that nobody uses, and returns how many bytes that were. No data is lost."""
    return _core.clear_cache()


def _count(name: str, value: Any) -> int:
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"{name} is an int, not {type(value).__name__}")
    if not 0 <= value < 2**32 - 1:
        raise ValueError(f"{name} is 0 to 4294967294, not {value}")
    return value


def _setting(name: str, text: str, put: Any) -> property:
    def read(self: Config) -> Any:
        return _core.settings()[name]

    def write(self: Config, value: Any) -> None:
        put(_count(name, value))

    return property(read, write, doc=text)


class Config:
    """The settings of the process, as `mempager.config`. MB are 1048576 bytes.

    Set them before other threads use the library. Those of temp files are read once, at the first
    piece: afterwards they can't be set, which raises RuntimeError.
    """

    __slots__ = ("_chunk_bytes", "_handover_seconds")

    def __init__(self) -> None:
        self._chunk_bytes = 8 << 20
        self._handover_seconds = 60.0

    cache_mb = _setting(
        "cache_mb",
        "The most that stays mapped for later use, held against all that is mapped; 500 to 2000 by "
        "the machine's memory. The environment variable VORTELIX_CACHE_SIZE takes its place.",
        _core.set_cache_mb)
    shared_memory_mb = _setting(
        "shared_memory_mb",
        "Shared memory from which on new regions come from temp files; 1500.",
        _core.set_shared_memory_mb)
    log_level = _setting(
        "log_level",
        "Lines up to this level are written: 2 to 7, where 3 are failures, which is what is "
        "written unless set, 4 warnings, 5 to 7 more and more detail.",
        _core.set_log_level)

    @property
    def temp_folder(self) -> str:
        """Where temp files lie: TEMP of the environment, or /var/tmp."""
        return _core.settings()["temp_folder"]

    @property
    def temp_file_mb(self) -> int:
        """The size of a temp file; 1024."""
        return _core.settings()["temp_file_mb"]

    @property
    def temp_total_mb(self) -> int:
        """The most that all temp files of the process take; 10240."""
        return _core.settings()["temp_total_mb"]

    @property
    def temp_spare_mb(self) -> int:
        """What stays free of the temp folder's disk; 512."""
        return _core.settings()["temp_spare_mb"]

    def set_temp_files(self, folder: str | None = None, *, file_mb: int | None = None,
                       total_mb: int | None = None, spare_mb: int | None = None) -> None:
        """Sets what is given of the four values above. RuntimeError behind the first piece."""
        if status().local_blocks != 0:
            raise RuntimeError("temp files are configured before the first piece is made")
        numbers = {"file_mb": file_mb, "total_mb": total_mb, "spare_mb": spare_mb}
        _core.set_temp_files(
            folder, **{name: _count(name, n) for name, n in numbers.items() if n is not None})

    @property
    def chunk_bytes(self) -> int:
        """The size of a new Array's chunks, about, in bytes; 8388608."""
        return self._chunk_bytes

    @chunk_bytes.setter
    def chunk_bytes(self, value: int) -> None:
        if _count("chunk_bytes", value) == 0:
            raise ValueError("chunk_bytes is at least 1")
        self._chunk_bytes = value

    @property
    def handover_seconds(self) -> float:
        """How long memory is kept for a receiver that hasn't come yet; 60."""
        return self._handover_seconds

    @handover_seconds.setter
    def handover_seconds(self, value: float) -> None:
        if not value >= 0:
            raise ValueError("handover_seconds isn't negative")
        self._handover_seconds = float(value)

    def __repr__(self) -> str:
        names = ["cache_mb", "shared_memory_mb", "temp_folder", "temp_file_mb", "temp_total_mb",
                 "temp_spare_mb", "log_level", "chunk_bytes", "handover_seconds"]
        return f"Config({', '.join(f'{name}={getattr(self, name)!r}' for name in names)})"


#: The settings of this process.
config = Config()
