"""The "exec" action through the real bridge, as the tests' user and as nobody, and the sandbox holding.

Each escape attempt is paired with a control, the same operation on something the command may change,
so that an attempt cannot pass merely because a tool is missing."""

from __future__ import annotations

import json
import os
import shutil
import stat
import subprocess
import tempfile
import uuid
from pathlib import Path

import pytest

from bridge_client import BridgeClient
from harness import BINARY, App, rss_kib

IS_ROOT = os.geteuid() == 0
NOBODY = 65534
pytestmark = pytest.mark.skipif(not os.access("/usr/bin/bwrap", os.X_OK), reason="bubblewrap is not installed")

# t LABEL CMD...: prints "LABEL: failed" or "LABEL: succeeded".
PROBE = r'''
t() { label=$1; shift; if ( "$@" ) >/dev/null 2>&1; then echo "$label: succeeded"; else echo "$label: failed"; fi; }
PY=/usr/bin/python3
'''


class ExecClient:
    def __init__(self, screen, web, home: Path, user: bool, env: dict | None, binary: str):
        self.home, self.bridge = home, BridgeClient(web)
        argv = as_app_user(user, [binary, self.bridge.url])
        self.app = App(screen, home, args=argv[1:], env=env, binary=argv[0])
        if user:  # the home, with what App made in it, as if the app's user had made it
            for path in [home, *home.rglob("*")]:
                os.lchown(path, NOBODY, NOBODY)
        self.app.start()
        self.bridge.attach(self.app).wait_ready(timeout=30)

    def run(self, command: str, directory: str = "~"):
        reply = self.bridge.wait_reply(self.bridge.request("exec", directory, command), 60)
        assert reply.ok, f"exec failed: {reply.value!r}"
        return reply.value


def user_home_base() -> Path:  # pytest's own folder is private to root
    base = Path(tempfile.mkdtemp(prefix="ondrel-e2e-"))
    os.chmod(base, 0o755)
    return base


def as_app_user(user, argv):
    return ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "--", *argv] if user else argv


@pytest.fixture(params=["self", "nobody"])
def start(screen, web, tmp_path, request):
    user = request.param == "nobody"
    if user and not IS_ROOT:
        pytest.skip("running as another user needs root")
    clients, base = [], user_home_base() if user else tmp_path

    def _start(env=None, prepare=None, binary=None) -> ExecClient:
        home = base / f"home{len(clients)}"
        home.mkdir()
        if prepare:
            prepare(home)
        clients.append(ExecClient(screen, web, home, user, env, str(home / binary) if binary else BINARY))
        return clients[-1]

    _start.user, _start.base = user, base
    yield _start
    for client in clients:
        if getattr(getattr(request.node, "rep_call", None), "failed", False):
            print(f"[e2e] {request.node.name} log:\n{client.app.log_text()}")
        client.app.kill()
    if user:
        shutil.rmtree(base, ignore_errors=True)


def test_results_come_back_whole_and_side_by_side(start):
    c = start()
    # Each waits (boundedly) for the other's mark: both succeed only side by side.
    wait = "; for i in $(seq 200); do [ -e {0} ] && break; sleep 0.05; done; echo out; echo err >&2; exit 3"
    a = c.bridge.request("exec", "~", "touch a.mark" + wait.format("b.mark"))
    b = c.bridge.request("exec", "~", "touch b.mark" + wait.format("a.mark"))
    for rid in (a, b):
        reply = c.bridge.wait_reply(rid, 60)
        assert reply.pair == (True, {"exit": 3, "stdout": "out\n", "stderr": "err\n"})
        assert list(reply.value) == ["exit", "stdout", "stderr"]


def test_endless_output_is_cut_and_the_app_stays_small(start):
    c = start()
    before = rss_kib(c.app.pid)
    # Summed up in the page: the 16 MiB of output would not fit in a report.
    result = c.bridge.run("""
        const ondrel = window.__ondrel, original = ondrel.__resolve;
        return await new Promise((resolve) => {
          ondrel.__resolve = function (reqId, ok, value) {
            if (reqId !== 'endless') return original.apply(this, arguments);
            ondrel.__resolve = original;
            resolve({ ok: ok, truncated: value.truncated, out: value.stdout.length, err: value.stderr });
          };
          window.webkit.messageHandlers.ondrel.postMessage(
            { __reqId: 'endless', name: 'exec', args: ['~', 'head -c 200M /dev/zero; echo done >&2'] });
        });""", timeout=120)
    assert result == {"ok": 1, "truncated": ["stdout"], "out": 16 << 20, "err": "done\n"}
    assert rss_kib(c.app.pid) - before < 100 * 1024


APPDIR = "Applications/Ondrel.AppDir"


def prepare_ssh_key(home):
    (home / ".ssh").mkdir(mode=0o700)
    (home / ".ssh/id_ed25519").write_text("secret\n")
    os.chmod(home / ".ssh/id_ed25519", 0o600)


def prepare_runs_later(home):
    (home / APPDIR / "usr/bin").mkdir(parents=True)
    shutil.copy2(BINARY, home / APPDIR / "usr/bin/ondrel")
    (home / ".bashrc").write_text("# mine\n")
    (home / "hooks").mkdir()
    (home / "xdg").mkdir()
    (home / "xdg/mimeapps.list").write_text("[Default Applications]\n")
    (home / ".config/ondrel").mkdir(parents=True)
    (home / ".config/ondrel/config.json").write_text(json.dumps({"sandboxReadOnly": ["~/hooks"]}))


def prepare_links(home):
    (home / "dotfiles").mkdir()
    (home / "dotfiles/ssh_config").write_text("Host *\n")
    (home / ".ssh").mkdir(mode=0o700)
    (home / ".ssh/config").symlink_to(home / "dotfiles/ssh_config")
    (home / "keys").symlink_to(home / ".ssh")
    (home / ".gnupg").mkdir(mode=0o700)
    (home / ".gnupg/sub").mkdir()


def prepare_network_off(home):
    (home / ".config/ondrel").mkdir(parents=True)
    (home / ".config/ondrel/config.json").write_text(json.dumps({"sandboxNetwork": False}))


# name: (prepare, environment, working directory, probes; every label not starting with "control" must fail)
SANDBOX = {
    "system": (None, {"TMPDIR": "OUTSIDE/tmpdir"}, "~", '''
        t control_home touch "$HOME/NAME"
        t control_workdir touch ./NAME-cwd
        t control_tmpdir touch "$TMPDIR/NAME"
        t control_tmp touch /tmp/NAME
        t control_vartmp touch /var/tmp/NAME
        t control_devnull sh -c 'echo x > /dev/null'
        t control_loopback curl -sf -o /dev/null WEB
        t control_display env DISPLAY=XDISPLAY xdotool getmouselocation
        t beside_tmpdir touch OUTSIDE/NAME
        t etc touch /etc/NAME
        t usr touch /usr/NAME
        t sys sh -c 'echo 1 > /sys/kernel/mm/ksm/run'
        for s in kernel/core_pattern kernel/modprobe kernel/hostname; do
          [ -r /proc/sys/$s ] || { echo "$s: failed"; continue; }
          v=$(cat /proc/sys/$s)
          t "$s" sh -c "printf '%s\\n' '$v' > /proc/sys/$s"
        done
        t sysrq sh -c 'echo > /proc/sysrq-trigger'
    '''),
    "tmpdir-of-root": (None, {"TMPDIR": "/"}, "~", '''
        t outside touch OUTSIDE/NAME
        t etc touch /etc/NAME
        t control_tmp touch /tmp/NAME
    '''),
    "network-off": (prepare_network_off, {}, "~", '''
        t loopback curl -sf -o /dev/null WEB
        t display env DISPLAY=XDISPLAY xdotool getmouselocation
        t control_tmp touch /tmp/NAME
    '''),
    "no-ssh-folder": (None, {}, "~", '''
        t known_hosts sh -c 'echo host > "$HOME/.ssh/known_hosts"'
        t gnupg_file touch "$HOME/.gnupg/pubring.kbx"
        t gnupg_dir mkdir "$HOME/.gnupg/private-keys-v1.d"
        t control_home sh -c 'echo host > "$HOME/known_hosts"'
    '''),
    "ssh-key": (prepare_ssh_key, {}, "~", '''
        k="$HOME/.ssh/id_ed25519"
        echo plain > "$HOME/plain"; mkdir "$HOME/folder"; o="$HOME/plain"
        for target in "$k" "$o"; do
          [ "$target" = "$k" ] && p= || p=control_
          t ${p}chmod chmod 644 "$target"
          t ${p}utime touch -d 2001-01-01 "$target"
          t ${p}xattr $PY -c "import os,sys; os.setxattr(sys.argv[1], 'user.x', b'1')" "$target"
          t ${p}append sh -c "echo more >> $target"
          t ${p}write sh -c "echo changed > $target"
          t ${p}via_proc_self sh -c "echo x > /proc/self/root$target"
          t ${p}hard_link ln "$target" "$HOME/linked-$p"
          t ${p}rename_file mv "$target" "$HOME/moved-$p"
        done
        t remove rm -f "$k"
        t rename_folder mv "$HOME/.ssh" "$HOME/ssh-away"
        t control_rename_folder mv "$HOME/folder" "$HOME/folder-away"
        t remount mount -o remount,rw "$HOME/.ssh"
        t bind_over mount --bind /tmp "$HOME/.ssh"
        t umount umount "$HOME/.ssh"
        t umount_lazy umount -l "$HOME/.ssh"
        t new_userns unshare -Ur true
        t new_mountns unshare -m true
    '''),
    "runs-later": (prepare_runs_later, {"XDG_CONFIG_HOME": "HOME/xdg"}, "~", f'''
        cd "$HOME"; mkdir -p .config/other .local/share/other .cache/other
        t settings sh -c 'echo "{{}}" > .config/ondrel/config.json'
        t control_settings sh -c 'echo "{{}}" > .config/other/config.json'
        t data touch .local/share/ondrel/pending-update.json
        t cache touch .cache/ondrel/sw.js
        t control_data touch .local/share/other/pending-update.json .cache/other/sw.js
        t appdir touch {APPDIR}/usr/bin/planted
        t appdir_move mv {APPDIR} Applications/away
        t control_appdir touch Applications/beside
        t autostart touch .config/autostart/run.desktop
        t systemd touch .config/systemd/user/run.service
        t environment touch .config/environment.d/path.conf
        t xdg_autostart touch xdg/autostart/run.desktop
        t xdg_systemd touch xdg/systemd/user/run.service
        t xdg_mimeapps sh -c 'echo planted >> xdg/mimeapps.list'
        t control_config touch .config/other/run.desktop xdg/other.conf
        t startup sh -c 'echo planted >> .bashrc'
        t startup_replace rm -f .bashrc
        t control_startup sh -c 'echo planted >> .bashrc.old'
        t user_added touch hooks/planted
        t control_user_added sh -c 'mkdir hooks2 && touch hooks2/planted'
    '''),
    "working-directory-linked-to-ssh": (prepare_links, {"DBUS_SESSION_BUS_ADDRESS": "BUS"}, "~/keys", '''
        t cwd touch ./authorized_keys
        t gnupg_sub touch "$HOME/.gnupg/sub/planted"
        t ssh_config_target sh -c 'echo "ProxyCommand planted" >> "$HOME/.ssh/config"'
        t control_dotfiles sh -c 'echo "# mine" >> "$HOME/dotfiles/other"'
        t bus dbus-send --bus=BUS --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
            org.freedesktop.DBus.ListNames
        t bus_by_default dbus-send --session --print-reply --dest=org.freedesktop.DBus / \
            org.freedesktop.DBus.ListNames
        t systemd_run systemd-run --user --quiet true
        t display_named sh -c 'test -n "$DISPLAY$WAYLAND_DISPLAY"'
        t display_socket test -S /tmp/.X11-unix/XSOCKETNUM
    '''),
    "other-processes": (None, {}, "~", r'''
        VM="import ctypes,sys; libc=ctypes.CDLL(None, use_errno=True); b=ctypes.create_string_buffer(8); \
io=lambda a: (ctypes.c_size_t*2)(a, 8); n=libc.process_vm_readv(int(sys.argv[1]), io(ctypes.addressof(b)), 1, \
io(0), 1, 0); sys.exit(1 if n < 0 and ctypes.get_errno() == 1 else 0)"
        PT="import ctypes,sys; sys.exit(ctypes.CDLL(None).ptrace(0x4206, int(sys.argv[1]), 0, 0) != 0)"
        sleep 5 & own=$!
        for pid in APP $own; do
          [ $pid = APP ] && p= || p=control_
          t ${p}ptrace $PY -c "$PT" $pid
          t ${p}mem $PY -c "open('/proc/$pid/mem', 'r+b')"
          t ${p}vm_read $PY -c "$VM" $pid
          t ${p}root ls /proc/$pid/root/
          t ${p}environ cat /proc/$pid/environ
        done
        kill $own
        t app_root_write touch /proc/APP/root/var/tmp/ondrel-e2e-proc-escape
        t app_ssh sh -c 'echo x > /proc/APP/root$HOME/.ssh/known_hosts'
        t app_cwd touch /proc/APP/cwd/escape
        t app_fd sh -c 'for f in /proc/APP/fd/*; do [ -e "$f" ] && exit 0; done; exit 1'
        t init_root ls /proc/1/root/
        ls /proc/$$/fd > "$HOME/fds.out"
        t fds_beyond_the_standard_three sh -c '[ "$(tr "\n" " " < "$HOME/fds.out")" != "0 1 2 " ]'
    '''),
}


@pytest.fixture
def outside():  # world-writable, outside home and the temporary folders: only the sandbox can stop a write
    if not IS_ROOT:
        pytest.skip("making a folder outside home and /tmp needs root")
    path = Path("/var/lib") / f"ondrel-e2e-{uuid.uuid4().hex[:8]}"
    (path / "tmpdir").mkdir(parents=True)
    os.chmod(path, 0o1777)
    os.chmod(path / "tmpdir", 0o1777)
    yield path
    shutil.rmtree(path, ignore_errors=True)


@pytest.fixture
def session_bus(start):
    base = user_home_base()
    os.chown(base, NOBODY if start.user else os.getuid(), NOBODY if start.user else os.getgid())
    daemon = subprocess.Popen(as_app_user(start.user, ["dbus-daemon", "--session", "--nofork", "--print-address",
                                                        f"--address=unix:path={base}/bus"]),
                              stdout=subprocess.PIPE, text=True)
    yield daemon.stdout.readline().strip()
    daemon.terminate()
    daemon.wait()
    shutil.rmtree(base, ignore_errors=True)


PROTECTED = (".ssh", ".gnupg", ".config/ondrel", ".config/autostart", ".config/systemd", ".config/environment.d",
             "xdg/autostart", "xdg/systemd", "xdg/environment.d", "xdg/mimeapps.list", ".bashrc", "hooks",
             "dotfiles/ssh_config", APPDIR)


def snapshot(home: Path) -> dict:
    found = {}
    for top in map(home.joinpath, PROTECTED):
        for path in [top, *(top.rglob("*") if top.is_dir() and not top.is_symlink() else [])]:
            if path.exists():
                info = path.lstat()
                content = path.read_bytes() if stat.S_ISREG(info.st_mode) else None
                found[path] = (info.st_mode, info.st_mtime_ns, content, os.listxattr(path, follow_symlinks=False))
    return found


@pytest.mark.parametrize("case", SANDBOX)
def test_the_sandbox_holds(start, outside, session_bus, web, screen, case):
    prepare, env, directory, probes = SANDBOX[case]
    name = f"ondrel-e2e-{uuid.uuid4().hex[:8]}"
    fill = {"OUTSIDE": str(outside), "NAME": name, "WEB": web.url("report.js"), "XDISPLAY": screen.display,
            "SOCKETNUM": screen.display.lstrip(":"), "BUS": session_bus, "HOME": str(start.base / "home0")}
    for key, value in fill.items():
        env = {k: v.replace(key, value) for k, v in env.items()}
        probes = probes.replace(key, value) if key != "HOME" else probes
    c = start(env=env, prepare=prepare, binary=f"{APPDIR}/usr/bin/ondrel" if case == "runs-later" else None)
    if "BUS" in SANDBOX[case][1].values():  # the control for the bus: outside, the app's user reaches it
        subprocess.run(as_app_user(start.user, ["dbus-send", f"--bus={session_bus}", "--print-reply",
                                                "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                "org.freedesktop.DBus.ListNames"]), check=True, capture_output=True)
    c.run("true")  # the protected folders are made for the first command
    before = snapshot(c.home)
    try:
        value = c.run(PROBE + probes.replace("APP", str(c.app.pid)), directory)
        shared_tmp = Path("/tmp", name).exists()  # the command's /tmp is the real one
    finally:
        for leftover in ("/etc", "/usr", "/tmp", "/var/tmp"):
            Path(leftover, name).unlink(missing_ok=True)
    seen = {label: verdict for label, _, verdict in (line.rpartition(": ") for line in value["stdout"].splitlines())
            if verdict in ("failed", "succeeded")}
    wrong = {label: verdict for label, verdict in seen.items()
             if verdict != ("succeeded" if label.startswith("control") else "failed")}
    assert seen and not wrong, f"unexpected outcomes: {wrong}; {value}"
    assert len(seen) == len([line for line in probes.splitlines() if line.strip().startswith("t ")]) + \
        {"system": 2, "ssh-key": 8, "other-processes": 5}.get(case, 0), f"attempts that did not report: {value}"
    assert snapshot(c.home) == before
    assert [p.name for p in outside.iterdir()] == ["tmpdir"]
    assert (outside / "tmpdir" / name).exists() == (case == "system")
    assert shared_tmp == ("control_tmp" in seen)
    assert not Path("/var/tmp/ondrel-e2e-proc-escape").exists() and not (c.home / "escape").exists()
    # The page still changes the settings: that runs in the app, not in a command.
    assert c.bridge.call("mcpWriteConfig", json.dumps({"mcpServers": {}}))[0]
