"""Box and Gaussian blur of grey, 16-bit grey, BGR and YUY2 arrays."""
import ctypes
import operator

import numpy as np

from . import _native
from ._images import image_view, output_view, sigma_arg

_FORMATS = {
    (np.dtype(np.uint8), 0): _native.PIXFMT_GRAY,
    (np.dtype(np.uint16), 0): _native.PIXFMT_GRAY16,
    (np.dtype(np.uint8), 3): _native.PIXFMT_BGR24,
    (np.dtype(np.uint8), 2): _native.PIXFMT_YUY2,
}
_EXPECTED = "an H x W uint8 or uint16 array, an H x W x 3 uint8 array or an H x W x 2 uint8 array"

def _run(function, what, image, argument, out):
    src, pixels = image_view(image, "image", _FORMATS, _EXPECTED)
    dst, result = output_view(out, pixels, _FORMATS)
    # The library takes any overlap of src and dst: it blurs from a copy.
    _native.check(function(None, ctypes.byref(src), ctypes.byref(dst), argument), what)
    return result


def box_blur(image, radius, out=None):
    """Box blur: each sample becomes the mean of the (2 radius + 1) squared
    window around it, rounded to nearest from the exact sum; the image is
    taken as continued by its edge pixels. Radius 0 copies.

    image, out: as for blur().
    radius: a non-negative integer.

    Returns the blurred image (out, when given). Raises TypeError for another
    dtype or a radius that is not an integer, ValueError for another shape, an
    odd YUY2 width, a negative radius or an out that cannot be written in
    place, and hseg.Error when the library fails (out of memory). The time
    does not grow with the radius; the GIL is released while the library
    works.
    """
    try:
        r = operator.index(radius)
    except TypeError:
        raise TypeError(f"radius must be an integer, not {type(radius).__name__}") from None
    if not 0 <= r <= _native.INT32_MAX:
        raise ValueError(f"radius must be from 0 to {_native.INT32_MAX}, not {r}")
    return _run(_native.lib.GB_BoxBlur, "box blur", image, r, out)


def blur(image, sigma, out=None):
    """Gaussian blur of standard deviation `sigma` pixels, made of three box
    passes each way whose widths give the Gaussian's variance; the image is
    taken as continued by its edge pixels.

    image: an H x W uint8 or uint16 array (grey; uint16 for depth maps and
           other 16-bit samples), an H x W x 3 uint8 array (BGR, or any three
           channels: each is blurred alike and on its own), or an H x W x 2
           uint8 array holding a YUY2 frame as OpenCV does (Y0 U Y1 V: each
           pixel's Y, then alternately U or V), W even, whose U and V are
           blurred at their half horizontal resolution. Crops and padded rows
           are read in place, other layouts are copied first.
    sigma: a number, finite and above 0 (in single precision); values above
           8192 act as 8192.
    out:   where to write the result: an array of the image's dtype and shape
           whose rows are packed (a crop of a larger array works), the image
           itself included; by default a new array.

    Returns the blurred image (out, when given). Raises TypeError for another
    dtype or a sigma that is not a number, ValueError for another shape, an
    odd YUY2 width, a sigma not above 0 or not finite, or an out that cannot
    be written in place, and hseg.Error when the library fails (out of
    memory). The time does not grow with sigma; the GIL is released while the
    library works.
    """
    return _run(_native.lib.GB_GaussianBlur, "Gaussian blur", image, sigma_arg(sigma), out)


