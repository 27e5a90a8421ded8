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


void addHttpApi(std::unordered_map<std::string, JaEn>& t) {
  // Refusals of the /v1 routes.
  t["%s 不能用在这个路径上"] = {"%s はこのパスでは使えません", "%s is not allowed on this path"};
  t["请求体不是合法的 JSON"] = {"リクエスト本文が正しい JSON ではありません", "request body is not valid JSON"};
  t["没有这个路径:"] = {"そのパスはありません: ", "no such path: "};
  t["超过了每分钟 %d 次请求的上限"] = {"1 分間 %d リクエストの上限を超えました",
                                   "over the limit of %d requests per minute"};
  t["没有这个音色:"] = {"その音声はありません: ", "no such voice: "};
  t["缺少航司(ICAO 三字码)"] = {"航空会社がありません(ICAO 3 レターコード)",
                                "missing airline (ICAO three-letter code)"};
  t["audio 不是合法的 base64"] = {"audio が正しい base64 ではありません", "audio is not valid base64"};
  t["clips 里有一段不是合法的 base64"] = {"clips の中に正しい base64 でないものがあります",
                                      "one entry in clips is not valid base64"};
  t["请至少指定一个航司绑定或音色来导出"] = {"書き出す航空会社の割り当てか音声を 1 つ以上指定してください",
                                          "name at least one airline binding or voice to export"};
  t["clips 里没有可用的音频"] = {"clips に使える音声がありません", "clips contains no usable audio"};
  t["缺少 audio 字段(base64 参考音频),多段请用 clips 数组"] = {
      "audio フィールド(base64 の参照音声)がありません。複数なら clips 配列を使ってください",
      "missing the audio field (base64 reference audio), or use the clips array for several"};
  // The connectivity self-check.
  t["全部通过 - 客户端可以连接。"] = {"すべて合格 - クライアントは接続できます。",
                                   "All checks passed - the client can connect."};
  t["有检查没通过 - 请按上面标出的项目修正。"] = {"不合格の項目があります - 上に示した項目を直してください。",
                                           "Some checks failed - fix the item shown above."};
  t["配置文件"] = {"設定ファイル", "Configuration"};
  t["读不到 %s"] = {"%s を読めません", "cannot read %s"};
  t["%s 不是合法的 JSON"] = {"%s は正しい JSON ではありません", "%s is not valid JSON"};
  t["音色"] = {"音声", "Voice"};
  t["还没有;第一次合成时会自动生成默认音色"] = {"まだありません。最初の合成時にデフォルト音声が自動生成されます",
                                          "none yet; a default voice is generated on the first synthesis"};
  t["引擎"] = {"エンジン", "Engine"};
  t["合成"] = {"合成", "Synthesis"};
  t["%d ms 音频,%s,%s"] = {"%d ms の音声、%s、%s", "%d ms of audio, %s, %s"};
  t["来自缓存"] = {"キャッシュから", "from the cache"};
  t["新合成"] = {"新規合成", "freshly synthesised"};
  t["缓存"] = {"キャッシュ", "Cache"};
  t["缓存目录写不进去:%s"] = {"キャッシュフォルダに書き込めません: %s", "cannot write to the cache folder: %s"};
  t["%lld 条,%lld 字节"] = {"%lld 件、%lld バイト", "%lld lines, %lld bytes"};
}

void addCommandLine(std::unordered_map<std::string, JaEn>& t) {
  // What the `kelvo` operator commands print.
  t["%s 上没有 KELVO 服务在应答 — 请用 `kelvo serve` 启动它"] = {
      "%s で応答する KELVO サービスがありません — `kelvo serve` で起動してください",
      "no KELVO service answers at %s — start it with `kelvo serve`"};
  t["服务返回了 %d"] = {"サービスが %d を返しました", "the service answered %d"};
  t["无法写入 %s:%s"] = {"%s に書き込めません: %s", "cannot write %s: %s"};
  t["无法播放这段音频"] = {"この音声を再生できません", "cannot play this audio"};
  t["引擎 %s · 音色 %s · %.1f 秒 · %s"] = {"エンジン %s · 音声 %s · %.1f 秒 · %s", "engine %s · voice %s · %.1f s · %s"};
  t["缓存命中"] = {"キャッシュヒット", "cache hit"};
  t["%s · %.1f 秒"] = {"%s · %.1f 秒", "%s · %.1f s"};
  t["还没有音色。用 `kelvo voices clone` 克隆一个。"] = {
      "まだ音声がありません。`kelvo voices clone` でクローンしてください。",
      "no voices yet. Clone one with `kelvo voices clone`."};
  t["名称"] = {"名前", "Name"};
  t["语言"] = {"言語", "Language"};
  t["性别"] = {"性別", "Gender"};
  t["片段"] = {"クリップ", "Clips"};
  t["风格"] = {"スタイル", "Style"};
  t["%d 段音频需要 %d 段 --text,现在有 %d 段"] = {"%d 個のクリップには %d 個の --text が必要ですが、%d 個です",
                                              "%d clips need %d --text transcripts; got %d"};
  t["已克隆音色 %s(%s,%d 段)"] = {"音声 %s をクローンしました(%s、%d クリップ)", "cloned voice %s (%s, %d clips)"};
  t["已删除音色 %s 及其绑定"] = {"音声 %s とその割り当てを削除しました", "removed voice %s and its bindings"};
  t["用法: kelvo bind ICAO 语言 性别 音色 | kelvo bind --default 语言 性别 音色"] = {
      "使い方: kelvo bind ICAO 言語 性別 音声 | kelvo bind --default 言語 性別 音声",
      "usage: kelvo bind ICAO LANGUAGE GENDER VOICE | kelvo bind --default LANGUAGE GENDER VOICE"};
  t["用法: kelvo unbind ICAO 语言 性别 | kelvo unbind --default 语言 性别"] = {
      "使い方: kelvo unbind ICAO 言語 性別 | kelvo unbind --default 言語 性別",
      "usage: kelvo unbind ICAO LANGUAGE GENDER | kelvo unbind --default LANGUAGE GENDER"};
  t["%s 已解除绑定"] = {"%s の割り当てを解除しました", "%s unbound"};
  t["航司绑定"] = {"航空会社の割り当て", "Airline bindings"};
  t["航司"] = {"航空会社", "Airline"};
  t["默认音色"] = {"デフォルト音声", "Default voices"};
  t["占位"] = {"プレースホルダー", "placeholder"};
  t["%lld 条,%s,命中率 %.0f%%"] = {"%lld 件、%s、ヒット率 %.0f%%", "%lld lines, %s, hit rate %.0f%%"};
  t["队列"] = {"キュー", "Queue"};
  t["%lld 条等待,%s;预烘焙待办 %lld"] = {"%lld 件待ち、%s、事前生成の残り %lld",
                                         "%lld waiting, %s; pre-bake pending %lld"};
  t["正在合成"] = {"合成中", "synthesising"};
  t["空闲"] = {"待機中", "idle"};
  t["耗时"] = {"所要時間", "Latency"};
  t["请求"] = {"リクエスト", "Requests"};
  t["共 %lld,失败 %lld"] = {"合計 %lld、失敗 %lld", "%lld in all, %lld failed"};
  t["缓存已清空"] = {"キャッシュを空にしました", "cache cleared"};
  t["已排队 %lld 条,%lld 条已在缓存,跳过 %lld 条空行"] = {
      "%lld 件をキューに入れました。%lld 件はキャッシュ済み、空行 %lld 件をスキップ",
      "queued %lld, %lld already cached, %lld empty skipped"};
  t["%lld / %lld · 每分钟 %.1f 条 · 还剩 %s"] = {"%lld / %lld · 毎分 %.1f 件 · 残り %s",
                                              "%lld / %lld · %.1f lines/min · %s left"};
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
    addHttpApi(t);
    addCommandLine(t);
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
