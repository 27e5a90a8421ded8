#!/usr/bin/env python3
"""An operator's mistakes and doubts, end to end: the real `kelvo serve` (with
the inference double as its engine, so a synthesis takes as long as the test
wants) and the `kelvo` commands typed wrongly, fed bad clips and bad lines,
interrupted, and asked to clear the cache on a terminal."""
import base64
import os
import pty
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

os.environ.setdefault("KELVO_BIN", sys.argv.pop(1))
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from serve_test import (KELVO, free_port, kelvo_env, run_kelvo, serve_with_engine_double,  # noqa: E402
                        tone_wav)

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
COMPLETION = os.path.join(ROOT, "KELVOServer", "completion", "kelvo.bash")
MANUAL = os.path.join(ROOT, "KELVOServer", "man", "kelvo.1.scd")


class OperatorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.home = tempfile.mkdtemp(prefix="kelvo-ops-")
        # 150 ms a line: long enough to catch a pre-bake in the middle.
        cls.srv = serve_with_engine_double(cls.home, 150)
        cls.url = f"http://127.0.0.1:{cls.srv.port}"

    @classmethod
    def tearDownClass(cls):
        cls.srv.stop()
        shutil.rmtree(cls.home, ignore_errors=True)

    def env(self):
        return kelvo_env(self.home)

    def kelvo(self, *args, expect=0):
        return run_kelvo(self, self.home, *args, "--url", self.url, expect=expect)

    def file(self, name, content):
        path = os.path.join(self.home, name)
        with open(path, "wb" if isinstance(content, bytes) else "w") as f:
            f.write(content)
        return path

    def stats(self):
        return self.srv.json("GET", "/v1/stats")[1]

    def test_typing_mistakes_and_exit_statuses(self):
        not_audio = self.file("notes.txt", "boarding list, not audio\n")
        config = os.path.join(self.home, "data", "config.json")
        dead = f"http://127.0.0.1:{free_port()}"
        cases = [
            (["stauts"], 2, "unknown command stauts — did you mean status?"),
            (["cache", "clr"], 2, "unknown command clr — did you mean clear?"),
            (["say", "hi", "--langauge", "en"], 2, "unknown option --langauge — did you mean --language?"),
            (["voices", "--jsn"], 2, "unknown option --jsn — did you mean --json?"),
            (["prebake", not_audio, "--detatch"], 2, "did you mean --detach?"),
            (["status", "extra"], 2, "see `kelvo status --help` for usage."),
            (["models", "download", "q9"], 2, "there is no model variant q9 (choose one of q6_k, q8_0, f16)"),
            (["models", "rm", "q9"], 2, "there is no model variant q9"),
            (["play", not_audio], 2, "notes.txt is not audio (kelvo play plays WAV, MP3 and Ogg Vorbis)"),
            (["play", os.path.join(self.home, "missing.wav")], 2, "missing.wav"),
            (["say"], 2, "text is required"),
            (["bind", "KVO", "en"], 2, "usage: kelvo bind"),
            (["say", "hi", "--speed", "9"], 2, "--speed"),
            (["serve", "--port", "99999"], 2, "--port"),
            ([], 2, "a command is needed, one of: serve, say, play, voices,"),
            (["cache"], 2, "a command is needed, one of: clear"),
            (["say", " "], 1, "no text to synthesise"),
            (["voices", "rm", "ghost"], 1, "no such voice: ghost"),
            (["pack", "import", config], 1, "A .cln is a zip package"),
            (["status", "--url", dead], 3, f"no KELVO service answers at {dead}"),
        ]
        for args, status, message in cases:
            with self.subTest(args=args):
                url = [] if "--url" in args or not args else ["--url", self.url]
                self.assertIn(message, run_kelvo(self, self.home, *args, *url, expect=status))

    def test_doubts_and_failures_are_told(self):
        # Clone: a 2 s clip is taken with a warning; an Ogg no decoder can read is refused.
        voices_before = len(self.srv.json("GET", "/v1/voices")[1]["voices"])
        short = self.file("short.wav", tone_wav(seconds=2))
        out = self.kelvo("voices", "clone", short, "--text", "welcome", "--display", "Short", "--language", "en")
        self.assertIn("warning: the reference clip is only 2.0 s; 5-30 s is recommended", out)
        status, voice = self.srv.json("POST", "/v1/voices/clone", {
            "display": "Short again", "audio": base64.b64encode(tone_wav(seconds=2)).decode(),
            "reference_text": "welcome"})
        self.assertEqual((status, len(voice["warnings"])), (200, 1), voice)
        opus = self.file("clip.ogg", b"OggS\x00\x02" + b"\x00" * 20 + b"\x01\x13OpusHead" + b"\x00" * 40)
        out = self.kelvo("voices", "clone", opus, "--text", "welcome", "--display", "Opus", expect=1)
        self.assertIn("cannot decode this ogg reference clip, so the voice could not speak.", out)
        self.assertEqual(len(self.srv.json("GET", "/v1/voices")[1]["voices"]), voices_before + 2)

        # Pre-bake: the 20,000-character line fails with its reason, the others bake, exit 1.
        failed_before = self.stats()["prewarm_failed"]
        lines = self.file("lines.txt", "Boarding now at gate 4\n" + "Attention please " * 1200 + "\nGate change to B 7\n")
        out = self.kelvo("prebake", lines, "--language", "en", expect=1)
        self.assertIn("queued 3", out)
        self.assertIn("✗ Attention please Attention please Attention please Attention: text is 20399 characters, "
                      "over the 5000 limit", out)
        self.assertIn("1 lines could not be pre-baked (of 3)", out)
        stats = self.stats()
        self.assertEqual(stats["prewarm_failed"], failed_before + 1)
        self.assertEqual(stats["prewarm_last_error"], "text is 20399 characters, over the 5000 limit")
        self.assertIn("pre-bake failures: 1 (last: text is 20399", self.kelvo("status"))

        # Say on a cache hit names the cache, not an empty engine; a language outside the table warns.
        self.assertIn("cache hit · voice", self.kelvo("say", "Gate change to B 7", "--language", "en"))
        self.assertIn("warning: eng is not in the language table; unless a voice is bound to it, the service will "
                      "create a new default voice for it — did you mean en?",
                      self.kelvo("say", "Gate change", "--language", "eng"))

        # Pack export says what it wrote.
        pack = os.path.join(self.home, "short.cln")
        out = self.kelvo("pack", "export", "--voice", voice["id"], "-o", pack)
        self.assertIn(f"wrote {pack}: 1 voice(s), 1 clip(s), 0 binding(s), {os.path.getsize(pack)} bytes", out)

    def test_prebake_is_watched_and_cancelled(self):
        lines = self.file("many.txt", "".join(f"Flight {n} is now boarding at gate {n % 30}\n" for n in range(60)))
        before = self.stats()["cache_count"]
        # --detach returns at once; DELETE /v1/prewarm drops what waits and says how many.
        self.assertIn("continuing in the background", self.kelvo("prebake", lines, "--language", "en", "--detach"))
        self.assertGreater(self.stats()["prewarm_pending"], 0)
        self.assertIn("pre-baking", self.kelvo("status"))
        status, dropped = self.srv.json("DELETE", "/v1/prewarm")
        self.assertEqual(status, 200)
        self.assertGreater(dropped["dropped"], 40)
        self.assertLessEqual(dropped["pending"], 1)
        cached = self.stats()["cache_count"]
        self.assertLess(cached - before, 20)

        # Ctrl-C while watching cancels the lines still waiting.
        run = subprocess.Popen([KELVO, "prebake", lines, "--language", "en", "--url", self.url], env=self.env(),
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        deadline = time.monotonic() + 20
        while self.stats()["cache_count"] < cached + 2 and time.monotonic() < deadline:
            time.sleep(0.05)
        run.send_signal(signal.SIGINT)
        out = run.communicate(timeout=20)[0]
        self.assertEqual(run.returncode, 1, out)
        self.assertRegex(out, r"pre-bake cancelled: \d+ waiting lines dropped")
        time.sleep(0.5)
        self.assertEqual(self.stats()["prewarm_pending"], 0)
        self.assertLess(self.stats()["cache_count"] - before, 60)

    def test_cache_clear_asks_on_a_terminal(self):
        self.kelvo("say", "Cached line for the question", "--language", "en")
        deadline = time.monotonic() + 10  # the cache writes its files after answering
        while self.stats()["cache_count"] == 0 and time.monotonic() < deadline:
            time.sleep(0.05)
        count = self.stats()["cache_count"]

        def on_terminal(answer, *args):
            pid, fd = pty.fork()
            if pid == 0:
                os.execve(KELVO, [KELVO, "cache", "clear", *args, "--url", self.url], self.env())
            os.write(fd, answer)
            out = b""
            while True:
                try:
                    chunk = os.read(fd, 1024)
                except OSError:
                    break
                if not chunk:
                    break
                out += chunk
            return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), out.decode()

        status, out = on_terminal(b"n\n")
        self.assertEqual(status, 1, out)
        self.assertIn(f"delete all {count} cached lines", out)
        self.assertIn("the cache was left as it is", out)
        self.assertEqual(self.stats()["cache_count"], count)
        status, out = on_terminal(b"", "--yes")
        self.assertEqual((status, "cache cleared" in out), (0, True), out)
        self.assertEqual(self.stats()["cache_count"], 0)

    def test_bash_completion_and_manual(self):
        self.srv.json("POST", "/v1/voices/clone", {"display": "Completed", "audio": base64.b64encode(tone_wav()).decode(),
                                                   "reference_text": "welcome aboard"})
        ids = {v["id"] for v in self.srv.json("GET", "/v1/voices")[1]["voices"]}
        env = dict(self.env(), PATH=os.path.dirname(os.path.abspath(KELVO)) + os.pathsep + os.environ["PATH"],
                   KELVO_URL=self.url)

        def complete(line):
            words = line.split(" ")
            script = (f"source {COMPLETION}; COMP_WORDS=({' '.join(repr(w) for w in words)}); "
                      f"COMP_CWORD={len(words) - 1}; _kelvo; printf '%s\\n' \"${{COMPREPLY[@]}}\"")
            run = subprocess.run(["bash", "-c", script], env=env, capture_output=True, text=True, timeout=30)
            self.assertEqual(run.returncode, 0, run.stderr)
            return set(filter(None, run.stdout.split("\n")))

        self.assertEqual(complete("kelvo st"), {"status"})
        self.assertEqual(complete("kelvo voices "), {"clone", "rm"})
        self.assertEqual(complete("kelvo say hi --la"), {"--language"})
        self.assertEqual(complete("kelvo --url http://x stat"), {"status"})
        for line in ("kelvo voices rm ", "kelvo say hi --voice ", "kelvo bind KVO en female ",
                     "kelvo bind --default en female ", "kelvo pack export --voice "):
            self.assertEqual(complete(line), ids, line)
        self.assertEqual(complete("kelvo bind KVO en "), set())  # the gender comes first
        # Every command and every option the program has is offered.
        commands = complete("kelvo ")
        help_text = subprocess.run([KELVO, "--help"], capture_output=True, text=True).stdout
        listed = {line.split()[0] for line in help_text.split("Subcommands:")[1].split("\n\n")[0].splitlines()
                  if line.strip()}
        self.assertEqual(commands, listed)
        with open(MANUAL) as f:
            documented = {line.split("*")[1].split()[0] for line in f if line.startswith("*") and line[1:2].isalpha()}
        self.assertLessEqual(listed, documented)  # kelvo(1) describes every command
        for command in ("serve", "say", "log", "prebake", "voices clone", "cache clear", "pack export", "hub share",
                        "models download"):
            help_text = subprocess.run([KELVO, *command.split(), "--help"], capture_output=True, text=True).stdout
            options = {part for token in help_text.split() for part in token.split(",")
                       if part.startswith("--") and part != "--help"}
            self.assertLessEqual(options, complete(f"kelvo {command} --"), command)


if __name__ == "__main__":
    unittest.main(verbosity=2)
