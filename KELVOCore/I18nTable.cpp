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
  // Clips that cannot be used, and what a clone accepts with a doubt.
  t["无法解码这段 %s 参考音频,这个声音将无法使用。%s"] = {
      "この %s の参照音声はデコードできないため、この音声は使えません。%s",
      "cannot decode this %s reference clip, so the voice could not speak. %s"};
  t["无法解码这段 %s 音频,时长未知;原样交给引擎,也不能和其他片段合并"] = {
      "この %s 音声はデコードできず、長さが分かりません。そのままエンジンに渡し、他のクリップとは結合できません",
      "cannot decode this %s clip; its length is unknown, the engine gets it as it is, and it cannot be merged with "
      "other clips"};
  t["参考音频只有 %.1f 秒;建议 5-30 秒,克隆出来的声音可能不稳定"] = {
      "参照音声は %.1f 秒しかありません。5〜30 秒を推奨します。クローンした音声が不安定になることがあります",
      "the reference clip is only %.1f s; 5-30 s is recommended, the cloned voice may be unstable"};
  t["参考音频有 %.0f 秒,超过了引擎接受的 30 秒;多出的部分会被截掉"] = {
      "参照音声は %.0f 秒あり、エンジンが受け付ける 30 秒を超えています。超えた部分は切り捨てられます",
      "the reference clip is %.0f s, over the 30 s the engine takes; the rest will be cut off"};
  t["%.1f 秒的音频只配了 %d 个字的文字;文字应当与片段里说的话一字不差,否则克隆的声音会含糊或漏字"] = {
      "%.1f 秒の音声に書き起こしが %d 文字しかありません。書き起こしはクリップの発話と一字一句同じにしてください。"
      "そうでないとクローンした音声が不明瞭になったり、語が抜けたりします",
      "%.1f s of audio has a transcript of only %d characters; it should be exactly what the clip says, or the "
      "cloned voice will mumble or skip words"};
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
  t["%s 里还没有模型;这是可听的假音频,只用来验证链路"] = {
      "%s にまだモデルがありません;これは経路の確認だけに使う、聞こえる疑似音声です",
      "no model in %s yet; this is audible fake audio, only to prove the pipeline works"};
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

void addHttp(std::unordered_map<std::string, JaEn>& t) {
  // The three lines of a port that cannot be listened on.
  t["端口 %d 已经被占用了。"] = {"ポート %d は既に使用中です。", "port %d is already in use."};
  t["要么已经有另一个 KELVO 在运行(看看托盘),"] = {"別の KELVO が既に動いているか(トレイを確認してください)、",
                                              "either another KELVO is already running (check the tray),"};
  // A bind address that is not on this machine.
  t["%s 不是这台机器的地址,KELVO 无法在上面监听。"] = {"%s はこのマシンのアドレスではないため、KELVO はそこで待ち受けできません。",
                                                "%s is not an address of this machine, so KELVO cannot listen on it."};
  t["请改用 0.0.0.0(所有地址)或 `ip -brief address` 列出的地址:`kelvo serve --bind`,或 config.json 里 \"server\" 的 \"bind\"。"] = {
      "0.0.0.0(すべてのアドレス)か `ip -brief address` に出るアドレスを使ってください: `kelvo serve --bind`、"
      "または config.json の \"server\" の \"bind\"。",
      "Use 0.0.0.0 (every address) or one that `ip -brief address` lists: `kelvo serve --bind`, or \"bind\" under \"server\" in "
      "config.json."};
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
  t["请求体无法暂存:%s"] = {"リクエスト本文を一時保存できません: %s", "the request body cannot be stored: %s"};
  t["缓存文件读不出来"] = {"キャッシュの音声ファイルを読み出せません", "the cached clip cannot be read"};
}

void addEngine(std::unordered_map<std::string, JaEn>& t) {
  // Life of the inference process.
  t["已停止"] = {"停止しました", "stopped"};
  t["模型已卸载,内存已释放"] = {"モデルをアンロードし、メモリを解放しました", "model unloaded, memory released"};
  t["%s 里缺少 %s"] = {"%s に %s がありません", "%s lacks %s"};
  t["正在载入模型…"] = {"モデルを読み込んでいます…", "loading the model…"};
  t["端口 %d..%d 全被占用了 — 推理进程没地方放"] = {"ポート %d..%d はすべて使用中です — 推論プロセスを置く場所がありません",
                                              "ports %d..%d are all taken — nowhere to put the inference process"};
  t["无法启动推理进程:%s(%s)"] = {"推論プロセスを起動できません: %s(%s)", "could not start the inference process: %s (%s)"};
  t["模型过了 %d 秒还没载入完 — 看 %s"] = {"%d 秒たってもモデルの読み込みが終わりません — %s を見てください",
                                       "the model still is not loaded after %d s — see %s"};
  t["%s,端口 %d,载入用了 %.1f 秒"] = {"%s、ポート %d、読み込み %.1f 秒", "%s, port %d, loaded in %.1f s"};
  t["推理进程退出了(信号 %d):%s,日志 %s"] = {"推論プロセスが終了しました(シグナル %d): %s、ログ %s",
                                         "the inference process exited (signal %d): %s, log %s"};
  t["这台电脑的 CPU 不支持引擎用到的指令集(非法指令)。换一个计算后端,或者换一台较新的机器。"] = {
      "この PC の CPU はエンジンが使う命令セットに対応していません(不正命令)。別の計算バックエンドを選ぶか、新しいマシンを使ってください。",
      "this PC's CPU does not support an instruction set the engine uses (illegal instruction). Pick a different "
      "compute backend, or use a newer machine."};
  t["引擎主动中止了(多半是某个算子这个后端没实现)。看引擎日志的最后几行。"] = {
      "エンジンが自ら中断しました(このバックエンドに未実装の演算子がある可能性が高いです)。エンジンログの最後の数行を見てください。",
      "the engine aborted itself (most likely an operator this back-end does not implement). Read the last lines "
      "of the engine log."};
  t["内存不够,引擎起不来。"] = {"メモリが足りず、エンジンを起動できません。", "not enough memory to start the engine."};
  t["引擎发生了访问冲突(模型文件可能已损坏)。"] = {"エンジンでアクセス違反が起きました(モデルファイルが壊れている可能性があります)。",
                                            "the engine hit an access violation (the model file may be corrupt)."};
  t["(空)"] = {"(なし)", "(none)"};
  t["推理进程反复退出(%d 次),已停止自动重启 - 看 %s"] = {
      "推論プロセスが繰り返し終了しました(%d 回)。自動再起動を止めました - %s を見てください",
      "the inference process keeps exiting (%d times); auto-restart stopped - see %s"};
  t["推理进程不见了 — 第 %d 次重启尝试…"] = {"推論プロセスが消えました — 再起動 %d 回目…",
                                        "the inference process vanished — restart attempt %d…"};
  t["端口 %d 被另一个程序占着(不是推理进程),继续等推理进程…"] = {
      "ポート %d は別のプログラムが使っています(推論プロセスではありません)。推論プロセスを待ち続けます…",
      "another program holds port %d (not the inference process); still waiting for the inference process…"};
  t["另一个程序占着端口 %d,推理进程没法在上面监听"] = {
      "別のプログラムがポート %d を使っているため、推論プロセスはそこで待ち受けできません",
      "another program holds port %d, so the inference process could not listen on it"};
  // One synthesis call.
  t["没有要合成的文字"] = {"合成するテキストがありません", "no text to synthesise"};
  t["引擎不完整:%s 里缺少 %s"] = {"エンジンが不完全です: %s に %s がありません",
                                 "the engine is incomplete: %s lacks %s"};
  t["模型还在载入(已经 %.0f 秒),请稍后再试"] = {"モデルはまだ読み込み中です(%.0f 秒経過)。少し待ってから再試行してください",
                                           "the model is still loading (%.0f s so far), try again shortly"};
  t["模型已卸载,这一句缓存里没有。\n要现合成的话,先在「模型」页点「载入模型」。"] = {
      "モデルはアンロード済みで、この文はキャッシュにありません。\n今すぐ合成するには、「モデル」ページで「モデルを読み込む」を押してください。",
      "The model is unloaded and this line is not in the cache.\nTo synthesize it now, hit Load model on the Service page."};
  t["推理进程不见了 — 正在重启…"] = {"推論プロセスが消えました — 再起動中…", "the inference process is gone — restarting…"};
  t["推理进程不见了(崩溃或被杀掉了);它正在自动重启,请稍后再试。"] = {
      "推論プロセスが消えました(クラッシュしたか、強制終了されました)。自動で再起動中です。少し待ってから再試行してください。",
      "the inference process is gone (crashed or killed); it is restarting automatically, try again shortly."};
  t["和推理进程通信失败:%s(日志 %s)"] = {"推論プロセスとの通信に失敗しました: %s(ログ %s)",
                                     "failed to talk to the inference process: %s (log %s)"};
  t["推理进程返回的 %d 字节不是可识别的 WAV"] = {"推論プロセスが返した %d バイトは認識できる WAV ではありません",
                                          "the %d bytes returned by the inference process are not a recognisable WAV"};
  t["引擎还在忙 — 它一次只合成一句,上一句还没合成完。"] = {
      "エンジンはまだ処理中です — 一度に 1 文ずつ合成するため、前の文がまだ終わっていません。",
      "The engine is still busy — it synthesizes one line at a time, and the previous one has not finished."};
  t["等它合成完再试,或者在设置里调高合成超时。"] = {"終わるのを待って再試行するか、設定で合成タイムアウトを長くしてください。",
                                            "Wait for it to finish and try again, or raise the synthesis timeout in Settings."};
  t["推理进程返回了 %d:%s"] = {"推論プロセスが %d を返しました: %s", "the inference process returned %d: %s"};
  // GPU detection.
  t["没有找到可用的显卡"] = {"使用できる GPU が見つかりません", "no usable GPU found"};
}

void addService(std::unordered_map<std::string, JaEn>& t) {
  t["文字有 %d 个字,超过了 %d 字的上限"] = {"テキストは %d 文字で、上限の %d 文字を超えています",
                                         "text is %d characters, over the %d limit"};
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

void addHttpApi(std::unordered_map<std::string, JaEn>& t) {
  // Refusals of the /v1 routes.
  t["%s 不能用在这个路径上"] = {"%s はこのパスでは使えません", "%s is not allowed on this path"};
  t["请求体不是合法的 JSON"] = {"リクエスト本文が正しい JSON ではありません", "request body is not valid JSON"};
  t["没有这个路径:"] = {"そのパスはありません: ", "no such path: "};
  t["这个音色没有这段参考音频:"] = {"この音声にその参照音声はありません: ", "this voice has no such reference clip: "};
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

void addAudioOut(std::unordered_map<std::string, JaEn>& t) {
  // Compressed audio and the OpenAI-compatible speech route.
  t["没有这种音频格式:%s。可用的格式:%s"] = {"その音声形式はありません: %s。使える形式: %s",
                                       "no audio format \"%s\"; the formats are %s"};
  t["speed 必须在 %.2f 到 %.1f 之间"] = {"speed は %.2f から %.1f の間で指定してください",
                                    "speed must be between %.2f and %.1f"};
  t["无法把音频编码为 %s"] = {"音声を %s にエンコードできませんでした", "could not encode the audio as %s"};
}

void addCommandLine(std::unordered_map<std::string, JaEn>& t) {
  // What the `kelvo` operator commands print.
  t["服务返回了 %d"] = {"サービスが %d を返しました", "the service answered %d"};
  t["无法写入 %s:%s"] = {"%s に書き込めません: %s", "cannot write %s: %s"};
  t["无法打开音频设备 %s(用 KELVO_AUDIO_DEVICE 换一个)"] = {
      "オーディオデバイス %s を開けません(KELVO_AUDIO_DEVICE で別のものを選べます)",
      "cannot open the audio device %s (KELVO_AUDIO_DEVICE picks another)"};
  t["%s 不是音频(能播放的是 WAV、MP3 和 Ogg Vorbis)"] = {"%s は音声ではありません(再生できるのは WAV、MP3、Ogg Vorbis)",
                                                   "%s is not audio (kelvo play plays WAV, MP3 and Ogg Vorbis)"};
  t["%s · 音色 %s · %.1f 秒"] = {"%s · 音声 %s · %.1f 秒", "%s · voice %s · %.1f s"};
  t["%s 不在语言表里;如果没有为它绑定音色,服务会为它新建一个默认音色"] = {
      "%s は言語表にありません。音声が割り当てられていなければ、サービスはこの言語用に新しいデフォルト音声を作ります",
      "%s is not in the language table; unless a voice is bound to it, the service will create a new default voice "
      "for it"};
  t["注意:%s"] = {"注意: %s", "warning: %s"};
  t["未知选项 %s"] = {"不明なオプション %s", "unknown option %s"};
  t["未知命令 %s"] = {"不明なコマンド %s", "unknown command %s"};
  t["缺少命令,可以用:%s"] = {"コマンドがありません。使えるのは: %s", "a command is needed, one of: %s"};
  t["你是不是想输入 %s?"] = {"%s のことですか?", "did you mean %s?"};
  t["用 `%s --help` 查看用法。"] = {"使い方は `%s --help` で確認できます。", "see `%s --help` for usage."};
  t["已写入 %s:%lld 个声音,%lld 段音频,%lld 个绑定,%lld 字节"] = {
      "%s に書き出しました: 音声 %lld 件、クリップ %lld 件、割り当て %lld 件、%lld バイト",
      "wrote %s: %lld voice(s), %lld clip(s), %lld binding(s), %lld bytes"};
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
  t["%lld 条等待,%s"] = {"%lld 件待ち、%s", "%lld waiting, %s"};
  t["预烘焙中 %lld"] = {"事前生成中 %lld", "pre-baking %lld"};
  t[";预烘焙失败 %lld(最近一次:%s)"] = {"、事前生成の失敗 %lld(直近: %s)", "; pre-bake failures: %lld (last: %s)"};
  t["删除全部 %lld 条缓存(%s)?[y/N]"] = {"キャッシュ %lld 件(%s)をすべて削除しますか? [y/N]",
                                         "delete all %lld cached lines (%s)? [y/N]"};
  t["缓存没有动"] = {"キャッシュはそのままです", "the cache was left as it is"};
  t["正在合成"] = {"合成中", "synthesising"};
  t["空闲"] = {"待機中", "idle"};
  t["耗时"] = {"所要時間", "Latency"};
  t["请求"] = {"リクエスト", "Requests"};
  t["共 %lld,失败 %lld"] = {"合計 %lld、失敗 %lld", "%lld in all, %lld failed"};
  t["缓存已清空"] = {"キャッシュを空にしました", "cache cleared"};
  t["已排队 %lld 条,%lld 条已在缓存,跳过 %lld 条空行"] = {
      "%lld 件をキューに入れました。%lld 件はキャッシュ済み、空行 %lld 件をスキップ",
      "queued %lld, %lld already cached, %lld empty skipped"};
  t["在后台继续;`kelvo status` 显示进度,DELETE /v1/prewarm 可以取消"] = {
      "バックグラウンドで続けます。進捗は `kelvo status`、取り消しは DELETE /v1/prewarm",
      "continuing in the background; `kelvo status` shows the progress, DELETE /v1/prewarm cancels it"};
  t["✗ %s:%s"] = {"✗ %s: %s", "✗ %s: %s"};
  t["已取消预烘焙:丢弃了 %lld 条还在等待的"] = {"事前生成を取り消しました: 待機中の %lld 件を破棄しました",
                                         "pre-bake cancelled: %lld waiting lines dropped"};
  t["还有 %lld 条失败没有列出 — 看 `kelvo log`"] = {"ほかに %lld 件の失敗があります — `kelvo log` を見てください",
                                            "%lld more failed lines are not listed — see `kelvo log`"};
  t["%lld 条没能预烘焙(共 %lld 条)"] = {"%lld 件を事前生成できませんでした(全 %lld 件中)",
                                      "%lld lines could not be pre-baked (of %lld)"};
  t["%lld / %lld · 每分钟 %.1f 条 · 还剩 %s"] = {"%lld / %lld · 毎分 %.1f 件 · 残り %s",
                                              "%lld / %lld · %.1f lines/min · %s left"};
}

void addDataRoot(std::unordered_map<std::string, JaEn>& t) {
  // Who owns a data root, and how the command line finds its service.
  t["%s 上没有 KELVO 服务在应答 — 请检查 --url / KELVO_URL,或用 `kelvo serve` 启动它"] = {
      "%s で応答する KELVO サービスがありません — --url / KELVO_URL を確認するか、`kelvo serve` で起動してください",
      "no KELVO service answers at %s — check --url / KELVO_URL, or start one with `kelvo serve`"};
  t["%s 上没有 KELVO 服务在应答,数据目录 %s 也没有正在运行的服务 — 请用 `kelvo serve` 启动它,或者用 --url / KELVO_URL 指定另一个服务"] = {
      "%s で応答する KELVO サービスがなく、データフォルダ %s で動いているサービスもありません — `kelvo serve` で起動するか、--url / KELVO_URL で別のサービスを指定してください",
      "no KELVO service answers at %s, and none runs on the data root %s — start one with `kelvo serve`, or name "
      "another with --url / KELVO_URL"};
  t["%s 上没有 KELVO 服务在应答,但数据目录 %s 的服务(pid %d)登记的正是这个地址 — 看看它的日志,或者用 --url / KELVO_URL 指定另一个服务"] = {
      "%s で応答する KELVO サービスがありません。データフォルダ %s のサービス(pid %d)が登録したのはこのアドレスです — そのログを確認するか、--url / KELVO_URL で別のサービスを指定してください",
      "no KELVO service answers at %s, although the service of the data root %s (pid %d) registered that address — "
      "see its log, or name another with --url / KELVO_URL"};
  t["无法锁定数据目录 %s:%s"] = {"データフォルダ %s をロックできません: %s", "cannot lock the data root %s: %s"};
  t["数据目录 %s 正被另一个 KELVO 进程(pid %d)使用"] = {"データフォルダ %s は別の KELVO プロセス(pid %d)が使用中です",
                                                   "the data root %s is in use by another KELVO process (pid %d)"};
  t["数据目录 %s 正被另一个 KELVO 进程使用"] = {"データフォルダ %s は別の KELVO プロセスが使用中です",
                                             "the data root %s is in use by another KELVO process"};
  t["先停掉它,或者用 KELVO_HOME 给这个服务另一个数据目录"] = {
      "先にそちらを止めるか、KELVO_HOME でこのサービスに別のデータフォルダを指定してください",
      "stop that one first, or give this service a data root of its own with KELVO_HOME"};
  t["服务运行时模型由它独占;先停掉服务,再运行这条命令"] = {
      "サービスの実行中はモデルをサービスが占有しています。サービスを止めてから、このコマンドを実行してください",
      "while a service runs, the models are its own; stop the service, then run this command again"};
}

void addOnline(std::unordered_map<std::string, JaEn>& t) {
  // Model downloader.
  t["服务器发来的是网页而不是模型 — 请检查网络,或者切换镜像"] = {
      "サーバーがモデルではなくウェブページを返しました — ネットワークを確認するか、ミラーを切り替えてください",
      "the server sent a web page instead of the model — check the network or switch the mirror"};
  t["%s 所在的磁盘空间不够:还剩 %.1f GB,需要 %.1f GB(没下完的部分,再留 %.1f GB 余量)"] = {
      "%s のディスク容量が足りません: 空き %.1f GB、必要 %.1f GB(残りのダウンロード分に加えて余裕 %.1f GB)",
      "not enough free disk space in %s: %.1f GB free, %.1f GB needed (the rest of the download plus %.1f GB to "
      "spare)"};
  t["服务器对 %s 的回答是 HTTP %d — 请检查下载地址(%s)"] = {
      "%s に対するサーバーの応答は HTTP %d でした — ダウンロード先のアドレスを確認してください(%s)",
      "for %s the server answered HTTP %d — check the download address (%s)"};
  t["%s 连续 %d 次下载失败(%s)— 请检查网络或者切换镜像;已经收到的部分保留着,下次会接着下载"] = {
      "%s のダウンロードが %d 回続けて失敗しました(%s)— ネットワークを確認するか、ミラーを切り替えてください。"
      "受信済みの部分は残してあり、次回はその続きからダウンロードします",
      "the download of %s failed %d times in a row (%s) — check the network or switch the mirror; what has arrived "
      "is kept and the next run resumes it"};
  t["已取消;已经收到的部分保留着,下次会接着下载"] = {
      "キャンセルしました。受信済みの部分は残してあり、次回はその続きからダウンロードします",
      "cancelled; what has arrived is kept and the next run resumes it"};
  t["%s 已经就位;正在运行的服务会在下次启动引擎时用上它"] = {
      "%s を配置しました。実行中のサービスは次にエンジンを起動するときに使います",
      "%s is in place; a running service picks it up on its next engine start"};
  t["%s 已经装好了"] = {"%s はインストール済みです", "%s is already installed"};
  t["%g 秒没有收到数据"] = {"%g 秒間データが届きませんでした", "no data for %g s"};
  t["大小和服务器说的不一致"] = {"サイズがサーバーの示した値と一致しません", "the size does not match the server's"};
  t["服务器给的片段和请求的对不上"] = {"サーバーが返した範囲が要求と一致しません",
                                "the server sent another range than the one asked for"};
  // Update check.
  t["这个版本没有配置发布源"] = {"このビルドにはリリースフィードが設定されていません",
                            "this build has no release feed configured"};
  t["设置 KELVO_RELEASES_URL 指向项目的发布页"] = {"KELVO_RELEASES_URL にプロジェクトのリリースページを設定してください",
                                            "set KELVO_RELEASES_URL to the project's releases page"};
  t["读不到发布列表(%s),也读不到它的 Atom 源(%s)— 请检查网络或 KELVO_RELEASES_URL"] = {
      "リリース一覧(%s)も Atom フィード(%s)も読めませんでした — ネットワークか KELVO_RELEASES_URL を確認してください",
      "cannot read the release list (%s) nor its Atom feed (%s) — check the network or KELVO_RELEASES_URL"};
  t["回答的内容读不懂"] = {"応答の内容を読み取れません", "the answer cannot be read"};
  t["发布源里还没有正式版本"] = {"フィードにはまだ正式リリースがありません", "the feed lists no release yet"};
  t["有新版本:%s(%s)"] = {"新しいバージョンがあります: %s(%s)", "a newer version is out: %s (%s)"};
  t["已经是最新版本(%s)"] = {"最新バージョンです(%s)", "up to date (%s)"};
  // Sharing hub, client side.
  t["连不上共享中心(%s)— 请检查网络或 KELVO_HUB_URL"] = {
      "共有ハブに接続できません(%s)— ネットワークか KELVO_HUB_URL を確認してください",
      "cannot reach the sharing hub (%s) — check the network or KELVO_HUB_URL"};
  t["删除密钥不对:这个共享不是从这里发布的"] = {"削除キーが違います: この共有はここから公開されたものではありません",
                                       "the delete key does not match: this share was not made from here"};
  t["共享中心里没有这个共享(可能已经被删除)"] = {"共有ハブにこの共有はありません(削除された可能性があります)",
                                          "the hub has no such share (it may have been taken down)"};
  t["共享中心最多收 %d MB 的包"] = {"共有ハブが受け付けるパックは %d MB までです", "the hub takes packs of at most %d MB"};
  t["共享中心每小时最多接收同一地址的 %d 次上传,请稍后再试"] = {
      "共有ハブは同じアドレスからのアップロードを 1 時間に %d 回までしか受け付けません。しばらくしてから再試行してください",
      "the hub takes at most %d uploads an hour from one address; try again later"};
  t["共享中心嫌这个包太大,不肯收"] = {"共有ハブはこのパックを大きすぎるとして受け付けませんでした",
                                "the hub refused the pack as too large"};
  t["共享中心回答了 HTTP %d"] = {"共有ハブの応答は HTTP %d でした", "the hub answered HTTP %d"};
  t["共享中心拒绝了:%s"] = {"共有ハブに拒否されました: %s", "the hub refused: %s"};
  t["共享中心的回答读不懂"] = {"共有ハブの応答を読み取れません", "the hub's answer cannot be read"};
  t["这个包有 %.1f MB,共享中心最多收 %d MB — 少选几个声音或绑定再试"] = {
      "このパックは %.1f MB ですが、共有ハブは %d MB までです — 音声や割り当てを減らしてもう一度どうぞ",
      "this pack is %.1f MB and the hub takes at most %d MB — choose fewer voices or bindings and try again"};
  t["没有可以共享的声音:选中的绑定和声音都是空的"] = {
      "共有できる音声がありません: 選んだ割り当てと音声はどれも空です",
      "there is nothing to share: the chosen bindings and voices hold no voice"};
  t["这里没有共享 %s 的删除密钥:只有发布它的那台机器才能撤下它"] = {
      "ここには共有 %s の削除キーがありません: 取り下げられるのは公開したマシンだけです",
      "there is no delete key for share %s here: only the machine that shared it can take it down"};
  // Sharing hub, server side.
  t["共享中心没有“%s”这个操作(可用:list、upload、delete)"] = {
      "共有ハブに「%s」という操作はありません(使えるのは list、upload、delete)",
      "the hub has no action \"%s\" (there are list, upload, delete)"};
  t["上传需要一个 multipart 表单,其中的文件字段叫 pack"] = {
      "アップロードには、ファイル項目 pack を含む multipart フォームが必要です",
      "an upload needs a multipart form with the file field pack"};
  t["共享需要一个标题,每个文字字段最多 %d 字节"] = {"共有にはタイトルが必要で、各テキスト項目は最大 %d バイトです",
                                         "a share needs a title, and each text field holds at most %d bytes"};
  t["包里没有可读的 %s - 这不是 KELVO 克隆包。"] = {
      "パックに読み取れる %s がありません - KELVO のクローンパックではありません。",
      "the pack has no readable %s - this is not an KELVO clone pack."};
  t["包里没有一个带音频的声音,不能共享"] = {"パックに音声付きのボイスが一つもないため、共有できません",
                                    "the pack holds no voice with audio, so it cannot be shared"};
  t["共享中心存不下这个包:%s"] = {"共有ハブにこのパックを保存できません: %s", "the hub cannot store this pack: %s"};
  t["删除需要 id 和 delete_key 两个字段"] = {"削除には id と delete_key の二つの項目が必要です",
                                        "a deletion needs the two fields id and delete_key"};
  // Self-test scenarios.
  t["这个版本没有配置共享中心 — 设置 KELVO_HUB_URL 指向共享中心的地址"] = {
      "このビルドには共有ハブが設定されていません — KELVO_HUB_URL に共有ハブのアドレスを設定してください",
      "this build has no sharing hub configured — set KELVO_HUB_URL to the hub's address"};
  t["%s 上有 %d 个共享"] = {"%s に共有が %d 件あります", "%s lists %d share(s)"};
  t["共享中心上还没有任何共享,没有可以下载的包"] = {"共有ハブにはまだ共有がなく、ダウンロードできるパックがありません",
                                           "the hub lists no share yet, so there is no pack to download"};
  t["无法创建临时目录"] = {"一時フォルダーを作成できません", "cannot create a temporary folder"};
}

void addOnlineCommands(std::unordered_map<std::string, JaEn>& t) {
  // What `kelvo models`, `kelvo update` and `kelvo hub` print.
  t["没有 %s 这个模型版本(可选:%s)"] = {"%s というモデルのバージョンはありません(選べるのは %s)",
                                   "there is no model variant %s (choose one of %s)"};
  t["版本"] = {"バージョン", "Variant"};
  t["文件"] = {"ファイル", "File"};
  t["大小"] = {"サイズ", "Size"};
  t["状态"] = {"状態", "State"};
  t["已安装"] = {"インストール済み", "installed"};
  t["已安装(缺 %s)"] = {"インストール済み(%s がありません)", "installed (%s missing)"};
  t["部分 %d %%"] = {"一部 %d %%", "partial %d %%"};
  t["缺失"] = {"なし", "missing"};
  t["还剩 %s"] = {"残り %s", "%s left"};
  t["下载 %s(来源:%s)"] = {"%s をダウンロードします(取得元: %s)", "downloading %s from %s"};
  t["%s 没有装,没有可删除的文件"] = {"%s はインストールされておらず、削除するファイルがありません",
                               "%s is not installed; there is nothing to remove"};
  t["已删除 %s"] = {"%s を削除しました", "removed %s"};
  t["已安装的版本:%s(%s)"] = {"インストール済みのバージョン: %s(%s)", "installed version: %s (%s)"};
  t["请至少指定一个航司绑定或音色来共享"] = {"共有する航空会社の割り当てか音声を少なくとも一つ指定してください",
                                    "name at least one airline binding or voice to share"};
  t["共享中心上还没有任何共享"] = {"共有ハブにはまだ共有がありません", "the hub lists no share yet"};
  t["标题"] = {"タイトル", "Title"};
  t["作者"] = {"作成者", "Author"};
  t["时间"] = {"日時", "Created"};
  t["已经共享过,内容没有变化:%s"] = {"共有済みで、内容は変わっていません: %s", "already shared and unchanged: %s"};
  t["已共享:%s"] = {"共有しました: %s", "shared: %s"};
  t["已撤下共享 %s"] = {"共有 %s を取り下げました", "took down share %s"};
}

// Who may call the API: refusals for keys, and `kelvo keys`.
void addApiKeys(std::unordered_map<std::string, JaEn>& t) {
  t["需要 API 密钥:请加上 Authorization: Bearer 密钥"] = {
      "API キーが必要です: Authorization: Bearer キー を付けてください",
      "an API key is required: send Authorization: Bearer KEY"};
  t["这个 API 密钥不对或已被撤销"] = {"この API キーは正しくないか、取り消されています",
                                   "this API key is wrong or has been revoked"};
  t["这个 API 密钥只能合成和查看;这个操作需要 admin 密钥"] = {
      "この API キーは合成と閲覧だけです。この操作には admin キーが必要です",
      "this API key may only speak and read; this operation needs an admin key"};
  t["密钥错误的请求太多了,请一分钟后再试"] = {"キーの誤ったリクエストが多すぎます。1 分後にやり直してください",
                                            "too many requests with a wrong or missing key; try again in a minute"};
  t["没有“%s”这个权限范围(可用:speak、admin)"] = {"「%s」という権限範囲はありません(使えるのは speak、admin)",
                                                 "there is no scope \"%s\" (use speak or admin)"};
  t["密钥名称要 1 到 64 个字符,只能用字母、数字、点、下划线和连字符"] = {
      "キー名は 1〜64 文字の英数字、ピリオド、アンダースコア、ハイフンにしてください",
      "a key name is 1 to 64 letters, digits, dots, underscores or hyphens"};
  t["已经有叫“%s”的密钥了"] = {"「%s」という名前のキーはすでにあります", "there is already a key named \"%s\""};
  t["密钥文件写不进去,密钥没有保存"] = {"キーファイルに書き込めないため、キーは保存されていません",
                                     "the key file cannot be written, so the key was not saved"};
  t["没有叫“%s”的密钥"] = {"「%s」という名前のキーはありません", "there is no key named \"%s\""};
  t["新密钥“%s”(%s)- 只显示这一次,请现在保存:"] = {"新しいキー「%s」(%s)- 表示はこの一度だけです。今保存してください:",
                                                "new key \"%s\" (%s) - shown this once only, save it now:"};
  t["已撤销密钥“%s”"] = {"キー「%s」を取り消しました", "revoked key \"%s\""};
  t["它在运行时密钥只能经由它修改 — 用 --url 指向它的地址"] = {
      "実行中はキーをそのサービス経由でしか変更できません — --url でそのアドレスを指定してください",
      "while it runs, keys change only through it - point --url at its address"};
  t["还没有 API 密钥:API 对所有人开放"] = {"API キーはまだありません: API は誰にでも開いています",
                                        "no API keys yet: the API is open to everyone"};
}

}  // namespace

const std::unordered_map<std::string, JaEn>& i18nTable() {
  static const auto table = [] {
    std::unordered_map<std::string, JaEn> t;
    addCore(t);
    addAudio(t);
    addVoices(t);
    addQueue(t);
    addPlaceholder(t);
    addClonePack(t);
    addHttp(t);
    addEngine(t);
    addService(t);
    addHttpApi(t);
    addAudioOut(t);
    addCommandLine(t);
    addDataRoot(t);
    addOnline(t);
    addOnlineCommands(t);
    addApiKeys(t);
    return t;
  }();
  return table;
}

const std::unordered_map<std::string, JaEn>& macExtra() {
  static const std::unordered_map<std::string, JaEn> table;
  return table;
}

// The core's texts were written for a desktop app with a tray and settings
// pages; this build is a service run from a terminal or by systemd. The keys
// stay the core's, so the code names each message once; the words, in all
// three languages, say what to do here.
const std::unordered_map<std::string, ZhJaEn>& macOverrides() {
  static const std::unordered_map<std::string, ZhJaEn> table = [] {
    std::unordered_map<std::string, ZhJaEn> t;
    t["要么已经有另一个 KELVO 在运行(看看托盘),"] = {
        "要么已经有另一个 KELVO 在运行(看看 `kelvo status` 或 `systemctl status kelvo`),",
        "別の KELVO が既に動いているか(`kelvo status` か `systemctl status kelvo` で確認できます)、",
        "either another KELVO is already running (see `kelvo status` or `systemctl status kelvo`),"};
    t["要么被别的程序占用了 - 可以在设置里换一个端口。"] = {
        "要么被别的程序占用了(`ss -ltnp` 能看到是谁)- 用 `kelvo serve --port` 或 config.json 里 \"server\" 的 \"port\" 换一个端口。",
        "別のプログラムが使っています(`ss -ltnp` で分かります)- `kelvo serve --port` か config.json の \"server\" の \"port\" "
        "で別のポートを選んでください。",
        "or another program has taken it (`ss -ltnp` shows which) - pick another port with `kelvo serve --port` or "
        "\"port\" under \"server\" in config.json."};
    t["等它合成完再试,或者在设置里调高合成超时。"] = {
        "等它合成完再试,或者调高 config.json 里 \"synthesis\" 的 \"timeoutMs\"。",
        "終わるのを待って再試行するか、config.json の \"synthesis\" の \"timeoutMs\" を長くしてください。",
        "Wait for it to finish and try again, or raise \"timeoutMs\" under \"synthesis\" in config.json."};
    t["模型已卸载,这一句缓存里没有。\n要现合成的话,先在「模型」页点「载入模型」。"] = {
        "模型已卸载,这一句缓存里没有。\n要现合成的话,重启服务(`systemctl restart kelvo`)让它重新载入模型。",
        "モデルはアンロード済みで、この文はキャッシュにありません。\n今すぐ合成するには、サービスを再起動して"
        "(`systemctl restart kelvo`)モデルを読み込み直してください。",
        "The model is unloaded and this line is not in the cache.\nTo synthesise it now, restart the service "
        "(`systemctl restart kelvo`) so that it loads the model again."};
    t["。请在「播报」页绑定一个 - 想让这家航空公司用任何语言播报,就把它的语言设为「自动」。"] = {
        "。用 `kelvo bind` 绑定一个 - 想让这家航空公司用任何语言播报,就用语言 auto 绑定。",
        "。`kelvo bind` で割り当ててください - この航空会社をどの言語でも放送させるには、言語 auto で割り当ててください。",
        ". Bind one with `kelvo bind` - to let this airline speak in any language, bind it with the language auto."};
    t["参考音频必须附带对应的文字(厂商接口要求 reference_text 必填)"] = {
        "参考音频必须附带对应的文字(引擎要求 reference_text)",
        "参照音声には書き起こしが必要です(エンジンは reference_text を必要とします)",
        "a reference clip needs its transcript (the engine requires reference_text)"};
    t["参考音频只有 %d 毫秒,太短了(厂商建议 5-30 秒)"] = {
        "参考音频只有 %d 毫秒,太短了(建议 5-30 秒)",
        "参照音声が %d ミリ秒しかなく短すぎます(5〜30 秒を推奨します)",
        "the reference clip is only %d ms, too short (5-30 s is recommended)"};
    t["kelvo_audio.dll 不在程序旁边,无法解码 ogg - "] = {
        "这个版本没有 Ogg 解码器,无法解码 ogg - ", "このビルドには Ogg デコーダーがないため、ogg をデコードできません - ",
        "this build has no Ogg decoder, so ogg cannot be decoded - "};
    return t;
  }();
  return table;
}

}  // namespace kelvo
