"""What the package raises besides Python's own exceptions, and warns of."""


class FreedError(ValueError):
    """The memory is gone: its piece was freed, or the process that had it has ended."""


class StillMappedWarning(RuntimeWarning):
    """An array outlives the block that mapped it. Its memory stays mapped until it goes, too."""
