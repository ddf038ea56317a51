"""The export walk get_opinfo, and the Cast record that astype leaves."""
from collections import OrderedDict

import pytest

from pytramel import dtype as D
from pytramel.onnx import export
from pytramel.tensor import tensor as tt

QTensor = tt.QTensor
Node = QTensor.GraphNode


def record(opid):
    return export.OPNodesInfo(
        opid=opid, opname="Op", op_input_id_lists=[], op_input_shape_lists=[], op_output_id_list=[],
        op_output_shape_list=[], op_attribute={}, op_para_buffer_id_lists=[],
        op_para_buffer_shape_lists=[], op_input_dtype_lists=[], op_output_dtype_lists=[])


def node(name, *parents, requires_grad=True):
    return QTensor([1.0], requires_grad=requires_grad, name=name,
                   nodes=[Node(p, lambda g: g) for p in parents])


def test_get_opinfo_walks_in_topological_order():
    # z -> (a, x), a -> (x, y): the walk yields z, a, y, x
    rz, ra, rx, ry = (record(k) for k in ("z", "a", "x", "y"))
    x, y = node(rx), node(ry)
    z = node(rz, node(ra, x, y), x)
    out = tt.get_opinfo(z)
    assert type(out) is OrderedDict
    assert list(out.items()) == [("z", rz), ("a", ra), ("y", ry), ("x", rx)]


def test_get_opinfo_keeps_the_first_record_of_an_opid():
    first, again, other = record("same"), record("same"), record("other")
    z = node(first, node("text label", node(again)), node(other))
    out = tt.get_opinfo(z)
    assert list(out) == ["same", "other"] and out["same"] is first


def test_get_opinfo_follows_only_tensors_that_need_a_gradient():
    hidden = node(record("hidden"), requires_grad=False)
    z = node(record("z"), node(record("below"), hidden))
    assert list(tt.get_opinfo(z)) == ["z", "below"]


def test_get_opinfo_of_text_names_is_empty():
    z = node("z", node("a", node("")), node("b"))
    out = tt.get_opinfo(z)
    assert type(out) is OrderedDict and out == OrderedDict()


# ----------------------------------------------------------------- the Cast record of astype

@pytest.mark.parametrize("save_constant,save_opinfo,records", [
    (True, True, True), (True, None, True), (True, False, False), (False, True, False),
    (False, False, False), (1, True, False)])
@pytest.mark.parametrize("requires_grad", [True, False])
def test_astype_cast_record(save_constant, save_opinfo, records, requires_grad):
    export.set_onnx_convert_config("save_constant", save_constant)
    export.set_onnx_convert_config("save_opinfo", save_opinfo)
    t = QTensor([[1.0, 2.0, 3.0]], requires_grad=requires_grad, dtype=D.kfloat32)
    y = t.astype(D.kcomplex128)
    assert (y.requires_grad, len(y.nodes)) == (requires_grad, int(requires_grad))
    if not records:
        assert (y.oplinkinfo, y.link_nodes) == (None, [])
        return
    r, me, out = y.oplinkinfo, str(id(t)), str(id(y))
    assert isinstance(r, export.OPNodesInfo)
    assert (r.opid, r.opname) == (f"{me}cast_to_{out}", "Cast")
    assert (r.op_input_id_lists, r.op_input_shape_lists, r.op_input_dtype_lists) == (
        [me], [[1, 3]], [D.kfloat32])
    assert (r.op_output_id_list, r.op_output_shape_list, r.op_output_dtype_lists) == (
        [out], [[1, 3]], [D.kcomplex128])
    assert (r.op_para_buffer_id_lists, r.op_para_buffer_shape_lists) == ([], [])
    assert type(r.op_attribute) is set and r.op_attribute == {"dtype", D.kcomplex128}
    assert [(n.tensor, n.name, n.df) for n in y.link_nodes] == [(t, "Cast", None)]
    assert t.oplinkinfo.opname == "Constant" and t.link_nodes == []
