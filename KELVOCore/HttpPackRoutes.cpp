// The clone-pack routes: export voices and bindings as one .cln archive, and
// import one. An archive arrives from other machines and public hubs, so the
// import hands the bytes to ClonePack, which treats every one as hostile. The
// server receives an imported pack into a temporary file (it may be up to
// 512 MiB), which ClonePack reads one entry at a time.

#include "KELVOCore/ClonePack.h"
#include "KELVOCore/HttpRoutes.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Timestamp.h"

namespace kelvo {

namespace {

// "kelvo-pack-20261123T112044Z.cln": the export's UTC time without separators.
std::string packFileName() {
  std::string stamp = isoUtc(std::chrono::system_clock::now());
  std::erase_if(stamp, [](char c) { return c == '-' || c == ':'; });
  return "kelvo-pack-" + stamp + "." + std::string(clnExt);
}

}  // namespace

HttpResponse TtsHttpService::packsRoute(const HttpRequest& request, const std::string& path) {
  if (path != "/v1/packs/export" && path != "/v1/packs/import") return noSuchPath(request.path);
  if (request.method != "POST") return methodNotAllowed(request.method);
  if (path == "/v1/packs/import") {
    // The server hands a pack over as a file; a body in memory comes only from
    // callers of dispatch() that bypass the server.
    const PackSummary summary =
        request.bodyFile.empty()
            ? importPack(std::span<const std::uint8_t>(request.body), service_->voices(), service_->config())
            : importPack(request.bodyFile, service_->voices(), service_->config());
    return HttpResponse::json(200, packSummaryJson(summary));
  }

  const std::optional<Json> body = parseJsonObject(request.body);
  if (!body) return badJson();
  const std::vector<std::string> airlines = jStrings(*body, "airlines");
  const std::vector<std::string> voices = jStrings(*body, "voices");
  if (airlines.empty() && voices.empty()) {
    return HttpResponse::error(400, "bad_request", T("请至少指定一个航司绑定或音色来导出"));
  }
  BuiltPack pack = buildPack(airlines, voices, service_->voices(), service_->config());
  HttpResponse response;
  response.headers = {{"Content-Type", "application/zip"},
                      {"Content-Disposition", "attachment; filename=\"" + packFileName() + "\""},
                      // Escaped to ASCII: header values must not carry raw UTF-8.
                      {"X-KELVO-Pack", packSummaryJson(pack.summary).dump(-1, ' ', true)}};
  response.body = std::move(pack.archive);
  return response;
}

}  // namespace kelvo
