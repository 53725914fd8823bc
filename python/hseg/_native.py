"""libhseg through ctypes: loading it, its records, prototypes and statuses.

A ctypes.CDLL call releases the GIL for its whole duration, so other Python
threads run while the library works, and several threads may call it at once.
"""
import ctypes
import os

try:
    from . import _config  # written by the build and by the install
except ImportError:  # a source checkout: leave the search to the dynamic loader
    _config = None

# ---------------------------------------------------------------------------
# Codes of the C interface
# ---------------------------------------------------------------------------

PIXFMT_BGR24 = 0x201
PIXFMT_YUY2 = 0x501
PIXFMT_I420 = 0x601
PIXFMT_NV21 = 0x802
PIXFMT_GRAY = 0x701
PIXFMT_GRAY16 = 0x702  # 16-bit unsigned samples in native byte order

NETWORK_EXACT = 0
NETWORK_FAST = 1

ERR_BAD_ARGUMENT = 2
ERR_FORMAT = 3
ERR_NO_MEMORY = 4
ERR_TABLE = 5
ERR_FILE = 6
ERR_SINGULAR = 7

_STATUS_TEXT = {
    ERR_BAD_ARGUMENT: "bad argument",
    ERR_FORMAT: "unsupported pixel format",
    ERR_NO_MEMORY: "out of memory",
    ERR_TABLE: "frame geometry the resize cannot handle",
    ERR_FILE: "file cannot be read or written",
    ERR_SINGULAR: "singular matrix",
}

INT32_MAX = 2**31 - 1


class Error(Exception):
    """A libhseg call failed.

    `status` is the library's status code (hseg.ERR_BAD_ARGUMENT,
    hseg.ERR_NO_MEMORY, ...); str(error) says which call failed and why.
    """

    __module__ = "hseg"

    def __init__(self, status, message):
        super().__init__(status, message)
        self.status = status

    def __str__(self):
        return self.args[1]


def check(status, what):
    """Raises Error unless `status` is 0; `what` names the failed step."""
    if status != 0:
        text = _STATUS_TEXT.get(status, "internal failure")
        raise Error(status, f"{what} failed: status {status} ({text})")


# ---------------------------------------------------------------------------
# Records
# ---------------------------------------------------------------------------


class OffscreenImage(ctypes.Structure):
    """Non-owning view of up to four planes, as the library takes images."""

    _fields_ = [
        ("format", ctypes.c_uint32),
        ("width", ctypes.c_int32),
        ("height", ctypes.c_int32),
        ("planes", ctypes.c_void_p * 4),
        ("pitches", ctypes.c_int32 * 4),
    ]


class HsegOptions(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("network", ctypes.c_uint32)]


# ---------------------------------------------------------------------------
# The library
# ---------------------------------------------------------------------------


def _library_path():
    if _config is None:
        return "libhseg.so.0"
    return os.path.join(os.path.dirname(os.path.abspath(__file__)), _config.LIBRARY)


LIBRARY_PATH = _library_path()
VERSION = _config.VERSION if _config is not None else "unknown"

try:
    lib = ctypes.CDLL(LIBRARY_PATH)
except OSError as e:
    raise ImportError(f"hseg: cannot load the library {LIBRARY_PATH}: {e}") from None

_image_p = ctypes.POINTER(OffscreenImage)
_int32 = ctypes.c_int32
_void_p = ctypes.c_void_p


def _declare(name, *argtypes):
    """Gives a library function its argument types; every one returns a
    status."""
    function = getattr(lib, name)
    function.argtypes = list(argtypes)
    function.restype = ctypes.c_uint32


_declare("HsegEx", _void_p, _image_p, _image_p, ctypes.POINTER(HsegOptions))
_declare("zevImageResize_BL", _void_p, _image_p, _void_p, _int32, _int32, _int32, _int32)
_declare("GB_BoxBlur", _void_p, _image_p, _image_p, _int32)
_declare("GB_GaussianBlur", _void_p, _image_p, _image_p, ctypes.c_float)
_declare("HsegBlurBackground", _void_p, _image_p, _image_p, ctypes.c_float, _image_p)
_declare("HsegReplaceBackground", _void_p, _image_p, _image_p, _image_p, _image_p)
