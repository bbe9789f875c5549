#!/usr/bin/env python3
"""Measures the Python package beside what one would take instead, and writes the figures into
docs/python.md, between its marks.

    PYTHONPATH=build/python/python/package bench/python/figures.py [--only-print]

All peers keep their files where the package does, in /dev/shm. Repetitions are interleaved, and
medians are told. Needs zarr and h5py (scripts/setup python peers), 5 GB of /dev/shm, a quiet machine.
"""
import contextlib
import datetime
import itertools
import multiprocessing
import multiprocessing.shared_memory
import os
import pathlib
import pickle
import platform
import shutil
import statistics
import sys
import tempfile
import time

import dask.array as da
import h5py
import numpy as np
import zarr
from distributed import Client, LocalCluster, wait

import mempager

CHUNK = (1, 1 << 20)  # of 8 MB
CHUNKS = 64
PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "python.md"
LIMIT = 300 << 20  # of each of Dask's two workers


def seconds(function):
    """How long a call takes."""
    begin = time.perf_counter()
    function()
    return time.perf_counter() - begin


def interleaved(functions, repetitions, settle=lambda: None):
    """The median time of each, after one turn that doesn't count; `settle` is called behind each,
    and its time isn't counted either."""
    times = {name: [] for name in functions}
    names = list(functions)
    for turn in range(repetitions + 1):
        for name in names[turn % len(names):] + names[:turn % len(names)]:  # nobody is always first
            took = seconds(functions[name])
            settle()
            if turn:
                times[name].append(took)
    return {name: statistics.median(all_) for name, all_ in times.items()}


# Chunks ------------------------------------------------------------------------------------------


class Chunks:
    """One array for each peer, of the same shape, and what is done to a chunk of it."""

    def __init__(self, folder, resources):
        shape = (CHUNKS, CHUNK[1])
        shared = multiprocessing.shared_memory.SharedMemory(create=True, size=CHUNKS * CHUNK[1] * 8)
        resources.callback(shared.unlink)
        self.arrays = {
            "mempager": mempager.Array(shape, "f8"),
            "`shared_memory`": np.ndarray(shape, "f8", shared.buf),
            "`numpy.memmap`": np.memmap(folder / "map", "f8", "w+", shape=shape),
            "zarr": zarr.open(str(folder / "zarr"), "w", shape=shape, chunks=CHUNK, dtype="f8"),
            "zarr, uncompressed": zarr.open(str(folder / "plain"), "w", shape=shape, chunks=CHUNK,
                                            dtype="f8", compressor=None),
            "h5py": h5py.File(folder / "h5", "w").create_dataset("a", shape, "f8", chunks=CHUNK),
        }
        self.source = np.random.default_rng(1).random(CHUNK)
        for array in self.arrays.values():
            for number in range(CHUNKS):
                array[number:number + 1] = self.source
        self.next = 0

    def table(self):
        """Rows of (case, medians by peer)."""
        yield "a chunk is read and summed", self._each(lambda array, at: array[at:at + 1].sum())
        yield "a chunk is written", self._each(self._write)
        yield "1000 elements of it are read", self._each(lambda array, at: array[at:at + 1, 5000:6000])
        yield "1000 elements of it are written", self._each(self._write_some)

    def _write(self, array, at):
        array[at:at + 1] = self.source

    def _write_some(self, array, at):
        array[at:at + 1, 5000:6000] = self.source[:, :1000]

    def _each(self, function):
        """The time for one of 8 chunks, others each time, so that they come from memory."""
        def run(array):
            for _ in range(8):
                self.next = (self.next + 5) % CHUNKS
                function(array, self.next)

        medians = interleaved({name: lambda array=array: run(array)
                               for name, array in self.arrays.items()}, 12)
        return {name: median / 8 for name, median in medians.items()}


def on_a_mapped_chunk():
    """Medians of NumPy on a mapped chunk and on its own memory."""
    piece, plain = mempager.empty(CHUNK[1]), np.empty(CHUNK[1])
    with piece.map() as a:
        for values in (a, plain):
            values[...] = np.random.default_rng(1).random(CHUNK[1])
        def both(function):
            return interleaved({"mempager": lambda: function(a), "NumPy": lambda: function(plain)}, 101)
        rows = [("sum of a mapped chunk", both(lambda x: x.sum())),
                ("`x += 1` on a mapped chunk", both(lambda x: np.add(x, 1, out=x)))]
    values = None
    return rows


# Hand-over ---------------------------------------------------------------------------------------


def receiver(pipe):
    """Answers with the last element of each array that comes, and once more when that has gone."""
    while True:
        array = pickle.loads(pipe.recv_bytes())
        pipe.send(float(array[-1, -1]))
        del array
        pipe.send("gone")


def hand_over():
    """Medians for 1 GB, by pickling the array and by pickling ours, until the answer is there."""
    array = mempager.Array((128, 1 << 20), "f8")
    for _, block in array.blocks():
        block[...] = 1
    plain = np.asarray(array)
    pipe, end = multiprocessing.get_context("spawn").Pipe()
    process = multiprocessing.get_context("spawn").Process(target=receiver, args=(end,), daemon=True)
    process.start()

    def give(value):
        pipe.send_bytes(pickle.dumps(value, protocol=5))
        assert pipe.recv() == 1

    medians = interleaved({"mempager": lambda: give(array), "pickling": lambda: give(plain)}, 7,
                          settle=pipe.recv)
    process.kill()
    return [("1 GB goes to another process", medians)]


# Dask --------------------------------------------------------------------------------------------


def reduce_out_of_memory(megabytes):
    """Medians for a mean of an array of twice what two workers may have together, in chunks of so
    many MB."""
    columns = megabytes << 17
    rows = 2 * 2 * LIMIT // (8 * columns)
    ours = mempager.Array((rows, columns), "f8", chunk_bytes=8 * columns)
    for number, block in ours.blocks():
        block[...] = np.random.default_rng(number.start).random(block.shape)

    def cluster():
        return LocalCluster(2, threads_per_worker=1, memory_limit=LIMIT, dashboard_address=":0",
                            local_directory=tempfile.gettempdir())

    # A factor that is another one each time, so that no result is there from before.
    factors = itertools.count(1)
    with cluster() as place, Client(place):
        mine = interleaved(
            {"mempager": lambda: (ours.to_dask() * next(factors)).mean().compute()}, 5)
    with cluster() as place, Client(place) as client:
        x = client.persist(da.random.random((rows, columns), chunks=(1, columns)))
        wait(x)
        theirs = interleaved({"Dask's spilling": lambda: (x * next(factors)).mean().compute()}, 5)
    return [(f"Dask's mean of 1.2 GB, chunks of {megabytes} MB, workers of 600 MB", {**mine, **theirs})]


# The page ----------------------------------------------------------------------------------------


def human(value):
    """Seconds as one reads them."""
    for unit, size in (("s", 1), ("ms", 1e-3), ("µs", 1e-6)):
        if value >= size:
            return f"{value / size:.3g} {unit}"
    return f"{value * 1e9:.3g} ns"


GOALS = {  # the most that ours may take of theirs
    "NumPy": 1.05, "zarr": 1, "zarr, uncompressed": 1, "h5py": 1, "pickling": 1 / 50,
    "Dask's spilling": 1 / 2,
}


def line(case, medians, peer):
    """A row of the table."""
    ratio, goal = medians["mempager"] / medians[peer], GOALS.get(peer)
    told = f"{ratio:.2f}" if ratio > .1 else f"{1 / ratio:.0f} times faster"
    wanted = "" if goal is None else f"≤ {goal}" if goal >= 1 else f"≥ {1 / goal:.0f} times"
    reached = "" if goal is None else "yes" if ratio <= goal else "**missed**"
    return (f"| {case} | {human(medians['mempager'])} | {peer} | {human(medians[peer])} | {told} | "
            f"{wanted} | {reached} |")


def machine():
    """What it was measured on."""
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        name = next((text.split(":")[1].strip() for text in file if text.startswith("model name")), "")
    return (f"{name}, {os.cpu_count()} cores; Linux {platform.release()}; Python "
            f"{platform.python_version()}, NumPy {np.__version__}, zarr {zarr.__version__}, h5py "
            f"{h5py.__version__}; {datetime.date.today()}.")


def main():
    """Measures, prints, and writes the page."""
    with contextlib.ExitStack() as resources:
        folder = pathlib.Path(tempfile.mkdtemp(dir="/dev/shm"))
        resources.callback(shutil.rmtree, folder)
        rows = [*on_a_mapped_chunk(), *Chunks(folder, resources).table()]
    rows += [*hand_over(), *reduce_out_of_memory(8), *reduce_out_of_memory(32)]
    table = ["| Case | mempager | beside | | ratio | to reach | reached |", "|---|---|---|---|---|---|---|"]
    table += [line(case, medians, peer) for case, medians in rows for peer in medians if peer != "mempager"]
    text = "\n".join([machine(), "", *table])
    print(text)
    if "--only-print" not in sys.argv:
        page = PAGE.read_text(encoding="utf-8")
        before, rest = page.split("<!-- figures -->\n")
        after = rest.split("<!-- end of figures -->\n")[1]
        PAGE.write_text(f"{before}<!-- figures -->\n{text}\n<!-- end of figures -->\n{after}",
                        encoding="utf-8")


if __name__ == "__main__":
    main()
