#!/usr/bin/env python3
"""End-to-end runs of the real `kelvo serve`: a temporary data root, a free
loopback port, plain HTTP from the standard library, SIGTERM, a restart.
Every answer is checked against the service's own OpenAPI document."""
import io
import json
import os
import signal
import shutil
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

from contract import Contract

KELVO = os.environ.get("KELVO_BIN") or sys.argv.pop(1)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def install_engine_double(home):
    """Puts the s2 protocol double and a stand-in model where `home`'s engine looks for them."""
    os.makedirs(os.path.join(home, "engine"))
    os.makedirs(os.path.join(home, "models"))
    double = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "s2_double.py")
    shutil.copy(double, os.path.join(home, "engine", "s2"))
    os.chmod(os.path.join(home, "engine", "s2"), 0o755)
    with open(os.path.join(home, "models", "x.gguf"), "w") as f:
        f.write("gguf")


def kelvo_env(home, **extra):
    """The environment of a `kelvo` command on the data root `home`: English, and ALSA's
    "null" device, where playback runs its real length without a sound card. A None
    value in `extra` removes that variable."""
    env = dict(os.environ, KELVO_HOME=home, LANGUAGE="en", KELVO_AUDIO_DEVICE="null", **extra)
    return {name: value for name, value in env.items() if value is not None}


def run_kelvo(case, home, *args, expect=0, **extra_env):
    """What `kelvo args` printed, once `case` has checked that it exited with `expect`."""
    run = subprocess.run([KELVO, *args], env=kelvo_env(home, **extra_env), capture_output=True, text=True,
                         timeout=120)
    case.assertEqual(run.returncode, expect, f"kelvo {' '.join(args)}\n{run.stdout}{run.stderr}")
    return run.stdout + run.stderr


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
    """One `kelvo serve` process; stderr is collected in a file. `env` adds to the
    environment, and a None value removes that variable."""

    def __init__(self, home, port, *extra, env=None, key=None):
        self.port = port
        self.key = key  # sent as the bearer key unless a request brings its own
        self.contract = None
        self.log = open(os.path.join(home, "stderr.txt"), "w+")
        self.proc = subprocess.Popen([KELVO, "serve", "--port", str(port), "--bind", "127.0.0.1", *extra],
                                     env=kelvo_env(home, KELVO_VERBOSE=None, **(env or {})),
                                     stdout=subprocess.DEVNULL, stderr=self.log)
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            if self.proc.poll() is not None:
                raise AssertionError("kelvo serve exited early:\n" + self.stderr())
            try:
                health = self.request("GET", "/v1/health")
                if health[0] == 200:
                    break
            except OSError:
                time.sleep(0.05)
        else:
            raise AssertionError("kelvo serve did not answer /v1/health in 20 s")
        document = self.request("GET", "/v1/openapi.json")
        assert document[0] == 200, document
        self.contract = Contract(json.loads(document[2]))
        self.contract.check("GET", "/v1/openapi.json", *document)
        self.contract.check("GET", "/v1/health", *health)

    def request(self, method, path, body=None, headers=None):
        data = json.dumps(body).encode() if isinstance(body, (dict, list)) else body
        headers = dict(headers or {})
        if self.key and "Authorization" not in headers:
            headers["Authorization"] = "Bearer " + self.key
        req = urllib.request.Request(f"http://127.0.0.1:{self.port}{path}", data=data, method=method,
                                     headers=headers)
        try:
            with urllib.request.urlopen(req, timeout=30) as r:
                answer = r.status, r.headers, r.read()
        except urllib.error.HTTPError as e:
            answer = e.code, e.headers, e.read()
        if self.contract:
            self.contract.check(method, path, *answer)
        return answer

    def json(self, method, path, body=None, headers=None):
        status, _, data = self.request(method, path, body, headers)
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


def serve_with_engine_double(home, synth_ms, *extra, env=None):
    """`kelvo serve` on `home` with the s2 double as its engine, taking `synth_ms` a line,
    once the engine is ready. It takes the first free port from 17151 on, which other
    services on this machine share, hence the long wait."""
    install_engine_double(home)
    srv = Server(home, free_port(), *extra, env=dict(env or {}, S2_DOUBLE_SYNTH_MS=str(synth_ms), KELVO_ENGINE_DIR=None))
    deadline = time.monotonic() + 90
    while not (health := srv.json("GET", "/v1/health")[1])["engine_ready"]:
        if time.monotonic() > deadline:
            srv.stop()
            with open(os.path.join(home, "logs", "s2-engine.log"), errors="replace") as f:
                raise AssertionError(f"the engine double never became ready: {health['engine_detail']}\n"
                                     f"{f.read()[-2000:]}\n{srv.stderr()}")
        time.sleep(0.1)
    return srv


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

    def test_clips_gone_cut_or_evicted_mid_send_never_give_a_short_200(self):
        srv = Server(self.home, free_port())
        try:
            # 7 MB: more than loopback's socket buffers take at once.
            line = {"text": "Final call for flight KV 88 to Oslo, gate C 3. " * 20, "language": "en"}
            status, headers, wav = srv.request("POST", "/v1/tts", line)
            self.assertEqual(status, 200)
            clip = os.path.join(self.home, "temp", headers["ETag"] + ".wav")

            def stored():  # written after the reply, off the request path; renamed into place whole
                deadline = time.monotonic() + 10
                while not os.path.exists(clip) and time.monotonic() < deadline:
                    time.sleep(0.01)
                return os.path.getsize(clip)

            for damage in ("cut short", "deleted"):
                self.assertEqual(stored(), len(wav))
                if damage == "cut short":
                    os.truncate(clip, len(wav) // 2)
                else:
                    os.remove(clip)
                status, headers, again = srv.request("POST", "/v1/tts", line)
                self.assertEqual((status, headers["X-KELVO-Cache"], again == wav), (200, "miss", True), damage)
                self.assertEqual(int(headers["Content-Length"]), len(wav))

            # A reader that takes its time: the clip is evicted (the whole cache
            # cleared) while the hit is being sent, and still arrives whole.
            self.assertEqual(stored(), len(wav))
            body = json.dumps(line).encode()
            with socket.socket() as slow:
                slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
                slow.connect(("127.0.0.1", srv.port))
                slow.sendall(b"POST /v1/tts HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
                             b"Content-Length: %d\r\n\r\n" % len(body) + body)
                time.sleep(0.3)
                fds = f"/proc/{srv.proc.pid}/fd"
                self.assertIn(clip, [os.readlink(os.path.join(fds, fd)) for fd in os.listdir(fds)])  # mid-send
                self.assertEqual(srv.json("DELETE", "/v1/cache"), (200, {"cleared": True}))
                self.assertFalse(os.path.exists(clip))
                received = bytearray()
                while chunk := slow.recv(65536):
                    received += chunk
            head, _, sent = bytes(received).partition(b"\r\n\r\n")
            self.assertTrue(head.startswith(b"HTTP/1.1 200 OK"), head)
            self.assertIn(b"X-KELVO-Cache: hit", head)
            self.assertIn(b"Content-Length: %d" % len(wav), head)
            self.assertTrue(sent == wav)
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


def eventually(probe, what, seconds=20):
    """probe()'s first true value within `seconds`."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = probe()
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError("never happened: " + what)


class EngineTest(unittest.TestCase):
    """`kelvo serve` with tools/s2_double.py installed as its inference engine."""

    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="kelvo-engine-")
        install_engine_double(self.home)

    def tearDown(self):
        subprocess.run(["rm", "-rf", self.home], check=False)

    def engine_port(self):
        """The port the engine gave its child, from the child's own first log line."""
        log = os.path.join(self.home, "logs", "s2-engine.log")

        def port():
            with open(log) as f:
                words = f.readline().split()
            return "--port" in words and int(words[words.index("--port") + 1])
        return eventually(port, "the double logs its command line")

    def detail(self, srv, text):
        """/v1/health once its engine detail holds `text`."""
        def health():
            answer = srv.json("GET", "/v1/health")[1]
            return text in answer["engine_detail"] and answer
        return eventually(health, "engine detail with " + text)

    def test_foreign_listener_on_the_engine_port(self):
        # The child loads for 4 s before it listens; meanwhile another program takes its port.
        slow = {"S2_DOUBLE_LOAD_MS": "4000"}
        srv = Server(self.home, free_port(), env=slow)
        try:
            port = self.engine_port()
            with socket.create_server(("127.0.0.1", port)):
                health = self.detail(srv, f"another program holds port {port} (not the inference process)")
                self.assertEqual((health["engine_ready"], health["status"]), (False, "degraded"))
                # The child cannot listen there and gives up; the diagnosis names the port.
                health = self.detail(srv, f"another program holds port {port}, so the inference process could not")
                self.assertIn("the inference process exited", health["engine_detail"])
                self.assertFalse(health["engine_ready"])
        finally:
            self.assertEqual(srv.stop()[0], 0)

        # Started again: the other program leaves before the child listens, and the child is used.
        srv = Server(self.home, free_port(), env=slow)
        try:
            port = self.engine_port()
            with socket.create_server(("127.0.0.1", port)):
                self.detail(srv, f"another program holds port {port}")
            health = self.detail(srv, f"x.gguf, port {port}, loaded in")
            self.assertEqual((health["engine_ready"], health["placeholder"]), (True, False))
            status, headers, wav = srv.request("POST", "/v1/tts", {"text": "Gate change", "language": "en"})
            self.assertEqual((status, headers["X-KELVO-Engine"]), (200, "fish-s2-pro (s2.cpp)"), wav)
            self.assertEqual(wav[20:22], b"\x01\x00")  # the engine's float samples went out as 16-bit PCM
        finally:
            self.assertEqual(srv.stop()[0], 0)


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
        return run_kelvo(self, self.home, *args, "--url", self.url, expect=expect)

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
            run_kelvo(self, other, "pack", "import", pack, "--url", f"http://127.0.0.1:{second.port}")
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
        unset = dict.fromkeys(("KELVO_RELEASES_URL", "KELVO_HUB_URL", "KELVO_URL"))
        return run_kelvo(self, root, *args, expect=expect, **{**unset, **extra_env})

    def test_hub_models_and_update(self):
        hub_root, sharer, getter = self.roots
        hub = Server(hub_root, free_port(), "--hub")
        url = {"KELVO_HUB_URL": f"http://127.0.0.1:{hub.port}"}
        try:
            # Shares go through the sharer's own service, found without --url.
            studio = Server(sharer, free_port())
            try:
                status, voice = studio.json("POST", "/v1/voices/clone", {
                    "display": "Anna", "audio": base64.b64encode(tone_wav()).decode(),
                    "reference_text": "welcome aboard", "language": "en", "gender": "female"})
                self.assertEqual(status, 200, voice)
                out = self.kelvo(sharer, "hub", "share", "--voice", voice["id"], "--title", "Anna for KVO", **url)
                share = json.loads(hub.request("GET", "/API/hub.php?a=list")[2])["shares"][0]["id"]
                self.assertIn(share, out)
                self.assertIn("already shared and unchanged",
                              self.kelvo(sharer, "hub", "share", "--voice", voice["id"], "--title", "again", **url))
                # The service saves its configuration on this change; the share's delete key is part of it.
                self.kelvo(sharer, "bind", "KVO", "en", "female", voice["id"])
                self.assertIn("Anna for KVO", self.kelvo(getter, "hub", "list", **url))
                receiver = Server(getter, free_port())
                try:
                    self.assertIn("1 voice(s)", self.kelvo(getter, "hub", "get", share, **url))
                    _, voices = receiver.json("GET", "/v1/voices")
                    self.assertEqual([v["display"] for v in voices["voices"]], ["Anna"])
                    self.assertIn("only the machine that shared it",
                                  self.kelvo(getter, "hub", "unshare", share, expect=1, **url))
                finally:
                    receiver.stop()
                self.assertIn(share, self.kelvo(sharer, "hub", "unshare", share, **url))
            finally:
                studio.stop()
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
