"""Eigenvalues of a Hermitian matrix (eigvalsh) and the full decomposition (eigh), on one thread.

Run by hand:  python benchmarks/bench_spectral.py [--quick]

Side by side with numpy.linalg and, when importable, torch.linalg (all on one thread: BLAS's
thread count is fixed before numpy loads its BLAS), through the tensor layer's operators.
"""
import os

os.environ["OPENBLAS_NUM_THREADS"] = "1"

import numpy as np  # noqa: E402

from pytramel.tensor import tensor as tt  # noqa: E402
from pytramel.tensor.tensor import QTensor  # noqa: E402
from timing import against, run_table, torch, verdict  # noqa: E402


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
        times = against(ours, ref_np, ref_torch, number, repeat)
        ratio = times[0] / times[1]
        out.append((f"{what}, {n}x{n} c128", times, verdict(ratio, target, "numpy") if target else f"{ratio:.2f}x numpy"))
    return out


if __name__ == "__main__":
    run_table(__doc__, rows)
