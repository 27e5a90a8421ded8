#!/usr/bin/env python3
"""Encoded-variant hits against WAV hits of the same line, over HTTP.

Starts `kelvo serve` on a scratch data root, speaks the 5 s line of
http_bench.py once in WAV, MP3 and Opus (so every form is cached), then runs
wrk (2 threads, 64 keep-alive connections, BENCH_SECONDS per case, the cases
interleaved for BENCH_ROUNDS rounds) and prints the median requests/s of each
case and its ratio to the WAV hit (goal: 0.9 or more).

Usage: bench/variant_bench.py [build/kelvo]   (needs the Debian package wrk)
"""
import json
import os
import statistics
import subprocess
import sys
import tempfile
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import http_bench as hb  # noqa: E402  (shares the command line: the kelvo binary)

TEXT = hb.LINE["text"]
CASES = [
    ("WAV hit, POST /v1/tts", "/v1/tts", hb.LINE),
    ("MP3 hit, POST /v1/tts format mp3", "/v1/tts", dict(hb.LINE, format="mp3")),
    ("Opus hit, POST /v1/tts format opus", "/v1/tts", dict(hb.LINE, format="opus")),
    ("MP3 hit, POST /v1/audio/speech", "/v1/audio/speech", {"model": "tts-1", "input": TEXT, "language": "en"}),
]


def main():
    hb.setup()
    work = tempfile.mkdtemp(prefix="kelvo-variant-bench-")
    port = hb.free_port()
    kelvo = subprocess.Popen([hb.KELVO, "serve", "--port", str(port), "--bind", "127.0.0.1"],
                             env=dict(os.environ, KELVO_HOME=os.path.join(work, "home")),
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        base = f"http://127.0.0.1:{port}"
        hb.wait_for(base + "/v1/health")
        sizes = {}
        for name, path, body in CASES:
            for _ in range(2):  # the first makes the line or its variant, the second must be a hit
                req = urllib.request.Request(base + path, data=json.dumps(body).encode(), method="POST",
                                             headers={"Content-Type": "application/json"})
                with urllib.request.urlopen(req) as r:
                    sizes[name] = (len(r.read()), r.headers["X-KELVO-Cache"])
        results = {name: [] for name, _, _ in CASES}
        for _ in range(hb.ROUNDS):
            for name, path, body in CASES:
                rps, _ = hb.wrk(base + path, work, "POST", json.dumps(body), {"Content-Type": "application/json"})
                results[name].append(rps)
        wav_rps = statistics.median(results[CASES[0][0]])
        print(f"{'case':38} {'bytes':>8} {'req/s':>9} {'vs WAV':>7}")
        for name, _, _ in CASES:
            rps = statistics.median(results[name])
            print(f"{name:38} {sizes[name][0]:8d} {rps:9.0f} {rps / wav_rps:7.2f}")
        print(f"load average afterwards: {os.getloadavg()[0]:.2f}")
    finally:
        kelvo.terminate()
        kelvo.wait(timeout=15)
        subprocess.run(["rm", "-rf", work], check=False)


if __name__ == "__main__":
    main()
