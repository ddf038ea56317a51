"""pytramel: tensors with reverse-mode autograd and ONNX tracing for quantum machine learning."""
from . import _core
from . import dtype, device

__version__ = "0.1.0"
