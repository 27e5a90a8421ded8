#include "KELVOCore/Multipart.h"

#include <algorithm>
#include <utility>

#include "KELVOCore/Log.h"

namespace kelvo {

namespace {

constexpr std::string_view kCrlf = "\r\n";

void append(Bytes& out, std::string_view text) { out.insert(out.end(), text.begin(), text.end()); }

// The value of `key` in a header's parameters ("name=\"pack\"; filename=x"),
// with its quotes removed; absent when the key is not there.
std::optional<std::string> parameter(std::string_view header, std::string_view key) {
  std::size_t at = 0;
  while ((at = header.find(';', at)) != std::string_view::npos) {
    std::string_view rest = header.substr(++at);
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    if (!rest.starts_with(key) || rest.substr(key.size(), 1) != "=") continue;
    rest.remove_prefix(key.size() + 1);
    if (rest.starts_with('"')) {
      const std::size_t close = rest.find('"', 1);
      if (close == std::string_view::npos) return std::nullopt;
      return std::string(rest.substr(1, close - 1));
    }
    return trimmed(rest.substr(0, rest.find(';')));
  }
  return std::nullopt;
}

// One part's header block (without the blank line) into `part`; false when a
// line has no colon or the part has no Content-Disposition name.
bool readHeaders(std::string_view block, MultipartPart& part) {
  bool named = false;
  while (!block.empty()) {
    const std::size_t end = block.find(kCrlf);
    const std::string_view line = block.substr(0, end);
    block = end == std::string_view::npos ? std::string_view{} : block.substr(end + kCrlf.size());
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return false;
    const std::string name = toLower(trimmed(line.substr(0, colon)));
    const std::string_view value = line.substr(colon + 1);
    if (name == "content-disposition") {
      const auto fieldName = parameter(value, "name");
      if (!fieldName) return false;
      part.name = *fieldName;
      part.fileName = parameter(value, "filename").value_or("");
      named = true;
    } else if (name == "content-type") {
      part.contentType = trimmed(value);
    }
  }
  return named;
}

}  // namespace

std::string MultipartForm::newBoundary() {
  std::string uuid = makeUuid();
  std::erase(uuid, '-');
  return "----KELVO" + uuid;
}

MultipartForm::MultipartForm(std::string boundary) : boundary_(std::move(boundary)) {}

void MultipartForm::appendHead(std::string_view disposition, std::string_view contentType) {
  append(body_, "--");
  append(body_, boundary_);
  append(body_, "\r\nContent-Disposition: form-data; ");
  append(body_, disposition);
  append(body_, "\r\nContent-Type: ");
  append(body_, contentType);
  append(body_, "\r\n\r\n");
}

void MultipartForm::addField(std::string_view name, std::string_view value) {
  appendHead("name=\"" + std::string(name) + "\"", "text/plain; charset=utf-8");
  append(body_, value);
  append(body_, kCrlf);
}

void MultipartForm::addFile(std::string_view name, std::string_view fileName, std::string_view contentType,
                            std::span<const std::uint8_t> data) {
  appendHead("name=\"" + std::string(name) + "\"; filename=\"" + std::string(fileName) + "\"", contentType);
  body_.insert(body_.end(), data.begin(), data.end());
  append(body_, kCrlf);
}

std::string MultipartForm::contentType() const { return "multipart/form-data; boundary=" + boundary_; }

Bytes MultipartForm::finish() {
  append(body_, "--");
  append(body_, boundary_);
  append(body_, "--\r\n");
  return std::exchange(body_, {});
}

std::optional<std::vector<MultipartPart>> parseMultipart(std::span<const std::uint8_t> body,
                                                         std::string_view contentType) {
  if (!toLower(trimmed(contentType)).starts_with("multipart/form-data")) return std::nullopt;
  const auto boundary = parameter(contentType, "boundary");
  if (!boundary || boundary->empty()) return std::nullopt;
  const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
  const std::string delimiter = "--" + *boundary;
  const std::string between = std::string(kCrlf) + delimiter;

  std::size_t at = text.starts_with(delimiter) ? 0 : text.find(between);
  if (at == std::string_view::npos) return std::nullopt;
  at = text.find(delimiter, at) + delimiter.size();
  std::vector<MultipartPart> parts;
  while (true) {
    const std::string_view after = text.substr(at);
    if (after.starts_with("--")) return parts;  // the closing delimiter
    if (!after.starts_with(kCrlf)) return std::nullopt;
    const std::size_t headStart = at + kCrlf.size();
    const std::size_t headEnd = text.find("\r\n\r\n", headStart);
    if (headEnd == std::string_view::npos) return std::nullopt;
    MultipartPart part;
    if (!readHeaders(text.substr(headStart, headEnd - headStart), part) || part.name.empty()) return std::nullopt;
    const std::size_t dataStart = headEnd + 4;
    const std::size_t dataEnd = text.find(between, dataStart);
    if (dataEnd == std::string_view::npos) return std::nullopt;
    part.data = body.subspan(dataStart, dataEnd - dataStart);
    parts.push_back(std::move(part));
    at = dataEnd + between.size();
  }
}

const MultipartPart* findPart(const std::vector<MultipartPart>& parts, std::string_view name) {
  const auto it = std::find_if(parts.begin(), parts.end(), [&](const MultipartPart& p) { return p.name == name; });
  return it == parts.end() ? nullptr : &*it;
}

}  // namespace kelvo
