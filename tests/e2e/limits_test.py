#!/usr/bin/env python3
"""End-to-end runs of `kelvo serve` at its limits: a flood of sockets that never
send a byte while a monitor probes /v1/health, and a clone pack larger than any
other request carried from one installation to another."""
import base64
import io
import os
import resource
import select
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.error
import urllib.request
import wave

from serve_test import Server, free_port  # takes the kelvo path from the command line

MIB = 1024 * 1024


def noise_wav(seconds, rate=16000):
    """Random samples: audio that deflate cannot shrink, so a pack stays as large as its clips."""
    out = io.BytesIO()
    with wave.open(out, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(os.urandom(seconds * rate * 2))
    return out.getvalue()


def memory_kib(pid, key):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith(key + ":"):
                return int(line.split()[1])
    raise AssertionError(f"no {key} for {pid}")


def upload_files(home):
    return sorted(n for n in os.listdir(os.path.join(home, "temp")) if n.startswith("pack-upload"))


class LimitsTest(unittest.TestCase):
    def setUp(self):
        self.homes = []

    def tearDown(self):
        subprocess.run(["rm", "-rf", *self.homes], check=False)

    def home(self):
        self.homes.append(tempfile.mkdtemp(prefix="kelvo-limits-"))
        return self.homes[-1]

    def test_idle_socket_flood_never_locks_out_a_monitor(self):
        flood, seconds = 1100, 15
        soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
        if soft < flood + 256:
            resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 4096), hard))
        srv = Server(self.home(), free_port())
        address = ("127.0.0.1", srv.port)
        poller = select.poll()
        sockets = {}

        def connect():
            s = socket.create_connection(address)
            sockets[s.fileno()] = s
            poller.register(s, select.POLLIN)

        probes, reconnects = [], 0
        try:
            for _ in range(flood):
                connect()
            next_probe = time.monotonic()
            end = next_probe + seconds
            while time.monotonic() < end:
                # Whatever the service closes comes straight back, as a real flood would.
                for fd, _ in poller.poll(50):
                    s = sockets.pop(fd)
                    poller.unregister(fd)
                    s.close()
                    connect()
                    reconnects += 1
                if time.monotonic() >= next_probe:
                    next_probe += 1
                    started = time.monotonic()
                    try:
                        with urllib.request.urlopen(f"http://127.0.0.1:{srv.port}/v1/health", timeout=3) as r:
                            status = r.status
                    except (OSError, urllib.error.URLError) as e:
                        status = repr(e)
                    probes.append((status, round(time.monotonic() - started, 3)))
        finally:
            for s in sockets.values():
                s.close()
            code, err = srv.stop()
        print(f"\nflood of {flood} idle sockets for {seconds} s: {reconnects} closed by the service and reopened; "
              f"probes (status, seconds): {probes}")
        self.assertEqual(code, 0, err)
        self.assertGreaterEqual(len(probes), seconds - 1)
        self.assertEqual([p[0] for p in probes], [200] * len(probes), probes)
        # Each newcomer past the cap closes the socket that has waited longest.
        self.assertGreater(reconnects, flood)
        self.assertIn("that had waited longest for a request, to make room", err)

    def test_pack_over_64_mib_exported_and_imported(self):
        voices, clip_seconds = 24, 94  # 24 clips of 3 MB: a 72 MB pack
        source = Server(self.home(), free_port())
        try:
            ids = []
            for i in range(voices):
                status, voice = source.json("POST", "/v1/voices/clone", {
                    "display": f"Gate {i}", "language": "en", "gender": "female",
                    "audio": base64.b64encode(noise_wav(clip_seconds)).decode(),
                    "reference_text": "welcome aboard"})
                self.assertEqual(status, 200, voice)
                ids.append(voice["id"])
            status, _, pack = source.request("POST", "/v1/packs/export", {"voices": ids})
            self.assertEqual(status, 200)
        finally:
            source.stop()
        self.assertGreater(len(pack), 64 * MIB)

        target_home = self.home()
        target = Server(target_home, free_port())
        try:
            before = memory_kib(target.proc.pid, "VmRSS")
            started = time.monotonic()
            status, summary = target.json("POST", "/v1/packs/import", pack)
            took = time.monotonic() - started
            peak = memory_kib(target.proc.pid, "VmHWM")
            self.assertEqual(status, 200, summary)
            self.assertEqual((summary["voices_added"], summary["clips"], summary["bytes"]), (voices, voices, len(pack)))
            _, listed = target.json("GET", "/v1/voices")
            self.assertEqual(sorted(v["id"] for v in listed["voices"]), sorted(ids))
            print(f"\nimport of a {len(pack) / MIB:.1f} MiB pack in {took:.1f} s: resident {before / 1024:.1f} MiB "
                  f"before, peak {peak / 1024:.1f} MiB (VmHWM)")
            # The body went to a file, read one entry at a time: the peak grows by
            # about one clip and its decoded samples, nowhere near the pack.
            self.assertLess((peak - before) * 1024, len(pack) / 3)
            self.assertEqual(upload_files(target_home), [])

            # Refused: its own error code, and the file goes too.
            status, refusal = target.json("POST", "/v1/packs/import", b"PK" + bytes(70 * MIB))
            self.assertEqual((status, refusal["error"]), (400, "bad_pack"), refusal)
            self.assertEqual(upload_files(target_home), [])
            # A client that disconnects half way leaves nothing either.
            with socket.create_connection(("127.0.0.1", target.port)) as s:
                s.sendall(f"POST /v1/packs/import HTTP/1.1\r\nHost: x\r\nContent-Length: {len(pack)}\r\n\r\n".encode())
                s.sendall(pack[:len(pack) // 2])
                deadline = time.monotonic() + 5
                while not upload_files(target_home) and time.monotonic() < deadline:
                    time.sleep(0.05)
                self.assertEqual(len(upload_files(target_home)), 1)
            deadline = time.monotonic() + 5
            while upload_files(target_home) and time.monotonic() < deadline:
                time.sleep(0.05)
            self.assertEqual(upload_files(target_home), [])
            # Any other route keeps the 64 MiB limit.
            status, refusal = target.json("POST", "/v1/voices/clone", b"{" + bytes(65 * MIB))
            self.assertEqual((status, refusal["error"]), (413, "body_too_large"))
        finally:
            target.stop()


if __name__ == "__main__":
    unittest.main(verbosity=2)
