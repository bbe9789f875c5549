#!/usr/bin/env python3
"""Measures the Python package beside what one would take instead, for scripts/bench.

    PYTHONPATH=... bench/python/measure.py FILE [--quick] [--mapped]

Writes a JSON file as Google Benchmark does, for bench/figures.py to read. Each repetition is a run
of its own there, by the clock, or the processor's time where nothing is done but NumPy's work; the
peers take turns. With --mapped it measures mapped chunks only, under names of their own: for a
/dev/shm with huge pages. All peers keep their files where the package does, in /dev/shm, of which
it takes 5 GB. Peers that aren't installed are left out.
"""
import contextlib
import importlib
import itertools
import json
import mmap
import multiprocessing
import multiprocessing.shared_memory
import pathlib
import pickle
import platform
import shutil
import sys
import tempfile
import time

import numpy as np

import mempager

CHUNK = (1, 1 << 20)  # of 8 MB
CHUNKS = 64
LIMIT = 300 << 20  # of each of Dask's two workers
QUICK = "--quick" in sys.argv


def optional(name):
    """A module, or None where it isn't installed."""
    try:
        return importlib.import_module(name)
    except ImportError:
        return None


zarr, h5py, dask_array, distributed = map(optional, ("zarr", "h5py", "dask.array", "distributed"))


class Runs:
    """What was measured: each repetition by its name."""

    def __init__(self):
        self.all = []

    def interleaved(self, case, functions, repetitions, settle=lambda: None, part=1,
                    clock=time.perf_counter):
        """Times the functions by turns, after one turn that doesn't count; `settle` is called
        behind each, and its time isn't counted either. `part` of a call is what is told."""
        repetitions = min(repetitions, 5) if QUICK else repetitions
        peers = list(functions)
        for turn in range(repetitions + 1):
            for peer in peers[turn % len(peers):] + peers[:turn % len(peers)]:  # nobody is always first
                begin = clock()
                functions[peer]()
                took = clock() - begin
                settle()
                if turn:
                    self.add(f"{case}/{peer}", took * part)

    def add(self, name, took):
        """One repetition."""
        self.all.append({"name": f"{name}/real_time", "run_type": "iteration", "real_time": took,
                         "cpu_time": took, "time_unit": "s"})

    def write(self, path):
        """The file."""
        text = json.dumps({"context": {"python": versions()}, "benchmarks": self.all})
        pathlib.Path(path).write_text(text, encoding="utf-8")


def versions():
    """Of what takes part."""
    modules = {"NumPy": np, "zarr": zarr, "h5py": h5py, "Dask": optional("dask")}
    return ", ".join([f"Python {platform.python_version()}", *(
        f"{name} {module.__version__}" for name, module in modules.items() if module)])


# Chunks ------------------------------------------------------------------------------------------


class Chunks:
    """One array for each peer, of the same shape, and what is done to a chunk of it."""

    def __init__(self, folder, resources):
        shape = (CHUNKS, CHUNK[1])
        shared = multiprocessing.shared_memory.SharedMemory(create=True, size=CHUNKS * CHUNK[1] * 8)
        resources.callback(shared.unlink)
        self.arrays = {
            "mempager": mempager.Array(shape, "f8"),
            "shared_memory": np.ndarray(shape, "f8", shared.buf),
            "memmap": np.memmap(folder / "map", "f8", "w+", shape=shape),
        }
        if zarr:
            for name, options in (("zarr", {}), ("zarr_uncompressed", {"compressor": None})):
                self.arrays[name] = zarr.open(str(folder / name), "w", shape=shape, chunks=CHUNK,
                                              dtype="f8", **options)
        if h5py:
            file = h5py.File(folder / "h5", "w")
            self.arrays["h5py"] = file.create_dataset("a", shape, "f8", chunks=CHUNK)
        self.source = np.random.default_rng(1).random(CHUNK)
        for array in self.arrays.values():
            for number in range(CHUNKS):
                array[number:number + 1] = self.source
        self.next = 0

    def measure(self, runs):
        """Each operation on the next of the chunks, so that they come from memory."""
        for case, function in {
                "read": lambda array, at: array[at:at + 1].sum(),
                "write": self._write,
                "read_some": lambda array, at: array[at:at + 1, 5000:6000],
                "write_some": self._write_some}.items():
            runs.interleaved(f"python/{case}", {
                name: lambda array=array: self._on_eight(function, array)
                for name, array in self.arrays.items()}, 12, part=1 / 8)

    def _on_eight(self, function, array):
        for _ in range(8):
            self.next = (self.next + 5) % CHUNKS
            function(array, self.next)

    def _write(self, array, at):
        array[at:at + 1] = self.source

    def _write_some(self, array, at):
        array[at:at + 1, 5000:6000] = self.source[:, :1000]


def small_pages(size):
    """An array of so many bytes in ordinary memory that gets no huge pages."""
    memory = mmap.mmap(-1, size, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS)
    memory.madvise(mmap.MADV_NOHUGEPAGE)
    return np.frombuffer(memory)


def on_a_mapped_chunk(runs, stem):
    """NumPy on a mapped chunk and on its own memory. All of it was written to before the clock
    starts, and stays mapped: no page is touched for the first time."""
    piece = mempager.empty(CHUNK[1])
    arrays = {"mempager": piece.mapped(), "numpy": np.empty(CHUNK[1]),
              "small_pages": small_pages(8 * CHUNK[1])}
    for values in arrays.values():
        values[...] = np.random.default_rng(1).random(CHUNK[1])
    for case, function in {"sum": np.sum, "add": lambda x: np.add(x, 1, out=x)}.items():
        runs.interleaved(f"{stem}/{case}", {
            name: lambda array=array: function(array) for name, array in arrays.items()}, 101,
            clock=time.thread_time)


# Hand-over ---------------------------------------------------------------------------------------


def receiver(pipe):
    """Answers with the last element of each array that comes, and once more when that has gone."""
    while True:
        array = pickle.loads(pipe.recv_bytes())
        pipe.send(float(array[-1, -1]))
        del array
        pipe.send("gone")


def hand_over(runs):
    """1 GB, by pickling the array and by pickling ours, until the answer is there."""
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

    runs.interleaved("python/hand_over", {"mempager": lambda: give(array),
                                          "pickling": lambda: give(plain)}, 7, settle=pipe.recv)
    process.kill()
    process.join()


# Dask --------------------------------------------------------------------------------------------


def reduce_out_of_memory(runs, megabytes):
    """A mean of an array of twice what two workers may have together, in chunks of so many MB."""
    columns = megabytes << 17
    rows = 2 * 2 * LIMIT // (8 * columns)
    ours = mempager.Array((rows, columns), "f8", chunk_bytes=8 * columns)
    for number, block in ours.blocks():
        block[...] = np.random.default_rng(number.start).random(block.shape)

    def cluster():
        return distributed.LocalCluster(2, threads_per_worker=1, memory_limit=LIMIT,
                                        dashboard_address=":0",
                                        local_directory=tempfile.gettempdir())

    # A factor that is another one each time, so that no result is there from before.
    factors = itertools.count(1)
    with cluster() as place, distributed.Client(place):
        runs.interleaved(f"python/reduce_{megabytes}", {
            "mempager": lambda: (ours.to_dask() * next(factors)).mean().compute()}, 5)
    with cluster() as place, distributed.Client(place) as client:
        x = client.persist(dask_array.random.random((rows, columns), chunks=(1, columns)))
        distributed.wait(x)
        runs.interleaved(f"python/reduce_{megabytes}", {
            "dask": lambda: (x * next(factors)).mean().compute()}, 5)


def main():
    """Measures, and writes the file."""
    runs = Runs()
    if "--mapped" in sys.argv:
        on_a_mapped_chunk(runs, "python_huge")
    else:
        on_a_mapped_chunk(runs, "python")
        with contextlib.ExitStack() as resources:
            folder = pathlib.Path(tempfile.mkdtemp(dir="/dev/shm"))
            resources.callback(shutil.rmtree, folder)
            Chunks(folder, resources).measure(runs)
        hand_over(runs)
        if distributed:
            reduce_out_of_memory(runs, 8)
            reduce_out_of_memory(runs, 32)
    runs.write(sys.argv[1])


if __name__ == "__main__":
    main()
