"""Shared fixtures and helpers for the pytramel test suite."""
import os

# The core engine reads this once, at import: devices 1000 and 1001 then exist,
# served from host memory but kept apart like real accelerators.
os.environ.setdefault("PYTRAMEL_EMULATED_ACCELERATORS", "2")

import numpy as np  # noqa: E402
import pytest  # noqa: E402

from pytramel import _core  # noqa: E402
from pytramel import dtype as D  # noqa: E402
from pytramel.onnx import export  # noqa: E402

GPU0, GPU1 = 1000, 1001
DEVICES = [0, GPU0]

# (dtype constant, numpy element type) for every element type the core holds.
DTYPES = [
    (D.kbool, np.bool_),
    (D.kuint8, np.uint8),
    (D.kint8, np.int8),
    (D.kint16, np.int16),
    (D.kint32, np.int32),
    (D.kint64, np.int64),
    (D.kfloat32, np.float32),
    (D.kfloat64, np.float64),
    (D.kcomplex64, np.complex64),
    (D.kcomplex128, np.complex128),
]
DTYPE_IDS = [np.dtype(n).name for _, n in DTYPES]

CONFIG_KEYS = ("save_constant", "save_opinfo")
# Settings as found at import, before any test touched them.
INITIAL_CONFIG = {k: export.get_onnx_convert_config(k) for k in CONFIG_KEYS}

# A core error message names its operation first: "[op] ...".
CORE_MSG = r"^\[[^\]]+\]"


def host(core):
    """Host copy of a core tensor on any device."""
    if core.device != 0:
        core = core.CPU(0)
    return np.array(core)


def sample(shape, nptype, seed=0):
    """Deterministic values of the given element type, with both signs where possible."""
    rng = np.random.default_rng(seed)
    raw = np.asarray(rng.integers(-5, 6, size=shape))
    if nptype is np.bool_:
        out = raw > 0
    elif np.issubdtype(nptype, np.unsignedinteger):
        out = np.abs(raw)
    elif np.issubdtype(nptype, np.complexfloating):
        out = raw + 0.5j * rng.integers(-5, 6, size=shape)
    elif np.issubdtype(nptype, np.floating):
        out = raw * 0.25
    else:
        out = raw
    return np.asarray(out, dtype=nptype)


@pytest.fixture(autouse=True)
def _restore_global_settings():
    """Every test starts from, and leaves behind, the settings it found."""
    saved_dtype = D.get_default_dtype()
    saved_config = {k: export.get_onnx_convert_config(k) for k in CONFIG_KEYS}
    yield
    D.set_default_dtype(saved_dtype)
    for k, v in saved_config.items():
        export.set_onnx_convert_config(k, v)


def pytest_configure(config):
    config.addinivalue_line("markers", "damages_guards: the test overwrites guard bytes on purpose")


@pytest.fixture(autouse=True)
def _guard_bytes_intact(request):
    """Fails a test during which something wrote past the end of a buffer on an emulated device."""
    before = _core._guard_violations()
    yield
    if request.node.get_closest_marker("damages_guards") is None:
        assert _core._guard_violations() == before, "guard bytes after an emulated device buffer were overwritten"


@pytest.fixture(params=[D.kfloat32, D.kfloat64], ids=["default32", "default64"])
def default_dtype(request):
    """Runs a test under each of the two floating defaults."""
    D.set_default_dtype(request.param)
    return request.param


def numeric_grad(f, z, w, h=1e-6):
    """Central-difference gradient of L(z) = sum(Re(conj(w) * f(z))).

    For complex z it is dL/dRe(z) + i dL/dIm(z), the convention in which gradient
    descent on complex parameters works; for real z the plain derivative.
    """
    z = np.array(z)
    grad = np.zeros(z.shape, dtype=np.result_type(z.dtype, np.float64))
    units = (1.0, 1j) if np.iscomplexobj(z) else (1.0,)

    def loss(v):
        return np.sum(np.real(np.conj(w) * f(v)))

    for idx in np.ndindex(z.shape):
        for unit in units:
            up, down = z.copy(), z.copy()
            up[idx] += h * unit
            down[idx] -= h * unit
            grad[idx] += unit * (loss(up) - loss(down)) / (2 * h)
    return grad
