// The request and response values of HttpServer.h and the bytes a response is
// sent as. Kept apart from the connection handling: these are pure functions.
#include <unicode/utf8.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "KELVOCore/HttpServer.h"
#include "KELVOCore/Json.h"

namespace kelvo {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "+" is a space, "%XX" a byte; a "%" not followed by two hex digits stays as it is.
std::string percentDecoded(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (c == '+') {
      out += ' ';
    } else if (c == '%' && i + 2 < s.size() && hexDigit(s[i + 1]) >= 0 && hexDigit(s[i + 2]) >= 0) {
      out += static_cast<char>(hexDigit(s[i + 1]) * 16 + hexDigit(s[i + 2]));
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

// A header name or value goes on one line whatever the handler put in it.
void appendOneLine(std::string& out, std::string_view s) {
  if (s.empty()) return;
  const std::size_t from = out.size();
  out += s;
  // Seldom any: two vectorised scans settle it before a byte is looked at alone.
  if (std::memchr(s.data(), '\r', s.size()) == nullptr && std::memchr(s.data(), '\n', s.size()) == nullptr) return;
  std::replace_if(out.begin() + static_cast<std::ptrdiff_t>(from), out.end(), [](char c) { return c == '\r' || c == '\n'; },
                  ' ');
}

}  // namespace

std::string HttpRequest::header(std::string_view name) const {
  for (const auto& [key, value] : headers) {
    if (equalsIgnoringCase(key, name)) return value;
  }
  return {};
}

std::string HttpRequest::queryValue(std::string_view name, std::string def) const {
  std::string_view rest = query;
  while (!rest.empty()) {
    const std::size_t amp = rest.find('&');
    const std::string_view pair = rest.substr(0, amp);
    rest = amp == std::string_view::npos ? std::string_view{} : rest.substr(amp + 1);
    const std::size_t eq = pair.find('=');
    if (percentDecoded(pair.substr(0, eq)) != name) continue;
    return eq == std::string_view::npos ? std::string{} : percentDecoded(pair.substr(eq + 1));
  }
  return def;
}

std::string HttpRequest::bodyText() const {
  static constexpr std::string_view replacement = "\xEF\xBF\xBD";
  const auto* p = body.data();
  const auto length = static_cast<std::int32_t>(body.size());
  std::string out;
  out.reserve(body.size());
  std::int32_t i = 0;
  while (i < length) {
    const std::int32_t start = i;
    UChar32 c;
    U8_NEXT(p, i, length, c);
    if (c < 0) {
      out += replacement;
    } else {
      out.append(reinterpret_cast<const char*>(p + start), static_cast<std::size_t>(i - start));
    }
  }
  return out;
}

HttpResponse HttpResponse::json(std::int64_t status, const Json& object) {
  HttpResponse r;
  r.status = status;
  r.headers["Content-Type"] = "application/json; charset=utf-8";
  r.body = jsonData(object, false);
  return r;
}

HttpResponse HttpResponse::text(std::int64_t status, std::string_view text) {
  HttpResponse r;
  r.status = status;
  r.headers["Content-Type"] = "text/plain; charset=utf-8";
  r.body.assign(text.begin(), text.end());
  return r;
}

HttpResponse HttpResponse::error(std::int64_t status, std::string_view code, std::string_view message) {
  return json(status, Json{{"error", code}, {"message", message}});
}

std::string_view reasonPhrase(std::int64_t status) {
  switch (status) {
    case 202: return "Accepted";
    case 204: return "No Content";
    case 304: return "Not Modified";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 413: return "Payload Too Large";
    case 429: return "Too Many Requests";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    case 504: return "Gateway Timeout";
    default: return "OK";
  }
}

std::string_view bareTag(std::string_view tag) {
  while (!tag.empty() && (tag.front() == ' ' || tag.front() == '\t')) tag.remove_prefix(1);
  while (!tag.empty() && (tag.back() == ' ' || tag.back() == '\t')) tag.remove_suffix(1);
  // Browsers may send a strong tag back marked weak.
  if (tag.starts_with("W/")) tag.remove_prefix(2);
  if (tag.size() >= 2 && tag.front() == '"' && tag.back() == '"') tag = tag.substr(1, tag.size() - 2);
  return tag;
}

bool ifNoneMatchHolds(std::string_view header, std::string_view tag) {
  const std::string_view wanted = bareTag(tag);
  for (std::size_t from = 0; from <= header.size();) {
    const std::size_t comma = std::min(header.find(',', from), header.size());
    const std::string_view candidate = bareTag(header.substr(from, comma - from));
    if (candidate == "*" || candidate == wanted) return true;
    from = comma + 1;
  }
  return false;
}

std::string serializeResponseHead(const HttpResponse& response, std::uint64_t contentLength, bool close) {
  // Sized once: a cached line's head is some 350 bytes in ten headers.
  std::size_t size = 96;
  for (const auto& [name, value] : response.headers) size += name.size() + value.size() + 4;
  std::string out;
  out.reserve(size);
  out += "HTTP/1.1 ";
  out += std::to_string(response.status);
  out += ' ';
  out += reasonPhrase(response.status);
  out += "\r\n";
  for (const auto& [name, value] : response.headers) {  // ascending by name
    if (equalsIgnoringCase(name, "Content-Length") || equalsIgnoringCase(name, "Connection")) continue;
    appendOneLine(out, name);
    out += ": ";
    appendOneLine(out, value);
    out += "\r\n";
  }
  out += "Content-Length: ";
  out += std::to_string(contentLength);
  out += close ? "\r\nConnection: close\r\n\r\n" : "\r\nConnection: keep-alive\r\n\r\n";
  return out;
}

}  // namespace kelvo
