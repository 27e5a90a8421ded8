// HubStore: the server side of the sharing hub, for `kelvo serve --hub`, so an
// airline group can run its own hub on its intranet. It answers the three
// actions of the hub's wire format (see Hub.h) plus "a=download&id=…", the
// address its list hands out for each pack, from packs kept as "<id>.cln"
// beside an "index.json" in one folder (the data root's "hub/").
//
// Everything uploaded is treated as hostile: bodies over 20 MB are refused
// with 413, a sixth upload within an hour from one address with 429, and a
// "pack" that ZipReader cannot open, without a readable "cln.json", of another
// format, or without a voice whose clip is in the archive, with 400. Delete
// keys are random, shown once, and kept only as their SHA-256; a wrong one
// gets 403.
//
// Thread-safe: handle() may run on many HTTP workers at once. One mutex guards
// the index and the upload counts; a pack is checked and written outside it.
// Cost: an upload inflates the manifest and lists the archive once; a list is
// a copy of the index.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "KELVOCore/Hub.h"
#include "KELVOCore/HttpServer.h"
#include "KELVOCore/Paths.h"

namespace kelvo {

struct HubLimits {
  std::int64_t maxPackBytes = hubMaxPackBytes;
  int uploadsPerWindow = hubUploadsPerHour;
  std::chrono::seconds window{3600};
};

class HubStore {
 public:
  // Reads `folder` + "index.json" when there is one; a damaged index is
  // logged and the hub starts empty (the packs stay on disk).
  explicit HubStore(std::string folder = KELVOPaths::dataRoot() + "hub/", HubLimits limits = {});
  HubStore(const HubStore&) = delete;
  HubStore& operator=(const HubStore&) = delete;

  // One request for "/API/hub.php": the action comes from the query ("a").
  HttpResponse handle(const HttpRequest& request);

 private:
  struct Share {
    HubListing listing;
    std::string version;
    std::string fingerprint;
    std::string keyHash;  // SHA-256 of the delete key
  };

  HttpResponse list(const HttpRequest& request) const;
  HttpResponse upload(const HttpRequest& request);
  HttpResponse remove(const HttpRequest& request);
  HttpResponse download(const HttpRequest& request) const;
  // False when `peer` used up its uploads; otherwise counts this one.
  bool admit(const std::string& peer);
  void saveIndexLocked() const;

  const std::string folder_;
  const HubLimits limits_;
  mutable std::mutex lock_;
  std::vector<Share> shares_;  // oldest first
  std::map<std::string, std::deque<std::chrono::steady_clock::time_point>> uploads_;  // by peer address
};

}  // namespace kelvo
