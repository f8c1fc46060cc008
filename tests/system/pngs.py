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


def _unfilter(kind, line, previous):
    """Undoes one row's filter (one byte per pixel)."""
    for x in range(len(line)):
        a = line[x - 1] if x else 0
        b = previous[x]
        c = previous[x - 1] if x else 0
        predictor = (0, a, b, (a + b) // 2, _paeth(a, b, c))[kind]
        line[x] = (line[x] + predictor) & 0xFF
    return line


def read_grey_png(path):
    """Reads an 8-bit greyscale, non-interlaced PNG; returns (width, height, rows),
    rows being one bytes object per row."""
    with open(path, "rb") as f:
        data = f.read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n", path
    pos, idat, header = 8, b"", None
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        body = data[pos + 8:pos + 8 + length]
        pos += 12 + length
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            idat += body
        elif kind == b"IEND":
            break
    width, height, depth, colour, _, _, interlace = header
    assert (depth, colour, interlace) == (8, 0, 0), f"{path}: not 8-bit grey, non-interlaced"
    raw = zlib.decompress(idat)
    rows, previous = [], bytes(width)
    for y in range(height):
        start = y * (width + 1)
        line = _unfilter(raw[start], bytearray(raw[start + 1:start + 1 + width]), previous)
        rows.append(bytes(line))
        previous = line
    return width, height, rows
