// ServiceClient: how the operator commands of `kelvo` talk to a running
// service. It finds the service's URL (--url, else KELVO_URL, else the URL the
// data root's service published in its lock file, else the data root's
// configuration), sends one request at a time, and turns every failure into a
// CommandError that carries the message for the person at the terminal and the
// exit status for scripts: 3 when no service answers, 1 when the service
// refused (its own localised message).
// lockDataRoot() is the other side of the same ownership: a command that
// writes the data root without a service holds the data root's lock.
//
// Not thread-safe; one per command run.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "KELVOCore/DataRootLock.h"
#include "KELVOCore/Json.h"
#include "KELVOCore/Types.h"

namespace kelvo::cli {

inline constexpr int exitRefused = 1;
inline constexpr int exitUsage = 2;
inline constexpr int exitNoService = 3;

// Thrown by commands; main prints `message` on standard error and exits with `status`.
struct CommandError {
  int status = exitRefused;
  std::string message;
};

struct Reply {
  long status = 0;
  std::map<std::string, std::string> headers;  // names in lower case
  Bytes body;
  std::string header(const std::string& lowerName) const;
  Json json() const;  // the body as a JSON object; null when it is not one
};

class ServiceClient {
 public:
  // An empty `url` means: KELVO_URL when set, else the URL published by the
  // live owner of the data root's lock, else the configuration's baseUrl when
  // the data root has one, else http://127.0.0.1:17150. Finding it never
  // creates files.
  explicit ServiceClient(std::string url);
  const std::string& url() const { return url_; }

  // One exchange. Throws CommandError: exitNoService when nothing answers,
  // exitRefused with the service's message for any status of 400 or more.
  Reply call(const std::string& method, const std::string& path, const Bytes& body = {},
             const std::string& contentType = "application/json",
             std::chrono::milliseconds timeout = std::chrono::minutes(32));
  Json callJson(const std::string& method, const std::string& path, const Json& body = Json());

 private:
  enum class Source { given, lockFile, configuration };
  // Why nothing answered, and where the URL came from.
  std::string noServiceMessage() const;

  std::string url_;
  Source source_ = Source::given;
  DataRootOwner owner_;  // when source_ is lockFile
};

// The data root's lock for a command that writes it without a service.
// Throws CommandError (exitRefused) naming the owner's pid and the data root,
// followed by `whatToDo`, when another process holds it, or the system's
// reason when the lock file cannot be used.
std::unique_ptr<DataRootLock> lockDataRoot(const std::string& whatToDo);

// Percent-encodes a query value.
std::string urlEncode(const std::string& text);

}  // namespace kelvo::cli
