"""Resampling, compression and 16-to-8 dithering through ztlib, against the C
calls on the same data and through round trips."""

import ctypes
import zlib

import numpy as np
import pytest

import ztlib
from conftest import bind


# ---- Resampling --------------------------------------------------------------

class ScanlineHead(ctypes.Structure):
    _fields_ = [(n, ctypes.c_uint32) for n in (
        "interleave", "bitsPerPixel", "channels", "fill", "width", "lines", "bytesPerLine", "bytesPerPlaneRow",
        "bytesPerPixel", "bytesPerSample", "flags")] + [("data", ctypes.POINTER(ctypes.c_uint8))]


ReadFn = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_void_p, ctypes.POINTER(ScanlineHead), ctypes.c_uint32)


def c_resample(libzt, image, ow, oh, filter_id):
    """One plane of uint8 through resampleInitUsingFilter and its read callback."""
    h, w = image.shape

    def read(user, dst, line):
        if dst:
            ctypes.memmove(dst.contents.data, image[line].ctypes.data, w)
        return 0

    cb = ReadFn(read)
    vp, u32 = ctypes.c_void_p, ctypes.c_uint32
    bind(libzt, "resampleInitUsingFilter", vp, *[u32] * 8, ReadFn, vp, vp, vp, u32)
    libzt.scanlinebufAlloc.restype = ctypes.POINTER(ScanlineHead)
    bind(libzt, "resampleGetNextScanline", ctypes.c_int32, vp, ctypes.POINTER(ScanlineHead))
    bind(libzt, "resampleFree", None, vp)
    ctx = libzt.resampleInitUsingFilter(0, w, h, ow, oh, 1, 8, 8, cb, None, None, None, filter_id)
    assert ctx
    line = libzt.scanlinebufAlloc(1, 8, 1, 0, ow, 1, 0)
    out = np.zeros((oh, ow), np.uint8)
    for y in range(oh):
        assert libzt.resampleGetNextScanline(ctx, line) == 0
        ctypes.memmove(out[y].ctypes.data, line.contents.data, ow)
    libzt.scanlinebufFree(line)
    libzt.resampleFree(ctx)
    return out


@pytest.mark.parametrize("filter_id", range(1, 18))
def test_every_filter_equals_the_c_resampler(libzt, rng, filter_id):
    image = rng.integers(0, 256, (40, 52), dtype=np.uint8)
    ours = ztlib.resample(image, size=(31, 67), filter=filter_id)
    assert np.array_equal(ours, c_resample(libzt, image, 31, 67, filter_id))
    assert np.array_equal(ztlib.resample(image, size=(31, 67), filter=ztlib.FILTERS[filter_id - 1]), ours)


def test_planes_depths_and_scale(rng):
    rgb = rng.integers(0, 256, (30, 40, 3), dtype=np.uint8)
    out = ztlib.resample(rgb, scale=0.5, filter="triangle")
    assert out.shape == (15, 20, 3)
    # Each plane alone gives the same as the plane inside the pixel.
    for c in range(3):
        alone = ztlib.resample(np.ascontiguousarray(rgb[:, :, c]), scale=0.5, filter="triangle")
        assert np.array_equal(out[:, :, c], alone)
    flat16 = np.full((10, 10), 4660, np.uint16)
    for f in ztlib.FILTERS:
        assert np.all(ztlib.resample(flat16, scale=(2.5, 1.5), filter=f) == 4660), f
    up = ztlib.resample(rgb, size=(80, 60), out_bits=16)
    assert up.dtype == np.uint16 and up.shape == (60, 80, 3)
    assert np.array_equal(ztlib.resample(rgb, size=(40, 30), filter="box"), rgb)


IMAGE = np.zeros((40, 40), np.uint8)


@pytest.mark.parametrize("call,exc,match", [
    (lambda: ztlib.resample(IMAGE, size=(1, 1)), ValueError, "Requested scale factor is beyond algorithm's ability"),
    (lambda: ztlib.resample(IMAGE, scale=0.5, filter="sinc"), ValueError, "unknown filter 'sinc'; filters: hermite"),
    (lambda: ztlib.resample(IMAGE, scale=0.5, filter=18), ValueError, "1 to 17"),
    (lambda: ztlib.resample(IMAGE), ValueError, "give size"),
    (lambda: ztlib.resample(IMAGE, size=(2, 2), scale=2), ValueError, "not both"),
    (lambda: ztlib.resample(IMAGE, scale=-1), ValueError, "positive"),
    (lambda: ztlib.resample(IMAGE, scale=2, out_bits=12), ValueError, "out_bits"),
    (lambda: ztlib.resample(IMAGE.astype(np.float64), scale=2), TypeError, ""),
    (lambda: ztlib.resample(np.zeros((40, 40, 3), np.uint8)[:, :, :2], scale=2), ValueError, "contiguous"),
])
def test_resample_errors(call, exc, match):
    with pytest.raises(exc, match=match):
        call()


# ---- Compression -------------------------------------------------------------

def sample_block(rng):
    ramp = np.repeat(np.arange(256, dtype=np.uint8), 40)
    return (ramp.tobytes() + bytes(3000) + rng.integers(0, 4, 5000, dtype=np.uint8).tobytes()) * 3


@pytest.mark.parametrize("codec", ztlib.CODECS)
@pytest.mark.parametrize("delta", [False, True])
def test_each_codec_round_trips(rng, codec, delta):
    data = sample_block(rng)
    packed, flags = ztlib.compress(data, codec, delta=delta)
    assert len(packed) < len(data)
    assert ztlib.decompress(packed, flags, len(data)) == data
    if codec == "deflate" and not delta:
        assert zlib.decompress(packed) == data  # the zlib format, as stated


def test_best_codec_wins_and_buffers_pass(rng):
    data = np.frombuffer(sample_block(rng), np.uint8)
    each = {c: ztlib.compress(data, c)[0] for c in ztlib.CODECS}
    assert len(set(each.values())) == len(each)  # every name reaches a codec of its own
    packed, flags = ztlib.compress(memoryview(data), ztlib.CODECS)
    assert len(packed) == min(len(p) for p in each.values())
    assert ztlib.decompress(bytearray(packed), flags, data.size) == data.tobytes()
    sixteen = np.arange(0, 65536, 7, dtype=np.uint16)
    packed, flags = ztlib.compress(sixteen, "lz4", bits=16, delta=True)
    assert np.array_equal(np.frombuffer(ztlib.decompress(packed, flags, sixteen.nbytes, bits=16), np.uint16), sixteen)


def test_incompressible_block_is_stored_raw(rng):
    noise = rng.integers(0, 256, 4096, dtype=np.uint8).tobytes()
    packed, flags = ztlib.compress(noise, ztlib.CODECS)
    assert packed == noise
    assert ztlib.decompress(packed, flags, len(noise)) == noise


BLOCK = sample_block(np.random.default_rng(7))
LZJB, LZJB_FLAGS = ztlib.compress(BLOCK, "lzjb")


@pytest.mark.parametrize("call,exc,match", [
    (lambda: ztlib.decompress(LZJB[: len(LZJB) // 2], LZJB_FLAGS, len(BLOCK)), ValueError, "compress:|the block holds"),
    (lambda: ztlib.decompress(LZJB, LZJB_FLAGS, len(BLOCK) // 2), ValueError, "compress:"),
    (lambda: ztlib.decompress(LZJB, 0x2 | 0x1, len(BLOCK)), ValueError, "Unknown compression mode"),
    (lambda: ztlib.compress(BLOCK, "zstd"), ValueError, "unknown codec 'zstd'"),
    (lambda: ztlib.compress(BLOCK, []), ValueError, "at least one codec"),
    (lambda: ztlib.compress(np.zeros((8, 8), np.uint8)[:, ::2], "lz4"), TypeError, "C-contiguous buffer"),
    (lambda: ztlib.compress(BLOCK, "lz4", bits=3), ValueError, "compress:"),
    (lambda: ztlib.dither16to8(np.zeros((4, 4), np.uint8)), TypeError, "uint16"),
    (lambda: ztlib.dither16to8(np.zeros((4, 4), np.uint16), "blue"), ValueError, "unknown method"),
    (lambda: ztlib.dither16to8(np.zeros((4, 4, 2), np.uint16), "diffusion"), ValueError, "one channel"),
    (lambda: ztlib.dither16to8(np.zeros((4, 0), np.uint16)), ValueError, "empty"),
])
def test_compression_and_dither_errors(call, exc, match):
    with pytest.raises(exc, match=match):
        call()


def test_group4_round_trip_and_errors(rng):
    pixels = (rng.random((40, 203)) < 0.2) | (np.arange(203) // 17 % 2 == 0)
    packed = np.packbits(pixels, axis=1)
    stream = ztlib.g4_compress(packed, 203)
    assert len(stream) < packed.nbytes
    back = ztlib.g4_decompress(stream, 203, 40)
    assert np.array_equal(np.unpackbits(back, axis=1)[:, :203], pixels)
    # Bits past the width are ignored on the way in and 0 on the way out.
    padded = packed.copy()
    padded[:, -1] |= 0x1F  # 203 = 25 * 8 + 3: five bits past the width
    assert ztlib.g4_compress(padded, 203) == stream
    with pytest.raises(ValueError, match="ccitg4:CCITG4DecompressClose: Group 4 data end after"):
        ztlib.g4_decompress(stream[: len(stream) // 3], 203, 40)
    with pytest.raises(ValueError, match="width"):
        ztlib.g4_compress(packed, 300)


# ---- 16 to 8 bits ------------------------------------------------------------

def test_round_matches_the_conversion_rule_and_the_c_call(libzt):
    ramp = np.arange(65536, dtype=np.uint16).reshape(256, 256)
    rounded = ztlib.dither16to8(ramp, "round")
    v = np.arange(65536, dtype=np.float64)
    assert np.array_equal(rounded.ravel(), np.floor(v * 255 / 65535 + 0.5).astype(np.uint8))


def test_noise_dither_keeps_the_mean(rng):
    level = 200 * 257 + 128  # halfway between two 8-bit values
    image = np.full((64, 512, 3), level, np.uint16)
    out = ztlib.dither16to8(image)
    assert out.shape == image.shape and out.dtype == np.uint8
    assert out.mean() == pytest.approx(level / 257, abs=0.05)
    assert set(np.unique(out)) <= {199, 200, 201, 202} and len(np.unique(out)) > 1
    mid = np.full((64, 512), 100 * 257 + 128, np.uint16)
    assert ztlib.dither16to8(mid).mean() == pytest.approx((100 * 257 + 128) / 257, abs=0.05)
    assert ztlib.dither16to8(mid, "diffusion").mean() == pytest.approx((100 * 257 + 128) / 257, abs=0.05)
