"""Element-wise operators: per-call overhead on tiny tensors and throughput on large ones.

Run by hand:  python benchmarks/bench_elementwise.py [--quick]

(a) per call on a 4-element float32 tensor, one thread, beside numpy and PyTorch (CPU);
(b) 10^7-element float32 and complex128 arrays, allocating their results, on one and two
    threads (numpy is single-threaded).
"""
import numpy as np

from pytramel import _core
from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor
from timing import best, options, print_table, torch, verdict


def per_call(repeat, scale):
    rows = []
    a, b = np.arange(1, 5, dtype=np.float32), np.arange(5, 9, dtype=np.float32)
    n = 100_000 // scale
    for grad in (False, True):
        x, y = QTensor(a, requires_grad=grad), QTensor(b, requires_grad=grad)
        tx = torch.tensor(a, requires_grad=grad) if torch else None
        ty = torch.tensor(b, requires_grad=grad) if torch else None
        cases = [
            ("x*y", lambda: x * y, lambda: a * b, lambda: tx * ty),
            ("x+1.0", lambda: x + 1.0, lambda: a + 1.0, lambda: tx + 1.0),
            ("exp(x)", lambda: tt.exp(x), lambda: np.exp(a), lambda: torch.exp(tx)),
            ("sums(x)", lambda: tt.sums(x), lambda: np.sum(a), lambda: torch.sum(tx)),
        ]
        for what, ours, ref_np, ref_t in cases:
            t_ours, t_np = best(ours, n, repeat), best(ref_np, n, repeat)
            t_torch = best(ref_t, n, repeat) if torch else None
            check = verdict(t_ours / t_np, 1.0, "numpy") if what == "x*y" and not grad else ""
            if what == "x*y" and grad and t_torch:
                check = verdict(t_ours / t_torch, 0.25, "PyTorch")
            rows.append((f"{what}{' with grad' if grad else ''}, 4 float32", [t_ours, t_np, t_torch], check))

    x, y = QTensor(a, requires_grad=True), QTensor(b, requires_grad=True)
    n = 20_000 // scale
    ours = best(lambda: tt.sums(x * y + x).backward(), n, repeat)
    ref_t = None
    if torch:
        tx, ty = torch.tensor(a, requires_grad=True), torch.tensor(b, requires_grad=True)
        ref_t = best(lambda: torch.sum(tx * ty + tx).backward(), n, repeat)
    rows.append(("sums(x*y+x) forward+backward", [ours, None, ref_t],
                 verdict(ours / ref_t, 0.2, "PyTorch") if ref_t else ""))
    return rows


def throughput(repeat, scale):
    rows = []
    n = 10**7 // scale
    rng = np.random.default_rng(0)
    for dtype in (np.float32, np.complex128):
        a = (rng.random(n) - 0.5).astype(dtype)
        b = (rng.random(n) - 0.5).astype(dtype)
        if dtype is np.complex128:
            a = a + 1j * rng.random(n)
        x, y = QTensor(a), QTensor(b)
        cases = [("add", lambda: x + y, lambda: a + b, 1.0), ("mul", lambda: x * y, lambda: a * b, 1.0),
                 ("exp", lambda: tt.exp(x), lambda: np.exp(a), 1 / 3),
                 ("sums", lambda: tt.sums(x), lambda: np.sum(a), 0.5 if dtype is np.float32 else None)]
        for what, ours, ref, target in cases:
            t_np = best(ref, 3, repeat)
            times = []
            for threads in (1, 2):
                _core.set_num_threads(threads)
                times.append(best(ours, 3, repeat))
            check = verdict(times[0] / t_np, round(target, 2), "numpy") if target else ""
            check += f"; 2 threads {times[0] / times[1]:.2f}x faster (target 1.6x)"
            rows.append((f"{what} 10^7 {np.dtype(dtype).name}", [times[0], times[1], t_np], check))
    _core.set_num_threads(2)
    return rows


def main():
    repeat, scale = options(__doc__)
    _core.set_num_threads(1)
    print_table(per_call(repeat, scale), ["pytramel", "numpy", "torch"], repeat)
    print()
    print_table(throughput(repeat, scale), ["ours 1 thr", "ours 2 thr", "numpy"], repeat)


if __name__ == "__main__":
    main()
