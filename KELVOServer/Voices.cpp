// `kelvo voices`, `kelvo bind`, `kelvo unbind`, `kelvo bindings`: the voice
// library and the airline / default-voice bindings of a running service.
#include <cstdio>

#include "KELVOCore/Base64.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"
#include "KELVOServer/Client.h"
#include "KELVOServer/Commands.h"
#include "KELVOServer/Table.h"

namespace kelvo::cli {

namespace {

void printJsonOr(const CommonOptions& common, const Json& j, const std::string& text) {
  std::fputs(common.json ? (jsonString(j, true) + "\n").c_str() : text.c_str(), stdout);
}

void listVoices(const CommonOptions& common) {
  const Json j = ServiceClient(common.url).callJson("GET", "/v1/voices");
  std::vector<Row> rows;
  for (const Json& v : jArr(j, "voices").value_or(Json::array())) {
    rows.push_back({jStr(v, "id"), jStr(v, "display"), jStr(v, "language").empty() ? "auto" : jStr(v, "language"),
                    jStr(v, "gender"), std::to_string(jInt(v, "clip_count", 0)), jStr(v, "style")});
  }
  printJsonOr(common, j,
              rows.empty() ? T("还没有音色。用 `kelvo voices clone` 克隆一个。") + "\n"
                           : formatTable({"ID", T("名称"), T("语言"), T("性别"), T("片段"), T("风格")}, rows));
}

struct CloneOptions {
  std::vector<std::string> clips;
  std::vector<std::string> texts;
  std::string display;
  std::string language = "auto";
  std::string gender = "default";
  std::string style;
};

void cloneVoice(const CloneOptions& o, const CommonOptions& common) {
  if (o.texts.size() != o.clips.size()) {
    throw CommandError{exitUsage, TF("%d 段音频需要 %d 段 --text,现在有 %d 段", static_cast<int>(o.clips.size()),
                                     static_cast<int>(o.clips.size()), static_cast<int>(o.texts.size()))};
  }
  Json clips = Json::array();
  for (std::size_t i = 0; i < o.clips.size(); ++i) {
    const std::optional<Bytes> audio = readFile(o.clips[i]);
    if (!audio) throw CommandError{exitRefused, TF("读不到 %s", o.clips[i])};
    clips.push_back(Json{{"audio", base64Encode(*audio)}, {"text", o.texts[i]}});
  }
  const Json body{{"display", o.display}, {"language", o.language}, {"gender", o.gender},
                  {"style", o.style},     {"clips", std::move(clips)}};
  const Json v = ServiceClient(common.url).callJson("POST", "/v1/voices/clone", body);
  std::string text = TF("已克隆音色 %s(%s,%d 段)", jStr(v, "id"), jStr(v, "display"),
                        static_cast<int>(jInt(v, "clip_count", 0))) + "\n";
  for (const Json& warning : jArr(v, "warnings").value_or(Json::array())) {
    if (warning.is_string()) text += TF("注意:%s", warning.get<std::string>()) + "\n";
  }
  printJsonOr(common, v, text);
}

void removeVoice(const std::string& id, const CommonOptions& common) {
  const Json j = ServiceClient(common.url).callJson("DELETE", "/v1/voices/" + urlEncode(id));
  printJsonOr(common, j, TF("已删除音色 %s 及其绑定", jStr(j, "removed")) + "\n");
}

struct BindOptions {
  bool defaults = false;
  std::vector<std::string> args;  // [ICAO] LANGUAGE GENDER [VOICE]
};

// `bind` takes a voice, `unbind` does not; --default drops the airline.
void changeBinding(const BindOptions& o, bool bind, const CommonOptions& common) {
  const std::size_t wanted = (o.defaults ? 2 : 3) + (bind ? 1 : 0);
  if (o.args.size() != wanted) {
    throw CommandError{exitUsage, bind ? T("用法: kelvo bind ICAO 语言 性别 音色 | kelvo bind --default 语言 性别 音色")
                                       : T("用法: kelvo unbind ICAO 语言 性别 | kelvo unbind --default 语言 性别")};
  }
  std::size_t i = 0;
  Json body = Json::object();
  if (!o.defaults) body["airline"] = o.args[i++];
  body["language"] = o.args[i++];
  body["gender"] = o.args[i++];
  body["voice"] = bind ? o.args[i] : "";
  const Json j = ServiceClient(common.url).callJson("PUT", o.defaults ? "/v1/defaults" : "/v1/airlines", body);
  printJsonOr(common, j,
              (bind ? formatText("%s → %s", jStr(j, "key"), jStr(j, "voice")) : TF("%s 已解除绑定", jStr(j, "key"))) + "\n");
}

std::vector<Row> bindingRows(const Json& list, bool airline) {
  std::vector<Row> rows;
  for (const Json& b : list) {
    Row row;
    if (airline) row.push_back(jStr(b, "airline"));
    row.insert(row.end(), {jStr(b, "language"), jStr(b, "gender"), jStr(b, "voice")});
    rows.push_back(std::move(row));
  }
  return rows;
}

void listBindings(const CommonOptions& common) {
  ServiceClient client(common.url);
  const Json airlines = client.callJson("GET", "/v1/airlines");
  const Json defaults = client.callJson("GET", "/v1/defaults");
  const Json both{{"airlines", jArr(airlines, "airlines").value_or(Json::array())},
                  {"defaults", jArr(defaults, "defaults").value_or(Json::array())}};
  const std::string text = T("航司绑定") + "\n" +
                           formatTable({T("航司"), T("语言"), T("性别"), T("音色")}, bindingRows(both["airlines"], true)) +
                           "\n" + T("默认音色") + "\n" +
                           formatTable({T("语言"), T("性别"), T("音色")}, bindingRows(both["defaults"], false));
  printJsonOr(common, both, text);
}

}  // namespace

void addVoiceCommands(CLI::App& app, const CommonOptions& common) {
  CLI::App* voices = app.add_subcommand("voices", "List the voices; `voices clone` and `voices rm` change them.");
  voices->callback([voices, &common] {
    if (voices->get_subcommands().empty()) listVoices(common);
  });

  auto clone = std::make_shared<CloneOptions>();
  CLI::App* cloneCmd = voices->add_subcommand("clone", "Clone a voice from reference clips (WAV, MP3 or Ogg Vorbis).");
  cloneCmd->add_option("clips", clone->clips, "reference clips, 5-30 s each")->required()->check(CLI::ExistingFile);
  cloneCmd->add_option("--text", clone->texts, "transcript of each clip, in the same order")->required();
  cloneCmd->add_option("--display", clone->display, "the voice's name")->required();
  cloneCmd->add_option("--language", clone->language, "language code (default: auto)");
  cloneCmd->add_option("--gender", clone->gender, "female, male or default");
  cloneCmd->add_option("--style", clone->style, "style hint");
  cloneCmd->callback([clone, &common] { cloneVoice(*clone, common); });

  auto id = std::make_shared<std::string>();
  CLI::App* rm = voices->add_subcommand("rm", "Delete a voice, its clips and its bindings.");
  rm->add_option("id", *id, "voice id")->required();
  rm->callback([id, &common] { removeVoice(*id, common); });

  for (const bool bind : {true, false}) {
    auto o = std::make_shared<BindOptions>();
    CLI::App* cmd = app.add_subcommand(bind ? "bind" : "unbind",
                                       bind ? "Bind a voice: ICAO LANGUAGE GENDER VOICE, or --default LANGUAGE GENDER VOICE."
                                            : "Remove a binding: ICAO LANGUAGE GENDER, or --default LANGUAGE GENDER.");
    cmd->add_flag("--default", o->defaults, "the default voice of a language and gender instead of an airline's");
    cmd->add_option("args", o->args, bind ? "[ICAO] LANGUAGE GENDER VOICE" : "[ICAO] LANGUAGE GENDER")->required();
    cmd->callback([o, bind, &common] { changeBinding(*o, bind, common); });
  }

  app.add_subcommand("bindings", "Show the airline bindings and the default voices.")->callback([&common] {
    listBindings(common);
  });
}

}  // namespace kelvo::cli
