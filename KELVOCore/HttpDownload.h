// HttpDownload: one streaming HTTP GET whose body goes straight into a file,
// for downloads too large to hold in memory (model files of several GB). Next
// to HttpClient it is the only other place that talks to libcurl: HttpClient
// answers short exchanges in memory, this one adds what a long transfer over a
// flaky link needs — a "Range" request to resume, a stall time-out, progress
// and cancel from any thread, and a look at the reply's head and first bytes
// before a single byte reaches the disk (so a captive portal's page never
// overwrites a good partial file).
//
// Thread-safe: any number of downloads may run at once, each on the thread that
// called httpDownload; the callbacks run on that thread. Cost: one connection
// per call; the body passes through a 16 KiB libcurl buffer into the file, and
// only the first `prefixBytes` are held back in memory.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>

namespace kelvo {

// The final reply's status and headers (names lower-cased; the last of
// repeated names wins). Redirects are followed and never show here.
struct HttpDownloadHead {
  long status = 0;
  std::map<std::string, std::string> headers;
  // The header's value, "" when absent. REQUIRES: `name` in lower case.
  std::string header(const std::string& name) const;
};

// What to do with a reply's body, decided from its head.
enum class DownloadWrite {
  replace,  // the file is truncated and the body written from its start
  append,   // the body is added at the end of the file (a resumed transfer)
  discard,  // nothing is written and the transfer ends (end: refused)
};

struct HttpDownloadRequest {
  std::string url;
  std::string path;            // the file the body goes into; created when missing
  std::int64_t rangeFrom = 0;  // above 0: ask for the bytes from here on
  // No body byte for this long ends the transfer (end: stalled). Noticed
  // within about a second after it passed.
  std::chrono::milliseconds stallTimeout{60000};
  std::chrono::seconds connectTimeout{30};
  // Decides from the final head how to store the body, before any byte is
  // written. Called exactly once when a reply arrived. Unset: replace.
  std::function<DownloadWrite(const HttpDownloadHead&)> onHead;
  // With `replace`, the first `prefixBytes` of the body (fewer when the body
  // is shorter) are held back and shown here first; false refuses the body
  // and the file is left untouched (end: refused). Unused with `append`.
  std::size_t prefixBytes = 0;
  std::function<bool(std::span<const std::uint8_t>)> checkPrefix;
  // Called often while the transfer runs, also while nothing arrives (about
  // once a second then), with the body bytes written so far; false cancels
  // (end: cancelled).
  std::function<bool(std::int64_t written)> onProgress;
};

enum class HttpDownloadEnd {
  complete,        // the whole reply arrived; the file is flushed to disk
  refused,         // onHead said discard, or checkPrefix said no
  cancelled,       // onProgress said stop
  stalled,         // no byte within stallTimeout
  transportError,  // no reply, or the connection broke
  writeError,      // the file could not be opened or written
};

struct HttpDownloadResult {
  HttpDownloadEnd end = HttpDownloadEnd::transportError;
  HttpDownloadHead head;     // status 0 when no reply arrived
  std::int64_t written = 0;  // body bytes put into the file by this call
  std::string error;         // libcurl's or the file system's reason; "" otherwise
};

// Runs the transfer to its end. Never throws. Bytes written before a failure
// stay in the file (that is what makes a later `append` possible).
HttpDownloadResult httpDownload(const HttpDownloadRequest& request);

}  // namespace kelvo
