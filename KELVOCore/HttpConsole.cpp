#include "KELVOCore/HttpConsole.h"

#include <algorithm>

#include "KELVOCore/ConsoleFiles.h"
#include "KELVOCore/I18n.h"

namespace kelvo {

namespace {

// Audio the page plays or offers for download arrives through fetch and is
// handed to the <audio> element as a blob: URL, hence media-src blob:.
constexpr std::string_view contentSecurityPolicy =
    "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; media-src 'self' blob:; "
    "connect-src 'self'; object-src 'none'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

void secure(HttpResponse& r) {
  r.headers["Content-Security-Policy"] = std::string(contentSecurityPolicy);
  r.headers["X-Content-Type-Options"] = "nosniff";
  r.headers["X-Frame-Options"] = "DENY";
  r.headers["Referrer-Policy"] = "no-referrer";
  r.headers["Cache-Control"] = "no-cache";
}

// True when the If-None-Match list holds `etag` (or is "*"); weak marks are ignored.
bool holds(std::string_view ifNoneMatch, std::string_view etag) {
  const std::string_view bare = etag.substr(1, etag.size() - 2);
  std::size_t from = 0;
  while (from <= ifNoneMatch.size()) {
    const std::size_t comma = std::min(ifNoneMatch.find(',', from), ifNoneMatch.size());
    std::string_view tag = ifNoneMatch.substr(from, comma - from);
    while (!tag.empty() && tag.front() == ' ') tag.remove_prefix(1);
    while (!tag.empty() && tag.back() == ' ') tag.remove_suffix(1);
    if (tag.starts_with("W/")) tag.remove_prefix(2);
    if (tag == "*" || tag == etag || tag == bare) return true;
    from = comma + 1;
  }
  return false;
}

}  // namespace

std::vector<std::string> consoleHeaderNames() {
  return {"Cache-Control", "Content-Security-Policy", "ETag", "Referrer-Policy", "X-Content-Type-Options"};
}

HttpResponse consoleRedirect() {
  HttpResponse r;
  r.status = 302;
  r.headers["Location"] = "/console/";
  secure(r);
  return r;
}

HttpResponse consoleFile(const HttpRequest& request, std::string_view file) {
  const ConsoleFile* found = findConsoleFile(file.empty() ? "index.html" : file);
  if (found == nullptr) {
    HttpResponse r = HttpResponse::error(404, "not_found", T("没有这个路径:") + request.path);
    secure(r);
    return r;
  }
  HttpResponse r;
  r.headers["ETag"] = std::string(found->etag);
  secure(r);
  if (holds(request.header("if-none-match"), found->etag)) {
    r.status = 304;
    return r;
  }
  r.headers["Content-Type"] = std::string(found->contentType);
  r.body.assign(found->bytes.begin(), found->bytes.end());
  return r;
}

}  // namespace kelvo
