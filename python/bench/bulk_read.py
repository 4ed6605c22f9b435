#!/usr/bin/env python3
"""Reads every channel of a large MDF file into numpy arrays and reports the speed.

The file has the shape of a typical large measurement: 183 channel groups of 200 channels
of mixed integer and float types with linear conversions, 1,800 records each (about
240 MB). It is written by the package into a temporary directory unless --file names one.

    KORVEL_LIBRARY='build-release/libkorvel.so.*' python3 python/bench/bulk_read.py

Reports the best of --repeat runs of: opening the file and listing its channels; reading
every channel's physical values (one bulk call per channel); reading the file's bytes.
"""
from __future__ import annotations

import argparse
import sys
import tempfile
import time
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
import korvel  # noqa: E402

TYPES = [np.uint8, np.int16, np.uint32, np.float32, np.float64, np.int32, np.uint16, np.int8]


def generate(path: Path, groups: int, channels: int, records: int) -> None:
    rng = np.random.default_rng(1)
    with korvel.open(path, "w") as f:
        for g in range(groups):
            signals = []
            for c in range(channels):
                dtype = TYPES[c % len(TYPES)]
                if np.dtype(dtype).kind == "f":
                    values = rng.standard_normal(records).astype(dtype)
                else:
                    info = np.iinfo(dtype)
                    values = rng.integers(info.min, info.max, records, dtype=dtype)
                signals.append(korvel.Signal(f"g{g}_c{c}", values, unit="u",
                                             factor=0.5 + c % 3, offset=float(c % 5)))
            f.add_group(np.arange(records) * 0.01, signals)


CPU: dict = {}


def best(repeat: int, fn):
    """The shortest wall time of `repeat` runs (and, in CPU, that run's processor time)."""
    times = []
    result = None
    for _ in range(repeat):
        start, cpu = time.perf_counter(), time.process_time()
        result = fn()
        times.append((time.perf_counter() - start, time.process_time() - cpu))
    wall, CPU[fn.__name__] = min(times)
    return wall, result


def main() -> int:
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--file", type=Path, help="an existing MDF file to read")
    p.add_argument("--groups", type=int, default=183)
    p.add_argument("--channels", type=int, default=200)
    p.add_argument("--records", type=int, default=1800)
    p.add_argument("--repeat", type=int, default=3)
    args = p.parse_args()

    with tempfile.TemporaryDirectory(prefix="korvel-bench-") as tmp:
        path = args.file
        if path is None:
            path = Path(tmp) / "bench.mdf"
            start = time.perf_counter()
            generate(path, args.groups, args.channels, args.records)
            print(f"wrote {path.stat().st_size / 1e6:.0f} MB in {time.perf_counter() - start:.1f} s")

        def open_and_list():
            with korvel.open(path) as f:
                return sum(len(g.channels.names()) for g in f.groups)

        def read_all():
            arrays = []
            with korvel.open(path) as f:
                for g in f.groups:
                    arrays.extend(g.arrays().values())
            return sum(len(a) for a in arrays)

        def read_each_group():  # each group's arrays dropped before the next group
            values = 0
            with korvel.open(path) as f:
                for g in f.groups:
                    values += sum(len(a) for a in g.arrays().values())
            return values

        def read_bytes():
            with open(path, "rb") as stream:
                return len(stream.read())

        t_open, channels = best(args.repeat, open_and_list)
        t_read, values = best(args.repeat, read_all)
        t_each, _ = best(args.repeat, read_each_group)
        t_bytes, size = best(args.repeat, read_bytes)
        print(f"library: {korvel.library_path()}")
        print(f"file: {size / 1e6:.0f} MB, {channels} channels, {values} values")
        print(f"open and list the channels: {t_open:.3f} s")
        print(f"every channel into numpy arrays (physical, Group.arrays): {t_read:.3f} s, "
              f"{values / t_read / 1e6:.0f} M values/s (CPU {CPU['read_all']:.3f} s)")
        print(f"the same, each group's arrays dropped after reading: {t_each:.3f} s, "
              f"{values / t_each / 1e6:.0f} M values/s (CPU {CPU['read_each_group']:.3f} s)")
        print(f"read the file's bytes: {t_bytes:.3f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())
