"""VLIMG page files (raster/VLIMG.md): open() gives a File whose pages hand
out their header items as a dict and their pixels, tiles and rows as arrays;
write() stores an array as a page."""

from __future__ import annotations

from typing import Dict, Iterator, Tuple

import numpy as np

from . import _native


class Page:
    """One page of a File: header items, pixels, tiles and rows."""

    def __init__(self, file: "File", index: int) -> None:
        self._file = file
        self.index = index
        self._reader().seek(index)
        self.header: Dict[str, object] = self._reader().header()

    def _reader(self) -> _native.VlimgReader:
        return self._file._open_reader()

    def _select(self) -> _native.VlimgReader:
        r = self._reader()
        if r.page != self.index:
            r.seek(self.index)
        return r

    @property
    def shape(self) -> Tuple[int, ...]:
        h = self.header
        planes = int(h["planes"])
        return (h["height"], h["width"]) + ((planes,) if planes > 1 else ())

    @property
    def tiled(self) -> bool:
        return bool(self.header["tiled"])

    @property
    def num_tiles(self) -> int:
        return self._select().num_tiles

    def read(self) -> np.ndarray:
        """The whole page: (rows, columns[, planes]) uint8/uint16 (raw bytes per row for packed depths)."""
        return self._select().read()

    def tile(self, index: int) -> np.ndarray:
        """Tile `index` (row by row from 0) as an array."""
        return self._select().read_tile(index)

    def tiles(self) -> Iterator[np.ndarray]:
        for i in range(self.num_tiles):
            yield self.tile(i)

    def rows(self, count: int = 1) -> np.ndarray:
        """The next `count` rows of a scanline page; rewind() starts again."""
        return self._select().read_rows(count)

    def rewind(self) -> None:
        self._select().rewind()


class File:
    """A VLIMG file open for reading; a context manager."""

    def __init__(self, path: str) -> None:
        self.path = str(path)
        self._reader = _native.VlimgReader(self.path)
        self._count = None

    def _open_reader(self) -> _native.VlimgReader:
        if self._reader.closed:
            raise ValueError("the file is closed")
        return self._reader

    def __len__(self) -> int:
        if self._count is None:
            self._count = _native.vlimg_count_pages(self.path)
        return self._count

    def __getitem__(self, index: int) -> Page:
        if index < 0:
            index += len(self)
        return Page(self, index)

    @property
    def pages(self) -> list:
        return [self[i] for i in range(len(self))]

    def close(self) -> None:
        self._reader.close()

    def __enter__(self) -> "File":
        return self

    def __exit__(self, *exc) -> None:
        self.close()


def open(path: str) -> File:  # noqa: A001  (the module's reading entry)
    """Opens a VLIMG file for reading: ``len(f)`` pages, ``f[i]`` a Page with
    ``header`` (dict), ``read()``, ``tile(i)``, ``tiles()`` and ``rows(n)``.
    Use it in a ``with`` block or call ``close()``; ValueError carries the
    library's message when the file cannot be read."""
    return File(path)


def write(
    path: str,
    image: np.ndarray,
    tiled: bool = True,
    compression: str = "lz4",
    *,
    tile: Tuple[int, int] = (256, 256),
    append: bool = False,
    description: str = "",
    image_type: int = 0,
) -> None:
    """Writes `image` (uint8/uint16, (rows, columns) grey, (rows, columns, 3) RGB,
    4 CMYK, 6 hexachrome, 7 CMYKOGV) as a page; `append` adds it behind the
    file's last page. compression: none, lzw, deflate, packbits, lzjb, lz4."""
    if not isinstance(image, np.ndarray):
        raise TypeError(f"image must be a numpy array, not {type(image).__name__}")
    _native.vlimg_write(str(path), image, tiled, tuple(tile), compression, append, description, image_type)
