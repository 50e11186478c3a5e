"""Arguments and answers of every shape and type: the right result, or an error that names what is
wrong."""

import numpy as np
import pytest

import tqnlp

hypothesis = pytest.importorskip("hypothesis")
from hypothesis import given, settings  # noqa: E402
from hypothesis import strategies as st  # noqa: E402
from hypothesis.extra import numpy as hnp  # noqa: E402

settings.register_profile("quick", max_examples=60, deadline=None, derandomize=True)
settings.load_profile("quick")

NUMBERS = ["f8", "f4", "f2", ">f8", "i8", "i4", "u1", "?"]
OTHERS = ["c16", "U3", "S3", "M8[s]", "V4", "O"]


@st.composite
def arrays(draw, shapes, most=4):
    """(an array, or nested lists; is it of numbers): strided, read-only, transposed."""
    dtype = draw(st.sampled_from(NUMBERS * 2 + OTHERS))
    shape = draw(shapes)
    good = np.dtype(dtype).str in [np.dtype(name).str for name in NUMBERS]
    values = np.array(draw(hnp.arrays("i8", shape, elements=st.integers(0, most))))
    if dtype == "O":
        value = draw(st.sampled_from([1, 2.5, None, "a", [1], 1j]))
        array, good = np.empty(shape, dtype="O"), isinstance(value, (int, float))
        for place in np.ndindex(*shape):
            array[place] = value
    elif dtype == "V4":
        array = np.zeros(shape, dtype="V4")
    else:
        array = values.astype(dtype)
    form = draw(st.sampled_from(["plain", "strided", "reversed", "fortran", "read-only", "list"]))
    if form == "strided":
        array = np.repeat(array, 2, axis=-1)[..., ::2] if array.ndim else array
    elif form == "reversed":
        array = np.flip(array)
    elif form == "fortran":
        array = np.asfortranarray(array)
    elif form == "read-only":
        array.flags.writeable = False
    elif form == "list" and dtype != "V4":
        array = array.tolist()
    return array, good or np.size(array) == 0


def shapes(*often):
    return st.one_of(st.sampled_from(often), hnp.array_shapes(min_dims=0, max_dims=3, max_side=3))


def refuses(name, wanted, call):
    """Runs a call that must be refused by an error that names the argument and what is wanted."""
    with pytest.raises((TypeError, ValueError)) as refused:
        call()
    assert name in str(refused.value) and wanted in str(refused.value), refused.value


def parabola(x):
    return float(((x - 0.25) ** 2).sum())


@given(arrays(shapes((2,), (3,))))
def test_starts(said):
    x0, numbers = said
    shape = np.shape(x0)
    if numbers and len(shape) <= 1 and np.size(x0) > 0:
        found = tqnlp.minimize(parabola, x0)
        assert found.x.dtype == np.float64 and found.x.shape == (np.size(x0),)
        np.testing.assert_allclose(found.x, 0.25, atol=1e-5)
    else:
        refuses("x0 must h", "", lambda: tqnlp.minimize(parabola, x0))  # hold numbers, have the shape


@given(arrays(shapes((), (1,))))
def test_values(said):
    value, numbers = said
    if numbers and np.size(value) == 1:
        assert tqnlp.minimize(lambda x: value, [1, 2]).fun == float(np.ravel(value)[0])
    else:
        wanted = "number" if not numbers else "one number"
        refuses("fun must return", wanted, lambda: tqnlp.minimize(lambda x: value, [1, 2]))


def takes(shape, wanted):
    """Sides of length 1 may be more or less."""
    return [k for k in shape if k != 1] == [k for k in wanted if k != 1]


@given(arrays(shapes((2,), (1, 2), (2, 1))))
def test_gradients(said):
    gradient, numbers = said
    case = {"fun": lambda x: 0.0, "x0": [1, 2], "jac": lambda x: gradient}
    if numbers and takes(np.shape(gradient), (2,)):
        found = tqnlp.minimize(**case, options={"iterations": 1, "analysis": False})
        assert (found.jac == np.ravel(np.array(gradient, dtype=float))).all()
    else:
        refuses("jac", "(2,)" if numbers else "numbers", lambda: tqnlp.minimize(**case))


@given(arrays(shapes((3, 2), (2, 3), (6,))))
def test_jacobians(said):
    jacobian, numbers = said
    case = {"fun": lambda x: [1.0, 2.0, 3.0], "x0": [1, 2], "jac": lambda x: jacobian}
    if numbers and takes(np.shape(jacobian), (3, 2)):
        found = tqnlp.least_squares(**case, options={"iterations": 1, "analysis": False})
        assert (found.jac == np.array(jacobian, dtype=float)).all()
    else:
        refuses("jac", "(3, 2)" if numbers else "numbers", lambda: tqnlp.least_squares(**case))


@given(arrays(shapes((2,), (3,)), most=2))
def test_residuals(said):
    values, numbers = said
    call = lambda: tqnlp.least_squares(lambda x: values, [1, 2], options={"analysis": False})
    if numbers and sum(k != 1 for k in np.shape(values)) <= 1 and np.size(values) > 0:
        residuals = np.ravel(np.array(values, dtype=float))
        found = call()
        assert (found.fun == residuals).all() and found.cost == pytest.approx(residuals @ residuals / 2)
    else:
        refuses("fun must return", "numbers" if not numbers else "residuals of shape", call)


@given(arrays(shapes((2,), ())), arrays(shapes((2,), ())))
def test_bounds(lower, upper):
    bounds = type("Bounds", (), {"lb": lower[0], "ub": upper[0]})()
    call = lambda: tqnlp.minimize(parabola, [0.5, 0.5], bounds=bounds)
    fits = all(s[1] and np.shape(s[0]) in ((), (1,), (2,)) for s in (lower, upper))
    if not fits:
        refuses("bounds.", "must h", call)  # have the shape, hold numbers
        return
    low, high = (np.broadcast_to(np.array(s[0], dtype=float), 2) for s in (lower, upper))
    if (low > high).any():
        refuses("bound", "", call)
    else:
        np.testing.assert_allclose(call().x, np.clip(0.25, low, high), atol=1e-5)


@given(arrays(shapes((2,), (1, 2), (3, 2))))
def test_rows(said):
    matrix, numbers = said
    row = type("Rows", (), {"A": matrix, "lb": -100.0, "ub": 100.0})()
    call = lambda: tqnlp.minimize(parabola, [0.5, 0.5], constraints=[row])
    shape = np.shape(matrix)
    if numbers and shape[-1:] == (2,) and len(shape) <= 2:
        np.testing.assert_allclose(call().x, 0.25, atol=1e-5)
    else:
        refuses("constraints[0].A", "(rows, 2)" if numbers else "numbers", call)


@given(arrays(shapes((2,), (2, 2), (3, 3)), most=1))
def test_quadratics(said):
    h, numbers = said
    shape = np.shape(h)
    call = lambda: tqnlp.quadratic(h, bounds=[(-1, 1)] * shape[0])
    if numbers and shape and 0 < len(shape) <= 2 and shape[0] == shape[-1] and np.size(h):
        full = np.array(h, dtype=float)
        if full.ndim == 2 and (full != full.T).any():
            refuses("symmetric", "", call)
        else:
            assert call().x.shape == (shape[0],)
    elif shape:
        refuses("h must", "(n, n)" if numbers else "numbers", call)
