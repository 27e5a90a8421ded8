#include "KELVOCore/Player.h"

#include <alsa/asoundlib.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "KELVOCore/AudioDecode.h"
#include "KELVOCore/Log.h"

namespace kelvo {

namespace {

using Clock = std::chrono::steady_clock;

// Frames go to the device in pieces of this length, and the writer keeps at
// most kLeadMs of audio queued ahead of the wall clock. The device buffer asked
// for is larger than lead + period, so a paced write rarely finds it full.
constexpr std::int64_t kPeriodMs = 20;
constexpr std::int64_t kLeadMs = 60;
constexpr unsigned kBufferUs = 120'000;

struct PcmCloser {
  void operator()(snd_pcm_t* pcm) const { snd_pcm_close(pcm); }
};
using PcmHandle = std::unique_ptr<snd_pcm_t, PcmCloser>;

// alsa-lib prints its own diagnostics to standard error; keep them in the log
// instead, where they sit next to the warning that says what failed.
__attribute__((format(printf, 5, 6))) void alsaDiagnostic(const char*, int, const char*, int, const char* fmt,
                                                          ...) {
  char text[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  AppLog::debug("player", std::string("alsa: ") + text);
}

// 16-bit samples as the device takes them. Float WAVs are not clamped by the
// parser and may even hold NaN: those play as silence rather than fail.
std::vector<std::int16_t> toFrames(const std::vector<float>& samples) {
  std::vector<std::int16_t> frames(samples.size());
  std::transform(samples.begin(), samples.end(), frames.begin(), [](float s) {
    if (std::isnan(s)) return std::int16_t{0};
    return static_cast<std::int16_t>(std::lround(std::clamp(s, -1.0f, 1.0f) * 32767.0f));
  });
  return frames;
}

// A mono S16 stream at `rate` on `device`, in non-blocking mode so the audio
// thread can always notice a stop. It starts at the first frame written.
// Returns the negative ALSA error code of the step that failed.
int openDevice(const std::string& device, std::int64_t rate, PcmHandle& out) {
  snd_pcm_t* raw = nullptr;
  int err = snd_pcm_open(&raw, device.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
  if (err < 0) return err;
  PcmHandle pcm(raw);
  err = snd_pcm_set_params(pcm.get(), SND_PCM_FORMAT_S16, SND_PCM_ACCESS_RW_INTERLEAVED, 1,
                           static_cast<unsigned>(rate), 1, kBufferUs);
  if (err < 0) return err;
  snd_pcm_sw_params_t* sw = nullptr;
  snd_pcm_sw_params_alloca(&sw);
  if ((err = snd_pcm_sw_params_current(pcm.get(), sw)) < 0) return err;
  if ((err = snd_pcm_sw_params_set_start_threshold(pcm.get(), sw, 1)) < 0) return err;
  if ((err = snd_pcm_sw_params(pcm.get(), sw)) < 0) return err;
  out = std::move(pcm);
  return 0;
}

}  // namespace

struct WavPlayer::Clip {
  PcmHandle pcm;
  std::vector<std::int16_t> frames;
  std::int64_t rate = 0;
  std::atomic<bool> playing{true};
  std::thread thread;

  std::mutex stopLock;
  std::condition_variable stopWake;
  bool stopRequested = false;

  // Sleeps until `until` unless a stop comes first; true when stopped.
  bool stoppedBy(Clock::time_point until) {
    std::unique_lock lock(stopLock);
    return stopWake.wait_until(lock, until, [&] { return stopRequested; });
  }

  // The moment frame `frame` is due, counting from `start`.
  Clock::time_point due(Clock::time_point start, std::int64_t frame) const {
    return start + std::chrono::duration_cast<Clock::duration>(
                       std::chrono::duration<double>(static_cast<double>(frame) / static_cast<double>(rate)));
  }

  // Writes every frame; true when the clip played to its end.
  //
  // Pacing: writes are paced by the wall clock, never more than kLeadMs ahead
  // of it. A sound card would pace a blocking writer by itself, but ALSA's
  // "null" device (and any device whose clock does not run) swallows frames at
  // once; pacing by the clock makes every device take the clip's real length,
  // so `isPlaying` and the cut-off mean the same everywhere. A real device then
  // holds about kLeadMs of audio at any time, which is all `stop` discards.
  bool stream() {
    const auto total = static_cast<std::int64_t>(frames.size());
    const std::int64_t period = std::max<std::int64_t>(rate * kPeriodMs / 1000, 1);
    const std::int64_t lead = rate * kLeadMs / 1000;
    const auto start = Clock::now();
    std::int64_t written = 0;
    while (written < total) {
      if (stoppedBy(due(start, written - lead))) return false;
      const auto count = static_cast<snd_pcm_uframes_t>(std::min(period, total - written));
      snd_pcm_sframes_t done = snd_pcm_writei(pcm.get(), frames.data() + written, count);
      if (done == -EAGAIN) {
        // The device's clock runs behind ours; give it half a period.
        if (stoppedBy(Clock::now() + std::chrono::milliseconds(kPeriodMs / 2))) return false;
        continue;
      }
      if (done < 0) done = snd_pcm_recover(pcm.get(), static_cast<int>(done), 1);
      if (done < 0) {
        AppLog::warn("player", std::string("playback stopped: ") + snd_strerror(static_cast<int>(done)));
        return false;
      }
      written += done;
    }
    // Everything is queued: wait out the last frame by our clock, then what the
    // device still says it holds (it started a little after our clock did).
    if (stoppedBy(due(start, total))) return false;
    const auto giveUp = Clock::now() + std::chrono::microseconds(kBufferUs);
    snd_pcm_sframes_t pending = 0;
    while (Clock::now() < giveUp && snd_pcm_delay(pcm.get(), &pending) == 0 && pending > 0) {
      if (stoppedBy(Clock::now() + std::chrono::milliseconds(kPeriodMs / 2))) return false;
    }
    return true;
  }

  // Asks the audio thread to end and waits for it. Never call it on that thread.
  void stopAndJoin() {
    {
      std::lock_guard lock(stopLock);
      stopRequested = true;
    }
    stopWake.notify_all();
    if (thread.joinable()) thread.join();
  }
};

std::string WavPlayer::defaultDevice() {
  const char* device = std::getenv("KELVO_AUDIO_DEVICE");
  return device != nullptr && *device != '\0' ? device : "default";
}

WavPlayer::WavPlayer(std::string device) : device_(std::move(device)) {}

WavPlayer::~WavPlayer() { stop(); }

bool WavPlayer::play(std::span<const std::uint8_t> data, std::int64_t durationMs) {
  if (data.empty()) return false;
  stop();

  auto pcm = decodeReference(data);
  if (!pcm || pcm->isEmpty() || pcm->sampleRate < 1) {
    AppLog::warn("player", "cannot play this clip: not a WAV, MP3 or Ogg Vorbis file");
    return false;
  }
  static std::once_flag quietAlsa;
  std::call_once(quietAlsa, [] { snd_lib_error_set_handler(alsaDiagnostic); });

  auto clip = std::make_unique<Clip>();
  clip->rate = pcm->sampleRate;
  if (const int err = openDevice(device_, clip->rate, clip->pcm); err < 0) {
    AppLog::warn("player", "cannot play this clip: audio device \"" + device_ + "\": " + snd_strerror(err));
    return false;
  }
  clip->frames = toFrames(pcm->data);
  Clip& started = *clip;
  {
    std::lock_guard lock(lock_);
    // A second play() may have got in while this one decoded: it is cut off
    // as well, outside the lock.
    std::swap(current_, clip);
    durationMsValue_ = durationMs >= 1 ? durationMs : pcm->durationMs();
    started.thread = std::thread([this, &started] { run(started); });
  }
  if (clip) clip->stopAndJoin();
  return true;
}

void WavPlayer::run(Clip& clip) {
  pthread_setname_np(pthread_self(), "KELVO player");
  const bool toTheEnd = clip.stream();
  snd_pcm_drop(clip.pcm.get());
  clip.pcm.reset();
  clip.playing = false;
  if (!toTheEnd) return;
  FinishedHandler handler;
  {
    std::lock_guard lock(lock_);
    // A clip replaced just as it ended is no longer the owner's concern.
    if (current_.get() != &clip) return;
    handler = onFinished_;
  }
  if (handler) AppLog::post(std::move(handler));
}

void WavPlayer::stop() {
  std::unique_ptr<Clip> clip;
  {
    std::lock_guard lock(lock_);
    clip = std::move(current_);
  }
  if (clip) clip->stopAndJoin();
}

bool WavPlayer::isPlaying() const {
  std::lock_guard lock(lock_);
  return current_ != nullptr && current_->playing;
}

std::int64_t WavPlayer::durationMs() const {
  std::lock_guard lock(lock_);
  return durationMsValue_;
}

void WavPlayer::setOnFinished(FinishedHandler handler) {
  std::lock_guard lock(lock_);
  onFinished_ = std::move(handler);
}

}  // namespace kelvo
