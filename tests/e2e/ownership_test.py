#!/usr/bin/env python3
"""End-to-end: one `kelvo serve` owns its data root. A second one is refused,
the command line finds the owner through the lock file, a default voice is
made once however many first requests race for it, a kill -9 leaves nothing
behind, and the configuration's interface language is the restarted service's."""
import base64
import concurrent.futures
import json
import os
import shutil
import subprocess
import tempfile
import time
import unittest

import serve_test
from serve_test import KELVO, Server, free_port, run_kelvo, serve_with_engine_double



def dead_pid():
    child = subprocess.Popen(["true"])
    child.wait()
    return child.pid


class OwnershipTest(unittest.TestCase):
    def setUp(self):
        self.home = tempfile.mkdtemp(prefix="kelvo-own-")

    def tearDown(self):
        shutil.rmtree(self.home, ignore_errors=True)

    def kelvo(self, *args, expect=0):
        return run_kelvo(self, self.home, *args, expect=expect, KELVO_URL=None)

    def test_one_service_per_data_root_and_the_command_line_finds_it(self):
        first = Server(self.home, free_port())
        try:
            second_port = free_port()
            started = time.monotonic()
            run = subprocess.run([KELVO, "serve", "--port", str(second_port), "--bind", "127.0.0.1"],
                                 env=dict(os.environ, KELVO_HOME=self.home, LANGUAGE="en"),
                                 capture_output=True, text=True, timeout=30)
            self.assertEqual(run.returncode, 1, run.stderr)
            self.assertLess(time.monotonic() - started, 5)
            self.assertIn(f"the data root {self.home}/ is in use by another KELVO process (pid {first.proc.pid})",
                          run.stderr)
            self.assertIn("KELVO_HOME", run.stderr)

            # No --url, no KELVO_URL, a port the configuration does not know: the lock file says where.
            url = f"http://127.0.0.1:{first.port}"
            self.assertIn(url, self.kelvo("status"))
            # What writes the data root without a service waits its turn.
            out = self.kelvo("models", "rm", "q6_k", expect=1)
            self.assertIn(f"(pid {first.proc.pid})", out)
            self.assertIn("stop the service", out)
            smoke = subprocess.run([os.path.join(os.path.dirname(KELVO), "kelvo-selftest"), "smoke"],
                                   env=dict(os.environ, KELVO_HOME=self.home, LANGUAGE="en"),
                                   capture_output=True, text=True, timeout=60)
            self.assertEqual(smoke.returncode, 1, smoke.stdout)
            self.assertIn(f"(pid {first.proc.pid})", smoke.stdout)
        finally:
            code, err = first.stop()
        self.assertEqual(code, 0, err)
        # Bound to loopback, the service is reachable there and nowhere else.
        reachable = [line.split("reachable at ")[1] for line in err.splitlines() if "reachable at " in line]
        self.assertEqual(reachable, [url])

        out = self.kelvo("status", expect=3)
        self.assertIn("--url / KELVO_URL", out)
        self.assertIn(self.home, out)
        self.assertIn("not installed", self.kelvo("models", "rm", "q6_k", expect=1))

    def test_a_restart_after_a_crash_cleans_up_and_reads_its_configuration(self):
        srv = Server(self.home, free_port())
        clip = base64.b64encode(serve_test.tone_wav()).decode()

        def busy(n):
            srv.request("POST", "/v1/voices/clone", {"display": f"v{n}", "audio": clip, "reference_text": "hello"})
            srv.request("POST", "/v1/tts", {"text": f"Line {n}", "language": "en"})

        pool = concurrent.futures.ThreadPoolExecutor(4)
        jobs = [pool.submit(busy, n) for n in range(12)]
        time.sleep(0.3)
        srv.proc.kill()
        srv.proc.wait()
        concurrent.futures.wait(jobs)
        pool.shutdown()
        srv.log.close()

        # What a writer killed between its temporary file and the rename leaves.
        dead, alive = dead_pid(), os.getpid()
        planted = {"clone": f"v-0123456789ab-0.wav.tmp-{dead}-3", "temp": f"AB12.wav.tmp-{dead}-0",
                   "data": f"config.json.tmp-{dead}-7"}
        for folder, name in planted.items():
            with open(os.path.join(self.home, folder, name), "wb") as f:
                f.write(b"half")
        kept = os.path.join(self.home, "temp", f"CD34.wav.tmp-{alive}-1")  # a living writer's
        with open(kept, "wb") as f:
            f.write(b"busy")

        # The restart also reads the interface language from the configuration, over LANGUAGE=en.
        with open(os.path.join(self.home, "data", "config.json"), "w") as f:
            json.dump({"server": {"uiLanguage": "ja"}}, f)
        srv = Server(self.home, free_port())  # the lock died with the killed service
        try:
            status, answer = srv.json("POST", "/v1/tts", {"text": " "})
            self.assertEqual((status, answer["message"]), (400, "合成するテキストがありません"))
        finally:
            self.assertEqual(srv.stop()[0], 0)
        left = [name for folder in ("clone", "temp", "data", "logs")
                for name in os.listdir(os.path.join(self.home, folder)) if ".tmp-" in name]
        self.assertEqual(left, [os.path.basename(kept)])

    def test_first_requests_for_a_new_language_share_one_default_voice(self):
        srv = serve_with_engine_double(self.home, 700)
        try:
            def first_request(delay):
                time.sleep(delay)
                return srv.request("POST", "/v1/tts", {"text": "登机口已更改", "language": "zh", "gender": "female"})

            with concurrent.futures.ThreadPoolExecutor(2) as pool:
                answers = list(pool.map(first_request, (0, 0.1)))
            self.assertEqual([a[0] for a in answers], [200, 200], [a[2][:200] for a in answers])
            status, voices = srv.json("GET", "/v1/voices")
            self.assertEqual([v["id"] for v in voices["voices"]], [answers[0][1]["X-KELVO-Voice"]])
            self.assertEqual(answers[1][1]["X-KELVO-Voice"], answers[0][1]["X-KELVO-Voice"])
        finally:
            self.assertEqual(srv.stop()[0], 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
