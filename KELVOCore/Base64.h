// Base64 (RFC 4648, standard alphabet) for reference audio carried in JSON
// bodies. Pure functions, safe from any thread; linear in the input.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "KELVOCore/Types.h"

namespace kelvo {

std::string base64Encode(std::span<const std::uint8_t> bytes);
// Decodes padded or unpadded text; white space (line breaks of MIME-style
// encoders) is skipped. Absent for any other character outside the alphabet,
// misplaced padding or a dangling single character.
std::optional<Bytes> base64Decode(std::string_view text);

}  // namespace kelvo
