"""pytramel: tensors with reverse-mode autograd and ONNX tracing for quantum machine learning."""
import ctypes as _ctypes
import os as _os

import scipy_openblas32 as _openblas

# The engine links BLAS and LAPACK from the scipy-openblas32 package; loading
# that library first lets the engine find it wherever Python installed it.
_ctypes.CDLL(_os.path.join(_openblas.get_lib_dir(), _openblas.get_library(True)), mode=_ctypes.RTLD_GLOBAL)

from . import _core  # noqa: E402
from . import dtype, device  # noqa: E402

__version__ = "0.1.0"
