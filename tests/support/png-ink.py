#!/usr/bin/env python3
"""Prints WIDTH HEIGHT INK for an 8-bit RGB or RGBA PNG: INK is the share of its pixels that are
not white, so a test can tell a drawn picture from a blank one."""
import struct
import sys
import zlib


def main(path):
    data = open(path, "rb").read()
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        sys.exit("%s: not a PNG" % path)
    at, idat = 8, b""
    width = height = depth = colour = None
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour = struct.unpack(">IIBB", body[:10])
        elif kind == b"IDAT":
            idat += body
        at += 12 + length
    channels = {2: 3, 6: 4}.get(colour)
    if depth != 8 or channels is None:
        sys.exit("%s: not 8-bit RGB or RGBA" % path)
    raw = zlib.decompress(idat)
    stride = width * channels
    previous = bytearray(stride)
    ink = 0
    for row in range(height):
        start = row * (stride + 1)
        kind, line = raw[start], bytearray(raw[start + 1:start + 1 + stride])
        for i in range(stride):
            left = line[i - channels] if i >= channels else 0
            up = previous[i]
            corner = previous[i - channels] if i >= channels else 0
            if kind == 1:
                line[i] = (line[i] + left) & 0xFF
            elif kind == 2:
                line[i] = (line[i] + up) & 0xFF
            elif kind == 3:
                line[i] = (line[i] + (left + up) // 2) & 0xFF
            elif kind == 4:
                guess = left + up - corner
                nearest = min((abs(guess - left), 0, left), (abs(guess - up), 1, up),
                              (abs(guess - corner), 2, corner))[2]
                line[i] = (line[i] + nearest) & 0xFF
        for i in range(0, stride, channels):
            if line[i] < 250 or line[i + 1] < 250 or line[i + 2] < 250:
                ink += 1
        previous = line
    print(width, height, "%.4f" % (ink / float(width * height)))


if __name__ == "__main__":
    main(sys.argv[1])
