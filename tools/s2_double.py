#!/usr/bin/env python3
"""Double of the s2 inference server, for tests.

Install it as <data root>/engine/s2 (executable, so its process runs as
"python3 <root>/engine/s2 ..."). By default it behaves as the real server does:
  - it loads (S2_DOUBLE_LOAD_MS) before it listens, on 127.0.0.1:--port;
    flags it does not know are ignored;
  - POST /generate answers 200 audio/wav holding mono 32-bit IEEE float samples
    (format 3) at 44.1 kHz, 100 ms per character of the text; the samples
    differ on every call (the real sampler is seeded randomly, "seed" and
    "repetition_penalty" are ignored);
  - the reference part's file name is ignored: its bytes are sniffed as WAV,
    then MP3; anything else is dropped with a log line and synthesis goes on
    without a reference; a reference with an empty transcript gets 400
    text/plain;
  - a missing text gets 400 with a JSON {"error": ...}; while another
    synthesis runs, 503 text/plain "Server busy processing another synthesis
    request."; a failed synthesis 500 text/plain "Synthesis failed.";
  - connections are kept alive, and one idle for 5 s is dropped.

It also checks what it receives: the argument order, the multipart layout, the
part order and headers and the "params" keys. Every mistake is printed to
standard output as "protocol mistake: ..." and named in the response header
X-S2-Double-Mistakes; correct traffic never carries that header. Each answer
is logged as "generate: <n> bytes, request <k> on this connection", and its
header X-S2-Double-Reference says what the reference was taken as (wav, mp3,
dropped, none).

Faults, chosen by environment variables (the engine passes its environment on):
  S2_DOUBLE_LOAD_MS=N          wait N ms before listening
  S2_DOUBLE_NEVER_LISTEN=1     never listen (sleep until killed)
  S2_DOUBLE_PORT=N             listen on N whatever --port says
  S2_DOUBLE_DIE=load           die before listening (after the load delay)
  S2_DOUBLE_DIE=ready+N        die N ms after it started listening
  S2_DOUBLE_DIE=request+K      die on receiving request K+1 (K answered first)
  S2_DOUBLE_DIE_BY=exit:N|signal:N   how it dies (default exit:1)
  S2_DOUBLE_SYNTH_MS=N         each synthesis takes N ms
  S2_DOUBLE_REPLY=wav|notwav|error500|busy
                               200 WAV (default); 200 with a text body; 500
                               "Synthesis failed."; 503 to everything
  S2_DOUBLE_DROP_REUSED=1      close a connection, unanswered, when a second
                               request arrives on it (an idle drop that races
                               the client's next request)
  S2_DOUBLE_IGNORE_SIGTERM=1   survive SIGTERM (only SIGKILL ends it)
"""

import array
import http.server
import json
import math
import os
import random
import re
import resource
import signal
import sys
import threading
import time

MISTAKES_HEADER = "X-S2-Double-Mistakes"
RATE = 44100
MS_PER_CHAR = 100
IDLE_DROP_S = 5
BUSY_TEXT = b"Server busy processing another synthesis request."
FAILED_TEXT = b"Synthesis failed."
BOUNDARY_RE = re.compile(r"multipart/form-data; boundary=(----KELVO[0-9A-F]{32})")
PARAM_KEYS = {"max_new_tokens": int, "temperature": float, "top_p": float, "top_k": int,
              "repetition_penalty": float}


def env(name, default=""):
    return os.environ.get(name, default)


def mistake(mistakes, text):
    mistakes.append(text)
    print("protocol mistake: " + text, flush=True)


def die():
    how, _, number = env("S2_DOUBLE_DIE_BY", "exit:1").partition(":")
    sys.stdout.flush()
    # No core file: the working directory is the engine folder.
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    if how == "signal":
        sig = int(number)
        if sig not in (signal.SIGKILL, signal.SIGSTOP):
            signal.signal(sig, signal.SIG_DFL)
        os.kill(os.getpid(), sig)
        time.sleep(5)
    os._exit(int(number or 1))


def check_args(argv):
    """The engine's command line, in its one allowed order; returns (port, mistakes)."""
    mistakes = []
    a = list(argv)

    def take(expected):
        if not a or a[0] != expected:
            mistake(mistakes, "argument %r expected, got %r" % (expected, a[0] if a else None))
            return False
        a.pop(0)
        return True

    def value(what):
        if not a:
            mistake(mistakes, "value of %s missing" % what)
            return ""
        return a.pop(0)

    take("--model")
    model = value("--model")
    if not model.endswith(".gguf") or not os.path.isfile(model):
        mistake(mistakes, "model %r is not an existing .gguf file" % model)
    for word in ("--server", "--host", "127.0.0.1", "--port"):
        take(word)
    port_text = value("--port")
    port = int(port_text) if port_text.isdigit() else 0
    if not 0 < port < 65536:
        mistake(mistakes, "bad port %r" % port_text)
    if a and a[0] == "--tokenizer":
        a.pop(0)
        if not os.path.isfile(value("--tokenizer")):
            mistake(mistakes, "tokenizer file missing")
    if a and a[0] == "-M":
        a.pop(0)
        take("-ngl")
        if not value("-ngl").isdigit():
            mistake(mistakes, "-ngl needs a layer count")
    else:
        take("-ngl")
        if value("-ngl") != "0":
            mistake(mistakes, "-ngl must be 0 without -M")
    take("--codec-cpu")
    if a and a[0] == "-threads":
        a.pop(0)
        if not value("-threads").isdigit():
            mistake(mistakes, "-threads needs a count")
    if any(not word for word in a):
        mistake(mistakes, "empty extra argument")
    return port, mistakes


def parse_form(content_type, body):
    """The parts of a /generate form as (name, filename, value); raises ValueError
    when it cannot be read at all; layout deviations go to the mistakes list."""
    mistakes = []
    match = BOUNDARY_RE.fullmatch(content_type or "")
    if not match:
        mistake(mistakes, "content type %r" % content_type)
        loose = re.search(r"boundary=(\S+)", content_type or "")
        if not loose:
            raise ValueError("no boundary")
        boundary = loose.group(1).encode()
    else:
        boundary = match.group(1).encode()
    delimiter = b"--" + boundary + b"\r\n"
    closing = b"--" + boundary + b"--\r\n"
    if not body.startswith(delimiter) or not body.endswith(closing):
        raise ValueError("body does not start with the boundary and end with the closing delimiter")
    parts = []
    for chunk in body[len(delimiter):-len(closing)].split(delimiter):
        head, sep, rest = chunk.partition(b"\r\n\r\n")
        if not sep or not rest.endswith(b"\r\n"):
            raise ValueError("part without header block or CRLF ending")
        value = rest[:-2]
        lines = head.decode("utf-8", "replace").split("\r\n")
        disposition = re.fullmatch(r'Content-Disposition: form-data; name="([^"]+)"(?:; filename="([^"]+)")?',
                                   lines[0])
        if not disposition:
            raise ValueError("bad Content-Disposition %r" % lines[0])
        name, filename = disposition.group(1), disposition.group(2)
        expected_type = "application/octet-stream" if filename else "text/plain; charset=utf-8"
        if lines[1:] != ["Content-Type: " + expected_type]:
            mistake(mistakes, "part %s has headers %r" % (name, lines[1:]))
        parts.append((name, filename, value))
    return parts, mistakes


class Refusal(Exception):
    """A request the real server refuses: status, content type, body."""

    def __init__(self, status, content_type, body):
        super().__init__(body)
        self.status, self.content_type, self.body = status, content_type, body


def check_form(parts, mistakes):
    """The text to speak and what the reference was taken as; raises Refusal."""
    names = [p[0] for p in parts]
    if names not in (["text", "params"], ["text", "params", "reference", "reference_text"],
                     ["text", "params", "voice"]):
        mistake(mistakes, "part order %r" % names)
    fields = {p[0]: p for p in parts}
    try:
        params = json.loads(fields.get("params", (None, None, b""))[2])
    except ValueError:
        params = None
    if not isinstance(params, dict):
        mistake(mistakes, "params is not a JSON object")
        params = {}
    for key, kind in PARAM_KEYS.items():
        v = params.get(key)
        if isinstance(v, bool) or not isinstance(v, (int, float)) or (kind is int and not isinstance(v, int)):
            mistake(mistakes, "params.%s is %r" % (key, v))
    if "seed" in params and (not isinstance(params["seed"], int) or params["seed"] == 0):
        mistake(mistakes, "params.seed is %r (0 must be left out)" % params["seed"])
    unknown = set(params) - set(PARAM_KEYS) - {"seed"}
    if unknown:
        mistake(mistakes, "unknown params %r" % sorted(unknown))
    if "text" not in fields or not fields["text"][2].strip():
        raise Refusal(400, "application/json", json.dumps({"error": "missing 'text' field"}).encode())
    reference = "none"
    if "reference" in fields:
        _, filename, audio = fields["reference"]
        # The server itself never looks at the name; KELVO's naming is checked all the same.
        sniffed = sniff(audio)
        if filename != {"wav": "reference.wav", "mp3": "reference.mp3"}.get(sniffed, "reference.wav"):
            mistake(mistakes, "%s reference named %r" % (sniffed, filename))
        if not fields.get("reference_text", (None, None, b""))[2].strip():
            raise Refusal(400, "text/plain", b"reference_text is required with a reference")
        if sniffed == "other":
            print("reference: %d bytes are neither WAV nor MP3; ignored" % len(audio), flush=True)
            reference = "dropped"
        else:
            reference = sniffed
    return fields["text"][2].decode("utf-8"), reference


def sniff(audio):
    if audio[:4] == b"RIFF" and audio[8:12] == b"WAVE":
        return "wav"
    if audio[:3] == b"ID3" or (len(audio) > 1 and audio[0] == 0xFF and audio[1] & 0xE0 == 0xE0):
        return "mp3"
    return "other"


def wav_for(text):
    """Mono 32-bit float WAV; tone level and phase differ on every call."""
    frames = RATE * MS_PER_CHAR * len(text) // 1000
    level, phase = random.uniform(0.2, 0.5), random.uniform(0, 2 * math.pi)
    period = array.array("f", (level * math.sin(phase + 2 * math.pi * k / 200) for k in range(200)))
    samples = (period * (frames // len(period) + 1))[:frames]
    if sys.byteorder != "little":
        samples.byteswap()
    data = samples.tobytes()
    header = b"RIFF" + (36 + len(data)).to_bytes(4, "little") + b"WAVEfmt " + (16).to_bytes(4, "little")
    header += (3).to_bytes(2, "little") + (1).to_bytes(2, "little") + RATE.to_bytes(4, "little")
    header += (RATE * 4).to_bytes(4, "little") + (4).to_bytes(2, "little") + (32).to_bytes(2, "little")
    return header + b"data" + len(data).to_bytes(4, "little") + data


class Double:
    def __init__(self, startup_mistakes):
        self.startup_mistakes = startup_mistakes
        self.busy = threading.Lock()
        self.count_lock = threading.Lock()
        self.requests = 0


def make_handler(double):
    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"
        # A keep-alive connection that sends nothing for this long is closed.
        timeout = IDLE_DROP_S

        def setup(self):
            super().setup()
            self.served = 0

        def log_message(self, fmt, *args):
            print("request: " + fmt % args, flush=True)

        def answer(self, status, body, content_type, mistakes, reference="none"):
            self.send_response(status)
            self.send_header("Content-Type", content_type)
            self.send_header("Content-Length", str(len(body)))
            self.send_header("X-S2-Double-Reference", reference)
            every = double.startup_mistakes + mistakes
            if every:
                self.send_header(MISTAKES_HEADER, "; ".join(every).replace("\r", " ").replace("\n", " "))
            self.end_headers()
            self.wfile.write(body)

        def do_POST(self):
            body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
            self.served += 1
            print("generate: %d bytes, request %d on this connection" % (len(body), self.served), flush=True)
            if self.served > 1 and env("S2_DOUBLE_DROP_REUSED"):
                print("dropped the connection unanswered", flush=True)
                self.close_connection = True
                return
            if self.path != "/generate":
                self.answer(404, b"not found", "text/plain", [])
                return
            with double.count_lock:
                double.requests += 1
                number = double.requests
            when = env("S2_DOUBLE_DIE")
            if when.startswith("request+") and number > int(when[len("request+"):]):
                die()
            mistakes = []
            try:
                parts, mistakes = parse_form(self.headers.get("Content-Type"), body)
                text, reference = check_form(parts, mistakes)
            except ValueError as error:
                mistake(mistakes, "malformed form: %s" % error)
                self.answer(400, ("malformed form: %s" % error).encode(), "text/plain", mistakes)
                return
            except Refusal as refusal:
                self.answer(refusal.status, refusal.body, refusal.content_type, mistakes)
                return
            reply = env("S2_DOUBLE_REPLY", "wav")
            if reply == "busy" or not double.busy.acquire(blocking=False):
                self.answer(503, BUSY_TEXT, "text/plain", mistakes)
                return
            # As in the real server, the synthesis lock is let go before the
            # reply is written: a client that has its answer finds it free.
            try:
                time.sleep(int(env("S2_DOUBLE_SYNTH_MS", "0")) / 1000)
                if reply == "notwav":
                    status, audio = 200, b"this is not audio at all"
                elif reply == "error500":
                    status, audio = 500, FAILED_TEXT
                else:
                    status, audio = 200, wav_for(text)
            finally:
                double.busy.release()
            self.answer(status, audio, "audio/wav" if status == 200 else "text/plain", mistakes, reference)

    return Handler


def main():
    if env("S2_DOUBLE_IGNORE_SIGTERM"):
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
    print("s2 double: " + " ".join(sys.argv[1:]), flush=True)
    port, mistakes = check_args(sys.argv[1:])
    time.sleep(int(env("S2_DOUBLE_LOAD_MS", "0")) / 1000)
    when = env("S2_DOUBLE_DIE")
    if when == "load":
        die()
    if env("S2_DOUBLE_NEVER_LISTEN"):
        while True:
            time.sleep(3600)
    port = int(env("S2_DOUBLE_PORT", str(port)))
    http.server.ThreadingHTTPServer.allow_reuse_address = True
    http.server.ThreadingHTTPServer.daemon_threads = True
    server = http.server.ThreadingHTTPServer(("127.0.0.1", port), make_handler(Double(mistakes)))
    print("s2 double: listening on %d" % port, flush=True)
    if when.startswith("ready+"):
        threading.Timer(int(when[len("ready+"):]) / 1000, die).start()
    server.serve_forever()


if __name__ == "__main__":
    main()
