"""Timings of the way out to the host, side by side with numpy in one process.

Run by hand:  python benchmarks/bench_host.py [--quick]

Every figure is the best of several timeit repeats, divided by the number of calls, so it is the
cost of one call on a quiet machine.
"""
import argparse
import sys
import timeit

import numpy as np

from pytramel.tensor.tensor import QTensor


def best(fn, number, repeat):
    """Seconds per call: the fastest of `repeat` runs of `number` calls."""
    return min(timeit.repeat(fn, number=number, repeat=repeat)) / number


def fmt(seconds):
    for unit, scale in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6), ("ns", 1e-9)):
        if seconds >= scale:
            return f"{seconds / scale:8.3f} {unit}"
    return f"{seconds / 1e-9:8.3f} ns"


def compare(what, ours, ref, target):
    ratio = ours / ref
    return (what, ours, ref,
            f"{ratio:.2f}x numpy, target <= {target}x: {'ok' if ratio <= target else 'MISSED'}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer repeats, for a smoke run")
    args = parser.parse_args()
    repeat = 3 if args.quick else 7
    scale = 10 if args.quick else 1
    rows = []  # (what, ours, numpy, check)

    big = np.random.default_rng(0).random(10**6).astype(np.float32)
    t = QTensor(big)
    assert np.array_equal(t.to_numpy(), big)
    n = max(500 // scale, 5)
    rows.append(compare("to_numpy, 10^6 float32 vs numpy.array copy",
                        best(t.to_numpy, n, repeat), best(lambda: np.array(big), n, repeat), 1.2))

    small = np.random.default_rng(1).standard_normal(1000).astype(np.float32)
    s = QTensor(small)
    text = repr(s)  # leaves numpy's print options as the reference below needs them
    assert text == np.array2string(small, separator=" ", prefix="")
    n = max(200 // scale, 5)
    rows.append(compare("QTensor.__repr__, 1000 float32 vs numpy.array2string",
                        best(lambda: repr(s), n, repeat),
                        best(lambda: np.array2string(small, None, None, None, " ", ""), n, repeat),
                        1.2))

    width = max(len(r[0]) for r in rows)
    print(f"python {sys.version.split()[0]}, numpy {np.__version__}; best of {repeat}")
    print(f"{'':{width}}  {'pytramel':>12}  {'numpy':>12}  check")
    for what, ours, ref, check in rows:
        print(f"{what:{width}}  {fmt(ours):>12}  {fmt(ref):>12}  {check}")


if __name__ == "__main__":
    main()
