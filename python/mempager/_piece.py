"""One stretch of pager memory, seen as an array."""
from __future__ import annotations

import math
import operator
import threading
from typing import Any, Dict, List, Sequence, SupportsIndex, Tuple, Union

import numpy as np

from . import _handover
from ._core import Memory, View
from ._errors import FreedError, StillMappedWarning

ShapeLike = Union[int, Sequence[int]]


def as_shape(shape: ShapeLike) -> Tuple[int, ...]:
    """The shape as a tuple. TypeError and ValueError for what is none."""
    try:
        sizes: Tuple[int, ...] = (operator.index(shape),)  # type: ignore[arg-type]
    except TypeError:
        sizes = tuple(operator.index(size) for size in shape)  # type: ignore[union-attr]
    if any(size < 0 for size in sizes):
        raise ValueError(f"a shape has no negative sizes: {sizes}")
    return sizes


def as_dtype(dtype: Any) -> np.dtype:
    """The type of elements that other processes can read: TypeError if it holds references."""
    kind = np.dtype(dtype)
    if kind.hasobject:
        raise TypeError(f"{kind} refers to Python objects, which mean nothing in shared memory")
    return kind


class Piece:
    """An array of at most 4294967232 bytes in pager memory, together in one stretch.

        piece = mempager.zeros((480, 640), "float32")
        with piece.map() as image:      # a numpy.ndarray, without a copy
            image += 1
        # not mapped any more; `image` is empty now, and the values stay in the piece

    Make one by `mempager.empty`, `zeros` or `array`. It lives until the last reference to it goes,
    and until the last array on it does. Pickled, it goes to other processes as a descriptor of
    some 200 bytes: they read the same memory, and what is written meanwhile is seen; see
    docs/python.md for how long that holds. There the piece is read-only.

    Threads: any may use one piece, at one time too.
    """

    __slots__ = ("_memory", "_shape", "_dtype", "_readonly", "_entered", "__weakref__")

    def __init__(self, memory: Memory, shape: Tuple[int, ...], dtype: np.dtype,
                 readonly: bool = False) -> None:
        """For the package itself: use `mempager.empty` and its kin."""
        self._memory: Memory | None = memory
        self._shape = shape
        self._dtype = dtype
        self._readonly = readonly
        self._entered: Dict[int, List[View]] = {}

    @property
    def shape(self) -> Tuple[int, ...]:
        """As of a numpy.ndarray."""
        return self._shape

    @property
    def dtype(self) -> np.dtype:
        """As of a numpy.ndarray."""
        return self._dtype

    @property
    def ndim(self) -> int:
        """How many dimensions there are."""
        return len(self._shape)

    @property
    def size(self) -> int:
        """How many elements there are."""
        return math.prod(self._shape)

    @property
    def nbytes(self) -> int:
        """How many bytes the elements take."""
        return self.size * self._dtype.itemsize

    @property
    def readonly(self) -> bool:
        """Whether it came from another process, which alone writes it."""
        return self._readonly

    @property
    def freed(self) -> bool:
        """Whether free() was called."""
        return self._memory is None

    @property
    def mappings(self) -> int:
        """How many mappings of it live in this process."""
        return self._living().mappings

    def _living(self) -> Memory:
        memory = self._memory
        if memory is None:
            raise FreedError("the piece was freed")
        return memory

    def mapped(self) -> np.ndarray:
        """An array on the piece, which keeps its mapping for as long as anything refers to it.
        MemoryError if there is no room; FreedError."""
        memory = _handover.still_ours(self._living())
        return np.ndarray(self._shape, self._dtype, memory.map(self._readonly))  # type: ignore

    def map(self) -> View:
        """The piece as a numpy.ndarray, for a `with` block; `np.from_dlpack` and `memoryview` take
        it as any other. Behind the block it isn't mapped any more, and the block's variable is an
        empty array. If other references or views of it are in use still, it stays mapped for as
        long as they are, and a StillMappedWarning says so.

        Mapping a view that waits in the cache costs no system call. The address can be another
        one each time. MemoryError if there is no room; FreedError."""
        return View(self.mapped(), StillMappedWarning)

    def __enter__(self) -> np.ndarray:
        """`with piece as a:` is `with piece.map() as a:`."""
        view = self.map()
        self._entered.setdefault(threading.get_ident(), []).append(view)
        return view.array

    def __exit__(self, *failure: Any) -> None:
        views = self._entered[threading.get_ident()]
        view = views.pop()
        if not views:
            del self._entered[threading.get_ident()]
        view.leave(1)

    def free(self) -> None:
        """Gives the memory back now. Arrays that are still mapped keep it until they go; every
        other use of the piece raises FreedError. Freeing it twice does nothing."""
        self._memory = None

    def copy(self) -> Piece:
        """A piece of this process with the same values, to write as well."""
        return array(self.mapped())

    def __copy__(self) -> Piece:
        return self.copy()

    def __deepcopy__(self, seen: Any) -> Piece:
        return self.copy()

    def __array__(self, dtype: Any = None, copy: bool | None = None) -> np.ndarray:
        if copy is False:
            raise ValueError("np.asarray() of a piece copies: use map()")
        return np.array(self.mapped(), dtype=dtype)

    def __len__(self) -> int:
        if not self._shape:
            raise TypeError("a piece without dimensions has no length")
        return self._shape[0]

    def __reduce_ex__(self, protocol: SupportsIndex) -> Any:
        if _handover.is_by_bytes():
            return _from_bytes, (_handover.bytes_of(self.mapped(), protocol), self._shape,
                                 self._dtype)
        ticket = _handover.ticket([self._living()])
        return _from_ticket, (ticket, self._shape, self._dtype)

    def __repr__(self) -> str:
        state = "freed " if self.freed else "read-only " if self._readonly else ""
        return f"<{state}mempager.Piece {self._shape} {self._dtype}>"


def _from_ticket(ticket: _handover.Ticket, shape: Tuple[int, ...], dtype: np.dtype) -> Piece:
    return Piece(_handover.receive(ticket)[0], shape, dtype, readonly=True)


def _from_bytes(source: Any, shape: Tuple[int, ...], dtype: np.dtype) -> Piece:
    piece = array(np.ndarray(shape, dtype, source))
    piece._readonly = True
    return piece


def _make(shape: ShapeLike, dtype: Any, zero: bool) -> Piece:
    sizes, kind = as_shape(shape), as_dtype(dtype)
    return Piece(_handover.new_memory(math.prod(sizes) * kind.itemsize, zero), sizes, kind)


def empty(shape: ShapeLike, dtype: Any = float) -> Piece:
    """A piece whose values are whatever the memory has: not less secret than this process's own.

    MemoryError without memory; OverflowError above 4294967232 bytes, for which there is Array;
    TypeError for elements that are Python objects."""
    return _make(shape, dtype, False)


def zeros(shape: ShapeLike, dtype: Any = float) -> Piece:
    """A piece of zeros. Errors as `empty`."""
    return _make(shape, dtype, True)


def array(source: Any, dtype: Any = None) -> Piece:
    """A piece with the values of an array, or of what NumPy makes one of. Errors as `empty`."""
    values = np.asarray(source, dtype)
    piece = empty(values.shape, values.dtype)
    piece.mapped()[...] = values
    return piece
