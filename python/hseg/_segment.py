"""Person segmentation of pictures and camera frames."""
import ctypes

import numpy as np

from . import _native
from ._images import descriptor, image_view, size_arg, yuv_view

# The network sees a 473x473 image made by an area resize, which only shrinks.
NET_SIDE = 473

_BGR = {(np.dtype(np.uint8), 3): _native.PIXFMT_BGR24}


def _mask_shape(mask_size, default):
    if mask_size is None:
        return default
    try:
        height, width = mask_size
    except (TypeError, ValueError):
        raise ValueError(f"mask_size must be a (height, width) pair, not {mask_size!r}") from None
    return size_arg(height, "mask height"), size_arg(width, "mask width")


def mask_of(src, mask_size, fast):
    """Segments the image that `src` describes; the caller keeps its pixels
    alive."""
    mask = np.empty(_mask_shape(mask_size, (src.height, src.width)), np.uint8)
    options = _native.HsegOptions(ctypes.sizeof(_native.HsegOptions),
                                  _native.NETWORK_FAST if fast else _native.NETWORK_EXACT)
    if src.width < NET_SIDE or src.height < NET_SIDE:
        # Enlarged first (bilinear, to BGR) so that no side is below 473:
        # otherwise the network would see a black image.
        w, h = max(src.width, NET_SIDE), max(src.height, NET_SIDE)
        bigger = np.empty((h, w, 3), np.uint8)
        _native.check(_native.lib.zevImageResize_BL(None, ctypes.byref(src), bigger.ctypes.data,
                                                    w, h, 3 * w, 1), "enlarging the image")
        src = descriptor(_native.PIXFMT_BGR24, w, h, [bigger.ctypes.data], [3 * w])
    dst = descriptor(_native.PIXFMT_GRAY, mask.shape[1], mask.shape[0], [mask.ctypes.data],
                     [mask.shape[1]])
    _native.check(_native.lib.HsegEx(None, ctypes.byref(src), ctypes.byref(dst),
                                     ctypes.byref(options)), "segmentation")
    return mask


def segment(image, mask_size=None, fast=False):
    """Segments the person in a BGR picture.

    image:     an H x W x 3 uint8 array in blue, green, red order, as OpenCV
               reads pictures (for Pillow's RGB use array[:, :, ::-1]). Any
               row step works: crops and padded rows are read in place, other
               layouts are copied first. Pictures smaller than 473 pixels in
               a dimension are enlarged (bilinear) before segmentation.
    mask_size: (height, width) of the mask; default (H, W).
    fast:      use the faster network, whose scores differ slightly; a
               library built without it raises hseg.Error (ERR_BAD_ARGUMENT).

    Returns the mask, a uint8 array of mask_size: 255 for the person, 0 for
    the background.

    Raises TypeError for a dtype other than uint8, ValueError for another
    shape, an empty picture or a bad mask_size, and hseg.Error when the library
    fails (out of memory, say). The GIL is released while the library works.
    """
    # `pixels` holds what src points into (the image or its packed copy) and
    # stays alive until the library is done with it.
    src, pixels = image_view(image, "image", _BGR, "an H x W x 3 uint8 array (BGR)")
    return mask_of(src, mask_size, fast)


def segment_yuv(frame, fmt, width, height, mask_size=None, fast=False):
    """Segments the person in a camera frame in a YUV format.

    frame:     the frame's bytes with packed rows: a bytes-like object
               (bytes, bytearray, memoryview, mmap) or a uint8 array of any
               shape holding exactly one frame. Laid out as:
                 hseg.YUY2  Y0 U Y1 V, 2 bytes a pixel; width must be even;
                 hseg.I420  the Y plane, then U, then V, each chroma plane
                            ceil(width/2) x ceil(height/2);
                 hseg.NV21  the Y plane, then ceil(height/2) rows of
                            ceil(width/2) interleaved V,U pairs.
    fmt:       hseg.YUY2, hseg.I420 or hseg.NV21, or "yuy2", "i420", "nv21".
    width, height: the frame's size in pixels.
    mask_size, fast: as for segment(); the mask defaults to height x width.

    Returns the mask as segment() does. Raises TypeError for a frame that is
    not bytes or uint8, ValueError for an unknown format, a bad size, an odd
    YUY2 width or a frame whose length is not that of the format and size, and
    hseg.Error when the library fails. The GIL is released while the library
    works.
    """
    src, data = yuv_view(frame, fmt, width, height)  # data: as `pixels` in segment()
    return mask_of(src, mask_size, fast)
