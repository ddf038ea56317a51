"""Reductions along inner and outer axes, transposes, running sums and reshapes, on one thread.

Run by hand:  python benchmarks/bench_reduce_shape.py [--quick]

Side by side with numpy and, when importable, PyTorch (both on one thread too), through the
tensor layer's operators.
"""
import numpy as np

from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor
from timing import against, best, run_table, torch, verdict


def rows(repeat, scale):
    rng = np.random.default_rng(0)
    out = []

    def add(what, ours, ref_np, ref_torch, number, target):
        times = against(ours, ref_np, ref_torch, number, repeat)
        out.append((what, times, verdict(times[0] / times[1], target, "numpy") if target else ""))
        return times[0]

    a = rng.random((2000, 5000), dtype=np.float32)
    qa, ta = QTensor(a), (torch.from_numpy(a) if torch else None)
    n = max(1, 20 // scale)
    for axis in (0, 1):
        for name, ours, np_fn, torch_fn in [
            ("sums", lambda: tt.sums(qa, axis), lambda: a.sum(axis), lambda: ta.sum(axis)),
            ("mean", lambda: tt.mean(qa, axis), lambda: a.mean(axis), lambda: ta.mean(axis)),
            ("max", lambda: tt.max(qa, axis), lambda: a.max(axis), lambda: ta.amax(axis)),
            ("var", lambda: tt.var(qa, axis), lambda: a.var(axis, ddof=1), lambda: ta.var(axis)),
        ]:
            add(f"{name} axis {axis}, 2000x5000 f32", ours, np_fn, torch_fn, n, 1.0)

    b = rng.random((4000, 4000), dtype=np.float32)
    qb, tb = QTensor(b), (torch.from_numpy(b) if torch else None)
    add("transpose copy, 4000x4000 f32", lambda: tt.transpose(qb, [1, 0]), lambda: np.ascontiguousarray(b.T),
        lambda: tb.t().contiguous(), max(1, 5 // scale), 1.0)

    v = rng.random(10**7, dtype=np.float32)
    qv, tv = QTensor(v), (torch.from_numpy(v) if torch else None)
    add("cumsum, 10^7 f32", lambda: tt.cumsum(qv, -1), lambda: np.cumsum(v), lambda: torch.cumsum(tv, 0),
        max(1, 5 // scale), 1.0)

    # A reshape is a view: the same cost for 10 elements as for 10^7.
    shape, small = [1000, 10000], QTensor(rng.random(10, dtype=np.float32))
    m = max(100, 20000 // scale)
    big = add("reshape, 10^7 f32", lambda: tt.reshape(qv, shape), lambda: v.reshape(shape),
              lambda: tv.reshape(shape), m, None)
    tiny = best(lambda: tt.reshape(small, [2, 5]), m, repeat)
    out.append(("reshape, 10 f32", [tiny, None, None],
                f"10^7 / 10 elements: {big / tiny:.2f}x, target <= 2x (no copy): {'ok' if big / tiny <= 2 else 'MISSED'}"))
    return out


if __name__ == "__main__":
    run_table(__doc__, rows)
