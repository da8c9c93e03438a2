"""The first-run prompt as a user meets it: its language, Return, Escape and closing it."""

import json

import pytest

from harness import DEMO_INSTANCE, ocr, poll

GERMAN = ("Mit Ondrel verbinden", "Weiter", "Abbrechen")
ENGLISH = ("Connect to Ondrel", "Continue", "Cancel")


def demo_url():
    return DEMO_INSTANCE if "://" in DEMO_INSTANCE else f"https://{DEMO_INSTANCE}"


def read_prompt(prompt):
    """The prompt's text as OCR reads it, once its widgets have been drawn."""
    def text():
        words = ocr(prompt.screenshot())
        return words if "Ondrel" in words else None
    return poll(text, 15, 0.3, "the prompt shows no readable text")


@pytest.mark.parametrize("language, env, expected, other", [
    ("de_CH", {}, GERMAN, ENGLISH),
    (None, {"LC_ALL": "de_CH.UTF-8"}, GERMAN, ENGLISH),
    ("fr_FR:fr", {}, ENGLISH, GERMAN),
], ids=["LANGUAGE=de_CH", "LC_ALL=de_CH", "LANGUAGE=fr"])
def test_prompt_language(launch, language, env, expected, other):
    app = launch(language=language, env=env)
    prompt = app.prompt_window()

    geometry = prompt.geometry()
    assert 440 <= geometry.width <= 600, geometry
    text = read_prompt(prompt)
    # OCR gets letters right more reliably than their case.
    for phrase in expected:
        assert phrase.lower() in text.lower(), f"{phrase!r} not shown; the prompt reads: {text!r}"
    for phrase in other:
        assert phrase.lower() not in text.lower(), f"{phrase!r} shown; the prompt reads: {text!r}"
    assert DEMO_INSTANCE in text.replace(" ", ""), f"demo address not pre-filled: {text!r}"


def test_return_accepts_the_demo_address(launch):
    app = launch()
    prompt = app.prompt_window()
    prompt.focus()
    app.screen.key("Return")

    app.wait_for_log(f"[Server] loading {demo_url()} (chosen in the first-run prompt)")
    app.main_window()
    poll(lambda: not prompt.is_viewable(), 5, message="the prompt stayed on screen")
    assert f'[Server] saved "server" to {app.config_path}' in app.messages()
    # The MCP registry created the file at start with its empty "mcpServers";
    # the answer is saved beside it.
    assert json.loads(app.read_config_text()) == {"mcpServers": {}, "server": demo_url()}


@pytest.mark.parametrize("how", ["escape", "close-request"])
def test_cancelling_ends_quietly_without_main_window(launch, map_watcher, how):
    app = launch()
    prompt = app.prompt_window()
    prompt.focus()
    if how == "escape":
        app.screen.key("Escape")
    else:
        prompt.request_close()

    assert app.wait_exit() == 0
    assert "[Server] no server chosen — startup cancelled" in app.messages()
    # Only the MCP registry's default content: no server was saved.
    assert json.loads(app.read_config_text()) == {"mcpServers": {}}
    widths = [m["width"] for m in map_watcher.maps_of(app.pid)]
    assert widths and all(w < 1000 for w in widths), f"windows mapped by the app: {widths}"
