// Runs one of the Python doubles of tools/ (model hub, release feed, sharing
// hub) for a test: started on a free loopback port of its own choosing, which
// it prints first; stopped by closing its standard input when the object goes.
// Also runs the self-test binary, whose live scenarios talk to the doubles.
#pragma once

#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "KELVOCore/HttpClient.h"

extern char** environ;

namespace kelvo::test {

class PythonDouble {
 public:
  PythonDouble(const std::string& script, std::vector<std::string> args) {
    int out[2];
    int in[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(in, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe";
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    args.insert(args.begin(), {"python3", std::string(KELVO_TOOLS_DIR) + "/" + script});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int rc = ::posix_spawnp(&pid_, "python3", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(in[0]);
    stdin_ = in[1];
    if (rc != 0) {
      ADD_FAILURE() << "cannot start " << script;
      pid_ = -1;
      ::close(out[0]);
      return;
    }
    // The first line is "PORT <n>".
    std::string line;
    char c = 0;
    while (::read(out[0], &c, 1) == 1 && c != '\n') line += c;
    ::close(out[0]);
    if (std::sscanf(line.c_str(), "PORT %d", &port_) != 1) ADD_FAILURE() << script << " said: " << line;
  }
  ~PythonDouble() {
    if (stdin_ >= 0) ::close(stdin_);
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  PythonDouble(const PythonDouble&) = delete;
  PythonDouble& operator=(const PythonDouble&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // POST /_mode?m=<mode>: the doubles that have modes switch at run time.
  void setMode(const std::string& mode) const {
    HttpClientRequest request;
    request.method = "POST";
    request.url = url() + "/_mode?m=" + mode;
    request.body = {'x'};
    ASSERT_EQ(httpExchange(request).status, 200) << mode;
  }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  int port_ = 0;
};

// Runs `kelvo-selftest <mode>` in English with `env` ("NAME=value ...") in
// front; its standard output and exit status.
inline std::pair<std::string, int> runSelfTest(const std::string& mode, const std::string& env) {
  FILE* pipe = ::popen((env + " LANGUAGE=en " KELVO_SELFTEST_BIN " " + mode).c_str(), "r");
  std::string out;
  char buffer[256];
  while (pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe) != nullptr) out += buffer;
  const int status = pipe == nullptr ? -1 : ::pclose(pipe);
  return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

}  // namespace kelvo::test
