"""Image formats as a device meets them: PNG and JPEG are decoded by the daemon
itself and never bring in the image library's codecs; a file of another format
(BMP here) loads the module for other formats the first time it is met, and is
shown all the same. The pictures come from the image corpus (make_image_corpus)."""
import os
import shutil
import subprocess

import dbus
import pytest

from daemon import is_daemon_process, program, wait_for

CODECS = "libopencv_imgcodecs"
MODULE = "libdravik_image_other_formats"


@pytest.fixture(scope="module")
def corpus(tmp_path_factory):
    directory = tmp_path_factory.mktemp("corpus")
    made = subprocess.run(program("make_image_corpus") + [str(directory)],
                          capture_output=True, text=True)
    assert made.returncode == 0, made.stderr
    return directory


def mapped_files(pid):
    """The files mapped into the process (under qemu-user: the guest's too)."""
    with open(f"/proc/{pid}/maps") as f:
        return {line.split()[-1] for line in f if "/" in line}


def maps_any(pid, name):
    return any(name in os.path.basename(path) for path in mapped_files(pid))


def show(daemon, name):
    record = dbus.Dictionary({"file": name}, signature="sv")
    reply = daemon.call("ShowSimpleScreen", {"img": record})
    assert reply["statusCode"] == 0, reply


def started_with(daemon, corpus, names):
    daemon.install_example()
    images = os.path.join(daemon.etc_gui, "images")
    for name in names:
        shutil.copy(corpus / name, os.path.join(images, name))
    daemon.start()
    pid = daemon.process.pid
    assert is_daemon_process(pid)
    return pid


def shown(daemon, name):
    """Shows `name` alone after a blank screen, and waits for it. The corpus's
    pictures (37 x 23) have few dark pixels."""
    daemon.call("ShowSimpleScreen", {})
    assert wait_for(lambda: daemon.lit_pixels() == 0), daemon.log()
    show(daemon, name)
    return wait_for(lambda: daemon.lit_pixels() > 400)


def test_png_and_jpeg_screens_never_load_the_image_codecs(daemon, corpus):
    names = ["png_t3_d4_trns_partial_adam7.png", "png_t6_d16.png", "jpeg_420_progressive.jpg",
             "jpeg_grey_arithmetic_progressive.jpg", "jpeg_exif_o6.jpg"]
    pid = started_with(daemon, corpus, names)
    for name in names:
        assert shown(daemon, name), name + ":\n" + daemon.log()
    assert "Failed to read UI image" not in daemon.log()
    assert not maps_any(pid, CODECS), sorted(mapped_files(pid))
    assert not maps_any(pid, MODULE), sorted(mapped_files(pid))


def test_a_png_named_like_a_jpeg_is_read_by_its_content(daemon, corpus):
    pid = started_with(daemon, corpus, [])
    shutil.copy(corpus / "png_t2_d8.png", os.path.join(daemon.etc_gui, "images", "photo.jpg"))
    assert shown(daemon, "photo.jpg"), daemon.log()
    assert not maps_any(pid, MODULE)


def test_a_bmp_loads_the_module_for_other_formats_and_is_shown(daemon, corpus):
    pid = started_with(daemon, corpus, ["jpeg_420_baseline.jpg", "bmp_24.bmp"])
    assert shown(daemon, "jpeg_420_baseline.jpg"), daemon.log()
    assert not maps_any(pid, MODULE)
    assert shown(daemon, "bmp_24.bmp"), daemon.log()
    assert maps_any(pid, MODULE), sorted(mapped_files(pid))
    assert maps_any(pid, CODECS), sorted(mapped_files(pid))
    assert "Failed to load the image codecs" not in daemon.log()
