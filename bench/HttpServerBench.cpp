#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "KELVOCore/HttpServer.h"

namespace {

// One keep-alive client on loopback sending `depth` requests back to back and
// then reading all the answers; the handler returns `bytes` of body at once
// (copied from memory, or as a file), so what is measured is the server's
// framing, hand-offs and write path.
void roundTrips(benchmark::State& state, std::size_t bytes, int depth, bool asFile) {
  const kelvo::HttpResponse canned = [&] {
    kelvo::HttpResponse r = kelvo::HttpResponse::text(200, std::string(bytes, 'w'));
    r.headers["Content-Type"] = "audio/wav";
    r.headers["ETag"] = "\"0123456789ABCDEF\"";
    return r;
  }();
  char path[] = "/tmp/kelvo-bench-XXXXXX";
  const int file = mkstemp(path);
  if (file < 0 || write(file, canned.body.data(), bytes) != static_cast<ssize_t>(bytes)) {
    state.SkipWithError("cannot write the body file");
    return;
  }
  close(file);
  kelvo::HttpServer server("127.0.0.1", 0, [&](const kelvo::HttpRequest&) {
    if (!asFile) return canned;
    kelvo::HttpResponse r;
    r.headers = canned.headers;
    r.bodyFile = std::make_shared<const kelvo::OpenFile>(kelvo::OpenFile::open(path).value());
    return r;
  });
  server.start();
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(server.boundPort()));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
    state.SkipWithError("cannot connect");
    close(fd);
    return;
  }
  std::string batch;
  for (int i = 0; i < depth; ++i) batch += "POST /v1/tts HTTP/1.1\r\nHost: bench\r\nContent-Length: 2\r\n\r\n{}";
  const std::size_t answerSize = kelvo::serializeResponseHead(canned, canned.body.size(), false).size() + canned.body.size();
  const std::size_t answerBytes = answerSize * static_cast<std::size_t>(depth);
  std::string buffer(1 << 20, '\0');
  for (auto _ : state) {
    if (send(fd, batch.data(), batch.size(), 0) != static_cast<ssize_t>(batch.size())) break;
    for (std::size_t got = 0; got < answerBytes;) {
      const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
      if (n <= 0) {
        state.SkipWithError("connection lost");
        break;
      }
      got += static_cast<std::size_t>(n);
    }
  }
  close(fd);
  unlink(path);
  state.SetItemsProcessed(state.iterations() * depth);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * answerBytes));
}

}  // namespace

// A health-sized answer: the fixed cost of one request.
static void BM_HttpTinyRoundTrip(benchmark::State& state) { roundTrips(state, 40, 1, false); }
BENCHMARK(BM_HttpTinyRoundTrip)->UseRealTime();

// A cached 5 s line (441 KB WAV), handed over in memory and as a file.
static void BM_HttpWavRoundTrip(benchmark::State& state) { roundTrips(state, 441044, 1, false); }
BENCHMARK(BM_HttpWavRoundTrip)->UseRealTime();
static void BM_HttpWavFileRoundTrip(benchmark::State& state) { roundTrips(state, 441044, 1, true); }
BENCHMARK(BM_HttpWavFileRoundTrip)->UseRealTime();

// Sixteen pipelined requests: per-connection ordering without a round trip each.
static void BM_HttpTinyPipelined(benchmark::State& state) { roundTrips(state, 40, 16, false); }
BENCHMARK(BM_HttpTinyPipelined)->UseRealTime();
