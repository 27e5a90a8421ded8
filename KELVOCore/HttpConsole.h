// The browser console's HTTP answers: its embedded files (ConsoleFiles.h) and
// the redirect that sends a browser from "/" to them. The page talks to the
// service only through the public /v1 API, so these answers carry no data and
// need no key; what they do carry is a strict Content-Security-Policy (no
// inline script or style, nothing from other origins, no framing), nosniff
// and a strong ETag with "Cache-Control: no-cache", so a browser revalidates
// every load and a new build is picked up at once.
//
// Thread-safe: pure functions over constant data. Cost: a lookup by name; the
// body is copied once into the response.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "KELVOCore/HttpServer.h"

namespace kelvo {

// The headers every console answer carries, by name (for the route docs).
std::vector<std::string> consoleHeaderNames();
// 302 to "/console/".
HttpResponse consoleRedirect();
// The file at `file` (relative to the console folder; "" is index.html): 200
// with its bytes, 304 when If-None-Match holds its tag, else 404.
HttpResponse consoleFile(const HttpRequest& request, std::string_view file);

}  // namespace kelvo
