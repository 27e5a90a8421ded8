#!/usr/bin/env python3
"""End-to-end runs of the real `kelvo serve`: a temporary data root, a free
loopback port, plain HTTP from the standard library, SIGTERM, a restart."""
import io
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request
import wave
import base64

KELVO = os.environ.get("KELVO_BIN") or sys.argv.pop(1)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def tone_wav(seconds=5, rate=16000):
    frames = bytearray()
    for i in range(seconds * rate):
        frames += (9000 if (i // 20) % 2 else -9000).to_bytes(2, "little", signed=True)
    out = io.BytesIO()
    with wave.open(out, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(bytes(frames))
    return out.getvalue()


class Server:
    """One `kelvo serve` process; stderr is collected in a file."""

    def __init__(self, home, port, *extra):
        self.port = port
        self.log = open(os.path.join(home, "stderr.txt"), "w+")
        env = dict(os.environ, KELVO_HOME=home, LANGUAGE="en")
        env.pop("KELVO_VERBOSE", None)
        self.proc = subprocess.Popen([KELVO, "serve", "--port", str(port), "--bind", "127.0.0.1", *extra],
                                     env=env, stdout=subprocess.DEVNULL, stderr=self.log)
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise AssertionError("kelvo serve exited early:\n" + self.stderr())
            try:
                if self.request("GET", "/v1/health")[0] == 200:
                    return
            except OSError:
                time.sleep(0.05)
        raise AssertionError("kelvo serve did not answer /v1/health in 20 s")

    def request(self, method, path, body=None, headers=None):
        data = json.dumps(body).encode() if isinstance(body, (dict, list)) else body
        req = urllib.request.Request(f"http://127.0.0.1:{self.port}{path}", data=data, method=method,
                                     headers=headers or {})
        try:
            with urllib.request.urlopen(req, timeout=30) as r:
                return r.status, r.headers, r.read()
        except urllib.error.HTTPError as e:
            return e.code, e.headers, e.read()

    def json(self, method, path, body=None):
        status, _, data = self.request(method, path, body)
        return status, json.loads(data)

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        code = self.proc.wait(timeout=15)
        err = self.stderr()
        self.log.close()
        return code, err

    def stderr(self):
        self.log.flush()
        self.log.seek(0)
        return self.log.read()


class ServeTest(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="kelvo-e2e-")

    def tearDown(self):
        subprocess.run(["rm", "-rf", self.home], check=False)

    def test_speak_clone_bind_stop_and_restart(self):
        port = free_port()
        srv = Server(self.home, port)
        try:
            status, health = srv.json("GET", "/v1/health")
            self.assertEqual((status, health["status"], health["placeholder"]), (200, "ready", True))

            line = {"text": "Flight KV 12 to Lisbon is now boarding at gate B 12", "language": "en"}
            status, headers, wav = srv.request("POST", "/v1/tts", line)
            self.assertEqual(status, 200)
            self.assertEqual(headers["Content-Type"], "audio/wav")
            self.assertEqual(wav[:4] + wav[8:12], b"RIFFWAVE")
            self.assertEqual(headers["X-KELVO-Cache"], "miss")
            status, headers, again = srv.request("POST", "/v1/tts", line)
            self.assertEqual((status, headers["X-KELVO-Cache"], again), (200, "hit", wav))
            status, _, empty = srv.request("POST", "/v1/tts", line, {"If-None-Match": headers["ETag"]})
            self.assertEqual((status, empty), (304, b""))

            clip = base64.b64encode(tone_wav()).decode()
            status, voice = srv.json("POST", "/v1/voices/clone", {
                "display": "Gate voice", "language": "en", "gender": "female",
                "audio": clip, "reference_text": "welcome aboard"})
            self.assertEqual(status, 200, voice)
            status, _ = srv.json("PUT", "/v1/airlines", {"airline": "kvo", "language": "en",
                                                          "gender": "female", "voice": voice["id"]})
            self.assertEqual(status, 200)
            status, headers, _ = srv.request("GET", "/v1/tts?text=Welcome+aboard&airline=KVO&language=en&gender=female")
            self.assertEqual((status, headers["X-KELVO-Voice"]), (200, voice["id"]))
        finally:
            code, err = srv.stop()
        self.assertEqual(code, 0, err)
        self.assertIn("service started on", err)
        self.assertIn("stopped", err)
        with open(os.path.join(self.home, "temp", "index.json")) as f:
            index = json.load(f)
        # The first line took the generated default voice's style as its "[style]" prefix.
        texts = sorted(e["text"] for e in index.values())
        self.assertEqual(len(texts), 2, texts)
        self.assertEqual(texts[0], "Welcome aboard")
        self.assertTrue(texts[1].endswith("] " + line["text"]), texts)

        # Everything survives a restart: the cached line, the voice and its binding.
        srv = Server(self.home, port)
        try:
            status, headers, again = srv.request("POST", "/v1/tts", line)
            self.assertEqual((status, headers["X-KELVO-Cache"], again), (200, "hit", wav))
            status, bindings = srv.json("GET", "/v1/airlines")
            self.assertEqual([b["voice"] for b in bindings["airlines"]], [voice["id"]])
        finally:
            self.assertEqual(srv.stop()[0], 0)

    def test_port_in_use_is_explained(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            port = taken.getsockname()[1]
            env = dict(os.environ, KELVO_HOME=self.home, LANGUAGE="en")
            started = time.monotonic()
            run = subprocess.run([KELVO, "serve", "--port", str(port), "--bind", "127.0.0.1"], env=env,
                                 capture_output=True, text=True, timeout=30)
        self.assertEqual(run.returncode, 1, run.stderr)
        self.assertLess(time.monotonic() - started, 10)
        self.assertIn(f"port {port} is already in use.", run.stderr)
        self.assertIn("either another KELVO is already running", run.stderr)
        self.assertIn("or another program has taken it", run.stderr)

    def test_command_line_tells_the_truth(self):
        run = subprocess.run([KELVO, "--version"], capture_output=True, text=True)
        self.assertEqual(run.returncode, 0)
        self.assertRegex(run.stdout, r"kelvo \d+\.\d+\.\d+")
        run = subprocess.run([KELVO, "serve", "--help"], capture_output=True, text=True)
        self.assertEqual(run.returncode, 0)
        for word in ("--port", "--bind", "KELVO_HOME", "SIGTERM"):
            self.assertIn(word, run.stdout)


class CommandLineTest(unittest.TestCase):
    """The operator commands against a live service, in the order an operator
    follows the README: clone, bind, pre-bake, say, status, log, packs."""

    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="kelvo-cli-")
        self.srv = Server(self.home, free_port())
        self.url = f"http://127.0.0.1:{self.srv.port}"

    def tearDown(self):
        self.srv.stop()
        subprocess.run(["rm", "-rf", self.home], check=False)

    def kelvo(self, *args, expect=0):
        # ALSA's "null" device: playback runs its real length without a sound card.
        env = dict(os.environ, KELVO_HOME=self.home, LANGUAGE="en", KELVO_AUDIO_DEVICE="null")
        run = subprocess.run([KELVO, *args, "--url", self.url], env=env,
                             capture_output=True, text=True, timeout=120)
        self.assertEqual(run.returncode, expect, f"kelvo {' '.join(args)}\n{run.stdout}{run.stderr}")
        return run.stdout + run.stderr

    def test_everyday_use(self):
        clip = os.path.join(self.home, "anna.wav")
        with open(clip, "wb") as f:
            f.write(tone_wav())
        out = self.kelvo("voices", "clone", clip, "--text", "welcome aboard", "--display", "Anna",
                         "--language", "en", "--gender", "female")
        voice = json.loads(self.kelvo("voices", "--json"))["voices"][0]["id"]
        self.assertIn(voice, out)
        self.assertIn("Anna", self.kelvo("voices"))
        self.assertIn("KVO:en:female", self.kelvo("bind", "KVO", "en", "female", voice))
        self.assertIn(voice, self.kelvo("bindings"))

        lines = os.path.join(self.home, "lines.txt")
        with open(lines, "w") as f:
            f.write("Boarding now at gate 4\n\nFinal call for flight 12\nGate change to B 7\n")
        out = self.kelvo("prebake", lines, "--airline", "KVO", "--language", "en", "--gender", "female")
        self.assertIn("queued 3", out)
        self.assertIn("3 / 3", out)  # the progress reached the end
        self.assertEqual(json.loads(self.kelvo("status", "--json"))["stats"]["prewarm_pending"], 0)

        wav = os.path.join(self.home, "line.wav")
        out = self.kelvo("say", "Final call for flight 12", "--airline", "KVO", "--language", "en",
                         "--gender", "female", "-o", wav)
        self.assertIn(voice, out)
        self.assertIn("cache hit", out)  # pre-baked
        with wave.open(wav) as w:
            frames, rate = w.getnframes(), w.getframerate()
        self.assertEqual(os.path.getsize(wav), 44 + 2 * frames)
        self.assertGreater(frames / rate, 0.5)
        started = time.monotonic()
        self.assertIn("line.wav", self.kelvo("play", wav))
        self.assertGreater(time.monotonic() - started, frames / rate * 0.9)  # played, not just opened
        self.kelvo("say", "Gate change to B 7", "--airline", "KVO", "--language", "en", "--gender", "female",
                   "--play")

        status = self.kelvo("status")
        for word in ("placeholder", "p50", "hit rate"):
            self.assertIn(word, status)
        self.assertIn("pre-baked one entry", self.kelvo("log", "-n", "50"))
        self.assertIn("cache cleared", self.kelvo("cache", "clear"))

        # Carry the voice and its binding to a second installation.
        pack = os.path.join(self.home, "kvo.cln")
        self.assertIn("1 voice(s)", self.kelvo("pack", "export", "--airline", "KVO:en:female", "-o", pack))
        other = tempfile.mkdtemp(prefix="kelvo-cli2-")
        second = Server(other, free_port())
        try:
            env = dict(os.environ, KELVO_HOME=other, LANGUAGE="en")
            run = subprocess.run([KELVO, "pack", "import", pack, "--url", f"http://127.0.0.1:{second.port}"],
                                 env=env, capture_output=True, text=True, timeout=60)
            self.assertEqual(run.returncode, 0, run.stderr)
            status, headers, _ = second.request("GET", "/v1/tts?text=Hello&airline=KVO&language=en&gender=female")
            self.assertEqual((status, headers["X-KELVO-Voice"]), (200, voice))
        finally:
            second.stop()
            subprocess.run(["rm", "-rf", other], check=False)


class OnlineTest(unittest.TestCase):
    """`kelvo serve --hub` as an intranet hub, used by `kelvo hub` from other
    data roots; `kelvo models` and `kelvo update` with nothing configured."""

    def setUp(self):
        self.roots = [tempfile.mkdtemp(prefix="kelvo-online-") for _ in range(3)]

    def tearDown(self):
        subprocess.run(["rm", "-rf", *self.roots], check=False)

    def kelvo(self, root, *args, expect=0, **extra_env):
        env = dict(os.environ, KELVO_HOME=root, LANGUAGE="en", **extra_env)
        for name in ("KELVO_RELEASES_URL", "KELVO_HUB_URL"):
            if name not in extra_env:
                env.pop(name, None)
        run = subprocess.run([KELVO, *args], env=env, capture_output=True, text=True, timeout=60)
        self.assertEqual(run.returncode, expect, f"kelvo {' '.join(args)}\n{run.stdout}{run.stderr}")
        return run.stdout + run.stderr

    def test_hub_models_and_update(self):
        hub_root, sharer, getter = self.roots
        hub = Server(hub_root, free_port(), "--hub")
        try:
            studio = Server(sharer, free_port())
            status, voice = studio.json("POST", "/v1/voices/clone", {
                "display": "Anna", "audio": base64.b64encode(tone_wav()).decode(),
                "reference_text": "welcome aboard", "language": "en", "gender": "female"})
            studio.stop()
            self.assertEqual(status, 200, voice)
            url = {"KELVO_HUB_URL": f"http://127.0.0.1:{hub.port}"}
            out = self.kelvo(sharer, "hub", "share", "--voice", voice["id"], "--title", "Anna for KVO", **url)
            share = json.loads(hub.request("GET", "/API/hub.php?a=list")[2])["shares"][0]["id"]
            self.assertIn(share, out)
            self.assertIn("already shared and unchanged",
                          self.kelvo(sharer, "hub", "share", "--voice", voice["id"], "--title", "again", **url))
            self.assertIn("Anna for KVO", self.kelvo(getter, "hub", "list", **url))
            receiver = Server(getter, free_port())
            try:
                self.assertIn("1 voice(s)", self.kelvo(getter, "hub", "get", share, "--url",
                                                       f"http://127.0.0.1:{receiver.port}", **url))
                _, voices = receiver.json("GET", "/v1/voices")
                self.assertEqual([v["display"] for v in voices["voices"]], ["Anna"])
            finally:
                receiver.stop()
            self.assertIn("only the machine that shared it", self.kelvo(getter, "hub", "unshare", share, expect=1, **url))
            self.kelvo(sharer, "hub", "unshare", share, **url)
            self.assertIn("lists no share", self.kelvo(getter, "hub", "list", **url))
        finally:
            hub.stop()
        self.assertIn("KELVO_HUB_URL", self.kelvo(getter, "hub", "list", expect=1))

        models = self.kelvo(getter, "models")
        for variant in ("q6_k", "q8_0", "f16"):
            self.assertRegex(models, variant + r"\s+s2-pro-" + variant + r"\.gguf\s+≈ [\d.]+ GB\s+missing")
        out = self.kelvo(getter, "update")
        self.assertIn("installed version", out)
        self.assertIn("set KELVO_RELEASES_URL", out)
        self.assertIn("KELVO_RELEASES_URL", self.kelvo(getter, "update", "--help"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
