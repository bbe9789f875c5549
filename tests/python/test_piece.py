"""Hunts accesses to memory that isn't mapped any more, and failures that crash or leave something."""
import logging
import os
import pathlib
import threading
import warnings
import weakref

import numpy as np
import pytest

import mempager
from conftest import run, until


@pytest.mark.parametrize("shape, dtype", [
    ((), "f8"), (0, "i4"), ((3, 0, 2), "u1"), (7, "S5"), ((300, 500), "c16"),
    ((4, 5), [("x", "<i2"), ("y", "<f8")]),
])
def test_an_array_lies_in_the_piece_without_a_copy(shape, dtype):
    piece = mempager.zeros(shape, dtype)
    plain = np.zeros(shape, dtype)
    assert (piece.shape, piece.dtype, piece.size, piece.nbytes, piece.ndim) == \
        (plain.shape, plain.dtype, plain.size, plain.nbytes, plain.ndim)
    with piece.map() as first, piece.map() as second:
        assert isinstance(first, np.ndarray)
        np.testing.assert_array_equal(first, plain)
        first[...] = np.ones(shape, "u1")
        np.testing.assert_array_equal(first, second)
        assert first.ctypes.data % 64 == 0 or first.size == 0
        assert memoryview(first).nbytes == plain.nbytes
    with piece as again:
        np.testing.assert_array_equal(again, np.asarray(piece))
    with mempager.array(np.arange(10)[::-2]).map() as a:
        np.testing.assert_array_equal(np.from_dlpack(a), [9, 7, 5, 3, 1])
        a = None


def test_behind_its_block_an_array_is_empty_or_keeps_the_mapping():
    piece = mempager.array(np.arange(5.0))
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with piece as outer:
            with piece.map() as inner:
                inner += 1
            assert inner.size == 0
            assert outer[0] == 1
        assert outer.size == 0
        for _ in range(2):
            with piece.map() as a:
                total = a.sum()
    assert total == 15
    assert piece.mappings == 0
    with pytest.warns(mempager.StillMappedWarning, match="keeps its mapping"):
        with piece.map() as a:
            tail = a[1:]
            del a
    tail[0] = 7  # what a view needs stays
    assert piece.mappings == 1
    with pytest.warns(mempager.StillMappedWarning):
        with piece as kept:
            also = [kept]
    assert also[0][1] == 7
    del tail, kept, also
    assert piece.mappings == 0
    view = piece.map()
    with pytest.raises(ZeroDivisionError), view:
        1 / 0
    with pytest.raises(ValueError, match="ended with its block"):
        view.array


def test_freed_memory_is_refused_and_kept_for_who_looks_at_it():
    piece = mempager.array(np.arange(1000))
    array = piece.mapped()
    piece.free()
    piece.free()
    assert array[999] == 999
    for use in (piece.map, piece.mapped, piece.copy, lambda: np.asarray(piece),
                lambda: piece.__reduce_ex__(5), lambda: piece.mappings):
        with pytest.raises(mempager.FreedError, match="freed"):
            use()
    assert "freed" in repr(piece)


def test_what_cannot_be_had_is_refused_with_its_cause():
    with pytest.raises(OverflowError, match="too large"):
        mempager.empty(2**32)
    for shape in (-1, (2, -3)):
        with pytest.raises(ValueError, match="negative"):
            mempager.empty(shape)
    for dtype in (object, [("x", "O")]):
        with pytest.raises(TypeError, match="Python objects"):
            mempager.empty(3, dtype)
    with pytest.raises(TypeError):
        mempager.empty("large")
    printed = run("""
        import logging, mempager
        lines = []
        logging.getLogger().addHandler(logging.StreamHandler(type("", (), {"write": lines.append,
                                                                           "flush": int})))
        mempager.config.shared_memory_mb = 20
        mempager.config.set_temp_files(total_mb=0)
        kept = []
        try:
            while True:
                kept.append(mempager.empty(10 << 20, "u1"))
        except MemoryError as failure:
            print(failure, len(kept) > 0, any("limit stands" in line for line in lines))
            print(failure.operation, failure.limit, failure.wanted, failure.most)
        del kept[:]
        print(mempager.empty(10 << 20, "u1"))
        """, cwd="/tmp")
    assert "no memory left" in printed
    assert "FileHeap_MaxTotalSpaceInMb" in printed
    assert "True True" in printed
    assert "\nallocate setting 10485760 0\n" in printed
    assert "Piece (10485760,)" in printed


def test_address_space_that_ends_is_an_exception():
    printed = run("""
        import mempager, resource
        pieces = [mempager.zeros(64 << 20, "u1") for _ in range(8)]
        mempager.clear_cache()
        with open("/proc/self/statm") as file:
            size = int(file.read().split()[0]) * resource.getpagesize()
        resource.setrlimit(resource.RLIMIT_AS, (size + (160 << 20), -1))
        kept = []
        try:
            kept.extend(piece.mapped() for piece in pieces)
        except MemoryError as failure:
            print(failure, failure.operation, failure.limit, failure.left < 64 << 20)
        kept.clear()
        print(sum(int(piece.mapped()[-1]) for piece in pieces))
        """, cwd="/tmp")
    assert "no room to map it" in printed
    assert " map address_space True\n" in printed
    assert printed.endswith("0\n")


def test_a_memory_limit_is_an_exception_and_no_kill():
    root = next((path for path in map(pathlib.Path, ("/sys/fs/cgroup/memory", "/sys/fs/cgroup"))
                 if path.is_dir()), None)
    group = root / f"mempager_{os.getpid()}"
    limit = "memory.limit_in_bytes" if root.name == "memory" else "memory.max"
    try:
        group.mkdir()
        (group / limit).write_text(str(300 << 20))
    except OSError:
        pytest.skip("no control group can be made")
    try:
        printed = run("""
            import os, sys, mempager
            with open(sys.argv[1] + "/cgroup.procs", "w") as file:
                file.write(str(os.getpid()))
            mempager.config.set_temp_files(total_mb=0)
            array = mempager.Array((10, 1 << 20))
            try:
                array.resize(1000)
            except MemoryError as failure:
                print(array.shape, failure)
            array[9, -1] = 4
            print(array[9].sum())
            """, group, cwd="/tmp")
    finally:
        until(lambda: not (group / "cgroup.procs").read_text())
        group.rmdir()
    assert printed.startswith("(10, 1048576) piece: no memory left")
    assert printed.endswith("4.0\n")


def test_threads_share_pieces_and_run_while_the_library_works():
    pieces = [mempager.zeros(200_000, "i8") for _ in range(4)]
    failures = []

    def work(number):
        try:
            for i in range(200):
                with pieces[(number + i) % 4].map() as a:
                    a[number * 1000:(number + 1) * 1000] += 1
                mempager.clear_cache()
        except BaseException as failure:  # pylint: disable=broad-except
            failures.append(failure)

    threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []
    assert sum(int(piece.mapped().sum()) for piece in pieces) == 4 * 200 * 1000


def test_a_forked_child_uses_its_parents_pieces_and_its_own():
    piece = mempager.zeros(10, "i4")
    with piece.map() as held:
        child = os.fork()
        if child == 0:
            held[0] = 5
            own = mempager.array([3, 4])
            with piece.map() as a:
                a[1] = own.mapped().sum()
            os._exit(0 if mempager.status().local_blocks == 2 else 1)
        assert os.waitpid(child, 0)[1] == 0
        assert held[:2].tolist() == [5, 7]


@pytest.mark.parametrize("ending", [
    "pass", "import sys; sys.exit(0)", "import os; os._exit(0)", "held = piece.mapped()",
    "import threading, time\nthreading.Thread(target=lambda: [piece.map() for _ in iter(int, 1)],"
    " daemon=True).start(); time.sleep(.1)",
    "import atexit; atexit.register(lambda: [piece.mapped().sum(), mempager.clear_cache()])",
    "class Late:\n  def __del__(self): piece.free()\nlate = Late(); late.itself = late",
])
def test_the_interpreter_ends_whatever_is_mapped(ending):
    run("import mempager, numpy\npiece = mempager.zeros(1000)\n" + ending)


def test_the_log_comes_by_logging_and_from_no_library_lock(caplog):
    def use_library(_):
        assert mempager.status().blocks >= 0  # would wait for itself under the pager's lock
        return True

    mempager.config.log_level = 7
    logging.getLogger("mempager").addFilter(use_library)
    try:
        with caplog.at_level(logging.DEBUG, "mempager"):
            mempager.zeros(3)
            mempager.clear_cache()
    finally:
        logging.getLogger("mempager").removeFilter(use_library)
        mempager.config.log_level = 3
    assert caplog.records
    assert {record.name for record in caplog.records} == {"mempager"}
    assert all(record.pathname.startswith("src/") for record in caplog.records)


def test_settings_and_status_say_what_is():
    before = mempager.config.cache_mb
    mempager.config.cache_mb = 100
    assert mempager.config.cache_mb == 100
    mempager.config.cache_mb = before
    for name, value in [("cache_mb", -1), ("shared_memory_mb", 2**32), ("chunk_bytes", 0)]:
        with pytest.raises(ValueError, match=name):
            setattr(mempager.config, name, value)
    with pytest.raises(TypeError):
        mempager.config.cache_mb = 1.5
    piece = mempager.zeros(100_000)
    with pytest.raises(RuntimeError, match="before the first piece"):
        mempager.config.set_temp_files("/tmp")
    status = mempager.status()
    assert status.local_piece_bytes >= piece.nbytes
    assert status.cached_bytes == status.mapped_bytes
    assert mempager.clear_cache() == status.cached_bytes
    assert mempager.status().mapped_bytes == 0
    gone = weakref.ref(piece)
    del piece
    assert gone() is None
