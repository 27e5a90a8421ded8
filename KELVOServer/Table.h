// Plain-text tables for the terminal: columns padded to the widest cell,
// counting East Asian wide characters as two columns so that Chinese and
// Japanese voice names line up.
#pragma once

#include <string>
#include <vector>

namespace kelvo::cli {

using Row = std::vector<std::string>;

// The header (left out when empty), then every row, each line ending in "\n".
std::string formatTable(const Row& header, const std::vector<Row>& rows);

}  // namespace kelvo::cli
