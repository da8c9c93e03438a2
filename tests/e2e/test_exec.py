"""The "exec" action through the real bridge: results, and the sandbox holding.

Every sandbox test runs twice: as the user running the tests (root in CI) and
as an unprivileged user. Attempts to get out are made from inside the command
and then checked from outside, on the real files.
"""

from __future__ import annotations

import json
import os
import shutil
import stat
import subprocess
import uuid
from pathlib import Path

import pytest

from exec_client import UNPRIVILEGED_UID, ExecClient, user_home_base
from harness import BINARY

IS_ROOT = os.geteuid() == 0
pytestmark = pytest.mark.skipif(not os.access("/usr/bin/bwrap", os.X_OK), reason="bubblewrap is not installed")

# A shell helper for attempts made from inside: prints "label: failed" or
# "label: succeeded". Escape attempts are paired with controls, the same
# operation on something the command may change, so that an attempt cannot
# pass merely because a tool is missing or behaves differently.
PROBE = r'''
t() { label=$1; shift; if ( "$@" ) >/dev/null 2>&1; then echo "$label: succeeded"; else echo "$label: failed"; fi; }
PY=/usr/bin/python3
'''


def outcomes(reply) -> dict[str, str]:
    result = {}
    for line in reply.stdout.splitlines():
        label, _, verdict = line.rpartition(": ")
        if verdict in ("failed", "succeeded"):
            result[label] = verdict
    return result


def assert_outcomes(reply, failed=(), succeeded=()):
    seen = outcomes(reply)
    expected = {**{label: "failed" for label in failed}, **{label: "succeeded" for label in succeeded}}
    assert set(seen) == set(expected), f"attempts that did not report: {reply.stdout!r} {reply.stderr!r}"
    wrong = {label: verdict for label, verdict in seen.items() if verdict != expected[label]}
    assert not wrong, f"unexpected outcomes: {wrong}"


def assert_all_held(reply, labels):
    assert_outcomes(reply, failed=labels)


@pytest.fixture(params=["self", "nobody"])
def mode(request):
    if request.param == "nobody" and not IS_ROOT:
        pytest.skip("running as another user needs root")
    return request.param


@pytest.fixture
def start(screen, web, tmp_path, mode, request):
    """start(env=None, prepare=None, binary=None) -> a running ExecClient with a fresh HOME.

    prepare(home) may fill the home folder before the app starts; binary, a
    path inside that home, is the program to run instead of the build's.
    """
    clients: list[ExecClient] = []
    bases: list[Path] = []

    def _start(env: dict | None = None, prepare=None, binary: str | None = None) -> ExecClient:
        if mode == "nobody":
            base = user_home_base()
            bases.append(base)
        else:
            base = tmp_path / f"c{len(clients)}"
            base.mkdir()
        home = base / "home"
        home.mkdir()
        if prepare:
            prepare(home)
        client = ExecClient(screen, web, home, user=(mode == "nobody"), env=env,
                            binary=str(home / binary) if binary else BINARY)
        clients.append(client)
        return client.start()

    yield _start
    failed = getattr(getattr(request.node, "rep_call", None), "failed", False)
    for client in clients:
        if failed:
            print(f"[e2e] {request.node.name} ({mode}) log:\n{client.app.log_text()}")
        client.stop()
    for base in bases:
        shutil.rmtree(base, ignore_errors=True)


@pytest.fixture
def scratch_outside():
    """A world-writable folder outside home and the temporary folders.

    Its permissions would let anyone write, so only the sandbox can stop it.
    """
    if not IS_ROOT:
        pytest.skip("making a folder outside home and /tmp needs root")
    path = Path("/var/lib") / f"ondrel-e2e-{uuid.uuid4().hex[:8]}"
    path.mkdir()
    os.chmod(path, 0o1777)
    yield path
    shutil.rmtree(path, ignore_errors=True)


# --- results --------------------------------------------------------------


def test_exit_status_and_both_outputs(start):
    c = start()
    r = c.run("echo out; echo 'went wrong' >&2; exit 3")
    assert r.value == {"exit": 3, "stdout": "out\n", "stderr": "went wrong\n"}
    assert list(r.value) == ["exit", "stdout", "stderr"]


def test_output_that_is_not_utf8_is_empty(start):
    c = start()
    r = c.run(r"printf 'caf\351'; printf 'ok' >&2")
    assert r.stdout == ""
    assert r.stderr == "ok"


def test_answer_waits_for_a_background_writer(start):
    c = start()
    r = c.run("(sleep 1; echo late) & echo early")
    assert r.stdout == "early\nlate\n"
    assert r.exit == 0


def test_tilde_project_resolves_through_a_symlink(start):
    def prepare(home):
        (home / "real-project").mkdir()
        (home / "project").symlink_to(home / "real-project")
    c = start(prepare=prepare)
    r = c.run("pwd; touch made-here", directory="~/project")
    assert r.stdout == f"{(c.home / 'real-project').resolve()}\n"
    assert (c.home / "real-project" / "made-here").exists()


def test_missing_directory_is_a_launch_failure(start):
    c = start()
    r = c.call("~/does-not-exist", "echo ran")
    assert not r.ok
    assert r.value == f"Failed to change to directory “{c.home}/does-not-exist” (No such file or directory)"


def test_malformed_requests_get_the_usage_text(start):
    c = start()
    for args in ([], ["~"], ["~", 5], [None, "true"], [7, "true"], [["~"], "true"]):
        r = c.wait(c.send(args))
        assert (r.ok, r.value) == (False, "exec expects [dir, command]"), args


def test_several_commands_run_at_once(start):
    c = start()
    # Each waits (boundedly) for the other's mark: both succeed only side by side.
    wait = "for i in $(seq 200); do [ -e {0} ] && exit 0; sleep 0.05; done; exit 1"
    a = c.send(["~", "touch a.mark; " + wait.format("b.mark")])
    b = c.send(["~", "touch b.mark; " + wait.format("a.mark")])
    assert c.wait(a).value["exit"] == 0
    assert c.wait(b).value["exit"] == 0


# --- what the sandbox lets through -----------------------------------------


def test_allowed_places_are_writable(start, scratch_outside):
    # TMPDIR outside every other writable place, so only its own bind can
    # make it writable.
    tmpdir = scratch_outside / "tmpdir"
    tmpdir.mkdir()
    os.chmod(tmpdir, 0o1777)
    c = start(env={"TMPDIR": str(tmpdir)})
    (c.home / "work").mkdir()
    c.own(c.home / "work")
    name = f"ondrel-e2e-{uuid.uuid4().hex[:8]}"
    r = c.run(PROBE + f'''
        t home touch "$HOME/{name}"
        t workdir touch ./{name}
        t tmpdir touch "$TMPDIR/{name}"
        t tmp touch /tmp/{name}
        t vartmp touch /var/tmp/{name}
        t devnull sh -c 'echo x > /dev/null'
        t beside_tmpdir touch {scratch_outside}/{name}
    ''', directory="~/work")
    try:
        assert_outcomes(r, succeeded=["home", "workdir", "tmpdir", "tmp", "vartmp", "devnull"],
                        failed=["beside_tmpdir"])
        for path in (c.home / name, c.home / "work" / name, tmpdir / name, Path("/tmp") / name,
                     Path("/var/tmp") / name):
            assert path.exists(), path
    finally:
        for shared in (Path("/tmp") / name, Path("/var/tmp") / name):
            shared.unlink(missing_ok=True)


def test_system_and_outside_folders_are_read_only(start, scratch_outside):
    c = start()
    name = f"ondrel-e2e-{uuid.uuid4().hex[:8]}"
    r = c.run(PROBE + f'''
        t etc touch /etc/{name}
        t usr touch /usr/{name}
        t outside touch {scratch_outside}/{name}
        t sys sh -c 'echo 1 > /sys/kernel/mm/ksm/run'
        t control_tmp touch /tmp/{name}
    ''')
    try:
        assert_outcomes(r, failed=["etc", "usr", "outside", "sys"], succeeded=["control_tmp"])
    finally:
        for leftover in (Path("/etc") / name, Path("/usr") / name, Path("/tmp") / name):
            if leftover.exists():
                leftover.unlink()
    assert not list(scratch_outside.iterdir())


def test_tmpdir_of_root_does_not_open_everything(start, scratch_outside):
    c = start(env={"TMPDIR": "/"})
    name = f"ondrel-e2e-{uuid.uuid4().hex[:8]}"
    r = c.run(PROBE + f'''
        t outside touch {scratch_outside}/{name}
        t etc touch /etc/{name}
    ''')
    try:
        assert_all_held(r, ["outside", "etc"])
    finally:
        if (Path("/etc") / name).exists():
            (Path("/etc") / name).unlink()


# --- the protected folders ---------------------------------------------------


def test_known_hosts_cannot_be_written_even_without_ssh_folder(start):
    c = start()
    assert not (c.home / ".ssh").exists()
    r = c.run(PROBE + '''
        t known_hosts sh -c 'echo host > "$HOME/.ssh/known_hosts"'
        t gnupg_file touch "$HOME/.gnupg/pubring.kbx"
        t gnupg_dir mkdir "$HOME/.gnupg/private-keys-v1.d"
        t control_home sh -c 'echo host > "$HOME/known_hosts"'
    ''')
    assert_outcomes(r, failed=["known_hosts", "gnupg_file", "gnupg_dir"], succeeded=["control_home"])
    for name in (".ssh", ".gnupg"):
        info = (c.home / name).lstat()
        assert stat.S_ISDIR(info.st_mode), name
        assert stat.S_IMODE(info.st_mode) == 0o700, name
        assert list((c.home / name).iterdir()) == [], name


def test_protected_files_resist_every_kind_of_change(start):
    def prepare(home):
        (home / ".ssh").mkdir(mode=0o700)
        (home / ".ssh" / "id_ed25519").write_text("secret\n")
        os.chmod(home / ".ssh" / "id_ed25519", 0o600)
    c = start(prepare=prepare)
    key = c.home / ".ssh" / "id_ed25519"
    before = key.stat()
    r = c.run(PROBE + '''
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
    ''')
    attempts = ["chmod", "utime", "xattr", "append", "write", "via_proc_self", "hard_link", "rename_file"]
    assert_outcomes(r, failed=attempts + ["remove", "rename_folder", "remount", "bind_over", "umount",
                                          "umount_lazy", "new_userns", "new_mountns"],
                    succeeded=[f"control_{a}" for a in attempts] + ["control_rename_folder"])
    after = key.stat()
    assert key.read_text() == "secret\n"
    assert (stat.S_IMODE(after.st_mode), after.st_mtime_ns) == (stat.S_IMODE(before.st_mode), before.st_mtime_ns)
    assert os.listxattr(key) == []
    assert not (c.home / "linked-").exists() and not (c.home / "ssh-away").exists()


APPDIR = "Applications/Ondrel.AppDir"


def test_what_runs_outside_later_stays_read_only(start):
    """The app's own folders, its AppDir, the desktop's autostart and the shell's
    start-up files: each attempt is paired with the same change beside it."""
    settings = {"sandboxReadOnly": ["~/hooks"]}

    def prepare(home):
        (home / APPDIR / "usr" / "bin").mkdir(parents=True)
        shutil.copy2(BINARY, home / APPDIR / "usr" / "bin" / "ondrel")
        (home / ".bashrc").write_text("# mine\n")
        (home / "hooks").mkdir()
        (home / ".config" / "ondrel").mkdir(parents=True)
        (home / ".config" / "ondrel" / "config.json").write_text(json.dumps(settings))
    c = start(prepare=prepare, binary=f"{APPDIR}/usr/bin/ondrel")
    r = c.run(PROBE + f'''
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
        t control_config touch .config/other/run.desktop
        t startup sh -c 'echo planted >> .bashrc'
        t startup_replace rm -f .bashrc
        t control_startup sh -c 'echo planted >> .bashrc.old'
        t user_added touch hooks/planted
        t control_user_added sh -c 'mkdir hooks2 && touch hooks2/planted'
    ''')
    assert_outcomes(r, failed=["settings", "data", "cache", "appdir", "appdir_move", "autostart", "systemd",
                               "environment", "startup", "startup_replace", "user_added"],
                    succeeded=["control_settings", "control_data", "control_appdir", "control_config",
                               "control_startup", "control_user_added"])
    assert json.loads((c.home / ".config" / "ondrel" / "config.json").read_text()) == settings
    assert (c.home / ".bashrc").read_text() == "# mine\n"
    assert not (c.home / ".zshrc").exists(), "a start-up file was made"
    for folder in (".config/autostart", ".config/systemd/user", ".config/environment.d"):
        assert stat.S_IMODE((c.home / folder).stat().st_mode) == 0o700, folder
    # The page still changes the settings: that runs in the app, not in a command.
    assert c.bridge.call("mcpWriteConfig", json.dumps({"mcpServers": {}}))[0]


def test_working_directory_linked_to_ssh_stays_read_only(start):
    def prepare(home):
        (home / ".ssh").mkdir(mode=0o700)
        (home / "keys").symlink_to(home / ".ssh")
        (home / ".gnupg").mkdir(mode=0o700)
        (home / ".gnupg" / "sub").mkdir()
    c = start(prepare=prepare)
    for directory in ("~/keys", "~/.ssh", "~/.gnupg/sub"):
        r = c.run(PROBE + "t cwd touch ./authorized_keys\n", directory=directory)
        assert_all_held(r, ["cwd"])
    assert_outcomes(c.run(PROBE + "t cwd touch ./made\n", directory="~"), succeeded=["cwd"])
    assert list((c.home / ".ssh").iterdir()) == []
    assert list((c.home / ".gnupg" / "sub").iterdir()) == []


def test_symlinked_ssh_folder_is_refused_and_nothing_runs(start):
    def prepare(home):
        (home / "dotfiles-ssh").mkdir(mode=0o700)
        (home / ".ssh").symlink_to(home / "dotfiles-ssh")
    c = start(prepare=prepare)
    r = c.call("~", "touch ran")
    assert not r.ok
    assert r.value == (f"exec refused: {c.home.resolve()}/.ssh is a symbolic link, which a command could "
                       "replace; make it a real folder to run commands")
    assert not (c.home / "ran").exists()


def test_hard_link_to_a_protected_file_is_never_written(start):
    def prepare(home):
        (home / ".gnupg").mkdir(mode=0o700)
        (home / ".gnupg" / "trustdb.gpg").write_text("trust\n")
        os.link(home / ".gnupg" / "trustdb.gpg", home / "trust-link")
    c = start(prepare=prepare)
    # A link made outside beforehand: the sandbox cannot tell the path apart,
    # so commands are refused until the link is gone.
    r = c.call("~", "echo changed > trust-link")
    assert not r.ok
    assert "trustdb.gpg has a hard link outside the protected folders" in r.value
    assert (c.home / ".gnupg" / "trustdb.gpg").read_text() == "trust\n"
    # Made from inside: the two mounts refuse to share the inode.
    (c.home / "trust-link").unlink()
    r = c.run(PROBE + '''
        t link ln "$HOME/.gnupg/trustdb.gpg" "$HOME/inside-link"
        echo x > "$HOME/mine"
        t control_link ln "$HOME/mine" "$HOME/mine-link"
    ''')
    assert_outcomes(r, failed=["link"], succeeded=["control_link"])
    assert not (c.home / "inside-link").exists()


# --- the rest of the system ------------------------------------------------


def test_other_processes_and_inherited_descriptors_are_out_of_reach(start):
    c = start()
    app = c.app.pid
    # process_vm_readv of one word at address 0: "permission denied" fails,
    # anything else (a bad address) means the memory was reachable.
    vm = ("import ctypes,sys; libc=ctypes.CDLL(None, use_errno=True); b=ctypes.create_string_buffer(8); "
          "io=lambda a: (ctypes.c_size_t*2)(a, 8); "
          "n=libc.process_vm_readv(int(sys.argv[1]), io(ctypes.addressof(b)), 1, io(0), 1, 0); "
          "sys.exit(1 if n < 0 and ctypes.get_errno() == 1 else 0)")
    r = c.run(PROBE + f'''
        VM="{vm}"
        t app_root ls /proc/{app}/root/
        t app_root_write touch /proc/{app}/root/var/tmp/ondrel-e2e-proc-escape
        t app_ssh sh -c 'echo x > /proc/{app}/root$HOME/.ssh/known_hosts'
        t app_cwd touch /proc/{app}/cwd/escape
        t app_fd sh -c 'for f in /proc/{app}/fd/*; do [ -e "$f" ] && exit 0; done; exit 1'
        t app_environ cat /proc/{app}/environ
        t init_root ls /proc/1/root/
        t ptrace $PY -c "import ctypes,sys; sys.exit(ctypes.CDLL(None).ptrace(0x4206, {app}, 0, 0) != 0)"
        t mem $PY -c "open('/proc/{app}/mem', 'r+b')"
        t vm_read $PY -c "$VM" {app}
        sleep 5 & own=$!
        t control_ptrace $PY -c "import ctypes,sys; sys.exit(ctypes.CDLL(None).ptrace(0x4206, $own, 0, 0) != 0)"
        t control_mem $PY -c "open('/proc/$own/mem', 'r+b')"
        t control_vm_read $PY -c "$VM" $own
        t control_root ls /proc/$own/root/
        t control_environ cat /proc/$own/environ
        kill $own
        ls /proc/$$/fd > "$HOME/fds.out"  # the shell's own descriptors, none opened for the listing
        echo "fds: $(tr '\\n' ' ' < "$HOME/fds.out")"
    ''')
    assert_outcomes(r, failed=["app_root", "app_root_write", "app_ssh", "app_cwd", "app_fd", "app_environ",
                               "init_root", "ptrace", "mem", "vm_read"],
                    succeeded=["control_ptrace", "control_mem", "control_vm_read", "control_root", "control_environ"])
    assert "fds: 0 1 2 \n" in r.stdout
    assert not Path("/var/tmp/ondrel-e2e-proc-escape").exists()
    assert not (c.home / "escape").exists()


def test_kernel_settings_stay_read_only(start):
    c = start()
    # Writes each setting's current value back, so nothing changes even if it
    # were let through.
    r = c.run(PROBE + '''
        for s in kernel/core_pattern kernel/modprobe kernel/hostname; do
          [ -r /proc/sys/$s ] || { echo "$s: failed"; continue; }
          v=$(cat /proc/sys/$s)
          t "$s" sh -c "printf '%s\\n' '$v' > /proc/sys/$s"
        done
        t sysrq sh -c 'echo > /proc/sysrq-trigger'
    ''')
    assert_all_held(r, ["kernel/core_pattern", "kernel/modprobe", "kernel/hostname", "sysrq"])


# --- the desktop's doors and the limits ---------------------------------------


def as_app_user(mode, argv):
    if mode != "nobody":
        return argv
    return ["setpriv", f"--reuid={UNPRIVILEGED_UID}", f"--regid={UNPRIVILEGED_UID}", "--clear-groups", "--", *argv]


@pytest.fixture
def session_bus(mode, tmp_path):
    """A session bus of the app's user, as a desktop session has one."""
    base = user_home_base() if mode == "nobody" else tmp_path
    if mode == "nobody":
        os.chown(base, UNPRIVILEGED_UID, UNPRIVILEGED_UID)
    daemon = subprocess.Popen(as_app_user(mode, ["dbus-daemon", "--session", "--nofork", "--print-address",
                                                 f"--address=unix:path={base}/bus"]),
                              stdout=subprocess.PIPE, text=True)
    address = daemon.stdout.readline().strip()
    yield address
    daemon.terminate()
    daemon.wait()
    if mode == "nobody":
        shutil.rmtree(base, ignore_errors=True)


LIST_NAMES = ("dbus-send --bus={} --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus "
              "org.freedesktop.DBus.ListNames")


def test_the_session_bus_the_display_and_key_links_are_out_of_reach(start, session_bus, mode, screen):
    def prepare(home):
        (home / "dotfiles").mkdir()
        (home / "dotfiles" / "ssh_config").write_text("Host *\n")
        (home / ".ssh").mkdir(mode=0o700)
        (home / ".ssh" / "config").symlink_to(home / "dotfiles" / "ssh_config")
    c = start(env={"DBUS_SESSION_BUS_ADDRESS": session_bus}, prepare=prepare)
    # The control for the bus: outside, the app's user reaches it.
    subprocess.run(as_app_user(mode, LIST_NAMES.format(session_bus).split()), check=True, capture_output=True)
    r = c.run(PROBE + f'''
        t bus {LIST_NAMES.format(session_bus)}
        t bus_by_default sh -c 'dbus-send --session --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.ListNames'
        t systemd_run systemd-run --user --quiet true
        t display_named sh -c 'test -n "$DISPLAY$WAYLAND_DISPLAY"'
        t display_socket test -S /tmp/.X11-unix/X{screen.display.lstrip(":")}
        t ssh_config_target sh -c 'echo "ProxyCommand planted" >> "$HOME/.ssh/config"'
        t control_dotfiles sh -c 'echo "# mine" >> "$HOME/dotfiles/other"'
    ''')
    assert_outcomes(r, failed=["bus", "bus_by_default", "systemd_run", "display_named", "display_socket",
                               "ssh_config_target"],
                    succeeded=["control_dotfiles"])
    assert (c.home / "dotfiles" / "ssh_config").read_text() == "Host *\n"


def test_network_and_abstract_display_can_be_taken_away(start, web, screen):
    settings = lambda home, network: (home / ".config" / "ondrel" / "config.json").write_text(  # noqa: E731
        json.dumps({"sandboxNetwork": network}))

    def prepare(home):
        (home / ".config" / "ondrel").mkdir(parents=True)
        settings(home, False)
    c = start(prepare=prepare)
    probe = PROBE + f'''
        t loopback curl -sf -o /dev/null {web.url("report.js")}
        t display env DISPLAY={screen.display} xdotool getmouselocation
    '''
    assert_all_held(c.run(probe), ["loopback", "display"])
    # The settings file is read for every command: the same command with the
    # network back is the control.
    settings(c.home, True)
    assert_outcomes(c.run(probe), succeeded=["loopback", "display"])


def test_endless_output_is_cut_and_the_app_stays_small(start):
    c = start()

    def rss_kib():
        with open(f"/proc/{c.app.pid}/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))
    before = rss_kib()
    # Summed up in the page: the 16 MiB of output would not fit in a report.
    result = c.bridge.run("""
        const ondrel = window.__ondrel, original = ondrel.__resolve, id = 'endless';
        return await new Promise((resolve) => {
          ondrel.__resolve = function (reqId, ok, value) {
            if (reqId !== id) return original.apply(this, arguments);
            ondrel.__resolve = original;
            resolve({ ok: ok, truncated: value.truncated, out: value.stdout.length, err: value.stderr });
          };
          window.webkit.messageHandlers.ondrel.postMessage(
            { __reqId: id, name: 'exec', args: ['~', 'head -c 200M /dev/zero; echo done >&2'] });
        });
    """, timeout=120)
    assert result == {"ok": 1, "truncated": ["stdout"], "out": 16 << 20, "err": "done\n"}
    grown_mib = (rss_kib() - before) / 1024
    print(f"[e2e] app RSS grew {grown_mib:.1f} MiB for a 200 MB output")
    assert grown_mib < 100
