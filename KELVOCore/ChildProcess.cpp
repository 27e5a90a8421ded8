#include "KELVOCore/ChildProcess.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <set>
#include <sstream>
#include <thread>

#include "KELVOCore/Files.h"

extern char** environ;

namespace kelvo {

namespace {

std::error_code errnoCode(int e) { return {e, std::generic_category()}; }

// posix_spawn's two attribute objects, destroyed on every path out.
struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attrs;
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attrs);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attrs);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  int prepare(int outputFd, const std::string& workDir) {
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    int rc = posix_spawnattr_setflags(&attrs, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    if (rc == 0) rc = posix_spawnattr_setpgroup(&attrs, 0);
    if (rc == 0) rc = posix_spawnattr_setsigmask(&attrs, &none);
    if (rc == 0) rc = posix_spawnattr_setsigdefault(&attrs, &all);
    if (rc == 0) rc = posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (rc == 0) rc = posix_spawn_file_actions_adddup2(&actions, outputFd, 1);
    if (rc == 0) rc = posix_spawn_file_actions_adddup2(&actions, outputFd, 2);
    if (rc == 0) rc = posix_spawn_file_actions_addchdir_np(&actions, workDir.c_str());
    // Sockets and files of the host (libcurl's among them) must not stay open
    // in a child that may outlive it.
    if (rc == 0) rc = posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    return rc;
  }
};

// One address column of /proc/net/tcp(6): the kernel prints each 32-bit word
// of the address as the hexadecimal value of the word in memory, so copying
// the parsed words back gives the address in network order on any host.
bool reachedFromLoopback(std::string_view hex) {
  if (hex.size() != 8 && hex.size() != 32) return false;
  std::uint32_t words[4] = {};
  for (std::size_t i = 0; i < hex.size() / 8; ++i) {
    const char* first = hex.data() + i * 8;
    if (std::from_chars(first, first + 8, words[i], 16).ec != std::errc()) return false;
  }
  const std::uint32_t loopback = htonl(INADDR_LOOPBACK);
  if (hex.size() == 8) return words[0] == loopback || words[0] == INADDR_ANY;
  in6_addr address;
  std::memcpy(&address, words, sizeof address);
  if (IN6_IS_ADDR_UNSPECIFIED(&address)) return true;
  return IN6_IS_ADDR_V4MAPPED(&address) && (words[3] == loopback || words[3] == INADDR_ANY);
}

// Adds the inodes of the sockets listening on `port` in one /proc/net table
// that a connect to 127.0.0.1 reaches.
void addListeningInodes(const std::string& table, std::int64_t port, std::set<std::uint64_t>& out) {
  const auto bytes = readFile(table);
  if (!bytes) return;
  std::istringstream lines(std::string(bytes->begin(), bytes->end()));
  std::string line;
  std::getline(lines, line);  // column titles
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout;
    std::uint64_t inode = 0;
    if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout >> inode)) {
      continue;
    }
    const std::size_t colon = local.find(':');
    std::int64_t localPort = -1;
    if (state != "0A" || colon == std::string::npos) continue;  // 0A: TCP_LISTEN
    std::from_chars(local.data() + colon + 1, local.data() + local.size(), localPort, 16);
    if (localPort == port && reachedFromLoopback(std::string_view(local).substr(0, colon))) out.insert(inode);
  }
}

std::set<std::uint64_t> listeningInodes(std::int64_t port) {
  std::set<std::uint64_t> out;
  addListeningInodes("/proc/net/tcp", port, out);
  addListeningInodes("/proc/net/tcp6", port, out);
  return out;
}

// `root` and every process descending from it.
std::set<pid_t> processTree(pid_t root) {
  const std::vector<ProcessEntry> all = listProcesses();
  std::set<pid_t> tree{root};
  for (std::size_t before = 0; before != tree.size();) {
    before = tree.size();
    for (const ProcessEntry& p : all) {
      if (tree.contains(p.ppid)) tree.insert(p.pid);
    }
  }
  return tree;
}

// Removes from `inodes` every socket that process `pid` holds open.
void dropSocketsOf(pid_t pid, std::set<std::uint64_t>& inodes) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd/";
  DIR* fds = ::opendir(dir.c_str());
  if (fds == nullptr) return;
  while (const dirent* e = ::readdir(fds)) {
    char target[64];
    const ssize_t n = ::readlinkat(::dirfd(fds), e->d_name, target, sizeof target - 1);
    if (n <= 0) continue;
    const std::string_view link(target, static_cast<std::size_t>(n));
    if (!link.starts_with("socket:[")) continue;
    std::uint64_t inode = 0;
    std::from_chars(link.data() + 8, link.data() + link.size(), inode);
    inodes.erase(inode);
  }
  ::closedir(fds);
}

ChildExit exitFrom(int status) {
  if (WIFSIGNALED(status)) return {WTERMSIG(status), true};
  return {WEXITSTATUS(status), false};
}

}  // namespace

std::shared_ptr<ChildProcess> ChildProcess::spawn(const std::string& program, const std::vector<std::string>& args,
                                                  const std::string& workDir, const std::string& outputPath,
                                                  std::error_code& error) {
  const int out = ::open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  if (out < 0) {
    error = errnoCode(errno);
    return nullptr;
  }
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  SpawnSetup setup;
  pid_t pid = 0;
  int rc = setup.prepare(out, workDir);
  if (rc == 0) rc = posix_spawn(&pid, program.c_str(), &setup.actions, &setup.attrs, argv.data(), environ);
  ::close(out);
  if (rc != 0) {
    error = errnoCode(rc);
    return nullptr;
  }
  error.clear();
  return std::shared_ptr<ChildProcess>(new ChildProcess(pid));
}

ChildProcess::~ChildProcess() {
  std::lock_guard guard(lock_);
  if (!endedLocked(false)) {
    ::kill(-pid_, SIGKILL);
    endedLocked(true);
  }
}

bool ChildProcess::endedLocked(bool block) {
  if (exit_) return true;
  int status = 0;
  pid_t rc;
  do {
    rc = ::waitpid(pid_, &status, block ? 0 : WNOHANG);
  } while (rc < 0 && errno == EINTR);
  if (rc == 0) return false;
  // rc < 0 is ECHILD: a host that ignores SIGCHLD had it reaped already. Gone either way.
  exit_ = rc < 0 ? ChildExit{-1, false} : exitFrom(status);
  return true;
}

bool ChildProcess::running() {
  std::lock_guard guard(lock_);
  return !endedLocked(false);
}

std::optional<ChildExit> ChildProcess::exitStatus() {
  std::lock_guard guard(lock_);
  endedLocked(false);
  return exit_;
}

bool ChildProcess::waitExit(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (running()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

void ChildProcess::terminate(std::chrono::milliseconds grace) {
  {
    std::lock_guard guard(lock_);
    if (endedLocked(false)) return;
    ::kill(pid_, SIGTERM);
  }
  const auto deadline = std::chrono::steady_clock::now() + grace;
  while (std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::lock_guard guard(lock_);
    if (endedLocked(false)) return;
  }
  std::lock_guard guard(lock_);
  if (endedLocked(false)) return;
  ::kill(-pid_, SIGKILL);
  endedLocked(true);
}

// ---- process table ------------------------------------------------------------

std::string ProcessEntry::program() const {
  if (argv.empty()) return {};
  const std::string& first = argv[0];
  const std::size_t slash = first.rfind('/');
  const std::string_view base =
      slash == std::string::npos ? std::string_view(first) : std::string_view(first).substr(slash + 1);
  if (base.starts_with("python") && argv.size() > 1) return argv[1];
  return first;
}

std::optional<ProcessEntry> readProcess(pid_t pid) {
  const std::string dir = "/proc/" + std::to_string(pid) + "/";
  const auto stat = readFile(dir + "stat");
  if (!stat) return std::nullopt;
  // "pid (comm) S ppid …": comm may hold spaces and parentheses, so the fields
  // are read after the last ')'.
  const std::string text(stat->begin(), stat->end());
  const std::size_t close = text.rfind(')');
  if (close == std::string::npos || close + 4 >= text.size()) return std::nullopt;
  ProcessEntry entry;
  entry.pid = pid;
  entry.state = text[close + 2];
  const char* first = text.data() + close + 4;
  const char* last = text.data() + text.size();
  if (std::from_chars(first, last, entry.ppid).ec != std::errc()) return std::nullopt;

  if (const auto cmdline = readFile(dir + "cmdline")) {
    std::string arg;
    for (const std::uint8_t c : *cmdline) {
      if (c == 0) {
        entry.argv.push_back(std::move(arg));
        arg.clear();
      } else {
        arg.push_back(static_cast<char>(c));
      }
    }
    if (!arg.empty()) entry.argv.push_back(std::move(arg));
  }
  return entry;
}

bool processAlive(pid_t pid) {
  if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM)) return false;
  const auto entry = readProcess(pid);
  return !entry || entry->state != 'Z';  // /proc may hide other users' processes
}

std::vector<ProcessEntry> listProcesses() {
  std::vector<ProcessEntry> out;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return out;
  while (const dirent* e = ::readdir(proc)) {
    pid_t pid = 0;
    const std::string_view name(e->d_name);
    const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), pid);
    if (ec != std::errc() || end != name.data() + name.size()) continue;
    if (auto entry = readProcess(pid)) out.push_back(std::move(*entry));
  }
  ::closedir(proc);
  return out;
}

bool killProcess(pid_t pid) { return pid > 0 && ::kill(pid, SIGKILL) == 0; }

PortProbe probeLoopback(std::int64_t port, std::chrono::milliseconds sendTimeout) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return PortProbe::noSocket;
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(sendTimeout.count() / 1000);
  tv.tv_usec = static_cast<suseconds_t>((sendTimeout.count() % 1000) * 1000);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return connected ? PortProbe::accepts : PortProbe::refused;
}

PortHolder loopbackListener(std::int64_t port, pid_t root) {
  const std::set<std::uint64_t> listening = listeningInodes(port);
  if (listening.empty()) return PortHolder::nobody;
  std::set<std::uint64_t> foreign = listening;
  if (root > 0) {
    // Mostly the child itself listens; its descendants are looked up only if not.
    dropSocketsOf(root, foreign);
    if (!foreign.empty()) {
      for (const pid_t pid : processTree(root)) dropSocketsOf(pid, foreign);
    }
  }
  const bool oursSeen = foreign.size() < listening.size();
  if (!foreign.empty()) {
    // A process exiting while we look loses its descriptors before its socket
    // leaves the table: only a socket still listening now is someone else's.
    const std::set<std::uint64_t> still = listeningInodes(port);
    std::erase_if(foreign, [&](std::uint64_t inode) { return !still.contains(inode); });
    if (!foreign.empty()) return PortHolder::other;
  }
  return oursSeen ? PortHolder::tree : PortHolder::nobody;
}

}  // namespace kelvo
