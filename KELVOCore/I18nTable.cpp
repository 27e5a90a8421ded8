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
  t["无法写入 %s:%s"] = {"%s に書き込めません: %s", "cannot write %s: %s"};
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
    addOnline(t);
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
