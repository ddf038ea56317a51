"""Core indexing against numpy: selection by index texts and its writes and gradients, gather and
scatter by coordinates (numpy's fancy indexing and add.at), nonzero; the refusals of each."""
import re

import numpy as np
import pytest

from pytramel import _core

from conftest import DEVICES, DTYPES, DTYPE_IDS, GPU0, host, sample

T = _core.Tensor
TO_LOW_END = 2147483646


def core(a, device=0):
    return T(np.asarray(a), device, -1)


# ----------------------------------------------------------------- selection by index texts

def ref_select(a, texts):
    """numpy's reading of the texts: each axis picked on its own (lists do not pair up)."""
    out, axis = a, 0
    for text in texts:
        if ":" in text:
            fields = [int(f) if f.strip() else None for f in text.split(":")] + [None]
            start, stop, step = fields[:3]
            if step is not None and step < 0 and stop == TO_LOW_END:
                stop = None
            out = out[(slice(None),) * axis + (slice(start, stop, step),)]
            axis += 1
        elif "," in text or not text.strip():
            out = np.take(out, [int(p) for p in text.split(",") if p.strip()], axis=axis)
            axis += 1
        else:
            out = np.take(out, {"True": 1, "False": 0}.get(text.strip()) if text.strip() in ("True", "False")
                          else int(text), axis=axis)
    return np.array(out)


SHAPE = (4, 5, 6)
TEXTS = [
    [], ["1:3:1"], ["-1"], ["True"], ["False", "::-1"], ["::2", "1:"], [":", ":", "::-2"],
    ["-3:-1", "4:0:-1"], [f"3:{TO_LOW_END}:-1"], [":", f"::-2", f"5:{TO_LOW_END}:-2"],
    ["100:-100:-1", "-100:100"], ["3:1"], ["0,2,", "4,", "1"], ["0,0,3", "-1,1"], ["", ":"],
    ["1", "2", "3"], ["0,", ":", "5"], [" 1 : 3 ", " -2 "], ["2", "::-1", "0,5,-1"], ["-4", "4,3,2,1,0"],
]


@pytest.mark.parametrize("texts", TEXTS, ids=[repr(t) for t in TEXTS])
@pytest.mark.parametrize("device", DEVICES)
def test_select_matches_numpy(texts, device):
    a = sample(SHAPE, np.float64, 1)
    got = core(a, device).select(texts)
    assert got.device == device
    np.testing.assert_array_equal(host(got), ref_select(a, texts))
    assert got.shape == list(ref_select(a, texts).shape)


@pytest.mark.parametrize("const,nptype", DTYPES, ids=DTYPE_IDS)
def test_select_keeps_every_dtype(const, nptype):
    a = sample(SHAPE, nptype, 2)
    for texts in (["1:3", "::-2", "0,5"], ["-1", "2"], ["1,1,"]):
        got = core(a).select(texts)
        assert got.dtype == const
        np.testing.assert_array_equal(host(got), ref_select(a, texts))


def test_select_at_the_largest_rank_and_of_a_0d_tensor():
    a = np.arange(2 ** 16, dtype=np.int32).reshape((2,) * 16)
    texts = ["1", "::-1", "0,1,1", ":", "-1"] + ["0:1"] * 6
    np.testing.assert_array_equal(host(core(a).select(texts)), ref_select(a, texts))
    np.testing.assert_array_equal(host(core(np.float32(7.5)).select([])), np.float32(7.5))


def test_select_of_a_large_region_on_many_threads():
    a = sample((300, 200, 3), np.float32, 3)
    for texts in (["::-1", "1:", "::2"], ["5:295", ":"], ["0,299,7,", "::-3"]):
        np.testing.assert_array_equal(host(core(a).select(texts)), ref_select(a, texts))


def flat_region(shape, texts):
    """The flat positions of the region, in its order."""
    return ref_select(np.arange(int(np.prod(shape))).reshape(shape), texts)


def strip_leading_ones(v):
    v = np.asarray(v)
    while v.ndim and v.shape[0] == 1:
        v = v[0]
    return v


SETS = [  # texts, value shape: equal, broadcast, leading ones, one element of any shape
    (["1:3", "::-2"], (2, 3, 6)), (["::2"], (5, 1)), (["-1", "0,4,"], (1, 1, 6)), (["0", "1", "2"], ()),
    (["1:4", "2"], (1, 1)), ([":", "0,0,"], (4, 2, 6)), (["3,1,3,"], (3, 5, 6)), ([], (6,)),
]


@pytest.mark.parametrize("texts,vshape", SETS, ids=[repr(s) for s in SETS])
@pytest.mark.parametrize("device", DEVICES)
def test_set_select_writes_the_region_as_numpy_assigns(texts, vshape, device):
    a, v = sample(SHAPE, np.int32, 4), sample(vshape, np.float64, 5) * 4 + 0.5
    region = flat_region(SHAPE, texts)
    expected = a.copy().reshape(-1)
    value = strip_leading_ones(v).astype(np.int32)  # converted to the target's dtype
    for pos, val in zip(region.reshape(-1), np.broadcast_to(value, region.shape).reshape(-1)):
        expected[pos] = val  # in region order: a position named twice keeps its last value
    t = core(a, device)
    assert t.set_select(texts, core(v, device)) is None
    assert t.dtype == _core.kint32
    np.testing.assert_array_equal(host(t), expected.reshape(SHAPE))


def test_a_tensor_written_with_its_own_elements_reads_them_before_the_write():
    a = sample((6, 4), np.float64, 27)
    t = core(a)
    t.set_select(["::-1"], t)
    np.testing.assert_array_equal(host(t), a[::-1])
    t.set_adv_indexing(6, 1, 4, [6], [4], core(np.arange(5, -1, -1)), t)
    np.testing.assert_array_equal(host(t), a)


@pytest.mark.parametrize("texts,vshape", SETS, ids=[repr(s) for s in SETS])
def test_select_bp_and_set_select_bp_are_the_gradients(texts, vshape):
    x = core(np.zeros(SHAPE, np.float32))
    region = flat_region(SHAPE, texts)
    g = sample(vshape, np.float64, 6)
    expected = np.zeros(int(np.prod(SHAPE)))
    np.add.at(expected, region.reshape(-1), np.broadcast_to(strip_leading_ones(g), region.shape).reshape(-1))
    got = T.select_bp(x, texts, core(g))
    assert got.dtype == _core.kfloat64 and got.shape == list(SHAPE)
    np.testing.assert_array_equal(host(got), expected.reshape(SHAPE))
    gy = sample(SHAPE, np.complex64, 7)
    np.testing.assert_array_equal(host(T.set_select_bp(x, texts, core(gy))), ref_select(gy, texts))


def test_a_large_set_is_the_same_on_one_thread_and_on_several():
    a = sample((400, 300), np.float64, 8)
    v = sample((200, 300), np.float64, 9)
    results = []
    for threads in (1, 4):
        saved = _core.get_num_threads()
        _core.set_num_threads(threads)
        try:
            t = core(a)
            t.set_select(["::2"], core(v))
            results.append(host(t))
            results.append(host(T.select_bp(t, ["1:", "0,0,5,299"], core(np.ones((399, 4))))))
        finally:
            _core.set_num_threads(saved)
    expected = a.copy()
    expected[::2] = v
    np.testing.assert_array_equal(results[0], expected)
    np.testing.assert_array_equal(results[0], results[2])
    np.testing.assert_array_equal(results[1], results[3])
    assert results[1][1:, 0].tolist() == [2.0] * 399


SELECT_ERRORS = [
    (["4"], IndexError, "index 4 is out of bounds for axis 0 with size 4"),
    ([":", "-6"], IndexError, "index -6 is out of bounds for axis 1 with size 5"),
    ([":", ":", "0,6,"], IndexError, "index 6 is out of bounds for axis 2 with size 6"),
    (["0", "0", "0", "0"], IndexError, "too many indices for shape [4, 5, 6]: 4 texts, the first extra is '0'"),
    (["a"], ValueError, "cannot read index text 'a' for axis 0"),
    (["1.5"], ValueError, "cannot read index text '1.5'"),
    ([":", "1:2:3:4"], ValueError, "cannot read index text '1:2:3:4' for axis 1: a range has at most three fields"),
    (["::0"], ValueError, "cannot read index text '::0' for axis 0: the step of a range cannot be zero"),
    (["x:"], ValueError, "cannot read index text 'x:' for axis 0: range fields are integers or empty"),
    (["1,,2"], ValueError, "cannot read index text '1,,2' for axis 0: an empty position in a list"),
    (["1,b"], ValueError, "cannot read index text '1,b' for axis 0: list entries are integers"),
    (["99999999999999999999"], ValueError, "cannot read index text '99999999999999999999'"),
]


@pytest.mark.parametrize("texts,exc,message", SELECT_ERRORS, ids=[repr(e[0]) for e in SELECT_ERRORS])
def test_select_refusals_name_the_text_and_leave_the_target_alone(texts, exc, message):
    a = sample(SHAPE, np.float32, 10)
    t = core(a)
    for op, call in (("select", lambda: t.select(texts)),
                     ("set_select", lambda: t.set_select(texts, core(np.float32(1)))),
                     ("select_bp", lambda: T.select_bp(t, texts, core(np.float32(1)))),
                     ("set_select_bp", lambda: T.set_select_bp(t, texts, t))):
        with pytest.raises(exc, match=re.escape(f"[{op}] {message}")):
            call()
    np.testing.assert_array_equal(host(t), a)


def test_set_select_refuses_values_that_do_not_fit_before_writing():
    a = sample(SHAPE, np.float32, 11)
    t = core(a)
    with pytest.raises(ValueError, match=re.escape(
            "[set_select] a value of shape [2, 6] cannot be broadcast to the selected region of shape [3, 6]")):
        t.set_select(["0", "1:4"], core(np.ones((2, 6))))
    with pytest.raises(RuntimeError, match=r"^\[set_select\] value is on device 1000"):
        t.set_select(["0"], core(np.ones(6), GPU0))
    with pytest.raises(ValueError, match=r"^\[set_select_bp\] the gradient's shape \[2\]"):
        T.set_select_bp(t, ["0"], core(np.ones(2)))
    with pytest.raises(TypeError, match=r"^\[select\] index_list must hold only str, got int at position 1$"):
        t.select(["0", 1])
    with pytest.raises(TypeError, match=r"^\[set_select\] index_list must be a list of str, got str$"):
        t.set_select("0", core(np.ones(6)))
    np.testing.assert_array_equal(host(t), a)


# ----------------------------------------------------------------- gather and scatter by coordinates

def describe(shape, m):
    """(m, k, mshape, strides) of a dense source whose first m axes the coordinates address."""
    strides = [int(np.prod(shape[j + 1:])) for j in range(m)]
    return m, int(np.prod(shape[m:])), list(shape[:m]), strides


def coords(shape, m, n, seed, negative=True):
    rng = np.random.default_rng(seed)
    c = np.stack([rng.integers(-d if negative else 0, d, size=n) for d in shape[:m]]) if n else np.zeros((m, 0), int)
    return c


GATHERS = [  # source shape, m, n, index dtype
    ((7,), 1, 12, np.int64), ((5, 4, 3), 1, 9, np.int32), ((5, 4, 3), 2, 10, np.int8),
    ((3, 4, 2, 2), 3, 6, np.uint8), ((6, 5), 2, 0, np.int16), ((4, 0), 1, 3, np.int64),
]


@pytest.mark.parametrize("shape,m,n,itype", GATHERS, ids=[str(g) for g in GATHERS])
@pytest.mark.parametrize("device", DEVICES)
def test_adv_indexing_is_numpys_fancy_indexing(shape, m, n, itype, device):
    a = sample(shape, np.complex128, 12)
    c = coords(shape, m, n, 13, negative=itype is not np.uint8)
    m_, k, mshape, strides = describe(shape, m)
    oshape = [n] + list(shape[m:])
    got = core(a, device).adv_indexing(n, m, k, mshape, strides, core(c.astype(itype), device), oshape)
    np.testing.assert_array_equal(host(got), a[tuple(c)])
    assert got.device == device
    # The gradient of a set's value reads the same runs.
    np.testing.assert_array_equal(
        host(core(a, device).set_adv_indexing_grad(n, m, k, mshape, strides, core(c.astype(itype)), oshape)),
        a[tuple(c)])


@pytest.mark.parametrize("const,nptype", DTYPES, ids=DTYPE_IDS)
def test_adv_indexing_grad_is_add_at_over_repeated_coordinates(const, nptype):
    shape, m, n = (4, 3, 2), 2, 40  # 12 places for 40 runs: most repeat
    c = coords(shape, m, n, 14)
    g = sample((n, 2), nptype, 15)
    expected = np.zeros(shape, nptype)
    if nptype is np.bool_:
        np.logical_or.at(expected, tuple(c), g)
    else:
        np.add.at(expected, tuple(c), g)
    m_, k, mshape, strides = describe(shape, m)
    got = core(g).adv_indexing_grad(n, m, k, mshape, strides, core(c), list(shape))
    assert got.dtype == const and got.shape == list(shape)
    np.testing.assert_array_equal(host(got), expected)


@pytest.mark.parametrize("device", DEVICES)
def test_set_adv_indexing_writes_runs_the_last_one_winning(device):
    shape, m, n = (5, 4, 3), 2, 30
    c = coords(shape, m, n, 16)
    a, v = sample(shape, np.int16, 17), sample((n, 3), np.float32, 18) * 3
    m_, k, mshape, strides = describe(shape, m)
    t = core(a, device)
    assert t.set_adv_indexing(n, m, k, mshape, strides, core(c, device), core(v, device)) is None
    expected = a.copy()
    for col in range(n):  # run by run, in column order
        expected[tuple(c[:, col])] = v[col].astype(np.int16)
    np.testing.assert_array_equal(host(t), expected)
    t.set_adv_indexing(n, m, k, mshape, strides, core(c), core(np.array([7.9]), device))  # one value fills
    expected[tuple(c)] = 7
    np.testing.assert_array_equal(host(t), expected)


@pytest.mark.parametrize("n", [300_000, 3])
def test_the_scatter_add_has_the_same_bits_on_one_thread_and_on_four(n):
    # Many repeats into few places on a large destination: sums in column order,
    # which is also np.add.at's order.
    rng = np.random.default_rng(19)
    size = 200_000
    c = rng.integers(0, 1000, size=(1, n)) * 200 + rng.integers(0, 200, size=(1, n))
    g = rng.standard_normal(n).astype(np.float32)
    results = []
    saved = _core.get_num_threads()
    try:
        for threads in (1, 4):
            _core.set_num_threads(threads)
            results.append(host(core(g).adv_indexing_grad(n, 1, 1, [size], [1], core(c), [size])))
    finally:
        _core.set_num_threads(saved)
    expected = np.zeros(size, np.float32)
    np.add.at(expected, c[0], g)
    assert results[0].tobytes() == results[1].tobytes() == expected.tobytes()


def test_runs_of_many_elements_across_threads():
    a = sample((6, 50_000), np.float32, 20)
    c = np.array([[5, 0, -1, 2, 5, 0]])
    m, k, mshape, strides = describe(a.shape, 1)
    g = core(a).adv_indexing(6, m, k, mshape, strides, core(c), [6, 50_000])
    np.testing.assert_array_equal(host(g), a[c[0]])
    expected = np.zeros_like(a)
    np.add.at(expected, c[0], a[c[0]])
    np.testing.assert_array_equal(host(g.adv_indexing_grad(6, m, k, mshape, strides, core(c), list(a.shape))), expected)


GOOD = dict(n=3, m=1, k=4, mshape=[5], strides=[4], oshape=[3, 4])  # for a (5, 4) source, 3 coordinates
DESCRIPTION_ERRORS = [
    (dict(m=3), "m = 3 leading axes do not fit shape [5, 4]"),
    (dict(m=0), "m = 0 leading axes do not fit shape [5, 4]"),
    (dict(mshape=[5, 4]), "mshape [5, 4] and strides [4] must have m = 1 entries"),
    (dict(mshape=[6]), "mshape [6] is not the leading part of shape [5, 4]"),
    (dict(strides=[1]), "strides [1] are not the element strides of shape [5, 4]"),
    (dict(k=5), "k = 5 is not the size 4 of the axes after the first 1 of shape [5, 4]"),
    (dict(n=4), "n = 4 columns of m = 1 coordinates do not match the 3 elements of the indices"),
    (dict(n=-1), "n = -1 columns"),
    (dict(oshape=[3, 5]), "the result's shape [3, 5] has 15 elements, not n * k = 3 * 4"),
]


def gather_calls(t, desc, c, value):
    n, m, k, ms, st, out = (desc[key] for key in ("n", "m", "k", "mshape", "strides", "oshape"))
    return [("adv_indexing", lambda: t.adv_indexing(n, m, k, ms, st, c, out)),
            ("set_adv_indexing_grad", lambda: t.set_adv_indexing_grad(n, m, k, ms, st, c, out)),
            ("set_adv_indexing", lambda: t.set_adv_indexing(n, m, k, ms, st, c, value)),
            ("adv_indexing_grad", lambda: value.adv_indexing_grad(n, m, k, ms, st, c, list(t.shape)))]


@pytest.mark.parametrize("change,message", DESCRIPTION_ERRORS, ids=[str(e[0]) for e in DESCRIPTION_ERRORS])
def test_a_description_that_does_not_fit_is_refused_before_anything_is_read(change, message):
    a = sample((5, 4), np.float64, 21)
    t = core(a)
    for op, call in gather_calls(t, {**GOOD, **change}, core(np.array([0, 1, 2])), core(np.ones((3, 4)))):
        if "oshape" in change and op in ("set_adv_indexing", "adv_indexing_grad"):
            continue
        with pytest.raises(ValueError, match=re.escape(f"[{op}] {message}")):
            call()
    np.testing.assert_array_equal(host(t), a)


def test_coordinates_out_of_range_and_of_other_dtypes_are_refused_before_writing():
    a = sample((5, 4), np.float64, 22)
    t = core(a)
    for c, exc, message in [
            (np.array([0, 5, 2]), IndexError, "index 5 is out of bounds for axis 0 with size 5"),
            (np.array([-6, 9, 2]), IndexError, "index -6 is out of bounds for axis 0 with size 5"),
            (np.array([0.0, 1.0, 2.0]), TypeError, "indices must have an integer dtype, got float64"),
            (np.array([True, False, True]), TypeError, "indices must have an integer dtype, got bool")]:
        for op, call in gather_calls(t, GOOD, core(c), core(np.ones((3, 4)))):
            with pytest.raises(exc, match=re.escape(f"[{op}] {message}")):
                call()
    # The first coordinate out of range in row-major order is the one named.
    shape = (3, 4, 2)
    m, k, mshape, strides = describe(shape, 2)
    with pytest.raises(IndexError, match=re.escape("[adv_indexing] index 4 is out of bounds for axis 1 with size 4")):
        core(np.zeros(shape)).adv_indexing(3, m, k, mshape, strides, core(np.array([[0, 1, 2], [1, 4, -5]])), [3, 2])
    with pytest.raises(RuntimeError, match=r"^\[set_adv_indexing\] value is on device 1000"):
        t.set_adv_indexing(3, 1, 4, [5], [4], core(np.array([0, 1, 2])), core(np.ones((3, 4)), GPU0))
    np.testing.assert_array_equal(host(t), a)


# ----------------------------------------------------------------- nonzero

NONZERO = [
    np.array([0.0, -0.0, np.nan, 1.5, 0.0, np.inf]),
    np.array([[0, 1j, 0], [2, 0, 0]], np.complex64),
    np.array([[[True, False], [False, True]]]),
    sample((3, 4, 5), np.int8, 23),
    np.zeros((2, 0, 3), np.float32),
    np.zeros((4, 4), np.uint8),
]


@pytest.mark.parametrize("a", NONZERO, ids=[f"{a.dtype}{a.shape}" for a in NONZERO])
@pytest.mark.parametrize("device", DEVICES)
def test_nonzero_is_numpys_stacked(a, device):
    got = T.nonzero(core(a, device))
    assert got.dtype == _core.kint64 and got.device == device
    expected = np.stack(np.nonzero(a)) if a.ndim else np.zeros((0, int(a != 0)), np.int64)
    assert got.shape == list(expected.shape)
    np.testing.assert_array_equal(host(got), expected)


def test_nonzero_of_0d_tensors_and_of_large_ones():
    assert T.nonzero(core(np.float64(3))).shape == [0, 1]
    assert T.nonzero(core(np.float64(0))).shape == [0, 0]
    a = (sample((70, 30, 50), np.float32, 24) > 0.5) * sample((70, 30, 50), np.float32, 25)
    np.testing.assert_array_equal(host(T.nonzero(core(a))), np.stack(np.nonzero(a)))
    b = sample((300_001,), np.int16, 26)
    np.testing.assert_array_equal(host(T.nonzero(core(b))), np.stack(np.nonzero(b)))
