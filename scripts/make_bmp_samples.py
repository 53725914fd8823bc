#!/usr/bin/env python3
"""Writes the small BMP files in tests/data/bmp/ that the BMP reader's tests
read: 1-, 8-, 24- and 32-bit files saved by Python's imaging library
(Debian's python3-pil), and 4-bit, top-down, 16-bit and bit-field files packed
here by hand, each checked by decoding it with the imaging library. The
pictures follow the formulas below, which tests/ubo_test.cpp repeats.

    python3 scripts/make_bmp_samples.py     (needs python3-pil)
"""
import io
import os
import struct

from PIL import Image

W, H = 7, 5  # odd width: every row is padded
OUT = os.path.join(os.path.dirname(__file__), "..", "tests", "data", "bmp")


def rgba(x, y):
    return ((x * 37 + y * 11) & 255, (x * 5 + y * 53) & 255, (x * x + y * 29) & 255,
            (x * 19 + y * 71) & 255)


def index(x, y, colours):
    return (x * 3 + y * 5) % colours


def palette_entry(i):
    return ((i * 67) & 255, (i * 23 + 40) & 255, (i * 151 + 7) & 255)


def save_pil(name, img):
    img.save(os.path.join(OUT, name), format="BMP")


def pack(name, bpp, rows, header=40, top_down=False, compression=0, masks=(), palette=()):
    """A BMP with the given info-header size; rows are top first, each the
    bytes of one row before padding."""
    stride = (W * bpp + 31) // 32 * 4
    body = b"".join(r.ljust(stride, b"\0") for r in (rows if top_down else rows[::-1]))
    info = struct.pack("<IiiHHIIiiII", header, W, -H if top_down else H, 1, bpp, compression,
                       len(body), 2835, 2835, len(palette), 0)
    extra = b"".join(struct.pack("<I", m) for m in masks)
    if header > 40:  # masks, colour space and the rest of a V4/V5 header
        info += (extra + b"\0" * 16)[:16] + b"\0" * (header - 56)
        extra = b""
    pal = b"".join(struct.pack("<BBBB", b, g, r, 0) for r, g, b in palette)
    offset = 14 + len(info) + len(extra) + len(pal)
    data = b"BM" + struct.pack("<IHHI", offset + len(body), 0, 0, offset) + info + extra + pal + body
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)
    return Image.open(io.BytesIO(data))


def field_pixel(x, y, masks):
    """A 32-bit value carrying rgba(x, y) in the given masks (top bits of each
    channel when a field is narrower than 8 bits)."""
    value = 0
    for channel, m in zip(rgba(x, y), masks):
        if m:
            shift = (m & -m).bit_length() - 1
            bits = bin(m).count("1")
            value |= (channel >> (8 - bits)) << shift
    return value


def check(img, expect, key=lambda p: p):
    """The imaging library's decoding, through key(), matches expect(x, y) on
    every pixel."""
    for y in range(H):
        for x in range(W):
            got, want = key(img.getpixel((x, y))), expect(x, y)
            assert got == want, (x, y, got, want)


def main():
    os.makedirs(OUT, exist_ok=True)
    # By the imaging library's encoder.
    img = Image.new("1", (W, H))
    img.putdata([255 * (index(x, y, 3) == 0) for y in range(H) for x in range(W)])
    save_pil("pal1.bmp", img)
    img = Image.new("L", (W, H))
    img.putdata([rgba(x, y)[0] for y in range(H) for x in range(W)])
    save_pil("grey8.bmp", img)
    img = Image.new("P", (W, H))
    img.putpalette([c for i in range(256) for c in palette_entry(i)])
    img.putdata([index(x, y, 256) for y in range(H) for x in range(W)])
    save_pil("pal8.bmp", img)
    img = Image.new("RGB", (W, H))
    img.putdata([rgba(x, y)[:3] for y in range(H) for x in range(W)])
    save_pil("rgb24.bmp", img)
    img = Image.new("RGBA", (W, H))
    img.putdata([rgba(x, y) for y in range(H) for x in range(W)])
    save_pil("rgba32.bmp", img)

    # Packed here, decoded by the imaging library as a check.
    rows = [bytes((index(x, y, 16) << 4 | index(x + 1, y, 16)) for x in range(0, W, 2))
            for y in range(H)]
    check(pack("pal4.bmp", 4, rows, palette=[palette_entry(i) for i in range(16)]).convert("RGB"),
          lambda x, y: palette_entry(index(x, y, 16)))
    rows = [b"".join(bytes(rgba(x, y)[2::-1]) for x in range(W)) for y in range(H)]
    check(pack("rgb24_topdown.bmp", 24, rows, top_down=True), lambda x, y: rgba(x, y)[:3])

    def fields(name, bpp, masks, **kw):
        size = bpp // 8
        rows = [b"".join(field_pixel(x, y, masks).to_bytes(size, "little") for x in range(W))
                for y in range(H)]
        return pack(name, bpp, rows, masks=masks, **kw)

    # 16-bit: 5-6-5 and 5-5-5 bit fields, and a plain file (5-5-5, no masks in
    # the file). The imaging library widens fields its own way, so only the
    # top bits of its values are compared.
    for name, masks, kw in [
            ("bf565.bmp", (0xF800, 0x07E0, 0x001F), dict(compression=3)),
            ("bf555_v4_topdown.bmp", (0x7C00, 0x03E0, 0x001F),
             dict(compression=3, header=108, top_down=True)),
            ("rgb555.bmp", (0x7C00, 0x03E0, 0x001F), dict())]:
        img = fields(name, 16, masks, **kw) if kw else pack(name, 16, [
            b"".join(field_pixel(x, y, masks).to_bytes(2, "little") for x in range(W))
            for y in range(H)])
        bits = [bin(m).count("1") for m in masks]
        check(img.convert("RGB"), lambda x, y: tuple(c >> (8 - b) for c, b in zip(rgba(x, y), bits)),
              lambda p: tuple(c >> (8 - b) for c, b in zip(p, bits)))
    check(fields("bf32_v5_rgba.bmp", 32, (0xFF, 0xFF00, 0xFF0000, 0xFF000000), compression=3,
                 header=124), rgba)
    check(fields("bf32_noalpha.bmp", 32, (0xFF0000, 0xFF00, 0xFF), compression=3).convert("RGB"),
          lambda x, y: rgba(x, y)[:3])


if __name__ == "__main__":
    main()
