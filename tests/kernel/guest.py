"""An arm64 guest under qemu-system-aarch64 that runs the daemon on the kernel's
own display drivers (a framebuffer or a DRM device), and what it needs: the
initramfs, the device tree with a simple-framebuffer node, and the monitor
through which the host reads pixels.
"""
import os
import shutil
import socket
import stat
import subprocess
import time

# 1 GiB of RAM: the initramfs (about 170 MiB, most of it the image codecs'
# dependencies) is unpacked into a tmpfs limited to half the RAM.
MACHINE = ["-M", "virt", "-cpu", "cortex-a53", "-m", "1024", "-nic", "none"]
# Reserved in the guest's RAM (0x40000000 to 0x80000000) for the
# simple-framebuffer; the kernel maps it, the host reads it with pmemsave.
FB_BASE = 0x5F000000
FB_RESERVED = 0x1000000
# The backlight directory the guest's screens file names (a plain directory).
BACKLIGHT = "/run/backlight"

# Library directories of a Debian arm64 system, in the dynamic loader's order.
LIBRARY_DIRS = ["lib/aarch64-linux-gnu", "usr/lib/aarch64-linux-gnu", "lib", "usr/lib"]

INIT = r"""#!/bin/busybox sh
# Runs as PID 1: mounts the kernel's file systems, loads the modules the kernel
# command line names ("dravik.modules=SET", the list /etc/dravik-modules-SET),
# waits for the device the daemon draws on ("dravik.device=PATH", /dev/fb0
# unless named), starts the bus and the daemon on the screens file
# ("dravik.screens=PATH", /etc/gui/screens.json unless named), and shows each
# screen in turn.
# On a framebuffer the guest settles each frame itself and reports
# "DRAVIK-READY name". A DRM device's pixels are not readable from here, so the
# host settles them: the guest reports "DRAVIK-SHOW name" and waits for the
# host's line (the host takes the frame before), asks for the screen, reports
# "DRAVIK-READY name" and waits again. At the end the daemon's log follows,
# each line behind "DRAVIK-LOG ".
/bin/busybox mkdir -p /proc /sys /dev /run /tmp
/bin/busybox mount -t proc proc /proc
/bin/busybox mount -t sysfs sysfs /sys
/bin/busybox mount -t devtmpfs devtmpfs /dev
/bin/busybox --install -s /bin
export PATH=/bin:/usr/bin
fail() { echo "DRAVIK-FAILED $*"; cat /run/daemon.log 2>/dev/null; poweroff -f; }
# option NAME: the value of "NAME=value" on the kernel command line.
option() {
  for word in $(cat /proc/cmdline); do
    case "$word" in "$1"=*) echo "${word#*=}" ;; esac
  done
}
# module_options MODULE: the "MODULE.parameter=value" words of the kernel
# command line, as "parameter=value". The kernel hands them only to built-in
# drivers; for loadable ones modprobe reads /proc/cmdline, which busybox's
# insmod does not.
module_options() {
  for word in $(cat /proc/cmdline); do
    case "$word" in "$1".*=*) echo "${word#"$1".}" ;; esac
  done
}
# settle FRAME: waits until the framebuffer's frame differs from FRAME (a
# checksum) and then stays the same for a second: the screen asked for is
# drawn, and any animation of it has come to rest.
settle() {
  n=0; still=0; last=$1
  while [ $still -lt 4 ]; do
    sleep 0.25
    now=$(md5sum <"$device")
    if [ "$now" = "$last" ] && [ "$now" != "$1" ]; then still=$((still + 1)); else still=0; fi
    last=$now; n=$((n + 1)); [ $n -le 480 ] || fail "the frame did not settle"
  done
}
# no_fbdev: a DRM device is tested on its own; the fbdev emulation that the
# command line turned off must not have made a framebuffer anyway.
no_fbdev() {
  [ ! -e /dev/fb0 ] || fail "/dev/fb0 exists beside $device"
}

modules=$(option dravik.modules)
if [ -n "$modules" ]; then
  for m in $(cat "/etc/dravik-modules-$modules"); do
    insmod "/lib/modules/$m.ko" $(module_options "$m") || fail "insmod $m"
  done
fi
device=$(option dravik.device)
device=${device:-/dev/fb0}
n=0
while [ ! -e "$device" ]; do
  n=$((n + 1)); [ $n -le 300 ] || fail "no $device"; sleep 0.1
done
case "$device" in
  /dev/dri/*)
    no_fbdev
    # Nothing has probed the connectors yet (no console on DRM here):
    # "detect" makes the kernel do so, and lists the preferred mode first.
    card=/sys/class/drm/$(basename "$device")
    for connector in "$card"-*; do
      echo detect >"$connector/status"
      echo "DRAVIK-DRM ${connector#"$card"-} $(cat "$connector/status") $(head -n 1 "$connector/modes")"
    done
    ;;
  *)
    fb=/sys/class/graphics/$(basename "$device")
    echo "DRAVIK-FB $(cat $fb/virtual_size) $(cat $fb/bits_per_pixel) $(cat $fb/stride)"
    ;;
esac

mkdir -p /run/backlight
echo 255 >/run/backlight/max_brightness
dbus-daemon --config-file=/etc/dravik-bus.conf --fork || fail "dbus-daemon"
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/bus
screens=$(option dravik.screens)
screens=${screens:-/etc/gui/screens.json}
dravik_lcm_gui -d "$device" -c "$screens" >/run/daemon.log 2>&1 &
n=0
until ipc_call --list dravik_lcm_gui >/dev/null 2>&1; do
  n=$((n + 1)); [ $n -le 300 ] || fail "the daemon is not on the bus"; sleep 0.2
done
case "$device" in
  /dev/dri/*)
    panel=$(grep -m 1 -o "FB: .*" /run/daemon.log) || fail "the daemon logged no panel geometry"
    echo "DRAVIK-PANEL $panel"
    for screen in $(cat /etc/dravik-screens); do
      echo "DRAVIK-SHOW $screen"
      read -r ack
      ipc_call --show-gui "$screen" >/dev/null || fail "ShowGui $screen"
      no_fbdev
      echo "DRAVIK-READY $screen"
      read -r ack
    done
    ;;
  *)
    for screen in $(cat /etc/dravik-screens); do
      before=$(md5sum <"$device")
      ipc_call --show-gui "$screen" >/dev/null || fail "ShowGui $screen"
      # The first picture loads the image codecs, which takes seconds under TCG.
      settle "$before"
      echo "DRAVIK-READY $screen"
      read -r ack
    done
    ;;
esac
sed 's/^/DRAVIK-LOG /' /run/daemon.log
echo "DRAVIK-DONE"
poweroff -f
"""

def daemon_log(console):
    """The daemon's log, as the guest reports it after its last screen."""
    prefix = "DRAVIK-LOG "
    return "".join(line[len(prefix):] for line in console.splitlines(keepends=True)
                   if line.startswith(prefix))


def _needed(path):
    out = subprocess.run(["readelf", "-d", path], capture_output=True, text=True,
                         check=True).stdout
    return [line.split("[", 1)[1].split("]", 1)[0] for line in out.splitlines()
            if "(NEEDED)" in line]


def _is_elf(path):
    with open(path, "rb") as f:
        return f.read(4) == b"\x7fELF"


def copy_library_closure(sysroot, stage):
    """Copies into `stage` every shared library that the ELF files already in it
    need and that `stage` does not hold, from `sysroot`, at the same place."""
    present = set()
    todo = []
    for directory, _, files in os.walk(stage):
        for name in files:
            path = os.path.join(directory, name)
            present.add(name)
            if not os.path.islink(path) and _is_elf(path):
                todo.append(path)
    while todo:
        for name in _needed(todo.pop()):
            if name in present:
                continue
            present.add(name)
            for directory in LIBRARY_DIRS:
                source = os.path.join(sysroot, directory, name)
                if os.path.exists(source):
                    target = os.path.join(stage, directory, name)
                    os.makedirs(os.path.dirname(target), exist_ok=True)
                    shutil.copyfile(os.path.realpath(source), target)
                    todo.append(target)
                    break
            else:
                raise RuntimeError(f"{name} is not in the sysroot {sysroot}")


def module_order(modules_dir, name):
    """The kernel modules to load for `name`, dependencies first (from each
    module's "depends=" field, as modules.dep is made only by depmod)."""
    paths = {}
    for directory, _, files in os.walk(modules_dir):
        for f in files:
            if f.endswith(".ko"):
                paths[f[:-3].replace("-", "_")] = os.path.join(directory, f)
    order = []

    def visit(module):
        if module in order:
            return
        with open(paths[module], "rb") as f:
            fields = f.read().split(b"\0")
        depends = next((s[8:].decode() for s in fields if s.startswith(b"depends=")), "")
        for dependency in filter(None, depends.split(",")):
            visit(dependency.replace("-", "_"))
        order.append(module)

    visit(name)
    return [(m, paths[m]) for m in order]


def write_file(path, text, mode=0o644):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as f:
        f.write(text)
    os.chmod(path, mode)


def make_cpio(stage, out):
    """Packs `stage` as a newc cpio archive, the initramfs format."""
    names = subprocess.run(["find", ".", "-mindepth", "1"], cwd=stage, capture_output=True,
                           check=True).stdout
    with open(out, "wb") as f:
        subprocess.run(["cpio", "--quiet", "-o", "-H", "newc", "-R", "0:0"], cwd=stage,
                       input=names, stdout=f, check=True)


def simplefb_dtb(work, width, height, stride, fmt):
    """The virt machine's device tree plus a simple-framebuffer in reserved RAM."""
    base = os.path.join(work, "virt.dtb")
    if not os.path.exists(base):
        subprocess.run(["qemu-system-aarch64"] + MACHINE +
                       ["-machine", "dumpdtb=" + base, "-display", "none"],
                       check=True, capture_output=True)
    source = subprocess.run(["dtc", "-q", "-I", "dtb", "-O", "dts", base], capture_output=True,
                            text=True, check=True).stdout
    size = stride * height
    nodes = f"""
	reserved-memory {{
		#address-cells = <2>;
		#size-cells = <2>;
		ranges;
		framebuffer-memory@{FB_BASE:x} {{
			reg = <0x0 {FB_BASE:#x} 0x0 {FB_RESERVED:#x}>;
			no-map;
		}};
	}};
	framebuffer@{FB_BASE:x} {{
		compatible = "simple-framebuffer";
		reg = <0x0 {FB_BASE:#x} 0x0 {size:#x}>;
		width = <{width}>;
		height = <{height}>;
		stride = <{stride}>;
		format = "{fmt}";
		status = "okay";
	}};
}};
"""
    end = source.rstrip().rfind("};")
    dts = source[:end] + nodes
    dtb = os.path.join(work, f"simplefb-{fmt}.dtb")
    subprocess.run(["dtc", "-q", "-I", "dts", "-O", "dtb", "-o", dtb], input=dts, text=True,
                   check=True)
    return dtb


class Guest:
    """One boot of the guest. The console is the serial port on the pipes of the
    qemu process; the human monitor listens on a unix socket."""

    def __init__(self, work, kernel, initrd, extra_args, append):
        self.work = work
        self.monitor_path = os.path.join(work, "monitor.sock")
        self.console = []
        # Console output read but not yet split into lines: one read may hold
        # the line waited for and the lines after it.
        self._pending = b""
        cmdline = "console=ttyAMA0 panic=-1 loglevel=4 " + append
        self.process = subprocess.Popen(
            ["qemu-system-aarch64"] + MACHINE +
            ["-display", "none", "-no-reboot", "-serial", "stdio",
             "-monitor", f"unix:{self.monitor_path},server=on,wait=off",
             "-kernel", kernel, "-initrd", initrd, "-append", cmdline] + extra_args,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd=work)
        self._monitor = None

    def log(self):
        return "".join(self.console)

    def wait_for_line(self, prefix, timeout):
        """Reads the console until a line starts with `prefix`; returns the line.
        Raises with the console so far when the guest stops or time runs out."""
        deadline = time.monotonic() + timeout
        while True:
            while b"\n" in self._pending:
                text, self._pending = self._pending.split(b"\n", 1)
                text = text.decode(errors="replace").rstrip("\r")
                self.console.append(text + "\n")
                if text.startswith("DRAVIK-FAILED"):
                    raise RuntimeError("the guest failed:\n" + self.log())
                if text.startswith(prefix):
                    return text
            if time.monotonic() >= deadline:
                break
            os.set_blocking(self.process.stdout.fileno(), False)
            chunk = self.process.stdout.read(4096)
            if chunk is None:
                if self.process.poll() is not None:
                    break
                time.sleep(0.05)
                continue
            if not chunk:
                break
            self._pending += chunk
        raise RuntimeError(f"no '{prefix}' from the guest in {timeout} s:\n" + self.log())

    def answer(self):
        self.process.stdin.write(b"\n")
        self.process.stdin.flush()

    def monitor(self, command):
        """Runs a human monitor command and returns its output."""
        if self._monitor is None:
            self._monitor = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            self._monitor.connect(self.monitor_path)
            self._read_prompt()
        self._monitor.sendall(command.encode() + b"\n")
        return self._read_prompt()

    def _read_prompt(self):
        data = b""
        self._monitor.settimeout(60)
        while not data.endswith(b"(qemu) "):
            chunk = self._monitor.recv(4096)
            if not chunk:
                raise RuntimeError("the qemu monitor closed")
            data += chunk
        return data.decode(errors="replace")

    def save_memory(self, address, size, name):
        """Guest RAM at `address` into the file `name` in the work directory.
        The monitor reads its size argument as an expression, in which a path's
        leading "/" would divide: name the file relative to qemu's directory."""
        output = self.monitor(f"pmemsave {address:#x} {size} {name}")
        return _read_when_complete(os.path.join(self.work, name), size, output)

    def screendump(self, name):
        output = self.monitor(f"screendump {name}")
        path = os.path.join(self.work, name)
        _read_when_complete(path, 1, output)
        return read_ppm(path)

    def stop(self):
        if self._monitor is not None:
            self._monitor.close()
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(10)


def _read_when_complete(path, size, monitor_output, timeout=10):
    deadline = time.monotonic() + timeout
    while not (os.path.exists(path) and os.stat(path).st_size >= size):
        if time.monotonic() > deadline:
            raise RuntimeError(f"qemu wrote no {path}; its monitor said:\n{monitor_output}")
        time.sleep(0.05)
    with open(path, "rb") as f:
        return f.read()


def read_ppm(path):
    """(width, height, RGB bytes) of a binary PPM as qemu's screendump writes it."""
    with open(path, "rb") as f:
        data = f.read()
    fields = []
    at = 0
    while len(fields) < 4:
        while data[at:at + 1].isspace():
            at += 1
        end = at
        while not data[end:end + 1].isspace():
            end += 1
        fields.append(data[at:end])
        at = end
    if fields[0] != b"P6" or fields[3] != b"255":
        raise RuntimeError(f"{path}: not an 8-bit binary PPM")
    width, height = int(fields[1]), int(fields[2])
    pixels = data[at + 1:at + 1 + 3 * width * height]
    return width, height, pixels


def executable(path):
    os.chmod(path, os.stat(path).st_mode | stat.S_IXUSR | stat.S_IXGRP | stat.S_IXOTH)
