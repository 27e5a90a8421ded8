#include "KELVOCore/RouteTable.h"

#include <algorithm>
#include <array>

namespace kelvo {

namespace {

constexpr std::array<std::string_view, 7> knownMethods = {"GET", "POST", "PUT", "DELETE", "PATCH", "HEAD", "OPTIONS"};

std::string asciiLower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

// Matches `lowered` against `pattern`; parameters are cut from `original`
// (same length and offsets, since only ASCII letters were lowered).
bool matches(std::string_view pattern, const std::string& lowered, const std::string& original, RouteParams* params) {
  std::size_t p = 0;
  std::size_t s = 0;
  while (p < pattern.size()) {
    if (pattern[p] != '{') {
      if (s >= lowered.size() || lowered[s] != pattern[p]) return false;
      ++p;
      ++s;
      continue;
    }
    const std::size_t close = pattern.find('}', p);
    const std::string key(pattern.substr(p + 1, close - p - 1));
    p = close + 1;
    const std::size_t end = p == pattern.size() ? lowered.size() : std::min(lowered.find('/', s), lowered.size());
    if (end == s) return false;
    if (params != nullptr) (*params)[key] = original.substr(s, end - s);
    s = end;
  }
  return s == lowered.size();
}

}  // namespace

std::string_view name(Scope scope) {
  switch (scope) {
    case Scope::open: return "open";
    case Scope::speak: return "speak";
    case Scope::admin: return "admin";
  }
  return "admin";
}

void RouteTable::add(Route route) { routes_.push_back(std::move(route)); }

RouteMatch RouteTable::match(const std::string& method, const std::string& path) const {
  const std::string lowered = asciiLower(path);
  RouteMatch result;
  for (const Route& route : routes_) {
    RouteParams params;
    if (!matches(route.pattern, lowered, path, &params)) continue;
    result.pathKnown = true;
    if (result.pathRoute == nullptr) result.pathRoute = &route;
    if (route.method == "*" || route.method == method) {
      if (route.handler) {
        result.route = &route;
        result.params = std::move(params);
      } else {
        result.pathKnown = false;  // a refusal row: the same 404 as a path nobody serves
      }
      return result;
    }
  }
  return result;
}

bool RouteTable::flaggedPath(const std::string& path, bool Route::*flag) const {
  const std::string lowered = asciiLower(path);
  return std::any_of(routes_.begin(), routes_.end(),
                     [&](const Route& r) { return r.*flag && matches(r.pattern, lowered, path, nullptr); });
}

std::vector<std::pair<std::string, std::string>> RouteTable::operations() const {
  std::vector<std::pair<std::string, std::string>> out;
  for (const Route& route : routes_) {
    if (!route.handler) continue;
    for (const std::string& method : documentedMethods(route)) out.emplace_back(method, route.pattern);
  }
  return out;
}

std::vector<std::string> documentedMethods(const Route& route) {
  if (route.method == "*") return {"GET", "POST"};
  return {route.method};
}

std::string methodLabel(const Route* route, const std::string& requestMethod) {
  if (route != nullptr && route->method != "*") return route->method;
  const bool known = std::find(knownMethods.begin(), knownMethods.end(), requestMethod) != knownMethods.end();
  return known ? requestMethod : "OTHER";
}

}  // namespace kelvo
