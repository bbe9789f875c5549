"""Arrays of any size, in chunks of which each is a piece."""
from __future__ import annotations

import math
import operator
import uuid
from typing import Any, Callable, Iterator, List, Optional, SupportsIndex, Tuple

import numpy as np

from . import _handover, _index
from ._config import config
from ._core import Mapping, View
from ._piece import Piece, ShapeLike, as_dtype, as_shape, empty, zeros
from ._progress import Meter, Progress


class Array:
    """An n-dimensional array in pager memory that may be larger than address space and memory.

        a = mempager.Array((100_000, 512, 512), "float32")     # 100 GB of zeros, were there room
        a[10:20, :, 5] = 1                                      # written where it lies
        for rows, block in a.blocks():                          # a numpy.ndarray for each chunk
            block += rows.start
        a.resize(200_000)                                       # along the first axis

    The rows, which is what the first axis counts, lie in chunks of about 8 MB (`chunk_bytes`, or
    config.chunk_bytes), each of them a piece that is mapped while it is used: shared memory first,
    temp files beyond config.shared_memory_mb.

    Reading gives copies, but for an index that takes exactly one whole chunk: that is the chunk
    itself, mapped, read-only, without a copy. An index may have arrays in it for reading only.

    Pickled, it goes to other processes as the descriptors of its chunks, and they read them in
    place. There it has the size that it had then; what is written to it there is carried to the
    process that made it, which alone writes. See docs/python.md.

    Threads: any may read and write at one time, as with a numpy.ndarray; resize() is for one, with
    no other in the array.
    """

    __slots__ = ("_chunks", "_rows", "_tail", "_dtype", "_per_chunk", "_readonly", "__weakref__")

    def __init__(self, shape: ShapeLike, dtype: Any = float,
                 chunk_bytes: Optional[int] = None) -> None:
        """Zeros. MemoryError without memory, and what was had of it is given back then; ValueError
        for a shape without a first axis; TypeError for Python objects as elements; OverflowError
        if a row has more than 4294967232 bytes."""
        sizes = as_shape(shape)
        if not sizes:
            raise ValueError("an Array has a first axis at least")
        self._dtype = as_dtype(dtype)
        self._tail = sizes[1:]
        wanted = config.chunk_bytes if chunk_bytes is None else operator.index(chunk_bytes)
        if wanted <= 0:
            raise ValueError("chunk_bytes is at least 1")
        self._per_chunk = max(min(wanted, 2**32 - 64) // max(self._row_bytes(), 1), 1)
        self._chunks: Tuple[Piece, ...] = ()
        self._rows = 0
        self._readonly = False
        self.resize(sizes[0])

    @property
    def shape(self) -> Tuple[int, ...]:
        """As of a numpy.ndarray."""
        return (self._rows, *self._tail)

    @property
    def dtype(self) -> np.dtype:
        """As of a numpy.ndarray."""
        return self._dtype

    @property
    def ndim(self) -> int:
        """How many dimensions there are."""
        return 1 + len(self._tail)

    @property
    def size(self) -> int:
        """How many elements there are."""
        return math.prod(self.shape)

    @property
    def nbytes(self) -> int:
        """How many bytes the elements take."""
        return self._rows * self._row_bytes()

    @property
    def chunks(self) -> Tuple[int, ...]:
        """The shape of a whole chunk; by this, Dask's chunks become these."""
        return (min(self._per_chunk, max(self._rows, 1)), *self._tail)

    @property
    def readonly(self) -> bool:
        """Whether it came from another process, which alone writes and resizes it."""
        return self._readonly

    def _row_bytes(self) -> int:
        return math.prod(self._tail) * self._dtype.itemsize

    def __len__(self) -> int:
        return self._rows

    def __repr__(self) -> str:
        state = "read-only " if self._readonly else ""
        return f"<{state}mempager.Array {self.shape} {self._dtype}, {len(self._chunks)} chunks>"

    # Chunks --------------------------------------------------------------------------------------

    def _mapped(self, number: int) -> np.ndarray:
        """The rows of a chunk that are in use."""
        used = self._rows - number * self._per_chunk
        chunk = self._chunks[number].mapped()
        return chunk if used >= len(chunk) else chunk[:used]

    def blocks(self) -> Iterator[Tuple[slice, np.ndarray]]:
        """The array in order, chunk by chunk: which rows, and these as a numpy.ndarray without a
        copy, to be written too unless the array is read-only. When the next one is asked for, the
        loop's variable is emptied, as behind a `with` block; a block that anything else refers to
        stays, and stays mapped. MemoryError if there is no room for it."""
        for number in range(len(self._chunks)):
            first = number * self._per_chunk
            view = View(self._mapped(number), None)
            yield slice(first, min(first + self._per_chunk, self._rows)), view.array
            view.leave(1)

    def resize(self, rows: int) -> None:
        """Sets the length of the first axis. New rows are zeros. At most one chunk is copied.

        BufferError, and nothing has changed, if a chunk that would be cut, copied or given back is
        in use by an array in this process; MemoryError, and nothing has changed; ValueError for an
        array of another process."""
        rows = operator.index(rows)
        if rows < 0:
            raise ValueError("a length isn't negative")
        if self._readonly:
            raise ValueError("only the process that made the array resizes it")
        if rows <= self._rows:
            self._cut(rows)
        else:
            self._grow(rows)

    def _refuse_if_used(self, chunks: Tuple[Piece, ...]) -> None:
        if any(chunk.mappings for chunk in chunks):
            raise BufferError("an array on a chunk is in use: it can't be resized")

    def _cut(self, rows: int) -> None:
        whole, kept = rows // self._per_chunk, -(-rows // self._per_chunk)
        if rows != self._rows:
            self._refuse_if_used(self._chunks[whole:])
        self._chunks = self._chunks[:kept]
        self._rows = rows

    def _grow(self, rows: int) -> None:
        last = len(self._chunks) - 1
        fresh = [self._new_chunk(first, rows)
                 for first in range(len(self._chunks) * self._per_chunk, rows, self._per_chunk)]
        kept = self._chunks
        if last >= 0:
            end = min(rows - last * self._per_chunk, self._per_chunk)
            if len(kept[last]) < end:
                self._refuse_if_used(kept[last:])
                kept = (*kept[:last], self._longer(kept[last], end))
            self._clear(kept[last], self._rows - last * self._per_chunk)
        self._chunks = (*kept, *fresh)
        self._rows = rows

    def _new_chunk(self, first: int, rows: int) -> Piece:
        return zeros((min(self._per_chunk, rows - first), *self._tail), self._dtype)

    def _longer(self, chunk: Piece, least: int) -> Piece:
        """A copy with more rows: twice as many, so that growing row by row copies each but twice."""
        rows = max(least, min(2 * len(chunk), self._per_chunk))
        longer = zeros((rows, *self._tail), self._dtype)
        longer.mapped()[:len(chunk)] = chunk.mapped()
        return longer

    @staticmethod
    def _clear(chunk: Piece, first: int) -> None:
        """What was cut off once, and comes back, is zeros."""
        rest = chunk.mapped()[first:]
        rest[...] = np.zeros((), rest.dtype)

    # Reading -------------------------------------------------------------------------------------

    def __getitem__(self, key: Any) -> Any:
        basic = _index.split(key, self.shape)
        if basic is None:
            rows, inside = _index.box(key, self.shape)
            return self[rows][inside]
        new_axes = (None,) * basic.new_axes
        if isinstance(basic.rows, range):
            taken = self._take(basic.rows, basic)
            return taken[new_axes] if new_axes else taken
        number, row = divmod(basic.rows, self._per_chunk)
        return self._mapped(number)[(*new_axes, row, *basic.rest)].copy()

    def _take(self, rows: range, basic: _index.Basic) -> np.ndarray:
        shape = _index.result_shape(rows, basic.rest, self._tail)
        parts = _index.parts_of(rows, self._per_chunk)
        if basic.takes_whole_rows() and self._is_one_chunk(rows):
            chunk = self._mapped(rows.start // self._per_chunk)
            chunk.flags.writeable = False
            return chunk
        taken = np.empty(shape, self._dtype)
        for part in parts:
            taken[part.there] = self._mapped(part.chunk)[(part.inside, *basic.rest)]
        return taken

    def _is_one_chunk(self, rows: range) -> bool:
        return len(rows) > 0 and rows.step == 1 and rows.start % self._per_chunk == 0 and \
            rows.stop == min(rows.start + self._per_chunk, self._rows)

    def __array__(self, dtype: Any = None, copy: Optional[bool] = None) -> np.ndarray:
        if copy is False:
            raise ValueError("np.asarray() of an Array copies: use blocks()")
        whole = np.empty(self.shape, self._dtype if dtype is None else dtype)
        for rows, block in self.blocks():
            whole[rows] = block
        return whole

    def __iter__(self) -> Iterator[Any]:
        return (self[row] for row in range(self._rows))

    # Writing -------------------------------------------------------------------------------------

    def __setitem__(self, key: Any, value: Any) -> None:
        basic = _index.split(key, self.shape)
        if basic is None:
            raise IndexError("an Array is written by numbers and slices; blocks() and map_blocks "
                             "are for what takes arrays of indices")
        if not isinstance(value, Array) or value is self:
            is_record = self._dtype.names is not None and isinstance(value, tuple)
            value = np.asarray(value, self._dtype if is_record else None)
        if isinstance(basic.rows, range):
            self._put(basic.rows, basic.rest, value)
        else:
            number, row = divmod(basic.rows, self._per_chunk)
            self._put_in_chunk(number, (row, *basic.rest, ...), np.asarray(value))

    def _put(self, rows: range, rest: Tuple[Any, ...], value: Any) -> None:
        shape = _index.result_shape(rows, rest, self._tail)
        if value.shape != shape:
            value = np.asarray(value)
            while value.ndim > len(shape) and value.shape[0] == 1:
                value = value[0]
            value = np.broadcast_to(value, shape)
        if _is_mapped(value):
            value = value.copy()  # it may be a chunk that is written on the way
        for part in _index.parts_of(rows, self._per_chunk):
            self._put_in_chunk(part.chunk, (part.inside, *rest), value[part.there])

    def _put_in_chunk(self, number: int, index: Tuple[Any, ...], value: np.ndarray) -> None:
        chunk = self._mapped(number)
        if not self._readonly:
            chunk[index] = value
            return
        sent = np.empty(np.shape(chunk[index]), self._dtype)
        sent[...] = value
        old_axes = tuple(part for part in index if part is not None and part is not ...)
        _handover.write(self._chunks[number]._living(), chunk.shape, old_axes, sent)

    def __array_ufunc__(self, ufunc: np.ufunc, method: str, *inputs: Any, **options: Any) -> Any:
        if method != "__call__" or "out" in options or ufunc.nout != 1:
            return NotImplemented
        return map_blocks(ufunc, *inputs, **options)

    # Dask ----------------------------------------------------------------------------------------

    def to_dask(self, **options: Any) -> Any:
        """A dask.array.Array whose chunks are these, so that none is copied to be read; `options`
        go to dask.array.from_array. ImportError without Dask.

        The other way, `dask.array.store(x, array, lock=False)` writes into an Array, in whichever
        process. It needs no lock, and other processes couldn't share one."""
        import dask.array

        return dask.array.from_array(self, **{"chunks": self.chunks, **options})

    def __dask_tokenize__(self) -> str:
        return uuid.uuid4().hex  # what was computed of it once may not hold any more

    # Other processes -----------------------------------------------------------------------------

    def __reduce_ex__(self, protocol: SupportsIndex) -> Any:
        layout = (self.shape, self._dtype, self._per_chunk)
        if _handover.is_by_bytes():
            chunks = [_handover.bytes_of(self._mapped(number), protocol)
                      for number in range(len(self._chunks))]
            return _from_bytes, (chunks, layout)
        return _from_ticket, (_handover.ticket([c._living() for c in self._chunks]),
                              [len(chunk) for chunk in self._chunks], layout)

    def copy(self) -> Array:
        """An Array of this process with the same values, to write and resize as well."""
        made = self._like(self.shape, self._dtype)
        for rows, block in self.blocks():
            made[rows] = block
        return made

    def __copy__(self) -> Array:
        return self.copy()

    def __deepcopy__(self, seen: Any) -> Array:
        return self.copy()

    def _like(self, shape: Tuple[int, ...], dtype: Any) -> Array:
        made = Array((0, *shape[1:]), dtype)
        made._per_chunk = self._per_chunk
        made.resize(shape[0])
        return made


def _is_mapped(value: Any) -> bool:
    """Whether it is an array, or a part of one, on a mapping."""
    while isinstance(value, np.ndarray):
        value = value.base
    return isinstance(value, Mapping)


def _received(chunks: List[Piece], layout: Tuple[Any, ...]) -> Array:
    shape, dtype, per_chunk = layout
    made = Array((0, *shape[1:]), dtype)
    made._per_chunk, made._rows = per_chunk, shape[0]
    made._chunks, made._readonly = tuple(chunks), True
    return made


def _from_ticket(ticket: _handover.Ticket, lengths: List[int], layout: Tuple[Any, ...]) -> Array:
    shape, dtype, _ = layout
    chunks = [Piece(memory, (length, *shape[1:]), dtype, readonly=True)
              for memory, length in zip(_handover.receive(ticket), lengths)]
    return _received(chunks, layout)


def _from_bytes(sources: List[Any], layout: Tuple[Any, ...]) -> Array:
    (rows, *tail), dtype, per_chunk = layout
    chunks = []
    for first, source in zip(range(0, rows, per_chunk), sources):
        chunk = empty((min(per_chunk, rows - first), *tail), dtype)
        chunk.mapped()[...] = np.ndarray(chunk.shape, dtype, source)
        chunk._readonly = True
        chunks.append(chunk)
    return _received(chunks, layout)


def map_blocks(function: Callable[..., Any], *inputs: Any, out: Optional[Array] = None,
               progress: Progress = None, **options: Any) -> Array:
    """Applies a function, say a ufunc, block by block: to arrays of more bytes than fit into memory.

        distance = mempager.map_blocks(np.hypot, x, y)

    `inputs` of which one at least is an Array; numpy.ndarrays with as many dimensions and rows as
    that are cut into blocks as well, and so are other Arrays; everything else, numbers say, goes to
    each call as it is. The function gets numpy.ndarrays, read-only where they are of an Array, and
    returns one with as many rows. `options` go to it, too.

    The result is `out`, which may be one of the inputs, or a new Array with chunks of as many rows
    as the first Array's. `progress` is called as progress(bytes done, bytes in all) of that first
    Array, or is True for a bar by tqdm, if that is installed. ValueError if lengths differ."""
    first = next((one for one in inputs if isinstance(one, Array)), None)
    if first is None:
        raise TypeError("map_blocks needs an Array among its inputs")
    if any(isinstance(one, Array) and len(one) != len(first) for one in (*inputs, out)):
        raise ValueError("arrays of different lengths can't be mapped together")
    with Meter(progress, first.nbytes) as meter:
        for rows, block in _blocks_of(first):
            result = np.asarray(function(*(_rows_of(one, rows, first) for one in inputs),
                                         **options))
            if result.shape[:1] != (len(block),):
                raise ValueError(f"{len(block)} rows became {result.shape[:1]}")
            if out is None:
                out = first._like((len(first), *result.shape[1:]), result.dtype)
            out[rows] = result
            meter.add(block.nbytes)
    return out  # type: ignore[return-value]  # there is a block, if an empty one


def _blocks_of(array: Array) -> Iterator[Tuple[slice, np.ndarray]]:
    return array.blocks() if len(array) else iter([(slice(0, 0), array[0:0])])


def _rows_of(one: Any, rows: slice, first: Array) -> Any:
    is_cut = isinstance(one, np.ndarray) and one.ndim == first.ndim and len(one) == len(first)
    return one[rows] if isinstance(one, Array) or is_cut else one
