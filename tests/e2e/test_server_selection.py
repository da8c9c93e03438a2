"""Where the server address comes from, as seen in the log, the settings file and the page."""

import json

from harness import DEMO_INSTANCE, SERVICE_DOMAIN


def server_lines(app):
    return [line for line in app.messages() if line.startswith("[Server]")]


def is_page(query):
    return lambda data: data.get("page") == f"/select.html?src={query}"


def demo_url():
    return DEMO_INSTANCE if "://" in DEMO_INSTANCE else f"https://{DEMO_INSTANCE}"


def accept_prompt(app, typed=None):
    """Answers the first-run prompt like a user: optionally replace the text, then Return."""
    prompt = app.prompt_window()
    prompt.focus()
    if typed is not None:
        app.screen.key("ctrl+a")
        app.screen.type_text(typed)
    app.screen.key("Return")
    return prompt


def test_command_line_wins_over_settings_file(launch, web):
    cmd_url, file_url = web.url("select.html?src=cmd"), web.url("select.html?src=file")
    original = json.dumps({"server": file_url, "updateEnabled": False})
    mark = web.mark()
    app = launch(cmd_url, config_text=original)
    mtime = app.config_path.stat().st_mtime_ns

    web.wait_for_report("load", since=mark, where=is_page("cmd"))
    app.main_window()
    assert server_lines(app) == [f"[Server] loading {cmd_url} (from command line)"]
    assert not web.reports("load", since=mark, where=is_page("file"))
    assert app.read_config_text() == original
    assert app.config_path.stat().st_mtime_ns == mtime


def test_command_line_outside_domain_falls_through_to_file(launch, web):
    file_url = web.url("select.html?src=file")
    mark = web.mark()
    app = launch("https://www.example.com", config={"server": file_url, "updateEnabled": False})

    web.wait_for_report("load", since=mark, where=is_page("file"))
    assert server_lines(app) == [
        f"[Server] ignoring command-line URL (only *.{SERVICE_DOMAIN} or localhost servers are allowed)",
        f'[Server] loading {file_url} (from "server" in {app.config_path})',
    ]


def test_json_array_file_is_replaced_by_the_prompt_choice(launch, web):
    chosen = web.url("select.html?src=prompt")
    mark = web.mark()
    app = launch(config_text='["server", "https://x.on.ondrel.example"]\n')

    app.wait_for_log("is not a JSON object")
    accept_prompt(app, typed=chosen)
    web.wait_for_report("load", since=mark, where=is_page("prompt"))
    app.main_window()

    assert server_lines(app) == [
        f'[Server] {app.config_path} is not a JSON object — ignoring its "server" entry, if any',
        f'[Server] saved "server" to {app.config_path}',
        f"[Server] loading {chosen} (chosen in the first-run prompt)",
    ]
    assert json.loads(app.read_config_text()) == {"server": chosen}


def test_prompt_choice_keeps_other_keys_sorted_and_pretty(launch):
    # File order deliberately unsorted, so sorting is visible in the result.
    app = launch(config_text='{"updateEnabled": false, "mcpServers": {}}')

    accept_prompt(app)
    app.wait_for_log(f"[Server] loading {demo_url()} (chosen in the first-run prompt)")
    app.main_window()

    text = app.read_config_text()
    assert json.loads(text) == {"mcpServers": {}, "server": demo_url(), "updateEnabled": False}
    assert text.index('"mcpServers"') < text.index('"server"') < text.index('"updateEnabled"')
    lines = text.strip().splitlines()
    assert len(lines) >= 4 and lines[0] == "{" and lines[-1] == "}", f"not pretty-printed:\n{text}"
    assert all(line.startswith("  ") for line in lines[1:-1]), f"not indented:\n{text}"
