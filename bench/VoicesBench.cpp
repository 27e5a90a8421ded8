#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>

#include "KELVOCore/Config.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/Voices.h"

namespace {

using namespace kelvo;

// A library of 1,000 voices and a configuration of 10,000 airline bindings
// (3,334 airlines × three genders) in a scratch folder.
struct BoundLibrary {
  BoundLibrary() {
    Json list = Json::array();
    for (int i = 0; i < 1000; ++i) {
      list.push_back({{"id", "v-" + std::to_string(100000 + i)},
                      {"display", "voice " + std::to_string(i)},
                      {"clips", Json::array({{{"file", "c.wav"}, {"text", "t"}, {"durationMs", 6000}}})}});
    }
    if (writeFileAtomic(root + "voices.json", jsonData(Json{{"voices", list}}, false))) std::abort();
    library.load();
    int bindings = 0;
    for (int a = 0; bindings < 10000; ++a) {
      for (TtsGender g : allGenders) {
        if (bindings == 10000) break;
        config->setAirlineVoice("A" + std::to_string(a), "en", g, "v-" + std::to_string(100000 + bindings % 1000));
        ++bindings;
      }
    }
    library.setConfig(config);
  }
  ~BoundLibrary() {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  }

  static std::string scratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    return pattern + "/";
  }

  std::string root = scratchFolder();
  std::shared_ptr<AppConfig> config = std::make_shared<AppConfig>(root + "config.json");
  VoiceLibrary library{root + "voices.json", root + "clone/"};
};

// A request with an airline binding: one binding probe and one voice lookup.
void BM_resolveAirlineBinding(benchmark::State& state) {
  static BoundLibrary fixture;
  TtsRequest request = TtsRequest::make("Welcome aboard", "en-US", TtsGender::female, 1.0f);
  request.airline = "A1234";
  if (!fixture.library.resolve(request).voice) state.SkipWithError("binding did not resolve");
  for (auto _ : state) benchmark::DoNotOptimize(fixture.library.resolve(request));
}
BENCHMARK(BM_resolveAirlineBinding);

}  // namespace
