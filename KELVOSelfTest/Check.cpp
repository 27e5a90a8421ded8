#include "KELVOSelfTest/Check.h"

#include <cstdio>

namespace kelvo::selftest {

std::string checkLine(std::string_view name, bool passed, std::string_view detail) {
  std::string line = passed ? "✓ " : "✗ ";
  line += name;
  if (!detail.empty()) {
    line += "  ";
    line += detail;
  }
  return line;
}

void check(std::string_view name, bool passed, std::string_view detail, bool& allPassed) {
  const std::string line = checkLine(name, passed, detail) + "\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
  allPassed = allPassed && passed;
}

}  // namespace kelvo::selftest
