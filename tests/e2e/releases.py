"""Release archives (packaging/make-release, one build folder kept between runs), minisign keys and an
update server."""

from __future__ import annotations

import hashlib
import http.server
import os
import socketserver
import subprocess
import tempfile
import threading
import time
import zipfile
from dataclasses import dataclass
from pathlib import Path

from harness import SERVICE_DOMAIN, descendants

ROOT = Path(__file__).resolve().parents[2]
MAKE_RELEASE = ROOT / "packaging" / "make-release"
# The product compiles in unity batches: a release build takes a fraction of the time.
UNITY = ["-DCMAKE_UNITY_BUILD=ON", "-DCMAKE_UNITY_BUILD_BATCH_SIZE=16"]


@dataclass
class Release:
    version: str
    build: str
    folder: Path

    @property
    def zip_name(self) -> str:
        return f"Ondrel-{self.version}-x86_64.zip"

    @property
    def zip_path(self) -> Path:
        return self.folder / self.zip_name

    @property
    def signature(self) -> Path:
        return self.folder / f"{self.zip_name}.minisig"

    @property
    def manifest(self) -> bytes:
        return (self.folder / "latest.txt").read_bytes()

    @property
    def binary(self) -> bytes:
        return (self.folder / "Ondrel.AppDir" / "usr" / "bin" / "ondrel").read_bytes()

    def install(self, apps: Path) -> Path:
        apps.mkdir(parents=True, exist_ok=True)
        subprocess.run(["unzip", "-q", str(self.zip_path), "-d", str(apps)], check=True)
        return apps / "Ondrel.AppDir"


def release_build_dir() -> Path:
    configured = os.environ.get("ONDREL_RELEASE_BUILD_DIR")
    if configured:
        return Path(configured)
    tag = hashlib.sha1(str(ROOT).encode()).hexdigest()[:10]
    return Path(tempfile.gettempdir()) / f"ondrel-release-build-{os.getuid()}-{tag}"


@dataclass
class SigningKey:
    secret: Path
    public: str  # the key line a build is configured with

    @property
    def key_id(self) -> str:  # as minisign prints it, in the public key's comment
        return (self.secret.parent / "minisign.pub").read_text().splitlines()[0].split()[-1]


def make_key(folder: Path) -> SigningKey:
    folder.mkdir(parents=True, exist_ok=True)
    subprocess.run(["minisign", "-G", "-W", "-f", "-p", str(folder / "minisign.pub"), "-s",
                    str(folder / "minisign.key")], check=True, stdout=subprocess.DEVNULL)
    return SigningKey(folder / "minisign.key", (folder / "minisign.pub").read_text().splitlines()[1])


def sign(path: Path, key: SigningKey, trusted_comment: str) -> Path:
    signature = Path(f"{path}.minisig")
    subprocess.run(["minisign", "-S", "-s", str(key.secret), "-m", str(path), "-x", str(signature),
                    "-t", trusted_comment], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    return signature


def make_release(version: str, build: str, out: Path, key: SigningKey) -> Release:
    result = subprocess.run(
        [str(MAKE_RELEASE), version, build, "--out", str(out), "--build-dir", str(release_build_dir()),
         f"-DONDREL_SERVICE_DOMAIN={SERVICE_DOMAIN}", f"-DONDREL_UPDATE_PUBLIC_KEY={key.public}", *UNITY],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
        env={**os.environ, "JOBS": "2", "MINISIGN_KEY": str(key.secret)})
    if result.returncode != 0:
        raise RuntimeError(f"make-release {version} failed:\n{result.stdout[-4000:]}")
    return Release(version, build, out)


def symlink_info(name: str) -> zipfile.ZipInfo:
    info = zipfile.ZipInfo(name)
    info.create_system = 3
    info.external_attr = (0o120777 << 16)
    return info


def write_zip(path: Path, entries: list[tuple[zipfile.ZipInfo | str, bytes | str]]) -> Path:
    with zipfile.ZipFile(path, "w") as z:
        for name, data in entries:
            z.writestr(name, data)
    return path


def appdir_entries(release: Release) -> list[tuple[zipfile.ZipInfo, bytes]]:
    with zipfile.ZipFile(release.zip_path) as z:
        return [(info, z.read(info)) for info in z.infolist()]


@dataclass
class Served:
    body: bytes
    status: int = 200
    send_length: bool = True
    chunks: int = 1         # the body goes out in this many pieces ...
    pause: float = 0.0      # ... with this pause before each


CONTENT_TYPES = {".html": "text/html; charset=utf-8", ".txt": "text/plain; charset=utf-8", ".zip": "application/zip"}


class UpdateServer:
    def __init__(self):
        self.files: dict[str, Served] = {}
        self.requests: list[tuple[str, dict]] = []
        server = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def log_message(self, *args):
                pass

            def do_GET(self):
                server.requests.append((self.path, dict(self.headers)))
                served = server.files.get(self.path) or Served(
                    b"<!DOCTYPE html><html><body><h1>404 Not Found</h1></body></html>\n", 404)
                self.send_response(served.status)
                suffix = Path(self.path.split("?")[0]).suffix
                ctype = CONTENT_TYPES[".html"] if served.status != 200 else CONTENT_TYPES.get(suffix, "")
                self.send_header("Content-Type", ctype)
                if served.send_length:
                    self.send_header("Content-Length", str(len(served.body)))
                self.send_header("Connection", "close")
                self.end_headers()
                step = max(1, -(-len(served.body) // served.chunks))
                for start in range(0, len(served.body), step):
                    if served.pause:
                        time.sleep(served.pause)
                    self.wfile.write(served.body[start:start + step])
                    self.wfile.flush()
                self.close_connection = True

        class Threaded(socketserver.ThreadingMixIn, http.server.HTTPServer):
            daemon_threads = True

        self.httpd = Threaded(("127.0.0.1", 0), Handler)
        self.base = f"http://127.0.0.1:{self.httpd.server_address[1]}"
        threading.Thread(target=self.httpd.serve_forever, daemon=True).start()

    def url(self, path: str) -> str:
        return self.base + path

    def publish(self, release: Release, folder: str = "/rel", **how) -> str:
        self.files[f"{folder}/latest.txt"] = Served(release.manifest)
        self.offer(release.zip_path, folder, **how)
        return self.url(f"{folder}/latest.txt")

    def offer(self, archive: Path, folder: str = "/rel", **how) -> str:
        path = f"{folder}/{archive.name}"
        self.files[path] = Served(archive.read_bytes(), **how)
        signature = Path(f"{archive}.minisig")
        if signature.exists():
            self.files[f"{path}.minisig"] = Served(signature.read_bytes())
        return self.url(path)

    def stop(self):
        self.httpd.shutdown()
        self.httpd.server_close()


def processes_running(executable: Path) -> list[int]:
    def exe(entry):
        try:
            return os.readlink(f"/proc/{entry}/exe")
        except OSError:
            return None
    return [int(e) for e in os.listdir("/proc") if e.isdigit() and exe(e) == str(executable)]


def kill_tree(pid: int):
    for p in [pid, *descendants(pid)]:
        try:
            os.kill(p, 9)
        except (ProcessLookupError, PermissionError):
            pass
