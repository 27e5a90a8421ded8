#include "KELVOCore/Hub.h"

#include <cctype>
#include <cstdlib>

#include "KELVOCore/Files.h"
#include "KELVOCore/HttpClient.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Multipart.h"
#include "KELVOCore/Version.h"

namespace kelvo {

namespace {

constexpr std::string_view kSource = "hub";
constexpr std::chrono::seconds kListTimeout{30};
// 20 MB over a slow uplink.
constexpr std::chrono::seconds kPackTimeout{300};
constexpr double kMB = 1024.0 * 1024.0;

TtsError hubError(std::string message) { return TtsError(TtsErrorCode::cloneFailed, std::move(message)); }

// Percent-encodes everything but the unreserved characters.
std::string formEncode(std::string_view text) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto b = static_cast<unsigned char>(c);
    if (std::isalnum(b) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += c;
    } else {
      out += '%';
      out += hex[b >> 4];
      out += hex[b & 15];
    }
  }
  return out;
}

// The reply, or the TtsError that describes why there is no usable one.
HttpClientReply exchange(const HttpClientRequest& request) {
  HttpClientReply reply = httpExchange(request);
  if (!reply.error.empty()) {
    AppLog::warn(kSource, request.method + " " + request.url + " failed: " + reply.error);
    throw hubError(TF("连不上共享中心(%s)— 请检查网络或 KELVO_HUB_URL", reply.error));
  }
  if (reply.status == 200) return reply;
  AppLog::warn(kSource, request.method + " " + request.url + " answered HTTP " + std::to_string(reply.status));
  switch (reply.status) {
    case 403: throw hubError(T("删除密钥不对:这个共享不是从这里发布的"));
    case 404: throw TtsError(TtsErrorCode::notFound, T("共享中心里没有这个共享(可能已经被删除)"));
    case 413: throw hubError(T("共享中心嫌这个包太大,不肯收"));
    case 429: throw hubError(TF("共享中心每小时最多接收同一地址的 %d 次上传,请稍后再试", hubUploadsPerHour));
    default: break;
  }
  const auto body = parseJsonObject(reply.body);
  const std::string said = body ? jStr(*body, "message") : std::string{};
  throw hubError(said.empty() ? TF("共享中心回答了 HTTP %d", static_cast<int>(reply.status))
                              : TF("共享中心拒绝了:%s", said));
}

Json replyObject(const HttpClientReply& reply) {
  auto object = parseJsonObject(reply.body);
  if (!object) throw hubError(T("共享中心的回答读不懂"));
  return std::move(*object);
}

Json loadFingerprints(const std::string& path) {
  const auto bytes = readFile(path);
  auto object = bytes ? parseJsonObject(*bytes) : std::nullopt;
  return object ? std::move(*object) : Json::object();
}

void saveFingerprints(const std::string& path, const Json& fingerprints) {
  if (const auto ec = writeFileAtomic(path, jsonData(fingerprints, true))) {
    AppLog::error(kSource, "cannot write " + path + ": " + ec.message());
  }
}

// "scheme://host[:port]" of an absolute address.
std::string origin(const std::string& url) {
  const std::size_t scheme = url.find("://");
  if (scheme == std::string::npos) return url;
  return url.substr(0, url.find('/', scheme + 3));
}

}  // namespace

std::string hubBaseUrl() {
  const char* value = std::getenv("KELVO_HUB_URL");
  std::string base = value == nullptr ? std::string{} : trimmed(value);
  if (base.empty()) base = hubBase;
  while (base.ends_with('/')) base.pop_back();
  return base;
}

std::string hubFingerprintsFile() { return KELVOPaths::dataDir() + "hub-fingerprints.json"; }

HubClient::HubClient(std::string baseUrl) : base_(trimmed(baseUrl)) {
  while (base_.ends_with('/')) base_.pop_back();
}

std::string HubClient::api(std::string_view action) const { return base_ + "/API/hub.php?a=" + std::string(action); }

std::vector<HubListing> HubClient::list() const {
  HttpClientRequest request;
  request.url = api("list");
  request.timeout = kListTimeout;
  const Json reply = replyObject(exchange(request));
  const auto shares = jArr(reply, "shares");
  if (!shares) throw hubError(T("共享中心的回答读不懂"));
  std::vector<HubListing> out;
  for (const Json& s : *shares) {
    HubListing share{jStr(s, "id"),         jStr(s, "title"),       jStr(s, "author"),
                     jInt(s, "voices", 0),  jInt(s, "clips", 0),    jInt(s, "bytes", 0),
                     jStr(s, "created_at"), jStr(s, "url")};
    if (!share.id.empty() && !share.url.empty()) out.push_back(std::move(share));
  }
  return out;
}

HubUpload HubClient::upload(std::span<const std::uint8_t> pack, std::string_view title, std::string_view author,
                            std::string_view version, std::string_view fingerprint) const {
  if (static_cast<std::int64_t>(pack.size()) > hubMaxPackBytes) {
    throw hubError(TF("这个包有 %.1f MB,共享中心最多收 %d MB — 少选几个声音或绑定再试",
                      static_cast<double>(pack.size()) / kMB, static_cast<int>(hubMaxPackBytes >> 20)));
  }
  MultipartForm form;
  form.addField("title", title);
  form.addField("author", author);
  form.addField("version", version);
  form.addField("fingerprint", fingerprint);
  form.addFile("pack", "share." + std::string(clnExt), "application/zip", pack);
  HttpClientRequest request;
  request.method = "POST";
  request.url = api("upload");
  request.timeout = kPackTimeout;
  request.headers = {{"Content-Type", form.contentType()}};
  request.body = form.finish();
  const Json reply = replyObject(exchange(request));
  HubUpload up{jStr(reply, "id"), jStr(reply, "delete_key")};
  if (up.id.empty() || up.deleteKey.empty()) throw hubError(T("共享中心的回答读不懂"));
  AppLog::info(kSource, "uploaded a pack of " + std::to_string(pack.size()) + " bytes as share " + up.id);
  return up;
}

void HubClient::remove(std::string_view id, std::string_view deleteKey) const {
  const std::string form = "id=" + formEncode(id) + "&delete_key=" + formEncode(deleteKey);
  HttpClientRequest request;
  request.method = "POST";
  request.url = api("delete");
  request.timeout = kListTimeout;
  request.headers = {{"Content-Type", "application/x-www-form-urlencoded"}};
  request.body.assign(form.begin(), form.end());
  const Json reply = replyObject(exchange(request));
  if (!jBool(reply, "deleted", false)) throw hubError(T("共享中心的回答读不懂"));
  AppLog::info(kSource, "deleted share " + std::string(id));
}

Bytes HubClient::download(const HubListing& share) const {
  HttpClientRequest request;
  request.url = share.url.starts_with("/") ? origin(base_) + share.url : share.url;
  request.timeout = kPackTimeout;
  return exchange(request).body;
}

ShareResult shareOnHub(const HubClient& hub, std::string_view title, const std::vector<std::string>& airlineKeys,
                       const std::vector<std::string>& voiceIds, const VoiceLibrary& voices, AppConfig& config,
                       const std::string& fingerprintsFile) {
  const std::string fingerprint = packFingerprint(voiceIds, airlineKeys, voices, config);
  Json fingerprints = loadFingerprints(fingerprintsFile);
  for (const HubShare& mine : config.hubSharesSnapshot()) {
    if (jStr(fingerprints, mine.id) != fingerprint) continue;
    // The hub may have dropped it meanwhile; then it is shared again.
    for (const HubListing& listed : hub.list()) {
      if (toLower(listed.id) == toLower(mine.id)) return {mine.id, true, {}};
    }
  }
  BuiltPack built = buildPack(airlineKeys, voiceIds, voices, config);
  if (built.summary.voices == 0) throw TtsError(TtsErrorCode::badVoice, T("没有可以共享的声音:选中的绑定和声音都是空的"));
  const HubUpload up = hub.upload(built.archive, title, config.hubUserId(), KELVO::version, fingerprint);
  config.addHubShare(up.id, std::string(title), up.deleteKey);
  config.save();
  fingerprints[up.id] = fingerprint;
  saveFingerprints(fingerprintsFile, fingerprints);
  return {up.id, false, std::move(built.summary)};
}

void unshareFromHub(const HubClient& hub, std::string_view id, AppConfig& config, const std::string& fingerprintsFile) {
  const auto key = config.hubDeleteKey(id);
  if (!key) {
    throw TtsError(TtsErrorCode::notFound,
                   TF("这里没有共享 %s 的删除密钥:只有发布它的那台机器才能撤下它", std::string(id)));
  }
  try {
    hub.remove(id, *key);
  } catch (const TtsError& e) {
    if (e.code != TtsErrorCode::notFound) throw;
  }
  config.removeHubShare(id);
  config.save();
  Json fingerprints = loadFingerprints(fingerprintsFile);
  fingerprints.erase(std::string(id));
  saveFingerprints(fingerprintsFile, fingerprints);
}

Bytes downloadShare(const HubClient& hub, std::string_view id) {
  for (const HubListing& share : hub.list()) {
    if (toLower(share.id) == toLower(trimmed(id))) return hub.download(share);
  }
  throw TtsError(TtsErrorCode::notFound, T("共享中心里没有这个共享(可能已经被删除)"));
}

}  // namespace kelvo
