#!/usr/bin/env python3
"""Double of the sharing hub, for tests of the hub client and the self-test.

    hub_double.py [--port N] [--empty] [--max-mb MB]

Listens on 127.0.0.1, prints "PORT <n>" first, ends when standard input
closes. Point KELVO_HUB_URL at its address. It speaks the hub's wire format:

  GET  /API/hub.php?a=list    200 {"shares": [...]}, newest first; each "url" is
                              relative ("/files/<id>.cln") so clients must resolve it
  POST /API/hub.php?a=upload  multipart title, author, version, fingerprint, pack
                              (all present, author may be empty)
                              200 {"id", "delete_key"}; 400 for a missing field or a
                              pack that is no clone pack; 413 over --max-mb (20);
                              429 for the sixth upload from one address
  POST /API/hub.php?a=delete  form id, delete_key: 200 {"deleted": true};
                              403 wrong key; 404 unknown id
  GET  /files/<id>.cln        the pack

It starts with one share, "Hub demo" (one English female voice with one 5.5 s
clip, bound to airline DEMO), unless --empty is given.
"""

import argparse
import email.parser
import email.policy
import io
import json
import math
import secrets
import struct
import threading
import wave
import zipfile
from urllib.parse import parse_qs, urlsplit

from double_server import DoubleHandler, serve

UPLOAD_FIELDS = ("title", "author", "version", "fingerprint", "pack")


def demo_pack():
    samples = [int(8000 * math.sin(2 * math.pi * 220 * i / 16000) * (0.6 + 0.4 * math.sin(i / 900)))
               for i in range(16000 * 11 // 2)]
    clip = io.BytesIO()
    with wave.open(clip, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(16000)
        w.writeframes(struct.pack("<%dh" % len(samples), *samples))
    manifest = {"format": "kelvo-clone-pack", "version": 1, "exportedAt": "2026-08-01T08:00:00Z",
                "voices": [{"id": "hub-demo", "display": "Hub demo", "language": "en", "gender": "female",
                            "style": "", "note": "from the hub double",
                            "clips": [{"file": "hub-demo-0.wav", "text": "Welcome aboard this flight.",
                                       "durationMs": 5500}]}],
                "airlines": {"DEMO:en:female": "hub-demo"}}
    out = io.BytesIO()
    with zipfile.ZipFile(out, "w", zipfile.ZIP_DEFLATED) as z:
        z.writestr("cln.json", json.dumps(manifest))
        z.writestr("audio/hub-demo-0.wav", clip.getvalue())
    return out.getvalue()


def is_clone_pack(data):
    try:
        with zipfile.ZipFile(io.BytesIO(data)) as z:
            return json.loads(z.read("cln.json")).get("format") == "kelvo-clone-pack"
    except (zipfile.BadZipFile, KeyError, ValueError, AttributeError):
        return False


class Handler(DoubleHandler):
    lock = threading.Lock()
    shares = []  # dicts with the listing keys plus "data" and "key"
    uploads = {}  # address -> count
    max_bytes = 20 << 20

    def error(self, status, code, message):
        self.send(status, json.dumps({"error": code, "message": message}).encode(), "application/json")

    def action(self):
        url = urlsplit(self.path)
        return url.path, parse_qs(url.query).get("a", [""])[0]

    def do_GET(self):
        path, action = self.action()
        if path.startswith("/files/"):
            with self.lock:
                found = [s for s in self.shares if path == "/files/%s.cln" % s["id"]]
            if not found:
                return self.error(404, "not_found", "no such share")
            return self.send(200, found[0]["data"], "application/zip")
        if path != "/API/hub.php" or action != "list":
            return self.error(404, "not_found", "unknown address")
        with self.lock:
            listing = [{k: s[k] for k in ("id", "title", "author", "voices", "clips", "bytes", "created_at", "url")}
                       for s in reversed(self.shares)]
        self.send(200, json.dumps({"shares": listing}).encode(), "application/json")

    def do_POST(self):
        path, action = self.action()
        body = self.read_body()
        if path != "/API/hub.php":
            return self.error(404, "not_found", "unknown address")
        if action == "upload":
            return self.upload(body)
        if action == "delete":
            return self.delete(body)
        self.error(400, "unknown_action", "unknown action")

    def upload(self, body):
        address = self.client_address[0]
        with self.lock:
            self.uploads[address] = self.uploads.get(address, 0) + 1
            if self.uploads[address] > 5:
                return self.error(429, "too_many_uploads", "5 uploads an hour")
        if len(body) > self.max_bytes + 65536:
            return self.error(413, "pack_too_large", "too large")
        fields = self.multipart(body)
        missing = [f for f in UPLOAD_FIELDS if f not in fields]
        if missing:
            return self.error(400, "bad_form", "missing " + ", ".join(missing))
        pack = fields["pack"]
        if len(pack) > self.max_bytes:
            return self.error(413, "pack_too_large", "too large")
        if not is_clone_pack(pack):
            return self.error(400, "not_a_pack", "this is not a clone pack")
        share_id, key = secrets.token_hex(6), secrets.token_hex(16)
        with self.lock:
            self.shares.append(self.share(share_id, fields["title"].decode(), fields["author"].decode(), pack, key))
        self.send(200, json.dumps({"id": share_id, "delete_key": key}).encode(), "application/json")

    def delete(self, body):
        fields = {k: v[0] for k, v in parse_qs(body.decode("utf-8", "replace")).items()}
        with self.lock:
            found = [s for s in self.shares if s["id"] == fields.get("id")]
            if not found:
                return self.error(404, "not_found", "no such share")
            if found[0]["key"] != fields.get("delete_key"):
                return self.error(403, "wrong_delete_key", "wrong delete key")
            self.shares.remove(found[0])
        self.send(200, b'{"deleted": true}', "application/json")

    def multipart(self, body):
        head = ("Content-Type: %s\r\n\r\n" % self.headers.get("Content-Type", "")).encode()
        message = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(head + body)
        if not message.is_multipart():
            return {}
        return {part.get_param("name", header="content-disposition"): part.get_payload(decode=True)
                for part in message.iter_parts()}

    @staticmethod
    def share(share_id, title, author, data, key):
        with zipfile.ZipFile(io.BytesIO(data)) as z:
            voices = json.loads(z.read("cln.json"))["voices"]
        return {"id": share_id, "title": title, "author": author, "voices": len(voices),
                "clips": sum(len(v.get("clips", [])) for v in voices), "bytes": len(data),
                "created_at": "2026-08-01T08:00:00Z", "url": "/files/%s.cln" % share_id, "data": data, "key": key}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--empty", action="store_true")
    parser.add_argument("--max-mb", type=float, default=20)
    args = parser.parse_args()
    Handler.max_bytes = int(args.max_mb * (1 << 20))
    if not args.empty:
        Handler.shares.append(Handler.share("demo01", "Hub demo", "double", demo_pack(), secrets.token_hex(16)))
    serve(Handler, args.port)


if __name__ == "__main__":
    main()
