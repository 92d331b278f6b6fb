"""Screening through ztlib against the C screening object on the same rows."""

import ctypes
import threading

import numpy as np
import pytest

import ztlib
from conftest import bind, ptr


class Settings(ctypes.Structure):
    _fields_ = [
        ("mode", ctypes.c_uint32), ("levels", ctypes.c_uint32), ("outputBits", ctypes.c_uint32),
        ("linesPerInch", ctypes.c_double), ("angle", ctypes.c_double), ("spotShape", ctypes.c_uint32),
        ("resolutionX", ctypes.c_uint32), ("resolutionY", ctypes.c_uint32), ("flags", ctypes.c_uint32),
        ("levelSource", ctypes.c_uint32), ("dropCount", ctypes.c_uint32), ("drops", ctypes.c_void_p),
        ("yuleNielsen", ctypes.c_double), ("bandType", ctypes.c_int32), ("separationType", ctypes.c_int32),
        ("linearisationPoints", ctypes.c_uint32), ("linearisation", ctypes.c_void_p),
        ("inkLimit", ctypes.c_double), ("channel", ctypes.c_uint32), ("maxTileSide", ctypes.c_uint32),
        ("screenName", ctypes.c_char_p),
    ]


ScanFn = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_void_p, ctypes.c_void_p, ctypes.POINTER(ctypes.c_uint8),
                          ctypes.c_uint32, ctypes.c_uint32)


class ObjectHead(ctypes.Structure):
    _fields_ = [("mode", ctypes.c_uint32), ("inputBits", ctypes.c_uint32), ("screenScanline", ScanFn)]


def c_screen(libzt, image, mode, levels=2, lpi=0.0, angle=0.0):
    """Screens `image` row by row through the C object: planes as ztlib gives them."""
    bind(libzt, "CreateScreeningObject", ctypes.c_void_p, ctypes.POINTER(Settings), ctypes.c_uint32, ctypes.c_uint32)
    bind(libzt, "DestroyScreeningObject", None, ctypes.c_void_p)
    bits = max(1, int(np.ceil(np.log2(levels))))
    s = Settings(mode=mode, levels=levels, outputBits=bits, linesPerInch=lpi, angle=angle)
    h, w = image.shape
    obj = libzt.CreateScreeningObject(ctypes.byref(s), w, image.dtype.itemsize * 8)
    assert obj
    try:
        head = ObjectHead.from_address(obj)
        bpp = (w + 7) // 8
        out = np.zeros((bits, h, bpp), np.uint8)
        line = np.zeros(bits * bpp, np.uint8)
        for y in range(h):
            row = image[y].copy()
            assert head.screenScanline(obj, row.ctypes.data, ptr(line), w, y) == 0
            out[:, y, :] = line.reshape(bits, bpp)
        return out
    finally:
        libzt.DestroyScreeningObject(obj)


RAMP = np.tile(np.linspace(0, 255, 203).astype(np.uint8), (37, 1))


@pytest.mark.parametrize("mode,levels,lpi,angle", [
    (1, 2, 60.0, 15.0), (8, 2, 85.0, 45.0), (2, 2, 0.0, 0.0), (9, 2, 0.0, 0.0), (11, 2, 0.0, 0.0),
    (11, 4, 0.0, 0.0), (2, 3, 0.0, 0.0), (1, 4, 50.0, 30.0),
])
def test_threshold_modes_match_the_c_object(libzt, mode, levels, lpi, angle):
    ours = ztlib.screen(RAMP, mode=mode, levels=levels, lpi=lpi, angle=angle)
    assert np.array_equal(ours, c_screen(libzt, RAMP, mode, levels, lpi, angle))


@pytest.mark.parametrize("mode", [3, 10])
def test_error_diffusion_density_follows_the_input(mode):
    # Error diffusion walks its weights from a random start, so runs differ;
    # the mean density per column must follow the tone all the same.
    tone = np.linspace(0, 255, 64).astype(np.uint8)
    image = np.tile(np.repeat(tone, 8), (256, 1))
    dots = ztlib.screen(image, mode=mode, as_levels=True)
    density = dots.reshape(256, 64, 8).mean(axis=(0, 2))
    assert np.abs(density - tone / 255.0).max() < 0.03
    assert dots[:, :8].sum() == 0


def test_multilevel_codes_and_sixteen_bit_input():
    image16 = np.full((64, 100), 32768, np.uint16)
    codes = ztlib.screen(image16, mode="ordered", levels=4, as_levels=True)
    assert codes.dtype == np.uint8 and set(np.unique(codes)) <= {0, 1, 2, 3}
    assert abs(codes.mean() / 3.0 - 0.5) < 0.05
    assert np.array_equal(ztlib.screen(image16, mode=11, levels=4).shape, (2, 64, 13))


def test_screen_object_rows_continue_and_views_need_no_copy():
    whole = ztlib.screen(RAMP, mode=1, lpi=60, angle=15)
    with ztlib.Screen(RAMP.shape[1], mode=1, lpi=60, angle=15) as s:
        assert s.effective_lpi > 0 and s.cell[0] > 0 and s.matrix.shape == s.cell[::-1]
        parts = [s.screen(RAMP[:10]), s.screen(RAMP[10:11]), s.screen(RAMP[11:])]
        assert s.next_row == RAMP.shape[0]
        single = s.screen(RAMP[5], y=5)
    assert np.array_equal(np.concatenate(parts, axis=1), whole)
    assert np.array_equal(single, whole[:, 5, :])
    out = np.zeros_like(whole)
    assert ztlib.screen(RAMP, mode=1, lpi=60, angle=15, out=out) is out
    assert np.array_equal(out, whole)
    with pytest.raises(ValueError, match="out must be"):
        ztlib.screen(RAMP, mode=1, lpi=60, angle=15, out=np.zeros((1, 3, 3), np.uint8))
    assert s.closed
    with pytest.raises(ValueError, match="closed"):
        s.screen(RAMP)
    # A slice of a wider image: rows further apart than their width.
    wide = np.zeros((37, 400), np.uint8)
    wide[:, 50:253] = RAMP
    assert np.array_equal(ztlib.screen(wide[:, 50:253], mode=1, lpi=60, angle=15), whole)


@pytest.mark.parametrize("call,exc,match", [
    (lambda: ztlib.screen(RAMP, mode=7), ValueError, "Screening mode 7 is not supported, use mode 2 or 3"),
    (lambda: ztlib.screen(RAMP, mode=4), ValueError, "Uknown screening mode requested"),
    (lambda: ztlib.screen(RAMP, mode=1, lpi=0.5), ValueError, "screening:"),
    (lambda: ztlib.screen(RAMP, levels=1), ValueError, "levels"),
    (lambda: ztlib.screen(RAMP, mode="amplitude"), ValueError, "unknown screening mode"),
    (lambda: ztlib.Screen(10).screen(RAMP), ValueError, "wider"),
    (lambda: ztlib.Screen(203, input_bits=16).screen(RAMP), TypeError, "uint16"),
])
def test_bad_settings_raise_with_the_library_message(call, exc, match):
    with pytest.raises(exc, match=match):
        call()


@pytest.mark.parametrize("bad,exc", [
    (np.zeros((4, 4), np.float32), TypeError),
    (np.zeros((4, 4), np.int16), TypeError),
    (np.zeros((2, 4, 4), np.uint8), TypeError),
    (np.zeros((0, 4), np.uint8), ValueError),
    (np.zeros((8, 8), np.uint8)[:, ::2], ValueError),
    (np.zeros((8, 8), np.uint8)[::-1], ValueError),
    (np.zeros((8, 8), ">u2"), TypeError),
    ([[1, 2], [3, 4]], TypeError),
])
def test_bad_arrays_are_refused(bad, exc):
    with pytest.raises(exc):
        ztlib.screen(bad, mode=11)


def test_other_threads_run_while_pixels_flow():
    # Independent of the machine's load: a Python thread that counts makes
    # progress during one long screening call only if the call let go of the
    # interpreter lock (C code holding it cannot be preempted).
    image = np.random.default_rng(2).integers(0, 256, (3072, 3072), dtype=np.uint8)
    count = [0]
    stop = threading.Event()
    started = threading.Event()

    def counter():
        started.set()
        while not stop.is_set():
            count[0] += 1

    t = threading.Thread(target=counter)
    t.start()
    started.wait()
    before = count[0]
    ztlib.screen(image, mode=3)
    during = count[0] - before
    stop.set()
    t.join()
    assert during > 1000, during


def test_vrfs_screen_from_the_installation_root(tmp_path):
    # A 3 x 2 matrix: a pixel prints where its value exceeds the threshold.
    folder = tmp_path / "lib" / "screens" / "vrfs"
    folder.mkdir(parents=True)
    (folder / "tiny").write_text("3 2\n10 80 ff\n00 7f\tc0\n")
    thresholds = ztlib.parse_vrfs((folder / "tiny").read_bytes(), "tiny")
    assert thresholds.tolist() == [[0x10, 0x80, 0xFF], [0x00, 0x7F, 0xC0]]
    ztlib.set_root(str(tmp_path))
    image = np.random.default_rng(5).integers(0, 256, (6, 9), dtype=np.uint8)
    dots = ztlib.screen(image, mode="vrfs", screen_name="tiny", as_levels=True)
    expected = (image > np.tile(thresholds, (3, 3))) & (image != 0)
    assert np.array_equal(dots.astype(bool), expected)
    with pytest.raises(ValueError, match="screening:"):
        ztlib.screen(image, mode="vrfs", screen_name="missing")
    with pytest.raises(ValueError, match="screening:CreateVRFSScreens: Error reading array from  short"):
        ztlib.parse_vrfs(b"2 2\n00 11 22", "short")
