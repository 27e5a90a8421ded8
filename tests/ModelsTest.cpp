// The model downloader against tools/model_hub_double.py: every fault the
// double can play, and after each one models/ holds only whole files equal to
// the served ones and at most a ".part" that is a true prefix of its file.
#include "KELVOCore/Models.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Json.h"
#include "tests/Doubles.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;
using test::PythonDouble;
using test::TempDir;

constexpr std::int64_t kModelBytes = 3'000'000;
const ModelVariant kVariant{"test", "s2-test.gguf", kModelBytes};
constexpr std::string_view kWebPage =
    "the server sent a web page instead of the model — check the network or switch the mirror";

Bytes servedModel() {
  Bytes data = test::noise(kModelBytes, 12345);
  std::copy_n("GGUF", 4, data.begin());
  return data;
}

class ModelDownload : public ::testing::Test {
 protected:
  void SetUp() override {
    setUiLang(UiLang::en);
    test::writeTextFile(served.path() + "s2-test.gguf", std::string(model.begin(), model.end()));
    test::writeTextFile(served.path() + "tokenizer.json", tokenizer);
  }

  ModelDownloadSettings settings(const std::string& modelsDir) const {
    ModelDownloadSettings s;
    s.modelsDir = modelsDir;
    s.baseUrl = hub.url() + "/rodrigomt/s2-pro-gguf/resolve/main/";
    s.tries = 3;
    s.stallTimeout = std::chrono::milliseconds(300);
    s.firstBackoff = std::chrono::milliseconds(10);
    s.reserveBytes = 0;
    return s;
  }

  // "status:range" of every request for the model file, in order.
  std::string modelRequests() const {
    HttpClientRequest request;
    request.url = hub.url() + "/_log";
    const auto reply = httpExchange(request);
    std::string out;
    for (const Json& r : Json::parse(std::string(reply.body.begin(), reply.body.end()))) {
      if (!jStr(r, "path").ends_with(".gguf")) continue;
      out += (out.empty() ? "" : ",") + std::to_string(jInt(r, "status", 0)) + ":" + jStr(r, "range");
    }
    return out;
  }

  // Nothing half-written: finished files equal the served ones, a ".part" is a prefix.
  void expectOnlyWholeFilesOrTrueParts(const std::string& dir) const {
    for (const auto& entry : fs::directory_iterator(dir)) {
      const std::string name = entry.path().filename().string();
      const Bytes have = readFile(entry.path().string()).value_or(Bytes{});
      const bool isPart = name.ends_with(".part");
      const std::string full = isPart ? name.substr(0, name.size() - 5) : name;
      const Bytes want = full == "tokenizer.json" ? Bytes(tokenizer.begin(), tokenizer.end()) : model;
      ASSERT_TRUE(full == "tokenizer.json" || full == "s2-test.gguf") << name;
      if (isPart) {
        EXPECT_TRUE(have.size() < want.size() && std::equal(have.begin(), have.end(), want.begin())) << name;
      } else {
        EXPECT_EQ(sha256Bytes(have), sha256Bytes(want)) << name;
      }
    }
  }

  TempDir served;
  const Bytes model = servedModel();
  const std::string tokenizer = R"({"model": {"type": "BPE"}})";
  PythonDouble hub{"model_hub_double.py", {"--dir", served.path()}};
};

TEST_F(ModelDownload, EveryFaultEndsWithAWholeFileOrASentenceAndNothingHalfWritten) {
  struct Row {
    const char* mode;
    std::int64_t partBefore;  // a valid ".part" left by an earlier run
    DownloadOutcome outcome;
    std::string_view message;  // checked when not empty
    const char* requests;      // of the model file
  };
  const std::string cut = "bytes=1200000-";
  const Row rows[] = {
      {"whole", 0, DownloadOutcome::completed, "s2-test.gguf is in place; a running service picks it up on its next "
                                               "engine start", "200:"},
      {"cut", 0, DownloadOutcome::completed, "", "200:,206:bytes=1200000-"},
      {"cut-norange", 0, DownloadOutcome::completed, "", "200:,200:bytes=1200000-"},
      {"stall", 0, DownloadOutcome::completed, "", "200:,206:bytes=1200000-"},
      {"busy", 0, DownloadOutcome::completed, "", "503:,200:"},
      {"whole", 1'000'000, DownloadOutcome::completed, "", "206:bytes=1000000-"},
      {"whole", kModelBytes, DownloadOutcome::completed, "", "416:bytes=3000000-"},
      {"norange", 1'000'000, DownloadOutcome::completed, "", "200:bytes=1000000-"},
      {"portal", 0, DownloadOutcome::failed, kWebPage, ""},
      {"portal", 1'000'000, DownloadOutcome::failed, kWebPage, ""},
      {"disguised", 0, DownloadOutcome::failed, kWebPage, "200:"},
      {"disguised", 1'000'000, DownloadOutcome::failed, kWebPage, "200:bytes=1000000-"},
      {"short", 0, DownloadOutcome::failed, kWebPage, "200:"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.mode) + " after " + std::to_string(row.partBefore));
    hub.setMode(row.mode);
    const TempDir models;
    const std::string part = models.path() + "s2-test.gguf.part";
    if (row.partBefore > 0) test::writeTextFile(part, std::string(model.begin(), model.begin() + row.partBefore));

    std::vector<DownloadProgress> seen;
    ModelDownloader downloader(settings(models.path()));
    const DownloadReport report = downloader.download(kVariant, [&](const DownloadProgress& p) { seen.push_back(p); });

    EXPECT_EQ(report.outcome, row.outcome) << report.message;
    if (!row.message.empty()) {
      EXPECT_EQ(report.message, row.message);
    }
    EXPECT_EQ(modelRequests(), row.requests);
    expectOnlyWholeFilesOrTrueParts(models.path());
    if (row.outcome == DownloadOutcome::completed) {
      EXPECT_TRUE(fs::exists(models.path() + "s2-test.gguf"));
      ASSERT_FALSE(seen.empty());
      EXPECT_EQ(seen.back().fileName, "s2-test.gguf");
      EXPECT_EQ(seen.back().bytes, kModelBytes);
      EXPECT_EQ(seen.back().total, kModelBytes);
    } else {
      EXPECT_FALSE(fs::exists(models.path() + "s2-test.gguf"));
      // A refusal never touches what an earlier run fetched.
      EXPECT_EQ(fs::exists(part) ? static_cast<std::int64_t>(fs::file_size(part)) : 0, row.partBefore);
    }
  }
}

TEST_F(ModelDownload, RefusalsBeforeOrWithoutTheFileReadAsSentences) {
  const TempDir models;
  ModelDownloadSettings noRoom = settings(models.path());
  noRoom.reserveBytes = std::int64_t{1} << 60;
  const DownloadReport full = ModelDownloader(noRoom).download(kVariant);
  EXPECT_EQ(full.outcome, DownloadOutcome::failed);
  EXPECT_TRUE(full.message.starts_with("not enough free disk space in " + models.path())) << full.message;

  const ModelVariant missing{"nope", "s2-nope.gguf", kModelBytes};
  const DownloadReport gone = ModelDownloader(settings(models.path())).download(missing);
  EXPECT_EQ(gone.message, "for s2-nope.gguf the server answered HTTP 404 — check the download address (" +
                              settings(models.path()).baseUrl + "s2-nope.gguf)");
  EXPECT_EQ(gone.fetched, std::vector<std::string>{"tokenizer.json"});

  ModelDownloadSettings closed = settings(models.path());
  closed.baseUrl = "http://127.0.0.1:1/";
  const DownloadReport down = ModelDownloader(closed).download(kVariant);
  EXPECT_TRUE(down.message.starts_with("the download of s2-test.gguf failed 3 times in a row (")) << down.message;
  expectOnlyWholeFilesOrTrueParts(models.path());
}

TEST_F(ModelDownload, CancelFromAnotherThreadKeepsTheArrivedPart) {
  hub.setMode("stall");
  const TempDir models;
  test::writeTextFile(models.path() + "tokenizer.json", tokenizer);
  ModelDownloadSettings s = settings(models.path());
  s.stallTimeout = std::chrono::seconds(60);
  ModelDownloader downloader(s);
  std::atomic<bool> stalled{false};
  DownloadReport report;
  std::thread worker([&] {
    report = downloader.download(kVariant, [&](const DownloadProgress& p) {
      if (p.fileName == "s2-test.gguf" && p.bytes == kModelBytes * 4 / 10) stalled = true;
    });
  });
  while (!stalled) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  downloader.cancel();
  worker.join();
  EXPECT_EQ(report.outcome, DownloadOutcome::cancelled);
  EXPECT_EQ(report.message, "cancelled; what has arrived is kept and the next run resumes it");
  EXPECT_EQ(fs::file_size(models.path() + "s2-test.gguf.part"), static_cast<std::uintmax_t>(kModelBytes * 4 / 10));
  expectOnlyWholeFilesOrTrueParts(models.path());
}

TEST(ModelCatalogue, BaseAddressesStatusesAndRemoval) {
  EXPECT_EQ(findModelVariant(" Q8_0 ")->fileName, "s2-pro-q8_0.gguf");
  EXPECT_FALSE(findModelVariant("q4"));
  EXPECT_EQ(modelVariants().front().id, "q6_k");

  struct Row {
    const char* packageBase;
    bool mirror;
    const char* hubEnv;
    const char* mirrorEnv;
    std::string want;
  };
  const Row rows[] = {
      {"", true, nullptr, nullptr, std::string(modelMirrorBase)},
      {"", false, nullptr, nullptr, std::string(modelHubBase)},
      {"", false, "http://intranet/models", "http://m/", "http://intranet/models/"},
      {"", true, "http://intranet/models", "http://m", "http://m/"},
      {" http://pkg/base ", true, "http://intranet/", "http://m/", "http://pkg/base/"},
  };
  for (const Row& row : rows) {
    const test::ScopedEnv hubEnv("KELVO_MODEL_URL", row.hubEnv);
    const test::ScopedEnv mirrorEnv("KELVO_MODEL_MIRROR_URL", row.mirrorEnv);
    EngineOptions options;
    options.packageBaseUrl = row.packageBase;
    options.useMirror = row.mirror;
    EXPECT_EQ(modelBaseUrl(options), row.want) << row.packageBase << row.mirror;
  }

  const TempDir dir;
  test::writeTextFile(dir.path() + "tokenizer.json", "{}");
  test::writeTextFile(dir.path() + "s2-pro-q6_k.gguf", "GGUF");
  test::writeTextFile(dir.path() + "s2-pro-f16.gguf.part", std::string(930'000'000 / 1000, 'x'));
  const auto statuses = modelStatuses(dir.path());
  ASSERT_EQ(statuses.size(), 3u);
  EXPECT_EQ(statuses[0].state, ModelFileState::installed);
  EXPECT_EQ(statuses[1].state, ModelFileState::missing);
  EXPECT_EQ(statuses[2].state, ModelFileState::partial);
  EXPECT_NEAR(statuses[2].partialFraction, 0.0001, 1e-9);
  EXPECT_TRUE(statuses[0].tokenizerInstalled);

  EXPECT_TRUE(removeModel(*findModelVariant("f16"), dir.path()));
  EXPECT_TRUE(fs::exists(dir.path() + "tokenizer.json"));  // q6_k still needs it
  EXPECT_TRUE(removeModel(*findModelVariant("q6_k"), dir.path()));
  EXPECT_FALSE(fs::exists(dir.path() + "tokenizer.json"));
  EXPECT_FALSE(removeModel(*findModelVariant("q8_0"), dir.path()));
}

}  // namespace
}  // namespace kelvo
