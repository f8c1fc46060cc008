"""Small PNG writer for test pictures, including decompression bombs: rows are
compressed one by one, so a huge picture of repeated rows costs little memory
to make. Also a reader for the 8-bit grey reference pictures of the unit tests."""
import struct
import zlib


def _chunk(kind, data):
    return (struct.pack(">I", len(data)) + kind + data +
            struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF))


def write_png(path, width, height, row_of):
    """Writes an 8-bit RGB PNG; row_of(y) gives the 3 * width bytes of row y."""
    compressor = zlib.compressobj(9)
    parts = []
    for y in range(height):
        row = row_of(y)
        assert len(row) == 3 * width
        parts.append(compressor.compress(b"\0" + row))
    parts.append(compressor.flush())
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + _chunk(b"IHDR", header) +
                _chunk(b"IDAT", b"".join(parts)) + _chunk(b"IEND", b""))


def solid_png(path, width, height, rgb=(255, 255, 255)):
    row = bytes(rgb) * width
    write_png(path, width, height, lambda y: row)


def _paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def read_png(path):
    """Reads an 8-bit grey, RGB or RGBA PNG without interlacing (what OpenCV
    writes); returns (width, height, channels, pixel bytes row after row)."""
    with open(path, "rb") as f:
        data = f.read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n", f"{path} is not a PNG"
    pos, idat, header = 8, [], None
    while pos < len(data):
        (length,) = struct.unpack(">I", data[pos:pos + 4])
        kind = data[pos + 4:pos + 8]
        body = data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            idat.append(body)
        pos += 12 + length
    width, height, depth, colour, _, _, interlace = header
    channels = {0: 1, 2: 3, 6: 4}.get(colour)
    assert depth == 8 and channels and interlace == 0, f"{path}: unsupported PNG {header}"
    raw = zlib.decompress(b"".join(idat))
    stride = width * channels
    out = bytearray(height * stride)
    previous = bytearray(stride)
    for y in range(height):
        start = y * (stride + 1)
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
                line[i] = (line[i] + ((left + up) >> 1)) & 0xFF
            elif kind == 4:
                line[i] = (line[i] + _paeth(left, up, corner)) & 0xFF
        out[y * stride:(y + 1) * stride] = line
        previous = line
    return width, height, channels, bytes(out)


def read_grey_png(path):
    """Reads an 8-bit greyscale PNG; returns (width, height, rows), rows being one
    bytes object per row."""
    width, height, channels, pixels = read_png(path)
    assert channels == 1, f"{path}: not 8-bit grey"
    return width, height, [pixels[y * width:(y + 1) * width] for y in range(height)]
