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

HttpResponse TtsHttpService::hubSharesRoute(const HttpRequest& request, const std::string& path) {
  constexpr std::string_view collection = "/v1/hub/shares";
  const bool one = path.size() > collection.size() + 1;
  if (one ? request.method != "DELETE" : request.method != "POST") return methodNotAllowed(request.method);

  std::optional<Json> body;
  if (!one && !(body = parseJsonObject(request.body))) return badJson();
  const std::string address = one ? request.queryValue("hub") : jStr(*body, "hub");
  const HubClient hub(trimmed(address).empty() ? hubBaseUrl() : address);
  if (!hub.configured()) {
    return HttpResponse::error(400, "bad_request", T("这个版本没有配置共享中心 — 设置 KELVO_HUB_URL 指向共享中心的地址"));
  }

  if (one) {
    // Byte offsets of the lowered path hold in the original: ids keep their case.
    const std::string id = request.path.substr(collection.size() + 1);
    unshareFromHub(hub, id, service_->config());
    return HttpResponse::json(200, Json{{"id", id}, {"removed", true}});
  }
  const std::vector<std::string> airlines = jStrings(*body, "airlines");
  const std::vector<std::string> voices = jStrings(*body, "voices");
  if (airlines.empty() && voices.empty()) {
    return HttpResponse::error(400, "bad_request", T("请至少指定一个航司绑定或音色来共享"));
  }
  const ShareResult result =
      shareOnHub(hub, jStr(*body, "title"), airlines, voices, service_->voices(), service_->config());
  return HttpResponse::json(200, Json{{"id", result.id},
                                      {"unchanged", result.unchanged},
                                      {"pack", packSummaryJson(result.summary)}});
}

}  // namespace kelvo
