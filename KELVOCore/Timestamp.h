// Time stamps as people and other programs read them in KELVO's files and
// wire formats: UTC, ISO 8601, whole seconds ("2026-08-07T07:34:00Z").
//
// Thread-safe: a pure function (gmtime_r). Cost: one strftime.
#pragma once

#include <string>

#include "KELVOCore/Types.h"

namespace kelvo {

// `t` in UTC as "YYYY-MM-DDTHH:MM:SSZ".
std::string isoUtc(TimePoint t);

}  // namespace kelvo
