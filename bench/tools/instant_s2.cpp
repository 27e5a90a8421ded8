// A stand-in for the s2 inference server that answers at once, so that a
// benchmark sees only the engine's own costs. Installed as engine/s2, it
// listens on 127.0.0.1 at the port after "--port" (every other argument is
// ignored, as the real server ignores flags it does not know) and answers
// every request with the same 5 s of mono 32-bit float WAV at 44.1 kHz,
// keeping connections alive as the real server does.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

void appendLE(std::string& out, std::uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

std::string reply() {
  constexpr std::uint32_t rate = 44100;
  std::vector<float> samples(5 * rate);
  for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = 0.3f * std::sin(0.05f * static_cast<float>(i));
  const auto dataBytes = static_cast<std::uint32_t>(samples.size() * sizeof(float));
  std::string wav = "RIFF";
  appendLE(wav, 36 + dataBytes, 4);
  wav += "WAVEfmt ";
  appendLE(wav, 16, 4);
  appendLE(wav, 3, 2);  // IEEE float
  appendLE(wav, 1, 2);
  appendLE(wav, rate, 4);
  appendLE(wav, rate * 4, 4);
  appendLE(wav, 4, 2);
  appendLE(wav, 32, 2);
  wav += "data";
  appendLE(wav, dataBytes, 4);
  wav.append(reinterpret_cast<const char*>(samples.data()), dataBytes);  // x86-64: already little-endian
  return "HTTP/1.1 200 OK\r\nContent-Type: audio/wav\r\nContent-Length: " + std::to_string(wav.size()) + "\r\n\r\n" +
         wav;
}

// Reads one request (headers, then Content-Length bytes of body) from `in`,
// which keeps what arrived beyond it; false when the peer closed.
bool readRequest(int c, std::string& in) {
  char buffer[65536];
  for (;;) {
    const std::size_t end = in.find("\r\n\r\n");
    if (end != std::string::npos) {
      const std::size_t at = in.find("Content-Length: ");
      const std::size_t need = end + 4 + (at < end ? std::stoul(in.substr(at + 16)) : 0);
      if (in.size() >= need) {
        in.erase(0, need);
        return true;
      }
    }
    const ssize_t n = ::recv(c, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    in.append(buffer, static_cast<std::size_t>(n));
  }
}

void serve(int c, const std::string& answer) {
  std::string in;
  while (readRequest(c, in)) {
    for (std::size_t sent = 0; sent < answer.size();) {
      const ssize_t n = ::send(c, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<std::size_t>(n);
    }
  }
  ::close(c);
}

}  // namespace

int main(int argc, char** argv) {
  int port = 0;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--port") == 0) port = std::atoi(argv[i + 1]);
  }
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // As any server does: its connections' TIME_WAIT must not keep the next one off the port.
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (port <= 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 64) != 0) {
    return 1;
  }
  const std::string answer = reply();
  for (;;) {
    const int c = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (c >= 0) std::thread(serve, c, std::cref(answer)).detach();
  }
}
