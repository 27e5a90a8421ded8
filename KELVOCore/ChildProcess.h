// ChildProcess: one helper program run as a child in a process group of its
// own, plus the few process-table and loopback-port questions a supervisor
// asks. Every process-level system call of the core (posix_spawn, kill,
// waitid/waitpid, /proc, probe connects) lives in this file pair, so a port to
// another platform replaces it and nothing else.
//
// Thread-safe: a ChildProcess may be polled, signalled and stopped from several
// threads at once. One lock orders every signal against the single waitpid that
// reaps the child, so a signal can never reach a recycled pid, and a child is
// always reaped by the time its last owner lets go: no zombie outlives it.
// Cost: a poll is one waitid() call; a process-table scan reads two small files
// per process (about 1 ms for a few hundred processes); a listener look reads
// the kernel's TCP tables (the kernel walks its whole socket hash for them:
// about 3 ms of CPU, 8 ms with 1,100 connections open) and the child's
// descriptors, its process tree's only when the child has no such socket.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace kelvo {

// How a child ended.
struct ChildExit {
  int status = 0;         // exit code, or the signal number when `bySignal`
  bool bySignal = false;  // killed by a signal rather than exiting
};

class ChildProcess {
 public:
  // Starts `program` (a path; argv[0] is the path itself) with `args`, in a new
  // process group whose id is the child's pid, in the folder `workDir`, with
  // standard input from /dev/null and standard output and error going to
  // `outputPath`, which is made empty first. Signal mask and dispositions start
  // clean; the environment is inherited; no other descriptor leaks in.
  // Null with `error` set when the output file cannot be made or the program
  // cannot be started.
  static std::shared_ptr<ChildProcess> spawn(const std::string& program, const std::vector<std::string>& args,
                                             const std::string& workDir, const std::string& outputPath,
                                             std::error_code& error);
  // A child still running is killed with its group and reaped.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // False once the child has ended; the first call that sees the end reaps it.
  bool running();
  // How it ended; absent while it runs.
  std::optional<ChildExit> exitStatus();
  // Polls every 10 ms until the child has ended or `limit` passed; true when ended.
  bool waitExit(std::chrono::milliseconds limit);
  // SIGTERM, then a look every 50 ms for up to `grace`; a child still running
  // then gets SIGKILL with its whole process group. Returns once it is reaped.
  void terminate(std::chrono::milliseconds grace);

 private:
  explicit ChildProcess(pid_t pid) : pid_(pid) {}
  // True once the child has ended (reaping it now if needed). `block` waits for
  // the end. REQUIRES: lock_ held.
  bool endedLocked(bool block);

  const pid_t pid_;
  std::mutex lock_;
  std::optional<ChildExit> exit_;
};

// One row of the process table.
struct ProcessEntry {
  pid_t pid = 0;
  pid_t ppid = 0;
  char state = '?';               // as /proc/PID/stat shows it: R, S, Z, …
  std::vector<std::string> argv;  // empty for kernel threads and zombies

  // The program the process runs, as its command line names it: argv[0], or,
  // when argv[0] is a Python interpreter (a basename starting "python"), the
  // script in argv[1]. A script with a shebang line is exec'd as
  // "python3 /path/script …", so this names the script, not the interpreter.
  std::string program() const;
};

// Every process /proc lists; rows that vanish while being read are left out.
std::vector<ProcessEntry> listProcesses();
// One process; absent when it does not exist (any more).
std::optional<ProcessEntry> readProcess(pid_t pid);
// Whether a process with this pid runs (a zombie has ended), also when it
// belongs to another user. A recycled pid reads as alive.
bool processAlive(pid_t pid);
// SIGKILL to one process that is not a child of ours; true when it was sent.
bool killProcess(pid_t pid);

enum class PortProbe { accepts, refused, noSocket };
// A TCP connect to 127.0.0.1:`port` with `sendTimeout` as the socket's send
// time-out, closed at once. noSocket when no socket could even be created.
PortProbe probeLoopback(std::int64_t port, std::chrono::milliseconds sendTimeout);

enum class PortHolder { nobody, tree, other };
// Who holds the listening TCP sockets on `port` that a connect to 127.0.0.1
// reaches (bound to 127.0.0.1, 0.0.0.0, :: or their IPv4-mapped forms):
// nobody; `tree` when every one of them is open in process `root` or one of its
// descendants; `other` when at least one is not (another program's).
// Reads /proc/net/tcp, /proc/net/tcp6 and the descriptor lists of root's tree.
PortHolder loopbackListener(std::int64_t port, pid_t root);

}  // namespace kelvo
