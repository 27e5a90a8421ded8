// HttpClient: one blocking HTTP exchange, the only place that talks to libcurl.
// The inference process, the online clients and the command-line client all
// send their requests through `httpExchange`, so libcurl's set-up (global
// initialisation, no signals, no proxy for loopback, no "Expect: 100-continue"
// pause) is decided once.
//
// Thread-safe: any number of threads may exchange at once; each call has its
// own handle and connection. Cost: one connection per call (on loopback some
// tens of microseconds) plus copying the reply body once.
#pragma once

#include <chrono>
#include <map>
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

}  // namespace kelvo
