"""Colour arithmetic and table interpolation against the C calls, one pixel
at a time through ctypes, on the same data. (Published values, Little CMS and
the interpolators' properties are held against the C calls by the C++ tests;
here the wrappers must give exactly what those calls give.)"""

import ctypes

import numpy as np
import pytest

import ztlib
from conftest import bind, ptr

D = ctypes.c_double
P = ctypes.POINTER(D)


def c3(values):
    return (D * 3)(*values)


def c_map(fn, array, *extra):
    out = np.empty_like(array)
    for i, v in enumerate(array):
        o = c3([0, 0, 0])
        fn(c3(v), *extra, o)
        out[i] = list(o)
    return out


@pytest.fixture
def xyz(rng):
    return rng.uniform(0.01, 1.0, (200, 3))


@pytest.fixture
def lab(rng):
    return np.column_stack([rng.uniform(0, 100, 300), rng.uniform(-100, 100, 300), rng.uniform(-100, 100, 300)])


def test_conversions_equal_the_c_functions(libzt, xyz, lab):
    d65 = ztlib.illuminant(2)
    assert np.array_equal(ztlib.xyz_to_lab(xyz), c_map(libzt.ZTCMS_XYZToLab, xyz, c3(ztlib.illuminant(0))))
    assert np.array_equal(ztlib.xyz_to_lab(xyz, d65), c_map(libzt.ZTCMS_XYZToLab, xyz, c3(d65)))
    assert np.array_equal(ztlib.lab_to_xyz(lab, d65), c_map(libzt.ZTCMS_LabToXYZ, lab, c3(d65)))
    assert np.array_equal(ztlib.lab_to_lch(lab), c_map(libzt.ZTCMS_LabToLch, lab))
    assert np.array_equal(ztlib.xyz_to_xy(xyz), c_map(libzt.ZTCMS_XYZToxy, xyz))
    assert np.array_equal(ztlib.xyz_to_luv(xyz), c_map(libzt.ZTCMS_XYZToLUV, xyz, c3(ztlib.illuminant(0))))
    # Shapes (..., 3) keep their leading axes.
    grid = xyz[:198].reshape(2, 9, 11, 3)
    assert np.array_equal(ztlib.xyz_to_lab(grid).reshape(-1, 3), ztlib.xyz_to_lab(xyz[:198]))


def test_xy_round_trip_and_known_whites(xyz):
    xy = ztlib.xyz_to_xy(xyz)
    xyY = np.column_stack([xy[:, 0], xy[:, 1], xyz[:, 1]])
    assert np.allclose(ztlib.xy_to_xyz(xyY), xyz, rtol=1e-12)
    assert ztlib.xyz_to_lab(np.array(ztlib.illuminant(0))) == pytest.approx([100, 0, 0], abs=1e-9)
    assert float(ztlib.cct(np.array(ztlib.illuminant(2)))) == pytest.approx(6504, abs=5)
    x, y, _ = ztlib.cct_to_xy(6504)
    assert (x, y) == pytest.approx((0.3127, 0.3291), abs=5e-4)


@pytest.mark.parametrize("method,cname", [
    ("76", "ZTCMS_ColourDiff_DeltaE"), ("94", "ZTCMS_ColourDiff_CIE94"), ("dH", "ZTCMS_ColourDiff_dH"),
    ("cmc1", "ZTCMS_ColourDiff_CMC1"), ("cmc2", "ZTCMS_ColourDiff_CMC2"), ("2000", "ZTCMS_ColourDiff_CIE2000"),
])
def test_colour_differences_equal_the_c_functions(libzt, lab, method, cname):
    fn = getattr(libzt, cname)
    fn.restype = D
    ref, sam = lab[:150], lab[150:]
    ours = ztlib.colour_difference(ref, sam, method)
    assert ours.shape == (150,)
    assert np.array_equal(ours, [fn(c3(a), c3(b)) for a, b in zip(ref, sam)])


def test_adaptation_and_cct_equal_the_c_functions(libzt, xyz):
    libzt.ZTCMS_Chromatic_Adaptation.restype = P
    d50, d65 = ztlib.illuminant(0), ztlib.illuminant(2)
    for name, code in [("bradford", 2), ("cat02", 0), ("vonkries", 1), ("matrix3", 3)]:
        ours = ztlib.adapt(xyz, d65, d50, name)
        ref = c_map(lambda a, o: libzt.ZTCMS_Chromatic_Adaptation(a, c3(d65), c3(d50), code, o), xyz)
        assert np.array_equal(ours, ref), name
    white = ztlib.adapt(np.array(d65), d65, d50)
    assert white == pytest.approx(d50, abs=1e-4)
    k = ctypes.c_double()
    temps = ztlib.cct(xyz[:50], strict=False)
    for v, t in zip(xyz[:50], temps):
        if libzt.ZTCMS_XYZtoCorColourTemp(c3(v), ctypes.byref(k)) == 0:
            assert t == k.value
        else:
            assert np.isnan(t)
    assert np.isnan(temps).sum() not in (0, 50)


@pytest.mark.parametrize("call,exc,match", [
    (lambda: ztlib.cct(np.zeros(3)), ValueError, "ZTCMS_XYZtoCorColourTemp: No colour temperature for black"),
    (lambda: ztlib.colour_difference(np.zeros(3), np.zeros(3), "cie1900"), ValueError, "unknown colour difference"),
    (lambda: ztlib.colour_difference(np.zeros((2, 3)), np.zeros((3, 3))), ValueError, "same shape"),
    (lambda: ztlib.xyz_to_lab(np.zeros((4, 3), np.float32)), TypeError, "float64"),
    (lambda: ztlib.xyz_to_lab(np.zeros((4, 4))), ValueError, "last axis of 3"),
    (lambda: ztlib.xyz_to_lab(np.zeros((4, 6))[:, ::2]), ValueError, "C-contiguous"),
    (lambda: ztlib.xyz_to_lab(np.zeros((0, 3))), ValueError, "empty"),
    (lambda: ztlib.xyz_to_lab(np.zeros((1, 3)), white=(1, 1)), ValueError, "white"),
])
def test_colour_errors(call, exc, match):
    with pytest.raises(exc, match=match):
        call()


# ---- Table interpolation ---------------------------------------------------

def c_interpolate(libzt, table, pixels, scheme):
    inputs = table.ndim - 1
    n, m = table.shape[0], table.shape[-1]
    u32, vp = ctypes.c_uint32, ctypes.c_void_p
    init = bind(libzt, "TableInterpolatorInit_" + ("ushort" if pixels.dtype == np.uint16 else "uchar"), vp,
                u32, u32, u32, ctypes.POINTER(ctypes.c_float), ctypes.c_int32, ctypes.c_int32, ctypes.c_char_p)
    convert = bind(libzt, "TableInterpolatorConvertRect", ctypes.c_int32, vp, vp, u32, vp, u32, u32, u32, u32)
    t = init(inputs, n, m, ptr(table, ctypes.c_float), scheme, 1, None)
    assert t
    flat = np.ascontiguousarray(pixels.reshape(-1, inputs))
    out = np.zeros((flat.shape[0], m), pixels.dtype)
    for i in range(flat.shape[0]):  # pixel by pixel: a different split of the work
        assert convert(t, flat[i].ctypes.data, 8, out[i].ctypes.data, 8 * m, 1, 1, 0) == 0
    bind(libzt, "TableInterpolatorDestroy", None, vp)(t)
    return out.reshape(pixels.shape[:-1] + (m,))


@pytest.mark.parametrize("inputs,outputs,dtype,method,scheme", [
    (3, 3, np.uint16, "trilinear", 0), (3, 4, np.uint16, "prism", 1), (4, 3, np.uint16, "trilinear", 0),
    (4, 5, np.uint16, "prism", 1), (3, 3, np.uint8, "prism", 1), (4, 4, np.uint8, "trilinear", 0),
    (3, 4, np.uint16, "tetrahedral", 2), (4, 4, np.uint16, "tetrahedral", 2), (3, 3, np.uint8, "tetrahedral", 2),
    (3, 4, np.uint16, None, 2),
])
def test_interpolation_equals_the_c_interpolator(libzt, rng, inputs, outputs, dtype, method, scheme):
    n = 9 if inputs == 3 else 5
    table = rng.uniform(0, 65535, (n,) * inputs + (outputs,)).astype(np.float32)
    top = 65536 if dtype == np.uint16 else 256
    pixels = rng.integers(0, top, (7, 13, inputs)).astype(dtype)
    how = (method,) if method else ()  # None: the default method
    ours = ztlib.interpolate(table, pixels, *how)
    assert ours.shape == (7, 13, outputs) and ours.dtype == dtype
    assert np.array_equal(ours, c_interpolate(libzt, table, pixels, scheme))
    assert np.array_equal(ztlib.interpolate(table, pixels, *how, threads=0), ours)


T5 = np.zeros((5, 5, 5, 3), np.float32)
PX = np.zeros((4, 3), np.uint16)


@pytest.mark.parametrize("call,exc,match", [
    (lambda: ztlib.interpolate(T5, PX, "cubic"), ValueError,
     "unknown interpolation method 'cubic'; .*'tetrahedral', 'trilinear'"),
    (lambda: ztlib.interpolate(T5.astype(np.float64), PX), TypeError, "float32"),
    (lambda: ztlib.interpolate(T5, PX.astype(np.int32)), TypeError, "uint8 or uint16"),
    (lambda: ztlib.interpolate(T5, np.zeros((4, 4), np.uint16)), ValueError, "last axis of 3"),
    (lambda: ztlib.interpolate(np.zeros((5, 4, 5, 3), np.float32), PX), ValueError, "same number of grid points"),
    (lambda: ztlib.interpolate(np.zeros((2, 2, 2, 17), np.float32), PX), ValueError, "table_interpolator"),
    (lambda: ztlib.interpolate(np.zeros((5, 5, 3), np.float32), PX), ValueError, "shape"),
])
def test_interpolation_errors(call, exc, match):
    with pytest.raises(exc, match=match):
        call()
