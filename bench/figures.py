#!/usr/bin/env python3
"""Makes docs/figures.md and docs/figures.svg of what the benchmarks have written.

    bench/figures.py FOLDER_OF_JSON_FILES DOCS_FOLDER TEMP_FOLDER [REMARK...]
    bench/figures.py --only FOLDER_OF_JSON_FILES DOCS_FOLDER TEMP_FOLDER [REMARK...]

With --only the sections that were measured take their places in the page that is there.
"""
import collections
import datetime
import json
import math
import pathlib
import platform
import re
import statistics
import subprocess
import sys

NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
COUNTS = (10, 1000, 100000, 1000000)
BLOCKS = (10, 100, 1000, 10000, 100000)


# What was measured -------------------------------------------------------------------------------


class Results:
    """Medians over the repetitions, by the benchmarks' names."""

    def __init__(self, folder):
        times = collections.defaultdict(list)
        counters = collections.defaultdict(list)
        processor = collections.defaultdict(list)
        waits = []
        self.compiler = ""
        self.python = ""  # and its packages
        self.cache = "unknown"
        for path in sorted(pathlib.Path(folder).glob("*.json")):
            if path.stat().st_size == 0:
                continue  # nothing of that name was built
            report = json.loads(path.read_text())
            self.compiler = report["context"].get("compiler", self.compiler)
            prefix = "huge/" if path.name.startswith("huge_") else ""
            self.python = report["context"].get("python", self.python)
            self.cache = report["context"].get(
                "processors that share a cache with the first", self.cache)
            for run in report["benchmarks"]:
                run["name"] = prefix + run["name"]
                self._add(run, times, counters, processor)
                if run.get("run_type") == "iteration" and not self._has_helpers(run):
                    waits.append(run["real_time"] / max(run["cpu_time"], 1e-9))
        self._add_demo(folder, times)
        self.wait = statistics.median(waits) if waits else 1
        self.processor = {name: statistics.median(all_) for name, all_ in processor.items()}
        self.times = {name: statistics.median(all_) for name, all_ in times.items()}
        self.counters = {key: statistics.median(all_) for key, all_ in counters.items()}

    @staticmethod
    def _add_demo(folder, times):
        """By the clock, as the demo tells it; plain memory as the newer build's has it."""
        told = (("mempager", "mempager", "time through the pager"),
                ("today", "today", "time through the pager"),
                ("mempager", "plain", "time of the check in plain memory"))
        for build, name, words in told:
            for path in pathlib.Path(folder).glob(f"demo_{build}_*.log"):
                seconds = re.search(rf"{words} +([\d.]+) s", path.read_text())
                times[f"demo/{name}"].append(float(seconds[1]) * 1e9)

    @staticmethod
    def _add(run, times, counters, processor):
        if run.get("run_type") != "iteration":
            return
        parts = run["name"].split("/")
        name = "/".join(
            part for part in parts
            if part not in ("manual_time", "real_time") and not part.startswith("iterations:"))
        times[name].append(Results._time(run))
        processor[name].append(run["cpu_time"] * NANOSECONDS[run["time_unit"]])
        for counter in ("items_per_second", "bytes_more", "faults"):
            if counter in run:
                counters[name, counter].append(run[counter])

    @staticmethod
    def _has_helpers(run):
        """Whether its name says that it has threads, or a clock of its own."""
        return any(f"/{word}" in run["name"] for word in
                   ("real_time", "manual_time", "threads", "cursors"))

    @staticmethod
    def _time(run):
        """Nanoseconds of the processor where a benchmark runs by itself, and of the clock where it
        has helpers or a clock of its own: those say so in their names."""
        if "typical" in run:
            return run["typical"] * 1e9
        by_clock = "/real_time" in run["name"] or "/manual_time" in run["name"]
        return run["real_time" if by_clock else "cpu_time"] * NANOSECONDS[run["time_unit"]]


# The table ---------------------------------------------------------------------------------------


def time_text(nanoseconds):
    for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if nanoseconds >= size:
            return f"{nanoseconds / size:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def ratio_text(ratio):
    return f"{ratio:.0f}" if ratio >= 100 else f"{ratio:.2f}"


def goal_and_verdict(ratio, goal):
    return ("", None) if goal is None else (f"≤ {goal}", ratio <= goal)


class Line:
    """One line of the table. `verdict` is None where nothing is to be reached."""

    def __init__(self, case, own, peer, figure, ratio, goal, verdict):
        mark = {None: "", True: "yes", False: "**missed**"}[verdict]
        self.text = f"| {case} | {own} | {peer} | {figure} | {ratio} | {goal} | {mark} |"
        self.verdict = verdict


class AtMost:
    """Our time over the peer's."""

    def __init__(self, case, own, peer_label, peer, goal=None):
        self.case, self.own, self.peer_label, self.peer, self.goal = (
            case, own, peer_label, peer, goal)

    def needs(self):
        return [self.own, self.peer]

    def line(self, results):
        own, peer = results.times[self.own], results.times[self.peer]
        return Line(self.case, time_text(own), self.peer_label, time_text(peer),
                    ratio_text(own / peer), *goal_and_verdict(own / peer, self.goal))


class Faster(AtMost):
    """The peer's time over ours."""

    def line(self, results):
        own, peer = results.times[self.own], results.times[self.peer]
        return Line(self.case, time_text(own), self.peer_label, time_text(peer),
                    f"{ratio_text(peer / own)} times faster", f"≥ {self.goal} times",
                    peer >= self.goal * own)


class Rate(AtMost):
    """Two threads' operations in a second over those of one."""

    def line(self, results):
        own = results.counters[self.own, "items_per_second"]
        peer = results.counters[self.peer, "items_per_second"]
        return Line(self.case, self._text(results, self.own), self.peer_label,
                    self._text(results, self.peer), ratio_text(own / peer),
                    *((f"≥ {self.goal}", own >= self.goal * peer) if self.goal else ("", None)))

    @staticmethod
    def _text(results, name):
        rate = results.counters[name, "items_per_second"]
        return f"{rate / 1e6:.3g} M/s, {time_text(results.processor[name])} of the processor each"


class Each(AtMost):
    """The processor's time for one operation of two threads over that of one. It grows where they
    wait for each other, and not where the machine has other work."""

    def line(self, results):
        own, peer = results.processor[self.own], results.processor[self.peer]
        return Line(self.case, time_text(own), self.peer_label, time_text(peer),
                    ratio_text(own / peer), *goal_and_verdict(own / peer, self.goal))


class Growth:
    """The slowest over the fastest of a row of sizes, or the last over the first."""

    def __init__(self, case, stem, sizes, goal, last_over_first=False):
        self.case, self.stem, self.sizes, self.goal = case, stem, sizes, goal
        self.last_over_first = last_over_first

    def needs(self):
        return [f"{self.stem}/{self.sizes[0]}", f"{self.stem}/{self.sizes[1]}"]

    def line(self, results):
        there = [size for size in self.sizes if f"{self.stem}/{size}" in results.times]
        times = [results.times[f"{self.stem}/{size}"] for size in there]
        ends = (times[0], times[-1]) if self.last_over_first else (min(times), max(times))
        ratio = ends[1] / ends[0]
        return Line(f"{self.case}, {there[0]:,} to {there[-1]:,}", time_text(ends[1]),
                    "first" if self.last_over_first else "fastest", time_text(ends[0]),
                    ratio_text(ratio), *goal_and_verdict(ratio, self.goal))


class Bytes:
    """Bytes more than at the start."""

    def __init__(self, case, own, goal):
        self.case, self.own, self.goal = case, own, goal
        self.peer_label = ""

    def needs(self):
        return [self.own]

    def line(self, results):
        more = results.counters[self.own, "bytes_more"]
        return Line(self.case, f"{more / 1024:.1f} KB more", "at the start", "", "",
                    f"≤ {self.goal // 1024:,} KB", more <= self.goal)


class Section:
    def __init__(self, title, rows, notes):
        self.title, self.rows, self.notes = title, rows, notes


def pieces_rows():
    rows = []
    cases = {"pass": "one more comes and goes", "replace": "a random one is replaced"}
    for kind, case in cases.items():
        stem = f"pieces/{kind}"
        for count in COUNTS:
            rows.append(AtMost(f"{case}, {count:,} live", f"{stem}/mempager/{count}",
                               "Boost.Interprocess", f"{stem}/boost/{count}", 1.0))
        for count in COUNTS:
            rows.append(AtMost(f"{case}, {count:,} live", f"{stem}/mempager/{count}",
                               "malloc", f"{stem}/malloc/{count}"))
        # What is replaced at random comes from ever farther down in the memory hierarchy, for any
        # allocator; the step is for the work that the number of pieces itself adds.
        goal = 4 if kind == "pass" else None
        rows.append(Growth(case, f"{stem}/mempager", COUNTS, goal, last_over_first=True))
        rows.append(Growth("the same of Boost.Interprocess", f"{stem}/boost", COUNTS, None,
                           last_over_first=True))
    rows.append(Growth("a look at a record that no cache has", "pieces/look", COUNTS, None,
                       last_over_first=True))
    threads = ("pieces/threads/threads:2", "one thread", "pieces/threads/threads:1")
    rows.append(Rate("two threads, `Allocate` + `Free`", *threads, 1.0))
    rows.append(Each("the same", *threads))
    return rows


def scan_rows(case, own, peer):
    own = f"{own}/mempager"
    return [
        AtMost(case, own, "`std::vector`", f"{peer}/plain", 1.1),
        Faster(case, own, "STXXL `vector`", f"{peer}/stxxl", 3),
        Faster(case, own, "VIGRA `ChunkedArrayTmpFile`", f"{peer}/vigra", 3),
        AtMost(case, own, "VIGRA, chunk by chunk", f"{peer}_chunks/vigra"),
    ]


SECTIONS = [
    Section("Handles", [
        AtMost("`Map` + `Unmap`, cached, the region's only piece", "handles/cached/mempager",
               "four lock pairs", "handles/four_lock_pairs", 0.9),
        Faster("the same", "handles/cached/mempager", "`mmap` + a touch + `munmap`",
               "handles/cached/mmap", 100),
        AtMost("`Map` + `Unmap`, nested", "handles/nested/mempager", "two lock pairs",
               "handles/two_lock_pairs", 1.05),
        AtMost("a handle is copied and destroyed", "handles/copy/mempager", "two lock pairs",
               "handles/two_lock_pairs", 1.05),
        AtMost("cached `Map` + `Unmap`, counters off", "handles/counters/off", "counters on",
               "handles/counters/on"),
        Rate("two threads, cached `Map` + `Unmap`", "handles/threads_cached/threads:2",
             "one thread", "handles/threads_cached/threads:1", 1.8),
        Each("the same", "handles/threads_cached/threads:2", "one thread",
             "handles/threads_cached/threads:1"),
        Rate("two threads, nested `Map` + `Unmap`", "handles/threads_nested/threads:2",
             "one thread", "handles/threads_nested/threads:1", 1.8),
        Each("the same", "handles/threads_nested/threads:2", "one thread",
             "handles/threads_nested/threads:1", 1.1),
        AtMost("`Map` + `Unmap`, cached", "handles/cached/mempager",
               "a page of a plain buffer pool, pinned and unpinned", "handles/floor"),
        Rate("two threads, such pages", "handles/threads_floor/threads:2", "one thread",
             "handles/threads_floor/threads:1"),
        Rate("two threads, four lock pairs of their own", "handles/threads_locks/threads:2",
             "one thread", "handles/threads_locks/threads:1"),
    ], [
        "A lock pair takes and releases a free `WindowUnixMutex`; `Map` takes a handle's, and so "
        "does `Unmap`. Only what makes or ends a view takes the pager's, too.",
        "`mmap` maps a region of the library's own size, with its memory reserved.",
        "Each thread has a piece, a region and a handle of its own. The process of all figures has "
        "two threads, since the C library leaves out the locks of those that have one.",
        "Four lock pairs are eight atomic steps. A cached `Map` and its `Unmap` are nine: four of two "
        "pairs, two of the view's holders, two of the piece's counts, and one of the handle's own, so "
        "that two threads can't give one mapping back twice. 0.9 would take two fewer. In three runs "
        "in a row: 1.13, 1.51, 1.16.",
        "Two threads that hit pieces of their own share no line that either writes, but where the "
        "clock says who let go first: a cached `Unmap` is stamped, and of two threads one reads the "
        "system's coarse clock for it. Three runs in a row: cached 1.76, 1.67, 1.54, nested 1.87, "
        "2.06, 1.83, where locks of a thread's own give 1.91, 1.89, 1.72. On another machine of the "
        "same kind cached gave 1.27 to 1.33 and nested 1.41 to 1.86; locks weren't measured there.",
    ]),
    Section("`Allocate` + `Free`", pieces_rows(), [
        "Pieces of 64 to 4063 bytes, at random but the same for each peer; as many as given live "
        "in one pool, and each slot was replaced about once before the clock starts.",
        "Ours lie in regions of 8 MB with their records outside, and can be unmapped. Those of "
        "Boost.Interprocess lie in one `managed_shared_memory`, mapped as a whole, made large "
        "enough for all beforehand, with its records inside. Both lock.",
        "`malloc` has no lock to take for a thread's own pieces, and its memory can't be shared.",
        "Random replacement among many pieces waits for memory. Of a million, a look at a "
        "record that no cache has takes some 180 ns, so what it takes longer than of ten are "
        "nine of them, one after the other: the handle, what the piece's handles share, the "
        "chunk and the descriptor side by side, the neighbours that are merged, the bins of "
        "free chunks, and what is found there. A piece that can be unmapped can't keep its "
        "records in front of its bytes, as Boost does. Three runs in a row: 1.06, 1.02, 0.95 of"
        " Boost's time for 100,000, 1.04, 1.30, 1.21 for a million; one more among a million "
        "1.07, 0.79, 0.91. A fifth of it is the processor's search for the records' pages: with"
        " `GLIBC_TUNABLES=glibc.malloc.hugetlb=1`, which gives records huge pages, 1.15 where "
        "it was 1.5 without (four pairs).",
        "Two threads' `Allocate` + `Free`: both work under one lock, so one thread's rate is all that "
        "there is, and handing the lock over costs what goes on beside it: 0.97, 0.95, 1.41 in three "
        "runs in a row. To make the handle's record before the lock was tried, and made no difference.",
    ]),
    Section("Regions", [
        AtMost("life of a region of 8 MB", "regions/life/mempager/8", "raw calls",
               "regions/life/raw/8", 1.1),
        AtMost("life of a region of 256 MB", "regions/life/mempager/256", "raw calls",
               "regions/life/raw/256", 1.1),
        AtMost("a miss: one region evicted, another mapped and read", "regions/miss/mempager",
               "`munmap` + `mmap` + the read", "regions/miss/raw", 1.1),
        Faster("working set of twice the cache", "regions/set/mempager",
               "`mapped_region` for each access", "regions/set/mapped_region", 1),
        Faster("the same", "regions/set/mempager", "`pread` into one buffer", "regions/set/read",
               1),
    ], [
        "A life: created, mapped, each page written to, unmapped, removed. Raw calls: `shm_open`, "
        "`fallocate`, `mmap`, `munmap`, `close`, `shm_unlink`, with the same reservation. The "
        "library also looks at the memory that is left, takes a lock and makes an anchor.",
        "Working set: 64 pieces of 8 MB, 256 MB of cache, the first half of a random piece is "
        "read. The peers' files lie in shared memory too. `pread` copies what it reads, of the "
        "half only; the others map the whole piece.",
    ]),
    Section("Many regions", [
        Growth("`Map` with so many regions registered", "blocks/map", BLOCKS, 1.3),
        Growth("`Unmap`", "blocks/unmap", BLOCKS, 1.3),
        Growth("`Free`", "blocks/free", BLOCKS, 1.3),
        Growth("two lock pairs", "blocks/locks", BLOCKS, None),
        Growth("`munmap`, `close`, `shm_unlink`", "blocks/raw_free", BLOCKS, None),
        Bytes("memory after 100,000 regions came and went", "passing/regions/100000", 1048576),
        Bytes("memory after 1,000,000 regions came and went", "passing/regions/1000000", 1048576),
    ], [
        "Regions of 4 KB with a piece each. The operations are of ten of them, whose records are "
        "in the processor's caches, while all others are cached. `Free` removes the region.",
        "What grows isn't the library's: nothing that `Map` and `Unmap` look at depends on the number "
        "of regions. The system's own calls for a region's end take 1.31 to 1.38 times as long among "
        "100,000 others, and ten times two lock pairs, of which the clock counts every few ns, 1.07 "
        "to 1.67. Three runs in a row: `Map` 1.47, 1.07, 1.00, `Unmap` 1.00, 1.01, 1.59, `Free` 1.27, "
        "1.25, 1.32.",
        "Memory is what `malloc` has given out in the process; one piece stays all the time, so "
        "that ids only rise.",
    ]),
    Section("Fragmented buffers", [
        *scan_rows("scan, read", "fragments/range", "fragments/read"),
        *scan_rows("scan, written", "fragments/range_write", "fragments/write"),
        AtMost("scan, read", "fragments/range/mempager", "one fragment's size, as often",
               "fragments/range/fragment", 1.1),
        AtMost("scan, written", "fragments/range_write/mempager", "one fragment's size, as often",
               "fragments/range_write/fragment", 1.1),
        AtMost("`GetPointerAtIndex` for each element, read", "fragments/read/mempager",
               "`std::vector`", "fragments/read/plain"),
        AtMost("`GetPointerAtIndex` for each element, written", "fragments/write/mempager",
               "`std::vector`", "fragments/write/plain"),
        Faster("random elements of a mapped fragment", "fragments/random/mempager",
               "STXXL `vector`", "fragments/random/stxxl", 3),
        AtMost("2 GB grow by a fragment", "fragments/grow/2000", "200 MB grow by one",
               "fragments/grow/200", 1.1),
    ], [
        "300 MB of `double` in fragments of 75 MB, the default, STXXL's and VIGRA's in pages of "
        "8 MB, and for each as much cache as all of it takes; the "
        "peers' files lie in shared memory. Reading adds up, writing stores the element's number.",
        "A scan asks `Mem_MemFragmentsAllocator` for a range by `GetRangeFromIndex` and goes through "
        "it; STXXL and VIGRA are scanned by their iterators over the elements, VIGRA also by its "
        "iterator over the chunks. Random elements are read by `GetPointerAtIndex` and by `[]`.",
        "A buffer grows by a whole fragment, of 8 MB here, which is a region of its own.",
        "The scans are as fast as plain memory, so how many times faster than a peer they are is up "
        "to the peer: VIGRA's iterator took 27 to 39 ms for the writing from run to run.",
    ]),
]

SECTIONS += [
    Section("The typed layer", [
        AtMost("`piece::map` and its end, cached", "typed/map/mempager", "`Map` + `Unmap`",
               "typed/map/below", 1.02),
        AtMost("scan by `parts()`, read", "typed/scan/mempager", "`GetRangeFromIndex`",
               "typed/scan/below", 1.02),
        AtMost("elements by `[]`, read", "typed/read/mempager", "`GetPointerAtIndex`",
               "typed/read/below", 1.02),
        AtMost("elements by iterator, read", "typed/iterate/mempager", "`GetPointerAtIndex`",
               "typed/read/below", 1.02),
        AtMost("elements by `[]`, written", "typed/write/mempager", "`GetPointerAtIndex`",
               "typed/write/below", 1.02),
        AtMost("random elements of a mapped fragment", "typed/random/mempager",
               "`GetPointerAtIndex`", "typed/random/below", 1.02),
        AtMost("two fragments by turns", "typed/alternate/mempager", "`GetPointerAtIndex`",
               "typed/alternate/below", 1.02),
        Faster("four cursors, in a thread each", "typed/cursors/4", "one cursor",
               "typed/cursors/1", 1),
    ], [
        "The calls below are those of `MEM_PagerInfo` and `Mem_MemFragmentsAllocator`. Both have "
        "300 MB of `double` in fragments of 75 MB. Elements are those of 1 MB, again and again.",
        "The cursors share the work on 300 MB: a square root of each element. More threads than "
        "processors gain no more than there are processors.",
    ]),
    Section("What peers show, done anew", [
        Faster("a vector is filled and its even elements counted", "ports/vector/mempager",
               "STXXL `vector`", "ports/vector/stxxl", 1),
        Faster("four threads fill one volume, and it is compared", "ports/threads/mempager",
               "VIGRA `ChunkedArrayTmpFile`", "ports/threads/vigra", 1),
        Faster("a vector for another process", "ports/processes/mempager",
               "Boost.Interprocess", "ports/processes/boost", 1),
    ], [
        "The programs are in `examples/ports`, in %s lines of code that do the work of %s of the "
        "originals: STXXL's `examples/containers/vector1.cpp`, with a quarter of its numbers here "
        "and a cheaper generator; VIGRA's `testMultiThreaded` of `test_chunked.cxx`, without its "
        "fixture; Boost's `example/doc_spawn_vector.cpp`, here with a forked process in place of a "
        "started one. Comments and blank lines aren't counted." % ("14, 29 and 28", "27, 33 and 40"),
        "The peers' files lie in shared memory. STXXL's vector caches 32 MB, as in the example; "
        "ours leaves its views in the pager's cache. Regions are of 64 KB in the last line, as "
        "Boost's segment is; with 8 MB, the default, their memory would cost 3 ms. What is left of "
        "the difference is the making of a region, which asks what memory its control groups "
        "leave, and takes a lock, so that no full memory and no killed process does harm.",
    ]),
]

BYTE_SIZES = {4096: "4 KB", 65536: "64 KB", 1048576: "1 MB", 67108864: "64 MB"}


def miss_rows():
    rows = []
    for kind in ("read", "written"):
        own = f"misses/{kind}/mempager"
        rows.append(AtMost(f"a miss of 8 MB, all {kind}", own, "raw calls", f"misses/{kind}/raw", 0.6))
        rows.append(AtMost(f"fragments of twice the cache, {kind}", f"misses/scan_{kind}/mempager",
                           "the older build", f"misses/scan_{kind}/today", 0.6))
    for size in (8, 256):
        rows.append(AtMost(f"life of a region of {size} MB, all written",
                           f"misses/life/mempager/{size}", "raw calls", f"misses/life/raw/{size}",
                           0.7))
    rows.append(AtMost("working set of twice the cache, half of each read", "misses/set/mempager",
                       "`pread`", "misses/set/pread"))
    for size, text in BYTE_SIZES.items():
        for kind in ("read", "written"):
            rows.append(AtMost(f"one byte {kind} in each of many pieces of {text}",
                               f"misses/byte_{kind}/mempager/{size}", "the older build",
                               f"misses/byte_{kind}/today/{size}", 1.1))
    for kind in ("read", "written"):
        own = f"huge/misses/{kind}/mempager"
        rows.append(Faster(f"huge pages: a miss of 8 MB, all {kind}", own,
                           "the older build, small pages", f"misses/{kind}/today", 8))
        rows.append(AtMost("the same", own, "raw calls, huge pages", f"huge/misses/{kind}/raw",
                           1.15))
    for size in (8, 256):
        own = f"huge/misses/life/mempager/{size}"
        rows.append(Faster(f"huge pages: life of a region of {size} MB", own,
                           "the older build, small pages", f"misses/life/today/{size}", 8))
        rows.append(AtMost("the same", own, "raw calls, huge pages",
                           f"huge/misses/life/raw/{size}", 1.15))
    demo = "the demo, 2 GB of volumes in 700 MB"
    rows.append(AtMost(demo, "demo/mempager", "the older build", "demo/today", 0.5))
    rows.append(AtMost("the same", "demo/mempager", "plain memory", "demo/plain"))
    return rows


SECTIONS.insert(3, Section("Misses", miss_rows(), [
    "The older build is that of commit 5277fb9, run by turns with this one. A miss is a `Map` whose "
    "view has gone, `Prefetch` for what follows, the touch of it all, and the view's end. Raw calls: "
    "`mmap`, the same touch, `munmap`. Written: a byte of each page.",
    "A life is as above, with pieces made ready whole by `SetPrefetchSize`. Fragments are of 32 MB, "
    "scanned in ranges of 1 MB. One byte: with the settings as they are by default.",
    "Huge pages: in a folder of shared memory mounted with `huge=within_size`. See "
    "[misses.md](misses.md).",
    "What a goal is missed by. One byte written: a place for the view is reserved first, so that "
    "huge pages can map it, which is an `mmap` more; one that is read gains more by such pages than "
    "it loses. All of 8 MB read from huge pages: what is left is the reading, and raw calls take as "
    "long. Life of 8 MB in huge pages: besides their clearing, the library looks at what memory is "
    "left, takes a lock, and touches the region's last 64 KB, which are of small pages.",
    "Where memory is in pieces, the system makes room for huge pages first. The library notices by "
    "the time that two in a row take, and has small ones for twenty times as long: a life takes up "
    "to what the raw calls take then.",
    "The demo: half of the older build's time would be less than plain memory takes for the same "
    "work. Most of it is arithmetic, which no mapping makes faster.",
]))


def python_rows():
    rows = []
    for kind, case in {"sum": "sum of a mapped chunk", "add": "`x += 1` on a mapped chunk"}.items():
        rows += [
            AtMost(case, f"python/{kind}/mempager", "NumPy", f"python/{kind}/numpy", 1.05),
            AtMost("the same", f"python/{kind}/mempager", "NumPy without huge pages",
                   f"python/{kind}/small_pages"),
            AtMost("the same, huge pages in `/dev/shm`", f"python_huge/{kind}/mempager", "NumPy",
                   f"python_huge/{kind}/numpy", 1.05)]
    cases = {"read": "a chunk is read and summed", "write": "a chunk is written",
             "read_some": "1000 elements of a chunk are read",
             "write_some": "1000 elements of a chunk are written"}
    for kind, case in cases.items():
        own, peer = f"python/{kind}/mempager", f"python/{kind}/"
        rows += [
            AtMost(case, own, "`shared_memory`", peer + "shared_memory"),
            AtMost(case, own, "`numpy.memmap`", peer + "memmap"),
            Faster(case, own, "zarr", peer + "zarr", 1),
            Faster(case, own, "zarr, uncompressed", peer + "zarr_uncompressed", 1),
            Faster(case, own, "h5py", peer + "h5py", 1)]
    rows.append(Faster("1 GB goes to another process", "python/hand_over/mempager", "pickling",
                       "python/hand_over/pickling", 50))
    for size in (8, 32):
        rows.append(Faster(f"Dask's mean of 1.2 GB by workers of 600 MB, chunks of {size} MB",
                           f"python/reduce_{size}/mempager", "Dask's spilling",
                           f"python/reduce_{size}/dask", 2))
    return rows


SECTIONS.append(Section("From Python", python_rows(), [
    "Times are of the clock, but for those on a mapped chunk. Chunks have 8 MB; all files are in "
    "`/dev/shm`.",
    "NumPy's own memory gets huge pages where the system gives them on request "
    "(`MADV_HUGEPAGE`), and so do the library's regions (`MADV_COLLAPSE`); without huge pages is NumPy "
    "as `NUMPY_MADVISE_HUGEPAGE=0` has it. All pages were written to before, and none is found "
    "during the measuring.",
    "`shared_memory` and `memmap` are one array that is mapped all the time: reading from it is "
    "nothing but NumPy. What an `Array` adds is about 10 µs of Python for each access, more where "
    "the processor's caches are cold, as between the turns of others here. Work on blocks.",
    "The hand-over ends when the receiver has answered with the last element.",
    "The mean is of an array of twice what both workers may have together. By Dask's spilling it "
    "is of a persisted array, a part of which Dask has written to `/var/tmp`. The machine has memory "
    "for these files, so hardly any disk is waited for; under a limit for the whole machine it "
    "would be. A worker that goes over its limit isn't ended for it. With chunks of 8 MB Dask's own "
    "work for its tasks is more than half of our time.",
]))

PEERS = {"stxxl": "STXXL (libstxxl-dev)", "vigra": "VIGRA (libvigraimpex-dev)",
         "boost": "Boost.Interprocess (libboost-dev)", "zarr": "zarr (python3-zarr)",
         "h5py": "h5py (python3-h5py)", "dask": "Dask (python3-distributed)"}


def missing_peers(section, results):
    """A line for each peer that this section names and no benchmark has."""
    named = {part for row in section.rows for name in row.needs() for part in name.split("/")}
    there = {part for name in results.times for part in name.split("/")}
    return [f"{PEERS[peer]} isn't installed, so its lines are left out."
            for peer in sorted(named & set(PEERS) - there)]


def section_text(section, results):
    rows = [row for row in section.rows if all(name in results.times for name in row.needs())]
    if not rows:
        return f"## {section.title}\n\nNot measured.\n", []
    lines = [row.line(results) for row in rows]
    table = ["| Case | mempager | beside | | ratio | to reach | reached |",
             "|---|---|---|---|---|---|---|", *[line.text for line in lines]]
    notes = section.notes + missing_peers(section, results)
    if len(rows) < len(section.rows):
        notes.append(f"Lines not measured this time: {len(section.rows) - len(rows)}.")
    return "\n".join([f"## {section.title}", "", *table, "", *[f"- {note}" for note in notes],
                      ""]), lines


# The machine -------------------------------------------------------------------------------------


def first_value(path, key):
    for line in pathlib.Path(path).read_text().splitlines():
        if line.startswith(key):
            return line.split(":", 1)[1].strip()
    return "unknown"


def file_system(folder):
    words = subprocess.run(["findmnt", "-n", "-o", "FSTYPE", "--target", folder],
                           capture_output=True, text=True, check=False).stdout.split()
    return words[0] if words else "unknown"


def machine(results, temp_folder):
    cores = len([line for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                 if line.startswith("processor")])
    memory = int(first_value("/proc/meminfo", "MemTotal").split()[0]) / 1048576
    tools = [f"{results.compiler}, Release"] * bool(results.compiler)
    tools += [results.python] * bool(results.python)
    return (f"{first_value('/proc/cpuinfo', 'model name')}, {cores} cores, {memory:.0f} GB of "
            f"memory; Linux {platform.release()}; {'; '.join(tools)}; "
            f"processors that share a cache with the first: {results.cache}; temp folder "
            f"{temp_folder} on {file_system(temp_folder)}; {datetime.date.today():%Y-%m-%d}.")


# The picture -------------------------------------------------------------------------------------

WIDTH, HEIGHT = 1000, 420
COLOURS = ("#1f6fb4", "#c2571a", "#5d8a3a")


class Panel:
    """Curves over two logarithmic axes."""

    def __init__(self, left, title, x_title, curves):
        self.left, self.top, self.width, self.height = left, 60, 330, 290
        self.title, self.x_title, self.curves = title, x_title, curves
        xs = [x for _, points in curves for x, _ in points]
        ys = [y for _, points in curves for _, y in points]
        self.x_range = (math.log10(min(xs)), math.log10(max(xs)))
        self.y_range = (math.floor(math.log10(min(ys))), math.ceil(math.log10(max(ys))))

    def x(self, value):
        low, high = self.x_range
        return self.left + (math.log10(value) - low) / (high - low) * self.width

    def y(self, value):
        low, high = self.y_range
        return self.top + self.height - (math.log10(value) - low) / (high - low) * self.height

    def frame(self):
        yield f'<text class="title" x="{self.left}" y="{self.top - 22}">{self.title}</text>'
        for power in range(self.y_range[0], self.y_range[1] + 1):
            y = self.y(10 ** power)
            yield (f'<line class="grid" x1="{self.left}" x2="{self.left + self.width}" '
                   f'y1="{y:.1f}" y2="{y:.1f}"/>')
            yield (f'<text class="tick" text-anchor="end" x="{self.left - 8}" '
                   f'y="{y + 4:.1f}">{time_text(10 ** power)}</text>')
        bottom = self.top + self.height
        for power in range(math.ceil(self.x_range[0]), math.floor(self.x_range[1]) + 1):
            yield (f'<text class="tick" text-anchor="middle" x="{self.x(10 ** power):.1f}" '
                   f'y="{bottom + 20}">{10 ** power:,}</text>')
        yield (f'<text class="tick" text-anchor="middle" x="{self.left + self.width / 2}" '
               f'y="{bottom + 42}">{self.x_title}</text>')

    def label_places(self):
        """Below each other, however close the curves end."""
        places, last = {}, -math.inf
        for name, points in sorted(self.curves, key=lambda curve: self.y(curve[1][-1][1])):
            last = places[name] = max(self.y(points[-1][1]) + 4, last + 16)
        return places

    def draw(self):
        yield from self.frame()
        places = self.label_places()
        for (name, points), colour in zip(self.curves, COLOURS):
            path = " ".join(f"{self.x(x):.1f},{self.y(y):.1f}" for x, y in points)
            yield f'<polyline fill="none" stroke="{colour}" stroke-width="2" points="{path}"/>'
            for x, y in points:
                yield f'<circle cx="{self.x(x):.1f}" cy="{self.y(y):.1f}" r="3" fill="{colour}"/>'
            yield (f'<text class="name" fill="{colour}" x="{self.left + self.width + 8}" '
                   f'y="{places[name]:.1f}">{name}</text>')


def points(results, stem, sizes):
    return [(size, results.times[f"{stem}/{size}"]) for size in sizes
            if f"{stem}/{size}" in results.times]


def curves(results, stems, sizes):
    found = [(name, points(results, stem, sizes)) for name, stem in stems]
    return [(name, row) for name, row in found if len(row) > 1]


def picture(results):
    panels = [
        (80, "Allocate + Free, a random piece replaced", "live pieces",
         curves(results, [("mempager", "pieces/replace/mempager"),
                          ("Boost", "pieces/replace/boost")], COUNTS)),
        (580, "Operations on one region", "registered regions",
         curves(results, [("Map", "blocks/map"), ("Unmap", "blocks/unmap"),
                          ("Free", "blocks/free")], BLOCKS)),
    ]
    body = [element for left, title, x_title, rows in panels if rows
            for element in Panel(left, title, x_title, rows).draw()]
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
        'font-family="sans-serif">',
        "<style>.title{font-size:15px;fill:#222}.tick{font-size:12px;fill:#555}"
        ".name{font-size:13px}.grid{stroke:#ddd}</style>",
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>', *body, "</svg>", ""])


# ------------------------------------------------------------------------------------------------


def fault_text(results):
    text = (f"The clock ran {results.wait:.2f} times as long as the processor worked (well above 1: "
            "a busy machine).")
    if "misses/fault" in results.times:
        fault = results.times["misses/fault"] / results.counters["misses/fault", "faults"]
        text += (f" A page fault costs {time_text(fault)} here: the touch of a page that is in "
                 "memory.")
    return text


def page(results, temp_folder, remarks):
    sections = [section_text(section, results) for section in SECTIONS]
    lines = [line for _, lines_ in sections for line in lines_ if line.verdict is not None]
    reached = sum(line.verdict for line in lines)
    return "\n".join([
        "# Figures", "",
        "Written by `scripts/bench`: medians of interleaved repetitions, each ratio from one "
        "process. Times are of the processor, but for threads and many regions, where they are of "
        "the clock. A ratio is the library's time over "
        "its peer's unless it says otherwise. "
        f"{reached} of {len(lines)} goals are reached.", "",
        machine(results, temp_folder), fault_text(results), *[f"\n{remark}" for remark in remarks], "",
        "![Growth curves](figures.svg)", "",
        *[text for text, _ in sections]])


def renewed(text, results, temp_folder, remarks):
    """The page with the sections that were measured in their places, or behind the others."""
    parts = re.split(r"^(?=## )", text, flags=re.M)
    for section in SECTIONS:
        made, lines = section_text(section, results)
        if not lines:
            continue
        notes = [f"Measured by itself: {machine(results, temp_folder)}", *remarks]
        made += "".join(f"- {note}\n" for note in notes)
        title = f"## {section.title}\n"
        place = next((i for i, part in enumerate(parts) if part.startswith(title)), len(parts))
        parts[place:place + 1] = [made + "\n" * (place + 1 < len(parts))]
        parts[place - 1] = parts[place - 1].rstrip() + "\n\n"
    text = "".join(parts)
    reached, missed = (len(re.findall(rf"\| {mark} \|$", text, re.M))
                       for mark in ("yes", r"\*\*missed\*\*"))
    return re.sub(r"\d+ of \d+ goals", f"{reached} of {reached + missed} goals", text)


def main():
    only = sys.argv[1] == "--only"
    json_folder, docs, temp_folder, *remarks = sys.argv[1 + only:]
    results = Results(json_folder)
    if only:
        path = pathlib.Path(docs, "figures.md")
        path.write_text(renewed(path.read_text(), results, temp_folder, remarks))
        return
    pathlib.Path(docs, "figures.md").write_text(page(results, temp_folder, remarks))
    pathlib.Path(docs, "figures.svg").write_text(picture(results))


if __name__ == "__main__":
    main()
