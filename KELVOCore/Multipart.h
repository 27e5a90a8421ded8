// multipart/form-data (RFC 7578) bodies, both ways: MultipartForm writes one
// (the hub upload; the layout is the one the s2 "/generate" form uses too),
// parseMultipart reads one (the hub's own upload endpoint). Parts are written
// with CRLF line ends: "--" boundary, Content-Disposition, Content-Type, blank
// line, the bytes, CRLF; the body ends with "--" boundary "--" CRLF.
//
// Thread-safe: a form belongs to one thread; parseMultipart is a pure function.
// Cost: the form appends into one growing buffer; the parser copies nothing,
// its parts point into the body it was given.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "KELVOCore/Types.h"

namespace kelvo {

class MultipartForm {
 public:
  // A fresh boundary: "----KELVO" and 32 upper-case hex digits.
  static std::string newBoundary();

  explicit MultipartForm(std::string boundary = newBoundary());
  MultipartForm(const MultipartForm&) = delete;
  MultipartForm& operator=(const MultipartForm&) = delete;

  // A text part, sent as "text/plain; charset=utf-8".
  void addField(std::string_view name, std::string_view value);
  // A file part with its file name and content type.
  void addFile(std::string_view name, std::string_view fileName, std::string_view contentType,
               std::span<const std::uint8_t> data);
  // "multipart/form-data; boundary=" + the boundary: the request's Content-Type.
  std::string contentType() const;
  // The body with its closing delimiter; the form is empty afterwards.
  Bytes finish();

 private:
  void appendHead(std::string_view disposition, std::string_view contentType);

  std::string boundary_;
  Bytes body_;
};

struct MultipartPart {
  std::string name;
  std::string fileName;  // "" for a plain field
  std::string contentType;
  std::span<const std::uint8_t> data;  // points into the parsed body
  std::string text() const { return {data.begin(), data.end()}; }
};

// The parts of `body`, in order, when `contentType` is multipart/form-data
// with a boundary and the body follows the layout (a preamble before the first
// delimiter is skipped); absent otherwise. REQUIRES: `body` outlives the parts.
std::optional<std::vector<MultipartPart>> parseMultipart(std::span<const std::uint8_t> body,
                                                         std::string_view contentType);

// The first part called `name`, or null.
const MultipartPart* findPart(const std::vector<MultipartPart>& parts, std::string_view name);

}  // namespace kelvo
