#include "KELVOServer/Table.h"

#include <algorithm>

namespace kelvo::cli {

namespace {

// Terminal columns of UTF-8 text: wide (2) for the CJK and full-width blocks,
// 1 for every other code point; continuation bytes count nothing.
std::size_t displayWidth(const std::string& text) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t len = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    char32_t cp = lead < 0x80 ? lead : lead & (0x3F >> (len - 1));
    for (std::size_t k = 1; k < len && i + k < text.size(); ++k) {
      cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    }
    const bool wide = (cp >= 0x1100 && cp <= 0x115F) || (cp >= 0x2E80 && cp <= 0xA4CF) ||
                      (cp >= 0xAC00 && cp <= 0xD7A3) || (cp >= 0xF900 && cp <= 0xFAFF) ||
                      (cp >= 0xFE30 && cp <= 0xFE4F) || (cp >= 0xFF00 && cp <= 0xFF60) ||
                      (cp >= 0xFFE0 && cp <= 0xFFE6) || (cp >= 0x20000 && cp <= 0x3FFFD);
    width += wide ? 2 : 1;
    i += len;
  }
  return width;
}

}  // namespace

std::string formatTable(const Row& header, const std::vector<Row>& rows) {
  std::size_t columns = header.size();
  for (const Row& row : rows) columns = std::max(columns, row.size());
  std::vector<std::size_t> widths(columns, 0);
  auto measure = [&](const Row& row) {
    for (std::size_t c = 0; c < row.size() && c < widths.size(); ++c) {
      widths[c] = std::max(widths[c], displayWidth(row[c]));
    }
  };
  measure(header);
  for (const Row& row : rows) measure(row);

  std::string out;
  auto emit = [&](const Row& row) {
    std::string line;
    for (std::size_t c = 0; c < row.size() && c < widths.size(); ++c) {
      line += row[c];
      if (c + 1 < row.size()) line.append(widths[c] - displayWidth(row[c]) + 2, ' ');
    }
    out += line + "\n";
  };
  if (!header.empty()) emit(header);
  for (const Row& row : rows) emit(row);
  return out;
}

}  // namespace kelvo::cli
