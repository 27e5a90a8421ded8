// HttpServer: a small HTTP/1.1 server over plain TCP (Boost.Beast on Asio).
// It accepts connections on one address and port, parses each request into an
// HttpRequest, runs the one handler on a worker pool (never on an I/O thread,
// so a request that waits minutes for the engine holds up nobody else) and
// writes the handler's HttpResponse back. Keep-alive and pipelining are
// supported; a connection's requests are handled one at a time and answered in
// order. A request that asks for "Connection: close" (or is HTTP/1.0 without
// keep-alive) gets that header back, then the connection ends. No TLS;
// responses are never chunked (a chunked request body is accepted and
// decoded); "Expect: 100-continue" is answered before the body is read.
// It knows nothing of the API: the handler is a plain function.
//
// Limits, so a LAN client cannot exhaust memory or sockets: headers 64 KiB
// (400 and close), body 64 MiB (413 before the body is read, then close), 30 s
// to receive a request once its first byte arrived, 5 s for the first byte of
// a new connection, 120 s idle on keep-alive and 120 s to send a response.
// At most 1024 open connections: at the cap the one that has waited longest
// for a request (a fresh or a keep-alive connection) is closed to make room,
// so idle sockets can never lock out a monitor; only when every connection is
// busy is the new one closed at once. No timer runs while a handler works.
// Requests the options name may carry bodies up to 512 MiB, received into a
// temporary file instead of memory; as a large upload may take minutes, their
// receive clock restarts with every MiB received. Each kind of breach is logged
// (source "http") the first time it happens.
//
// Thread-safe: start() and stop() may be called from any thread but a handler;
// the handler is called concurrently from the worker pool and must be
// thread-safe itself. I/O runs on one thread per core, each with its own
// event loop; connections are dealt to them in turn as they are accepted and
// stay on theirs. Cost per request: the quick handler's answer goes out
// from the I/O thread at once; any other request takes two thread hand-offs
// (I/O thread to worker and back). Either way one gathered write of header and
// body; the body is never copied on the way out, and a `bodyFile` not even
// into the process.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KELVOCore/Files.h"
#include "KELVOCore/HttpHeaders.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Types.h"

namespace kelvo {

struct HttpRequest {
  std::string method;  // as received
  std::string path;    // the target before "?"
  std::string query;   // after "?", without it
  HttpHeaders headers;  // names as received; a repeated one keeps its last value
  Bytes body;
  std::string peer;  // the client's IP address, without the port
  // When the body went to a temporary file instead (`body` is empty): its
  // path. The file is deleted once the handler returns.
  std::string bodyFile;

  // The header's value looked up ignoring case; "" when absent.
  std::string header(std::string_view name) const;
  // One query parameter, percent-decoded ("+" is a space); `def` when absent.
  std::string queryValue(std::string_view name, std::string def = {}) const;
  // The body as UTF-8 with invalid sequences replaced by U+FFFD.
  std::string bodyText() const;
};

struct HttpResponse {
  std::int64_t status = 200;
  HttpHeaders headers;
  Bytes body;
  // When set, the body is this open file's content (its size when opened)
  // instead of `body`, sent with sendfile() from the page cache, no copy
  // through the process. Whatever happens to the file's path meanwhile, the
  // bytes sent are the ones the handle was opened on; a file cut short in
  // place mid-send ends the connection instead of the promised length.
  std::shared_ptr<const OpenFile> bodyFile;

  // Serialised JSON ("{}" when it cannot be), "application/json; charset=utf-8".
  static HttpResponse json(std::int64_t status, const Json& object);
  static HttpResponse text(std::int64_t status, std::string_view text);  // "text/plain; charset=utf-8"
  // {"error": code, "message": message} as JSON.
  static HttpResponse error(std::int64_t status, std::string_view code, std::string_view message);
};

// The phrase of the status line; "OK" for any status not in the table.
std::string_view reasonPhrase(std::int64_t status);

// One entity tag as a client sent it back, without surrounding blanks, a weak
// mark or its quotes: `"AB"`, `W/"AB"` and `AB` all give `AB`.
std::string_view bareTag(std::string_view tag);
// Whether an If-None-Match value ("*", or a comma-separated list of tags)
// holds `tag`; tags are compared bare.
bool ifNoneMatchHolds(std::string_view header, std::string_view tag);

// What goes before a body of `contentLength` bytes: status line, headers in
// ascending name order, then "Content-Length" and "Connection" ("close" or
// "keep-alive"), and the blank line. Handler headers named Content-Length or
// Connection (any case) are left out; CR and LF inside names and values become
// spaces.
std::string serializeResponseHead(const HttpResponse& response, std::uint64_t contentLength, bool close);

class HttpServer {
 public:
  using Handler = std::function<HttpResponse(const HttpRequest&)>;
  // Answers what it can at once, on the I/O thread that read the request (no
  // hand-off to the worker pool and back); nullopt passes the request on to
  // the handler. It must never wait for anything but a briefly held lock.
  using QuickHandler = std::function<std::optional<HttpResponse>(const HttpRequest&)>;

  static constexpr std::size_t maxHeaderBytes = 64 * 1024;
  static constexpr std::uint64_t maxBodyBytes = 64ull * 1024 * 1024;
  static constexpr std::uint64_t maxSpooledBodyBytes = 512ull * 1024 * 1024;
  static constexpr int receiveTimeoutSeconds = 30;
  static constexpr int firstByteTimeoutSeconds = 5;
  static constexpr int idleTimeoutSeconds = 120;
  static constexpr std::size_t maxConnections = 1024;

  struct Options {
    // Timings a test may shorten; the defaults are the limits above.
    std::chrono::milliseconds receiveTimeout = std::chrono::seconds(receiveTimeoutSeconds);
    std::chrono::milliseconds idleTimeout = std::chrono::seconds(idleTimeoutSeconds);
    std::chrono::milliseconds firstByteTimeout = std::chrono::seconds(firstByteTimeoutSeconds);
    // The requests whose body may reach maxSpooledBodyBytes, told by method,
    // path (the target before "?", as received) and the Authorization header,
    // so that a caller who may not send one is held to maxBodyBytes before a
    // byte reaches the disk; and the file name their temporary files start
    // with. Called on an I/O thread once the head is parsed; must be cheap.
    std::function<bool(std::string_view method, std::string_view path, std::string_view authorization)> spoolsBody;
    std::string spoolBase;
  };

  // Port 0 picks a free port (see boundPort()). Nothing listens before start().
  HttpServer(std::string bindAddress, std::int64_t port, Handler handler);
  HttpServer(std::string bindAddress, std::int64_t port, Handler handler, Options options);
  // stop(), then waits for handlers still running (their responses are dropped).
  // REQUIRES: not called from a handler.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // REQUIRES: called before start().
  void setQuickHandler(QuickHandler quick);

  // Binds (address reuse on) and listens; binding is synchronous, so this
  // returns well within 5 s. Throws TtsError, leaving no listener: a bind
  // address that is not on this machine says so; any other failure to bind
  // gets the three-line port-in-use message. Logs
  // "service started on " + endpoint(). Does nothing while running. Raises
  // the process's soft descriptor limit when it is too low for 1024 clients.
  void start();
  // Closes the listener and every connection and waits for the I/O threads.
  // Handlers still running finish, but their responses are dropped; queued
  // ones never start. Idempotent; start() may be called again afterwards.
  void stop();
  bool isRunning() const;
  // "http://address:port" as clients are told.
  std::string endpoint() const;
  std::int64_t boundPort() const;  // the port actually listened on; 0 before start

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The addresses other machines reach the service at: non-loopback,
// non-link-local IPv4 interfaces, private ranges first ("192.168." before the
// other private ones), as "http://address:port"; "http://127.0.0.1:port" last.
// That list is for a wildcard (or empty) `bindAddress`; bound to one address
// or host name the service is reachable there only, so that is the one entry.
std::vector<std::string> reachableUrls(const std::string& bindAddress, std::int64_t port);

}  // namespace kelvo
