// ConsoleFiles: the browser console's files (HTML, CSS, ES modules), embedded
// into the binary at build time from the repository's console/ folder by
// cmake/EmbedFiles.cmake, so an installed kelvo serves them with no file
// beside it. Editing a console file and building again embeds the new bytes.
//
// Thread-safety: the table is constant data; any thread may look up. Cost: a
// linear scan over a few dozen names, no allocation.
#pragma once

#include <string_view>

namespace kelvo {

struct ConsoleFile {
  std::string_view path;         // relative to console/, e.g. "views/speak.js"
  std::string_view contentType;  // from the extension, with charset for text
  std::string_view etag;         // strong tag, quoted: the content's SHA-256 prefix
  std::string_view bytes;
};

// The file at `path` (exact, case-sensitive), or null.
const ConsoleFile* findConsoleFile(std::string_view path);

}  // namespace kelvo
