#include "KELVOCore/I18nTable.h"

namespace kelvo {

namespace {

// Each block belongs to one concern of the code base; when a module gains a
// message for people, its Chinese key, Japanese and English forms go here.
void addCore(std::unordered_map<std::string, JaEn>& t) {
  // Genders, speed modes, compute back-ends, language picker.
  t["默认"] = {"デフォルト", "Default"};
  t["女声"] = {"女性の声", "Female"};
  t["男声"] = {"男性の声", "Male"};
  t["自动"] = {"自動", "Auto"};
  t["引擎原生 speed"] = {"エンジン本来の speed", "Engine-native speed"};
  t["本地变速不变调(WSOLA)"] = {"ローカル速度変更・ピッチ維持(WSOLA)", "Local time-stretch, pitch kept (WSOLA)"};
  t["本地重采样(变速也变调)"] = {"ローカル再サンプリング(速度とピッチが変化)",
                                "Local resampling (speed and pitch change)"};
  t["自动(有 Apple GPU 就用 Metal)"] = {"自動(Apple GPU があれば Metal)", "Auto (Metal when an Apple GPU is present)"};
  t["CPU(任何机器都能跑,最慢)"] = {"CPU(どのマシンでも動作、最も遅い)", "CPU (runs anywhere, slowest)"};
  t["Metal(Apple 芯片 GPU)"] = {"Metal(Apple シリコン GPU)", "Metal (Apple silicon GPU)"};
  t["本地 s2.cpp · %s · temp %.2f / top_p %.2f / top_k %d"] = {
      "ローカル s2.cpp · %s · temp %.2f / top_p %.2f / top_k %d",
      "local s2.cpp · %s · temp %.2f / top_p %.2f / top_k %d"};
  t["简体中文"] = {"简体中文", "简体中文"};
  t["日本語"] = {"日本語", "日本語"};
  t["English"] = {"English", "English"};
  t["跟随系统"] = {"システムに従う", "Follow the system"};
}

void addAudio(std::unordered_map<std::string, JaEn>& t) {
  // Why an Ogg reference clip was refused.
  t["kelvo_audio.dll 不在程序旁边,无法解码 ogg - "] = {
      "kelvo_audio.dll がアプリの隣にないため、ogg をデコードできません - ",
      "kelvo_audio.dll is not next to the app, so ogg cannot be decoded - "};
  t["引擎也不接受 ogg;请改用 WAV 或 MP3。"] = {"エンジンも ogg を受け付けません。WAV か MP3 を使ってください。",
                                            "the engine does not accept ogg either; please use WAV or MP3."};
  t["这不是 ogg 文件。"] = {"これは ogg ファイルではありません。", "this is not an ogg file."};
  t["这是 .ogg 里的 Opus。Opus 和 Vorbis 是两种不同的编码,这里只支持 Vorbis;"] = {
      "これは .ogg に入った Opus です。Opus と Vorbis は別のコーデックで、ここでは Vorbis のみ対応しています。",
      "this is Opus inside .ogg. Opus and Vorbis are different codecs and only Vorbis is supported here;"};
  t["请用其他工具转成 WAV / MP3 / Ogg Vorbis 后再试。"] = {
      "別のツールで WAV / MP3 / Ogg Vorbis に変換してから、もう一度お試しください。",
      "convert it to WAV / MP3 / Ogg Vorbis with another tool and try again."};
  t["无法解码这个 ogg(文件可能不完整或已损坏)。"] = {
      "この ogg をデコードできません(ファイルが途中で切れているか、壊れている可能性があります)。",
      "cannot decode the ogg (the file may be truncated or corrupt)."};
}

void addSelfTest(std::unordered_map<std::string, JaEn>& t) {
  t["这个版本还没有这个场景"] = {"このビルドにはまだこのシナリオがありません",
                               "this scenario is not available in this build yet"};
}

}  // namespace

const std::unordered_map<std::string, JaEn>& i18nTable() {
  static const auto table = [] {
    std::unordered_map<std::string, JaEn> t;
    addCore(t);
    addAudio(t);
    addSelfTest(t);
    return t;
  }();
  return table;
}

const std::unordered_map<std::string, JaEn>& macExtra() {
  static const std::unordered_map<std::string, JaEn> table;
  return table;
}

const std::unordered_map<std::string, ZhJaEn>& macOverrides() {
  static const std::unordered_map<std::string, ZhJaEn> table;
  return table;
}

}  // namespace kelvo
