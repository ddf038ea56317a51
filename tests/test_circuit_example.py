"""examples/circuit_training.py: its gradients against PyTorch's, a short training run, the script.

The PyTorch reference builds every gate and the Hamiltonian as dense 2^n x 2^n matrices with
kron, so it shares none of the example's permute / reshape bookkeeping.
"""
import importlib.util
import os
import pathlib
import subprocess
import sys

import numpy as np
import pytest

EXAMPLE = pathlib.Path(__file__).resolve().parents[1] / "examples" / "circuit_training.py"


@pytest.fixture(scope="module")
def example():
    spec = importlib.util.spec_from_file_location("circuit_training", EXAMPLE)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def dense(torch, n, qubit_matrices):
    """kron of the 2x2 matrices given per qubit (identity elsewhere), qubit 0 leftmost."""
    out = torch.ones((1, 1), dtype=torch.complex128)
    for q in range(n):
        m = qubit_matrices.get(q, torch.eye(2, dtype=torch.complex128))
        out = torch.kron(out, m)
    return out


def torch_energy(torch, n, layers, field, angles):
    """Energy of the same ansatz and Hamiltonian, by dense matrices."""
    c = torch.complex128
    theta = torch.tensor(angles, dtype=torch.float64, requires_grad=True)
    x = torch.tensor([[0, 1], [1, 0]], dtype=c)
    z = torch.tensor([[1, 0], [0, -1]], dtype=c)
    p0, p1 = torch.tensor([[1, 0], [0, 0]], dtype=c), torch.tensor([[0, 0], [0, 1]], dtype=c)
    psi = torch.zeros(2**n, dtype=c)
    psi[0] = 1
    k = 0
    for layer in range(layers + 1):
        for q in range(n):
            cs, sn = torch.cos(theta[k] / 2), torch.sin(theta[k] / 2)
            ry = torch.stack([torch.stack([cs, -sn]), torch.stack([sn, cs])]).to(c)
            psi = dense(torch, n, {q: ry}) @ psi
            k += 1
        if layer < layers:
            for q in range(n - 1):
                cnot = dense(torch, n, {q: p0}) + dense(torch, n, {q: p1, q + 1: x})
                psi = cnot @ psi
    h = sum(-dense(torch, n, {q: z, q + 1: z}) for q in range(n - 1))
    h = h + sum(-field * dense(torch, n, {q: x}) for q in range(n))
    energy = torch.real(torch.conj(psi) @ (h @ psi))
    energy.backward()
    return energy.item(), theta.grad.numpy(), np.linalg.eigvalsh(h.detach().numpy())[0]


@pytest.mark.parametrize("n, layers, field", [(3, 1, 1.0), (4, 2, 0.7)])
def test_energy_gradient_and_exact_value_match_torch(example, n, layers, field):
    torch = pytest.importorskip("torch")
    circuit = example.Circuit(n, layers, field=field)
    angles = np.random.default_rng(n).uniform(-np.pi, np.pi, circuit.num_angles)
    energy, grad = example.energy_and_grad(circuit, angles)
    ref_energy, ref_grad, ref_exact = torch_energy(torch, n, layers, field, angles)
    assert abs(energy - ref_energy) < 1e-10
    np.testing.assert_allclose(grad, ref_grad, rtol=0, atol=1e-10)
    assert abs(circuit.exact_energy() - ref_exact) < 1e-10


def test_short_training_reaches_ground_energy(example):
    circuit = example.Circuit(4, 2)
    exact = circuit.exact_energy()
    _, energies = example.train(circuit, steps=100, lr=0.15)
    assert energies[-1] < energies[0]
    # Gradient descent with a small step: the energy never goes up by more than rounding.
    assert max(np.diff(energies)) < 1e-12
    assert abs(energies[-1] - exact) < 0.01 * abs(exact)


def run_script(tmp_path, *args, hide=()):
    """The example as a script; `hide` names modules that then fail to import."""
    prelude = "import sys\n" + "".join(f"sys.modules[{m!r}] = None\n" for m in hide)
    code = prelude + f"import runpy; sys.argv = ['circuit_training.py'] + {list(args)!r}\n" \
        f"runpy.run_path({str(EXAMPLE)!r}, run_name='__main__')"
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                          cwd=tmp_path, env=env, timeout=120)


@pytest.mark.parametrize("hide", [(), ("tqdm", "matplotlib")], ids=["extras", "no-extras"])
def test_script_runs_with_and_without_extras(tmp_path, hide):
    if not hide:
        pytest.importorskip("matplotlib")
    out = tmp_path / "energy.png"
    result = run_script(tmp_path, "--qubits", "3", "--layers", "1", "--steps", "5", "--output", str(out),
                        hide=hide)
    assert result.returncode == 0, result.stderr
    assert "relative error" in result.stdout
    if hide:
        assert not out.exists() and "no plot" in result.stdout
    else:
        assert out.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
        assert f"plot saved to {out}" in result.stdout
