#!/usr/bin/env python3
"""Side-by-side HTTP figures: `kelvo serve` against nginx on this machine.

Starts both on loopback ports, serves the same 5 s WAV line (kelvo from its
cache through POST /v1/tts, nginx as a static file with sendfile), and runs wrk
with 2 threads and 64 keep-alive connections for 10 s, alternating kelvo and
nginx 5 times per case (BENCH_ROUNDS), the side that goes first flipping each
round. Prints the median requests/s, p99 latency and ratio with the range of
the ratios, each server's CPU time per request (user plus system, all of its
processes: on 2 cores shared with wrk, the one figure that does not depend on
how the machine divides its time), kelvo's resident memory idle and after the
cached-line run, and the time from `kelvo serve` to the first 200 from
/v1/health with 10,000 cached lines.

With --soak, instead: 20 cached lines asked for by wrk with 256 connections
for 10 minutes (SOAK_SECONDS), kelvo's resident memory sampled every 10 s;
prints the errors and the memory after the first minute, at the end and at
its highest.

Usage: bench/http_bench.py [--soak] [build/kelvo]
Installs the Debian packages wrk and nginx-light first when they are missing.
"""
import json
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

ARGS = [a for a in sys.argv[1:] if a != "--soak"]
SOAK = "--soak" in sys.argv[1:]
KELVO = os.path.abspath(ARGS[0] if ARGS else "build/kelvo")
DURATION = os.environ.get("BENCH_SECONDS", "10")
ROUNDS = int(os.environ.get("BENCH_ROUNDS", "5"))
SOAK_SECONDS = int(os.environ.get("SOAK_SECONDS", "600"))


def install_missing(packages):
    """The Debian packages, named with the program each provides, that are not installed yet."""
    missing = [pkg for pkg, tool in packages if not shutil.which(tool)]
    if not missing:
        return
    sudo = [] if os.geteuid() == 0 else ["sudo"]
    env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    subprocess.run(sudo + ["apt-get", "install", "-y", "-qq", "--no-install-recommends", *missing], env=env, check=True)


def setup():
    """The load generator and the static server to compare with, from Debian."""
    install_missing((("wrk", "wrk"), ("nginx-light", "nginx")))


# About five seconds of placeholder speech: 441 KB at 44.1 kHz.
LINE = {"text": "Flight KV 1234 to Lisbon is now boarding at gate B 12 please", "language": "en"}


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for(url, deadline_s=20):
    end = time.monotonic() + deadline_s
    while time.monotonic() < end:
        try:
            with urllib.request.urlopen(url, timeout=2) as r:
                if r.status == 200:
                    return
        except OSError:
            time.sleep(0.01)
    raise SystemExit(f"nothing answered at {url}")


def rss_mb(pid):
    with open(f"/proc/{pid}/status") as f:
        kb = int(re.search(r"VmRSS:\s+(\d+)", f.read()).group(1))
    return kb / 1024


def cpu_seconds(pids):
    """User plus system CPU time the processes have used so far."""
    ticks = 0
    for pid in pids:
        with open(f"/proc/{pid}/stat") as f:
            fields = f.read().rsplit(")", 1)[1].split()  # from the third field, "state", on
        ticks += int(fields[11]) + int(fields[12])  # utime and stime
    return ticks / os.sysconf("SC_CLK_TCK")


def nginx_workers(master_pid_file):
    with open(master_pid_file) as f:
        master = f.read().strip()
    with open(f"/proc/{master}/task/{master}/children") as f:
        return [int(pid) for pid in f.read().split()]


def run_wrk(url, script, connections=64, seconds=DURATION, timeout="2s"):
    out = subprocess.run(["wrk", "-t2", f"-c{connections}", f"-d{seconds}s", f"--timeout={timeout}", "--latency",
                          "-s", script, url], capture_output=True, text=True, check=True).stdout
    rps = float(re.search(r"Requests/sec:\s+([\d.]+)", out).group(1))
    p99 = re.search(r"99%\s+([\d.]+)(us|ms|s)", out)
    scale = {"us": 0.001, "ms": 1.0, "s": 1000.0}[p99.group(2)]
    non2xx = re.search(r"Non-2xx or 3xx responses: (\d+)", out)
    sockets = re.search(r"Socket errors: connect (\d+), read (\d+), write (\d+), timeout (\d+)", out)
    errors = int(non2xx.group(1)) if non2xx else 0
    errors += sum(int(n) for n in sockets.groups()) if sockets else 0
    total = int(re.search(r"(\d+) requests in", out).group(1))
    return rps, float(p99.group(1)) * scale, errors, total, out


def wrk(url, workdir, pids, method="GET", body=None, headers=None):
    """Requests/s, p99 in ms and the server's CPU µs per request of one wrk run."""
    script = os.path.join(workdir, "req.lua")
    with open(script, "w") as f:
        f.write(f'wrk.method = "{method}"\n')
        if body is not None:
            f.write(f"wrk.body = {json.dumps(body)}\n")
        for k, v in (headers or {}).items():
            f.write(f'wrk.headers["{k}"] = "{v}"\n')
    before = cpu_seconds(pids)
    rps, p99, errors, total, out = run_wrk(url, script)
    cpu = cpu_seconds(pids) - before
    if errors:
        raise SystemExit(f"{url}: {errors} failed responses\n{out}")
    return rps, p99, cpu * 1e6 / total


def start_nginx(root, port, workdir):
    conf = os.path.join(workdir, "nginx.conf")
    with open(conf, "w") as f:
        f.write(f"""worker_processes 2;
pid {workdir}/nginx.pid;
error_log {workdir}/nginx-error.log;
events {{ worker_connections 1024; }}
http {{
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 1000000;
  types {{ audio/wav wav; application/json json; }}
  client_body_temp_path {workdir}/body;
  proxy_temp_path {workdir}/proxy;
  fastcgi_temp_path {workdir}/fastcgi;
  uwsgi_temp_path {workdir}/uwsgi;
  scgi_temp_path {workdir}/scgi;
  server {{ listen 127.0.0.1:{port}; root {root}; }}
}}
""")
    subprocess.run(["nginx", "-c", conf, "-p", workdir], check=True)
    return os.path.join(workdir, "nginx.pid")


def seed_cache(home, count):
    """`count` tiny cached lines written the way the cache stores them."""
    cache = os.path.join(home, "temp")
    os.makedirs(cache, exist_ok=True)
    header = bytes.fromhex("52494646") + (36 + 200).to_bytes(4, "little") + b"WAVEfmt " + \
        (16).to_bytes(4, "little") + (1).to_bytes(2, "little") + (1).to_bytes(2, "little") + \
        (44100).to_bytes(4, "little") + (88200).to_bytes(4, "little") + (2).to_bytes(2, "little") + \
        (16).to_bytes(2, "little") + b"data" + (200).to_bytes(4, "little")
    wav = header + bytes(200)
    index = {}
    for i in range(count):
        key = f"{i:064X}"
        with open(os.path.join(cache, key + ".wav"), "wb") as f:
            f.write(wav)
        index[key] = {"file": key + ".wav", "voice": "v", "text": f"line {i}", "language": "en", "speed": 1.0,
                      "sampleRate": 44100, "durationMs": 2, "bytes": len(wav)}
    with open(os.path.join(cache, "index.json"), "w") as f:
        json.dump(index, f)


def time_to_health(home):
    port = free_port()
    env = dict(os.environ, KELVO_HOME=home)
    started = time.monotonic()
    proc = subprocess.Popen([KELVO, "serve", "--port", str(port), "--bind", "127.0.0.1"], env=env,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    request = b"GET /v1/health HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n"
    while True:
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=1) as s:
                s.sendall(request)
                if s.recv(64).startswith(b"HTTP/1.1 200"):
                    break
        except OSError:
            time.sleep(0.0005)
    elapsed = (time.monotonic() - started) * 1000
    proc.terminate()
    proc.wait()
    return elapsed


def main():
    work = tempfile.mkdtemp(prefix="kelvo-bench-")
    os.chmod(work, 0o755)  # nginx's workers drop root and must still read the files
    home = os.path.join(work, "home")
    www = os.path.join(work, "www")
    os.makedirs(www)
    port, nginx_port = free_port(), free_port()
    env = dict(os.environ, KELVO_HOME=home)
    kelvo = subprocess.Popen([KELVO, "serve", "--port", str(port), "--bind", "127.0.0.1"], env=env,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    nginx_pid = None
    try:
        base = f"http://127.0.0.1:{port}"
        wait_for(base + "/v1/health")
        time.sleep(0.5)
        idle = rss_mb(kelvo.pid)
        req = urllib.request.Request(base + "/v1/tts", data=json.dumps(LINE).encode(), method="POST",
                                     headers={"Content-Type": "application/json"})
        with urllib.request.urlopen(req) as r:
            wav, etag = r.read(), r.headers["ETag"]
        with open(os.path.join(www, "line.wav"), "wb") as f:
            f.write(wav)
        with urllib.request.urlopen(base + "/v1/health") as r:
            tiny = r.read()
        with open(os.path.join(www, "tiny.json"), "wb") as f:
            f.write(tiny)
        nginx_pid = start_nginx(www, nginx_port, work)
        nginx = f"http://127.0.0.1:{nginx_port}"
        wait_for(nginx + "/tiny.json")
        ours_pids, theirs_pids = [kelvo.pid], nginx_workers(nginx_pid)

        body = json.dumps(LINE)
        json_header = {"Content-Type": "application/json"}
        # Each case alternates kelvo and nginx ROUNDS times and keeps the
        # median of each, so a neighbour's burst of load on a shared machine
        # cannot land on one side only.
        plans = [
            ("cached POST /v1/tts (%d KB)" % (len(wav) // 1024),
             lambda: wrk(base + "/v1/tts", work, ours_pids, "POST", body, json_header),
             lambda: wrk(nginx + "/line.wav", work, theirs_pids)),
            ("304 with If-None-Match",
             lambda: wrk(base + "/v1/tts", work, ours_pids, "POST", body, dict(json_header, **{"If-None-Match": etag})),
             lambda: wrk(nginx + "/tiny.json", work, theirs_pids)),
            ("GET /v1/health", lambda: wrk(base + "/v1/health", work, ours_pids),
             lambda: wrk(nginx + "/tiny.json", work, theirs_pids)),
        ]
        loads = []
        print(f"{'case':34} {'kelvo req/s':>12} {'nginx req/s':>12} {'ratio':>6} {'range':>11} {'goal':>5} "
              f"{'kelvo p99':>10} {'nginx p99':>10} {'CPU/request kelvo':>18} {'nginx':>7}  "
              f"(medians of {ROUNDS} alternating runs of {DURATION} s)")
        for name, ours, theirs in plans:
            runs = []
            for n in range(ROUNDS):
                # Who goes first flips every round, so a drift in the machine's
                # speed over the case favours neither side.
                if n % 2:
                    their_run = theirs()
                    our_run = ours()
                else:
                    our_run = ours()
                    their_run = theirs()
                runs.append((our_run, their_run))
                loads.append(os.getloadavg()[0])
            median = lambda values: sorted(values)[len(values) // 2]
            k_rps, k_p99 = median([k[0] for k, _ in runs]), median([k[1] for k, _ in runs])
            n_rps, n_p99 = median([n[0] for _, n in runs]), median([n[1] for _, n in runs])
            k_cpu, n_cpu = median([k[2] for k, _ in runs]), median([n[2] for _, n in runs])
            ratios = sorted(k[0] / n[0] for k, n in runs)
            ratio = median(ratios)
            verdict = "" if ratio >= 1.0 else "  (below goal)"
            if name.startswith("cached") and k_p99 > n_p99:
                verdict += "  (p99 above nginx's)"
            print(f"{name:34} {k_rps:12.0f} {n_rps:12.0f} {ratio:6.2f} {ratios[0]:5.2f}-{ratios[-1]:<5.2f} {1.0:5.1f} "
                  f"{k_p99:8.2f}ms {n_p99:8.2f}ms {k_cpu:16.1f}us {n_cpu:5.1f}us{verdict}", flush=True)
        after = rss_mb(kelvo.pid)
        print(f"load average during the runs: mean {sum(loads) / len(loads):.2f}, highest {max(loads):.2f} "
              f"(2 cores, shared with wrk and any neighbours)")
        print(f"resident memory: idle {idle:.1f} MB (goal 32), after the cached-line run {after:.1f} MB (goal 64)")
    finally:
        kelvo.terminate()
        kelvo.wait()
        if nginx_pid and os.path.exists(nginx_pid):
            subprocess.run(["kill", open(nginx_pid).read().strip()], check=False)

    cold = os.path.join(work, "cold")
    seed_cache(cold, 10000)
    times = sorted(time_to_health(cold) for _ in range(5))
    print(f"kelvo serve to first 200 from /v1/health with 10,000 cached lines: median {times[2]:.1f} ms "
          f"(min {times[0]:.1f}, max {times[-1]:.1f}; goal 30)")
    shutil.rmtree(work, ignore_errors=True)


def soak():
    work = tempfile.mkdtemp(prefix="kelvo-soak-")
    home = os.path.join(work, "home")
    port = free_port()
    env = dict(os.environ, KELVO_HOME=home)
    kelvo = subprocess.Popen([KELVO, "serve", "--port", str(port), "--bind", "127.0.0.1"], env=env,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        base = f"http://127.0.0.1:{port}"
        wait_for(base + "/v1/health")
        bodies = [json.dumps(dict(LINE, text=f"{LINE['text']} {n}")) for n in range(20)]
        for body in bodies:  # synthesised once, cached from then on
            req = urllib.request.Request(base + "/v1/tts", data=body.encode(), method="POST",
                                         headers={"Content-Type": "application/json"})
            with urllib.request.urlopen(req) as r:
                r.read()
        script = os.path.join(work, "soak.lua")
        with open(script, "w") as f:
            f.write("local bodies = {" + ", ".join(json.dumps(b) for b in bodies) + "}\n"
                    "local n = 0\n"
                    "request = function()\n"
                    "  n = n + 1\n"
                    "  return wrk.format(\"POST\", \"/v1/tts\", {[\"Content-Type\"] = \"application/json\"},"
                    " bodies[n % #bodies + 1])\n"
                    "end\n")
        samples = []
        loads = []
        result = {}

        def load():
            # A reply later than 30 s counts as an error; on a machine shared
            # with compilers, 2 s (wrk's default) would count slowness as loss.
            result["wrk"] = run_wrk(base + "/v1/tts", script, connections=256, seconds=SOAK_SECONDS, timeout="30s")

        runner = threading.Thread(target=load)
        started = time.monotonic()
        runner.start()
        while runner.is_alive():
            runner.join(timeout=10)
            if runner.is_alive():
                samples.append((time.monotonic() - started, rss_mb(kelvo.pid)))
                loads.append(os.getloadavg()[0])
                print(f"{samples[-1][0]:6.0f} s  {samples[-1][1]:6.1f} MB  load {loads[-1]:.2f}", flush=True)
        rps, p99, errors, total, out = result["wrk"]
        first_minute = next(mb for t, mb in samples if t >= 60) if samples[-1][0] >= 60 else samples[0][1]
        end = rss_mb(kelvo.pid)
        peak = max(mb for _, mb in samples)
        drift = (end - first_minute) / first_minute * 100
        print(f"soak: {total} requests in {SOAK_SECONDS} s ({rps:.0f}/s, p99 {p99:.1f} ms), {errors} errors (goal 0)")
        print(f"resident memory: {first_minute:.1f} MB after the first minute, {end:.1f} MB at the end "
              f"({drift:+.1f} %, goal within 5 %), highest {peak:.1f} MB (goal 64)")
        print(f"load average: mean {sum(loads) / len(loads):.2f}, highest {max(loads):.2f}")
        if errors:
            print(out)
    finally:
        kelvo.terminate()
        kelvo.wait()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    setup()
    soak() if SOAK else main()
