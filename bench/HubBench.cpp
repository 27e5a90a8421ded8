// What a hub server spends on the largest upload it takes (20 MB): reading the
// multipart form, and the whole acceptance (form, zip directory, manifest,
// atomic write of the pack and the index).
#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

#include "KELVOCore/HubStore.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Multipart.h"
#include "KELVOCore/Zip.h"

namespace {

namespace fs = std::filesystem;
using namespace kelvo;

// A pack just under 20 MB: one voice with noise clips of 1 MB each, stored.
Bytes bigPack() {
  ZipWriter zip;
  Json clips = Json::array();
  std::uint32_t x = 1;
  for (int i = 0; i < 19; ++i) {
    Bytes clip(1 << 20);
    for (auto& b : clip) b = static_cast<std::uint8_t>((x = x * 1664525u + 1013904223u) >> 24);
    const std::string name = formatText("c%d.wav", i);
    clips.push_back({{"file", name}, {"text", "t"}});
    (void)zip.add({"audio/" + name, std::move(clip)});
  }
  const Json manifest{{"format", "kelvo-clone-pack"}, {"version", 1}, {"voices", Json::array({{{"clips", clips}}})}};
  (void)zip.add({"cln.json", jsonData(manifest, false)});
  return zip.finish();
}

HttpRequest uploadOf(const Bytes& pack) {
  MultipartForm form;
  form.addField("title", "bench");
  form.addField("author", "bench");
  form.addField("version", "0");
  form.addField("fingerprint", "F");
  form.addFile("pack", "p.cln", "application/zip", pack);
  HttpRequest r;
  r.method = "POST";
  r.query = "a=upload";
  r.headers["Content-Type"] = form.contentType();
  r.body = form.finish();
  return r;
}

void BM_ParseUploadForm(benchmark::State& state) {
  const HttpRequest request = uploadOf(bigPack());
  for (auto _ : state) {
    auto parts = parseMultipart(request.body, request.headers.at("Content-Type"));
    benchmark::DoNotOptimize(parts);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * request.body.size()));
}
BENCHMARK(BM_ParseUploadForm)->Unit(benchmark::kMillisecond);

void BM_AcceptUpload(benchmark::State& state) {
  const std::string dir = (fs::temp_directory_path() / "kelvo-hub-bench").string() + "/";
  fs::remove_all(dir);
  HttpRequest request = uploadOf(bigPack());
  HubStore store(dir, {hubMaxPackBytes, 1 << 30, std::chrono::seconds(3600)});
  for (auto _ : state) {
    const HttpResponse response = store.handle(request);
    if (response.status != 200) state.SkipWithError("upload refused");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * request.body.size()));
  fs::remove_all(dir);
}
BENCHMARK(BM_AcceptUpload)->Unit(benchmark::kMillisecond)->Iterations(10);

}  // namespace
