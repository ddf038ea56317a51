"""Timings of the linear-algebra operators and a circuit workload, side by side with numpy and
PyTorch, on one thread.

Run by hand:  python benchmarks/bench_linalg.py [--quick]

Every figure is the best of several timeit repeats, divided by the number of calls. All three
libraries run on one thread: numpy's BLAS through OPENBLAS_NUM_THREADS, set before numpy loads.
A case is one row of CASES: its label, the three callables (made fresh, so that operands are
built outside the timing), the calls per repeat and the check of its row.
"""
import os

os.environ["OPENBLAS_NUM_THREADS"] = "1"

import numpy as np  # noqa: E402

from pytramel.tensor import tensor as tt  # noqa: E402
from pytramel.tensor.tensor import QTensor  # noqa: E402
import circuit  # noqa: E402
from timing import best, one_thread, options, print_table, torch, verdict  # noqa: E402

RNG = np.random.default_rng(0)


def values(shape, nptype):
    x = RNG.standard_normal(shape)
    if np.issubdtype(nptype, np.complexfloating):
        x = x + 1j * RNG.standard_normal(shape)
    return x.astype(nptype)


def product(shape_a, shape_b, nptype, grad=False, backward=False):
    """The three callables of matmul(a, b): pytramel, numpy, PyTorch (None without it)."""
    a, b = values(shape_a, nptype), values(shape_b, nptype)
    qa, qb = QTensor(a, requires_grad=grad), QTensor(b, requires_grad=grad)
    ours = (lambda: tt.sums(tt.matmul(qa, qb)).backward()) if backward else (lambda: tt.matmul(qa, qb))
    theirs = None
    if torch:
        ta, tb = torch.from_numpy(a).requires_grad_(grad), torch.from_numpy(b).requires_grad_(grad)
        theirs = (lambda: torch.matmul(ta, tb).sum().backward()) if backward else (lambda: torch.matmul(ta, tb))
    return ours, (None if grad else lambda: np.matmul(a, b)), theirs


def spectrum(op, n=256):
    """The three callables of eigvalsh or eigh of an n x n complex128 Hermitian matrix."""
    m = values((n, n), np.complex128)
    h = m + m.conj().T
    q, th = QTensor(h), (torch.from_numpy(h) if torch else None)
    return (lambda: getattr(tt, op)(q), lambda: getattr(np.linalg, op)(h),
            (lambda: getattr(torch.linalg, op)(th)) if torch else None)


def circuit_workload(n):
    """The circuit of circuit.py on n qubits: pytramel and PyTorch, checked to agree first."""
    args = circuit.problem(n)
    ours = circuit.pytramel_program(n, *args)
    theirs = circuit.torch_program(n, *args) if torch else None
    if theirs:
        circuit.check(n, ours, theirs)
    return ours, None, theirs


def against_torch(target):
    return lambda t: verdict(t[0] / t[2], target, "PyTorch") if t[2] else ""


def against_numpy(target):
    return lambda t: verdict(t[0] / t[1], target, "numpy")


def memory_speed(t):
    # The gate reads the state and writes one of its size: a copy of the state is the floor.
    copy = best(lambda s=values((2, 32768), np.complex128): s.copy(), 200, 5)
    return f"{t[0] / copy:.2f}x a copy of the state ({copy * 1e6:.1f} us)"


CASES = [
    # label, make the callables, calls per repeat, check
    ("matmul 4x4 float64, requires_grad, forward", lambda: product((4, 4), (4, 4), np.float64, grad=True),
     20000, against_torch(0.3)),
    ("matmul 4x4 float64, requires_grad, forward + backward",
     lambda: product((4, 4), (4, 4), np.float64, grad=True, backward=True), 5000, against_torch(0.3)),
    ("matmul 1024x1024 float32", lambda: product((1024, 1024), (1024, 1024), np.float32), 3, against_numpy(1.05)),
    ("matmul 1024x1024 float64", lambda: product((1024, 1024), (1024, 1024), np.float64), 3, against_numpy(1.05)),
    ("matmul 1024x1024 complex128", lambda: product((1024, 1024), (1024, 1024), np.complex128), 1,
     against_numpy(1.05)),
    ("bmm 256 x 16x16 float64", lambda: product((256, 16, 16), (256, 16, 16), np.float64), 200, against_numpy(1.0)),
    ("bmm 256 x 4x4 complex128", lambda: product((256, 4, 4), (256, 4, 4), np.complex128), 500, against_numpy(1.0)),
    ("gate: 2x2 @ 2x32768 complex128", lambda: product((2, 2), (2, 32768), np.complex128), 200, memory_speed),
    ("eigvalsh 256x256 complex128", lambda: spectrum("eigvalsh"), 20, against_numpy(1.1)),
    ("eigh 256x256 complex128", lambda: spectrum("eigh"), 20, lambda t: f"{t[0] / t[1]:.2f}x numpy"),
    (f"circuit: {circuit.GATES} gates, n = 4, forward + backward", lambda: circuit_workload(4), 200,
     against_torch(0.25)),
    (f"circuit: {circuit.GATES} gates, n = 10, forward + backward", lambda: circuit_workload(10), 50,
     against_torch(0.25)),
    (f"circuit: {circuit.GATES} gates, n = 16, forward + backward", lambda: circuit_workload(16), 5,
     against_torch(0.8)),
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
