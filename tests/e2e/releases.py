"""Release archives (packaging/make-release, one build folder kept between runs) signed with a fresh minisign key."""

from __future__ import annotations

import hashlib
import os
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

from harness import SERVICE_DOMAIN

ROOT = Path(__file__).resolve().parents[2]
# The product compiles in unity batches: a release build takes a fraction of the time.
UNITY = ["-DCMAKE_UNITY_BUILD=ON", "-DCMAKE_UNITY_BUILD_BATCH_SIZE=16"]


@dataclass
class Release:
    version: str
    folder: Path  # the AppDir, the zip, its .minisig and latest.txt, as make-release leaves them

    @property
    def zip_name(self) -> str:
        return f"Ondrel-{self.version}-x86_64.zip"

    @property
    def binary(self) -> bytes:
        return (self.folder / "Ondrel.AppDir" / "usr" / "bin" / "ondrel").read_bytes()

    def install(self, apps: Path) -> Path:
        apps.mkdir(parents=True, exist_ok=True)
        subprocess.run(["unzip", "-q", str(self.folder / self.zip_name), "-d", str(apps)], check=True)
        return apps / "Ondrel.AppDir"


def release_build_dir() -> Path:
    configured = os.environ.get("ONDREL_RELEASE_BUILD_DIR")
    if configured:
        return Path(configured)
    tag = hashlib.sha1(str(ROOT).encode()).hexdigest()[:10]
    return Path(tempfile.gettempdir()) / f"ondrel-release-build-{os.getuid()}-{tag}"


def make_releases(out: Path, *versions: str) -> list[Release]:
    """Each version built with the public key of one fresh key pair and signed with its secret key."""
    out.mkdir(parents=True, exist_ok=True)
    subprocess.run(["minisign", "-G", "-W", "-f", "-p", str(out / "minisign.pub"), "-s", str(out / "minisign.key")],
                   check=True, stdout=subprocess.DEVNULL)
    public = (out / "minisign.pub").read_text().splitlines()[1]
    for build, version in enumerate(versions, 1):
        result = subprocess.run(
            [str(ROOT / "packaging" / "make-release"), version, str(build), "--out", str(out / version),
             "--build-dir", str(release_build_dir()), f"-DONDREL_SERVICE_DOMAIN={SERVICE_DOMAIN}",
             f"-DONDREL_UPDATE_PUBLIC_KEY={public}", *UNITY],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            env={**os.environ, "JOBS": "2", "MINISIGN_KEY": str(out / "minisign.key")})
        if result.returncode != 0:
            raise RuntimeError(f"make-release {version} failed:\n{result.stdout[-4000:]}")
    return [Release(version, out / version) for version in versions]

