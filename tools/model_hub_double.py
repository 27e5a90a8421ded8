#!/usr/bin/env python3
"""Double of the model hub (and its mirror), for tests of the model downloader.

    model_hub_double.py --dir DIR [--port N] [--mode MODE]

Listens on 127.0.0.1 (port N, or a free one with 0, the default), prints
"PORT <n>" as its first line, and serves GET <any path>/<name> with the file
<name> from DIR as application/octet-stream. It ends when its standard input
closes or on SIGTERM.

Modes (also switched at run time with POST /_mode?m=MODE, which clears the log):
  whole        Range honoured: 206 with Content-Range, 416 past the end
  cut          the first request for each file is cut off after 40 % of the
               file (the connection closes early); later requests as whole
  norange      Range ignored: always 200 with the whole file
  cut-norange  cut, then Range ignored (the client must start again)
  busy         the first request for each file gets 503; later ones as whole
  stall        the first request for each file sends 40 % and then nothing,
               holding the connection for 30 s; later ones as whole
  portal       every request gets a captive portal's page: 200 text/html
  disguised    .gguf requests get 2 MB of HTML labelled application/octet-stream
  short        .gguf requests get a complete 200 of 100 kB starting with "GGUF"

GET /_log answers a JSON list of {"method", "path", "status", "range"}, one per
answer.
"""

import argparse
import json
import os
import re
import socket
import time
from urllib.parse import parse_qs, urlsplit

from double_server import DoubleHandler, serve

PORTAL = (b"<!DOCTYPE html><html><head><title>Airport Wi-Fi</title></head><body>"
          b"<form action='/login'>Accept the terms to continue</form></body></html>")


class Handler(DoubleHandler):
    folder = "."
    mode = "whole"
    spoiled = set()  # files whose first request was already spoiled

    def first_request(self, name):
        with self.log_lock:
            first = name not in self.spoiled
            self.spoiled.add(name)
            return first

    def do_POST(self):
        url = urlsplit(self.path)
        if url.path != "/_mode":
            return self.send(404, b"not found", "text/plain")
        with self.log_lock:
            Handler.mode = parse_qs(url.query).get("m", ["whole"])[0]
            self.log.clear()
            self.spoiled.clear()
        self.send(200, b"ok", "text/plain")

    def do_GET(self):
        url = urlsplit(self.path)
        if url.path == "/_log":
            with self.log_lock:
                body = json.dumps(self.log).encode()
            return self.send(200, body, "application/json")
        name = os.path.basename(url.path)
        if self.mode == "portal":
            return self.answer(200, PORTAL, "text/html; charset=utf-8")
        if self.mode == "disguised" and name.endswith(".gguf"):
            return self.answer(200, PORTAL * (2 * 1024 * 1024 // len(PORTAL)))
        if self.mode == "short" and name.endswith(".gguf"):
            return self.answer(200, b"GGUF" + bytes(100 * 1024 - 4))
        path = os.path.join(self.folder, name)
        if not name or not os.path.isfile(path):
            return self.answer(404, b"<html>not found</html>", "text/html")
        with open(path, "rb") as f:
            data = f.read()
        if self.mode == "busy" and self.first_request(name):
            return self.answer(503, b"busy", "text/plain")
        if self.mode in ("cut", "cut-norange", "stall") and self.first_request(name):
            return self.spoil(data)
        match = re.fullmatch(r"bytes=(\d+)-", self.headers.get("Range", ""))
        if match is None or self.mode in ("norange", "cut-norange"):
            return self.answer(200, data)
        start = int(match.group(1))
        if start >= len(data):
            return self.answer(416, b"", "text/plain", [("Content-Range", "bytes */%d" % len(data))])
        self.answer(206, data[start:], headers=[("Content-Range", "bytes %d-%d/%d" % (start, len(data) - 1, len(data)))])

    def answer(self, status, body, content_type="application/octet-stream", headers=()):
        self.send(status, body, content_type, headers, range=self.headers.get("Range", ""))

    def spoil(self, data):
        """Announces the whole file, sends 40 % of it, then cuts or stalls."""
        self.record(200, range=self.headers.get("Range", ""))
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data[: len(data) * 40 // 100])
        self.wfile.flush()
        if self.mode == "stall":
            time.sleep(30)
        self.close_connection = True
        try:
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--mode", default="whole")
    args = parser.parse_args()
    Handler.folder = args.dir
    Handler.mode = args.mode
    serve(Handler, args.port)


if __name__ == "__main__":
    main()
