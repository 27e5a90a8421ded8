// Models: the catalogue of the s2 model's variants and the downloader that puts
// them into models/. A new installation starts with no model, and the links it
// downloads over are slow, flaky and sometimes behind a captive portal, so the
// downloader
//   - keeps what has arrived in "<file>.part" and resumes it with a Range
//     request (206 appends, 200 starts again from zero, 416 means complete);
//   - renames the file into place, atomically, only when its size equals the
//     server's total;
//   - refuses a web page (Content-Type HTML, a model under 1 MB, a ".gguf" not
//     starting with "GGUF") before a byte of it reaches the disk;
//   - refuses to start when the disk cannot take what is left plus 1 GB;
//   - retries transport errors and stalls (no byte for 60 s) with a doubling
//     pause, 5 tries in a row without progress; a try that brought bytes
//     starts the count again;
//   - reports progress and can be cancelled from another thread, keeping the
//     ".part" for the next run.
// So models/ holds finished files and at most one valid ".part" per file,
// never a half-written model under its real name and never a page of HTML.
//
// Thread-safe: the free functions are; one ModelDownloader runs one download
// at a time, and cancel() may be called from any thread. Cost: the transfer
// runs on the calling thread; progress is reported at most 4 times a second.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KELVOCore/EngineOptions.h"
#include "KELVOCore/Paths.h"

namespace kelvo {

// One quantisation of the model. Every variant needs tokenizerFileName beside it.
struct ModelVariant {
  std::string id;            // "q6_k"
  std::string fileName;      // "s2-pro-q6_k.gguf"
  std::int64_t approxBytes;  // for the space check before the server tells the size, and for partial percentages
};

inline constexpr std::string_view tokenizerFileName = "tokenizer.json";
inline constexpr std::string_view modelHubBase = "https://huggingface.co/rodrigomt/s2-pro-gguf/resolve/main/";
inline constexpr std::string_view modelMirrorBase = "https://hf-mirror.com/rodrigomt/s2-pro-gguf/resolve/main/";
inline constexpr std::string_view partSuffix = ".part";

// q6_k (about 4.8 GB), q8_0 (5.7 GB), f16 (9.3 GB), smallest first; the first
// is the one downloaded when none is named.
const std::vector<ModelVariant>& modelVariants();
// The variant with this id, ignoring case and surrounding blanks.
std::optional<ModelVariant> findModelVariant(std::string_view id);

// Where files are fetched from (base + file name), always ending in "/":
// `packageBaseUrl` when set; else, with `useMirror`, KELVO_MODEL_MIRROR_URL or
// modelMirrorBase; else KELVO_MODEL_URL or modelHubBase.
std::string modelBaseUrl(const EngineOptions& options);

enum class ModelFileState { installed, partial, missing };

struct ModelStatus {
  ModelVariant variant;
  ModelFileState state = ModelFileState::missing;  // of the model file
  std::int64_t bytes = 0;         // of the installed file, or of the ".part"
  double partialFraction = 0;     // ".part" bytes / approxBytes, kept below 1; 0 unless partial
  bool tokenizerInstalled = false;
};

// One entry per catalogue variant, in catalogue order.
std::vector<ModelStatus> modelStatuses(const std::string& modelsDir = KELVOPaths::modelsDir());

// Deletes the variant's model file and its ".part"; the tokenizer goes too
// when no other variant's model file remains. False when there was nothing to
// delete or a deletion failed.
bool removeModel(const ModelVariant& variant, const std::string& modelsDir = KELVOPaths::modelsDir());

struct DownloadProgress {
  std::string fileName;
  std::int64_t bytes = 0;     // of the file so far, an earlier run's part included
  std::int64_t total = -1;    // the server's size; -1 until it is known
  double bytesPerSecond = 0;  // over the last few seconds
};

enum class DownloadOutcome { completed, alreadyInstalled, cancelled, failed };

struct DownloadReport {
  DownloadOutcome outcome = DownloadOutcome::failed;
  // Localised: what happened, and for a failure what to do about it.
  std::string message;
  std::vector<std::string> fetched;  // file names this run put in place
};

struct ModelDownloadSettings {
  std::string modelsDir = KELVOPaths::modelsDir();
  std::string baseUrl;  // with a trailing "/", usually modelBaseUrl(config.engine())
  int tries = 5;        // in a row without progress, per file
  std::chrono::milliseconds stallTimeout{60000};
  std::chrono::milliseconds firstBackoff{2000};  // doubled after each failed try, at most 60 s
  std::int64_t reserveBytes = std::int64_t{1} << 30;  // left free on the disk after the download
};

class ModelDownloader {
 public:
  using ProgressHandler = std::function<void(const DownloadProgress&)>;

  explicit ModelDownloader(ModelDownloadSettings settings);
  ModelDownloader(const ModelDownloader&) = delete;
  ModelDownloader& operator=(const ModelDownloader&) = delete;

  // Fetches tokenizer.json unless it is installed, then the variant's model
  // file unless it is installed. Blocks until done, failed or cancelled;
  // `onProgress` runs on this thread. REQUIRES: no other download() running
  // on this object.
  DownloadReport download(const ModelVariant& variant, const ProgressHandler& onProgress = {});

  // Any thread: the running download stops within about a second, keeping its
  // ".part"; a later download() on this object ends as cancelled at once.
  void cancel();

 private:
  struct FileJob;
  enum class TryEnd;

  // One file to its end: fetched and renamed, failed, or cancelled.
  DownloadReport fetchFile(const FileJob& job, const ProgressHandler& onProgress);
  // One request for the file; the job's fields say what came of it.
  TryEnd tryOnce(FileJob& job, const ProgressHandler& onProgress);
  // Sleeps before try `failures` + 1; false when cancelled meanwhile.
  bool backoff(int failures);
  // The refusal text, or "" when the disk takes `stillToFetch` plus the reserve.
  std::string spaceProblem(std::int64_t stillToFetch) const;

  const ModelDownloadSettings settings_;
  std::atomic<bool> cancelled_{false};
  std::mutex waitLock_;
  std::condition_variable wake_;
};

}  // namespace kelvo
