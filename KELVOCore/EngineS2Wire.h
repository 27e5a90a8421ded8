// What goes over the wire to the s2 inference process: its command line and
// the multipart form of one "/generate" call, byte for byte. Kept apart from
// the supervisor so the exact layout can be checked and measured on its own.
//
// Thread-safe: pure functions. Cost: the body is built in one buffer reserved
// up front; the reference audio is copied once.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KELVOCore/EngineOptions.h"
#include "KELVOCore/Types.h"

namespace kelvo {

// The child's command line without the executable, exactly as launched:
// "--model" M "--server" "--host" "127.0.0.1" "--port" P, then "--tokenizer" T
// when there is one, then "-ngl" "0" "--codec-cpu" (back-end cpu, or no GPU
// back-end available) or "-M" "-ngl" layers (99 for all) "--codec-cpu", then
// "-threads" N when set, then the extra arguments.
std::vector<std::string> s2CommandLine(const std::string& modelPath, std::int64_t port,
                                       const std::string& tokenizerPath, const EngineOptions& options,
                                       bool gpuBackendAvailable);

// The "/generate" form for `params`: parts "text", "params", then either the
// file "reference" with "reference_text" (reference audio and no profile) or
// "voice" (a profile), CRLF line ends, closing delimiter. Sent with the
// content type "multipart/form-data; boundary=" + `boundary` (a fresh one
// from MultipartForm::newBoundary() per request). The reference
// file is named "reference.mp3" when its bytes are MP3 and not WAV, else
// "reference.wav". "params" carries "seed" only when it is not 0.
Bytes s2GenerateBody(const S2Params& params, const std::string& boundary);

}  // namespace kelvo
