"""Background effects: the person kept sharp, the background blurred or
replaced, in the frame's own format."""
import ctypes

import numpy as np

from . import _native
from ._images import image_view, output_view, sigma_arg, yuv_view
from ._segment import NET_SIDE, mask_of

_FRAMES = {(np.dtype(np.uint8), 3): _native.PIXFMT_BGR24,
           (np.dtype(np.uint8), 0): _native.PIXFMT_GRAY}
_EXPECTED = "an H x W x 3 uint8 array (BGR) or an H x W uint8 array (grey)"
_MASKS = {(np.dtype(np.uint8), 0): _native.PIXFMT_GRAY}

# The library enlarges the mask bilinearly, from up to this many pixels a side.
_MAX_MASK_SIDE = 65536


def _mask_view(mask, frame):
    """(descriptor, array) of a given mask; (None, None) when the frame is to
    be segmented."""
    if mask is None:
        if frame.format == _native.PIXFMT_GRAY:
            raise ValueError("a grey image cannot be segmented: give its mask")
        return None, None
    d, pixels = image_view(mask, "mask", _MASKS, "an H x W uint8 array (255 person, 0 background)")
    if max(d.width, d.height) > _MAX_MASK_SIDE:
        raise ValueError(f"mask sides must be at most {_MAX_MASK_SIDE}, not "
                         f"{d.width}x{d.height}")
    return d, pixels


def _composite(effect, what, frame, pixels, mask, fast, dst, written, others=()):
    """Runs `effect(mask descriptor)` once the arguments are known good.

    frame, pixels: the frame's descriptor and the array it points into; dst,
    written: the same for the output. Without a mask the frame is segmented
    first, into a mask at the network's own 473 x 473 resolution, which the
    effect enlarges bilinearly: a smoother edge than a mask at the frame's
    size, and the mask the library's one-call entry uses. Every array the
    library reads stays referenced here until it returns.
    """
    m, mask_pixels = _mask_view(mask, frame)
    # The library mixes in place when out is the frame itself, row for row;
    # any other overlap would read samples it has already written.
    if np.may_share_memory(written, pixels) and (
            list(dst.planes) != list(frame.planes) or list(dst.pitches) != list(frame.pitches)):
        raise ValueError("out overlaps the image without being it: pass the image itself "
                         "or separate memory")
    if any(a is not None and np.may_share_memory(written, a) for a in (mask_pixels, *others)):
        raise ValueError("out overlaps the mask or the background")
    if m is None:
        m, mask_pixels = _mask_view(mask_of(frame, (NET_SIDE, NET_SIDE), fast), frame)
    _native.check(effect(ctypes.byref(m)), what)


def _blur_effect(frame, sigma, dst):
    return lambda m: _native.lib.HsegBlurBackground(None, ctypes.byref(frame), m, sigma,
                                                    ctypes.byref(dst))


def _replace_effect(frame, picture, dst):
    return lambda m: _native.lib.HsegReplaceBackground(None, ctypes.byref(frame), m,
                                                       ctypes.byref(picture), ctypes.byref(dst))


def blur_background(image, sigma, mask=None, *, fast=False, out=None):
    """Blurs the background of a picture and keeps the person sharp.

    image: an H x W x 3 uint8 BGR array, as for segment(), or an H x W uint8
           grey array (with a mask: grey pictures cannot be segmented).
    sigma: the background's Gaussian blur in pixels, finite and above 0.
    mask:  the person mask, an h x w uint8 array of any size up to 65536 a
           side (255 person, 0 background, values between blend), as
           segment() gives it; it is enlarged bilinearly to the picture and
           its edge feathered. None (the default) segments the picture first,
           which takes seconds.
    fast:  without a mask, segment with the faster network (see segment()).
    out:   an array of the image's shape to write to, the image itself
           included (rows packed, as for blur()); by default a new array.

    Returns the picture with the background blurred: the picture where the
    mask is 255, its blurred copy where it is 0 (exactly), mixed between.
    Raises TypeError for another dtype or a sigma that is not a number,
    ValueError for another shape, a bad sigma, a mask larger than 65536 a
    side, a grey picture without a mask, or an out that cannot be written in
    place or that overlaps the inputs, and hseg.Error when the library fails.
    The GIL is released while the library works.
    """
    sigma = sigma_arg(sigma)
    frame, pixels = image_view(image, "image", _FRAMES, _EXPECTED)
    dst, written = output_view(out, pixels, _FRAMES)
    _composite(_blur_effect(frame, sigma, dst), "background blur", frame, pixels, mask, fast, dst,
               written)
    return written


def replace_background(image, background, mask=None, *, fast=False, out=None):
    """Shows another picture behind the person.

    image:      as for blur_background().
    background: the new background, an array of the image's dtype and shape
                (resize it first; crops and padded rows are read in place).
    mask, fast, out: as for blur_background().

    Returns the picture where the mask is 255, the background where it is 0
    (exactly), mixed between. Raises as blur_background() does, and
    ValueError for a background of another shape.
    """
    frame, pixels = image_view(image, "image", _FRAMES, _EXPECTED)
    picture, picture_pixels = image_view(background, "background", _FRAMES, _EXPECTED)
    if picture_pixels.shape != pixels.shape:
        raise ValueError(f"background must have the image's shape {pixels.shape}, not "
                         f"{picture_pixels.shape}")
    dst, written = output_view(out, pixels, _FRAMES)
    _composite(_replace_effect(frame, picture, dst), "background replacement", frame, pixels,
               mask, fast, dst, written, (picture_pixels,))
    return written


def _yuv_output(out, frame, data):
    """(descriptor, flat array, object to return) of the output for a frame
    that yuv_view described as (frame, data)."""
    result = np.empty_like(data) if out is None else out
    dst, written = yuv_view(result, frame.format, frame.width, frame.height, "out", in_place=True)
    return dst, written, result


def blur_background_yuv(frame, fmt, width, height, sigma, mask=None, *, fast=False, out=None):
    """Blurs the background of a camera frame, in the frame's own format.

    frame, fmt, width, height: a YUY2, I420 or NV21 frame, as for
           segment_yuv(). Every plane is composited as it lies, with no
           conversion through BGR; U and V are blurred at their own
           resolution (sigma / 2 along a halved axis).
    sigma, mask, fast: as for blur_background().
    out:   a writable bytes-like object (bytearray, a uint8 array, an mmap)
           of the frame's length to write to, with contiguous bytes, the
           frame itself included; by default a new 1-D uint8 array.

    Returns the blurred-background frame (out, when given), laid out as the
    frame. Raises TypeError for a frame that is not bytes or uint8,
    ValueError for an unknown format, a bad size, an odd YUY2 width, a frame
    or out of the wrong length, an out that is read-only, not contiguous or
    overlaps the inputs, or the reasons of blur_background(), and hseg.Error
    when the library fails. The GIL is released while the library works.
    """
    sigma = sigma_arg(sigma)
    src, data = yuv_view(frame, fmt, width, height)
    dst, written, result = _yuv_output(out, src, data)
    _composite(_blur_effect(src, sigma, dst), "background blur", src, data, mask, fast, dst,
               written)
    return result


def replace_background_yuv(frame, fmt, width, height, background, mask=None, *, fast=False,
                           out=None):
    """Shows another picture behind the person in a camera frame.

    frame, fmt, width, height: as for segment_yuv().
    background: the new background, a frame of the same format and size
                (bytes-like or a uint8 array).
    mask, fast, out: as for blur_background_yuv().

    Returns the frame with the background replaced, laid out as the frame.
    Raises as blur_background_yuv() does, also for a background of the wrong
    length.
    """
    src, data = yuv_view(frame, fmt, width, height)
    picture, picture_data = yuv_view(background, src.format, width, height, "background")
    dst, written, result = _yuv_output(out, src, data)
    _composite(_replace_effect(src, picture, dst), "background replacement", src, data, mask,
               fast, dst, written, (picture_data,))
    return result
