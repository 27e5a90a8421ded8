#include "KELVOCore/Base64.h"

#include <array>

namespace kelvo {

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// 0..63 for alphabet characters, 64 for white space, 255 for everything else.
constexpr std::array<std::uint8_t, 256> decodeTable() {
  std::array<std::uint8_t, 256> t{};
  for (auto& v : t) v = 255;
  for (std::uint8_t i = 0; i < 64; ++i) t[static_cast<unsigned char>(alphabet[i])] = i;
  for (unsigned char c : {' ', '\t', '\r', '\n'}) t[c] = 64;
  return t;
}

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    for (int shift : {18, 12, 6, 0}) out.push_back(alphabet[(v >> shift) & 63]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    const std::uint32_t v = (bytes[i] << 16) | (rest == 2 ? bytes[i + 1] << 8 : 0);
    out.push_back(alphabet[(v >> 18) & 63]);
    out.push_back(alphabet[(v >> 12) & 63]);
    out.push_back(rest == 2 ? alphabet[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

std::optional<Bytes> base64Decode(std::string_view text) {
  static constexpr auto table = decodeTable();
  Bytes out;
  out.reserve(text.size() / 4 * 3);
  std::uint32_t acc = 0;
  int held = 0;     // sextets in `acc`
  int padding = 0;  // '=' seen; only white space and more '=' may follow
  for (const char ch : text) {
    const std::uint8_t v = table[static_cast<unsigned char>(ch)];
    if (v == 64) continue;
    if (ch == '=') {
      ++padding;
      continue;
    }
    if (v == 255 || padding > 0) return std::nullopt;
    acc = (acc << 6) | v;
    if (++held == 4) {
      out.push_back(static_cast<std::uint8_t>(acc >> 16));
      out.push_back(static_cast<std::uint8_t>(acc >> 8));
      out.push_back(static_cast<std::uint8_t>(acc));
      acc = 0;
      held = 0;
    }
  }
  if (held == 1 || padding > 2 || (padding > 0 && held + padding != 4)) return std::nullopt;
  if (held >= 2) out.push_back(static_cast<std::uint8_t>(acc >> (held == 2 ? 4 : 10)));
  if (held == 3) out.push_back(static_cast<std::uint8_t>(acc >> 2));
  return out;
}

}  // namespace kelvo
