// The routes behind `kelvo keys`: list, add and revoke API keys. A new key is
// answered once and never again; a revoked one stops working with the next
// request, since every check reads the same in-memory list.
#include "KELVOCore/HttpRoutes.h"
#include "KELVOCore/I18n.h"

namespace kelvo {

HttpResponse TtsHttpService::listKeys() {
  Json list = Json::array();
  for (const ApiKeyInfo& k : keys_->list()) {
    list.push_back(Json{{"name", k.name}, {"scope", std::string(name(k.scope))}, {"created", k.created}, {"last_used", k.lastUsed}});
  }
  return HttpResponse::json(200, Json{{"keys", std::move(list)}});
}

HttpResponse TtsHttpService::addKey(const HttpRequest& request) {
  const std::optional<Json> body = parseJsonObject(request.body);
  if (!body) return badJson();
  const std::string keyName = trimmed(jStr(*body, "name"));
  const std::string scopeName = toLower(trimmed(jStr(*body, "scope", "speak")));
  if (scopeName != "speak" && scopeName != "admin") {
    return HttpResponse::error(400, "bad_request", TF("没有“%s”这个权限范围(可用:speak、admin)", scopeName));
  }
  const ApiKeys::Added added = keys_->add(keyName, scopeName == "admin" ? Scope::admin : Scope::speak);
  switch (added.refusal) {
    case ApiKeys::Refusal::none: break;
    case ApiKeys::Refusal::badName:
      return HttpResponse::error(400, "bad_request", T("密钥名称要 1 到 64 个字符,只能用字母、数字、点、下划线和连字符"));
    case ApiKeys::Refusal::taken:
      return HttpResponse::error(409, "key_exists", TF("已经有叫“%s”的密钥了", keyName));
    case ApiKeys::Refusal::unwritable:
      return HttpResponse::error(500, "internal", T("密钥文件写不进去,密钥没有保存"));
  }
  return HttpResponse::json(200, Json{{"name", keyName}, {"scope", scopeName}, {"key", added.key}});
}

HttpResponse TtsHttpService::removeKey(const std::string& keyName) {
  if (!keys_->remove(keyName)) return HttpResponse::error(404, "not_found", TF("没有叫“%s”的密钥", keyName));
  return HttpResponse::json(200, Json{{"removed", keyName}});
}

}  // namespace kelvo
