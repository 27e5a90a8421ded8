#include "KELVOCore/Player.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <condition_variable>
#include <filesystem>
#include <thread>

#include "KELVOCore/AudioDecode.h"
#include "KELVOCore/Wav.h"
#include "tests/TestSupport.h"

namespace kelvo {
namespace {

using namespace std::literals;
using Clock = std::chrono::steady_clock;

// A tone of `ms` milliseconds at 8 kHz as a `channels`-channel 16-bit WAV.
Bytes toneWav(int ms, std::int64_t channels = 1) {
  return buildWav(test::sine(8000, 400, static_cast<std::size_t>(8 * ms), 0.3f), channels);
}

class PlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(std::filesystem::exists("/usr/share/alsa/alsa.conf"))
        << "ALSA's configuration /usr/share/alsa/alsa.conf (package libasound2-data) is missing: without it "
           "there is no \"null\" device to play on";
    AppLog::clear();
    player.setOnFinished([this] {
      char name[16] = {};
      pthread_getname_np(pthread_self(), name, sizeof name);
      std::lock_guard lock(m);
      finishes.push_back({name, Clock::now()});
      finished.notify_all();
    });
  }
  void TearDown() override { AppLog::drainHandlers(); }

  WavPlayer player{"null"};
  std::mutex m;
  std::condition_variable finished;
  std::vector<std::pair<std::string, Clock::time_point>> finishes;  // thread name, time
};

TEST_F(PlayerTest, SecondClipCutsTheFirstAndOnlyItsFinishIsReported) {
  ASSERT_TRUE(player.play(toneWav(300), 0)) << test::loggedLine("player", LogLevel::warn, "").value_or("");
  std::this_thread::sleep_for(50ms);
  EXPECT_TRUE(player.isPlaying());

  const auto secondStart = Clock::now();
  ASSERT_TRUE(player.play(toneWav(100, 2), 0));
  EXPECT_EQ(player.durationMs(), 100);  // computed from the file
  std::unique_lock lock(m);
  ASSERT_TRUE(finished.wait_for(lock, 2s, [&] { return !finishes.empty(); }));
  EXPECT_FALSE(player.isPlaying());
  // Past the moment the first clip would have ended.
  lock.unlock();
  std::this_thread::sleep_until(secondStart + 350ms);
  AppLog::drainHandlers();
  lock.lock();
  ASSERT_EQ(finishes.size(), 1u);
  // Neither the caller's thread nor the player's.
  const auto& [name, at] = finishes[0];
  EXPECT_EQ(name, "KELVO observer");
  EXPECT_GE(at - secondStart, 95ms);  // even the "null" device takes the clip's real length
}

TEST_F(PlayerTest, BytesThatAreNotAudioAreRefused) {
  for (const std::string& bytes : {"not audio at all"s, "RIFF\x24\0\0\0WAVEdata"s + std::string(40, '\0'),
                                   std::string(200, '\xFF')}) {
    SCOPED_TRACE(bytes.size());
    AppLog::clear();
    ASSERT_TRUE(player.play(toneWav(300)));
    EXPECT_FALSE(player.play(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size())));
    EXPECT_FALSE(player.isPlaying());
    EXPECT_TRUE(test::loggedLine("player", LogLevel::warn, "cannot play this clip: ").has_value());
  }
  // Empty data is refused without cutting off the clip that plays.
  ASSERT_TRUE(player.play(toneWav(300)));
  EXPECT_FALSE(player.play({}));
  EXPECT_TRUE(player.isPlaying());

  EXPECT_FALSE(WavPlayer("kelvo-no-such-device").play(toneWav(50)));
  EXPECT_TRUE(test::loggedLine("player", LogLevel::warn, "cannot play this clip: audio device \"kelvo-no-such-device\"")
                  .has_value());
}

TEST_F(PlayerTest, StopCutsOffAtOnceAndReportsNothing) {
  const auto ogg = loadFileBytes(KELVO_FIXTURES_DIR "/speech.ogg");
  ASSERT_TRUE(ogg && player.play(*ogg, 0));
  EXPECT_EQ(player.durationMs(), decodeReference(*ogg)->durationMs());
  ASSERT_TRUE(player.play(toneWav(300), 1234));
  EXPECT_EQ(player.durationMs(), 1234);  // the caller's length wins
  std::this_thread::sleep_for(30ms);
  const auto before = Clock::now();
  player.stop();
  EXPECT_LT(Clock::now() - before, 150ms);  // well before the 270 ms the clip had left
  EXPECT_FALSE(player.isPlaying());
  // A player that goes away while playing stops and joins its thread.
  { WavPlayer("null").play(toneWav(300)); }
  std::this_thread::sleep_until(before + 300ms);
  AppLog::drainHandlers();
  std::lock_guard lock(m);
  EXPECT_TRUE(finishes.empty());

  test::ScopedEnv env("KELVO_AUDIO_DEVICE", "null");
  EXPECT_EQ(WavPlayer().device(), "null");
}

}  // namespace
}  // namespace kelvo
