#include "KELVOServer/Client.h"

#include <cstdlib>
#include <filesystem>

#include "KELVOCore/Config.h"
#include "KELVOCore/HttpClient.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Paths.h"

namespace kelvo::cli {

std::string Reply::header(const std::string& lowerName) const {
  const auto it = headers.find(lowerName);
  return it == headers.end() ? std::string() : it->second;
}

Json Reply::json() const { return parseJsonObject(std::span<const std::uint8_t>(body)).value_or(Json()); }

ServiceClient::ServiceClient(std::string url) : url_(std::move(url)) {
  if (const char* env = std::getenv("KELVO_URL"); url_.empty() && env != nullptr) url_ = trimmed(env);
  if (url_.empty()) {
    if (auto owner = dataRootOwner(KELVOPaths::lockFile()); owner && !owner->url.empty()) {
      source_ = Source::lockFile;
      owner_ = std::move(*owner);
      url_ = owner_.url;
    } else {
      source_ = Source::configuration;
      AppConfig config(KELVOPaths::configFile());
      // load() writes a missing file; a client only looks.
      std::error_code ec;
      if (std::filesystem::exists(config.path(), ec)) config.load();
      url_ = config.baseUrl();
    }
  }
  while (!url_.empty() && url_.back() == '/') url_.pop_back();
}

std::string ServiceClient::noServiceMessage() const {
  switch (source_) {
    case Source::given: break;
    case Source::lockFile:
      return TF("%s 上没有 KELVO 服务在应答,但数据目录 %s 的服务(pid %d)登记的正是这个地址 — 看看它的日志,或者用 --url / KELVO_URL 指定另一个服务",
                url_, KELVOPaths::dataRoot(), static_cast<int>(owner_.pid));
    case Source::configuration:
      return TF("%s 上没有 KELVO 服务在应答,数据目录 %s 也没有正在运行的服务 — 请用 `kelvo serve` 启动它,或者用 --url / KELVO_URL 指定另一个服务",
                url_, KELVOPaths::dataRoot());
  }
  return TF("%s 上没有 KELVO 服务在应答 — 请检查 --url / KELVO_URL,或用 `kelvo serve` 启动它", url_);
}

Reply ServiceClient::call(const std::string& method, const std::string& path, const Bytes& body,
                          const std::string& contentType, std::chrono::milliseconds timeout) {
  HttpClientRequest request;
  request.method = method;
  request.url = url_ + path;
  if (!body.empty()) request.headers.emplace_back("Content-Type", contentType);
  request.body = body;
  request.timeout = timeout;
  const HttpClientReply raw = httpExchange(request);
  if (!raw.error.empty()) {
    throw CommandError{exitNoService, noServiceMessage()};
  }
  Reply reply{raw.status, raw.headers, raw.body};
  if (reply.status >= 400) {
    const Json j = reply.json();
    std::string message = jStr(j, "message");
    if (message.empty()) message = TF("服务返回了 %d", static_cast<int>(reply.status));
    throw CommandError{exitRefused, message};
  }
  return reply;
}

Json ServiceClient::callJson(const std::string& method, const std::string& path, const Json& body) {
  const Bytes bytes = body.is_null() ? Bytes() : jsonData(body, false);
  return call(method, path, bytes).json();
}

std::unique_ptr<DataRootLock> lockDataRoot(const std::string& whatToDo) {
  DataRootOwner owner;
  std::error_code error;
  std::unique_ptr<DataRootLock> lock = DataRootLock::acquire(KELVOPaths::lockFile(), owner, error);
  if (lock) return lock;
  const std::string root = KELVOPaths::dataRoot();
  if (error) throw CommandError{exitRefused, TF("无法锁定数据目录 %s:%s", root, error.message())};
  const std::string who = owner.pid > 0 ? TF("数据目录 %s 正被另一个 KELVO 进程(pid %d)使用", root, static_cast<int>(owner.pid))
                                        : TF("数据目录 %s 正被另一个 KELVO 进程使用", root);
  throw CommandError{exitRefused, who + " — " + whatToDo};
}

std::string urlEncode(const std::string& text) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  for (const unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out.push_back(static_cast<char>(c));
    } else {
      out += {'%', hex[c >> 4], hex[c & 15]};
    }
  }
  return out;
}

}  // namespace kelvo::cli
