// The self-test's reporting: one line per check, "✓ name" or "✗ name", plus two
// blanks and a detail when there is one. A failed check never stops a
// scenario; it only turns the scenario's verdict false.
#pragma once

#include <string>
#include <string_view>

namespace kelvo::selftest {

std::string checkLine(std::string_view name, bool passed, std::string_view detail);
// Prints checkLine(...) on standard output and ANDs `passed` into `allPassed`.
void check(std::string_view name, bool passed, std::string_view detail, bool& allPassed);

// Scenarios: true when every check passed.
bool runOffline();
bool runSmoke();
bool runHub();
bool runUpdate();

}  // namespace kelvo::selftest
