"""A life of slices and resizes beside a plain NumPy array that sees the same ones.

MEMPAGER_LONG=1 makes it 10,000 steps.
"""
import os

import numpy as np
import pytest
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, invariant, rule

import mempager

LIVES = 600 if os.environ.get("MEMPAGER_LONG") else 20
DTYPES = ["u1", "f4", "<i8", "c16", "S3", [("x", "i2"), ("y", "f8")]]


@st.composite
def a_slice(draw, size):
    places = st.none() | st.integers(-size - 2, size + 2)
    return slice(draw(places), draw(places), draw(st.none() | st.sampled_from([1, 2, 3, -1, -2])))


@st.composite
def an_index(draw, shape, arrays=False):
    parts = []
    for size in shape[:draw(st.integers(0, len(shape)))]:
        kinds = [a_slice(size)] + [st.integers(-size, size - 1)] * (size > 0)
        if arrays and size:
            kinds.append(st.lists(st.integers(-size, size - 1), max_size=1))
        parts.append(draw(st.one_of(kinds)))
    for extra in draw(st.sampled_from([(), (), (None,), (Ellipsis,), (Ellipsis, None)])):
        if extra is None or len(parts) < len(shape):
            parts.insert(draw(st.integers(0, len(parts))), extra)
    return parts[0] if len(parts) == 1 and draw(st.booleans()) else tuple(parts)


def some(shape, dtype, seed):
    bits = np.random.default_rng(seed).integers(0, 100, shape)
    return np.stack([bits] * 2, -1).astype("u1").view("S2")[..., 0].astype(dtype) \
        if np.dtype(dtype).kind == "S" else bits.astype(dtype)


class Life(RuleBasedStateMachine):
    """Both arrays; what is done to one is done to the other."""

    steps = 0

    @initialize(shape=st.lists(st.integers(0, 12), min_size=1, max_size=4),
                dtype=st.sampled_from(DTYPES), chunk=st.integers(1, 3000))
    def begin(self, shape, dtype, chunk):
        self.real = mempager.Array(shape, dtype, chunk_bytes=chunk)
        self.model = np.zeros(shape, dtype)

    def is_refused(self, index):
        """By both or none: with an ellipsis, a number can be meant for another axis."""
        try:
            self.model[index]
        except IndexError:
            with pytest.raises(IndexError):
                self.real[index]
            return True
        return False

    @rule(data=st.data())
    def read(self, data):
        index = data.draw(an_index(self.model.shape, arrays=True))
        if self.is_refused(index):
            return
        there, expected = self.real[index], self.model[index]
        assert (np.shape(there), there.dtype) == (expected.shape, expected.dtype)
        np.testing.assert_array_equal(there, expected)

    @rule(data=st.data(), seed=st.integers(0, 2**32), form=st.sampled_from("all last one".split()))
    def write(self, data, seed, form):
        index = data.draw(an_index(self.model.shape))
        if self.is_refused(index):
            return
        shape = self.model[index].shape
        value = some({"all": shape, "last": shape[-1:], "one": ()}[form], self.model.dtype, seed)
        self.real[index] = value
        self.model[index] = value

    @rule(data=st.data())
    def move(self, data):
        rows = len(self.model)
        count = data.draw(st.integers(0, rows))
        to, start = data.draw(st.integers(0, rows - count)), data.draw(st.integers(0, rows - count))
        self.real[to:to + count] = self.real[start:start + count]
        self.model[to:to + count] = self.model[start:start + count].copy()

    @rule(rows=st.integers(0, 40))
    def resize(self, rows):
        before = self.model
        self.model = np.zeros((rows, *before.shape[1:]), before.dtype)
        self.model[:len(before)] = before[:rows]
        self.real.resize(rows)

    @invariant()
    def agrees(self):
        Life.steps += 1
        if hasattr(self, "model"):
            assert (self.real.shape, self.real.nbytes) == (self.model.shape, self.model.nbytes)
            np.testing.assert_array_equal(np.asarray(self.real), self.model)


Life.TestCase.settings = settings(max_examples=LIVES, stateful_step_count=50, deadline=None,
                                  suppress_health_check=list(HealthCheck), database=None)
TestLife = pytest.mark.filterwarnings("ignore:Out of bound index")(Life.TestCase)


@pytest.fixture(scope="module", autouse=True)
def long_lives():
    """That there were as many steps as are promised."""
    yield
    if LIVES > 20:
        assert Life.steps >= 10_000


def counted(rows=1000):
    array = mempager.Array((rows, 100), "f8", chunk_bytes=100_000)  # 125 rows in each chunk
    array[...] = np.arange(rows * 100.0).reshape(rows, 100)
    return array


def test_whole_chunks_come_without_a_copy():
    array = counted()
    assert array.chunks == (125, 100)
    chunk = array[125:250]
    assert not chunk.flags.writeable
    array[130, 7] = -1
    assert chunk[5, 7] == -1
    other = array[125:251]
    array[130, 7] = -2
    assert other[5, 7] == -1
    blocks = list(array.blocks())
    assert [rows for rows, _ in blocks] == [slice(i, i + 125) for i in range(0, 1000, 125)]
    blocks[1][1][5, 7] = 3
    assert array[130, 7] == 3
    del chunk, blocks
    kept = None
    for rows, block in array.blocks():
        kept = block if rows.start == 125 else kept
    assert block.size == 0
    assert kept[5, 7] == 3
    assert [chunk.mappings for chunk in array._chunks] == [0, 1] + 6 * [0]


def test_a_chunk_in_use_stays_where_it_is():
    array = counted(1010)
    held = array[1000:1010]
    for rows in (900, 1005, 1020):
        with pytest.raises(BufferError, match="in use"):
            array.resize(rows)
    assert array.shape == (1010, 100)
    del held
    array.resize(1005)
    array.resize(1011)
    assert array[1004:, 0].tolist() == [100400, 0, 0, 0, 0, 0, 0]


def test_functions_go_block_by_block():
    array, plain = counted(), np.arange(100_000.0).reshape(1000, 100)
    told = []
    out = mempager.map_blocks(np.add, array, plain, progress=lambda *done: told.append(done))
    np.testing.assert_array_equal(out, plain * 2)
    assert (told[0], told[-1], len(told)) == ((100_000, 800_000), (800_000, 800_000), 8)
    np.testing.assert_array_equal(np.sqrt(array) * plain[0], np.sqrt(plain) * plain[0])
    assert mempager.map_blocks(np.sign, array, out=array, progress=True) is array
    assert array[-1, -1] == 1
    ends = mempager.map_blocks(lambda block: block[:, [0, -1]].astype("i4"), array)
    assert (ends.shape, ends.dtype) == ((1000, 2), np.dtype("i4"))
    assert mempager.map_blocks(np.sin, mempager.Array((0, 3))).shape == (0, 3)
    with pytest.raises(ValueError, match="rows became"):
        mempager.map_blocks(np.sum, array)
    with pytest.raises(ValueError, match="different lengths"):
        mempager.map_blocks(np.add, array, counted(999))
    with pytest.raises(TypeError, match="needs an Array"):
        mempager.map_blocks(np.sin, plain)


def test_wrong_use_is_told_and_changes_nothing():
    array = counted()
    for index in (1000, -1001, (0, 100), (slice(None), 0, 0), [1000], (..., ...), "x"):
        with pytest.raises(IndexError):
            array[index]
    with pytest.raises(IndexError, match="map_blocks"):
        array[[1, 2]] = 0
    with pytest.raises(ValueError, match="broadcast"):
        array[3:500] = np.zeros(99)
    for arguments, error in [(((),), ValueError), ((3, object), TypeError), ((3, "f8", 0), ValueError),
                             (((1, 2**32), "u1"), OverflowError), ((-1,), ValueError)]:
        with pytest.raises(error):
            mempager.Array(*arguments)
    with pytest.raises(ValueError, match="negative"):
        array.resize(-1)
    np.testing.assert_array_equal(array, np.arange(100_000.0).reshape(1000, 100))
