#include "KELVOCore/Models.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>

#include "KELVOCore/HttpDownload.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Log.h"

namespace kelvo {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::string_view kSource = "models";
// A model file is gigabytes; anything under a megabyte is an error page.
constexpr std::int64_t kMinModelBytes = std::int64_t{1} << 20;
constexpr auto kMaxBackoff = std::chrono::seconds(60);
constexpr auto kProgressEvery = std::chrono::milliseconds(250);
constexpr auto kRateWindow = std::chrono::seconds(5);
constexpr double kGB = 1024.0 * 1024.0 * 1024.0;

// Size of a regular file; -1 when there is none.
std::int64_t fileSize(const std::string& path) {
  std::error_code ec;
  const auto size = fs::file_size(path, ec);
  return ec ? -1 : static_cast<std::int64_t>(size);
}

// dir + name + suffix, built by appending (GCC 12 misreads the operator+ chain
// as an overlapping copy).
std::string pathIn(const std::string& dir, std::string_view name, std::string_view suffix = {}) {
  std::string path;
  path.reserve(dir.size() + name.size() + suffix.size());
  path.append(dir).append(name).append(suffix);
  return path;
}

std::string envOr(const char* name, std::string_view fallback) {
  const char* value = std::getenv(name);
  const std::string text = value == nullptr ? std::string{} : trimmed(value);
  return text.empty() ? std::string(fallback) : text;
}

std::optional<std::int64_t> parseCount(std::string_view text) {
  std::int64_t value = 0;
  if (text.empty()) return std::nullopt;
  for (const char c : text) {
    if (c < '0' || c > '9' || value > (INT64_MAX - 9) / 10) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

// "bytes 100-199/1000" or "bytes */1000"; `start` -1 for "*", `total` -1 for "/*".
struct ContentRange {
  std::int64_t start = -1;
  std::int64_t total = -1;
};

std::optional<ContentRange> parseContentRange(std::string_view text) {
  if (!text.starts_with("bytes ")) return std::nullopt;
  text.remove_prefix(6);
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  ContentRange range;
  const std::string_view span = text.substr(0, slash);
  const std::string_view total = text.substr(slash + 1);
  if (span != "*") {
    const auto start = parseCount(span.substr(0, span.find('-')));
    if (!start || span.find('-') == std::string_view::npos) return std::nullopt;
    range.start = *start;
  }
  if (total != "*") {
    const auto count = parseCount(total);
    if (!count) return std::nullopt;
    range.total = *count;
  }
  return range;
}

bool isWebPageType(const std::string& contentType) {
  const std::string type = toLower(contentType);
  return type.find("text/html") != std::string::npos || type.find("application/xhtml") != std::string::npos;
}

// Bytes per second over the last few seconds.
class RateMeter {
 public:
  void reset() { samples_.clear(); }
  void add(std::int64_t bytes) {
    const auto now = Clock::now();
    samples_.push_back({now, bytes});
    while (samples_.size() > 2 && now - samples_.front().first > kRateWindow) samples_.pop_front();
  }
  double rate() const {
    if (samples_.size() < 2) return 0;
    const std::chrono::duration<double> span = samples_.back().first - samples_.front().first;
    const auto bytes = samples_.back().second - samples_.front().second;
    return span.count() > 0 ? static_cast<double>(bytes) / span.count() : 0;
  }

 private:
  std::deque<std::pair<Clock::time_point, std::int64_t>> samples_;
};

}  // namespace

const std::vector<ModelVariant>& modelVariants() {
  static const std::vector<ModelVariant> variants = {
      {"q6_k", "s2-pro-q6_k.gguf", 4'800'000'000},
      {"q8_0", "s2-pro-q8_0.gguf", 5'700'000'000},
      {"f16", "s2-pro-f16.gguf", 9'300'000'000},
  };
  return variants;
}

std::optional<ModelVariant> findModelVariant(std::string_view id) {
  const std::string wanted = toLower(trimmed(id));
  for (const ModelVariant& v : modelVariants()) {
    if (v.id == wanted) return v;
  }
  return std::nullopt;
}

std::string modelBaseUrl(const EngineOptions& options) {
  std::string base = trimmed(options.packageBaseUrl);
  if (base.empty()) {
    base = options.useMirror ? envOr("KELVO_MODEL_MIRROR_URL", modelMirrorBase) : envOr("KELVO_MODEL_URL", modelHubBase);
  }
  return KELVOPaths::withSlash(std::move(base));
}

std::vector<ModelStatus> modelStatuses(const std::string& folder) {
  const std::string modelsDir = KELVOPaths::withSlash(folder);
  const bool tokenizer = fileSize(pathIn(modelsDir, tokenizerFileName)) >= 0;
  std::vector<ModelStatus> out;
  for (const ModelVariant& v : modelVariants()) {
    ModelStatus s{v, ModelFileState::missing, 0, 0, tokenizer};
    if (const auto size = fileSize(pathIn(modelsDir, v.fileName)); size >= 0) {
      s.state = ModelFileState::installed;
      s.bytes = size;
    } else if (const auto part = fileSize(pathIn(modelsDir, v.fileName, partSuffix)); part >= 0) {
      s.state = ModelFileState::partial;
      s.bytes = part;
      s.partialFraction = std::min(0.99, static_cast<double>(part) / static_cast<double>(v.approxBytes));
    }
    out.push_back(std::move(s));
  }
  return out;
}

bool removeModel(const ModelVariant& variant, const std::string& folder) {
  const std::string modelsDir = KELVOPaths::withSlash(folder);
  std::error_code ec;
  bool removed = false;
  bool failed = false;
  for (const std::string& path : {pathIn(modelsDir, variant.fileName), pathIn(modelsDir, variant.fileName, partSuffix)}) {
    removed = fs::remove(path, ec) || removed;
    failed = failed || ec;
  }
  const auto statuses = modelStatuses(modelsDir);
  const bool modelLeft = std::any_of(statuses.begin(), statuses.end(),
                                     [](const ModelStatus& s) { return s.state == ModelFileState::installed; });
  if (!modelLeft && fs::remove(pathIn(modelsDir, tokenizerFileName), ec)) removed = true;
  if (removed) AppLog::info(kSource, "removed model " + variant.fileName);
  return removed && !failed && !ec;
}

// ---- Downloader ------------------------------------------------------------------

// One file being fetched, and what its last try found out.
struct ModelDownloader::FileJob {
  std::string name;
  std::string url;
  std::string finalPath;
  std::string partPath;
  bool model = false;  // a ".gguf": starts with "GGUF", at least 1 MB
  std::int64_t approxBytes = 0;

  std::int64_t total = -1;  // the server's size, once it said
  bool madeProgress = false;
  std::string problem;  // localised; set when the file cannot be fetched at all
  std::string reason;   // why the last try failed, quoted in the final message
  RateMeter meter;
  Clock::time_point lastReport{};
};

enum class ModelDownloader::TryEnd { complete, retry, fatal, cancelled };

ModelDownloader::ModelDownloader(ModelDownloadSettings settings) : settings_(std::move(settings)) {}

void ModelDownloader::cancel() {
  {
    std::lock_guard guard(waitLock_);
    cancelled_ = true;
  }
  wake_.notify_all();
}

bool ModelDownloader::backoff(int failures) {
  auto pause = settings_.firstBackoff;
  for (int i = 1; i < failures && pause < kMaxBackoff; ++i) pause *= 2;
  std::unique_lock lock(waitLock_);
  return !wake_.wait_for(lock, std::min<std::chrono::milliseconds>(pause, kMaxBackoff),
                         [this] { return cancelled_.load(); });
}

std::string ModelDownloader::spaceProblem(std::int64_t stillToFetch) const {
  struct statvfs info {};
  if (::statvfs(settings_.modelsDir.c_str(), &info) != 0) return {};
  const auto available = static_cast<std::int64_t>(info.f_bavail) * static_cast<std::int64_t>(info.f_frsize);
  const std::int64_t needed = std::max<std::int64_t>(stillToFetch, 0) + settings_.reserveBytes;
  if (available >= needed) return {};
  return TF("%s 所在的磁盘空间不够:还剩 %.1f GB,需要 %.1f GB(没下完的部分,再留 %.1f GB 余量)",
            settings_.modelsDir, static_cast<double>(available) / kGB, static_cast<double>(needed) / kGB,
            static_cast<double>(settings_.reserveBytes) / kGB);
}

ModelDownloader::TryEnd ModelDownloader::tryOnce(FileJob& job, const ProgressHandler& onProgress) {
  const std::int64_t partSize = std::max<std::int64_t>(fileSize(job.partPath), 0);
  job.problem = spaceProblem((job.total >= 0 ? job.total : job.approxBytes) - partSize);
  if (!job.problem.empty()) return TryEnd::fatal;

  enum class Verdict { none, rangeComplete, webPage, httpStatus, badRange, noSpace } verdict = Verdict::none;
  std::int64_t offset = partSize;  // where this try's bytes land in the file
  std::int64_t rangeTotal = -1;    // of a 416
  long status = 0;

  HttpDownloadRequest request;
  request.url = job.url;
  request.path = job.partPath;
  request.rangeFrom = partSize;
  request.stallTimeout = settings_.stallTimeout;
  request.onHead = [&](const HttpDownloadHead& head) {
    status = head.status;
    const auto range = parseContentRange(head.header("content-range"));
    if (status == 416) {
      verdict = Verdict::rangeComplete;
      rangeTotal = range ? range->total : -1;
      return DownloadWrite::discard;
    }
    if (status != 200 && status != 206) {
      verdict = Verdict::httpStatus;
      return DownloadWrite::discard;
    }
    if (isWebPageType(head.header("content-type"))) {
      AppLog::warn(kSource, job.name + ": the server sent " + head.header("content-type") + " instead of the file");
      verdict = Verdict::webPage;
      return DownloadWrite::discard;
    }
    std::int64_t total = -1;
    if (status == 206) {
      if (!range || range->start != partSize) {
        verdict = Verdict::badRange;
        return DownloadWrite::discard;
      }
      total = range->total;
    } else {
      total = parseCount(head.header("content-length")).value_or(-1);
      offset = 0;
      if (partSize > 0) AppLog::warn(kSource, "the server ignored the range for " + job.name + "; starting again from zero");
    }
    if (job.model && total >= 0 && total < kMinModelBytes) {
      AppLog::warn(kSource, job.name + ": the server offers only " + std::to_string(total) + " bytes");
      verdict = Verdict::webPage;
      return DownloadWrite::discard;
    }
    if (total >= 0) {
      job.total = total;
      job.problem = spaceProblem(total - offset);
      if (!job.problem.empty()) {
        verdict = Verdict::noSpace;
        return DownloadWrite::discard;
      }
    }
    if (offset == 0) job.meter.reset();
    return status == 206 ? DownloadWrite::append : DownloadWrite::replace;
  };
  request.prefixBytes = job.model ? 4 : 1;
  request.checkPrefix = [&](std::span<const std::uint8_t> prefix) {
    const std::string_view start(reinterpret_cast<const char*>(prefix.data()), prefix.size());
    const bool ok = job.model ? start == "GGUF" : start == "{";
    if (!ok) verdict = Verdict::webPage;
    return ok;
  };
  request.onProgress = [&](std::int64_t written) {
    if (cancelled_) return false;
    const auto now = Clock::now();
    job.meter.add(offset + written);
    if (onProgress && now - job.lastReport >= kProgressEvery) {
      job.lastReport = now;
      onProgress({job.name, offset + written, job.total, job.meter.rate()});
    }
    return true;
  };

  AppLog::info(kSource, "downloading " + job.url + (partSize > 0 ? " from byte " + std::to_string(partSize) : ""));
  const HttpDownloadResult result = httpDownload(request);
  job.madeProgress = result.written > 0;
  std::error_code ec;
  switch (result.end) {
    case HttpDownloadEnd::cancelled:
      return TryEnd::cancelled;
    case HttpDownloadEnd::writeError:
      job.problem = TF("无法写入 %s:%s", job.partPath, result.error);
      return TryEnd::fatal;
    case HttpDownloadEnd::stalled:
      job.reason = TF("%g 秒没有收到数据", std::chrono::duration<double>(settings_.stallTimeout).count());
      return TryEnd::retry;
    case HttpDownloadEnd::transportError:
      job.reason = result.error;
      return TryEnd::retry;
    case HttpDownloadEnd::complete:
      break;
    case HttpDownloadEnd::refused:
      switch (verdict) {
        case Verdict::rangeComplete:
          if (partSize > 0 && (rangeTotal < 0 || rangeTotal == partSize)) {
            job.total = partSize;
            break;
          }
          fs::remove(job.partPath, ec);
          job.reason = T("大小和服务器说的不一致");
          return TryEnd::retry;
        case Verdict::badRange:
          fs::remove(job.partPath, ec);
          job.reason = T("服务器给的片段和请求的对不上");
          return TryEnd::retry;
        case Verdict::httpStatus:
          if (status >= 500 || status == 429 || status == 408) {
            job.reason = "HTTP " + std::to_string(status);
            return TryEnd::retry;
          }
          job.problem = TF("服务器对 %s 的回答是 HTTP %d — 请检查下载地址(%s)", job.name, static_cast<int>(status),
                           job.url);
          return TryEnd::fatal;
        case Verdict::webPage:
        case Verdict::none:
          job.problem = T("服务器发来的是网页而不是模型 — 请检查网络,或者切换镜像");
          return TryEnd::fatal;
        case Verdict::noSpace:
          return TryEnd::fatal;
      }
      break;
  }

  // The file is whole only when its size is the server's total and it starts
  // the way such a file must.
  const std::int64_t size = fileSize(job.partPath);
  if (job.total >= 0 && size != job.total) {
    if (size > job.total) fs::remove(job.partPath, ec);
    job.reason = T("大小和服务器说的不一致");
    return TryEnd::retry;
  }
  char head[4] = {};
  std::ifstream(job.partPath, std::ios::binary).read(head, job.model ? 4 : 1);
  const bool looksRight = job.model ? size >= kMinModelBytes && std::string_view(head, 4) == "GGUF" : head[0] == '{';
  if (!looksRight) {
    fs::remove(job.partPath, ec);
    job.problem = T("服务器发来的是网页而不是模型 — 请检查网络,或者切换镜像");
    return TryEnd::fatal;
  }
  job.total = size;
  return TryEnd::complete;
}

DownloadReport ModelDownloader::fetchFile(const FileJob& spec, const ProgressHandler& onProgress) {
  if (fileSize(spec.finalPath) >= 0) return {DownloadOutcome::alreadyInstalled, TF("%s 已经装好了", spec.name), {}};
  FileJob job = spec;
  int failures = 0;
  while (true) {
    if (cancelled_) break;
    const TryEnd end = tryOnce(job, onProgress);
    if (end == TryEnd::cancelled) break;
    if (end == TryEnd::fatal) {
      AppLog::error(kSource, "download of " + job.name + " refused: " + job.problem);
      return {DownloadOutcome::failed, job.problem, {}};
    }
    if (end == TryEnd::complete) {
      std::error_code ec;
      fs::rename(job.partPath, job.finalPath, ec);
      if (ec) return {DownloadOutcome::failed, TF("无法写入 %s:%s", job.finalPath, ec.message()), {}};
      AppLog::info(kSource, job.name + " complete, " + std::to_string(job.total) + " bytes");
      if (onProgress) onProgress({job.name, job.total, job.total, job.meter.rate()});
      return {DownloadOutcome::completed, {}, {job.name}};
    }
    failures = job.madeProgress ? 0 : failures + 1;
    AppLog::warn(kSource, "download of " + job.name + " interrupted (" + job.reason + "); tries without progress: " +
                              std::to_string(failures) + " of " + std::to_string(settings_.tries));
    if (failures >= settings_.tries) {
      return {DownloadOutcome::failed,
              TF("%s 连续 %d 次下载失败(%s)— 请检查网络或者切换镜像;已经收到的部分保留着,下次会接着下载", job.name,
                 failures, job.reason),
              {}};
    }
    if (!backoff(std::max(failures, 1))) break;
  }
  AppLog::info(kSource, "download of " + job.name + " cancelled");
  return {DownloadOutcome::cancelled, T("已取消;已经收到的部分保留着,下次会接着下载"), {}};
}

DownloadReport ModelDownloader::download(const ModelVariant& variant, const ProgressHandler& onProgress) {
  std::error_code ec;
  fs::create_directories(settings_.modelsDir, ec);
  const std::string dir = KELVOPaths::withSlash(settings_.modelsDir);
  DownloadReport overall{DownloadOutcome::alreadyInstalled, TF("%s 已经装好了", variant.fileName), {}};
  for (const auto& [name, model, approx] : {std::tuple{std::string(tokenizerFileName), false, std::int64_t{0}},
                                            std::tuple{variant.fileName, true, variant.approxBytes}}) {
    FileJob job;
    job.name = name;
    job.url = settings_.baseUrl + name;
    job.finalPath = pathIn(dir, name);
    job.partPath = pathIn(dir, name, partSuffix);
    job.model = model;
    job.approxBytes = approx;
    DownloadReport one = fetchFile(job, onProgress);
    if (one.outcome == DownloadOutcome::failed || one.outcome == DownloadOutcome::cancelled) {
      one.fetched = overall.fetched;
      return one;
    }
    overall.fetched.insert(overall.fetched.end(), one.fetched.begin(), one.fetched.end());
  }
  if (!overall.fetched.empty()) {
    overall.outcome = DownloadOutcome::completed;
    overall.message = TF("%s 已经就位;正在运行的服务会在下次启动引擎时用上它", variant.fileName);
  }
  return overall;
}

}  // namespace kelvo
