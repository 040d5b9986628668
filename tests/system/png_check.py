#!/usr/bin/env python3
"""Reads a PNG (8-bit RGB or RGBA, not interlaced) and fails when it is blank:
one colour, or almost nothing but its commonest colour.
Usage: png_check.py FILE  -> prints "WIDTHxHEIGHT, N colours, P% ink"."""
import struct
import sys
import zlib


def pixels(path):
    data = open(path, "rb").read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("not a PNG file")
    pos, idat, header = 8, b"", None
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        chunk = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", chunk)
        elif kind == b"IDAT":
            idat += chunk
        pos += 12 + length
    width, height, depth, colour, _, _, interlace = header
    if depth != 8 or colour not in (2, 6) or interlace:
        raise ValueError("unsupported PNG layout")
    bpp = 3 if colour == 2 else 4
    raw = zlib.decompress(idat)
    stride = width * bpp
    rows, previous, i = [], bytearray(stride), 0
    for _ in range(height):
        kind = raw[i]
        line = bytearray(raw[i + 1:i + 1 + stride])
        i += 1 + stride
        for x in range(stride):
            a = line[x - bpp] if x >= bpp else 0
            b = previous[x]
            c = previous[x - bpp] if x >= bpp else 0
            if kind == 1:
                line[x] = (line[x] + a) & 255
            elif kind == 2:
                line[x] = (line[x] + b) & 255
            elif kind == 3:
                line[x] = (line[x] + (a + b) // 2) & 255
            elif kind == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[x] = (line[x] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 255
        rows.append(bytes(line))
        previous = line
    return width, height, bpp, rows


def main():
    width, height, bpp, rows = pixels(sys.argv[1])
    counts = {}
    for row in rows:
        for x in range(0, len(row), bpp):
            key = row[x:x + 3]
            counts[key] = counts.get(key, 0) + 1
    total = width * height
    ink = 100.0 * (total - max(counts.values())) / total
    print("%dx%d, %d colours, %.1f%% ink" % (width, height, len(counts), ink))
    if len(counts) < 2 or ink < 0.5:
        sys.exit(1)


if __name__ == "__main__":
    main()
