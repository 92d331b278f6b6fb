"""ZTlib from Python: screening, colour arithmetic, table interpolation,
resampling, block compression, 16-to-8 dithering and VLIMG files over numpy
arrays.

Every function takes and returns numpy arrays; arrays are not copied where
their layout allows (rows may be slices of a larger image as long as each row
is contiguous). A call that touches pixels releases the interpreter lock, so
Python threads screen or resample in parallel.

A failing library call raises ValueError (TypeError for a wrong dtype or rank)
whose message is the one the library logged, "module:function: message".
Objects (Screen, vlimg files) own their C objects: close them, or use them in a
``with`` block, to release them at once.

Install: ``scripts/build.sh PREFIX`` puts the package into
``PREFIX/lib/python3/dist-packages``; add that to ``PYTHONPATH``.
"""

from __future__ import annotations

import atexit
from typing import Optional, Sequence, Tuple, Union

import numpy as np

from . import _native
from ._native import (  # noqa: F401  (re-exported)
    FILTERS,
    Screen,
    adapt,
    cct,
    cct_to_xy,
    colour_difference,
    compress,
    decompress,
    dither16to8,
    g4_compress,
    g4_decompress,
    illuminant,
    interpolate,
    lab_to_lch,
    lab_to_xyz,
    parse_vrfs,
    resample,
    set_root,
    spot_value,
    xy_to_xyz,
    xyz_to_lab,
    xyz_to_luv,
    xyz_to_xy,
)
from . import vlimg  # noqa: F401

atexit.register(_native._shutdown)

#: Screening modes by name (zt/screening.h).
MODES = {
    "halftone": 1,
    "rational": 1,
    "bluenoise": 2,
    "stochastic": 3,
    "vrfs": 5,
    "supercell": 8,
    "pattern": 9,
    "stochastic_b": 10,
    "ordered": 11,
}

#: The six colour differences of colour_difference().
DIFFERENCES = ("76", "94", "dH", "cmc1", "cmc2", "2000")

#: The codecs of compress().
CODECS = ("lz4", "packbits", "lzjb", "lzw", "deflate")


def _mode(mode: Union[int, str]) -> int:
    if isinstance(mode, str):
        try:
            return MODES[mode]
        except KeyError:
            raise ValueError(f"unknown screening mode {mode!r}; modes: {', '.join(MODES)}") from None
    return int(mode)


def screen(
    image: np.ndarray,
    mode: Union[int, str] = "bluenoise",
    levels: int = 2,
    lpi: float = 0.0,
    angle: float = 0.0,
    *,
    as_levels: bool = False,
    spot_shape: int = 0,
    resolution: Tuple[int, int] = (600, 600),
    channel: int = 0,
    output_bits: int = 0,
    cmyk_set: bool = False,
    max_tile_side: int = 0,
    screen_name: str = "",
    ink_limit: float = 0.0,
    out: Optional[np.ndarray] = None,
) -> np.ndarray:
    """Screens a continuous-tone image (uint8 or uint16, shape (rows, columns)).

    mode: a number of zt/screening.h or a name of MODES. levels: output levels
    including paper white (2 gives one bit-plane). lpi and angle: halftone
    modes 1 and 8.

    Returns bit-planes, uint8 (planes, rows, ceil(columns / 8)), most
    significant bit first; with as_levels=True the dot code of every pixel,
    uint8 (rows, columns). `out` may give the bit-plane array to fill.
    """
    if not isinstance(image, np.ndarray):
        raise TypeError(f"image must be a numpy array, not {type(image).__name__}")
    if image.ndim != 2:
        raise TypeError(f"image must have 2 dimensions (rows, columns), not {image.ndim}")
    if image.dtype not in (np.uint8, np.uint16):
        raise TypeError(f"image must be a uint8 or uint16 array, not {image.dtype}")
    with Screen(
        image.shape[1],
        input_bits=image.dtype.itemsize * 8,
        mode=_mode(mode),
        levels=levels,
        output_bits=output_bits,
        lpi=lpi,
        angle=angle,
        spot_shape=spot_shape,
        resolution=tuple(resolution),
        channel=channel,
        cmyk_set=cmyk_set,
        max_tile_side=max_tile_side,
        screen_name=screen_name,
        ink_limit=ink_limit,
    ) as s:
        planes = s.screen(image, 0, out)
    return planes_to_levels(planes, image.shape[1]) if as_levels else planes


def planes_to_levels(planes: np.ndarray, width: int) -> np.ndarray:
    """Dot codes (rows, width) from bit-planes (planes, rows, bytes): bit k from plane k."""
    if planes.ndim != 3 or planes.dtype != np.uint8:
        raise TypeError("planes must be uint8 of shape (planes, rows, bytes)")
    bits = np.unpackbits(planes, axis=2)[:, :, :width]
    out = np.zeros(bits.shape[1:], dtype=np.uint16 if planes.shape[0] > 8 else np.uint8)
    for k in range(planes.shape[0]):
        out |= bits[k].astype(out.dtype) << k
    return out


def delta_e(reference: np.ndarray, sample: np.ndarray, method: str = "76") -> np.ndarray:
    """Colour difference of two Lab arrays (..., 3); see colour_difference."""
    return colour_difference(reference, sample, method)


__all__ = [
    "CODECS", "DIFFERENCES", "FILTERS", "MODES", "Screen", "adapt", "cct", "cct_to_xy", "colour_difference",
    "compress", "decompress", "delta_e", "dither16to8", "g4_compress", "g4_decompress", "illuminant", "interpolate", "lab_to_lch", "lab_to_xyz",
    "parse_vrfs", "planes_to_levels", "resample", "screen", "set_root", "spot_value", "vlimg", "xy_to_xyz",
    "xyz_to_lab", "xyz_to_luv", "xyz_to_xy",
]
