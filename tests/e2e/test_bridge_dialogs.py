"""The GTK choosers behind the bridge: folder picker, file inputs and the download save dialog."""

import os
import time

import pytest

from bridge_client import BridgeClient
from file_dialogs import choose_path, select_all_in, wait_dialog, wait_dialog_gone

SETTLE = 0.5  # seconds a reply stays alone before it counts as answered once


@pytest.fixture(scope="module")
def payloads(web):
    files = {"quarterly.bin": os.urandom(300_000), "discarded.bin": os.urandom(1000)}
    for name, data in files.items():
        # A type no web view shows, so the response becomes a download.
        web.route(f"/dl/{name}", lambda handler, data=data: (200, "application/x-ondrel-test", data))
    return files


@pytest.fixture(scope="module")
def dialogs(module_launch, web, payloads):
    client, app = BridgeClient.launched(module_launch, web)
    app.main_window()
    return client, app


def answered_once(client, rid, mark):
    time.sleep(SETTLE)
    return len(client.replies(rid, since=mark)) == 1


def test_picked_folder_comes_back_as_its_path(dialogs, tmp_path):
    client, app = dialogs
    folder = tmp_path / "my projects" / "alpha"
    folder.mkdir(parents=True)
    mark = client.web.mark()
    rid = client.request("pickDirectory", "Choose the project folder")

    dialog = wait_dialog(app, title="Choose the project folder")
    assert not client.replies(rid, since=mark), "answered before the chooser closed"
    choose_path(dialog, str(folder))
    reply = client.wait_reply(rid, since=mark)
    assert reply.pair == (True, str(folder))
    wait_dialog_gone(app)
    assert answered_once(client, rid, mark)


def test_cancelled_folder_chooser_answers_null(dialogs):
    client, app = dialogs
    mark = client.web.mark()
    rid = client.request("pickDirectory")

    wait_dialog(app)
    assert not client.replies(rid, since=mark), "answered before the chooser closed"
    app.screen.key("Escape")
    reply = client.wait_reply(rid, since=mark)
    assert reply.pair == (True, None) and reply.raw["valueType"] == "null"
    wait_dialog_gone(app)
    assert answered_once(client, rid, mark)


@pytest.mark.parametrize("multiple", [True, False], ids=["multiple", "single"])
def test_file_input_lets_the_page_have_its_files(dialogs, multiple):
    client, app = dialogs
    name = f"picks-{'multiple' if multiple else 'single'}"
    folder = app.home / name
    folder.mkdir()
    (folder / "a.txt").write_text("a")
    (folder / "b.txt").write_text("bb")
    centre = client.run(f"""
        const stage = document.getElementById('stage');
        stage.innerHTML = `<input type="file" id="files" {"multiple" if multiple else ""}
            style="width:400px;height:80px">`;
        const input = document.getElementById('files');
        input.addEventListener('change', () => window.__bridgeTest.send('files', {{
            names: Array.from(input.files, f => f.name), sizes: Array.from(input.files, f => f.size) }}));
        const r = input.getBoundingClientRect();
        return [r.x + r.width / 2, r.y + r.height / 2];
    """)
    mark = client.web.mark()

    app.main_window().click(*centre)
    dialog = wait_dialog(app)
    select_all_in(dialog, f"~/{name}")  # short to type; GTK expands ~ to HOME
    chosen = client.web.wait_for_report("files", since=mark, where=lambda d: d.get("ch") == client.name).data
    wait_dialog_gone(app)
    if multiple:
        assert sorted(zip(chosen["names"], chosen["sizes"])) == [("a.txt", 1), ("b.txt", 2)]
    else:
        assert len(chosen["names"]) == 1 and chosen["names"][0] in ("a.txt", "b.txt"), chosen["names"]


def test_download_is_saved_where_the_dialog_says(dialogs, payloads):
    client, app = dialogs
    inst = client.run("return window.__bridgeTest.inst")
    log = app.log_mark()
    target = app.home / "Downloads" / "quarterly.bin"

    client.navigate(client.web.url("dl/quarterly.bin"))
    wait_dialog(app)
    app.wait_for_log("[Download] save panel for 'quarterly.bin'", since=log)
    app.screen.key("Return")  # the name as suggested, in the folder the dialog opened in
    app.wait_for_log("[Download] finished", since=log)
    wait_dialog_gone(app)

    texts = [line.text for line in app.lines[log:] if line.text.startswith("[Download]")]
    assert texts == ["[Download] save panel for 'quarterly.bin'", f"[Download] saving to {target}",
                     "[Download] finished"]
    assert target.read_bytes() == payloads["quarterly.bin"]
    assert client.run("return window.__bridgeTest.inst") == inst, "the view left the page"


def test_cancelled_download_saves_nothing(dialogs):
    client, app = dialogs
    log = app.log_mark()

    client.navigate(client.web.url("dl/discarded.bin"))
    wait_dialog(app)
    app.wait_for_log("[Download] save panel for 'discarded.bin'", since=log)
    app.screen.key("Escape")
    app.wait_for_log("[Download] cancelled", since=log)
    wait_dialog_gone(app)
    time.sleep(SETTLE)  # a "finished" or "failed" line would follow quickly

    texts = [line.text for line in app.lines[log:] if line.text.startswith("[Download]")]
    assert texts == ["[Download] save panel for 'discarded.bin'", "[Download] cancelled"]
    leftovers = [p.name for p in app.home.rglob("discarded*")]
    assert not leftovers, f"files left by the cancelled download: {leftovers}"
