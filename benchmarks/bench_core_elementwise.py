"""Element-wise kernels of the core engine against numpy and (if importable) PyTorch.

Times allocating add, mul, exp and a full sum on 10^7-element float32 and
complex128 arrays, on one and on two threads. Each thread count runs in its
own process, since OpenMP reads OMP_NUM_THREADS once.

    python benchmarks/bench_core_elementwise.py [--n 10000000] [--threads 1,2]
"""
import argparse
import os
import subprocess
import sys
import timeit


def best_ms(fn, repeat=7):
    fn()
    return min(timeit.repeat(fn, number=3, repeat=repeat)) / 3 * 1e3


def run_one(n):
    import numpy as np
    from pytramel import _core
    try:
        import torch
        torch.set_num_threads(int(os.environ["OMP_NUM_THREADS"]))
    except ImportError:
        torch = None

    rng = np.random.default_rng(0)
    rows = []
    for name, dtype in (("float32", np.float32), ("complex128", np.complex128)):
        a = rng.uniform(-3, 3, n).astype(dtype)
        b = rng.uniform(-3, 3, n).astype(dtype)
        if a.dtype.kind == "c":
            a = a + 1j * rng.uniform(-3, 3, n)
            b = b + 1j * rng.uniform(-3, 3, n)
        x, y = _core.Tensor(a, 0, -1), _core.Tensor(b, 0, -1)
        ops = {
            "add": (lambda: x.add(y), lambda: np.add(a, b)),
            "mul": (lambda: x.mult(y), lambda: np.multiply(a, b)),
            "exp": (lambda: x.exp(), lambda: np.exp(a)),
            "sum": (lambda: x.sum(), lambda: a.sum()),
        }
        ta = tb = None
        if torch is not None:
            ta, tb = torch.from_numpy(a), torch.from_numpy(b)
        tops = {"add": lambda: torch.add(ta, tb), "mul": lambda: torch.mul(ta, tb),
                "exp": lambda: torch.exp(ta), "sum": lambda: ta.sum()}
        for op, (ours, theirs) in ops.items():
            t_ours, t_np = best_ms(ours), best_ms(theirs)
            t_torch = best_ms(tops[op]) if torch is not None else float("nan")
            rows.append((name, op, t_ours, t_np, t_torch))
    return rows


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--n", type=int, default=10_000_000)
    p.add_argument("--threads", default="1,2")
    p.add_argument("--child", action="store_true")
    args = p.parse_args()
    if args.child:
        for row in run_one(args.n):
            print(repr(row))
        return
    print(f"n = {args.n}; best of 7, ms per call (lower is better); ratio = numpy / ours")
    print(f"{'threads':>7} {'dtype':>10} {'op':>4} {'ours':>8} {'numpy':>8} {'torch':>8} {'np/ours':>8} {'torch/ours':>10}")
    for threads in args.threads.split(","):
        env = dict(os.environ, OMP_NUM_THREADS=threads)
        out = subprocess.run([sys.executable, __file__, "--child", "--n", str(args.n)], env=env,
                             capture_output=True, text=True, check=True).stdout
        for line in out.splitlines():
            dtype, op, ours, np_ms, torch_ms = eval(line)
            print(f"{threads:>7} {dtype:>10} {op:>4} {ours:8.2f} {np_ms:8.2f} {torch_ms:8.2f} "
                  f"{np_ms / ours:8.2f} {torch_ms / ours:10.2f}")


if __name__ == "__main__":
    main()
