// `kelvo say` fetches one line from the service (to a file, to the speakers or
// both); `kelvo play` plays an audio file locally without any service.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

#include "KELVOCore/AudioDecode.h"
#include "KELVOCore/Files.h"
#include "KELVOCore/I18n.h"
#include "KELVOCore/Player.h"
#include "KELVOServer/Client.h"
#include "KELVOServer/Commands.h"
#include "KELVOServer/Mistakes.h"

namespace kelvo::cli {

namespace {

struct SayOptions {
  std::string text;
  std::string voice;
  std::string airline;
  std::string language = "auto";
  std::string gender = "default";
  std::string style;
  std::optional<double> speed;
  std::optional<std::int64_t> rate;
  std::string output;
  bool play = false;
};

// Plays to the end (or until the process is interrupted).
void playToEnd(const Bytes& wav) {
  WavPlayer player;
  // The audio was checked before: what fails here is the device.
  if (!player.play(wav, 0)) {
    throw CommandError{exitRefused, TF("无法打开音频设备 %s(用 KELVO_AUDIO_DEVICE 换一个)", WavPlayer::defaultDevice())};
  }
  while (player.isPlaying()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

// A language outside the table is still spoken, but with nothing bound the
// service makes a whole new default voice for it: worth a word when it is a typo.
void warnAboutLanguage(const SayOptions& o) {
  const std::string code = normLang(o.language);
  const std::vector<std::string>& known = commonLanguages();
  if (!o.voice.empty() || code.empty() || std::find(known.begin(), known.end(), code) != known.end()) return;
  std::string warning = TF("%s 不在语言表里;如果没有为它绑定音色,服务会为它新建一个默认音色", code);
  if (const std::string near = nearestName(code, known); !near.empty()) warning += " — " + TF("你是不是想输入 %s?", near);
  std::fprintf(stderr, "%s\n", TF("注意:%s", warning).c_str());
}

void say(const SayOptions& o, const CommonOptions& common) {
  warnAboutLanguage(o);
  ServiceClient client(common.url);
  Json body{{"text", o.text}, {"language", o.language}, {"gender", o.gender}};
  if (!o.voice.empty()) body["voice"] = o.voice;
  if (!o.airline.empty()) body["airline"] = o.airline;
  if (!o.style.empty()) body["style"] = o.style;
  if (o.speed) body["speed"] = *o.speed;
  if (o.rate) body["sample_rate"] = *o.rate;
  const Reply reply = client.call("POST", "/v1/tts", jsonData(body, false));

  if (!o.output.empty()) {
    if (const std::error_code ec = writeFileAtomic(o.output, reply.body)) {
      throw CommandError{exitRefused, TF("无法写入 %s:%s", o.output, ec.message())};
    }
  }
  const Json summary{{"engine", reply.header("x-kelvo-engine")},
                     {"voice", reply.header("x-kelvo-voice")},
                     {"duration_ms", std::atoll(reply.header("x-kelvo-duration-ms").c_str())},
                     {"sample_rate", std::atoll(reply.header("x-kelvo-sample-rate").c_str())},
                     {"cache", reply.header("x-kelvo-cache")},
                     {"etag", reply.header("etag")},
                     {"file", o.output}};
  if (common.json) {
    std::printf("%s\n", jsonString(summary, false).c_str());
  } else {
    // A cached line names no engine: it did not go through one this time.
    const double secondsLong = static_cast<double>(jInt(summary, "duration_ms", 0)) / 1000.0;
    if (jStr(summary, "cache") == "hit") {
      std::printf("%s\n", TF("%s · 音色 %s · %.1f 秒", T("缓存命中"), jStr(summary, "voice"), secondsLong).c_str());
    } else {
      std::printf("%s\n", TF("引擎 %s · 音色 %s · %.1f 秒 · %s", jStr(summary, "engine"), jStr(summary, "voice"),
                            secondsLong, T("新合成"))
                            .c_str());
    }
  }
  if (o.play) playToEnd(reply.body);
}

void play(const std::string& file) {
  const std::optional<Bytes> bytes = readFile(file);
  if (!bytes) throw CommandError{exitRefused, TF("读不到 %s", file)};
  const std::optional<PcmBuffer> pcm = decodeReference(*bytes);
  if (!pcm || pcm->isEmpty()) throw CommandError{exitUsage, TF("%s 不是音频(能播放的是 WAV、MP3 和 Ogg Vorbis)", file)};
  std::printf("%s\n", TF("%s · %.1f 秒", file, static_cast<double>(pcm->durationMs()) / 1000.0).c_str());
  playToEnd(*bytes);
}

}  // namespace

void addSayCommands(CLI::App& app, const CommonOptions& common) {
  auto o = std::make_shared<SayOptions>();
  CLI::App* cmd = app.add_subcommand("say", "Speak one line through the service: save it, play it, or both.");
  cmd->add_option("text", o->text, "the text to speak")->required();
  cmd->add_option("--voice", o->voice, "voice id (default: the bound or default voice)");
  cmd->add_option("--airline", o->airline, "ICAO airline code whose bound voice speaks");
  cmd->add_option("--language", o->language, "language code such as en, zh, ja (default: auto)");
  cmd->add_option("--gender", o->gender, "female, male or default");
  cmd->add_option("--speed", o->speed, "speaking rate 0.5..2.0")->check(CLI::Range(0.5, 2.0));
  cmd->add_option("--style", o->style, "style hint, e.g. calm");
  cmd->add_option("--rate", o->rate, "output sample rate in Hz")->check(CLI::Range(8000, 192000));
  cmd->add_option("-o,--output", o->output, "write the WAV to this file");
  cmd->add_flag("--play", o->play, "play the line on this machine's audio output");
  cmd->callback([o, &common] { say(*o, common); });

  auto file = std::make_shared<std::string>();
  CLI::App* playCmd = app.add_subcommand("play", "Play a WAV, MP3 or Ogg Vorbis file on this machine's audio output (no service needed).");
  playCmd->add_option("file", *file, "the audio file")->required()->check(CLI::ExistingFile);
  playCmd->callback([file] { play(*file); });
}

}  // namespace kelvo::cli
