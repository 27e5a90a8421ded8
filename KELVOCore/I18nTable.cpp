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

void addHttp(std::unordered_map<std::string, JaEn>& t) {
  // The three lines of a port that cannot be listened on.
  t["端口 %d 已经被占用了。"] = {"ポート %d は既に使用中です。", "port %d is already in use."};
  t["要么已经有另一个 KELVO 在运行(看看托盘),"] = {"別の KELVO が既に動いているか(トレイを確認してください)、",
                                              "either another KELVO is already running (check the tray),"};
  t["要么被别的程序占用了 - 可以在设置里换一个端口。"] = {
      "別のプログラムが使っています - 設定で別のポートを選べます。",
      "or another program has taken it - you can pick a different port under Settings."};
  // Requests the server refuses before any handler sees them.
  t["请求头超过了 %d KB 的上限"] = {"リクエストヘッダーが上限の %d KB を超えています",
                                 "the request headers are over the %d KB limit"};
  t["请求体超过了 %d MB 的上限"] = {"リクエスト本文が上限の %d MB を超えています",
                                 "the request body is over the %d MB limit"};
  t["无法解析这个 HTTP 请求"] = {"この HTTP リクエストを解析できません", "this HTTP request cannot be parsed"};
  t["服务内部出错:%s"] = {"サービス内部エラー: %s", "internal service error: %s"};
  t["要发送的文件打不开"] = {"送信するファイルを開けません", "the file to be sent cannot be opened"};
}

void addPlaceholder(std::unordered_map<std::string, JaEn>& t) {
  t["占位波形"] = {"プレースホルダー波形", "placeholder waveform"};
  t["bin 里还没有模型;这是可听的假音频,只用来验证链路"] = {
      "bin にまだモデルがありません;これは経路の確認だけに使う、聞こえる疑似音声です",
      "no model under bin yet; this is audible fake audio, only to prove the pipeline works"};
}

void addClonePack(std::unordered_map<std::string, JaEn>& t) {
  t["%d 个声音(%d 个新增,%d 个复用)· %d 段音频 · %d 个绑定 · %.1f MB"] = {
      "音声 %d 件(新規 %d、再利用 %d)· クリップ %d 件 · 割り当て %d 件 · %.1f MB",
      "%d voice(s) (%d new, %d reused) · %d clip(s) · %d binding(s) · %.1f MB"};
  // Export.
  t["没有绑定 %s,已略过"] = {"割り当て %s はないため、省きました", "there is no binding %s; it was left out"};
  t["声音 %s 已不存在(绑定 %s 引用了它),没有放进包里"] = {
      "音声 %s(割り当て %s が参照)はもう存在しないため、パックに含めませんでした",
      "the voice %s referenced by binding %s no longer exists and was left out"};
  t["%s 缺少一段参考音频(%s),没有放进包里"] = {"%s の参照音声(%s)が見つからないため、パックに含めていません",
                                            "%s is missing a reference clip (%s); it is not in the pack"};
  t["这个声音包超出了 zip 的限制(单个文件 64 MB、合计 512 MB、65535 个文件),请少选几个声音"] = {
      "このパックは zip の上限(1 ファイル 64 MB、合計 512 MB、65535 ファイル)を超えます。音声を減らしてください",
      "this pack would break the zip limits (64 MB per file, 512 MB in all, 65535 files); choose fewer voices"};
  t["无法写入声音包:%s"] = {"パックを書き込めません: %s", "cannot write the pack: %s"};
  // Import: the refusals of a whole pack.
  t["无法打开这个文件(%s)。.cln 是一个 zip 包 - 是不是选错了文件?"] = {
      "このファイルを開けません(%s)。.cln は zip パッケージです - ファイルを間違えていませんか?",
      "cannot open this file (%s). A .cln is a zip package - did you pick the wrong file?"};
  t["包里没有 %s - 这不是 KELVO 克隆包。"] = {"パックに %s がありません - KELVO のクローンパックではありません。",
                                          "the pack has no %s - this is not an KELVO clone pack."};
  t["包里的 %s 已损坏,无法读取。"] = {"パック内の %s は壊れていて読み取れません。",
                                  "%s inside the pack is corrupt and cannot be read."};
  t["这不是 KELVO 克隆包(格式不符)。"] = {"KELVO のクローンパックではありません(形式が一致しません)。",
                                      "this is not an KELVO clone pack (format does not match)."};
  // Import: notes on single voices and bindings.
  t["“%s”缺少一段音频(%s),已跳过这一段"] = {"「%s」のクリップ(%s)が見つからないため、そのクリップはスキップしました",
                                        "\"%s\" is missing a clip (%s); that clip was skipped"};
  t["“%s”完全没有音频,无法导入"] = {"「%s」には音声がまったくないため、インポートできません",
                                  "\"%s\" has no audio at all and cannot be imported"};
  t["“%s”已经存在,没有重复导入"] = {"「%s」はすでに存在するため、再インポートしませんでした",
                                  "\"%s\" already exists, so it was not imported again"};
  t["导入“%s”失败:%s"] = {"「%s」のインポートに失敗しました: %s", "failed to import \"%s\": %s"};
  t["“%s”不是有效的绑定键,已略过"] = {"「%s」は有効な割り当てキーではないため、省きました",
                                   "\"%s\" is not a valid binding key; it was dropped"};
  t["绑定 %s 指向的声音没有导入,已略过这个绑定"] = {
      "割り当て %s の音声がインポートされなかったため、この割り当ては省きました",
      "binding %s points at a voice that was not imported; it was dropped"};
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
    addClonePack(t);
    addHttp(t);
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
