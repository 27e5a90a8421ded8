// Any request through the API's dispatch: method, path, query, headers and
// body all come from the fuzzer. Every answer must be a status the server can
// send, refusals must be JSON with an "error", and nothing may crash, however
// the routes, the voice library or the configuration are hit.
//
// Input layout: fields separated by 0x00 — method, target, one header line
// ("Name: value") per field up to an empty field, then the body (the rest).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "KELVOCore/EnginePlaceholder.h"
#include "KELVOCore/HttpRoutes.h"
#include "fuzz/FuzzSupport.h"

namespace {

using namespace kelvo;

std::shared_ptr<TtsService> makeService() {
  const std::string dir = fuzz::scratchFolder();
  TtsService::Parts parts;
  parts.config = std::make_shared<AppConfig>(dir + "data/config.json");
  parts.voices = std::make_shared<VoiceLibrary>(dir + "data/voices.json", dir + "clone/");
  parts.voices->setConfig(parts.config);
  parts.cache = std::make_shared<WavCache>(dir + "temp/", 8 << 20);
  parts.s2 = std::make_shared<S2LocalEngine>(EngineOptions{}, dir);
  parts.placeholder = std::make_shared<PlaceholderEngine>();
  // Keep each run short: no default voice made with the engine, short texts.
  parts.config->setAutoCreateDefaultVoice(false);
  parts.config->setMaxTextLength(64);
  return TtsService::create(parts);
}

std::string nextField(const std::uint8_t*& p, const std::uint8_t* end) {
  const std::uint8_t* start = p;
  while (p < end && *p != 0) ++p;
  std::string field(start, p);
  if (p < end) ++p;
  return field;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::shared_ptr<TtsService> service = makeService();
  static TtsHttpService api(service);

  const std::uint8_t* p = data;
  const std::uint8_t* end = data + size;
  HttpRequest request;
  request.method = nextField(p, end);
  const std::string target = nextField(p, end);
  const std::size_t q = target.find('?');
  request.path = target.substr(0, q);
  if (q != std::string::npos) request.query = target.substr(q + 1);
  for (std::string line = nextField(p, end); !line.empty(); line = nextField(p, end)) {
    const std::size_t colon = line.find(':');
    request.headers[line.substr(0, colon)] = colon == std::string::npos ? "" : line.substr(colon + 1);
  }
  request.body.assign(p, end);
  request.peer = "127.0.0.1";

  const HttpResponse response = api.dispatch(request);
  if (response.status < 200 || response.status > 599) std::abort();
  if (response.status >= 400) {
    const std::optional<Json> refusal = parseJsonObject(std::span<const std::uint8_t>(response.body));
    if (!refusal || jStr(*refusal, "error").empty()) std::abort();
  }
  return 0;
}
