// WavPlayer: plays one clip at a time on a local ALSA output, for hearing a
// synthesised line or a reference clip on the machine that runs the service.
// A clip is a whole WAV (or MP3 / Ogg Vorbis) file held in memory; it plays
// mono at its own rate on a background thread ("KELVO player"), and a new clip
// always cuts off the one before. The owner is told when a clip has played to
// its end, on the log's observer thread (see AppLog::post), never on the audio
// thread; a clip that was stopped or replaced is never reported.
//
// Thread-safe: any thread may call any method, including the finish handler
// itself. One lock guards the current clip, its length and the handler; it is
// never held while a clip is stopped or while the device is opened.
// Cost: `play` decodes the whole clip and keeps it as 16-bit samples (2 bytes
// per frame) until the next clip; stopping takes effect at once, as the audio
// thread never blocks on the device.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>

namespace kelvo {

class WavPlayer {
 public:
  using FinishedHandler = std::function<void()>;

  // $KELVO_AUDIO_DEVICE when it is set and not empty, else "default".
  static std::string defaultDevice();

  // Plays on the ALSA PCM device `device` ("default", "null", "hw:1,0" …).
  // Opens nothing yet: each clip opens the device for itself.
  explicit WavPlayer(std::string device = defaultDevice());
  // Stops the current clip and waits for its thread.
  ~WavPlayer();
  WavPlayer(const WavPlayer&) = delete;
  WavPlayer& operator=(const WavPlayer&) = delete;

  // Cuts off the current clip, then starts `data`. `durationMs` of 1 or more is
  // what `durationMs()` will report; otherwise the length of the decoded audio.
  // Empty data returns false and leaves the current clip playing. Data that is
  // no audio, or a device that cannot be opened, returns false with the warning
  // "cannot play this clip: " + reason (source "player").
  bool play(std::span<const std::uint8_t> data, std::int64_t durationMs = 0);
  // Cuts off the current clip, if any; its finish is not reported.
  void stop();
  // Whether the current clip is still sounding; false when there is none.
  bool isPlaying() const;
  // Length in ms of the last clip that `play` accepted; 0 before the first.
  std::int64_t durationMs() const;
  // Called once for each clip that plays to its end, on the log's observer
  // thread. An empty function removes the handler.
  void setOnFinished(FinishedHandler handler);
  const std::string& device() const { return device_; }

 private:
  struct Clip;
  // The audio thread of `clip`: plays it, then reports a natural end.
  void run(Clip& clip);

  const std::string device_;
  mutable std::mutex lock_;
  std::unique_ptr<Clip> current_;
  std::int64_t durationMsValue_ = 0;
  FinishedHandler onFinished_;
};

}  // namespace kelvo
