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

void addVoices(std::unordered_map<std::string, JaEn>& t) {
  t["这段音频没有数据"] = {"この音声にはデータがありません", "this clip has no audio data"};
  t["参考音频必须附带对应的文字(厂商接口要求 reference_text 必填)"] = {
      "参照音声には書き起こしが必要です(ベンダーの仕様で reference_text は必須です)",
      "a reference clip needs its transcript (the vendor contract makes reference_text mandatory)"};
  t["这段音频不是 WAV、MP3 或 Ogg"] = {"この音声は WAV、MP3、Ogg のいずれでもありません",
                                      "this audio is not WAV, MP3 or Ogg"};
  t["参考音频只有 %d 毫秒,太短了(厂商建议 5-30 秒)"] = {
      "参照音声が %d ミリ秒しかなく短すぎます(ベンダー推奨は 5〜30 秒)",
      "the reference clip is only %d ms, too short (the vendor recommends 5-30 s)"};
  t["无法保存参考音频:%s"] = {"参照音声を保存できません: %s", "cannot save the reference audio: %s"};
  t["克隆至少需要一段参考音频"] = {"クローンには参照音声が 1 つ以上必要です",
                                 "cloning needs at least one reference clip"};
  t["没有这个声音:%s"] = {"その音声はありません: %s", "no such voice: %s"};
  t["这是最后一段参考音频 - 请直接删除整个声音"] = {
      "これが最後の参照音声です - 音声ごと削除してください",
      "this is the last reference clip - delete the whole voice instead"};
  t["未绑定(%s·%s)"] = {"未割り当て(%s·%s)", "unbound (%s·%s)"};
  t["这个语言/性别还没有绑定声音"] = {"この言語/性別にはまだ音声が割り当てられていません",
                                    "no voice is bound to this language/gender yet"};
}

void addSelfTest(std::unordered_map<std::string, JaEn>& t) {
  t["这个版本还没有这个场景"] = {"このビルドにはまだこのシナリオがありません",
                               "this scenario is not available in this build yet"};
}

void addQueue(std::unordered_map<std::string, JaEn>& t) {
  t["合成队列已满(%d 条在排),稍后再试"] = {"合成キューが満杯です(%d 件待ち)。しばらくしてから再試行してください",
                                       "the synthesis queue is full (%d waiting); try again later"};
  t["后端等了 %d ms 仍没有产出音频"] = {"バックエンドは %d ms 待っても音声を生成しませんでした",
                                   "the backend produced no audio after %d ms"};
  t["没有可用的引擎"] = {"使用できるエンジンがありません", "no engine available"};
  t["服务正在关闭,这条请求被丢弃了"] = {"サービスを終了中のため、このリクエストは破棄されました",
                                  "the service is shutting down; this request was dropped"};
}

void addPlaceholder(std::unordered_map<std::string, JaEn>& t) {
  t["占位波形"] = {"プレースホルダー波形", "placeholder waveform"};
  t["bin 里还没有模型;这是可听的假音频,只用来验证链路"] = {
      "bin にまだモデルがありません;これは経路の確認だけに使う、聞こえる疑似音声です",
      "no model under bin yet; this is audible fake audio, only to prove the pipeline works"};
}

void addService(std::unordered_map<std::string, JaEn>& t) {
  t["没有要合成的文字"] = {"合成するテキストがありません", "no text to synthesise"};
  t["文字有 %d 个字,超过了 %d 字的上限"] = {"テキストは %d 文字で、上限の %d 文字を超えています",
                                         "text is %d characters, over the %d limit"};
  t["模型已卸载,这一句缓存里没有。\n要现合成的话,先在「模型」页点「载入模型」。"] = {
      "モデルはアンロードされていて、この文はキャッシュにありません。\n今すぐ合成するには、先に「モデル」ページで「モデルを読み込む」を押してください。",
      "The model is unloaded and this line is not in the cache.\nTo synthesise it now, first click \"Load model\" on the "
      "Models page."};
  t["引擎返回了空音频"] = {"エンジンが空の音声を返しました", "the engine returned empty audio"};
  t["创建默认声音时引擎没有产出音频"] = {"デフォルト音声の作成中、エンジンが音声を生成しませんでした",
                                     "the engine produced no audio while creating the default voice"};
  t["模型首次使用时为自己生成的默认声音"] = {"初回使用時にモデルが自ら生成したデフォルト音声",
                                       "default voice the model generated for itself on first use"};
  t["没有可用的声音:%s 没有绑定任何声音"] = {"使える音声がありません: %s に音声が割り当てられていません",
                                        "no voice available: nothing is bound for %s"};
  t["航空公司 %s · %s · %s"] = {"航空会社 %s · %s · %s", "airline %s · %s · %s"};
  t[";%s 也没有 language=Auto 的兜底"] = {"。%s には language=Auto の予備設定もありません",
                                        "; %s has no language=Auto fallback either"};
  t["。请在「播报」页绑定一个 - 想让这家航空公司用任何语言播报,就把它的语言设为「自动」。"] = {
      "。「放送」ページで割り当ててください - この航空会社をどの言語でも放送させるには、言語を「自動」にしてください。",
      ". Bind one on the Broadcast page - to let this airline speak in any language, set its language to Auto."};
}

}  // namespace

const std::unordered_map<std::string, JaEn>& i18nTable() {
  static const auto table = [] {
    std::unordered_map<std::string, JaEn> t;
    addCore(t);
    addAudio(t);
    addVoices(t);
    addSelfTest(t);
    addQueue(t);
    addPlaceholder(t);
    addService(t);
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
