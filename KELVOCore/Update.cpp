#include "KELVOCore/Update.h"

#include <pugixml.hpp>

#include <algorithm>
#include <cstdlib>

#include "KELVOCore/HttpClient.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Log.h"

namespace kelvo {

namespace {

constexpr std::string_view kSource = "update";
constexpr std::chrono::seconds kFeedTimeout{15};

std::string withoutTrailingSlashes(std::string text) {
  while (text.ends_with('/')) text.pop_back();
  return text;
}

std::vector<std::string_view> segments(std::string_view path) {
  std::vector<std::string_view> out;
  while (!path.empty()) {
    const std::size_t slash = path.find('/');
    if (slash != 0) out.push_back(path.substr(0, slash));
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return out;
}

// Keeps the candidate when its version is higher than the best so far.
void keepHighest(std::optional<ReleaseInfo>& best, ReleaseInfo candidate) {
  if (!parseVersion(candidate.version)) return;
  if (!best || best->version.empty() || compareVersions(candidate.version, best->version) > 0) {
    best = std::move(candidate);
  }
}

// Release notes arrive as HTML in the Atom feed: line-breaking tags become
// newlines, other tags vanish, the common entities are decoded.
std::string plainText(std::string_view html) {
  std::string out;
  for (std::size_t i = 0; i < html.size(); ++i) {
    if (html[i] == '<') {
      const std::size_t close = html.find('>', i);
      if (close == std::string_view::npos) break;
      const std::string tag = toLower(html.substr(i + 1, close - i - 1));
      for (const char* breaking : {"br", "/p", "/li", "/h1", "/h2", "/h3", "/div"}) {
        if (tag.starts_with(breaking)) {
          out += '\n';
          break;
        }
      }
      i = close;
      continue;
    }
    static constexpr std::pair<std::string_view, char> entities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&#39;", '\''}, {"&nbsp;", ' '}};
    const auto entity = std::find_if(std::begin(entities), std::end(entities),
                                     [&](const auto& e) { return html.substr(i).starts_with(e.first); });
    if (entity != std::end(entities)) {
      out += entity->second;
      i += entity->first.size() - 1;
    } else {
      out += html[i];
    }
  }
  return out;
}

struct FeedReply {
  std::optional<ReleaseInfo> latest;
  std::string problem;  // why it gave nothing, for the log and the message
};

FeedReply fetchFeed(const std::string& url, std::optional<ReleaseInfo> (*parse)(std::string_view)) {
  HttpClientRequest request;
  request.url = url;
  request.timeout = kFeedTimeout;
  // The code-hosting API refuses requests that do not name their client.
  request.headers = {{"User-Agent", "KELVO/" + std::string(KELVO::version)}};
  const HttpClientReply reply = httpExchange(request);
  if (!reply.error.empty()) return {std::nullopt, reply.error};
  if (reply.status != 200) return {std::nullopt, "HTTP " + std::to_string(reply.status)};
  auto latest = parse({reinterpret_cast<const char*>(reply.body.data()), reply.body.size()});
  if (!latest) return {std::nullopt, T("回答的内容读不懂")};
  return {std::move(latest), {}};
}

}  // namespace

std::string releasesBaseUrl() {
  const char* value = std::getenv("KELVO_RELEASES_URL");
  const std::string text = value == nullptr ? std::string{} : trimmed(value);
  return text.empty() ? std::string(releasesBase) : text;
}

ReleaseFeed releaseFeed(std::string_view base) {
  const std::string b = withoutTrailingSlashes(trimmed(base));
  for (const std::string_view prefix : {"https://github.com/", "https://api.github.com/repos/"}) {
    if (!b.starts_with(prefix)) continue;
    const auto parts = segments(std::string_view(b).substr(prefix.size()));
    if (parts.size() < 2 || (parts.size() > 2 && parts[2] != "releases") || parts.size() > 3) break;
    const std::string project = std::string(parts[0]) + "/" + std::string(parts[1]);
    return {"https://api.github.com/repos/" + project + "/releases", "https://github.com/" + project + "/releases.atom"};
  }
  return {b, b + ".atom"};
}

std::optional<std::vector<std::int64_t>> parseVersion(std::string_view text) {
  if (text.starts_with('v') || text.starts_with('V')) text.remove_prefix(1);
  if (text.empty()) return std::nullopt;
  std::vector<std::int64_t> parts;
  std::size_t at = 0;
  while (true) {
    const std::size_t dot = text.find('.', at);
    const std::string_view piece = text.substr(at, dot == std::string_view::npos ? dot : dot - at);
    if (piece.empty() || piece.size() > 15 || !std::all_of(piece.begin(), piece.end(), [](char c) {
          return c >= '0' && c <= '9';
        })) {
      return std::nullopt;
    }
    parts.push_back(std::stoll(std::string(piece)));
    if (dot == std::string_view::npos) return parts;
    at = dot + 1;
  }
}

int compareVersions(std::string_view a, std::string_view b) {
  const auto x = parseVersion(a);
  const auto y = parseVersion(b);
  if (!x || !y) return (x ? 1 : 0) - (y ? 1 : 0);
  for (std::size_t i = 0; i < std::max(x->size(), y->size()); ++i) {
    const std::int64_t p = i < x->size() ? (*x)[i] : 0;
    const std::int64_t q = i < y->size() ? (*y)[i] : 0;
    if (p != q) return p < q ? -1 : 1;
  }
  return 0;
}

std::optional<ReleaseInfo> latestFromList(std::string_view json) {
  const Json list = Json::parse(json, nullptr, false);
  if (!list.is_array()) return std::nullopt;
  std::optional<ReleaseInfo> best = ReleaseInfo{};
  for (const Json& r : list) {
    if (!r.is_object() || jBool(r, "draft", false) || jBool(r, "prerelease", false)) continue;
    keepHighest(best, {trimmed(jStr(r, "tag_name")), jStr(r, "name"), jStr(r, "html_url"), jStr(r, "body"),
                       jStr(r, "published_at")});
  }
  return best;
}

std::optional<ReleaseInfo> latestFromAtom(std::string_view xml) {
  pugi::xml_document doc;
  if (!doc.load_buffer(xml.data(), xml.size())) return std::nullopt;
  const pugi::xml_node feed = doc.child("feed");
  if (!feed) return std::nullopt;
  std::optional<ReleaseInfo> best = ReleaseInfo{};
  for (const pugi::xml_node entry : feed.children("entry")) {
    ReleaseInfo info;
    info.title = trimmed(entry.child_value("title"));
    for (const pugi::xml_node link : entry.children("link")) {
      const std::string_view rel = link.attribute("rel").as_string("alternate");
      if (rel == "alternate") info.url = link.attribute("href").as_string();
    }
    const std::string link = withoutTrailingSlashes(info.url);
    const auto path = segments(link);
    info.version = !path.empty() && parseVersion(path.back()) ? std::string(path.back()) : info.title;
    info.notes = trimmed(plainText(entry.child_value("content")));
    info.publishedAt = trimmed(entry.child_value("updated"));
    keepHighest(best, std::move(info));
  }
  return best;
}

UpdateCheck checkForUpdate(std::string_view base, std::string_view installed) {
  UpdateCheck check;
  if (trimmed(base).empty()) {
    check.state = UpdateState::notConfigured;
    check.message = T("这个版本没有配置发布源");
    return check;
  }
  const ReleaseFeed feed = releaseFeed(base);
  FeedReply reply = fetchFeed(feed.listUrl, latestFromList);
  check.feedUrl = feed.listUrl;
  if (!reply.latest) {
    AppLog::warn(kSource, "release list " + feed.listUrl + " failed (" + reply.problem + "); trying the Atom feed");
    const std::string listProblem = reply.problem;
    reply = fetchFeed(feed.atomUrl, latestFromAtom);
    check.feedUrl = feed.atomUrl;
    check.fromAtom = true;
    if (!reply.latest) {
      AppLog::warn(kSource, "release feed " + feed.atomUrl + " failed (" + reply.problem + ")");
      check.feedUrl.clear();
      check.message = TF("读不到发布列表(%s),也读不到它的 Atom 源(%s)— 请检查网络或 KELVO_RELEASES_URL",
                         listProblem, reply.problem);
      return check;
    }
  }
  if (reply.latest->version.empty()) {
    check.state = UpdateState::upToDate;
    check.message = T("发布源里还没有正式版本");
    return check;
  }
  check.latest = std::move(reply.latest);
  const bool newer = compareVersions(check.latest->version, installed) > 0;
  check.state = newer ? UpdateState::newer : UpdateState::upToDate;
  check.message = newer ? TF("有新版本:%s(%s)", check.latest->version, check.latest->url)
                        : TF("已经是最新版本(%s)", std::string(installed));
  AppLog::info(kSource, "newest release " + check.latest->version + " from " + check.feedUrl);
  return check;
}

std::string notesExcerpt(std::string_view notes, int lines) {
  std::string out;
  int taken = 0;
  while (!notes.empty() && taken < lines) {
    const std::size_t end = notes.find('\n');
    const std::string line = trimmed(notes.substr(0, end));
    notes = end == std::string_view::npos ? std::string_view{} : notes.substr(end + 1);
    if (line.empty()) continue;
    if (taken++ > 0) out += '\n';
    out += line;
  }
  return out;
}

}  // namespace kelvo
