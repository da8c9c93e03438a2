#!/usr/bin/python3
"""An MCP server that misbehaves on purpose, from the moment GO_FILE exists.

    flood_server.py MODE GO_FILE

notify      answers like a server with one tool ("echo") and floods
            notifications/message without pause
deaf        never reads its input and floods ping requests
long-lines  answers like "notify" and writes 40 MiB lines without pause
"""

import json
import os
import sys
import threading
import time

mode, go_file = sys.argv[1], sys.argv[2]
out = sys.stdout.buffer
lock = threading.Lock()


def write(data: bytes):
    with lock:
        out.write(data)
        out.flush()


def wait_for_go():
    while not os.path.exists(go_file):
        time.sleep(0.02)


def flood():
    wait_for_go()
    if mode == "notify":
        block = b"".join(json.dumps({"jsonrpc": "2.0", "method": "notifications/message",
                                     "params": {"level": "info", "message": f"flood {i}"}}).encode() + b"\n"
                         for i in range(2000))
    elif mode == "deaf":
        block = b"".join(json.dumps({"jsonrpc": "2.0", "id": i, "method": "ping"}).encode() + b"\n"
                         for i in range(2000))
    else:
        block = b"x" * (40 << 20) + b"\n"
    try:
        while True:
            write(block)
    except OSError:
        os._exit(0)


def serve():
    for line in sys.stdin:
        msg = json.loads(line)
        if "id" not in msg:
            continue
        method = msg.get("method")
        if method == "initialize":
            result = {"protocolVersion": "2024-11-05", "capabilities": {"tools": {}},
                      "serverInfo": {"name": "flood", "version": "1"}}
        elif method == "tools/list":
            result = {"tools": [{"name": "echo", "inputSchema": {"type": "object"}}]}
        elif method == "tools/call":
            result = {"content": [{"type": "text", "text": json.dumps(msg["params"]["arguments"])}]}
        else:
            result = {}
        write(json.dumps({"jsonrpc": "2.0", "id": msg["id"], "result": result}).encode() + b"\n")


if mode == "deaf":
    flood()
else:
    threading.Thread(target=flood, daemon=True).start()
    serve()
