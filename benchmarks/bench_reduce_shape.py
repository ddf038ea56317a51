"""Reductions along inner and outer axes, transposes, running sums and reshapes, on one thread.

Run by hand:  python benchmarks/bench_reduce_shape.py [--quick]

Side by side with numpy and, when importable, PyTorch (both on one thread too). Operations
go through the tensor layer (pytramel.tensor.tensor) where it has them, and through the
core calls of pytramel._core otherwise; the first column says which.
"""
import numpy as np

from pytramel import _core
from timing import best, options, print_table, torch, verdict

try:
    from pytramel.tensor import tensor as tt
    from pytramel.tensor.tensor import QTensor
except ImportError:
    tt = QTensor = None

T = _core.Tensor


def layer(name):
    """The tensor layer's function `name`, or None when it has none yet."""
    return getattr(tt, name, None) if tt is not None else None


def ours(name, array, layer_call, core_call):
    """(label, thunk): the tensor-layer call when it exists, else the core call."""
    fn = layer(name)
    if fn is not None:
        t = QTensor(array)
        return f"{name}", lambda: layer_call(fn, t)
    c = T(array)
    return f"core {name}", lambda: core_call(c)


def rows(repeat, scale):
    rng = np.random.default_rng(0)
    out = []

    def add(what, ours_pair, ref_np, ref_torch, number, target):
        label, fn = ours_pair
        t_ours, t_np = best(fn, number, repeat), best(ref_np, number, repeat)
        t_torch = best(ref_torch, number, repeat) if ref_torch else None
        check = verdict(t_ours / t_np, target, "numpy") if target else ""
        out.append((f"{what} [{label}]", [t_ours, t_np, t_torch], check))
        return t_ours

    a = rng.random((2000, 5000), dtype=np.float32)
    ta = torch.from_numpy(a) if torch else None
    n = max(1, 20 // scale)
    for axis in (0, 1):
        add(f"sum axis {axis}, 2000x5000 f32", ours("sums", a, lambda f, t: f(t, axis), lambda c: T.sum(c, [axis], False)),
            lambda: a.sum(axis), (lambda: ta.sum(axis)) if torch else None, n, 1.0)
    c = T(a)
    for axis in (0, 1):
        for name, core_fn, np_fn, torch_fn in [
            ("mean", lambda: T.mean(c, [axis], False), lambda: a.mean(axis), lambda: ta.mean(axis)),
            ("max", lambda: T.max(c, [axis], False), lambda: a.max(axis), lambda: ta.amax(axis)),
            ("var", lambda: T.var(c, [axis], False, True), lambda: a.var(axis, ddof=1), lambda: ta.var(axis)),
        ]:
            add(f"{name} axis {axis}, 2000x5000 f32", (f"core {name}", core_fn), np_fn,
                torch_fn if torch else None, n, 1.0)

    b = rng.random((4000, 4000), dtype=np.float32)
    tb = torch.from_numpy(b) if torch else None
    add("transpose copy, 4000x4000 f32",
        ours("transpose", b, lambda f, t: f(t, [1, 0]), lambda c: T.transpose(c, [1, 0])),
        lambda: np.ascontiguousarray(b.T), (lambda: tb.t().contiguous()) if torch else None, max(1, 5 // scale), 1.0)

    v = rng.random(10**7, dtype=np.float32)
    tv = torch.from_numpy(v) if torch else None
    add("cumsum, 10^7 f32", ours("cumsum", v, lambda f, t: f(t, -1), lambda c: _core.tramel.cumsum(c, -1)),
        lambda: np.cumsum(v), (lambda: torch.cumsum(tv, 0)) if torch else None, max(1, 5 // scale), 1.0)

    # A reshape is a view: the same cost for 10 elements and for 10^7.
    shape, small = [1000, 10000], rng.random(10, dtype=np.float32)
    m = max(100, 20000 // scale)
    big = add("reshape, 10^7 f32", ours("reshape", v, lambda f, t: f(t, shape), lambda c: c.reshape(shape)),
              lambda: v.reshape(shape), (lambda: tv.reshape(shape)) if torch else None, m, None)
    label, fn = ours("reshape", small, lambda f, t: f(t, [2, 5]), lambda c: c.reshape([2, 5]))
    tiny = best(fn, m, repeat)
    out.append((f"reshape, 10 f32 [{label}]", [tiny, best(lambda: small.reshape(2, 5), m, repeat), None],
                f"10^7 / 10 elements: {big / tiny:.2f}x, target <= 2x (no copy): "
                f"{'ok' if big / tiny <= 2 else 'MISSED'}"))
    return out


def main():
    repeat, scale = options(__doc__)
    _core.set_num_threads(1)
    if torch:
        torch.set_num_threads(1)
    print_table(rows(repeat, scale), ["pytramel", "numpy", "torch"], repeat)


if __name__ == "__main__":
    main()
