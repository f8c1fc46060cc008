"""The Debian package installed in a minimal Debian 12 root.

scripts/package makes the amd64 package from the build tree; mmdebstrap makes a
minbase Debian 12 root with it and its Depends installed by apt, plus systemd
for systemd-analyze; inside that root the daemon and the client answer --help
and systemd-analyze verifies the installed unit.

Environment: DRAVIK_BUILD_DIR (a built host build tree).
"""
import os
import shutil
import subprocess

import pytest

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
UNIT = "/usr/lib/systemd/system/dravik_lcm_gui.service"
CHECKS = {
    "daemon-help": "dravik_lcm_gui --help",
    "client-help": "ipc_call --help",
    "unit": f"systemd-analyze verify {UNIT}",
}


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    if shutil.which("mmdebstrap") is None:
        pytest.skip("mmdebstrap is not installed (scripts/deps installs it)")
    work = tmp_path_factory.mktemp("package")
    made = subprocess.run(
        [os.path.join(SOURCE_DIR, "scripts", "package"), "--build-dir",
         os.environ["DRAVIK_BUILD_DIR"], "--out", str(work)],
        capture_output=True, text=True)
    assert made.returncode == 0, made.stderr
    deb = made.stdout.strip().splitlines()[-1]
    results = work / "results"
    results.mkdir()
    hooks = [
        # apt inside the root reads the package at the path it has outside.
        f'mkdir -p "$1{os.path.dirname(deb)}" && cp "{deb}" "$1{deb}"',
    ]
    customize = ["mkdir -p \"$1/results\""]
    for name, command in CHECKS.items():
        customize.append(f'chroot "$1" sh -c "{command}" >"$1/results/{name}.out" 2>&1; '
                         f'echo $? >"$1/results/{name}.rc"')
    customize.append(f"sync-out /results {results}")
    argv = ["mmdebstrap", "--variant=minbase", f"--include=systemd,{deb}"]
    argv += [f"--setup-hook={h}" for h in hooks]
    argv += [f"--customize-hook={h}" for h in customize]
    argv += ["bookworm", "/dev/null"]
    root = subprocess.run(argv, capture_output=True, text=True, timeout=1200)
    assert root.returncode == 0, root.stdout + root.stderr
    return results


def check(results, name):
    rc = (results / f"{name}.rc").read_text().strip()
    out = (results / f"{name}.out").read_text()
    return rc, out


def test_the_installed_daemon_prints_its_help(installed):
    rc, out = check(installed, "daemon-help")
    assert rc == "0", out
    assert "dravik_lcm_gui" in out and "--help" in out, out


def test_the_installed_client_prints_its_help(installed):
    rc, out = check(installed, "client-help")
    assert rc == "0", out
    assert "ipc_call" in out and "--show-gui" in out, out


def test_systemd_analyze_accepts_the_installed_unit(installed):
    rc, out = check(installed, "unit")
    assert rc == "0", out
    assert out.strip() == "", out
