"""Screens one gradient with three screens and shows them side by side.

    PYTHONPATH=<prefix>/lib/python3/dist-packages python3 examples/python/screen_gradient.py [out.png]

(or PYTHONPATH=build/python in a build tree). Writes screens.png unless told
otherwise.
"""

import sys

import matplotlib

matplotlib.use("Agg")  # no display needed
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import ztlib  # noqa: E402

# A horizontal ramp from paper white to full ink, 8 bits a sample.
width, height = 480, 160
gradient = np.tile(np.linspace(0, 255, width).astype(np.uint8), (height, 1))

# Three screens of different character: a clustered-dot halftone, the
# blue-noise mask and error diffusion with four levels.
screens = [
    ("halftone 50 lpi, 15\N{DEGREE SIGN}", dict(mode="halftone", lpi=50, angle=15, resolution=(300, 300))),
    ("blue noise", dict(mode="bluenoise")),
    ("error diffusion, 4 levels", dict(mode="stochastic", levels=4)),
]

fig, axes = plt.subplots(len(screens) + 1, 1, figsize=(8, 7), constrained_layout=True)
axes[0].imshow(255 - gradient, cmap="gray", vmin=0, vmax=255, interpolation="nearest")
axes[0].set_title("input (ink coverage)")
for ax, (title, settings) in zip(axes[1:], screens):
    levels = ztlib.screen(gradient, as_levels=True, **settings)
    top = settings.get("levels", 2) - 1
    ax.imshow(top - levels, cmap="gray", vmin=0, vmax=top, interpolation="nearest")
    ax.set_title(f"{title}: mean coverage {levels.mean() / top:.3f}")
for ax in axes:
    ax.set_axis_off()

out = sys.argv[1] if len(sys.argv) > 1 else "screens.png"
fig.savefig(out, dpi=80)
print(f"wrote {out}")
