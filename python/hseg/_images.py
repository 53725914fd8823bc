"""numpy arrays and byte buffers as library image descriptors.

Every function here checks its input completely before anything reaches the
library: a wrong dtype or buffer type raises TypeError, a wrong shape, size or
length ValueError.
"""
import operator

import numpy as np

from ._native import (INT32_MAX, OffscreenImage, PIXFMT_I420, PIXFMT_NV21,
                      PIXFMT_YUY2)

YUV_FORMATS = {"yuy2": PIXFMT_YUY2, "i420": PIXFMT_I420, "nv21": PIXFMT_NV21}


def descriptor(fmt, width, height, planes, pitches):
    """An OffscreenImage of the given planes (addresses) and pitches."""
    d = OffscreenImage()
    d.format, d.width, d.height = fmt, width, height
    for i, (address, pitch) in enumerate(zip(planes, pitches)):
        d.planes[i] = address
        d.pitches[i] = pitch
    return d


def size_arg(value, name):
    """An integer from 1 to INT32_MAX, the sizes the library takes."""
    try:
        v = operator.index(value)
    except TypeError:
        raise TypeError(f"{name} must be an integer, not {type(value).__name__}") from None
    if not 1 <= v <= INT32_MAX:
        raise ValueError(f"{name} must be from 1 to {INT32_MAX}, not {v}")
    return v


def image_view(image, name, formats, expected):
    """Checks an image array and describes it to the library.

    `formats` maps the arrays accepted, as (dtype, channels) with channels 0
    for a 2-D array, to their pixel-format codes; `expected` says the same in
    words for error messages. Rows are read in place whenever the samples of
    each row are packed and the row step is a pitch the library can take, so a
    crop or a padded buffer costs no copy; other layouts (reversed or stepped
    channels and columns, negative or zero row steps, misaligned samples) are
    copied into a packed array first.

    Returns (descriptor, array); the descriptor points into the array, which
    must stay alive while the library reads it.
    """
    a = np.asarray(image)
    if a.dtype not in {dtype for dtype, _ in formats}:
        raise TypeError(f"{name} must be {expected}, not an array of {a.dtype}")
    channels = a.shape[2] if a.ndim == 3 else 0
    fmt = formats.get((a.dtype, channels)) if a.ndim in (2, 3) else None
    if fmt is None:
        raise ValueError(f"{name} must be {expected}, not an array of shape {a.shape}")
    height, width = a.shape[:2]
    if height == 0 or width == 0:
        raise ValueError(f"{name} is empty (shape {a.shape})")
    item = a.dtype.itemsize
    row_bytes = width * max(channels, 1) * item
    if height > INT32_MAX or row_bytes > INT32_MAX:
        raise ValueError(f"{name} is too large for the library (shape {a.shape})")

    packed = a.strides[1] == max(channels, 1) * item and (channels == 0 or a.strides[2] == item)
    pitch = a.strides[0] if height > 1 else row_bytes
    if not (packed and row_bytes <= pitch <= INT32_MAX and a.flags.aligned):
        a = np.ascontiguousarray(a)
        pitch = row_bytes
    return descriptor(fmt, width, height, [a.ctypes.data], [pitch]), a


def yuv_planes(fmt, width, height):
    """(row bytes, rows) of each plane of a frame with packed rows, in
    memory order. 4:2:0 chroma planes of odd sizes round up."""
    cw, ch = (width + 1) // 2, (height + 1) // 2
    if fmt == PIXFMT_YUY2:
        return [(4 * cw, height)]
    if fmt == PIXFMT_I420:
        return [(width, height), (cw, ch), (cw, ch)]
    return [(width, height), (2 * cw, ch)]  # NV21: Y, then V,U pairs


def _frame_bytes(frame):
    """The bytes of a frame as a flat uint8 array, copied only when they are
    not contiguous."""
    if isinstance(frame, np.ndarray):
        if frame.dtype != np.uint8:
            raise TypeError(f"frame must hold uint8 samples, not {frame.dtype}")
        return np.ascontiguousarray(frame).reshape(-1)
    try:
        view = memoryview(frame)
    except TypeError:
        raise TypeError("frame must be a bytes-like object or a uint8 array, not "
                        f"{type(frame).__name__}") from None
    if view.itemsize != 1:
        raise TypeError(f"frame must hold bytes, not items of {view.itemsize} bytes")
    return np.ascontiguousarray(np.asarray(view)).reshape(-1).view(np.uint8)


def yuv_view(frame, fmt, width, height):
    """Checks a camera frame with packed rows and describes it to the library.

    `fmt` is a pixel-format code (PIXFMT_YUY2, _I420, _NV21) or its name.
    Returns (descriptor, array) like image_view.
    """
    code = YUV_FORMATS.get(fmt.lower()) if isinstance(fmt, str) else (
        fmt if fmt in YUV_FORMATS.values() else None)
    if code is None:
        raise ValueError(f"unsupported frame format {fmt!r}: expected hseg.YUY2, hseg.I420 "
                         "or hseg.NV21 (or 'yuy2', 'i420', 'nv21')")
    width, height = size_arg(width, "width"), size_arg(height, "height")
    if code == PIXFMT_YUY2 and width % 2:
        raise ValueError(f"a YUY2 frame needs an even width (two pixels share a chroma "
                         f"pair), not {width}")
    planes = yuv_planes(code, width, height)
    if max(row for row, _ in planes) > INT32_MAX:
        raise ValueError(f"a frame {width} pixels wide is too wide for the library")
    data = _frame_bytes(frame)
    expected = sum(row * rows for row, rows in planes)
    if data.size != expected:
        raise ValueError(f"a {width}x{height} frame of that format holds {expected} bytes, "
                         f"not {data.size}")
    addresses, offset = [], data.ctypes.data
    for row, rows in planes:
        addresses.append(offset)
        offset += row * rows
    return descriptor(code, width, height, addresses, [row for row, _ in planes]), data
