"""Fit a complex parameter vector to a target by gradient descent.

The gradient of a real loss with respect to a complex tensor z arrives as
dL/dRe(z) + i dL/dIm(z), so the plain update w -= lr * grad descends.
"""
import numpy as np

from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor

rng = np.random.default_rng(7)
target = QTensor(rng.normal(size=6) + 1j * rng.normal(size=6))
w = QTensor(np.zeros(6, np.complex128), requires_grad=True)

for step in range(80):
    diff = w - target
    loss = tt.sums(tt.abs(diff) * tt.abs(diff))  # squared distance, a real number
    loss.backward()
    if step % 20 == 0:
        print(f"step {step:2d}  loss {loss.item():.3e}")
    w = QTensor(w.to_numpy() - 0.1 * w.grad.to_numpy(), requires_grad=True)

print(f"final loss {loss.item():.3e}; max error {np.abs(w.to_numpy() - target.to_numpy()).max():.1e}")
