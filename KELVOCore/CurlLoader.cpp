// libcurl, opened on first use instead of linked. A linked libcurl brings two
// dozen libraries (TLS, Kerberos, LDAP, SSH, IDN ...) that are mapped,
// relocated and initialised before main() of every kelvo program: about 4 ms
// of each start, where `kelvo serve` takes 20 to its first answer. The
// service needs none of them until it first talks HTTP to another process,
// and with the placeholder engine it may never do.
//
// This file defines the libcurl functions the rest of the code calls, each
// forwarding to the library's own, so HttpClient and HttpDownload keep using
// <curl/curl.h> as they would with a linked library. When libcurl cannot be
// loaded, curl_global_init and curl_easy_init fail (their callers report that
// no HTTP client handle could be made) and the reason goes to standard error
// once, where the dynamic loader's own complaint would have gone: it is a
// fault of the installation, and a command-line client keeps no log. The
// functions that take a handle cannot be reached without one.
#include <curl/curl.h>
#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>

namespace {

// The soname of the ABI <curl/curl.h> describes, as Debian's libcurl4 installs it.
constexpr const char* kLibrary = "libcurl.so.4";

struct Curl {
  decltype(&curl_global_init) globalInit = nullptr;
  decltype(&curl_easy_init) easyInit = nullptr;
  decltype(&curl_easy_setopt) easySetopt = nullptr;
  decltype(&curl_easy_perform) easyPerform = nullptr;
  decltype(&curl_easy_cleanup) easyCleanup = nullptr;
  decltype(&curl_easy_getinfo) easyGetinfo = nullptr;
  decltype(&curl_easy_strerror) easyStrerror = nullptr;
  decltype(&curl_easy_reset) easyReset = nullptr;
  decltype(&curl_slist_append) slistAppend = nullptr;
  decltype(&curl_slist_free_all) slistFreeAll = nullptr;
};

template <typename Function>
bool resolve(void* library, const char* name, Function& into) {
  into = reinterpret_cast<Function>(::dlsym(library, name));
  return into != nullptr;
}

Curl open() {
  Curl c;
  void* library = ::dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
  const bool complete =
      library != nullptr && resolve(library, "curl_global_init", c.globalInit) &&
      resolve(library, "curl_easy_init", c.easyInit) && resolve(library, "curl_easy_setopt", c.easySetopt) &&
      resolve(library, "curl_easy_perform", c.easyPerform) && resolve(library, "curl_easy_cleanup", c.easyCleanup) &&
      resolve(library, "curl_easy_getinfo", c.easyGetinfo) && resolve(library, "curl_easy_strerror", c.easyStrerror) &&
      resolve(library, "curl_easy_reset", c.easyReset) && resolve(library, "curl_slist_append", c.slistAppend) &&
      resolve(library, "curl_slist_free_all", c.slistFreeAll);
  if (complete) return c;
  const char* why = ::dlerror();
  std::fprintf(stderr, "kelvo: cannot load %s (%s); nothing can be sent over HTTP until Debian's libcurl4 is installed\n",
               kLibrary, why != nullptr ? why : "a function is missing");
  return Curl{};
}

// The library, loaded by the first caller; all members null when it could not be.
const Curl& curl() {
  static const Curl loaded = open();
  return loaded;
}

}  // namespace

extern "C" {

CURLcode curl_global_init(long flags) { return curl().globalInit ? curl().globalInit(flags) : CURLE_FAILED_INIT; }

CURL* curl_easy_init() { return curl().easyInit ? curl().easyInit() : nullptr; }

// libcurl reads the one argument after the option by the option's type, which
// the option's number encodes; it is passed on read the same way.
CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  va_list args;
  va_start(args, option);
  CURLcode rc;
  if (option < CURLOPTTYPE_OBJECTPOINT) {
    rc = curl().easySetopt(handle, option, va_arg(args, long));
  } else if (option >= CURLOPTTYPE_FUNCTIONPOINT && option < CURLOPTTYPE_OFF_T) {
    rc = curl().easySetopt(handle, option, va_arg(args, void (*)()));
  } else if (option >= CURLOPTTYPE_OFF_T && option < CURLOPTTYPE_BLOB) {
    rc = curl().easySetopt(handle, option, va_arg(args, curl_off_t));
  } else {
    rc = curl().easySetopt(handle, option, va_arg(args, void*));  // objects, strings, lists, blobs
  }
  va_end(args);
  return rc;
}

CURLcode curl_easy_perform(CURL* handle) { return curl().easyPerform(handle); }

void curl_easy_cleanup(CURL* handle) {
  if (handle != nullptr) curl().easyCleanup(handle);
}

// Every kind of information is written through the one pointer that follows.
CURLcode curl_easy_getinfo(CURL* handle, CURLINFO info, ...) {
  va_list args;
  va_start(args, info);
  const CURLcode rc = curl().easyGetinfo(handle, info, va_arg(args, void*));
  va_end(args);
  return rc;
}

const char* curl_easy_strerror(CURLcode code) {
  return curl().easyStrerror ? curl().easyStrerror(code) : "libcurl is not available";
}

void curl_easy_reset(CURL* handle) { curl().easyReset(handle); }

curl_slist* curl_slist_append(curl_slist* list, const char* text) {
  return curl().slistAppend ? curl().slistAppend(list, text) : nullptr;
}

void curl_slist_free_all(curl_slist* list) {
  if (list != nullptr) curl().slistFreeAll(list);
}

}  // extern "C"
