// `kelvo pack export` and `kelvo pack import`: carry voices and their airline
// bindings between installations as one .cln file, through a running service.
#include <cstdio>

#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"
#include "KELVOServer/Client.h"
#include "KELVOServer/Commands.h"

namespace kelvo::cli {

namespace {

struct ExportOptions {
  std::vector<std::string> airlines;
  std::vector<std::string> voices;
  std::string output;
};

void printSummary(const Json& summary, const CommonOptions& common) {
  if (common.json) {
    std::printf("%s\n", jsonString(summary, true).c_str());
    return;
  }
  std::printf("%s\n", jStr(summary, "summary").c_str());
  for (const Json& note : jArr(summary, "notes").value_or(Json::array())) {
    if (note.is_string()) std::printf("  - %s\n", note.get<std::string>().c_str());
  }
}

void exportPack(const ExportOptions& o, const CommonOptions& common) {
  if (o.airlines.empty() && o.voices.empty()) throw CommandError{exitUsage, T("请至少指定一个航司绑定或音色来导出")};
  const Json body{{"airlines", o.airlines}, {"voices", o.voices}};
  const Reply reply = ServiceClient(common.url).call("POST", "/v1/packs/export", jsonData(body, false));
  if (const std::error_code ec = writeFileAtomic(o.output, reply.body)) {
    throw CommandError{exitRefused, TF("无法写入 %s:%s", o.output, ec.message())};
  }
  Json summary = parseJsonObject(reply.header("x-kelvo-pack")).value_or(Json::object());
  summary["file"] = o.output;
  summary["bytes"] = reply.body.size();
  // The service's summary line counts what an import adds; an export says what it wrote.
  summary["summary"] = TF("已写入 %s:%lld 个声音,%lld 段音频,%lld 个绑定,%lld 字节", o.output,
                          static_cast<long long>(jInt(summary, "voices", 0)), static_cast<long long>(jInt(summary, "clips", 0)),
                          static_cast<long long>(jInt(summary, "bindings", 0)), static_cast<long long>(reply.body.size()));
  printSummary(summary, common);
}

void importPack(const std::string& file, const CommonOptions& common) {
  const std::optional<Bytes> bytes = readFile(file);
  if (!bytes) throw CommandError{exitRefused, TF("读不到 %s", file)};
  printSummary(ServiceClient(common.url).call("POST", "/v1/packs/import", *bytes, "application/zip").json(), common);
}

}  // namespace

void addPackCommands(CLI::App& app, const CommonOptions& common) {
  CLI::App* pack = app.add_subcommand("pack", "Export or import voices and their bindings as a .cln clone pack.");
  pack->require_subcommand(1);

  auto o = std::make_shared<ExportOptions>();
  CLI::App* out = pack->add_subcommand("export", "Write the chosen bindings and voices to a .cln file.");
  out->add_option("--airline", o->airlines, "binding key such as KVO:en:female (repeatable)");
  out->add_option("--voice", o->voices, "voice id (repeatable)");
  out->add_option("-o,--output", o->output, "the .cln file to write")->required();
  out->callback([o, &common] { exportPack(*o, common); });

  auto file = std::make_shared<std::string>();
  CLI::App* in = pack->add_subcommand("import", "Add the voices and bindings of a .cln file to the service.");
  in->add_option("file", *file, "the .cln file")->required()->check(CLI::ExistingFile);
  in->callback([file, &common] { importPack(*file, common); });
}

}  // namespace kelvo::cli
