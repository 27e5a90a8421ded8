#!/usr/bin/python3
"""The API as others build against it: every documented operation reached and
its answers held to the OpenAPI document, API keys and scopes with the local
command line working throughout, and /metrics read by Prometheus's own parser."""
import base64
import http.client
import json
import os
import socket
import stat
import subprocess
import sys
import tempfile
import time
import unittest

if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
    os.environ["KELVO_BIN"] = sys.argv.pop(1)

from prometheus_client.parser import text_string_to_metric_families  # noqa: E402

from serve_test import KELVO, Server, free_port, tone_wav  # noqa: E402

LINE = {"text": "Flight KV 7 is now boarding", "language": "en"}


def multipart(fields, files):
    boundary = "kelvo-test-boundary"
    out = b""
    for name, value in fields.items():
        out += f'--{boundary}\r\nContent-Disposition: form-data; name="{name}"\r\n\r\n{value}\r\n'.encode()
    for name, (filename, data) in files.items():
        out += (f'--{boundary}\r\nContent-Disposition: form-data; name="{name}"; filename="{filename}"\r\n'
                f"Content-Type: application/octet-stream\r\n\r\n").encode() + data + b"\r\n"
    return out + f"--{boundary}--\r\n".encode(), f"multipart/form-data; boundary={boundary}"


class ApiTest(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="kelvo-api-")

    def tearDown(self):
        subprocess.run(["rm", "-rf", self.home], check=False)

    def kelvo(self, *args, url, expect=0):
        env = dict(os.environ, KELVO_HOME=self.home, LANGUAGE="en")
        env.pop("KELVO_API_KEY", None)
        run = subprocess.run([KELVO, *args, "--url", url], env=env, capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, expect, f"kelvo {' '.join(args)}\n{run.stdout}{run.stderr}")
        return run.stdout + run.stderr

    def test_every_operation_answers_as_documented(self):
        srv = Server(self.home, free_port(), "--hub")
        try:
            req, js = srv.request, srv.json
            self.assertEqual(req("GET", "/health")[0], 200)
            status, headers, _ = req("POST", "/v1/tts", LINE)
            self.assertEqual(status, 200)
            self.assertEqual(req("POST", "/v1/tts", LINE, {"If-None-Match": headers["ETag"]})[0], 304)
            self.assertEqual(req("GET", "/v1/tts?text=Gate+4&language=en")[0], 200)
            status, headers, _ = req("POST", "/v1/audio/speech", {"input": "Gate 4", "language": "en"})
            self.assertEqual((status, headers["Content-Type"]), (200, "audio/mpeg"))
            self.assertEqual(js("POST", "/v1/audio/speech", {"input": " "})[1]["error"]["code"], "empty_text")
            self.assertIn("tts-1", [m["id"] for m in js("GET", "/v1/models")[1]["data"]])
            for body, code in (([1], "bad_json"), ({"text": " "}, "empty_text"), ({"text": "hi", "voice": "nobody"}, "bad_voice"),
                               ({"text": "x" * 5001}, "text_too_long")):
                self.assertEqual(js("POST", "/v1/tts", body)[1]["error"], code)
            self.assertEqual(js("POST", "/v1/prewarm", {"items": [{"text": "Gate 5"}, {"text": ""}]})[1]["skipped_empty"], 1)
            self.assertEqual(js("GET", "/v1/prewarm?text=Gate+6&language=en")[0], 200)
            self.assertEqual(js("POST", "/v1/prewarm", b"{")[1]["error"], "bad_json")
            self.assertIn("dropped", js("DELETE", "/v1/prewarm")[1])
            self.assertIn("checks", js("GET", "/v1/selftest?format=json")[1])
            self.assertEqual(req("GET", "/selftest")[0], 200)

            tone = tone_wav()
            clip = base64.b64encode(tone).decode()
            status, voice = js("POST", "/v1/voices/clone", {"display": "Anna", "audio": clip, "reference_text": "hello",
                                                           "language": "en", "gender": "female"})
            self.assertEqual(status, 200, voice)
            self.assertEqual(js("POST", "/v1/voices/clone", {"audio": "!!"})[1]["error"], "bad_audio")
            self.assertIn(voice["id"], [v["id"] for v in js("GET", "/v1/voices")[1]["voices"]])
            self.assertEqual(js("GET", f"/v1/voices/{voice['id']}")[1]["display"], "Anna")
            status, headers, stored = req("GET", f"/v1/voices/{voice['id']}/clips/0")
            self.assertEqual((status, headers["Content-Type"]), (200, "audio/wav"))
            self.assertTrue(stored == tone, "the clip sent back is not the clip that was cloned from")
            for missing in (f"/v1/voices/{voice['id']}/clips/1", f"/v1/voices/{voice['id']}/clips/x",
                            "/v1/voices/ghost/clips/0"):
                self.assertEqual(js("GET", missing)[1]["error"], "not_found", missing)
            self.assertEqual(js("GET", "/v1/voices/ghost")[0], 404)
            for path, extra in (("/v1/airlines", {"airline": "KVO"}), ("/v1/defaults", {})):
                self.assertEqual(js("PUT", path, dict(extra, language="en", voice=voice["id"]))[0], 200)
                self.assertEqual(js("PUT", path, dict(extra, voice="ghost"))[1]["error"], "not_found")
                self.assertIn(voice["id"], [b["voice"] for b in js("GET", path)[1][path.split("/")[-1]]])
            self.assertEqual(js("PUT", "/v1/airlines", {"voice": voice["id"]})[1]["error"], "bad_request")
            self.assertGreater(js("GET", "/v1/stats")[1]["total"], 0)
            self.assertEqual(len(js("GET", "/v1/log?lines=3")[1]["lines"]), 3)
            self.assertIn(b"kelvo_build_info", req("GET", "/metrics")[2])

            status, _, pack = req("POST", "/v1/packs/export", {"voices": [voice["id"]]})
            self.assertEqual((status, pack[:2]), (200, b"PK"))
            self.assertEqual(js("POST", "/v1/packs/export", {})[1]["error"], "bad_request")
            self.assertEqual(js("POST", "/v1/packs/import", pack, {"Content-Type": "application/zip"})[1]["voices"], 1)
            self.assertEqual(js("POST", "/v1/packs/import", b"not a zip")[0], 400)

            status, admin = js("POST", "/v1/keys", {"name": "ops", "scope": "admin"})
            self.assertEqual((status, admin["scope"]), (200, "admin"))
            srv.key = admin["key"]  # from now on the API is closed to callers without a key
            status, key = js("POST", "/v1/keys", {"name": "kiosk-1"})
            self.assertEqual((status, key["scope"]), (200, "speak"))
            self.assertTrue(key["key"].startswith("kelvo_") and len(key["key"]) >= 6 + 32, key)
            self.assertEqual(js("POST", "/v1/keys", {"name": "kiosk-1"})[1]["error"], "key_exists")
            self.assertEqual(js("POST", "/v1/keys", {"name": "no spaces"})[1]["error"], "bad_request")
            self.assertEqual(js("POST", "/v1/keys", {"name": "x", "scope": "root"})[1]["error"], "bad_request")
            self.assertEqual([k["name"] for k in js("GET", "/v1/keys")[1]["keys"]], ["ops", "kiosk-1"])
            self.assertEqual(js("DELETE", "/v1/keys/kiosk-1")[1], {"removed": "kiosk-1"})
            self.assertEqual(js("DELETE", "/v1/keys/kiosk-1")[0], 404)

            form, form_type = multipart({"title": "Anna"}, {"pack": ("anna.cln", pack)})
            status, share = js("POST", "/API/hub.php?a=upload", form, {"Content-Type": form_type})
            self.assertEqual(status, 200, share)
            self.assertEqual(js("GET", "/API/hub.php?a=list")[1]["shares"][0]["id"], share["id"])
            self.assertEqual(js("POST", "/API/hub.php?a=bogus")[1]["error"], "unknown_action")
            delete = f"id={share['id']}&delete_key={share['delete_key']}".encode()
            self.assertEqual(js("POST", "/API/hub.php?a=delete", delete,
                                {"Content-Type": "application/x-www-form-urlencoded"})[0], 200)

            hub = f"http://127.0.0.1:{srv.port}"  # the service is its own hub here
            status, mine = js("POST", "/v1/hub/shares", {"title": "Anna", "voices": [voice["id"]], "hub": hub})
            self.assertEqual((status, mine["pack"]["voices"]), (200, 1), mine)
            self.assertEqual(js("DELETE", f"/v1/hub/shares/{mine['id']}?hub={hub}")[1]["removed"], True)
            self.assertEqual(js("DELETE", f"/v1/hub/shares/{mine['id']}?hub={hub}")[1]["error"], "not_found")
            self.assertEqual(js("DELETE", f"/v1/voices/{voice['id']}")[1]["removed"], voice["id"])
            self.assertEqual(js("DELETE", "/v1/cache")[1], {"cleared": True})
            for method, path, status in (("GET", "/v1/nothing", 404), ("PUT", "/v1/stats", 405), ("GET", "/v1/cache", 404),
                                         ("POST", "/v1/voices/ghost", 404), ("GET", "/v1/packs/export", 405)):
                self.assertEqual(req(method, path)[0], status, path)

            # The browser console: "/" and "/console" send a browser on (urllib would follow, so
            # plain http.client); its files carry a tag that answers 304 and a policy without inline script.
            for path in ("/", "/console"):
                connection = http.client.HTTPConnection("127.0.0.1", srv.port, timeout=10)
                connection.request("GET", path)
                answer = connection.getresponse()
                srv.contract.check("GET", path, answer.status, answer.headers, answer.read())
                self.assertEqual((answer.status, answer.headers["Location"]), (302, "/console/"), path)
                connection.close()
            status, headers, page = req("GET", "/console/")
            self.assertEqual((status, headers["Content-Type"]), (200, "text/html; charset=utf-8"))
            self.assertIn(b'<script type="module" src="main.js">', page)
            policy = headers["Content-Security-Policy"]
            self.assertIn("default-src 'self'", policy)
            self.assertIn("frame-ancestors 'none'", policy)
            self.assertNotIn("unsafe-inline", policy)
            status, headers, _ = req("GET", "/console/views/speak.js")
            self.assertEqual((status, headers["Content-Type"]), (200, "text/javascript; charset=utf-8"))
            self.assertEqual(req("GET", "/console/views/speak.js", None, {"If-None-Match": headers["ETag"]})[0], 304)
            self.assertEqual(req("GET", "/console/views/SPEAK.js")[0], 404)

            self.assertEqual(srv.contract.operations() - srv.contract.reached, set())
            self.assertGreater(srv.contract.checked, 40)  # the JSON answers above, each validated
        finally:
            srv.stop()

    def test_keys_and_scopes(self):
        port = free_port()
        url = f"http://127.0.0.1:{port}"
        srv = Server(self.home, port)
        try:
            self.assertIn("no API keys yet", self.kelvo("keys", "list", url=url))
            self.assertEqual(srv.request("POST", "/v1/tts", LINE)[0], 200)
            admin = self.kelvo("keys", "add", "ops", "--scope", "admin", url=url).split()[-1]
            speak = self.kelvo("keys", "add", "kiosk", url=url).split()[-1]
            old = self.kelvo("keys", "add", "old", url=url).split()[-1]
            self.assertEqual(srv.request("GET", "/v1/stats", headers={"Authorization": "Bearer " + old})[0], 200)
            self.assertIn('revoked key "old"', self.kelvo("keys", "rm", "old", url=url))

            data = os.path.join(self.home, "data")
            for name in ("api-keys.json", "local-admin.key"):
                self.assertEqual(stat.S_IMODE(os.stat(os.path.join(data, name)).st_mode), 0o600, name)
            with open(os.path.join(data, "api-keys.json")) as f:
                stored = f.read()
            for key in (admin, speak, old):
                self.assertNotIn(key, stored)
            with open(os.path.join(data, "config.json")) as f:
                self.assertNotIn("kelvo_", f.read())

            # One route of each scope: open, speak (a line the cache answers on its quick path),
            # admin (clearing the cache).
            routes = (("GET", "/v1/health", None), ("POST", "/v1/tts", LINE), ("DELETE", "/v1/cache", None))
            callers = (("no key", None, (200, 401, 401)),
                       ("wrong key", "kelvo_" + "0" * 48, (200, 401, 401)),
                       ("revoked key", old, (200, 401, 401)),
                       ("speak key", speak, (200, 200, 403)),
                       ("admin key", admin, (200, 200, 200)))
            for caller, key, expected in callers:
                headers = {"Authorization": "Bearer " + key} if key else {}
                got = []
                for method, path, body in routes:
                    status, answer_headers, body = srv.request(method, path, body, headers)
                    got.append(status)
                    if status == 401:
                        self.assertEqual(answer_headers["WWW-Authenticate"], "Bearer")
                        self.assertEqual(json.loads(body)["error"], "unauthorized")
                self.assertEqual(tuple(got), expected, caller)
                count = json.loads(srv.request("GET", "/v1/stats", headers={"Authorization": "Bearer " + admin})[2])
                self.assertEqual(count["cache_count"], 0 if caller == "admin key" else 1, caller)
                self.assertIn("placeholder", self.kelvo("status", url=url), caller)

            listed = {k["name"]: k for k in json.loads(self.kelvo("keys", "list", "--json", url=url))["keys"]}
            self.assertEqual(sorted(listed), ["kiosk", "ops"])
            self.assertEqual(listed["ops"]["scope"], "admin")
            self.assertTrue(listed["kiosk"]["last_used"] and listed["kiosk"]["created"])

            # A pack upload goes to a file only for a caller whose key may import; anyone
            # else is held to the ordinary body limit, refused before a byte is stored.
            for key in (None, speak):
                auth = f"Authorization: Bearer {key}\r\n" if key else ""
                with socket.create_connection(("127.0.0.1", port), timeout=10) as s:
                    s.sendall(f"POST /v1/packs/import HTTP/1.1\r\nHost: x\r\n{auth}"
                              f"Content-Length: {100 << 20}\r\n\r\n".encode())
                    self.assertTrue(s.recv(4096).startswith(b"HTTP/1.1 413"), key)

            # Wrong keys count against the caller: six so far, the tenth is the last one answered.
            wrong = {"Authorization": "Bearer kelvo_guess"}
            statuses = [srv.request("GET", "/v1/stats", headers=wrong)[0] for _ in range(5)]
            self.assertEqual(statuses, [401] * 4 + [429])
            self.assertEqual(srv.request("GET", "/v1/stats", headers={"Authorization": "Bearer " + admin})[0], 429)
            self.assertEqual(srv.request("GET", "/v1/health")[0], 200)
        finally:
            code, err = srv.stop()
        self.assertEqual(code, 0, err)
        self.assertNotIn("anyone who can reach", err)

        # Keys outlive the service; without one running, the command line edits the file itself.
        self.assertIn("kiosk", self.kelvo("keys", "list", url=url))
        self.assertIn('revoked key "kiosk"', self.kelvo("keys", "rm", "kiosk", url=url))
        srv = Server(self.home, port, key=admin)
        try:
            self.assertEqual(srv.request("GET", "/v1/stats", headers={"Authorization": "Bearer " + speak})[0], 401)
            self.assertEqual(srv.request("GET", "/v1/stats")[0], 200)
            self.assertIn("placeholder", self.kelvo("status", url=url))
        finally:
            srv.stop()

    def test_metrics_move_by_what_was_done(self):
        srv = Server(self.home, free_port())

        def scrape():
            status, headers, body = srv.request("GET", "/metrics")
            self.assertEqual((status, headers["Content-Type"]), (200, "text/plain; version=0.0.4; charset=utf-8"))
            samples = {}
            for family in text_string_to_metric_families(body.decode()):
                for s in family.samples:
                    samples[(s.name, tuple(sorted(s.labels.items())))] = s.value
            return samples

        def delta(name, **labels):
            key = (name, tuple(sorted(labels.items())))
            return after.get(key, 0) - before.get(key, 0)

        try:
            before = scrape()
            status, headers, _ = srv.request("POST", "/v1/tts", LINE)
            self.assertEqual((status, headers["X-KELVO-Cache"]), (200, "miss"))
            self.assertEqual(srv.request("POST", "/v1/tts", LINE)[1]["X-KELVO-Cache"], "hit")
            for junk in ("/nope/1", "/nope/2", "/v1/voices/ghost"):
                srv.request("GET", junk)
            # A fresh line is stored after its answer has gone out: wait for it (counted on /v1/stats only).
            for _ in range(100):
                if srv.json("GET", "/v1/stats")[1]["cache_count"] == 1:
                    break
                time.sleep(0.05)
            after = scrape()
            engine = headers["X-KELVO-Engine"]
        finally:
            srv.stop()
        tts = {"route": "/v1/tts", "method": "POST", "status": "200"}
        self.assertEqual(delta("kelvo_http_requests_total", **tts), 2)
        self.assertEqual(delta("kelvo_http_requests_total", route="/metrics", method="GET", status="200"), 1)
        self.assertEqual(delta("kelvo_http_requests_total", route="unmatched", method="GET", status="404"), 2)
        self.assertEqual(delta("kelvo_http_requests_total", route="/v1/voices/{id}", method="GET", status="404"), 1)
        self.assertEqual(delta("kelvo_http_request_duration_seconds_count", route="/v1/tts"), 2)
        self.assertEqual(delta("kelvo_http_request_duration_seconds_bucket", route="/v1/tts", le="+Inf"), 2)
        self.assertEqual(delta("kelvo_synthesis_duration_seconds_count", engine=engine), 1)
        self.assertEqual(delta("kelvo_cache_hits_total"), 1)
        self.assertEqual(delta("kelvo_cache_misses_total"), 1)
        self.assertEqual(delta("kelvo_cache_entries"), 1)
        self.assertGreater(delta("kelvo_cache_bytes"), 44)
        self.assertEqual(after[("kelvo_build_info", (("version", srv.contract.document["info"]["version"]),))], 1)
        self.assertEqual(after[("kelvo_queue_depth", ())], 0)
        routes = {dict(labels).get("route") for _, labels in after} - {None}
        self.assertLessEqual(routes, set(srv.contract.document["paths"]) | {"unmatched"})


if __name__ == "__main__":
    unittest.main(verbosity=2)
