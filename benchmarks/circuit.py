"""A state-vector circuit, forward and backward, in pytramel and in PyTorch (timed by
bench_linalg.py).

50 single-qubit gates on n = 4, 10 and 16 qubits, gate i on qubit i % n:
U_i = cos(theta_i / 2) I + sin(theta_i / 2) K_i, K_i alternating between -iY and -iX, each
applied by permuting its qubit to the front, one matmul of the 2x2 by the [2, 2^(n-1)]
reshape, and the way back. The energy sums(real(psi * conj(psi)) * h) for a fixed real h,
from a fixed normalised random state; one call is the forward pass plus the backward pass to
the 50 angles (theta a leaf of 50 float64 with a gradient, each gate made from theta[i]).
Both programs must agree on the energy and the gradient to 1e-10.
"""
import numpy as np

from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor
from timing import torch

GATES = 50
IDENTITY = np.eye(2, dtype=np.complex128)
GENERATORS = [np.array([[0, -1], [1, 0]], np.complex128), np.array([[0, -1j], [-1j, 0]], np.complex128)]


def problem(n, seed=0):
    """(initial state, h, angles) as numpy arrays."""
    rng = np.random.default_rng(seed)
    psi = rng.normal(size=[2] * n) + 1j * rng.normal(size=[2] * n)
    psi /= np.linalg.norm(psi)
    return psi, rng.normal(size=[2] * n), rng.uniform(-np.pi, np.pi, GATES)


def orders(n):
    """Per qubit: (permutation bringing it to the front, its inverse)."""
    out = []
    for q in range(n):
        perm = [q] + [i for i in range(n) if i != q]
        out.append((perm, [int(i) for i in np.argsort(perm)]))
    return out


def pytramel_program(n, psi0, h, angles):
    eye, gens = QTensor(IDENTITY), [QTensor(k) for k in GENERATORS]
    psi0, h, perms, shape = QTensor(psi0), QTensor(h), orders(n), [2] * n

    def run():
        theta = QTensor(angles, requires_grad=True)
        psi = psi0
        for i in range(GATES):
            perm, inverse = perms[i % n]
            u = tt.cos(theta[i] / 2) * eye + tt.sin(theta[i] / 2) * gens[i % 2]
            moved = tt.reshape(tt.permute(psi, perm), [2, -1])
            psi = tt.permute(tt.reshape(tt.matmul(u, moved), shape), inverse)
        energy = tt.sums(tt.real(psi * tt.conj(psi)) * h)
        energy.backward()
        return energy, theta

    return run


def torch_program(n, psi0, h, angles):
    eye, gens = torch.from_numpy(IDENTITY), [torch.from_numpy(k) for k in GENERATORS]
    psi0, h, perms, shape = torch.from_numpy(psi0), torch.from_numpy(h), orders(n), [2] * n

    def run():
        theta = torch.tensor(angles, requires_grad=True)
        psi = psi0
        for i in range(GATES):
            perm, inverse = perms[i % n]
            u = torch.cos(theta[i] / 2) * eye + torch.sin(theta[i] / 2) * gens[i % 2]
            moved = torch.reshape(torch.permute(psi, perm), [2, -1])
            psi = torch.permute(torch.reshape(torch.matmul(u, moved), shape), inverse)
        energy = torch.sum(torch.real(psi * torch.conj(psi)) * h)
        energy.backward()
        return energy, theta

    return run


def check(n, ours, theirs):
    e, theta = ours()
    te, ttheta = theirs()
    de = abs(e.item() - te.item())
    dg = np.abs(theta.grad.to_numpy() - ttheta.grad.numpy()).max()
    assert de < 1e-10 and dg < 1e-10, f"n={n}: energy differs by {de:.1e}, gradient by {dg:.1e}"
