"""The compiled part: memory, its mappings, and what concerns the process."""
from typing import Any, Optional, Tuple, Type

import numpy as np

version: str

class Memory:
    """Some bytes that this process owns, or reads of another. Threads: any."""

    def __init__(self, bytes: int, zeros: bool) -> None:
        """New memory. MemoryError; OverflowError above 4294967232 bytes."""
    @staticmethod
    def open(descriptor: bytes, bytes: int) -> Memory:
        """Another process's memory, to read. ValueError: no descriptor, or made here."""
    def map(self, readonly: bool = False) -> Mapping:
        """Makes it usable while the mapping lives. MemoryError."""
    def alias(self) -> Memory:
        """Another one for the same bytes, to read."""
    def descriptor(self) -> bytes:
        """What another process opens it by. ValueError if it isn't this process's own."""
    @property
    def size(self) -> int:
        """Bytes."""
    @property
    def is_foreign(self) -> bool: ...
    @property
    def mappings(self) -> int:
        """How many live."""

class Mapping:
    """The bytes, by the buffer protocol, for as long as this lives."""

class View:
    """An array on a mapping, for a `with` block: see Piece.map()."""

    def __init__(self, array: np.ndarray, warning: Optional[Type[Warning]]) -> None: ...
    @property
    def array(self) -> np.ndarray:
        """The array. ValueError behind the block."""
    def __enter__(self) -> np.ndarray: ...
    def __exit__(self, *failure: Any) -> None: ...
    def leave(self, depth: int = 0) -> None:
        """Ends it; the block is `depth` Python frames up."""

def status(resident: bool) -> Tuple[int, int, int, int, int, int, int, int, int, int, int,
                                    Optional[int]]: ...
def clear_cache() -> int: ...
def settings() -> dict[str, Any]: ...
def set_cache_mb(mb: int) -> None: ...
def set_shared_memory_mb(mb: int) -> None: ...
def set_temp_files(folder: Optional[str] = ..., file_mb: int = ..., total_mb: int = ...,
                   spare_mb: int = ...) -> None: ...
def set_log_level(level: int) -> None: ...
def listen() -> None: ...
def flush_log() -> None: ...
def forget_log() -> None: ...
