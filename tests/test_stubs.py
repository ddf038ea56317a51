"""The interface as tools see it: the type stubs generated at install time,
against the references in tests/stubs, the docstrings of both modules, and the
types that the tensor module's stubs give its tensor parameters."""
import ast
import difflib
import functools
import importlib.util
import pathlib

import pytest

import pytramel._core as C
from pytramel.tensor import tensor as tt

REFERENCES = pathlib.Path(__file__).parent / "stubs"
PACKAGE = pathlib.Path(list(importlib.util.find_spec("pytramel").submodule_search_locations)[0])
REFRESH = ("If the interface changed on purpose, refresh the references from the installed package:\n"
           "    pip install . && python tools/refresh_stubs.py")


def names(root):
    return sorted(p.relative_to(root).as_posix() for p in root.rglob("*.pyi"))


def test_the_installed_stubs_are_the_referenced_ones():
    assert (PACKAGE / "py.typed").is_file()
    assert names(PACKAGE) == names(REFERENCES), REFRESH


@pytest.mark.parametrize("name", names(REFERENCES))
def test_installed_stub_matches_its_reference(name):
    installed = (PACKAGE / name).read_text().splitlines(keepends=True)
    reference = (REFERENCES / name).read_text().splitlines(keepends=True)
    diff = "".join(difflib.unified_diff(reference, installed, f"tests/stubs/{name}", f"{PACKAGE / name}"))
    if diff:
        pytest.fail(f"the installed stub differs from its reference:\n{diff}\n{REFRESH}", pytrace=False)


def core_callables():
    for scope, owner in (("_core", C), ("_core.tramel", C.tramel), ("_core.Tensor", C.Tensor)):
        for name, obj in vars(owner).items():
            if name.startswith("__") and name not in ("__init__", "__repr__", "__array__", "__dlpack__",
                                                      "__dlpack_device__"):
                continue
            if isinstance(obj, property) or (callable(obj) and not isinstance(obj, type)):
                yield f"{scope}.{name}", obj


def tensor_callables():
    # The module's own functions (not those it re-exports from _core), and every
    # nanobind method and property of its classes; slot wrappers such as
    # __add__ are CPython's and have no signature of their own.
    for name, obj in vars(tt).items():
        if hasattr(obj, "__nb_signature__") and obj.__module__ == tt.__name__:
            yield f"tensor.{name}", obj
    for scope, owner in (("QTensor", tt.QTensor), ("QTensor.GraphNode", tt.QTensor.GraphNode),
                         ("GradFn", tt.GradFn)):
        for name, obj in vars(owner).items():
            if isinstance(obj, property) or hasattr(obj, "__nb_signature__"):
                yield f"{scope}.{name}", obj


def assert_documented(name, obj):
    if isinstance(obj, property):
        assert obj.__doc__, name
        return
    for signature, doc, _ in obj.__nb_signature__:  # one entry per overload
        assert doc and doc.split("\n", 1)[0].strip(), (name, signature)  # a summary line
        takes_arguments = not signature.split("(", 1)[1].startswith(("self)", ")"))
        assert ("\n\nArgs:\n    " in doc) == takes_arguments, (name, signature, doc)


@pytest.mark.parametrize("name,obj", list(core_callables()), ids=lambda v: v if isinstance(v, str) else "")
def test_every_core_function_is_documented(name, obj):
    assert_documented(name, obj)


@pytest.mark.parametrize("name,obj", list(tensor_callables()), ids=lambda v: v if isinstance(v, str) else "")
def test_every_tensor_function_is_documented(name, obj):
    assert_documented(name, obj)


def test_the_tensor_check_reaches_every_kind_of_member():
    names = {name for name, _ in tensor_callables()}
    for member in ("QTensor.__init__", "QTensor.__repr__", "QTensor.__bool__", "QTensor.grad", "QTensor.shape",
                   "QTensor.GraphNode.__init__", "QTensor.GraphNode.df", "GradFn.__call__", "tensor.exp"):
        assert member in names


@functools.lru_cache(maxsize=None)
def stub_functions():
    """The functions of the installed tensor stub: module level by name, methods as Class.name."""
    found = {}

    def collect(body, prefix):
        for node in body:
            if isinstance(node, ast.FunctionDef):
                found[prefix + node.name] = node
            elif isinstance(node, ast.ClassDef):
                collect(node.body, f"{prefix}{node.name}.")

    collect(ast.parse((PACKAGE / "tensor" / "tensor.pyi").read_text()).body, "")
    return found


def annotation(function, parameter):
    (arg,) = [a for a in function.args.args if a.arg == parameter]
    return ast.unparse(arg.annotation)


OPERATORS = sorted(name for names in tt._operator_tables.values() for name in names)


@pytest.mark.parametrize("name", OPERATORS)
def test_tensor_stubs_type_the_operands_of_every_operator_as_qtensor(name):
    function = stub_functions()[name]
    operands = [a.arg for a in function.args.args if a.arg in ("t", "t1", "t2")]
    assert operands, name
    for operand in operands:
        assert annotation(function, operand).split(" | ")[0] == "QTensor", (name, operand)
    assert ast.unparse(function.returns) == "QTensor", name


@pytest.mark.parametrize("name,parameter,expected", [
    ("accumulate", "tensor_list", "list[QTensor]"), ("zeros_like", "t", "QTensor"), ("sums", "t", "QTensor"),
    ("reshape", "t", "QTensor"), ("broadcast", "t2", "QTensor"), ("backprop", "end_node", "QTensor"),
    ("QTensor.copy_value_from", "other_tensor", "QTensor"), ("QTensor.GraphNode.__init__", "tensor", "QTensor"),
    # Parameters that take any object say so.
    ("QTensor.__init__", "requires_grad", "object"), ("sums", "keepdims", "object"), ("to_tensor", "x", "object"),
])
def test_tensor_stubs_type_other_parameters_by_what_they_take(name, parameter, expected):
    assert annotation(stub_functions()[name], parameter).split(" | ")[0] == expected
