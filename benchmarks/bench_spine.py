"""Timings of QTensor construction and of the backward walk, side by side with numpy and PyTorch.

Run by hand:  python benchmarks/bench_spine.py [--quick]

Every figure is the best of several timeit repeats, divided by the number of calls (or hops), so
it is the cost of one call on a quiet machine. PyTorch is timed when it can be imported.
"""
import numpy as np

from pytramel import dtype as D
from pytramel.tensor.tensor import QTensor
from timing import best, options, print_table, torch, verdict


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
    repeat, scale = options(__doc__)
    hops = 10_000
    rows = []

    small = [1.0, 2.0, 3.0, 4.0]
    n = 200_000 // scale
    ours = best(lambda: QTensor(small), n, repeat)
    ref_t = best(lambda: torch.tensor(small), n, repeat) if torch else None
    rows.append(("QTensor(4-element list), per call", [ours, best(lambda: np.array(small), n, repeat), ref_t],
                 f"target < 1.5 us: {'ok' if ours < 1.5e-6 else 'MISSED'}"))

    big = np.random.default_rng(0).random(10**6)
    n = max(200 // scale, 5)
    ours, ref_np = best(lambda: QTensor(big), n, repeat), best(lambda: np.array(big), n, repeat)
    ref_t = best(lambda: torch.tensor(big), n, repeat) if torch else None
    rows.append(("QTensor(10^6 float64 array), per call", [ours, ref_np, ref_t],
                 verdict(ours / ref_np, 1.3, "numpy.array")))

    fwd = best(lambda: qtensor_chain(hops), 1, repeat) / hops
    fwd_t = best(lambda: torch_chain(hops), 1, repeat) / hops if torch else None
    rows.append((f"astype chain forward, per hop ({hops} hops)", [fwd, None, fwd_t], ""))

    n = 2 if scale > 1 else 5
    _, y = qtensor_chain(hops)
    y.backward()  # the first pass allocates the leaf's gradient
    ours = best(y.backward, n, repeat) / hops
    ref_t = None
    if torch:
        _, ty = torch_chain(hops)
        seed = torch.ones_like(ty)
        ref_t = best(lambda: ty.backward(seed, retain_graph=True), n, repeat) / hops
    rows.append(("backward over astype chain, per hop", [ours, None, ref_t],
                 verdict(ours / ref_t, 0.5, "PyTorch") if ref_t else ""))
    print_table(rows, ["pytramel", "numpy", "torch"], repeat)


if __name__ == "__main__":
    main()
