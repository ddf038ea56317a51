"""Indexing: per-call cost of x[key] on tiny tensors, gathers, masks and slices of large ones.

Run by hand:  python benchmarks/bench_indexing.py [--quick]

Side by side in one process with numpy and, when importable, PyTorch (CPU), all on one thread.
numpy and PyTorch return views for slices; their slice rows time a copy (`.copy()`,
`.contiguous()`), since x[key] here always makes a new tensor. Prints a markdown table.
"""
import sys

import numpy as np

from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor
from timing import best, fmt, one_thread, options, torch


def ratio(ours, theirs):
    return f"{ours / theirs:.2f}x" if ours and theirs else "-"


def print_markdown(rows, repeat):
    print(f"python {sys.version.split()[0]}, numpy {np.__version__}, "
          f"torch {torch.__version__ if torch else 'not installed'}; one thread; best of {repeat}\n")
    print("| case | pytramel | numpy | PyTorch | / numpy | / PyTorch |")
    print("|---|---:|---:|---:|---:|---:|")
    for what, ours, ref_np, ref_torch in rows:
        print(f"| {what} | {fmt(ours).strip()} | {fmt(ref_np).strip()} | {fmt(ref_torch).strip()} "
              f"| {ratio(ours, ref_np)} | {ratio(ours, ref_torch)} |")


def timed(rows, repeat, what, number, ours, ref_np, ref_torch):
    rows.append((what, best(ours, number, repeat), best(ref_np, number, repeat) if ref_np else None,
                 best(ref_torch, number, repeat) if torch and ref_torch else None))


def tiny(rows, repeat, scale):
    a = np.arange(1, 5, dtype=np.float32)
    n = 50_000 // scale
    for grad in (False, True):
        x = QTensor(a, requires_grad=grad)
        tx = torch.tensor(a, requires_grad=grad) if torch else None
        note = ", requires_grad" if grad else ""
        timed(rows, repeat, f"x[1:3], 4 float32{note}", n, lambda: x[1:3], None if grad else (lambda: a[1:3].copy()),
              lambda: tx[1:3])
        timed(rows, repeat, f"x[[0, 2],], 4 float32{note}", n, lambda: x[[0, 2],],
              None if grad else (lambda: a[[0, 2]]), lambda: tx[[0, 2]])


def large(rows, repeat, scale):
    rng = np.random.default_rng(0)
    size = 10**7 // scale
    a = rng.random(size, dtype=np.float32)
    idx = rng.integers(0, size, size // 10)
    mask = rng.random(size) < 0.5
    x, qidx, qmask = QTensor(a), QTensor(idx), QTensor(mask)
    ta, tidx, tmask = (torch.from_numpy(a), torch.from_numpy(idx), torch.from_numpy(mask)) if torch else (None,) * 3
    assert np.array_equal(x[qidx].to_numpy(), a[idx]) and np.array_equal(x[qmask].to_numpy(), a[mask])
    n = max(1, 20 // scale)
    exp = f"10^{len(str(size)) - 1}"
    timed(rows, repeat, f"x[idx], {exp} float32, {len(idx)} positions", n, lambda: x[qidx], lambda: a[idx],
          lambda: ta[tidx])
    timed(rows, repeat, f"x[mask], {exp} float32, half true", n, lambda: x[qmask], lambda: a[mask],
          lambda: ta[tmask])

    xg = QTensor(a, requires_grad=True)
    tg = torch.from_numpy(a.copy()).requires_grad_(True) if torch else None
    timed(rows, repeat, f"sums(x[idx]) forward+backward, {exp} float32", n, lambda: tt.sums(xg[qidx]).backward(),
          None, lambda: tg[tidx].sum().backward())

    m = rng.random((4000 // min(scale, 4), 2500), dtype=np.float32)
    qm, tm = QTensor(m), (torch.from_numpy(m.copy()) if torch else None)
    region = m[::2, 100:2000]
    v, qv = region + 1, QTensor(region + 1)
    tv = torch.from_numpy(v.copy()) if torch else None
    assert np.array_equal(qm[::2, 100:2000].to_numpy(), region)
    shape = "x".join(map(str, m.shape))

    def set_np():
        m[::2, 100:2000] = v

    def set_q():
        qm[::2, 100:2000] = qv

    def set_t():
        tm[::2, 100:2000] = tv

    timed(rows, repeat, f"m[::2, 100:2000], {shape} float32", n, lambda: qm[::2, 100:2000],
          lambda: m[::2, 100:2000].copy(), lambda: tm[::2, 100:2000].contiguous())
    timed(rows, repeat, f"m[::2, 100:2000] = v, {shape} float32", n, set_q, set_np, set_t)


def main():
    repeat, scale = options(__doc__)
    one_thread()
    rows = []
    tiny(rows, repeat, scale)
    large(rows, repeat, scale)
    print_markdown(rows, repeat)


if __name__ == "__main__":
    main()
