"""The tensor layer: QTensor, autograd and operators (implemented in C++)."""
from .tensor import *  # noqa: F401,F403
from .tensor import QTensor  # noqa: F401
