// The connectivity self-check a client runs before it relies on the service:
// can the configuration be read, is there a voice for its language, gender and
// airline, what state the engine is in, does a real line come back, can the
// cache store it. Each check carries a one-line localised reason.
//
// Thread-safe as the service is. Cost: one real synthesis (a cache hit after
// the first run) plus a few file operations.
#pragma once

#include <vector>

#include "KELVOCore/Service.h"

namespace kelvo {

// `probe` names the text, language, gender and airline to try; an empty text
// becomes a short test sentence in the probe's language.
std::vector<CheckResult> runSelfChecks(TtsService& service, TtsRequest probe);

}  // namespace kelvo
