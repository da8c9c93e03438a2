#!/usr/bin/env python3
"""Serves the bundled demo instance on 127.0.0.1.

Prints the address on its first line. When --loaded-flag is given, the
page's load report (GET /__loaded) touches that file, so a headless run
knows when to take its screenshot.
"""
import argparse
import http.server
import os
import pathlib
import sys

here = pathlib.Path(__file__).resolve().parent


class Handler(http.server.SimpleHTTPRequestHandler):
    loaded_flag = None

    def __init__(self, *args, **kwargs):
        super().__init__(*args, directory=str(here / "site"), **kwargs)

    def do_GET(self):
        if self.path.startswith("/__loaded"):
            if Handler.loaded_flag:
                pathlib.Path(Handler.loaded_flag).touch()
            self.send_response(204)
            self.end_headers()
            return
        super().do_GET()

    def end_headers(self):
        self.send_header("Cache-Control", "no-store")
        super().end_headers()

    def log_message(self, *args):
        pass


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--loaded-flag")
    args = parser.parse_args()
    Handler.loaded_flag = args.loaded_flag
    server = http.server.ThreadingHTTPServer(("127.0.0.1", args.port), Handler)
    print(f"http://127.0.0.1:{server.server_address[1]}/", flush=True)
    try:
        server.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == "__main__":
    sys.exit(main())
