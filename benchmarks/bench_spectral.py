"""Eigenvalues of a Hermitian matrix (eigvalsh) and the full decomposition (eigh), on one thread.

Run by hand:  python benchmarks/bench_spectral.py [--quick]

Side by side with numpy.linalg and, when importable, torch.linalg (all on one thread: BLAS's
thread count is fixed before numpy loads its BLAS), through the tensor layer's operators.
"""
import os

os.environ["OPENBLAS_NUM_THREADS"] = "1"

import numpy as np  # noqa: E402

from pytramel import _core  # noqa: E402
from pytramel.tensor import tensor as tt  # noqa: E402
from pytramel.tensor.tensor import QTensor  # noqa: E402
from timing import best, options, print_table, torch, verdict  # noqa: E402


def rows(repeat, scale):
    rng = np.random.default_rng(0)
    out = []
    n = 256
    m = rng.normal(size=(n, n)) + 1j * rng.normal(size=(n, n))
    h = m + m.conj().T
    q, th = QTensor(h), (torch.from_numpy(h) if torch else None)
    number = max(2, 20 // scale)
    for what, ours, ref_np, ref_torch, target in [
        ("eigvalsh", lambda: tt.eigvalsh(q), lambda: np.linalg.eigvalsh(h), lambda: torch.linalg.eigvalsh(th), 1.1),
        ("eigh", lambda: tt.eigh(q), lambda: np.linalg.eigh(h), lambda: torch.linalg.eigh(th), None),
    ]:
        t_ours, t_np = best(ours, number, repeat), best(ref_np, number, repeat)
        t_torch = best(ref_torch, number, repeat) if torch else None
        out.append((f"{what}, {n}x{n} c128", [t_ours, t_np, t_torch],
                    verdict(t_ours / t_np, target, "numpy") if target else f"{t_ours / t_np:.2f}x numpy"))
    return out


def main():
    repeat, scale = options(__doc__)
    _core.set_num_threads(1)
    if torch:
        torch.set_num_threads(1)
    print_table(rows(repeat, scale), ["pytramel", "numpy", "torch"], repeat)


if __name__ == "__main__":
    main()
