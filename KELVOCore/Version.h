// The build identity: compared by the update check, reported by the health
// route, printed by the self-test's update scenario.
#pragma once

#include <string_view>

namespace kelvo::KELVO {
inline constexpr std::string_view version = "0.3.26220";
inline constexpr std::string_view buildTime = "2026-08-07 07:34";
}  // namespace kelvo::KELVO
