"""Timings of the way out to the host and of the recording step, beside numpy.

Run by hand:  python benchmarks/bench_host.py [--quick]
"""
import numpy as np

from pytramel.tensor.tensor import QTensor, _recording_step_ns
from timing import best, options, print_table, verdict


def main():
    repeat, scale = options(__doc__)
    rows = []

    big = np.random.default_rng(0).random(10**6).astype(np.float32)
    t = QTensor(big)
    assert np.array_equal(t.to_numpy(), big)
    n = max(500 // scale, 5)
    ours, ref = best(t.to_numpy, n, repeat), best(lambda: np.array(big), n, repeat)
    rows.append(("to_numpy, 10^6 float32 vs numpy.array copy", [ours, ref], verdict(ours / ref, 1.2, "numpy")))

    small = np.random.default_rng(1).standard_normal(1000).astype(np.float32)
    s = QTensor(small)
    assert repr(s) == np.array2string(small, separator=" ", prefix="")  # also sets numpy's print options
    n = max(200 // scale, 5)
    ours = best(lambda: repr(s), n, repeat)
    ref = best(lambda: np.array2string(small, None, None, None, " ", ""), n, repeat)
    rows.append(("QTensor.__repr__, 1000 float32 vs numpy.array2string", [ours, ref],
                 verdict(ours / ref, 1.2, "numpy")))

    # The gated recording step of an operator, with recording off (the default).
    step = min(_recording_step_ns(s, 10**7 // scale) for _ in range(repeat)) * 1e-9
    rows.append(("recording step, recording off", [step, None],
                 f"target < 50 ns: {'ok' if step < 50e-9 else 'MISSED'}"))
    print_table(rows, ["pytramel", "numpy"], repeat)


if __name__ == "__main__":
    main()
