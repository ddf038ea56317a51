"""Timings of QTensor construction and of the backward walk, side by side with numpy and PyTorch.

Run by hand:  python benchmarks/bench_spine.py [--quick]

Every figure is the best of several timeit repeats, divided by the number of calls (or hops), so
it is the cost of one call on a quiet machine. PyTorch is timed when it can be imported.
"""
import argparse
import sys
import timeit

import numpy as np

from pytramel import dtype as D
from pytramel.tensor.tensor import QTensor

try:
    import torch
except ImportError:  # the comparison column is then left empty
    torch = None


def best(fn, number, repeat):
    """Seconds per call: the fastest of `repeat` runs of `number` calls."""
    return min(timeit.repeat(fn, number=number, repeat=repeat)) / number


def fmt(seconds):
    if seconds is None:
        return "-"
    for unit, scale in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6), ("ns", 1e-9)):
        if seconds >= scale:
            return f"{seconds / scale:8.3f} {unit}"
    return f"{seconds / 1e-9:8.3f} ns"


def qtensor_chain(hops):
    x = QTensor(np.ones(1, np.float32), requires_grad=True)
    y = x
    for i in range(hops):
        y = y.astype(D.kfloat64 if i % 2 == 0 else D.kfloat32)
    return x, y


def torch_chain(hops):
    x = torch.ones(1, dtype=torch.float32, requires_grad=True)
    y = x
    for i in range(hops):
        y = y.to(torch.float64 if i % 2 == 0 else torch.float32)
    return x, y


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="fewer repeats, for a smoke run")
    args = parser.parse_args()
    repeat = 3 if args.quick else 7
    scale = 10 if args.quick else 1
    hops = 10_000

    rows = []  # (what, ours, numpy, torch, check)

    small = [1.0, 2.0, 3.0, 4.0]
    n = 200_000 // scale
    ours = best(lambda: QTensor(small), n, repeat)
    ref_np = best(lambda: np.array(small), n, repeat)
    ref_t = best(lambda: torch.tensor(small), n, repeat) if torch else None
    rows.append(("QTensor(4-element list), per call", ours, ref_np, ref_t,
                 f"target < 1.5 us: {'ok' if ours < 1.5e-6 else 'MISSED'}"))

    big = np.random.default_rng(0).random(10**6)
    n = max(200 // scale, 5)
    ours = best(lambda: QTensor(big), n, repeat)
    ref_np = best(lambda: np.array(big), n, repeat)
    ref_t = best(lambda: torch.tensor(big), n, repeat) if torch else None
    ratio = ours / ref_np
    rows.append(("QTensor(10^6 float64 array), per call", ours, ref_np, ref_t,
                 f"{ratio:.2f}x numpy.array, target <= 1.3x: {'ok' if ratio <= 1.3 else 'MISSED'}"))

    n = 2 if args.quick else 5
    fwd = best(lambda: qtensor_chain(hops), 1, repeat) / hops
    fwd_t = best(lambda: torch_chain(hops), 1, repeat) / hops if torch else None
    rows.append((f"astype chain forward, per hop ({hops} hops)", fwd, None, fwd_t, ""))

    _, y = qtensor_chain(hops)
    y.backward()  # first pass allocates the leaf's gradient
    ours = best(y.backward, n, repeat) / hops
    ref_t = None
    if torch:
        _, ty = torch_chain(hops)
        seed = torch.ones_like(ty)
        ref_t = best(lambda: ty.backward(seed, retain_graph=True), n, repeat) / hops
    check = ""
    if ref_t:
        ratio = ours / ref_t
        check = f"{ratio:.2f}x PyTorch, target <= 0.5x: {'ok' if ratio <= 0.5 else 'MISSED'}"
    rows.append(("backward over astype chain, per hop", ours, None, ref_t, check))

    width = max(len(r[0]) for r in rows)
    print(f"python {sys.version.split()[0]}, numpy {np.__version__}, "
          f"torch {torch.__version__ if torch else 'not installed'}; best of {repeat}")
    print(f"{'':{width}}  {'pytramel':>12}  {'numpy':>12}  {'torch':>12}  check")
    for what, ours, ref_np, ref_t, check in rows:
        print(f"{what:{width}}  {fmt(ours):>12}  {fmt(ref_np):>12}  {fmt(ref_t):>12}  {check}")


if __name__ == "__main__":
    main()
