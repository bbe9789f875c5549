#!/usr/bin/env python3
"""Brain volumes, 2 GB of them, correlated pair by pair in 700 MB of address space.

    brains.py [--small]      # 300 MB of volumes

Each volume is a piece, which is mapped while it is looked at. The volumes are those of Debian's
mricron-data, and copies of them that are shifted by some voxels; without that package, noise.
Ends with 0 if every result is that of a computation in plain memory.
"""
import gzip
import os
import pathlib
import resource
import sys

os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")  # each thread takes address space
import numpy as np  # noqa: E402

import mempager  # noqa: E402

FOLDER = pathlib.Path("/usr/share/mricron/templates")
LIMIT = 700 << 20
TYPES = {2: "u1", 4: "i2", 8: "i4", 16: "f4", 64: "f8", 256: "i1", 512: "u2", 768: "u4"}


def read_nifti(path):
    """The voxels of a NIfTI file, as floats."""
    data = gzip.decompress(path.read_bytes())
    order = "<" if int.from_bytes(data[:4], "little") == 348 else ">"
    sizes = np.frombuffer(data, order + "i2", 8, 40)
    shape = tuple(int(size) for size in sizes[1:1 + sizes[0]])
    kind = order + TYPES[int(np.frombuffer(data, order + "i2", 1, 70)[0])]
    first = int(np.frombuffer(data, order + "f4", 1, 108)[0])
    return np.frombuffer(data, kind, int(np.prod(shape)), first).reshape(shape).astype("f4")


def originals():
    """The volumes to begin with, one at a time."""
    files = sorted(FOLDER.glob("*.nii.gz"))
    for path in files:
        try:
            yield read_nifti(path)
        except (KeyError, ValueError):
            print(f"{path.name}: of another kind, left out")
    if not files:
        print("mricron-data isn't installed: noise will do")
        noise = np.random.default_rng(1)
        for _ in range(8):
            yield noise.random((181, 217, 181), "f4")


def store(goal):
    """Pieces with volumes of `goal` bytes in all."""
    volumes, held, shift = [], 0, 0
    while held < goal:
        for original in originals():
            volumes.append(mempager.array(np.roll(original, shift)))
            held += volumes[-1].nbytes
            if held >= goal:
                break
        shift += 1
    return volumes


def correlation(one, other):
    """Of two volumes of one shape, slice by slice, so that little is needed beside them."""
    sums = np.zeros(5)
    with one.map() as a, other.map() as b:
        for x, y in zip(a, b):
            x, y = x.ravel().astype("f8"), y.ravel().astype("f8")
            sums += x.sum(), y.sum(), x @ x, y @ y, x @ y
        size = a.size
    x, y, xx, yy, xy = sums / size
    return (xy - x * y) / np.sqrt((xx - x * x) * (yy - y * y))


def agrees(one, other, found):
    """Whether a plain computation finds that as well."""
    with np.errstate(invalid="ignore", divide="ignore"):
        plain = np.corrcoef(np.asarray(one, "f8").reshape(-1), np.asarray(other, "f8").reshape(-1))[0, 1]
    return bool(np.isnan(plain)) or abs(plain - found) < 1e-6


def main():
    """Stores, then looks at all pairs."""
    small = "--small" in sys.argv
    resource.setrlimit(resource.RLIMIT_AS, (LIMIT, LIMIT))
    mempager.config.cache_mb = 150  # NumPy's own memory needs room beside the cache
    volumes = store((300 << 20) if small else (2 << 30))
    by_shape = {}
    for volume in volumes:
        by_shape.setdefault(volume.shape, []).append(volume)
    print(f"{len(volumes)} volumes, {sum(v.nbytes for v in volumes) >> 20} MB, "
          f"in {LIMIT >> 20} MB of address space")
    pairs = wrong = 0
    for shape, group in by_shape.items():
        for one, other in zip(group, group[1:]):
            found = correlation(one, other)
            pairs += 1
            wrong += pairs % 5 == 1 and one.nbytes < 64 << 20 and not agrees(one, other, found)
        print(f"{shape}: {len(group)} volumes")
    print(f"{pairs} pairs, {mempager.status().mapped_bytes >> 20} MB mapped at the end, {wrong} wrong")
    return 1 if wrong or not pairs else 0


if __name__ == "__main__":
    sys.exit(main())
