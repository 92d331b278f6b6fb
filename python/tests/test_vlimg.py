"""VLIMG files through ztlib: round trips of arrays, pages, tiles and rows,
header items, and files the C writer made read back through Python."""

import ctypes

import numpy as np
import pytest

import ztlib
from conftest import bind


@pytest.fixture
def image(rng):
    return rng.integers(0, 256, (70, 45, 4), dtype=np.uint8)


@pytest.mark.parametrize("compression", ["none", "lzw", "deflate", "packbits", "lzjb", "lz4"])
@pytest.mark.parametrize("tiled", [True, False])
def test_round_trip_every_compression(tmp_path, image, compression, tiled):
    path = tmp_path / "page.vlimg"
    ztlib.vlimg.write(path, image, tiled=tiled, compression=compression, tile=(16, 32))
    with ztlib.vlimg.open(path) as f:
        assert len(f) == 1
        page = f[0]
        assert page.shape == image.shape and page.tiled == tiled
        assert page.header["bits_per_plane"] == (8, 8, 8, 8)
        assert np.array_equal(page.read(), image)


def test_pages_tiles_rows_and_sixteen_bits(tmp_path, rng):
    path = tmp_path / "book.vlimg"
    grey16 = rng.integers(0, 65536, (33, 50), dtype=np.uint16)
    rgb = rng.integers(0, 256, (20, 30, 3), dtype=np.uint8)
    ztlib.vlimg.write(path, grey16, tiled=True, tile=(16, 16), description="first")
    ztlib.vlimg.write(path, rgb, tiled=False, compression="deflate", append=True)
    with ztlib.vlimg.open(path) as f:
        assert len(f) == 2
        first, second = f.pages
        assert first.header["description"] == "first" and first.header["tile_width"] == 16
        assert first.read().dtype == np.uint16 and np.array_equal(first.read(), grey16)
        # Edge tiles are narrower and shorter; tiles go row by row.
        assert first.num_tiles == 4 * 3
        assert np.array_equal(first.tile(3), grey16[0:16, 48:50])
        assert np.array_equal(first.tile(11), grey16[32:33, 48:50])
        assert np.array_equal(np.concatenate([t for t in first.tiles()][:4], axis=1), grey16[:16])
        second.rewind()
        assert np.array_equal(second.rows(5), rgb[:5])
        assert np.array_equal(second.rows(15), rgb[5:])
        assert np.array_equal(f[-1].read(), rgb)
        # Going back to an earlier page re-reads it.
        assert np.array_equal(first.read(), grey16)


def test_write_from_a_view_without_copy(tmp_path, rng):
    big = rng.integers(0, 256, (100, 120), dtype=np.uint8)
    view = big[10:60, 20:95]
    path = tmp_path / "view.vlimg"
    ztlib.vlimg.write(path, view, tile=(32, 16))
    with ztlib.vlimg.open(path) as f:
        assert np.array_equal(f[0].read(), view)


def test_a_file_written_by_the_c_writer_reads_back(libzt, tmp_path):
    # The C interface writes the page; Python reads header and rows.
    path = str(tmp_path / "c.vlimg").encode()
    vp, u32, i32 = ctypes.c_void_p, ctypes.c_uint32, ctypes.c_int32
    f = bind(libzt, "VLIMG_Open", vp, ctypes.c_char_p, i32)(path, 2)
    set_field = bind(libzt, "VLIMG_SetField", i32, vp, u32, vp)
    for tag, value in [(1, 9), (2, 4), (3, 5), (5, 1)]:
        assert set_field(f, tag, ctypes.byref(u32(value))) == 0
    assert set_field(f, 19, ctypes.byref((u32 * 1)(8))) == 0
    assert set_field(f, 6, ctypes.byref(ctypes.c_float(720.0))) == 0
    rows = np.arange(36, dtype=np.uint8).reshape(4, 9)
    for r in rows:
        assert bind(libzt, "VLIMG_WriteScanline", i32, vp, vp)(f, r.ctypes.data) == 0
    assert bind(libzt, "VLIMG_Close", i32, vp)(f) == 0
    with ztlib.vlimg.open(path.decode()) as v:
        h = v[0].header
        assert (h["width"], h["height"], h["compression"], h["x_resolution"]) == (9, 4, 5, 720.0)
        assert np.array_equal(v[0].read(), rows)


def test_vlimg_errors(tmp_path, image):
    with pytest.raises(ValueError, match="vlimg:VLIMG_Open: Cannot open .*missing.vlimg for read"):
        ztlib.vlimg.open(tmp_path / "missing.vlimg")
    junk = tmp_path / "junk.vlimg"
    junk.write_bytes(b"not a raster file at all" * 10)
    with pytest.raises(ValueError, match="cannot open .*junk.vlimg: not a VLIMG file"):
        ztlib.vlimg.open(junk)
    junk.write_bytes(b"BB" + b"\x00" * 40)
    with pytest.raises(ValueError, match="vlimg:VLIMG_Open: Not a VL IMG file id = 0"):
        ztlib.vlimg.open(junk)
    with pytest.raises(ValueError, match="unknown compression"):
        ztlib.vlimg.write(tmp_path / "a.vlimg", image, compression="jpeg")
    with pytest.raises(ValueError, match="no image type has 2 channels"):
        ztlib.vlimg.write(tmp_path / "a.vlimg", image[:, :, :2].copy())
    with pytest.raises(ValueError, match="contiguous"):
        ztlib.vlimg.write(tmp_path / "a.vlimg", image[:, :, 0])
    with pytest.raises(ValueError, match="Cannot open .* for write"):
        ztlib.vlimg.write(tmp_path / "no" / "dir.vlimg", image)
    with pytest.raises(TypeError):
        ztlib.vlimg.write(tmp_path / "a.vlimg", image.astype(np.float32))
    path = tmp_path / "ok.vlimg"
    ztlib.vlimg.write(path, image, tile=(32, 32))
    f = ztlib.vlimg.open(path)
    page = f[0]
    with pytest.raises(ValueError, match="vlimg:"):
        page.tile(99)
    with pytest.raises(ValueError, match="vlimg:"):
        f[5]
    f.close()
    with pytest.raises(ValueError, match="closed"):
        page.read()
