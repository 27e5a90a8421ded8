// The routes of this installation's own shares on the sharing hub. They live
// in the service because a share changes the configuration (its delete key)
// and the fingerprints file: written by any other process, the service's next
// save of the configuration would drop the key, and the share could never be
// taken down again.
//   POST   /v1/hub/shares       {"title", "airlines": [...], "voices": [...], "hub"}
//                               -> 200 {"id", "unchanged", "pack": pack summary}
//   DELETE /v1/hub/shares/{id}  ?hub=… -> 200 {"id", "removed": true}
// "hub" names the hub's base address; without it the service's own (KELVO_HUB_URL).

#include "KELVOCore/Hub.h"
#include "KELVOCore/HttpRoutes.h"
#include "KELVOCore/I18n.h"

namespace kelvo {

namespace {

// The hub named by the request, else the service's own; absent when neither is set.
std::optional<HubClient> hubFor(const std::string& named) {
  HubClient hub(trimmed(named).empty() ? hubBaseUrl() : named);
  if (!hub.configured()) return std::nullopt;
  return hub;
}

HttpResponse noHub() {
  return HttpResponse::error(400, "bad_request", T("这个版本没有配置共享中心 — 设置 KELVO_HUB_URL 指向共享中心的地址"));
}

}  // namespace

HttpResponse TtsHttpService::shareOnHubRoute(const HttpRequest& request) {
  const std::optional<Json> body = parseJsonObject(request.body);
  if (!body) return badJson();
  const std::optional<HubClient> hub = hubFor(jStr(*body, "hub"));
  if (!hub) return noHub();
  const std::vector<std::string> airlines = jStrings(*body, "airlines");
  const std::vector<std::string> voices = jStrings(*body, "voices");
  if (airlines.empty() && voices.empty()) {
    return HttpResponse::error(400, "bad_request", T("请至少指定一个航司绑定或音色来共享"));
  }
  const ShareResult result =
      shareOnHub(*hub, jStr(*body, "title"), airlines, voices, service_->voices(), service_->config());
  return HttpResponse::json(200, Json{{"id", result.id},
                                      {"unchanged", result.unchanged},
                                      {"pack", packSummaryJson(result.summary)}});
}

HttpResponse TtsHttpService::unshareFromHubRoute(const HttpRequest& request, const std::string& id) {
  const std::optional<HubClient> hub = hubFor(request.queryValue("hub"));
  if (!hub) return noHub();
  unshareFromHub(*hub, id, service_->config());
  return HttpResponse::json(200, Json{{"id", id}, {"removed", true}});
}

}  // namespace kelvo
