"""Indexing: x[key], x[key] = v, select and set_select, and the advanced-index planner.

numpy is the oracle. Where the key rules of this module differ from numpy's, the key is
translated into numpy's meaning first: a list key lists per-axis entries (x[[0, 2]] is
x[0, 2]), a None in an advanced key adds no axis to a get, a bool list holds positions
0 and 1, and a float index tensor is truncated.
"""
import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings, strategies as st

from pytramel import dtype as D
from pytramel.onnx import export
from pytramel.tensor import tensor as tt
from pytramel.tensor.tensor import QTensor, select, set_select, sums
from conftest import GPU0, host

FUZZ = dict(derandomize=True, deadline=None,
            suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large])
ONLY_BASIC = "only support slice and integar index"
TOO_MANY_KEYS = "numbers of keys should not more than input shape length"
ZERO_STEP = "slice step cannot be zero"


def val(t):
    return host(t.data)


class Q:
    """A QTensor made when the test runs, not at collection."""

    def __init__(self, *args, **kwargs):
        self.args, self.kwargs = args, kwargs


def made(x):
    if isinstance(x, Q):
        return QTensor(*x.args, **x.kwargs)
    if isinstance(x, (tuple, list)):
        return type(x)(made(e) for e in x)
    return x


def data(shape, seed=0):
    return np.asarray(np.random.default_rng(seed).integers(-50, 50, size=shape) / 4, np.float64)


# ----------------------------------------------------------------- the numpy oracle

def numpy_view(a, key):
    """(a with a length-1 axis where the key has None, the key with whole slices for them,
    the result axes those slices make). numpy's meaning of this module's key, kept as a
    view so that sets and np.add.at reach `a`."""
    shape, entries, src = [], [], 0
    for e in key:
        if e is None:
            shape.append(1)
            entries.append(slice(None))
        else:
            shape.append(a.shape[src])
            entries.append(e)
            src += 1
    view = a.reshape(shape + list(a.shape[src:]))
    adv = [i for i, e in enumerate(entries) if not isinstance(e, slice)]
    block = np.broadcast_shapes(*(np.shape(entries[i]) for i in adv)) if adv else ()
    adjacent = adv == list(range(adv[0], adv[-1] + 1)) if adv else True
    drop, seen = [], 0
    for i, e in enumerate(entries):
        if isinstance(e, slice):
            if key[i] is None:
                drop.append(seen if adjacent and adv and i < adv[0] else seen + len(block))
            seen += 1
    return view, tuple(entries), drop


def numpy_get(a, key):
    view, entries, drop = numpy_view(a, key)
    out = view[entries]
    return out.reshape([n for i, n in enumerate(out.shape) if i not in drop])


def numpy_set(a, key, v):
    a = a.copy()
    view, entries, _ = numpy_view(a, key)
    region, v = numpy_get(a, key).shape, np.asarray(v)
    v = v.reshape(v.shape[v.ndim - len(region):]) if v.ndim > len(region) else v
    view[entries] = np.broadcast_to(v, region).reshape(np.shape(view[entries]))
    return a


def numpy_get_grad(a, key, w):
    g = np.zeros_like(a)
    view, entries, _ = numpy_view(g, key)
    np.add.at(view, entries, w.reshape(np.shape(view[entries])))
    return g


def reduce_to(g, shape):
    """A gradient of a region brought to the shape of a value broadcast over it."""
    if len(shape) > g.ndim:
        return g.reshape(shape)
    g = g.sum(axis=tuple(range(g.ndim - len(shape))))
    return g.sum(axis=tuple(i for i, s in enumerate(shape) if s == 1 and g.shape[i] != 1), keepdims=True)


# ----------------------------------------------------------------- key strategies

STEPS = [None, 1, 2, 3, -1, -2, -3]


def draw_slice(draw, d):
    bound = st.none() | st.integers(-d - 2, d + 2)
    return slice(draw(bound), draw(bound), draw(st.sampled_from(STEPS)))


def draw_int(draw, d):
    return draw(st.integers(-d, d - 1))


def draw_shape(draw, lo, hi, min_size=1, max_size=5):
    return tuple(draw(st.lists(st.integers(lo, hi), min_size=min_size, max_size=max_size)))


def as_tuples(x):
    return tuple(as_tuples(e) for e in x) if isinstance(x, list) else x


@st.composite
def basic_keys(draw):
    """(shape, key, numpy key): integers and slices, bare, in a tuple or in a list."""
    shape = draw_shape(draw, 1, 4, 0)
    n = draw(st.integers(0, len(shape)))
    entries = [draw_int(draw, d) if draw(st.booleans()) else draw_slice(draw, d) for d in shape[:n]]
    form = draw(st.sampled_from(["tuple", "list", "bare"] if n == 1 else ["tuple", "list"]))
    key = entries[0] if form == "bare" else (tuple(entries) if form == "tuple" else entries)
    return shape, key, tuple(entries)


@st.composite
def advanced_keys(draw):
    """(shape, key, numpy key): a container with at least one index array, among integers,
    slices and None; adjacent or separated, index arrays of one or two broadcast axes."""
    shape, rng = draw_shape(draw, 1, 4), np.random.default_rng(draw(st.integers(0, 2**16)))
    n = draw(st.integers(1, len(shape)))
    kinds = draw(st.lists(st.sampled_from(["adv", "int", "slice"]), min_size=n, max_size=n))
    kinds[draw(st.integers(0, n - 1))] = "adv"
    adv = [i for i, k in enumerate(kinds) if k == "adv"]
    mask_at = draw(st.sampled_from([None] + adv))
    mask = None if mask_at is None else rng.random(shape[mask_at]) < 0.5
    block = draw_shape(draw, 1, 3, 1, 2) if mask is None else (int(mask.sum()),)
    sys, ref = [], []
    for ax, kind in enumerate(kinds):
        d = shape[ax]
        if kind == "int":
            e = r = draw_int(draw, d)
        elif kind == "slice":
            e = r = draw_slice(draw, d)
        elif ax == mask_at:
            e, r = QTensor(mask), np.flatnonzero(mask)
        else:
            s = tuple(b if rng.random() < 0.7 else 1 for b in block)
            r = rng.integers(-d, d, size=s[rng.integers(len(s)):])
            form = draw(st.sampled_from(["list", "tuple", "ndarray", "int64", "int32", "float", "bools"]))
            if form == "bools" and d >= 2:
                r = r % 2
            e = {"list": r.tolist(), "tuple": as_tuples(r.tolist()), "ndarray": r,
                 "int64": QTensor(r), "int32": QTensor(r.astype(np.int32)),
                 "float": QTensor(r + np.where(r >= 0, 0.25, -0.25)),
                 "bools": (r.astype(bool) if d >= 2 else r).tolist()}[form]
        sys.append(e), ref.append(r)
    if all(isinstance(e, np.ndarray) or not isinstance(e, (list, tuple, QTensor)) for e in sys):
        sys[adv[0]] = ref[adv[0]].tolist()  # an ndarray alone does not make a key advanced
    for _ in range(draw(st.integers(0, 2))):
        at = draw(st.integers(0, len(sys)))
        sys.insert(at, None), ref.insert(at, None)
    container = draw(st.sampled_from([tuple, list]))
    return shape, container(sys), tuple(ref)


@st.composite
def whole_tensor_keys(draw):
    """(shape, QTensor key, numpy key): integer or float index tensors, boolean masks of
    the leading axes."""
    shape, rng = draw_shape(draw, 1, 4, 1, 4), np.random.default_rng(draw(st.integers(0, 2**16)))
    kind = draw(st.sampled_from(["int", "float", "mask"]))
    if kind == "mask":
        mask = rng.random(shape[:draw(st.integers(1, len(shape)))]) < 0.5
        return shape, QTensor(mask), np.nonzero(mask)
    arr = rng.integers(-shape[0], shape[0], size=draw_shape(draw, 1, 3, 1, 2))
    key = QTensor(arr) if kind == "int" else QTensor(arr + np.where(arr >= 0, 0.7, -0.7))
    return shape, key, (arr,)


@st.composite
def values(draw, region, dtype, lead1=True):
    """A value for x[key] = v: the region's shape, a shape that broadcasts to it, one with a
    leading axis of length 1 (not where the key has None: that place is for its axes), or a
    plain number."""
    form = draw(st.sampled_from(["full", "suffix", "ones", "number"] + ["lead1"] * lead1))
    if form == "number":
        return 2.5
    shape = {"full": region, "lead1": (1,) + region,
             "suffix": region[draw(st.integers(0, len(region))):],
             "ones": tuple(1 if draw(st.booleans()) else n for n in region)}[form]
    return QTensor(data(shape, seed=7) + 100, requires_grad=True, dtype=dtype)


# ----------------------------------------------------------------- against numpy

def check_get(shape, key, ref):
    a = data(shape)
    x = QTensor(a, requires_grad=True)
    expected = numpy_get(a, ref)
    y = x[key]
    assert y.shape == list(expected.shape)
    np.testing.assert_array_equal(val(y), expected)
    w = data(expected.shape, seed=1) + 1
    sums(y * QTensor(w)).backward()
    np.testing.assert_array_equal(val(x.grad), numpy_get_grad(a, ref, w))


def check_set(shape, key, ref, v_for):
    a = data(shape)
    x0 = QTensor(a, requires_grad=True)
    x = x0 * 1.0
    region = numpy_get(a, ref).shape
    v = v_for(region)
    x[key] = v
    v_np = v if isinstance(v, float) else val(v)
    np.testing.assert_array_equal(val(x), numpy_set(a, ref, v_np))
    assert x.requires_grad is (not isinstance(v, float))
    if isinstance(v, float):
        return
    w = data(shape, seed=2) + 1
    sums(x * QTensor(w)).backward()
    np.testing.assert_array_equal(val(x0.grad), w)  # the old contents' producer: no mask
    np.testing.assert_allclose(val(v.grad), reduce_to(numpy_get(w, ref), v.shape))


@settings(max_examples=500, **FUZZ)
@given(basic_keys())
def test_basic_get_and_gradient(case):
    check_get(*case)


@settings(max_examples=1000, **FUZZ)
@given(advanced_keys())
def test_advanced_get_and_gradient(case):
    check_get(*case)


@settings(max_examples=250, **FUZZ)
@given(whole_tensor_keys())
def test_whole_tensor_key_get_and_gradient(case):
    check_get(*case)


@settings(max_examples=750, **FUZZ)
@given(st.one_of(basic_keys(), advanced_keys(), whole_tensor_keys()), st.sampled_from([D.kfloat64, D.kfloat32]),
       st.data())
def test_set_and_gradients(case, dtype, draw):
    no_none = all(e is not None for e in case[2])
    check_set(*case, lambda region: draw.draw(values(tuple(region), dtype, no_none)))


# ----------------------------------------------------------------- where the key rules differ from numpy's

A = data((3, 4, 5))
MASK = np.array([True, False, True, True])


@pytest.mark.parametrize("key,expected", [
    ([0, 2], lambda a: a[0, 2]),                        # a list key lists per-axis entries
    ([[0, 2]], lambda a: a[[0, 2]]),                    # ... and is advanced when it holds a list
    ([[0, 1], [1, 2]], lambda a: a[[0, 1], [1, 2]]),
    (True, lambda a: a[1]), (False, lambda a: a[0]),   # a bool is an integer
    ((None, [0, 1]), lambda a: a[[0, 1]]),              # None adds no axis to an advanced get
    (([0, 1], None), lambda a: a[[0, 1]]),
    ((slice(None), [0, 1], None, [2, 3]), lambda a: a[:, [0, 1], [2, 3]].T),  # ... but separates
    (([True, False, True],), lambda a: a[[1, 0, 1]]),   # bool lists are positions, not masks
    ((slice(None), Q(MASK)), lambda a: a[:, MASK]),
    ((1, [0, 1]), lambda a: a[1, [0, 1]]),              # an integer joins the block
    ((np.array([0, 1]), slice(None), [1, 2]), lambda a: a[[0, 1], :, [1, 2]]),
    ((Q(np.array([[0.9], [2.5]])), [1, -1]), lambda a: a[[[0], [2]], [1, -1]]),  # truncated
])
def test_key_rules_of_this_module(key, expected):
    y = QTensor(A)[made(key)]
    assert y.shape == list(expected(A).shape)
    np.testing.assert_array_equal(val(y), expected(A))


def test_boolean_tensor_of_several_axes_selects_like_numpy():
    a = tt.ones([2, 2])
    b = QTensor([[1, 1], [0, 1]]) > 0
    np.testing.assert_array_equal(val(a[b]), [1.0, 1.0, 1.0])
    a[b] = QTensor([1001, 2001, 3001])
    np.testing.assert_array_equal(val(a), [[1001, 2001], [1, 3001]])
    with pytest.raises(IndexError):
        QTensor(data((2, 3)))[QTensor(np.ones((3, 2), bool))]
    with pytest.raises(IndexError):
        QTensor(data((4, 3)))[QTensor(np.array([True, False]))]


def test_a_value_may_carry_the_axes_of_none_entries():
    x = QTensor(np.zeros((2, 3)))
    x[None, [1, 0]] = QTensor(np.arange(6.0).reshape(1, 2, 3))
    np.testing.assert_array_equal(val(x), [[3, 4, 5], [0, 1, 2]])


def test_set_casts_the_value_to_the_target_dtype():
    x = QTensor(np.arange(4), dtype=D.kint32)
    x[1] = 2.5
    x[[2, 3],] = QTensor([7.9, -1.5], dtype=D.kfloat64)
    assert x.dtype == D.kint32 and val(x)[0] == 0 and list(val(x)[2:]) == [7, -1]


# ----------------------------------------------------------------- select and set_select

@pytest.mark.parametrize("index,ref", [
    ([":", "1:3"], (slice(None), slice(1, 3))),
    (["-12:14:2"], (slice(-12, 14, 2),)),
    (["4:2147483646:-1"], (slice(None, None, -1),)),
    (["1"], (1,)),                                      # an integer text drops its axis
    (["0,2,"], ([0, 2],)), ([Q([0, 2])], ([0, 2],)),    # a position list keeps it
    ([Q([0.7, 2.2])], ([0, 2],)),                       # positions truncated
    ([1.5], ()), ([None, "1"], (1,)),                   # entries of other types are skipped
    ([True], (1,)),
    ([1, Q([3, 0]), "::-2"], (1, [3, 0], slice(None, None, -2))),
])
def test_select_texts(index, ref):
    a = data((5, 4, 3))
    x = QTensor(a, requires_grad=True)
    y = select(x, made(index))
    np.testing.assert_array_equal(val(y), a[ref])
    sums(y).backward()
    np.testing.assert_array_equal(val(x.grad), numpy_get_grad(a, ref, np.ones(a[ref].shape)))


def test_set_select_writes_positions_and_checks_the_dtype():
    x = QTensor(np.zeros((4, 2)))
    set_select(x, ["0,2,", "1"], QTensor([5.0, 6.0], dtype=D.kfloat64))
    np.testing.assert_array_equal(val(x), [[0, 5], [0, 0], [0, 6], [0, 0]])
    with pytest.raises(ValueError) as info:
        set_select(x, ["0"], QTensor([1.0, 2.0], dtype=D.kfloat32))
    assert str(info.value) == "set_select() requires the source and destination dtypes match."
    np.testing.assert_array_equal(val(x)[0], [0, 5])
    with pytest.raises(TypeError):
        select(x, 5)


# ----------------------------------------------------------------- the graph around a set

def test_sets_keep_the_graph_and_name_their_edges():
    x0 = QTensor(data((4, 3)), requires_grad=True)
    x = x0 * 2.0
    before = list(x.nodes)
    v, u = QTensor(np.ones(3), requires_grad=True), QTensor(np.ones((2, 3)), requires_grad=True)
    x[1] = v
    x[[1, 2],] = u                                      # overlaps row 1
    assert x.nodes[:len(before)] == before and len(x.nodes) == len(before) + 2
    assert x.nodes[-2].name == f"set select grad input: {id(x)}, set select index ['1']"
    assert x.nodes[-1].name == "__setitem__ grad "
    w = data((4, 3), seed=3)
    sums(x * QTensor(w)).backward()
    np.testing.assert_array_equal(val(x0.grad), 2 * w)
    np.testing.assert_array_equal(val(v.grad), w[1])    # overwritten since, still reached
    np.testing.assert_array_equal(val(u.grad), w[1:3])
    y, z = x[1:3], x[QTensor([0])]
    assert y.nodes[0].name == "select grad input: [4, 3], select index ['1:3:1']"
    assert z.nodes[0].name == "__getitem__ grad " and (y.nodes[0].tensor, z.nodes[0].tensor) == (x, x)


def test_requires_grad_follows_the_last_set():
    x = QTensor(np.ones(4), requires_grad=True) * 1.0
    edges = list(x.nodes)
    x[0] = 1.0
    assert x.requires_grad is False and x.nodes == edges
    with pytest.raises(RuntimeError, match="^output requires_grad is False.$"):
        x.backward()
    v = QTensor(np.array([3.0]), requires_grad=True)
    leaf = QTensor(np.zeros((2, 3)))
    leaf[1, 1:] = v                                     # one element over a region of two
    assert leaf.requires_grad is True and len(leaf.nodes) == 1
    sums(leaf * QTensor(data((2, 3), seed=4))).backward()
    np.testing.assert_array_equal(val(v.grad), [data((2, 3), seed=4)[1, 1:].sum()])
    set_select(leaf, [0], QTensor(np.ones(3)))
    assert leaf.requires_grad is False and len(leaf.nodes) == 1


# ----------------------------------------------------------------- messages

ELLIPSIS_MSG = "Cannot use ellipsis (`...`) for QTensor indexing," + " " * 25 + "use (`:`) instead."


@pytest.mark.parametrize("shape,key,exc,msg", [
    ((5,), slice(None, None, 0), ValueError, ZERO_STEP), ((2, 5), (0, slice(1, 2, 0)), ValueError, ZERO_STEP),
    ((2, 3), (0, 1, 2), ValueError, TOO_MANY_KEYS), ((2, 3), (0, None), ValueError, ONLY_BASIC),
    ((2, 3), (0, ...), ValueError, ONLY_BASIC),         # the ellipsis message stays in the retried attempt
    ((2, 3), (1.5,), ValueError, ONLY_BASIC), ((2, 3), np.array([0, 1]), ValueError, ONLY_BASIC),
    ((2, 3), ([0, 1], [0, 1, 2]), ValueError, ONLY_BASIC),  # arrays that do not broadcast
    ((2, 3), ([0, 1], 0, 0), ValueError, TOO_MANY_KEYS), ((4,), ([5],), ValueError, ONLY_BASIC),
    ((), Q([0]), IndexError, "too many indices (1) for array with 0 dimensions"),
    ((4, 3), 5, IndexError, "[select] index 5 is out of bounds for axis 0 with size 4"),
    ((4, 3), (1, -4), IndexError, "[select] index -4 is out of bounds for axis 1 with size 3"),
    ((4,), Q([1, 4]), IndexError, None),
    ((2, 3), None, TypeError, None), ((2, 3), ..., TypeError, None), ((2, 3), np.int64(1), TypeError, None),
])  # the last three have no length: they fail in len()
def test_get_messages(shape, key, exc, msg):
    with pytest.raises(exc) as info:
        QTensor(data(shape))[made(key)]
    assert msg is None or str(info.value) == msg


@pytest.mark.parametrize("shape,key,value,exc,msg", [
    ((4, 3), 0, object(), ValueError, "set value should be QTensor "),
    ((4, 3), slice(None, None, 0), 1.0, ValueError, ZERO_STEP), ((4, 3), (0, 1, 2), 1.0, ValueError, TOO_MANY_KEYS),
    ((4, 3), 9, 1.0, IndexError, None), ((4, 3), slice(0, 2), Q(np.ones(4)), None, None),  # the last: does not fit
    ((4, 3), ([0, 1],), Q(np.ones((3, 3))), ValueError, ONLY_BASIC),
    ((4, 3), ([0, 9],), 1.0, ValueError, ONLY_BASIC), ((4, 3), Q([0, 9]), 1.0, ValueError, ONLY_BASIC),
    ((4, 3), Q([0, 1]), Q(np.ones((3, 3))), ValueError, ONLY_BASIC),
    ((), Q([0]), 1.0, ValueError, TOO_MANY_KEYS),
])
def test_failed_set_leaves_the_target_unchanged(shape, key, value, exc, msg):
    x = tt.exp(QTensor(data(shape), requires_grad=True))
    a, edges = val(x), list(x.nodes)
    key, value = made(key), made(value)
    with pytest.raises(exc or Exception) as info:
        x[key] = value
    if msg:
        assert str(info.value) == msg
    np.testing.assert_array_equal(val(x), a)
    assert (x.requires_grad, x.nodes) == (True, edges)


def test_planner_messages():
    with pytest.raises(IndexError) as info:
        tt._just_if_advance_index((0, Ellipsis), [2, 3])
    assert str(info.value) == ELLIPSIS_MSG
    with pytest.raises(RuntimeError, match=r"^too few indices after normalization: expected `ndim` \(2\) but got 1\. "
                                           r"This is a bug, please report it!$"):
        tt.get_bdshape_for_slice((np.array([0]),), [2, 3])
    with pytest.raises(IndexError, match=r"^too many indices \(3\) for array with 2 dimensions$"):
        tt.get_bdshape_for_slice((np.array([0]), 0, 0), [2, 3])
    for call in (lambda: tt._is_advanced_index(1.5), lambda: tt._advanced_index_to_array(1.5, 3),
                 lambda: tt.get_bdshape_for_slice((np.array([0]), "a"), [2, 3])):
        with pytest.raises(RuntimeError, match=r"^illegal index type <class '(float|str)'>$"):
            call()
    with pytest.raises(ValueError) as info:
        tt._get_broadcast_shape((2,), (3,))
    assert str(info.value) == "shape1=(2,) is not broadcastable to shape2=(3,)"
    with pytest.raises(TypeError) as info:
        tt._fun_prepare_value_nd(QTensor(np.ones(2)), "a", (2,))
    assert str(info.value) == ("<class 'str'> does not support assignment with non-array-like object a "
                               "of type <class 'str'>")


# ----------------------------------------------------------------- planner helpers

def gather(key, shape):
    idx, newaxis = tt.get_bdshape_for_slice(key, shape)
    indice = np.stack(idx)
    return indice, tt._get_indices_for_adv_indexing(indice.shape, shape, indice.shape[0]), newaxis


@pytest.mark.parametrize("key,rows,fields", [
    ((slice(None), np.array([0, 2]), 1, slice(None)),          # adjacent: the block stays in place
     [[[0, 0], [1, 1]], [[0, 2], [0, 2]], [[1, 1], [1, 1]]], ((3, 2, 2), [2, 2, 5])),
    ((np.array([0, 1]), slice(None), 2, slice(None)),          # separated: the block goes first
     [[[0, 0, 0], [1, 1, 1]], [[0, 1, 2], [0, 1, 2]], [[2, 2, 2], [2, 2, 2]]], ((3, 2, 3), [2, 3, 5])),
])
def test_gather_of_the_worked_examples(key, rows, fields):
    indice, (oshape, mshape, strides, k), _ = gather(key, [2, 3, 4, 5])
    np.testing.assert_array_equal(indice, rows)
    assert (indice.shape, oshape, mshape, strides, k) == fields + ([2, 3, 4], [60, 20, 5], 5)


def test_gather_shapes_and_new_axes():
    indice, (oshape, _, _, k), newaxis = gather((np.array([0, 1]), slice(None), slice(None)), [4, 2, 3])
    assert (indice.shape, oshape, k, newaxis) == ((1, 2), [2, 2, 3], 6, ())
    indice, (oshape, _, _, _), _ = gather((np.array([[0], [1]]), np.array([0, 1, 2])), [2, 3])
    assert (indice.shape, oshape) == ((2, 2, 3), [2, 3])
    indice, (oshape, _, _, _), _ = gather((np.array([0]), slice(3, 1)), [2, 3])
    assert oshape == [1, 0] and indice.size == 0
    assert gather((None, np.array([0, 1]), slice(None)), [2, 3])[2] == (0,)
    assert gather((np.array([0, 1]), None, slice(None)), [2, 3])[2] == (0,)


@pytest.mark.parametrize("key,adv_axs,ndim,adjacent,expected", [
    ((None, "a"), [1], 1, True, (0,)),
    (("a", None), [0], 1, True, (0,)),                  # behind an adjacent block: still 0
    ((slice(None), None, "a"), [2], 2, True, (1,)),
    (("a", None, "a"), [0, 2], 2, False, (2,)),
    ((None, "a", slice(None), "a", None), [1, 3], 1, False, (1, 3)),
])
def test_new_axes_after_advanced_indexing(key, adv_axs, ndim, adjacent, expected):
    assert tuple(tt._fun_new_axes_after_advanced_indexing(key, adv_axs, ndim, adjacent)) == expected


@pytest.mark.parametrize("s,text", [(slice(None, None, -1), "4:2147483646:-1"), (slice(None), "0:5:1"),
                                    (slice(2, None), "2:5:1"), (slice(-3, -1), "-3:-1:1"),
                                    (slice(None, 1, -2), "4:1:-2"), (slice(7, -9, 3), "7:-9:3")])
def test_parse_slice_string(s, text):
    assert tt._parse_slice_string(QTensor(np.zeros((2, 5))), 1, s) == text


def test_conversion_helpers():
    a = np.array([0, 1])
    assert tt._drop_slice_none_at_end([a, slice(None), slice(None)]) == (a,)
    kept = tt._drop_slice_none_at_end((a, slice(0, None), slice(None)))
    assert kept == (a, slice(0, None))
    for idx, expected in [(np.array([True, False]), [1, 0]), ([1, -2], [1, -2]), ((3,), [3]), (-7, [-7]),
                          (slice(None, None, -2), [4, 2, 0]), (slice(-2, None), [3, 4]), (range(1, 5, 2), [1, 3])]:
        out = tt._advanced_index_to_array(idx, 5)
        assert isinstance(out, np.ndarray) and out.dtype.kind == "i" and out.tolist() == expected
    shape = (2, 3)
    assert tt._get_broadcast_shape(shape, shape) is shape
    assert tt._get_broadcast_shape((2, 1), (4, 1, 3)) == (4, 2, 3)


# ----------------------------------------------------------------- export records

def check_record(r, opid, opname, inputs, output, attribute_keys):
    assert (r.opid, r.opname) == (opid, opname)
    assert (r.op_input_id_lists, r.op_input_shape_lists) == ([str(id(t)) for t in inputs], [t.shape for t in inputs])
    assert r.op_input_dtype_lists == [t.dtype for t in inputs]
    assert (r.op_output_id_list, r.op_output_shape_list) == ([str(id(output))], [output.shape])
    assert (r.op_para_buffer_id_lists, r.op_para_buffer_shape_lists) == ([], [])
    assert set(r.op_attribute) == attribute_keys


def recording(on):
    for key in ("save_constant", "save_opinfo"):
        export.set_onnx_convert_config(key, on)


def test_export_records_of_gets():
    recording(True)
    x = QTensor(data((4, 3)))
    y = x[1:3]
    check_record(y.oplinkinfo, f"{id(x)}_basic_indexing__{id(y)}", "Basic_Indexing", [x], y, {"slice"})
    assert y.oplinkinfo.op_attribute["slice"] == ["1:3:1"]
    assert [(n.tensor, n.name) for n in y.link_nodes] == [(x, "")]
    y = x[QTensor([0, 2])]
    check_record(y.oplinkinfo, f"{id(x)}_only_adv_idx{id(y)}", "Only_adv_idx", [x], y, {"item_for_np_0"})
    assert y.oplinkinfo.op_attribute["item_for_np_0"].tolist() == [0, 2]
    assert [(n.tensor, n.name) for n in y.link_nodes] == [(x, "t1 floor grad [4, 3]")]
    y = x[[0, 2], 1:]
    check_record(y.oplinkinfo, f"{id(x)}_Multi_adv_index{id(y)}", "Multi_adv_index", [x], y, {"item_for_np"})
    items = y.oplinkinfo.op_attribute["item_for_np"]
    assert isinstance(items, tuple) and items[0].tolist() == [0, 2] and items[1] == slice(1, None)
    assert [(n.tensor, n.name) for n in y.link_nodes] == [(x, "t1 _Multi_adv_index [4, 3]")]


def test_advanced_gets_link_even_when_recording_is_off():
    recording(False)
    x = QTensor(data((4,)))
    y, z = x[QTensor([0, 2])], x[1:3]
    assert (y.oplinkinfo, [n.tensor for n in y.link_nodes]) == (None, [x])
    assert (z.oplinkinfo, z.link_nodes) == (None, [])


@pytest.mark.parametrize("key,region,opname,opid,items", [
    (slice(1, 3), (2, 3), "Basic_set_index", "{v}_basic_set_indexing__{x}", ["1:3:1"]),
    (Q([1, 2]), (2, 3), "Only_adv_set_index", "{v}_oasi_{x}", [[1, 2]]),
    (([1, 2],), (2, 3), "Multi_or_single_adv_set_index", "{v}_msasi_{x}", []),
    ((slice(1, 3), Q([0, 2])), (2, 2), "Multi_or_single_adv_set_index", "{v}_msasi_{x}",
     [slice(1, 3), [0, 2]]),
])
def test_export_records_of_sets(key, region, opname, opid, items):
    recording(True)
    x = QTensor(data((4, 3)))
    v = QTensor(np.ones(region) * 9)
    x[made(key)] = v
    r = x.oplinkinfo
    check_record(r, opid.format(v=id(v), x=id(x)), opname, [v], x, {"set_items", "org"})
    assert [i.tolist() if isinstance(i, np.ndarray) else i for i in r.op_attribute["set_items"]] == items
    np.testing.assert_array_equal(r.op_attribute["org"], val(x))
    assert [n.name for n in x.link_nodes] == [""]


# ----------------------------------------------------------------- devices

KEYS = [slice(1, 3), ([0, 2],), (1, [2, 0]), Q([3, 0, 3]), Q(MASK),
        (slice(None, None, -1), Q([1, 1]))]


def on(key, device):
    if isinstance(key, Q):
        return QTensor(*key.args, **key.kwargs, device=device)
    return tuple(on(k, device) for k in key) if isinstance(key, tuple) else key


@pytest.mark.parametrize("key", KEYS, ids=range(len(KEYS)))
def test_an_accelerator_gives_the_same_values_and_gradients(key):
    a, w = data((4, 3)), data((4, 3), seed=5)
    results = []
    for device in (0, GPU0):
        x = QTensor(a, requires_grad=True, device=device)
        y = x[on(key, device)]
        v = QTensor(data(y.shape, seed=6), requires_grad=True, device=device)
        target = QTensor(a, device=device) * 1.0
        target[on(key, device)] = v
        filled = QTensor(a, device=device)
        filled[on(key, device)] = 1.5  # a number joins the target's device on every way
        assert (filled.device, filled.data.device) == (device, device)
        sums(y * QTensor(np.ones(y.shape), device=device)).backward()
        sums(target * QTensor(w, device=device)).backward()
        assert (y.device, y.data.device, x.grad.data.device, target.data.device) == (device,) * 4
        results.append([val(y), val(x.grad), val(target), val(v.grad)])
    for ours, theirs in zip(*results):
        np.testing.assert_array_equal(ours, theirs)
