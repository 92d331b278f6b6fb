"""The package as a whole: ownership of C objects and the messages of failing
calls when several threads fail at once."""

import concurrent.futures
import gc

import numpy as np
import pytest

import ztlib


def rss_kib():
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def test_failing_calls_leave_nothing_behind(tmp_path):
    image = np.zeros((8, 300), np.uint8)
    ok = tmp_path / "ok.vlimg"
    ztlib.vlimg.write(ok, image)

    def churn():
        for _ in range(300):
            with pytest.raises(ValueError):
                ztlib.Screen(4096, mode=4)
            with pytest.raises(ValueError):
                ztlib.resample(image, size=(1, 1))
            with pytest.raises(ValueError):
                ztlib.vlimg.open(tmp_path / "missing")
            with ztlib.Screen(300, mode=11) as s:
                s.screen(image)
            f = ztlib.vlimg.open(ok)
            f[0].read()
            f.close()
        gc.collect()

    churn()
    before = rss_kib()
    churn()
    assert rss_kib() - before < 2048


def test_each_thread_gets_its_own_message():
    ramp = np.zeros((4, 64), np.uint8)

    def fail(i):
        try:
            if i % 2:
                ztlib.screen(ramp, mode=7)
            else:
                ztlib.resample(ramp, size=(1, 1))
        except ValueError as e:
            return i, str(e)
        return i, ""

    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        for i, msg in pool.map(fail, range(200)):
            if i % 2:
                assert "Screening mode 7 is not supported" in msg
            else:
                assert "Requested scale factor is beyond algorithm's ability" in msg
