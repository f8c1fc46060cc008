"""Small PNG writer for test pictures, including decompression bombs: rows are
compressed one by one, so a huge picture of repeated rows costs little memory
to make."""
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
