"""numpy arrays and byte buffers as library image descriptors.

Every function here checks its input completely before anything reaches the
library: a wrong dtype or buffer type raises TypeError, a wrong shape, size or
length ValueError.
"""
import ctypes
import math
import numbers
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


def sigma_arg(value):
    """A Gaussian sigma as the library takes it: a real number that is finite
    and above 0 once rounded to single precision."""
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"sigma must be a number, not {type(value).__name__}")
    try:
        sigma = ctypes.c_float(float(value)).value
    except OverflowError:  # an integer beyond any float
        sigma = math.inf
    if not (math.isfinite(sigma) and sigma > 0):
        raise ValueError(f"sigma must be finite and above 0 in single precision, not {value!r}")
    return sigma


def image_view(image, name, formats, expected, in_place=False):
    """Checks an image array and describes it to the library.

    `formats` maps the arrays accepted, as (dtype, channels) with channels 0
    for a 2-D array, to their pixel-format codes; `expected` says the same in
    words for error messages. An H x W x 2 array taken as YUY2 needs an even
    W. Rows are read in place whenever the samples of each row are packed and
    the row step is a pitch the library can take, so a crop or a padded
    buffer costs no copy; other layouts (reversed or stepped channels and
    columns, negative or zero row steps, misaligned samples) are copied into a
    packed array first.

    in_place: the library writes into the array, so it must be a writable
    numpy array of such a layout: a copy would lose the writes, so any other
    raises ValueError instead.

    Returns (descriptor, array); the descriptor points into the array, which
    must stay alive while the library reads it.
    """
    if in_place and not isinstance(image, np.ndarray):
        raise TypeError(f"{name} must be a numpy array to write into, not {type(image).__name__}")
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
    if fmt == PIXFMT_YUY2 and width % 2:
        raise ValueError(f"{name}: a YUY2 image needs an even width (two pixels share a "
                         f"chroma pair), not {width}")
    item = a.dtype.itemsize
    row_bytes = width * max(channels, 1) * item
    if height > INT32_MAX or row_bytes > INT32_MAX:
        raise ValueError(f"{name} is too large for the library (shape {a.shape})")

    packed = a.strides[1] == max(channels, 1) * item and (channels == 0 or a.strides[2] == item)
    pitch = a.strides[0] if height > 1 else row_bytes
    if not (packed and row_bytes <= pitch <= INT32_MAX and a.flags.aligned):
        if in_place:
            raise ValueError(f"{name} cannot be written in place: the samples of each row "
                             "must be packed and aligned, with a positive row step")
        a = np.ascontiguousarray(a)
        pitch = row_bytes
    if in_place and not a.flags.writeable:
        raise ValueError(f"{name} is read-only")
    return descriptor(fmt, width, height, [a.ctypes.data], [pitch]), a


def output_view(out, source, formats):
    """The array a result like `source` (an array image_view accepted) is
    written to: `out` checked for in-place use and for source's dtype and
    shape, or a new array when `out` is None. Returns (descriptor, array)."""
    if out is None:
        out = np.empty(source.shape, source.dtype)
    elif isinstance(out, np.ndarray) and out.dtype != source.dtype:
        raise TypeError(f"out must hold {source.dtype} like the image, not {out.dtype}")
    elif isinstance(out, np.ndarray) and out.shape != source.shape:
        raise ValueError(f"out must have the image's shape {source.shape}, not {out.shape}")
    return image_view(out, "out", formats, "an array like the image", in_place=True)


def yuv_planes(fmt, width, height):
    """(row bytes, rows) of each plane of a frame with packed rows, in
    memory order. 4:2:0 chroma planes of odd sizes round up."""
    cw, ch = (width + 1) // 2, (height + 1) // 2
    if fmt == PIXFMT_YUY2:
        return [(4 * cw, height)]
    if fmt == PIXFMT_I420:
        return [(width, height), (cw, ch), (cw, ch)]
    return [(width, height), (2 * cw, ch)]  # NV21: Y, then V,U pairs


def _frame_bytes(frame, name, in_place):
    """The bytes of a frame as a flat uint8 array, copied only when they are
    not contiguous (never when in_place: then they must be contiguous and
    writable)."""
    if isinstance(frame, np.ndarray):
        if frame.dtype != np.uint8:
            raise TypeError(f"{name} must hold uint8 samples, not {frame.dtype}")
        contiguous, readonly = frame.flags.c_contiguous, not frame.flags.writeable
        data = frame
    else:
        try:
            view = memoryview(frame)
        except TypeError:
            raise TypeError(f"{name} must be a bytes-like object or a uint8 array, not "
                            f"{type(frame).__name__}") from None
        if view.itemsize != 1:
            raise TypeError(f"{name} must hold bytes, not items of {view.itemsize} bytes")
        contiguous, readonly = view.c_contiguous, view.readonly
        data = np.asarray(view)
    if in_place and not contiguous:
        raise ValueError(f"{name} cannot be written in place: its bytes are not contiguous")
    if in_place and readonly:
        raise ValueError(f"{name} is read-only")
    return np.ascontiguousarray(data).reshape(-1).view(np.uint8)


def yuv_view(frame, fmt, width, height, name="frame", in_place=False):
    """Checks a camera frame with packed rows and describes it to the library.

    `fmt` is a pixel-format code (PIXFMT_YUY2, _I420, _NV21) or its name;
    `name` names the frame in error messages; in_place as for image_view.
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
    data = _frame_bytes(frame, name, in_place)
    expected = sum(row * rows for row, rows in planes)
    if data.size != expected:
        raise ValueError(f"a {width}x{height} frame of that format holds {expected} bytes, "
                         f"not {data.size} ({name})")
    addresses, offset = [], data.ctypes.data
    for row, rows in planes:
        addresses.append(offset)
        offset += row * rows
    return descriptor(code, width, height, addresses, [row for row, _ in planes]), data
