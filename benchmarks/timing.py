"""Shared timing and printing for the benchmark scripts (run by hand, not in CI)."""
import argparse
import sys
import timeit

import numpy as np

try:
    import torch
except ImportError:  # the PyTorch column is then left empty
    torch = None


def options(doc):
    """(repeats, scale): --quick gives fewer repeats and a tenth of the calls."""
    parser = argparse.ArgumentParser(description=doc.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer repeats, for a smoke run")
    args = parser.parse_args()
    return (3, 10) if args.quick else (7, 1)


def one_thread():
    """pytramel and PyTorch on one thread (numpy's BLAS takes OPENBLAS_NUM_THREADS at its import)."""
    from pytramel import _core
    _core.set_num_threads(1)
    if torch:
        torch.set_num_threads(1)


def best(fn, number, repeat):
    """Seconds per call: the fastest of `repeat` runs of `number` calls."""
    return min(timeit.repeat(fn, number=number, repeat=repeat)) / number


def against(ours, ref_np, ref_torch, number, repeat):
    """[ours, numpy, PyTorch or None] seconds per call."""
    return [best(ours, number, repeat), best(ref_np, number, repeat),
            best(ref_torch, number, repeat) if torch else None]


def run_table(doc, rows):
    """The usual main: rows(repeat, scale) timed on one thread and printed as a table."""
    repeat, scale = options(doc)
    one_thread()
    print_table(rows(repeat, scale), ["pytramel", "numpy", "torch"], repeat)


def fmt(seconds):
    if seconds is None:
        return "-"
    for unit, scale in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6), ("ns", 1e-9)):
        if seconds >= scale:
            return f"{seconds / scale:8.3f} {unit}"
    return f"{seconds / 1e-9:8.3f} ns"


def verdict(ratio, target, against):
    """'0.45x numpy, target <= 1.3x: ok'; ratio is ours / theirs."""
    return f"{ratio:.2f}x {against}, target <= {target}x: {'ok' if ratio <= target else 'MISSED'}"


def print_table(rows, columns, repeat):
    """rows: (what, [seconds or None per column], check)."""
    width = max(len(r[0]) for r in rows)
    print(f"python {sys.version.split()[0]}, numpy {np.__version__}, "
          f"torch {torch.__version__ if torch else 'not installed'}; best of {repeat}")
    print(f"{'':{width}}  " + "  ".join(f"{c:>12}" for c in columns) + "  check")
    for what, values, check in rows:
        print(f"{what:{width}}  " + "  ".join(f"{fmt(v):>12}" for v in values) + f"  {check}")
