"""Element types. The constants are plain ints shared with the core engine."""
import numpy as np

from ._core import (kbool, kuint8, kint8, kint16, kint32, kint64, kfloat32, kfloat64,
                    kcomplex64, kcomplex128, get_default_dtype, set_default_dtype,
                    get_readable_dtype_str)

#: dtype constant -> numpy scalar type.
dtype_map = {
    kbool: np.bool_, kuint8: np.uint8, kint8: np.int8, kint16: np.int16, kint32: np.int32,
    kint64: np.int64, kfloat32: np.float32, kfloat64: np.float64,
    kcomplex64: np.complex64, kcomplex128: np.complex128,
}

__all__ = ["kbool", "kuint8", "kint8", "kint16", "kint32", "kint64", "kfloat32", "kfloat64",
           "kcomplex64", "kcomplex128", "get_default_dtype", "set_default_dtype",
           "get_readable_dtype_str", "dtype_map"]
