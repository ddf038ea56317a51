"""Train a variational quantum circuit to the ground state of a transverse-field Ising chain.

    H = -J sum_i Z_i Z_{i+1} - h sum_i X_i        (open chain of n qubits)

The state is a complex128 QTensor of shape [2] * n, one axis per qubit (qubit 0 is the
first axis, the most significant bit of a basis index). A gate acts on its qubits by
bringing their axes to the front (`permute`), flattening the rest (`reshape`), one
`matmul`, and the way back. The ansatz: from |0...0>, `layers` times an RY rotation on
every qubit followed by a ladder of CNOTs (0->1, 1->2, ...), then a last RY layer; one
trainable angle per RY gate. RY and CNOT keep the amplitudes real, and the ground state of
this H has real amplitudes of one sign, so the ansatz can reach it.

The energy <psi|H|psi> is a QTensor too: the Z Z terms are diagonal, an element-wise product
of |psi|^2 with a constant, and the X terms are applied as gates. `backward` gives its
gradient with respect to the angles, and plain gradient descent does the rest. The exact
ground energy comes from `eigvalsh` of the dense 2^n x 2^n matrix, built with `kron`.

    pip install ".[examples]" && python examples/circuit_training.py [--qubits 6] [--steps 300]

tqdm (a progress bar) and matplotlib (a plot of the energy) are used when installed.
"""
import argparse
import time

import numpy as np

from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor

try:
    from tqdm import tqdm
except ImportError:
    tqdm = None

PAULI_X = np.array([[0, 1], [1, 0]], np.complex128)
PAULI_Z = np.array([[1, 0], [0, -1]], np.complex128)
# RY(t) = cos(t/2) I + sin(t/2) MINUS_IY, where MINUS_IY = -i Y.
IDENTITY = np.eye(2, dtype=np.complex128)
MINUS_IY = np.array([[0, -1], [1, 0]], np.complex128)
CNOT = np.array([[1, 0, 0, 0], [0, 1, 0, 0], [0, 0, 0, 1], [0, 0, 1, 0]], np.complex128)


class Circuit:
    """The ansatz and the Hamiltonian for n qubits; constant tensors are made once."""

    def __init__(self, n, layers, coupling=1.0, field=1.0):
        self.n, self.layers, self.coupling, self.field = n, layers, coupling, field
        self.num_angles = n * (layers + 1)
        self.identity, self.minus_iy = QTensor(IDENTITY), QTensor(MINUS_IY)
        self.cnot, self.pauli_x = QTensor(CNOT), QTensor(PAULI_X)
        start = np.zeros([2] * n, np.complex128)
        start[(0,) * n] = 1.0
        self.start = QTensor(start)
        # The diagonal of -J sum Z_i Z_{i+1}: -J times (number of equal neighbours - unequal ones).
        bits = (np.arange(2**n)[:, None] >> np.arange(n - 1, -1, -1)) & 1
        spins = 1 - 2 * bits
        zz = -coupling * (spins[:, :-1] * spins[:, 1:]).sum(axis=1)
        self.zz_diagonal = QTensor(zz.astype(np.float64).reshape([2] * n))
        # A Python number meeting a tensor enters in the default dtype (float32), so
        # coefficients that are not exact in float32 are float64 tensors of their own.
        self.minus_field = QTensor(np.array(-field))
        self.minus_coupling = QTensor(np.array(-coupling))
        self._orders = {}

    def _order(self, qubits):
        """(permutation bringing `qubits` to the front, its inverse), cached."""
        if qubits not in self._orders:
            perm = list(qubits) + [q for q in range(self.n) if q not in qubits]
            self._orders[qubits] = (perm, [int(i) for i in np.argsort(perm)])
        return self._orders[qubits]

    def apply(self, psi, gate, *qubits):
        """`gate` (a 2^k x 2^k QTensor) applied to the k qubits named, in that order."""
        perm, inverse = self._order(qubits)
        rows = 2 ** len(qubits)
        moved = tt.reshape(tt.permute(psi, perm), [rows, 2 ** self.n // rows])
        return tt.permute(tt.reshape(tt.matmul(gate, moved), [2] * self.n), inverse)

    def ry(self, angle):
        """RY(angle) as a 2x2 complex QTensor; differentiable in `angle`."""
        return tt.cos(angle / 2) * self.identity + tt.sin(angle / 2) * self.minus_iy

    def state(self, theta):
        """The circuit's output state for the angles `theta` (a QTensor of num_angles)."""
        psi, k = self.start, 0
        for layer in range(self.layers + 1):
            for q in range(self.n):
                psi = self.apply(psi, self.ry(theta[k]), q)
                k += 1
            if layer < self.layers:
                for q in range(self.n - 1):
                    psi = self.apply(psi, self.cnot, q, q + 1)
        return psi

    def energy(self, psi):
        """<psi|H|psi> as a one-element real QTensor (psi normalised)."""
        bra = tt.conj(psi)
        diagonal = tt.sums(tt.real(bra * psi) * self.zz_diagonal)
        flipped = self.apply(psi, self.pauli_x, 0)
        for q in range(1, self.n):
            flipped = flipped + self.apply(psi, self.pauli_x, q)
        return diagonal + self.minus_field * tt.sums(tt.real(bra * flipped))

    def hamiltonian(self):
        """H as a dense 2^n x 2^n complex QTensor, built with kron."""
        eye, x, z = QTensor(IDENTITY), QTensor(PAULI_X), QTensor(PAULI_Z)

        def product(factors):
            out = factors[0]
            for f in factors[1:]:
                out = tt.kron(out, f)
            return out

        terms = []
        for i in range(self.n - 1):
            terms.append(product([z if q in (i, i + 1) else eye for q in range(self.n)]) * self.minus_coupling)
        for i in range(self.n):
            terms.append(product([x if q == i else eye for q in range(self.n)]) * self.minus_field)
        total = terms[0]
        for t in terms[1:]:
            total = total + t
        return total

    def exact_energy(self):
        """The ground-state energy: the smallest eigenvalue of the dense H."""
        return float(tt.eigvalsh(self.hamiltonian()).to_numpy()[0])


def initial_angles(circuit, seed=0, spread=0.1):
    """Small random angles: all-zero angles would start on a stationary point of some terms."""
    return np.random.default_rng(seed).uniform(-spread, spread, circuit.num_angles)


def energy_and_grad(circuit, angles):
    """(energy, gradient with respect to the angles) at `angles`, both numpy."""
    theta = QTensor(np.asarray(angles, np.float64), requires_grad=True)
    energy = circuit.energy(circuit.state(theta))
    energy.backward()
    return energy.item(), theta.grad.to_numpy()


def train(circuit, steps, lr, seed=0, progress=False):
    """Plain gradient descent on the angles; returns (final angles, energy per step)."""
    angles = initial_angles(circuit, seed)
    energies = []
    bar = tqdm(total=steps, desc="training", unit="step") if progress and tqdm else None
    for _ in range(steps):
        energy, grad = energy_and_grad(circuit, angles)
        angles = angles - lr * grad
        energies.append(energy)
        if bar is not None:
            bar.update()
            bar.set_postfix(energy=f"{energy:.6f}")
    if bar is not None:
        bar.close()
    return angles, energies


def plot(energies, exact, path):
    """Energy against step with the exact value as a line; False when matplotlib is missing."""
    try:
        import matplotlib
    except ImportError:
        return False
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    fig, ax = plt.subplots(figsize=(6, 4))
    ax.plot(range(len(energies)), energies, label="circuit <H>")
    ax.axhline(exact, color="k", linestyle="--", label=f"exact ground energy {exact:.4f}")
    ax.set_xlabel("gradient-descent step")
    ax.set_ylabel("energy")
    ax.set_title("Variational circuit on a transverse-field Ising chain")
    ax.legend()
    fig.tight_layout()
    fig.savefig(path, dpi=120)
    plt.close(fig)
    return True


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--qubits", type=int, default=6, help="chain length n (default 6)")
    parser.add_argument("--layers", type=int, default=4, help="RY + CNOT layers (default 4)")
    parser.add_argument("--steps", type=int, default=300, help="gradient-descent steps (default 300)")
    parser.add_argument("--lr", type=float, default=0.15, help="learning rate (default 0.15)")
    parser.add_argument("--field", type=float, default=1.0, help="transverse field h, J = 1 (default 1)")
    parser.add_argument("--seed", type=int, default=0, help="seed of the initial angles")
    parser.add_argument("--output", default="circuit_training.png", help="where the plot goes")
    parser.add_argument("--no-progress", action="store_true", help="no progress bar")
    args = parser.parse_args(argv)

    circuit = Circuit(args.qubits, args.layers, field=args.field)
    exact = circuit.exact_energy()
    print(f"{args.qubits} qubits, {args.layers} layers, {circuit.num_angles} angles; "
          f"exact ground energy {exact:.6f}")
    start = time.perf_counter()
    _, energies = train(circuit, args.steps, args.lr, args.seed, progress=not args.no_progress)
    seconds = time.perf_counter() - start
    final = energies[-1]
    print(f"after {args.steps} steps ({seconds:.2f} s): energy {final:.6f}, "
          f"relative error {abs(final - exact) / abs(exact):.2e}")
    if plot(energies, exact, args.output):
        print(f"plot saved to {args.output}")
    else:
        print("matplotlib not installed: no plot")
    return energies, exact


if __name__ == "__main__":
    main()
