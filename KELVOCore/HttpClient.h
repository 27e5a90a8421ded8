// HttpClient: one blocking HTTP exchange, the only place that talks to libcurl.
// The inference process, the online clients and the command-line client all
// send their requests through `httpExchange`, so libcurl's set-up (global
// initialisation, no signals, no proxy for loopback, no "Expect: 100-continue"
// pause) is decided once.
//
// Thread-safe: any number of threads may exchange at once; each httpExchange
// call has its own handle and connection, an HttpSession keeps one connection
// for the next call. Cost: one connection per call (on loopback some tens of
// microseconds) unless a session reuses one, plus copying the reply body once.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "KELVOCore/Types.h"

namespace kelvo {

struct HttpClientRequest {
  std::string method = "GET";
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;  // sent as given, in order
  Bytes body;                                                // sent when not empty
  std::chrono::milliseconds timeout{30000};                  // for the whole exchange
};

struct HttpClientReply {
  long status = 0;                             // 0 when no reply arrived
  std::map<std::string, std::string> headers;  // names lower-cased; the last of repeated names wins
  Bytes body;
  std::string error;  // empty when a reply arrived (whatever its status)
};

// Sends `request` and waits for the whole reply, the time-out or a transport
// error (`error` then names it, e.g. "Couldn't connect to server"). Never throws.
HttpClientReply httpExchange(const HttpClientRequest& request);

// Exchanges with one server that reuse a kept-alive connection. Servers drop
// idle connections (the s2 server after 5 s), so a connection idle for more
// than `maxIdle` (whole seconds; libcurl's granularity) is never reused, and a
// request whose reused connection turns out closed before any reply byte is
// sent again once on a fresh connection (libcurl does that on its own; nothing
// here may switch it off). Thread-safe: concurrent exchanges each take the kept
// connection or a new one; no lock is held across an exchange.
class HttpSession {
 public:
  explicit HttpSession(std::chrono::seconds maxIdle);
  ~HttpSession();
  HttpSession(const HttpSession&) = delete;
  HttpSession& operator=(const HttpSession&) = delete;

  // As httpExchange, on the kept connection when it is fresh enough.
  HttpClientReply exchange(const HttpClientRequest& request);

 private:
  const std::chrono::seconds maxIdle_;
  std::mutex lock_;
  void* kept_ = nullptr;  // a libcurl handle and its connection cache; guarded by lock_
};

}  // namespace kelvo
