#include "KELVOCore/OpenApi.h"

#include <algorithm>
#include <set>

#include "KELVOCore/Version.h"

namespace kelvo {

namespace {

std::string lowerMethod(std::string m) {
  for (char& c : m) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return m;
}

// "/v1/voices/{id}" -> the names in braces, in order.
std::vector<std::string> pathParams(const std::string& pattern) {
  std::vector<std::string> out;
  for (std::size_t open = pattern.find('{'); open != std::string::npos; open = pattern.find('{', open + 1)) {
    out.push_back(pattern.substr(open + 1, pattern.find('}', open) - open - 1));
  }
  return out;
}

std::string reasonText(int status) { return std::string(reasonPhrase(status)); }

Json headersJson(const std::vector<std::string>& names) {
  Json h = Json::object();
  for (const std::string& n : names) h[n] = Json{{"schema", Json{{"type", "string"}}}};
  return h;
}

Json operation(const Route& route, const std::string& method) {
  const RouteDoc& doc = route.doc;
  Json op{{"summary", doc.summary}, {"operationId", lowerMethod(method) + route.pattern}, {"x-kelvo-scope", name(route.scope)}};
  if (!doc.description.empty()) op["description"] = doc.description;

  Json params = Json::array();
  for (const std::string& p : pathParams(route.pattern)) {
    params.push_back(Json{{"name", p}, {"in", "path"}, {"required", true}, {"schema", Json{{"type", "string"}}}});
  }
  // A row for any method reads its query on GET and its body on POST.
  const bool anyMethod = route.method == "*";
  if (!anyMethod || method == "GET") {
    for (const QueryParam& q : doc.query) {
      params.push_back(
          Json{{"name", q.name}, {"in", "query"}, {"description", q.description}, {"schema", Json{{"type", q.type}}}});
    }
  }
  if (!params.empty()) op["parameters"] = std::move(params);
  if (!doc.requestSchema.is_null() && (!anyMethod || method == "POST")) {
    op["requestBody"] = Json{{"required", true}, {"content", Json{{doc.requestType, Json{{"schema", doc.requestSchema}}}}}};
  }

  Json ok{{"description", doc.summary}};
  if (!doc.responseHeaders.empty()) ok["headers"] = headersJson(doc.responseHeaders);
  // A row whose usual answer is not JSON but has a schema answers JSON on request too.
  const bool json = doc.responseType.rfind("application/json", 0) == 0;
  if (!doc.responseType.empty()) {
    ok["content"] = Json{{doc.responseType, json && !doc.responseSchema.is_null() ? Json{{"schema", doc.responseSchema}}
                                                                                  : Json::object()}};
  }
  if (!json && !doc.responseSchema.is_null()) ok["content"]["application/json"] = Json{{"schema", doc.responseSchema}};
  Json responses{{std::to_string(doc.status), std::move(ok)}};
  if (doc.notModified) {
    // A 304 repeats the tag, and the result marker of the rows that send one.
    std::vector<std::string> notModifiedHeaders{"ETag"};
    const auto& sent = doc.responseHeaders;
    if (std::find(sent.begin(), sent.end(), "X-KELVO-Result") != sent.end()) notModifiedHeaders.push_back("X-KELVO-Result");
    responses["304"] = Json{{"description", "Not Modified: the If-None-Match tag is the current one"},
                            {"headers", headersJson(notModifiedHeaders)}};
  }

  std::map<int, std::vector<std::string>> errors = doc.errors;
  if (route.scope != Scope::open) errors[401].push_back("unauthorized");
  if (route.scope == Scope::admin) errors[403].push_back("forbidden");
  if (!route.unthrottled) errors[429].push_back("rate_limited");
  errors[500].push_back("internal");
  for (auto& [status, codes] : errors) {
    std::set<std::string> unique(codes.begin(), codes.end());
    Json response{{"description", reasonText(status)},
                  {"content", Json{{"application/json", Json{{"schema", (doc.errorSchema ? doc.errorSchema : errorSchema)(
                                                                               {unique.begin(), unique.end()})}}}}}};
    if (status == 401) response["headers"] = headersJson({"WWW-Authenticate"});
    if (status == 429) response["headers"] = headersJson({"Retry-After"});
    responses[std::to_string(status)] = std::move(response);
  }
  op["responses"] = std::move(responses);
  op["security"] = route.scope == Scope::open ? Json::array()
                                               : Json::array({Json{{"bearer", Json::array({name(route.scope)})}}});
  return op;
}

}  // namespace

Json errorSchema(const std::vector<std::string>& codes) {
  return Json{{"type", "object"},
              {"required", Json::array({"error", "message"})},
              {"properties", Json{{"error", Json{{"type", "string"}, {"enum", codes}}}, {"message", Json{{"type", "string"}}}}}};
}

Json openApiDocument(const RouteTable& table) {
  Json paths = Json::object();
  for (const Route& route : table.routes()) {
    if (!route.handler) continue;
    for (const std::string& method : documentedMethods(route)) {
      paths[route.pattern][lowerMethod(method)] = operation(route, method);
    }
  }
  return Json{
      {"openapi", "3.1.0"},
      {"info",
       Json{{"title", "KELVO"},
            {"version", std::string(KELVO::version)},
            {"description",
             "Local text-to-speech for airline announcements. Paths are matched without regard to case. "
             "While API keys exist, every operation with a scope needs \"Authorization: Bearer KEY\": a speak key "
             "allows the operations marked speak, an admin key all of them. An unknown path answers 404 and a "
             "known path with another method 405, both with the error schema."}}},
      {"paths", std::move(paths)},
      {"components",
       Json{{"securitySchemes",
             Json{{"bearer", Json{{"type", "http"},
                                  {"scheme", "bearer"},
                                  {"description", "An API key made with `kelvo keys add`; its scope is speak or admin."}}}}},
            {"schemas", Json{{"Error", errorSchema({"not_found", "method_not_allowed", "body_too_large"})}}}}}};
}

}  // namespace kelvo
