#!/usr/bin/env python3
"""Instructions `kelvo serve` executes per request on the cached paths.

Counted by valgrind's callgrind over all of kelvo's threads. The figures move
by a few percent at most with the machine's load (the service's own timers
are counted too), where requests/s on 2 shared cores move by ten: a change in
the work of a cached line shows here, not in bench/http_bench.py's noise.
System calls are not counted, only user space.

Starts `kelvo serve` under callgrind on a fresh data root, caches the bench
line, then for each case asks 200 times to warm up, zeroes the counters, asks
REQUESTS (2000) times more on one keep-alive connection and divides.

Usage: bench/instructions.py [build/kelvo]
Installs the Debian package valgrind first when it is missing.
"""
import http.client
import json
import os
import subprocess
import tempfile

import http_bench as hb  # the same line, ports and waiting; it reads the kelvo path from sys.argv

REQUESTS = int(os.environ.get("REQUESTS", "2000"))
WARM_UP = 200


def total_instructions(dump):
    with open(dump) as f:
        for line in f:
            if line.startswith(("summary:", "totals:")):
                return int(line.split()[1])
    raise SystemExit(f"no total in {dump}")


def main():
    hb.install_missing((("valgrind", "callgrind_control"),))
    with tempfile.TemporaryDirectory(prefix="kelvo-instructions-") as work:
        count(work)


def count(work):
    """Prints each case's instructions per request; kelvo's data root and callgrind's files go in `work`."""
    port = hb.free_port()
    kelvo = subprocess.Popen(["valgrind", "--tool=callgrind", f"--callgrind-out-file={work}/callgrind.out",
                              hb.KELVO, "serve", "--port", str(port), "--bind", "127.0.0.1"],
                             env=dict(os.environ, KELVO_HOME=os.path.join(work, "home")),
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        hb.wait_for(f"http://127.0.0.1:{port}/v1/health", deadline_s=120)
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=120)

        def ask(method, path, body=None, headers=None):
            connection.request(method, path, body, headers or {})
            reply = connection.getresponse()
            reply.read()
            return reply

        body = json.dumps(hb.LINE)
        json_header = {"Content-Type": "application/json"}
        etag = ask("POST", "/v1/tts", body, json_header).getheader("ETag")
        cases = [("cached POST /v1/tts", 200, ("POST", "/v1/tts", body, json_header)),
                 ("304 with If-None-Match", 304, ("POST", "/v1/tts", body, dict(json_header, **{"If-None-Match": etag}))),
                 ("GET /v1/health", 200, ("GET", "/v1/health"))]
        for number, (name, status, request) in enumerate(cases, start=1):
            for _ in range(WARM_UP):
                ask(*request)
            subprocess.run(["callgrind_control", "-z", str(kelvo.pid)], check=True, capture_output=True)
            for _ in range(REQUESTS):
                reply = ask(*request)
                if reply.status != status:
                    raise SystemExit(f"{name}: {reply.status}, expected {status}")
            subprocess.run(["callgrind_control", "-d", str(kelvo.pid)], check=True, capture_output=True)
            instructions = total_instructions(f"{work}/callgrind.out.{number}") / REQUESTS
            print(f"{name:28} {instructions:9,.0f} instructions per request ({REQUESTS} after {WARM_UP} to warm up)")
    finally:
        kelvo.terminate()
        kelvo.wait()


if __name__ == "__main__":
    main()
