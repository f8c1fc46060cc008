"""Process entry: command line, device properties, configuration search, SIGTERM."""
import json
import os
import random
import signal
import subprocess
import time

import pytest

from daemon import bin_dir, wait_for, emulator

GENERIC = "dravik_lcm_gui.json"
SYSID_NAME = "dravik_lcm_gui_sysid_01a2.json"  # sysid 0x1A2


def daemon_binary():
    return os.path.join(bin_dir(), "dravik_lcm_gui")


def using(path):
    """The log line that names the screens file the daemon reads."""
    return "Using the following config file: `" + path + "`"


def log_once_up(daemon):
    """Starts the daemon and stops it again; its log."""
    daemon.start()
    log = daemon.log()
    daemon.stop()
    return log


def log_of_failed_start_up(daemon, *args):
    """Runs the daemon on the example screens with `args` to its end, which
    must be exit status 255; its log."""
    daemon.install_example()
    assert daemon.run(*args) == 255
    return daemon.log()


def test_help_is_printed_and_exits_0_before_anything_else():
    # No bus, no device, no configuration: help must not need any of them.
    env = {k: v for k, v in os.environ.items() if not k.startswith("DBUS_")}
    result = subprocess.run(emulator() + [daemon_binary(), "-d", "/nonexistent", "--help", "-b", "50"],
                            capture_output=True, text=True, env=env, timeout=20)
    assert result.returncode == 0
    text = result.stdout + result.stderr
    for option, description in [("help", "Outputs this help"), ("device", "Frame buffer device"),
                                ("configFile", "Screens config file"),
                                ("startupScreen", "Start-up screen"), ("brightness", "Brightness")]:
        assert "--" + option in text and description in text, text
    assert "/dev/fb2" in text
    assert "Failed" not in text


def test_short_help_form(daemon):
    assert daemon.run("-h", bus=False) == 0
    assert "Outputs this help" in daemon.stdout() + daemon.log()


def test_unreadable_device_properties_exit_0_without_touching_ipc_or_display(daemon):
    # No camerainfo.json in the sandbox's /etc/dravik, and no bus either.
    assert daemon.run(bus=False) == 0
    log = daemon.log()
    assert "Failed to read camera properties" in log
    assert "Failed to initialize IPC" not in log
    assert "FB: " not in log


def test_device_properties_that_are_not_json_exit_0(daemon):
    daemon.write(os.path.join(daemon.etc_dravik, "camerainfo.json"), "{not json")
    assert daemon.run(bus=False) == 0
    assert "Failed to read camera properties" in daemon.log()


def test_missing_bus_fails_ipc_init_with_255(daemon):
    daemon.set_sysid(0x1A2)
    daemon.bus.stop()
    status = daemon.run()
    assert status == 255
    assert "Failed to initialize IPC" in daemon.log()


def test_debug_log_lists_all_candidates_before_the_first_is_tried(daemon):
    daemon.install_example(directory=daemon.usr_etc_gui, name=SYSID_NAME)
    daemon.start()
    log = daemon.log()
    header = log.index("Will look for config file in the following locations:")
    candidates = ["/usr/etc/gui/" + SYSID_NAME, "/usr/etc/gui/" + GENERIC,
                  "/etc/gui/" + SYSID_NAME, "/etc/gui/" + GENERIC]
    positions = [log.index("\t\t" + c) for c in candidates]
    assert header < positions[0] < positions[1] < positions[2] < positions[3]
    first_try = log.index("Looking file '/usr/etc/gui/" + SYSID_NAME + "'...")
    assert positions[3] < first_try
    assert using("/usr/etc/gui/" + SYSID_NAME) in log
    assert daemon.stop() == 0


def test_system_specific_file_wins_in_the_same_directory(daemon):
    daemon.install_example(directory=daemon.etc_gui, name=GENERIC)
    daemon.install_example(directory=daemon.etc_gui, name=SYSID_NAME)
    assert using("/etc/gui/" + SYSID_NAME) in log_once_up(daemon)


def test_any_file_in_usr_etc_gui_wins_over_etc_gui(daemon):
    daemon.install_example(directory=daemon.etc_gui, name=SYSID_NAME)
    daemon.install_example(directory=daemon.usr_etc_gui, name=GENERIC)
    assert using("/usr/etc/gui/" + GENERIC) in log_once_up(daemon)


def test_an_invalid_candidate_is_skipped_for_the_next(daemon):
    daemon.install_example(directory=daemon.etc_gui, name=GENERIC)
    daemon.write(os.path.join(daemon.usr_etc_gui, SYSID_NAME), "{\"imgPath\": ")
    daemon.write(os.path.join(daemon.usr_etc_gui, GENERIC), json.dumps({"imgPath": "/etc/gui"}))
    log = log_once_up(daemon)
    assert "Could not read configuration from file '/usr/etc/gui/" + SYSID_NAME + "'" in log
    assert "Could not find key 'screens'" in log
    assert using("/etc/gui/" + GENERIC) in log


def test_config_file_option_alone_is_tried(daemon):
    daemon.install_example(directory=daemon.etc_gui, name=GENERIC)
    status = daemon.run("-c", "/etc/gui/missing.json")
    assert status == 255
    log = daemon.log()
    assert "No valid config file found" in log
    assert "\t\t/etc/gui/missing.json" in log
    assert "/usr/etc/gui/" not in log
    assert "Looking file '/etc/gui/" + GENERIC not in log


def test_config_file_option_loads_that_file(daemon):
    path = daemon.install_example(directory=daemon.etc_gui, name="custom.json")
    daemon.start("--configFile", "/etc/gui/custom.json")
    assert using("/etc/gui/custom.json") in daemon.log()
    assert path.endswith("custom.json")
    daemon.stop()


def test_no_valid_config_exits_255(daemon):
    daemon.set_sysid(0x1A2)
    assert daemon.run() == 255
    assert "No valid config file found" in daemon.log()


def test_brightness_not_given_leaves_the_backlight_alone(daemon):
    daemon.install_example()
    daemon.start()
    time.sleep(0.2)
    # init opened (and truncated) the file but wrote nothing: -1 reached the engine.
    assert daemon.brightness_file() == b""
    assert "Using BackLight device at '" + daemon.backlight + "'" in daemon.log()
    daemon.stop()


def test_sigterm_after_start_up_shuts_down_gracefully(daemon):
    daemon.install_example()
    daemon.start()
    assert daemon.stop() == 0
    assert "SIGTERM received" in daemon.stdout()
    assert "Gracefully shut down" in daemon.log()


def test_sigterm_while_animating_shuts_down_gracefully_every_time(daemon):
    # The signal lands at an arbitrary point of drawing a frame, often inside the
    # allocator; the handler's line must not disturb it. Each round is one chance
    # to catch a handler that is unsafe there (a broken one failed about one
    # round in twenty).
    daemon.install_example()
    rounds = random.Random(20261122)
    for screen in ["spinner", "standby", "update"] * 4:
        daemon.start()
        assert daemon.call("ShowGui", {"guiId": screen})["statusCode"] == 0
        time.sleep(rounds.uniform(0.05, 0.4))
        status = daemon.stop()
        assert status == 0, f"{screen}: exit status {status}\n" + daemon.log()[-2000:]
        assert daemon.stdout() == "SIGTERM received\n"


def wait_until_held_in_fifo_open(process, timeout=20):
    """Whether `process` comes to wait in the open of a FIFO that has no writer
    (the kernel's wait_for_partner) before it ends or the time runs out."""
    deadline = time.monotonic() + timeout
    while process.poll() is None and time.monotonic() < deadline:
        try:
            with open(f"/proc/{process.pid}/wchan") as f:
                if f.read() == "wait_for_partner":
                    return True
        except OSError:
            pass
        time.sleep(0.01)
    return False


def test_sigterm_while_start_up_reads_the_backlight_kills_the_daemon(daemon):
    # The engine's set-up opens the backlight's max_brightness before the
    # SIGTERM handler exists; made a FIFO, that file holds the daemon in its open
    # for as long as no writer comes, so the signal has its default effect: the
    # daemon ends by it, without a word of shutting down. (The backlight's files
    # are the kernel's; the files whose names others control, images, screens
    # files and the device properties, are refused when they are not regular
    # files.) The signal is sent while the open waits: once a writer comes, the
    # read that follows fails at once on a FIFO and start-up ends on its own.
    daemon.install_example()
    max_brightness = os.path.join(daemon.backlight, "max_brightness")
    os.remove(max_brightness)
    os.mkfifo(max_brightness)
    daemon.start(wait=False)
    held = wait_until_held_in_fifo_open(daemon.process)
    assert held, "the daemon never waited in the open of its backlight:\n" + daemon.log()
    daemon.process.send_signal(signal.SIGTERM)
    try:
        status = daemon.process.wait(5)
    except subprocess.TimeoutExpired:
        # A daemon that outlived the signal is let go, then fails the test.
        os.close(os.open(max_brightness, os.O_WRONLY | os.O_NONBLOCK))
        status = daemon.process.wait(20)
    assert status == -signal.SIGTERM, daemon.log()
    assert daemon.stdout() == ""
    log = daemon.log()
    assert "Gracefully shut down" not in log
    assert "Failed to initialize lcmGui" not in log


def make_special_file(path, kind):
    """A FIFO, a directory or a device (a link to /dev/zero) at `path`."""
    if kind == "fifo":
        os.mkfifo(path)
    elif kind == "directory":
        os.mkdir(path)
    else:
        os.symlink("/dev/zero", path)


@pytest.mark.parametrize("kind", ["fifo", "directory", "device"])
def test_device_properties_that_are_not_a_regular_file_are_refused_at_once(daemon, kind):
    daemon.install_example()
    properties = os.path.join(daemon.etc_dravik, "camerainfo.json")
    os.remove(properties)
    make_special_file(properties, kind)
    started = time.monotonic()
    # Unreadable device properties end the daemon with status 0, on purpose.
    assert daemon.run(timeout=10) == 0, daemon.log()
    assert time.monotonic() - started < 5
    assert "Failed to read camera properties" in daemon.log()


@pytest.mark.parametrize("kind", ["fifo", "directory", "device"])
def test_a_screens_file_candidate_that_is_not_a_regular_file_is_passed_over(daemon, kind):
    # The device's own screens file is tried first; made a special file, it is
    # refused at once and the general one is used.
    daemon.install_example()
    special = os.path.join(daemon.etc_gui, "dravik_lcm_gui_sysid_01a2.json")
    make_special_file(special, kind)
    daemon.start("-s", "hello")
    assert wait_for(lambda: daemon.lit_pixels() > 50), daemon.log()
    log = daemon.log()
    assert "Could not read configuration from file '/etc/gui/dravik_lcm_gui_sysid_01a2.json'" in log
    assert using("/etc/gui/dravik_lcm_gui.json") in log
    daemon.stop()


def test_startup_screen_and_brightness_are_shown(daemon):
    daemon.install_example()
    daemon.start("-s", "hello", "-b", "50")
    assert wait_for(lambda: daemon.brightness_file() == b"127\0"), daemon.brightness_file()
    assert wait_for(lambda: daemon.lit_pixels() > 50), daemon.log()
    daemon.stop()


def test_startup_screen_that_does_not_exist_fails_start_up(daemon):
    log = log_of_failed_start_up(daemon, "-s", "nosuchscreen")
    assert "Could not find gui id 'nosuchscreen'" in log
    assert "Failed to initialize lcmGui" in log


def test_missing_panel_device_exits_255(daemon):
    log = log_of_failed_start_up(daemon, "-d", "/dev/fb7")
    assert "Unable to open /dev/fb7" in log
    assert "Failed to initialize lcmGui" in log
