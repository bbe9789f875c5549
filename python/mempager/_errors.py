"""What the package raises besides Python's own exceptions, and warns of."""


class FreedError(ValueError):
    """The memory is gone: its piece was freed, or the process that had it has ended."""


class OutOfMemoryError(MemoryError):
    """There is no memory left for it, or no room to map it; nothing has changed. The text is one
    line, with what stood in the way and its numbers.

    It can be pickled, so it comes from a worker as it was raised there."""

    operation: str
    """What was refused: "allocate", "register", "map", "cache" or "other"; empty if unknown."""
    limit: str
    """What stood in the way, the first if several did: "shared_memory", "shared_memory_names",
    "disk", "disk_names", "quota", "group" (the control group's memory), "machine", "commitment",
    "address_space", "maps", "file_size", "descriptors", "open_files", "setting" (one of
    mempager.config), "memory", "request", "descriptor", "freed_piece", "ended" (the process is
    ending) or "unknown"; empty if nothing is known of it."""
    wanted: int
    """Bytes that were asked for; 0 where none were."""
    most: int
    """The limit itself, in bytes or in how many; 0 if it isn't known."""
    left: int
    """What was left of it."""

    def __init__(self, text: str, operation: str = "", limit: str = "", wanted: int = 0,
                 most: int = 0, left: int = 0) -> None:
        super().__init__(text)
        self.operation, self.limit = operation, limit
        self.wanted, self.most, self.left = wanted, most, left


class StillMappedWarning(RuntimeWarning):
    """An array outlives the block that mapped it. Its memory stays mapped until it goes, too."""
