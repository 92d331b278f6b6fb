"""Shared fixtures: the C library itself through ctypes, as the oracle the
wrappers are compared with (the same libzt the module links, already started
by the module's import)."""

import ctypes
import os

import numpy as np
import pytest

import ztlib  # noqa: F401  (starts the library before ctypes calls into it)


@pytest.fixture(scope="session")
def libzt():
    path = os.environ.get("ZTLIB_LIBZT")
    if not path:
        pytest.skip("ZTLIB_LIBZT names no libzt (run through ctest)")
    return ctypes.CDLL(path)


@pytest.fixture
def rng():
    return np.random.default_rng(20261124)


def ptr(array, ctype=ctypes.c_uint8):
    return array.ctypes.data_as(ctypes.POINTER(ctype))


def bind(lib, name, restype, *argtypes):
    """A C function of `lib` with its signature declared."""
    fn = getattr(lib, name)
    fn.restype, fn.argtypes = restype, list(argtypes)
    return fn
