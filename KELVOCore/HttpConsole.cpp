#include "KELVOCore/HttpConsole.h"

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

}  // namespace

std::vector<std::string> consoleHeaderNames() {
  HttpResponse r;
  secure(r);
  r.headers["ETag"] = {};
  std::vector<std::string> names;
  for (const auto& [name, value] : r.headers) names.push_back(name);
  return names;
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
  if (ifNoneMatchHolds(request.header("if-none-match"), found->etag)) {
    r.status = 304;
    return r;
  }
  r.headers["Content-Type"] = std::string(found->contentType);
  r.body.assign(found->bytes.begin(), found->bytes.end());
  return r;
}

}  // namespace kelvo
