// What `kelvo` says when its command line does not parse: an unknown command
// or option is named, with the nearest known one suggested, so a typing
// mistake costs one glance instead of a trip through --help.
//
// Not thread-safe (reads the parsed application); runs once per process.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

namespace kelvo::cli {

// The candidate a person most likely meant by `word`: one that starts with it
// (at least two characters typed), else the closest within two edits, or a
// third of its length when longer (a swap of neighbours counts as one; words
// under three characters allow one). Empty when none is close.
std::string nearestName(std::string_view word, const std::vector<std::string>& candidates);

// The message for a failed parse of `app` (after app.parse threw `error`):
// unknown commands and options named with a suggestion, CLI11's own text
// otherwise, and a pointer to --help.
std::string explainParseError(const CLI::App& app, const CLI::ParseError& error);

}  // namespace kelvo::cli
