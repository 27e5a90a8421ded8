// `kelvo keys add|list|rm`: the API keys. With a service answering, every
// change goes through it, so a revoked key stops working at once; with none,
// the key file in the data root is changed directly, which lets an operator
// close the API before its first start.
#include <cstdio>

#include "KELVOCore/ApiKeys.h"
#include "KELVOCore/DataRootLock.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Paths.h"
#include "KELVOServer/Client.h"
#include "KELVOServer/Commands.h"
#include "KELVOServer/Table.h"

namespace kelvo::cli {

namespace {

struct KeyOptions {
  std::string name;
  std::string scope = "speak";
};

// Runs `online` against the service, or `offline` on the data root's key
// file when no service answers.
template <typename Online, typename Offline>
void withKeys(const CommonOptions& common, Online online, Offline offline) {
  try {
    ServiceClient client(common.url);
    online(client);
  } catch (const CommandError& e) {
    if (e.status != exitNoService) throw;
    // Nothing answered at that address; a service that owns this data root
    // elsewhere must still be the only writer of its key file.
    const std::unique_ptr<DataRootLock> lock =
        lockDataRoot(T("它在运行时密钥只能经由它修改 — 用 --url 指向它的地址"));
    ApiKeys keys(KELVOPaths::dataDir());
    offline(keys);
  }
}

Json keyJson(const ApiKeyInfo& k) {
  return Json{{"name", k.name}, {"scope", std::string(name(k.scope))}, {"created", k.created}, {"last_used", k.lastUsed}};
}

void printKeys(const Json& list, bool json) {
  if (json) {
    std::printf("%s\n", jsonString(Json{{"keys", list}}, true).c_str());
    return;
  }
  if (list.empty()) {
    std::printf("%s\n", T("还没有 API 密钥:API 对所有人开放").c_str());
    return;
  }
  std::vector<Row> rows;
  for (const Json& k : list) {
    rows.push_back({jStr(k, "name"), jStr(k, "scope"), jStr(k, "created"), jStr(k, "last_used", "-")});
  }
  std::fputs(formatTable({"NAME", "SCOPE", "CREATED", "LAST USED"}, rows).c_str(), stdout);
}

void printNewKey(const std::string& keyName, const std::string& scope, const std::string& key, bool json) {
  if (json) std::printf("%s\n", jsonString(Json{{"name", keyName}, {"scope", scope}, {"key", key}}, true).c_str());
  else std::printf("%s\n%s\n", TF("新密钥“%s”(%s)- 只显示这一次,请现在保存:", keyName, scope).c_str(), key.c_str());
}

void add(const KeyOptions& o, const CommonOptions& common) {
  withKeys(
      common,
      [&](ServiceClient& client) {
        const Json j = client.callJson("POST", "/v1/keys", Json{{"name", o.name}, {"scope", o.scope}});
        printNewKey(jStr(j, "name"), jStr(j, "scope"), jStr(j, "key"), common.json);
      },
      [&](ApiKeys& keys) {
        const ApiKeys::Added added = keys.add(o.name, o.scope == "admin" ? Scope::admin : Scope::speak);
        switch (added.refusal) {
          case ApiKeys::Refusal::none: break;
          case ApiKeys::Refusal::badName:
            throw CommandError{exitRefused, T("密钥名称要 1 到 64 个字符,只能用字母、数字、点、下划线和连字符")};
          case ApiKeys::Refusal::taken: throw CommandError{exitRefused, TF("已经有叫“%s”的密钥了", o.name)};
          case ApiKeys::Refusal::unwritable: throw CommandError{exitRefused, T("密钥文件写不进去,密钥没有保存")};
        }
        printNewKey(o.name, o.scope, added.key, common.json);
      });
}

void list(const CommonOptions& common) {
  withKeys(
      common, [&](ServiceClient& client) { printKeys(jArr(client.callJson("GET", "/v1/keys"), "keys").value_or(Json::array()), common.json); },
      [&](ApiKeys& keys) {
        Json out = Json::array();
        for (const ApiKeyInfo& k : keys.list()) out.push_back(keyJson(k));
        printKeys(out, common.json);
      });
}

void remove(const std::string& keyName, const CommonOptions& common) {
  withKeys(
      common, [&](ServiceClient& client) { client.callJson("DELETE", "/v1/keys/" + urlEncode(keyName)); },
      [&](ApiKeys& keys) {
        if (!keys.remove(keyName)) throw CommandError{exitRefused, TF("没有叫“%s”的密钥", keyName)};
      });
  std::printf("%s\n", TF("已撤销密钥“%s”", keyName).c_str());
}

}  // namespace

void addKeyCommands(CLI::App& app, const CommonOptions& common) {
  CLI::App* keys = app.add_subcommand(
      "keys", "Manage API keys. While none exists the API is open to anyone who can reach the port.");
  keys->require_subcommand(1);

  auto o = std::make_shared<KeyOptions>();
  CLI::App* add = keys->add_subcommand("add", "Make a new key and print it once.");
  add->add_option("name", o->name, "a name for the key (letters, digits, . _ -)")->required();
  add->add_option("--scope", o->scope, "speak (synthesis and reading) or admin (everything); default speak")
      ->check(CLI::IsMember({"speak", "admin"}));
  add->callback([o, &common] { kelvo::cli::add(*o, common); });

  keys->add_subcommand("list", "Show every key's name, scope, creation and last use.")->callback([&common] {
    list(common);
  });

  auto name = std::make_shared<std::string>();
  CLI::App* rm = keys->add_subcommand("rm", "Revoke a key at once.");
  rm->add_option("name", *name, "the key's name")->required();
  rm->callback([name, &common] { remove(*name, common); });
}

}  // namespace kelvo::cli
