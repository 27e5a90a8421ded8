// The local engine's own costs, with the model taken out of the picture: one
// synthesis call against a responder that answers at once, and start() to
// ready against the inference double with no load delay.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "KELVOCore/EngineS2Local.h"
#include "KELVOCore/Wav.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// A data root holding the inference double as engine/s2 and a dummy model;
// removed afterwards.
class DoubleRoot {
 public:
  DoubleRoot() {
    std::string pattern = (fs::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    path_ = std::string(mkdtemp(pattern.data())) + "/";
    fs::create_directories(path_ + "engine");
    fs::create_directories(path_ + "models");
    fs::copy_file(KELVO_TOOLS_DIR "/s2_double.py", path_ + "engine/s2");
    fs::permissions(path_ + "engine/s2", fs::perms::owner_all);
    kelvo::saveFileBytes(path_ + "models/x.gguf", kelvo::Bytes{'g', 'g', 'u', 'f'});
  }
  ~DoubleRoot() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  DoubleRoot(const DoubleRoot&) = delete;
  DoubleRoot& operator=(const DoubleRoot&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// An HTTP responder on a loopback port of its own: reads one request per
// connection and answers 200 with the same 5 s, 44.1 kHz WAV at once.
class InstantResponder {
 public:
  InstantResponder() {
    kelvo::PcmBuffer tone;
    tone.sampleRate = 44100;
    tone.data.resize(5 * 44100);
    for (std::size_t i = 0; i < tone.data.size(); ++i) tone.data[i] = 0.3f * std::sin(0.05f * static_cast<float>(i));
    const kelvo::Bytes wav = kelvo::buildWav(tone, 1);
    reply_ = "HTTP/1.1 200 OK\r\nContent-Type: audio/wav\r\nConnection: close\r\nContent-Length: " +
             std::to_string(wav.size()) + "\r\n\r\n" + std::string(wav.begin(), wav.end());
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd_, 64) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &length) != 0) {
      std::abort();
    }
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~InstantResponder() {
    stop_ = true;
    ::shutdown(fd_, SHUT_RDWR);
    thread_.join();
    ::close(fd_);
  }
  InstantResponder(const InstantResponder&) = delete;
  InstantResponder& operator=(const InstantResponder&) = delete;
  std::int64_t port() const { return port_; }

 private:
  void serve() {
    while (!stop_) {
      const int c = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (c < 0) continue;
      if (readRequest(c)) {
        for (std::size_t sent = 0; sent < reply_.size();) {
          const ssize_t n = ::send(c, reply_.data() + sent, reply_.size() - sent, MSG_NOSIGNAL);
          if (n <= 0) break;
          sent += static_cast<std::size_t>(n);
        }
      }
      ::close(c);
    }
  }
  // Headers, then Content-Length bytes of body; false for a bare probe.
  static bool readRequest(int c) {
    std::string in;
    char buffer[65536];
    std::size_t need = std::string::npos;
    while (need == std::string::npos || in.size() < need) {
      const ssize_t n = ::recv(c, buffer, sizeof buffer, 0);
      if (n <= 0) return false;
      in.append(buffer, static_cast<std::size_t>(n));
      const std::size_t end = in.find("\r\n\r\n");
      if (need == std::string::npos && end != std::string::npos) {
        const std::size_t at = in.find("Content-Length: ");
        need = end + 4 + (at < end ? std::stoul(in.substr(at + 16)) : 0);
      }
    }
    return true;
  }

  std::string reply_;
  int fd_ = -1;
  std::int64_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

kelvo::S2Timing quickProbes() {
  kelvo::S2Timing t;
  t.probeInterval = std::chrono::milliseconds(20);
  return t;
}

}  // namespace

// Service-side cost of one synthesize(): the multipart body with a 200 KB
// reference clip, the loopback exchange and parsing a 5 s, 44.1 kHz reply.
// The engine's child is the double told never to listen; the responder sits
// on the engine's fallback port, so the engine adopts it as its child's.
static void BM_S2SynthesisCall(benchmark::State& state) {
  DoubleRoot root;
  InstantResponder responder;
  setenv("S2_DOUBLE_NEVER_LISTEN", "1", 1);
  kelvo::S2LocalEngine engine({}, root.path(), quickProbes(), {27151, 27170, responder.port()});
  engine.start();
  while (engine.currentState() == kelvo::S2EngineState::loading)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  unsetenv("S2_DOUBLE_NEVER_LISTEN");
  if (!engine.ready()) {
    state.SkipWithError(engine.detail().c_str());
    return;
  }
  kelvo::S2Params params;
  params.text = "Ladies and gentlemen, boarding for flight 123 is now complete.";
  params.referenceAudio = kelvo::buildWav(kelvo::PcmBuffer::silence(44100, 2300), 1);
  params.referenceText = "reference transcript";
  std::vector<double> us;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    kelvo::PcmBuffer pcm = engine.synthesize(params, kelvo::VoiceHint{});
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    benchmark::DoNotOptimize(pcm.data.data());
  }
  std::sort(us.begin(), us.end());
  state.counters["median_us"] = us[us.size() / 2];
  state.counters["p99_us"] = us[us.size() * 99 / 100];
}
BENCHMARK(BM_S2SynthesisCall)->Unit(benchmark::kMicrosecond)->Iterations(500);

// start() until ready against the double with no load delay, at the real
// probe interval of 0.4 s: the double's interpreter start-up misses the first
// probe, so the second one (0.4 s in) is what normally finds it.
static void BM_S2StartToReady(benchmark::State& state) {
  DoubleRoot root;
  kelvo::S2LocalEngine engine({}, root.path(), {}, {27151, 27170, 27171});
  for (auto _ : state) {
    engine.start();
    while (!engine.ready()) {
      if (engine.currentState() != kelvo::S2EngineState::loading) {
        state.SkipWithError(engine.detail().c_str());
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    state.PauseTiming();
    engine.stop();
    state.ResumeTiming();
  }
}
BENCHMARK(BM_S2StartToReady)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();
