"""The "exec" action through the real bridge, as the tests' user and as nobody, and the sandbox holding.

Each escape attempt is paired with a control, the same operation on something the command may change,
so that an attempt cannot pass merely because a tool is missing."""

from __future__ import annotations

import json
import os
import shutil
import socket
import subprocess
import tempfile
import uuid
from pathlib import Path

import pytest

from bridge_client import BridgeClient
from harness import BINARY

IS_ROOT = os.geteuid() == 0
NOBODY = 65534
pytestmark = pytest.mark.skipif(not os.access("/usr/bin/bwrap", os.X_OK), reason="bubblewrap is not installed")

# t LABEL CMD...: prints "LABEL: failed" or "LABEL: succeeded".
PROBE = r'''
t() { label=$1; shift; if ( "$@" ) >/dev/null 2>&1; then echo "$label: succeeded"; else echo "$label: failed"; fi; }
PY=/usr/bin/python3
'''
APPDIR = "Applications/Ondrel.AppDir"


def as_app_user(user, argv):
    return ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "--", *argv] if user else argv


@pytest.fixture(params=["self", "nobody"])
def start(launch, web, tmp_path, request):
    """start(tree, env, binary): the app on the bridge page, in a home holding tree ({path: text, None for a
    folder, or a Path to link to}) and, given binary, a copy of the app there to run."""
    user = request.param == "nobody"
    if user and not IS_ROOT:
        pytest.skip("running as another user needs root")
    home = (Path(tempfile.mkdtemp(prefix="ondrel-e2e-")) if user else tmp_path) / "home"
    os.chmod(home.parent, 0o755)  # pytest's own folder is private to root

    def _start(tree=(), env=None, binary=None) -> BridgeClient:
        if binary:
            (home / binary).parent.mkdir(parents=True)
            shutil.copy2(BINARY, home / binary)
        for rel, content in dict(tree).items():
            (home / rel).parent.mkdir(parents=True, exist_ok=True)
            if isinstance(content, Path):
                (home / rel).symlink_to(home / content)
            else:
                (home / rel).mkdir() if content is None else (home / rel).write_text(content)
        bridge = BridgeClient(web)
        argv = as_app_user(user, [str(home / binary) if binary else BINARY, bridge.url])
        app = launch(*argv[1:], home=home, env=env, binary=argv[0], start=False)
        if user:  # the home, with what App made in it, as if the app's user had made it
            for path in [home, *home.rglob("*")]:
                os.lchown(path, NOBODY, NOBODY)
        bridge.attach(app.start()).wait_ready(timeout=30)
        return bridge

    _start.user, _start.home = user, home
    yield _start
    if user:
        for app in launch.apps:
            app.kill()
        shutil.rmtree(home.parent, ignore_errors=True)


def test_commands_run_side_by_side(start):
    bridge = start()
    # Each waits (boundedly) for the other's mark: both succeed only side by side.
    wait = "; for i in $(seq 200); do [ -e {0} ] && break; sleep 0.05; done; [ -e {0} ] && echo out; exit 3"
    ids = [bridge.request("exec", "~", f"touch {a}.mark" + wait.format(f"{b}.mark")) for a, b in ("ab", "ba")]
    for rid in ids:
        assert bridge.wait_reply(rid, 60).pair == (True, {"exit": 3, "stdout": "out\n", "stderr": ""})


# name: (home's tree, environment, working directory, probes; every label not starting with "control" must fail)
SANDBOX = {
    "system": ((), {"TMPDIR": "OUTSIDE/tmpdir"}, "~", '''
        t control_home touch "$HOME/NAME"
        t control_tmpdir touch "$TMPDIR/NAME"
        t control_tmp touch /tmp/NAME
        t control_vartmp touch /var/tmp/NAME
        t control_devnull sh -c 'echo x > /dev/null'
        t control_loopback curl -sf -o /dev/null WEB
        t control_display env DISPLAY=XDISPLAY xdotool getmouselocation
        t beside_tmpdir touch OUTSIDE/NAME
        t etc touch /etc/NAME
        t sys sh -c 'echo 1 > /sys/kernel/mm/ksm/run'
        v=$(cat /proc/sys/kernel/core_pattern)  # written back as it is, should the write go through
        t core_pattern sh -c "printf '%s\\n' '$v' > /proc/sys/kernel/core_pattern"
        t sysrq sh -c 'echo > /proc/sysrq-trigger'
    '''),
    "network-off": ({".config/ondrel/config.json": json.dumps({"sandboxNetwork": False})}, {}, "~", '''
        t loopback curl -sf -o /dev/null WEB
        t display env DISPLAY=XDISPLAY xdotool getmouselocation
        t control_tmp touch /tmp/NAME
    '''),
    "ssh-key": ({".ssh/id_ed25519": "secret\n"}, {}, "~", '''
        k="$HOME/.ssh/id_ed25519"
        echo plain > "$HOME/plain"; mkdir "$HOME/folder"; o="$HOME/plain"
        for target in "$k" "$o"; do
          [ "$target" = "$k" ] && p= || p=control_
          t ${p}write sh -c "echo changed > $target"
          t ${p}via_proc_self sh -c "echo x > /proc/self/root$target"
          t ${p}rename_file mv "$target" "$HOME/moved-$p"
        done
        t remove rm -f "$k"
        t missing_gnupg mkdir "$HOME/.gnupg/private-keys-v1.d"
        t rename_folder mv "$HOME/.ssh" "$HOME/ssh-away"
        t control_rename_folder mv "$HOME/folder" "$HOME/folder-away"
        t remount mount -o remount,rw "$HOME/.ssh"
        t umount umount -l "$HOME/.ssh"
        t new_userns unshare -Ur true
        t new_mountns unshare -m true
    '''),
    "runs-later": ({".bashrc": "# mine\n", "hooks": None, "xdg/mimeapps.list": "[Default Applications]\n",
                    ".config/ondrel/config.json": json.dumps({"sandboxReadOnly": ["~/hooks"]})},
                   {"XDG_CONFIG_HOME": "HOME/xdg"}, "~", f'''
        cd "$HOME"; mkdir -p .config/other
        t settings sh -c 'echo "{{}}" > .config/ondrel/config.json'
        t control_settings sh -c 'echo "{{}}" > .config/other/config.json'
        t appdir touch {APPDIR}/usr/bin/planted
        t control_appdir touch Applications/beside
        t xdg_mimeapps sh -c 'echo planted >> xdg/mimeapps.list'
        t control_xdg touch xdg/other.conf
        t startup sh -c 'echo planted >> .bashrc'
        t control_startup sh -c 'echo planted >> .bashrc.old'
        t user_added touch hooks/planted
        t control_user_added sh -c 'mkdir hooks2 && touch hooks2/planted'
    '''),
    "working-directory-linked-to-ssh": ({".ssh": None, "keys": Path(".ssh")},
                                        {"DBUS_SESSION_BUS_ADDRESS": "unix:path=BUS"}, "~/keys", '''
        t cwd touch ./authorized_keys
        t control_home touch "$HOME/authorized_keys"
        t bus test -S BUS
        t display_socket test -S /tmp/.X11-unix/XSOCKETNUM
    '''),
    "other-processes": ((), {}, "~", r'''
        PT="import ctypes,sys; sys.exit(ctypes.CDLL(None).ptrace(0x4206, int(sys.argv[1]), 0, 0) != 0)"
        sleep 5 & own=$!
        for pid in APP $own; do
          [ $pid = APP ] && p= || p=control_
          t ${p}ptrace $PY -c "$PT" $pid
          t ${p}mem $PY -c "open('/proc/$pid/mem', 'r+b')"
          t ${p}root ls /proc/$pid/root/
        done
        kill $own
        t app_cwd touch /proc/APP/cwd/escape
        t app_fd sh -c 'for f in /proc/APP/fd/*; do [ -e "$f" ] && exit 0; done; exit 1'
        ls /proc/$$/fd > "$HOME/fds.out"
        t fds_beyond_the_standard_three sh -c '[ "$(tr "\n" " " < "$HOME/fds.out")" != "0 1 2 " ]'
    '''),
}
LOOPED = {"ssh-key": 3, "other-processes": 3}  # reports of loops beyond one per "t" line


@pytest.fixture
def outside():  # world-writable, outside home and the temporary folders: only the sandbox can stop a write
    if not IS_ROOT:
        pytest.skip("making a folder outside home and /tmp needs root")
    path = Path("/var/lib") / f"ondrel-e2e-{uuid.uuid4().hex[:8]}"
    (path / "tmpdir").mkdir(parents=True)
    for folder in (path, path / "tmpdir"):
        os.chmod(folder, 0o1777)
    with socket.socket(socket.AF_UNIX) as bus:  # where a session bus would listen
        bus.bind(str(path / "bus"))
        yield path
    shutil.rmtree(path, ignore_errors=True)


@pytest.mark.parametrize("case", SANDBOX)
def test_the_sandbox_holds(start, outside, web, screen, case):
    tree, env, directory, probes = SANDBOX[case]
    name = f"ondrel-e2e-{uuid.uuid4().hex[:8]}"
    fill = {"OUTSIDE": str(outside), "NAME": name, "WEB": web.url("report.js"), "XDISPLAY": screen.display,
            "SOCKETNUM": screen.display.lstrip(":"), "BUS": f"{outside}/bus", "HOME": str(start.home)}
    for key, value in fill.items():
        env = {k: v.replace(key, value) for k, v in env.items()}
        probes = probes.replace(key, value) if key != "HOME" else probes
    bridge = start(tree, env, f"{APPDIR}/usr/bin/ondrel" if case == "runs-later" else None)
    subprocess.run(as_app_user(start.user, ["test", "-S", f"{outside}/bus"]), check=True)  # the bus's control
    try:
        reply = bridge.wait_reply(bridge.request("exec", directory, PROBE + probes.replace(
            "APP", str(bridge.app.pid))), 60)
        shared_tmp = Path("/tmp", name).exists()  # the command's /tmp is the real one
        assert reply.ok, f"exec failed: {reply.value!r}"
    finally:
        for leftover in ("/etc", "/tmp", "/var/tmp"):
            Path(leftover, name).unlink(missing_ok=True)
    value = reply.value
    seen = {label: verdict for label, _, verdict in (line.rpartition(": ") for line in value["stdout"].splitlines())
            if verdict in ("failed", "succeeded")}
    wrong = {label: verdict for label, verdict in seen.items()
             if verdict != ("succeeded" if label.startswith("control") else "failed")}
    assert seen and not wrong, f"unexpected outcomes: {wrong}; {value}"
    assert len(seen) == len([line for line in probes.splitlines() if line.strip().startswith("t ")]) + \
        LOOPED.get(case, 0), f"attempts that did not report: {value}"
    assert shared_tmp == ("control_tmp" in seen)
    # The page still changes the settings: that runs in the app, not in a command.
    assert bridge.call("mcpWriteConfig", json.dumps({"mcpServers": {}}))[0]
