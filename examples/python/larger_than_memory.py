#!/usr/bin/env python3
"""An array of 4 times the memory limit, computed by Dask on two workers.

    larger_than_memory.py [--small]      # one worker's limit four times, not both workers'

Both workers together may have 600 MB. The array lies in pager memory, so that it isn't theirs: they
map a chunk of it while they compute, and no element goes through a socket. Ends with 0 if the
results are right.
"""
import sys

import dask.array as da
import numpy as np
from distributed import Client, LocalCluster

import mempager

LIMIT = 300 << 20  # of each worker


def fill(array):
    """Row numbers, chunk by chunk."""
    for rows, block in array.blocks():
        block[...] = np.arange(rows.start, rows.stop, dtype=block.dtype)[:, None]


def main():
    """Makes the array, has it reduced and scaled, and looks at the results."""
    size = 4 * LIMIT * (1 if "--small" in sys.argv else 2)
    columns = 1 << 17
    rows = size // (8 * columns)
    array = mempager.Array((rows, columns), "f8")
    fill(array)
    print(f"an array of {array.nbytes >> 20} MB, workers of {LIMIT >> 20} MB each")
    with LocalCluster(2, threads_per_worker=1, memory_limit=LIMIT, dashboard_address=":0") as cluster, \
            Client(cluster):
        x = array.to_dask()
        mean, deviation = da.compute(x.mean(), x.std())
        print(f"mean {mean:.3f}, standard deviation {deviation:.3f}")
        scaled = mempager.Array(array.shape, "f4")
        da.store(((x - mean) / deviation).astype("f4"), scaled, lock=False)
    expected = np.arange(rows, dtype="f8")
    right = np.isclose(mean, expected.mean()) and np.isclose(deviation, expected.std())
    right = right and np.allclose(scaled[:, -1], (expected - mean) / deviation, atol=1e-5)
    print("as it should be" if right else "wrong")
    return 0 if right else 1


if __name__ == "__main__":
    sys.exit(main())
