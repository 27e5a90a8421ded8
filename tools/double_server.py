"""What the test doubles of outside servers share: a handler base that answers
with a body and keeps a log of what it answered, and the start-up protocol the
tests rely on (listen on 127.0.0.1, print "PORT <n>" first, stop when standard
input closes)."""

import http.server
import sys
import threading


class DoubleHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    log_lock = threading.Lock()
    log = []  # {"method", "path", "status"} per answer; subclasses may add keys

    def log_message(self, *args):
        pass

    def record(self, status, **extra):
        with self.log_lock:
            self.log.append(dict(method=self.command, path=self.path, status=status, **extra))

    def send(self, status, body, content_type="application/octet-stream", headers=(), **extra):
        self.record(status, **extra)
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        for name, value in headers:
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

    def read_body(self):
        return self.rfile.read(int(self.headers.get("Content-Length", "0") or 0))


class QuietServer(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        # Clients that hang up early are what the doubles exist to provoke.
        if not isinstance(sys.exc_info()[1], ConnectionError):
            super().handle_error(request, client_address)


def serve(handler, port):
    """Serves `handler` on 127.0.0.1:port (0: a free port) until stdin closes."""
    server = QuietServer(("127.0.0.1", port), handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    print("PORT %d" % server.server_address[1], flush=True)
    try:
        sys.stdin.read()
    except KeyboardInterrupt:
        pass
    server.shutdown()
