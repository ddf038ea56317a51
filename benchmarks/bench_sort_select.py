"""Timings of sorting, selection, joining and sequence operators, side by side with numpy and
PyTorch, on one thread.

Run by hand:  python benchmarks/bench_sort_select.py [--quick]

Every figure is the best of several timeit repeats, divided by the number of calls. A case is
one row of CASES: its label, the three callables (made fresh, so that operands are built outside
the timing; None where a library has no such operation), the calls per repeat and the check of
its row.
"""
import numpy as np

from pytramel.tensor import tensor as tt  # noqa: F401
from pytramel.tensor.tensor import QTensor  # noqa: F401
from timing import best, one_thread, options, print_table, torch, verdict

RNG = np.random.default_rng(0)


def against_torch(target):
    return lambda t: verdict(t[0] / t[2], target, "PyTorch") if t[2] else ""


def against_numpy(target):
    return lambda t: verdict(t[0] / t[1], target, "numpy")


def against_faster(target):
    """Ours against the faster of numpy and PyTorch."""
    def check(t):
        theirs = [x for x in t[1:] if x]
        return verdict(t[0] / min(theirs), target, "the faster of numpy and PyTorch")
    return check


CASES = [
    # label, make the callables, calls per repeat, check

    # -- sorting and top-k --

    # -- where, gather --

    # -- joining and splitting --

    # -- sequences --
]


def main():
    repeat, scale = options(__doc__)
    one_thread()
    rows = []
    for label, make, number, check in CASES:
        calls = make()
        number = max(number // scale, 1)
        times = [best(f, number, repeat) if f else None for f in calls]
        rows.append((label, times, check(times)))
    print_table(rows, ["pytramel", "numpy", "torch"], repeat)


if __name__ == "__main__":
    main()
