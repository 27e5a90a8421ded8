#include "KELVOCore/HubStore.h"

#include <algorithm>
#include <filesystem>
#include <optional>

#include "KELVOCore/ClonePack.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Log.h"
#include "KELVOCore/Multipart.h"
#include "KELVOCore/Timestamp.h"
#include "KELVOCore/Zip.h"

namespace kelvo {

namespace {

constexpr std::string_view kSource = "hub";
constexpr std::string_view kIndexFile = "index.json";
// Title, author, version and fingerprint are short texts shown in a list.
constexpr std::size_t kMaxFieldBytes = 200;
// Room for the multipart heads and the text fields around the pack itself.
constexpr std::size_t kFormOverhead = 64 * 1024;
// Forget peers whose uploads have all aged out once this many are tracked.
constexpr std::size_t kPeersBeforePruning = 4096;

struct PackContents {
  std::int64_t voices = 0;
  std::int64_t clips = 0;
};

// What a pack holds, or in `reason` why it is not one. Only voices that bring
// at least one clip present in the archive count: those are what an import adds.
std::optional<PackContents> inspectPack(std::span<const std::uint8_t> bytes, std::string& reason) {
  auto opened = ZipReader::openView(bytes);
  if (!opened.ok()) {
    reason = TF("无法打开这个文件(%s)。.cln 是一个 zip 包 - 是不是选错了文件?", opened.error().description());
    return std::nullopt;
  }
  ZipReader reader = std::move(opened).value();
  const auto manifestBytes = reader.read(packManifest);
  const auto manifest = manifestBytes.ok() && manifestBytes.value() ? parseJsonObject(*manifestBytes.value())
                                                                    : std::nullopt;
  if (!manifest) {
    reason = TF("包里没有可读的 %s - 这不是 KELVO 克隆包。", std::string(packManifest));
    return std::nullopt;
  }
  if (jStr(*manifest, "format") != packFormat) {
    reason = T("这不是 KELVO 克隆包(格式不符)。");
    return std::nullopt;
  }
  const auto airlines = manifest->find("airlines");
  const bool airlinesOk = airlines == manifest->end() || airlines->is_object();
  PackContents contents;
  for (const Json& voice : jArr(*manifest, "voices").value_or(Json::array())) {
    std::int64_t present = 0;
    for (const Json& clip : jArr(voice, "clips").value_or(Json::array())) {
      const std::string file = jStr(clip, "file");
      if (!file.empty() && reader.contains("audio/" + file)) ++present;
    }
    contents.voices += present > 0 ? 1 : 0;
    contents.clips += present;
  }
  if (!airlinesOk || contents.voices == 0) {
    reason = T("包里没有一个带音频的声音,不能共享");
    return std::nullopt;
  }
  return contents;
}

// `length` random lower-case hex digits (at most 12 from one UUID: its 13th
// digit is the fixed version nibble).
std::string randomHex(std::size_t length) {
  std::string out;
  while (out.size() < length) {
    std::string uuid = toLower(makeUuid());
    std::erase(uuid, '-');
    out += uuid.substr(0, std::min<std::size_t>(12, length - out.size()));
  }
  return out;
}

// The fields of a delete request, sent as a multipart form or URL-encoded.
std::map<std::string, std::string> formFields(const HttpRequest& request) {
  std::map<std::string, std::string> fields;
  const std::string type = request.header("Content-Type");
  if (const auto parts = parseMultipart(request.body, type)) {
    for (const MultipartPart& part : *parts) fields.emplace(part.name, part.text());
    return fields;
  }
  HttpRequest form;
  form.query = request.bodyText();
  for (const char* name : {"id", "delete_key"}) fields[name] = form.queryValue(name);
  return fields;
}

Json listingJson(const HubListing& s) {
  return Json{{"id", s.id},         {"title", s.title}, {"author", s.author},         {"voices", s.voices},
              {"clips", s.clips},   {"bytes", s.bytes}, {"created_at", s.createdAt}, {"url", s.url}};
}

}  // namespace

HubStore::HubStore(std::string folder, HubLimits limits)
    : folder_(KELVOPaths::withSlash(std::move(folder))), limits_(limits) {
  const auto bytes = readFile(folder_ + std::string(kIndexFile));
  if (!bytes) return;
  const auto index = parseJsonObject(*bytes);
  if (!index) {
    AppLog::warn(kSource, "hub index " + folder_ + std::string(kIndexFile) + " is damaged; starting with no shares");
    return;
  }
  for (const Json& s : jArr(*index, "shares").value_or(Json::array())) {
    Share share{{jStr(s, "id"), jStr(s, "title"), jStr(s, "author"), jInt(s, "voices", 0), jInt(s, "clips", 0),
                 jInt(s, "bytes", 0), jStr(s, "created_at"), {}},
                jStr(s, "version"), jStr(s, "fingerprint"), jStr(s, "key_hash")};
    if (!share.listing.id.empty() && !share.keyHash.empty()) shares_.push_back(std::move(share));
  }
}

HttpResponse HubStore::handle(const HttpRequest& request) {
  const std::string action = toLower(request.queryValue("a"));
  const bool get = request.method == "GET";
  const bool post = request.method == "POST";
  if (action == "list") return get ? list(request) : HttpResponse::error(405, "method_not_allowed", "GET");
  if (action == "download") return get ? download(request) : HttpResponse::error(405, "method_not_allowed", "GET");
  if (action == "upload") return post ? upload(request) : HttpResponse::error(405, "method_not_allowed", "POST");
  if (action == "delete") return post ? remove(request) : HttpResponse::error(405, "method_not_allowed", "POST");
  return HttpResponse::error(400, "unknown_action", TF("共享中心没有“%s”这个操作(可用:list、upload、delete)", action));
}

HttpResponse HubStore::list(const HttpRequest& request) const {
  const std::string host = request.header("Host");
  const std::string base = (host.empty() ? std::string{} : "http://" + host) + "/API/hub.php?a=download&id=";
  Json shares = Json::array();
  std::lock_guard guard(lock_);
  for (auto it = shares_.rbegin(); it != shares_.rend(); ++it) {
    HubListing listing = it->listing;
    listing.url = base + listing.id;
    shares.push_back(listingJson(listing));
  }
  return HttpResponse::json(200, Json{{"shares", std::move(shares)}});
}

bool HubStore::admit(const std::string& peer) {
  const auto now = std::chrono::steady_clock::now();
  std::lock_guard guard(lock_);
  const auto expired = [&](const auto& times) { return times.empty() || now - times.back() >= limits_.window; };
  if (uploads_.size() > kPeersBeforePruning) std::erase_if(uploads_, [&](const auto& p) { return expired(p.second); });
  auto& times = uploads_[peer];
  while (!times.empty() && now - times.front() >= limits_.window) times.pop_front();
  if (static_cast<int>(times.size()) >= limits_.uploadsPerWindow) return false;
  times.push_back(now);
  return true;
}

HttpResponse HubStore::upload(const HttpRequest& request) {
  const auto tooLarge = [&] {
    return HttpResponse::error(413, "pack_too_large",
                               TF("共享中心最多收 %d MB 的包", static_cast<int>(limits_.maxPackBytes >> 20)));
  };
  // Every attempt counts, refused ones too: probing costs the prober.
  if (!admit(request.peer)) {
    AppLog::warn(kSource, "upload from " + request.peer + " refused: over " +
                              std::to_string(limits_.uploadsPerWindow) + " uploads an hour");
    return HttpResponse::error(429, "too_many_uploads",
                               TF("共享中心每小时最多接收同一地址的 %d 次上传,请稍后再试", limits_.uploadsPerWindow));
  }
  if (request.body.size() > static_cast<std::size_t>(limits_.maxPackBytes) + kFormOverhead) return tooLarge();
  const auto parts = parseMultipart(request.body, request.header("Content-Type"));
  const MultipartPart* pack = parts ? findPart(*parts, "pack") : nullptr;
  if (pack == nullptr) {
    return HttpResponse::error(400, "bad_form", T("上传需要一个 multipart 表单,其中的文件字段叫 pack"));
  }
  if (pack->data.size() > static_cast<std::size_t>(limits_.maxPackBytes)) return tooLarge();
  const auto field = [&](std::string_view name) {
    const MultipartPart* part = findPart(*parts, name);
    return part == nullptr ? std::string{} : trimmed(part->text());
  };
  const std::string title = field("title");
  const std::string author = field("author");
  const std::string version = field("version");
  const std::string fingerprint = field("fingerprint");
  if (title.empty() || std::max({title.size(), author.size(), version.size(), fingerprint.size()}) > kMaxFieldBytes) {
    return HttpResponse::error(400, "bad_field",
                               TF("共享需要一个标题,每个文字字段最多 %d 字节", static_cast<int>(kMaxFieldBytes)));
  }
  std::string reason;
  const auto contents = inspectPack(pack->data, reason);
  if (!contents) {
    AppLog::warn(kSource, "upload from " + request.peer + " is not a clone pack");
    return HttpResponse::error(400, "not_a_pack", reason);
  }

  const std::string key = randomHex(32);
  Share share{{randomHex(12), title, author, contents->voices, contents->clips,
               static_cast<std::int64_t>(pack->data.size()), isoUtc(std::chrono::system_clock::now()), {}},
              version, fingerprint, sha256Utf8(key)};
  if (const auto ec = writeFileAtomic(folder_ + share.listing.id + "." + std::string(clnExt), pack->data)) {
    AppLog::error(kSource, "cannot store an uploaded pack in " + folder_ + ": " + ec.message());
    return HttpResponse::error(500, "cannot_store", TF("共享中心存不下这个包:%s", ec.message()));
  }
  AppLog::info(kSource, "share " + share.listing.id + " uploaded from " + request.peer + " (" +
                            std::to_string(share.listing.bytes) + " bytes)");
  const Json reply{{"id", share.listing.id}, {"delete_key", key}};
  std::lock_guard guard(lock_);
  shares_.push_back(std::move(share));
  saveIndexLocked();
  return HttpResponse::json(200, reply);
}

HttpResponse HubStore::remove(const HttpRequest& request) {
  const auto fields = formFields(request);
  const std::string id = trimmed(fields.contains("id") ? fields.at("id") : "");
  const std::string key = trimmed(fields.contains("delete_key") ? fields.at("delete_key") : "");
  if (id.empty() || key.empty()) {
    return HttpResponse::error(400, "bad_form", T("删除需要 id 和 delete_key 两个字段"));
  }
  std::string file;
  {
    std::lock_guard guard(lock_);
    const auto it = std::find_if(shares_.begin(), shares_.end(),
                                 [&](const Share& s) { return toLower(s.listing.id) == toLower(id); });
    if (it == shares_.end()) return HttpResponse::error(404, "not_found", T("共享中心里没有这个共享(可能已经被删除)"));
    if (sha256Utf8(key) != it->keyHash) {
      AppLog::warn(kSource, "wrong delete key for share " + it->listing.id + " from " + request.peer);
      return HttpResponse::error(403, "wrong_delete_key", T("删除密钥不对:这个共享不是从这里发布的"));
    }
    file = folder_ + it->listing.id + "." + std::string(clnExt);
    shares_.erase(it);
    saveIndexLocked();
  }
  std::error_code ec;
  std::filesystem::remove(file, ec);
  AppLog::info(kSource, "share " + id + " deleted by " + request.peer);
  return HttpResponse::json(200, Json{{"deleted", true}});
}

HttpResponse HubStore::download(const HttpRequest& request) const {
  const std::string id = toLower(trimmed(request.queryValue("id")));
  std::string file;
  {
    std::lock_guard guard(lock_);
    const auto it = std::find_if(shares_.begin(), shares_.end(),
                                 [&](const Share& s) { return toLower(s.listing.id) == id; });
    if (it != shares_.end()) file = folder_ + it->listing.id + "." + std::string(clnExt);
  }
  auto bytes = file.empty() ? std::nullopt : readFile(file);
  if (!bytes) return HttpResponse::error(404, "not_found", T("共享中心里没有这个共享(可能已经被删除)"));
  HttpResponse response;
  response.headers["Content-Type"] = "application/zip";
  response.headers["Content-Disposition"] = "attachment; filename=\"" + id + "." + std::string(clnExt) + "\"";
  response.body = std::move(*bytes);
  return response;
}

void HubStore::saveIndexLocked() const {
  Json shares = Json::array();
  for (const Share& s : shares_) {
    Json entry = listingJson(s.listing);
    entry.erase("url");
    entry["version"] = s.version;
    entry["fingerprint"] = s.fingerprint;
    entry["key_hash"] = s.keyHash;
    shares.push_back(std::move(entry));
  }
  if (const auto ec = writeFileAtomic(folder_ + std::string(kIndexFile), jsonData(Json{{"shares", shares}}, true))) {
    AppLog::error(kSource, "cannot write the hub index: " + ec.message());
  }
}

}  // namespace kelvo
