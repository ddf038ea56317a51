"""Every public function, method and property of both modules has tests.

The table names, for each test file, the public names it covers. A new public name
without an entry, an entry for a name that is gone, or an entry whose file
never mentions the name fails here.
"""
import inspect
import pathlib
import re

import pytest

from pytramel import _core
from pytramel.tensor import tensor as tt

NAMESPACES = {
    "pytramel.tensor.tensor": tt,
    "QTensor": tt.QTensor,
    "QTensor.GraphNode": tt.QTensor.GraphNode,
    "pytramel._core": _core,
    "_core.Tensor": _core.Tensor,
    "_core.tramel": _core.tramel,
}

API = {
    "pytramel.tensor.tensor": {
        "test_core": "get_default_dtype",
        "test_creation": "diag empty_like eye full_like linspace logspace randn randu",
        "test_elementwise": (
            "abs accumulate acos add allclose arange asin atan broadcast ceil clip cos cosh "
            "divide equal exp floor greater greater_equal infer_size_expand isfinite isinf isnan "
            "isneginf isposinf less less_equal log log_softmax logical_and logical_not logical_or "
            "logical_xor maximum minimum mul neg not_equal ones power reciprocal reshape round "
            "sign sin sinh sqrt square sub sums tan tanh toposort zeros"
        ),
        "test_export": "get_opinfo",
        "test_matmul": "helper_function_bmm helper_function_matmul2d helper_function_matmul4d matmul tensordot",
        "test_indexing": "get_bdshape_for_slice select set_select",
        "test_linalg_parts": "adjoint conj eigh eigvalsh frobenius_norm imag kron real trace tril triu",
        "test_host_device": (
            "float2complex helper_function_copy_c_tensor "
            "helper_function_to_cast_core_tensor_dtype"
        ),
        "test_query": "is_nonzero",
        "test_reduce_shape": (
            "broadcast_to cumsum flatten flip max mean median min permute squeeze std swapaxis "
            "tile transpose unsqueeze var"
        ),
        "test_spine": (
            "backprop backprop_impl empty free_backprop_grad free_grad full "
            "get_onnx_convert_config get_prev get_readable_dtype_str just_valid_result_from_qvm "
            "ones_like to_tensor zeros_like"
        ),
        "test_sum_mean": "maybe_wrap_dim maybe_wrap_dim_unsqueeze var_match_shape",
    },
    "QTensor": {
        "test_host_device": (
            "clone copy_value_from cpu getdata gpu isCPU isGPU is_bool is_cpu is_gpu pdata toCPU "
            "toGPU to_cpu to_device to_gpu to_numpy"
        ),
        "test_query": (
            "any argmax argmin dim dtype_str fill_rand_binary_ fill_rand_normal_ "
            "fill_rand_signed_uniform_ fill_rand_uniform_ fill_rand_uniform_with_bound_ item "
            "l2_norm ndim numel print_prev_node reshape size transpose"
        ),
        "test_reduce_shape": "flatten reshape_ transpose_ unsqueeze",
        "test_spine": (
            "CPU GPU all astype backward copy data device dtype fill_ grad info link_nodes name "
            "nodes numpy oplinkinfo requires_grad save_onnx_constant shape zero_grad"
        ),
    },
    "QTensor.GraphNode": {
        "test_spine": "device df name tensor",
    },
    "pytramel._core": {
        "test_core": (
            "device_available emulated_accelerator_count get_default_dtype get_readable_dtype_str "
            "manual_seed set_default_dtype"
        ),
        "test_core_reduce_shape": "get_num_threads set_num_threads",
    },
    "_core.Tensor": {
        "test_core": (
            "CPU GPU abs add_ arange argmax argmin astype device diag dtype empty eye fill_ "
            "fill_rand_binary_ fill_rand_normal_ fill_rand_signed_uniform_ fill_rand_uniform_ "
            "fill_rand_uniform_withbound_ full getShape info is_nonzero l2_norm linspace logspace "
            "max mean min ndim ones randn randu reshape shape size std toCPU toDtype toGPU zeros"
        ),
        "test_core_elementwise": (
            "acos add add_tensor_list asin atan broadcast broadcast_to ceil clamp clamp_grad conj "
            "cos cosh div div_ element_pow equal exp floor greater greater_equal isfinite isinf "
            "isnan isneginf isposinf less less_equal log logical_and logical_not logical_or "
            "logical_xor maximum minimum mult mult_ neg not_equal reciprocal reshape_ round sign "
            "sin sinh sqrt square sub sum tan tanh"
        ),
        # The matrix parts and the norm's gradient are checked against numpy through the operators
        # of test_linalg_parts, and on an accelerator by the sweep.
        "test_backend": "l2_norm_grad sqrt_grad tan_grad trace trace_grad tril triu",
        "test_matmul": "bmm matmul mult2D",
        "test_core_reduce_shape": "flatten flip median squeeze squeeze_ swapaxis transpose transpose_ unsqueeze var",
        "test_core_index": (
            "adv_indexing adv_indexing_grad nonzero select select_bp set_adv_indexing set_adv_indexing_grad "
            "set_select set_select_bp"
        ),
    },
    "_core.tramel": {
        "test_core": "copyTensor",
        "test_core_elementwise": "TileGrad all any log_softmax log_softmax_grad mean_all_grad tile",
        # The gradient kernels are checked against finite differences through the operators of
        # test_elementwise, and on an accelerator by the sweep.
        "test_backend": (
            "acos_grad asin_grad atan_grad div_dxgrad div_dygrad exp_grad log_grad mult_grad "
            "power_grad_of_base power_grad_of_exp square_grad tanh_grad "
            "eigh eigvalsh eigvalsh_grad imag kron kron_t1grad kron_t2grad real"
        ),
        "test_core_reduce_shape": "cumsum cumsumgrad",
    },
}

def public_names(namespace):
    """Public functions of a module, or public methods and properties of a class."""
    is_class = inspect.isclass(namespace)
    items = vars(namespace).items() if is_class else ((n, getattr(namespace, n)) for n in dir(namespace))
    names = set()
    for name, value in items:
        if name.startswith("_") or inspect.isclass(value) or inspect.ismodule(value):
            continue
        kind = type(value).__name__
        if kind.startswith("nb_") or isinstance(value, (property, staticmethod)) or (
                inspect.isfunction(value) and value.__module__.startswith("pytramel")):
            names.add(name)
    return names


def listed(where):
    """{name: test file} of the table."""
    return {name: test_file for test_file, names in API[where].items() for name in names.split()}


@pytest.mark.parametrize("where", NAMESPACES)
def test_every_public_name_has_a_table_entry(where):
    found, listed_names = public_names(NAMESPACES[where]), set(listed(where))
    assert found - listed_names == set(), f"public in {where} but not in the test table"
    assert listed_names - found == set(), f"in the test table but not public in {where}"


TESTS = pathlib.Path(__file__).parent


@pytest.mark.parametrize("where", NAMESPACES)
def test_every_entry_names_a_file_that_tests_it(where):
    unmentioned = [name for name, test_file in listed(where).items()
                   if not re.search(rf"\b{re.escape(name)}\b", (TESTS / f"{test_file}.py").read_text())]
    assert unmentioned == []
