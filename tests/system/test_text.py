"""Text in other scripts reaches the panel as the font renderer shapes it."""
import os

import dbus
import pytest

from daemon import HEIGHT, WIDTH, source_dir, wait_for
from pngs import read_grey_png

GOLDEN = os.path.join(source_dir(), "dravik_fontrenderer", "tests", "golden")
# The size of the font renderer's reference pictures.
SIZE = 24


def panel_green(daemon):
    """The panel's green channel (6 bits, shifted to 8) as rows of ints."""
    data = daemon.panel_bytes()
    rows = []
    for y in range(HEIGHT):
        row = data[y * WIDTH * 2:(y + 1) * WIDTH * 2]
        rows.append([((row[2 * x] | row[2 * x + 1] << 8) >> 5 & 0x3F) << 2 for x in range(WIDTH)])
    return rows


def lit_box(rows, threshold):
    """Bounding box (x0, y0, x1, y1) of the samples >= threshold, or None."""
    points = [(x, y) for y, row in enumerate(rows) for x, v in enumerate(row) if v >= threshold]
    if not points:
        return None
    xs, ys = [p[0] for p in points], [p[1] for p in points]
    return min(xs), min(ys), max(xs) + 1, max(ys) + 1


@pytest.mark.parametrize("name, text", [
    ("arabic", "مرحبا بالعالم"),
    ("japanese", "ファームウェア更新中"),
])
def test_show_simple_screen_draws_the_shaped_line_centred(daemon, name, text):
    width, height, golden = read_grey_png(os.path.join(GOLDEN, name + ".png"))
    daemon.install_example()
    daemon.start()
    reply = daemon.call("ShowSimpleScreen", {
        "text": dbus.Dictionary({"str": text, "size": dbus.Int32(SIZE), "alignHor": "center",
                                 "alignVert": "middle"}, signature="sv")})
    assert reply["statusCode"] == 0
    assert wait_for(lambda: daemon.lit_pixels() > 100), daemon.log()

    # A 16-bit panel keeps the top 6 bits of the grey level in green: lower
    # levels leave no trace, so the panel's ink is the reference's from 4 up.
    panel = panel_green(daemon)
    box = lit_box(panel, 4)
    golden_box = lit_box([list(row) for row in golden], 4)
    assert box is not None and golden_box is not None
    left, top = box[0] - golden_box[0], box[1] - golden_box[1]
    # Centred by the measured size of the line.
    assert abs(left - (WIDTH - width) // 2) <= 1, (left, width)
    assert abs(top - (HEIGHT - height) // 2) <= 1, (top, height)

    # Sample for sample within the line's rectangle, black everywhere else.
    for y in range(HEIGHT):
        for x in range(WIDTH):
            inside = left <= x < left + width and top <= y < top + height
            expected = golden[y - top][x - left] & 0xFC if inside else 0
            assert panel[y][x] == expected, (x, y, panel[y][x], expected)
