"""Runs dravik_lcm_gui hermetically and talks to it like a client."""
import json
import os
import select
import signal
import struct
import subprocess
import time

import dbus

BUS_NAME = "dravik.ipc.dravik_lcm_gui"
OBJECT_PATH = "/dravik/ipc/dravik_lcm_gui"
INTERFACE = "dravik.ipc.Endpoint"
WIDTH, HEIGHT = 240, 240


def bin_dir():
    return os.environ.get("DRAVIK_BIN_DIR") or os.path.join(source_dir(), "build", "bin")


def emulator():
    """The user-mode emulator that runs the programs of a cross build, as words
    (DRAVIK_EMULATOR="qemu-aarch64 -L SYSROOT"); empty for native programs."""
    return os.environ.get("DRAVIK_EMULATOR", "").split()


def program(name):
    """The command line that runs one of the project's programs."""
    return emulator() + [os.path.join(bin_dir(), name)]


def is_daemon_process(pid):
    """Whether process `pid` is the daemon (under emulation: its emulator)."""
    exe = os.path.basename(os.readlink(f"/proc/{pid}/exe"))
    return exe in ("dravik_lcm_gui", "dravik_lcm_gui_stallable") or (emulator() and exe == os.path.basename(emulator()[0]))


def source_dir():
    return os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def wait_for(predicate, timeout=10.0, interval=0.02):
    """Polls until predicate() is truthy; returns its last value."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(interval)


def settled(daemon, before=None, timeout=10):
    """The panel once it differs from `before` and has not changed for 0.3 s."""
    deadline = time.monotonic() + timeout
    last, still = daemon.panel_bytes(), 0
    while still < 3:
        assert time.monotonic() < deadline, "the panel did not settle:\n" + daemon.log()
        time.sleep(0.1)
        now = daemon.panel_bytes()
        still = still + 1 if now == last and now != before else 0
        last = now
    return last


def status_kb(pid, field, error=KeyError):
    """A field of /proc/PID/status that is counted in kB (VmRSS, RssAnon, VmHWM,
    ...); raises `error` when the process has no such field."""
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    raise error(f"no {field} for process {pid}")


def bus_config(address, policy=None):
    """The private bus's configuration (tests/support/private-bus.conf.in, on
    which anyone may do anything) listening on `address`. A test about the
    policy itself gives its own rules as `policy` (<policy> elements, and
    <include>s of more), which take the place of the file's <policy> element."""
    with open(os.path.join(source_dir(), "tests", "support", "private-bus.conf.in")) as f:
        config = f.read().replace("@ADDRESS@", address)
    if policy is not None:
        start = config.index("  <policy ")
        end = config.index("</policy>\n", start) + len("</policy>\n")
        config = config[:start] + policy + config[end:]
    return config


class PrivateBus:
    """A dbus-daemon of its own, used as the daemon's system bus, configured by
    bus_config(): `policy` replaces the open policy of the tests' bus."""

    def __init__(self, directory, policy=None):
        os.makedirs(directory, exist_ok=True)
        config = os.path.join(directory, "bus.conf")
        with open(config, "w") as f:
            f.write(bus_config(f"unix:path={directory}/socket", policy))
        read_fd, write_fd = os.pipe()
        self.process = subprocess.Popen(
            ["dbus-daemon", "--config-file", config, "--nofork", "--nopidfile",
             f"--print-address={write_fd}"], pass_fds=(write_fd,))
        os.close(write_fd)
        ready, _, _ = select.select([read_fd], [], [], 10)
        self.address = os.read(read_fd, 4096).decode().strip() if ready else ""
        os.close(read_fd)
        if not self.address:
            self.stop()
            raise RuntimeError("dbus-daemon did not start")
        self._connection = None

    def connection(self):
        if self._connection is None:
            self._connection = dbus.bus.BusConnection(self.address)
        return self._connection

    def has_daemon(self):
        return bool(self.connection().name_has_owner(BUS_NAME))

    def stop(self):
        if self._connection is not None:
            self._connection.close()
            self._connection = None
        if self.process.poll() is None:
            self.process.terminate()
            self.process.wait(5)


class Daemon:
    """One daemon run: its sandbox directories, panel, backlight, log and exit status."""

    def __init__(self, root, bus):
        self.root = str(root)
        self.bus = bus
        self.etc_gui = os.path.join(self.root, "etc-gui")
        self.usr_etc_gui = os.path.join(self.root, "usr-etc-gui")
        self.etc_dravik = os.path.join(self.root, "etc-dravik")
        self.backlight = os.path.join(self.root, "backlight")
        for d in (self.etc_gui, self.usr_etc_gui, self.etc_dravik, self.backlight):
            os.makedirs(d, exist_ok=True)
        self.panel = os.path.join(self.root, "panel.raw")
        self.panel_device = "/dev/fb2"  # the device path the simulated panel answers to
        self.bpp = 16  # the simulated panel's depth
        self.size = (WIDTH, HEIGHT)  # the simulated panel's resolution
        # None: a framebuffer panel. A list: the panel is a DRM device, and the
        # list holds fakefb-run's further options for it (see use_drm).
        self.drm = None
        self.stdout_path = os.path.join(self.root, "stdout.log")
        self.stderr_path = os.path.join(self.root, "stderr.log")
        self.process = None
        # The tests' copy "dravik_lcm_gui_stallable" also stalls its loop on SIGUSR1.
        self.program = "dravik_lcm_gui"
        with open(os.path.join(self.backlight, "max_brightness"), "w") as f:
            f.write("255\n")

    # -- set-up -------------------------------------------------------------
    def set_sysid(self, sysid):
        self.write(os.path.join(self.etc_dravik, "camerainfo.json"), json.dumps({"sysid": sysid}))

    def write(self, path, text):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(text)

    def make_images(self):
        images = os.path.join(self.etc_gui, "images")
        os.makedirs(images, exist_ok=True)
        subprocess.run(program("make_example_images") + [images], check=True,
                       capture_output=True)

    def example_config(self, backlight=True):
        """The example screens file with its images under /etc/gui/images."""
        with open(os.path.join(source_dir(), "examples", "dravik_lcm_gui.json")) as f:
            config = json.load(f)
        config["imgPath"] = "/etc/gui/images"
        if backlight:
            config["backLightPath"] = self.backlight
        else:
            config.pop("backLightPath", None)
        return config

    def install_example(self, name="dravik_lcm_gui.json", directory=None, backlight=True):
        self.set_sysid(0x1A2)
        self.make_images()
        path = os.path.join(directory or self.etc_gui, name)
        self.write(path, json.dumps(self.example_config(backlight)))
        return path

    # -- running ------------------------------------------------------------
    def use_drm(self, *options, bpp=16):
        """The panel becomes a simulated DRM device at /dev/dri/card0, driven by
        the daemon through KMS; `options` go to fakefb-run (--vblank, ...)."""
        self.drm = list(options)
        self.panel_device = "/dev/dri/card0"
        self.bpp = bpp
        return self

    def damage(self):
        """What reached the simulated DRM panel: one list of words per operation
        (setcrtc, flip, dirty with its clips, closefb, rmfb, close)."""
        with open(self.panel + ".damage") as f:
            return [line.split() for line in f if line.strip()]

    def command(self, args):
        panel = ["--device", self.panel_device]
        daemon = [os.path.join(bin_dir(), self.program)]
        if self.drm is not None:
            panel = ["--drm"] + self.drm + panel
            if "-d" not in args:  # a test may name the device itself
                daemon += ["-d", self.panel_device]
        return [os.path.join(source_dir(), "scripts", "sandbox"), "--root", self.root, "--",
                *program("fakefb-run"), *panel,
                "--size", "{}x{}".format(*self.size), "--bpp", str(self.bpp), "--file", self.panel,
                "--",
                *daemon] + list(args)

    def start(self, *args, wait=True, bus=True, env_extra=None):
        env = dict(os.environ)
        env.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
        env.update(env_extra or {})
        if bus:
            env["DBUS_SYSTEM_BUS_ADDRESS"] = self.bus.address
        self.process = subprocess.Popen(self.command(args), env=env,
                                        stdout=open(self.stdout_path, "w"),
                                        stderr=open(self.stderr_path, "w"))
        if wait:
            assert wait_for(lambda: self.process.poll() is not None or self.bus.has_daemon()), \
                "daemon did not appear on the bus:\n" + self.log()
            assert self.process.poll() is None, "daemon exited:\n" + self.log()
            # The name is taken early in start-up; the bus is only served from
            # the main loop, after the SIGTERM handler is installed, so the
            # first answered call marks the end of start-up.
            assert wait_for(self.answers), "daemon does not answer:\n" + self.log()
        return self

    def run(self, *args, bus=True, timeout=20):
        """Runs the daemon to its end; returns the exit status."""
        self.start(*args, wait=False, bus=bus)
        return self.process.wait(timeout)

    def stop(self, timeout=10):
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(timeout)

    def kill(self):
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
            self.process.wait(5)

    def log(self):
        with open(self.stderr_path, errors="replace") as f:
            return f.read()

    def stdout(self):
        with open(self.stdout_path, errors="replace") as f:
            return f.read()

    # -- talking to it --------------------------------------------------------
    def method(self, name):
        obj = self.bus.connection().get_object(BUS_NAME, OBJECT_PATH, introspect=False)
        return obj.get_dbus_method(name, INTERFACE)

    def answers(self):
        try:
            self.bus.connection().call_blocking(BUS_NAME, OBJECT_PATH, "org.freedesktop.DBus.Peer",
                                                "Ping", "", (), timeout=1)
            return True
        except dbus.DBusException:
            return self.process.poll() is not None

    def call(self, name, request, reply=True, timeout=10):
        body = dbus.Dictionary(request, signature="sv")
        if not reply:
            self.method(name)(body, ignore_reply=True)
            return None
        return unwrap(self.method(name)(body, timeout=timeout))

    # -- what it produced -------------------------------------------------------
    def brightness_file(self):
        with open(os.path.join(self.backlight, "brightness"), "rb") as f:
            return f.read()

    def brightness_value(self):
        """The last value written: the text before the first zero byte (each write
        ends with one, and a shorter value leaves the tail of a longer one behind,
        as the file is never truncated)."""
        return self.brightness_file().split(b"\0", 1)[0].decode()

    def pixel(self, x, y):
        """The panel's pixel as 8-bit (r, g, b), decoded from RGB565."""
        with open(self.panel, "rb") as f:
            f.seek((y * WIDTH + x) * 2)
            (v,) = struct.unpack("<H", f.read(2))
        return ((v >> 11) << 3, ((v >> 5) & 0x3F) << 2, (v & 0x1F) << 3)

    def panel_bytes(self):
        with open(self.panel, "rb") as f:
            return f.read()

    def lit_pixels(self, box=None):
        """Number of non-black pixels, in the whole panel or within (x0, y0, x1, y1)."""
        data = self.panel_bytes()
        x0, y0, x1, y1 = box or (0, 0, WIDTH, HEIGHT)
        count = 0
        for y in range(y0, y1):
            row = data[(y * WIDTH + x0) * 2:(y * WIDTH + x1) * 2]
            count += sum(1 for i in range(0, len(row), 2) if row[i] or row[i + 1])
        return count


def unwrap(value):
    """dbus-python values to plain Python values."""
    if isinstance(value, dict):
        return {str(k): unwrap(v) for k, v in value.items()}
    if isinstance(value, (list, tuple)):
        return [unwrap(v) for v in value]
    if isinstance(value, dbus.Boolean):
        return bool(value)
    if isinstance(value, (dbus.String, dbus.ObjectPath, dbus.Signature)):
        return str(value)
    if isinstance(value, (dbus.Byte, dbus.Int16, dbus.UInt16, dbus.Int32, dbus.UInt32,
                          dbus.Int64, dbus.UInt64)):
        return int(value)
    if isinstance(value, dbus.Double):
        return float(value)
    return value
