"""Edges of built-in operators: kept in C++ until `nodes` is read, the same graph either way."""
import gc
import weakref

import numpy as np
import pytest

from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor


def leaves():
    x = QTensor(np.array([0.5, -1.0, 2.0]), requires_grad=True)
    y = QTensor(np.array([1.5, 3.0, -0.5]), requires_grad=True)
    return x, y


def graph(x, y):
    """A graph with shared inputs, a broadcast, a reduction and a saved result."""
    return tt.sums(tt.exp(x) * y + tt.divide(x, y) - y * 2.0)


def described(t):
    """(input, label) of every edge of t, read through `nodes`."""
    return [(n.tensor, n.name, n.device) for n in t.nodes]


def expected_grads(x, y):
    ex = np.exp(x) * y + 1 / y
    ey = np.exp(x) - x / y**2 - 2.0
    return ex, ey


@pytest.mark.parametrize("when", ["never", "before", "between", "after"])
def test_reading_nodes_at_any_time_gives_the_same_graph_and_gradients(when):
    x, y = leaves()
    z = graph(x, y)
    if when == "before":
        first = z.nodes
    z.backward()
    if when == "between":
        first = z.nodes
    z.backward()
    if when == "after":
        first = z.nodes
    ex, ey = expected_grads(x.to_numpy(), y.to_numpy())
    np.testing.assert_allclose(x.grad.to_numpy(), 2 * ex, rtol=1e-6)
    np.testing.assert_allclose(y.grad.to_numpy(), 2 * ey, rtol=1e-6)
    if when != "never":
        # Once made, the list and its GraphNodes are the graph: the same objects every read.
        assert z.nodes is first
        assert [id(n) for n in z.nodes] == [id(n) for n in first]


def test_labels_inputs_and_devices_do_not_depend_on_when_nodes_is_read():
    x, y = leaves()
    early = x * y
    early_edges = described(early)
    late = x * y
    late.backward(np.ones(3))
    assert described(late) == early_edges
    assert early_edges[0][0] is x and early_edges[1][0] is y
    assert early_edges[0][1] == "t1 grad [3] mul [3]"


def test_a_hand_appended_graphnode_is_walked_with_the_built_in_edges():
    x, y = leaves()
    w = QTensor(np.zeros(3), requires_grad=True)
    z = x * y
    z.nodes.append(QTensor.GraphNode(w, lambda g: np.asarray(g) * 3.0, "by hand"))
    tt.sums(z).backward()
    np.testing.assert_allclose(w.grad.to_numpy(), [3.0, 3.0, 3.0])
    np.testing.assert_allclose(x.grad.to_numpy(), y.to_numpy())


def test_replacing_or_emptying_nodes_drops_the_records():
    x, y = leaves()
    z = x * y
    z.nodes = []
    tt.sums(z).backward()
    assert x.grad is None and y.grad is None


def test_a_built_in_derivative_called_from_python_gives_the_walks_gradient():
    x, y = leaves()
    z = x * y
    seed = np.array([1.0, 2.0, 3.0])
    z.backward(seed)
    # The derivative reads its input's grad (for the shape and dtype) when it runs.
    by_hand = np.array(z.nodes[0].df(QTensor(seed).data))
    np.testing.assert_allclose(by_hand, seed * y.to_numpy())
    np.testing.assert_allclose(x.grad.to_numpy(), by_hand)


def test_records_take_part_in_cycle_collection():
    x, _ = leaves()
    y = tt.exp(x)
    x.name = y  # x -> y through a field, y -> x through its edge record: a cycle
    probe = weakref.ref(y)
    del x, y
    gc.collect()
    assert probe() is None


def test_intermediate_results_die_with_their_graph():
    x, y = leaves()
    inner = tt.exp(x) * y
    probe = weakref.ref(inner)
    z = tt.sums(inner + x)
    del inner
    assert probe() is not None  # held by z's edge record
    del z
    assert probe() is None
