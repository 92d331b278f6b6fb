"""Overhead of the ztlib Python calls over the same C calls on a 4,096 x 4,096
image.

    PYTHONPATH=build/python /usr/bin/python3 bench/python/overhead.py [--bench-c build/python/ztlib_bench_c] [--reps 9]

The C side is build/python/ztlib_bench_c (python/bench_c.c): it makes the same
data, runs the case the way a C host would and prints its time. C and Python
runs alternate, so a machine whose load changes affects both alike; the table
gives the medians. Goal: the Python call takes at most 5 % longer.
"""

import argparse
import os
import statistics
import subprocess
import sys
import time

import numpy as np

import ztlib

SIDE = 4096


def make_data():
    y, x = np.mgrid[0:SIDE, 0:SIDE].astype(np.uint32)
    v = (x * 7 + y * 13 + ((x ^ y) & 63)) & 0xFFFF
    img16 = (v * 16 + (v >> 12)).astype(np.uint16)
    img8 = (v & 255).astype(np.uint8)
    i = np.arange(17 * 17 * 17 * 3, dtype=np.uint64)
    table = ((i * 2654435761) % 65536).astype(np.float32).reshape(17, 17, 17, 3)
    return img8, img16, table


def cases(img8, img16, table):
    pixels = SIDE * SIDE // 3
    # The C host screens into a buffer it keeps; so does the Python side.
    planes = np.empty((1, SIDE, SIDE // 8), np.uint8)
    rgb16 = img16.reshape(-1)[: pixels * 3].reshape(pixels, 3)
    return {
        "screen8": ("screen, ordered 4x4, uint8", lambda: ztlib.screen(img8, mode=11, out=planes)),
        "ed8": ("screen, error diffusion, uint8", lambda: ztlib.screen(img8, mode=3, out=planes)),
        "dither": ("dither16to8, noise", lambda: ztlib.dither16to8(img16)),
        "interp": ("interpolate 17^3 trilinear, 1.4 M px", lambda: ztlib.interpolate(table, rgb16, "trilinear")),
        "resample": ("resample to 2048^2, triangle", lambda: ztlib.resample(img8, size=(2048, 2048), filter="triangle")),
        "lz4": ("compress lz4, 16 MiB", lambda: ztlib.compress(img8, "lz4")),
    }


def c_time(bench_c, case):
    out = subprocess.run([bench_c, case, "1"], check=True, capture_output=True, text=True).stdout
    return float(out.strip())


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    default_c = os.path.join(here, "..", "..", "build", "python", "ztlib_bench_c")
    ap = argparse.ArgumentParser()
    ap.add_argument("--bench-c", default=os.environ.get("ZTLIB_BENCH_C", default_c))
    ap.add_argument("--reps", type=int, default=9)
    ap.add_argument("cases", nargs="*")
    args = ap.parse_args()
    img8, img16, table = make_data()
    table_cases = cases(img8, img16, table)
    names = args.cases or list(table_cases)
    rows = []
    for name in names:
        label, fn = table_cases[name]
        py, c = [], []
        for _ in range(args.reps):
            # Each C run makes one untimed call before the timed one (its
            # output pages mapped, its caches warm); each Python sample does
            # the same, since the C process ran in between and took the caches.
            fn()
            t0 = time.perf_counter()
            fn()
            py.append(time.perf_counter() - t0)
            c.append(c_time(args.bench_c, name))
        p, q = statistics.median(py), statistics.median(c)
        rows.append((label, p * 1e3, q * 1e3, (p / q - 1) * 100))
    print(f"{'case':40} | {'python ms':>9} | {'C ms':>9} | {'overhead':>8} | goal  | holds")
    print("-" * 90)
    ok = True
    for label, p, q, o in rows:
        holds = o <= 5.0
        ok &= holds
        print(f"{label:40} | {p:9.2f} | {q:9.2f} | {o:7.1f}% | <= 5% | {'yes' if holds else 'no'}")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
