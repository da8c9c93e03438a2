"""The Debian package: what it installs and needs; an installed copy runs without a display and leaves
updating to the package manager."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import pytest

from harness import SERVICE_DOMAIN
from releases import ROOT, UNITY, release_build_dir

VERSION, BUILD = "3.1.0", "5"


@pytest.fixture(scope="module")
def deb(tmp_path_factory) -> Path:
    out = tmp_path_factory.mktemp("deb")
    result = subprocess.run(
        [str(ROOT / "packaging" / "make-deb"), VERSION, BUILD, "--out", str(out), "--build-dir",
         str(release_build_dir()), f"-DONDREL_SERVICE_DOMAIN={SERVICE_DOMAIN}", *UNITY],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, env={**os.environ, "JOBS": "2"})
    assert result.returncode == 0, result.stdout[-4000:]
    path = Path(result.stdout.splitlines()[-1])
    assert path == out / f"ondrel_{VERSION}_amd64.deb"
    return path


def test_package_installs_binary_menu_entry_and_icon_and_depends_on_what_it_links(deb):
    listing = subprocess.run(["dpkg-deb", "--contents", str(deb)], check=True, capture_output=True,
                             text=True).stdout.splitlines()
    files = {line.split()[-1]: line.split()[0] for line in listing if not line.startswith("d")}
    assert files == {"./usr/bin/ondrel": "-rwxr-xr-x",
                     "./usr/share/applications/ondrel.desktop": "-rw-r--r--",
                     "./usr/share/icons/hicolor/scalable/apps/ondrel.svg": "-rw-r--r--"}
    assert all(" root/root " in line for line in listing)
    fields = dict(line.split(": ", 1) for line in subprocess.run(
        ["dpkg-deb", "-f", str(deb), "Package", "Version", "Architecture", "Depends"], check=True,
        capture_output=True, text=True).stdout.splitlines())
    assert (fields["Package"], fields["Version"], fields["Architecture"]) == ("ondrel", VERSION, "amd64")
    names = {alternative.split()[0] for alternative in fields["Depends"].split(", ")}
    assert {"libc6", "libgtk-3-0", "libwebkit2gtk-4.1-0", "libcanberra0", "bubblewrap"} <= names, fields


def test_installed_copy_runs_headless_and_leaves_updates_to_the_package_manager(deb, tmp_path, launch, web):
    subprocess.run(["dpkg", "-x", str(deb), str(tmp_path / "root")], check=True)
    installed = tmp_path / "root/usr/bin/ondrel"
    env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": str(tmp_path)}  # no DISPLAY, no WAYLAND_DISPLAY
    version = subprocess.run([str(installed), "--version"], env=env, capture_output=True, text=True, timeout=20)
    assert (version.returncode, version.stdout, version.stderr) == (0, f"Ondrel {VERSION} (build {BUILD})\n", "")

    app = launch(web.url("events.html"), binary=str(installed),
                 config={"updateUrl": web.url("releases/linux/latest.txt")})
    app.main_window()
    app.wait_for_log("[Update] installed from a package — updates come through the package manager")
    assert not any(m.startswith("[Update] checking") for m in app.messages())
