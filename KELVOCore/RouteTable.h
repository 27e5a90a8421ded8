// RouteTable: the HTTP API as data. Each Route row names a method, a path
// pattern, the scope a caller's key needs, the handler and the documentation.
// Dispatch, the 404/405 answers, authorisation, the metrics' route labels and
// the OpenAPI document all read these rows, so a route cannot exist
// undocumented or unguarded: adding an endpoint is adding a row.
//
// Patterns are lower case and compared with the request path lowered in ASCII
// only; "{name}" matches one non-empty segment, or, as the last element, the
// non-empty rest of the path (voice ids may hold "/"). Parameters are taken
// from the path as received, so they keep their case. Rows are tried in
// order: a literal row placed before a pattern row wins.
//
// Thread-safety: built before the server starts, then only read (concurrent
// reads are safe). Cost of a match: one pass over the rows, no allocation but
// the lowered path and the parameters.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "KELVOCore/HttpServer.h"
#include "KELVOCore/Json.h"

namespace kelvo {

// What a caller's key must allow. `open` rows need no key at all.
enum class Scope { open, speak, admin };
std::string_view name(Scope scope);

using RouteParams = std::map<std::string, std::string>;
using RouteHandler = std::function<HttpResponse(const HttpRequest&, const RouteParams&)>;

struct QueryParam {
  std::string name;
  std::string type;  // JSON Schema type: "string", "integer", "number"
  std::string description;
};

// What the OpenAPI document says about one row. Schemas are JSON Schema
// (draft 2020-12, as OpenAPI 3.1 uses). The 401, 403, 429 and 500 answers that
// every guarded, throttled route can give are added by the document builder.
struct RouteDoc {
  std::string summary{};
  std::string description{};
  std::vector<QueryParam> query{};
  Json requestSchema{};  // null: no body
  std::string requestType = "application/json";
  Json responseSchema{};  // the 200 body's JSON schema (also when JSON is the alternative answer)
  std::string responseType = "application/json";  // empty: the answer has no body (a redirect)
  int status = 200;                                // the answer when all goes well
  std::vector<std::string> responseHeaders{};  // sent with that answer (and a 304 when notModified)
  bool notModified = false;                  // may answer 304 to If-None-Match
  std::map<int, std::vector<std::string>> errors{};  // status -> the "error" codes it can carry
  // The schema of this row's error bodies given their codes; empty: {"error","message"}.
  std::function<Json(const std::vector<std::string>& codes)> errorSchema{};
};

struct Route {
  std::string method;   // "GET", "POST", ... or "*" for any method (documented as GET and POST)
  std::string pattern;  // lower case, e.g. "/v1/voices/{id}"
  Scope scope = Scope::admin;
  RouteHandler handler{};  // empty: the method answers 404 like an unknown path and is not documented
  RouteDoc doc{};
  bool unthrottled = false;  // never rate limited on any method (health, for monitors)
  bool spoolsBody = false;   // the body may be as large as a pack and arrives as request.bodyFile
  // Reshapes every error answer (status 400 or more) on this row's path, the
  // 401, 403, 405 and 429 of dispatch included, for clients that expect
  // another error shape; it must leave an answer already in that shape alone.
  // Empty: answers stay {"error","message"}.
  std::function<HttpResponse(HttpResponse)> errorShape{};
};

struct RouteMatch {
  const Route* route = nullptr;  // null: no row takes this method and path
  RouteParams params;
  bool pathKnown = false;  // some row has the path (so a miss is 405, not 404)
  const Route* pathRoute = nullptr;  // the first row with the path, whatever its method
};

class RouteTable {
 public:
  // REQUIRES: `route.pattern` is lower case and starts with "/".
  void add(Route route);
  RouteMatch match(const std::string& method, const std::string& path) const;
  // True when a row with `flag` set (unthrottled, spoolsBody) has this path,
  // whatever the method. Cheaper than match() when few rows have the flag.
  bool flaggedPath(const std::string& path, bool Route::*flag) const;
  const std::vector<Route>& routes() const { return routes_; }
  // The (method, pattern) pairs a client can call, as the document lists them.
  std::vector<std::pair<std::string, std::string>> operations() const;

 private:
  std::vector<Route> routes_;
};

// The methods a row is documented under: its own, or GET and POST for "*".
std::vector<std::string> documentedMethods(const Route& route);
// The method label a request carries in metrics: its row's method, else the
// request's when it is a standard one, else "OTHER" (so labels stay few).
std::string methodLabel(const Route* route, const std::string& requestMethod);

}  // namespace kelvo
