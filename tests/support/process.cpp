#include "support/process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "platform/fs/unique_fd.h"

extern char** environ;

namespace gwtest {
namespace {

using Fd = gw::fs::UniqueFd;

struct Pipe {
  Fd read, write;
  bool open() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    read.reset(fds[0]);
    write.reset(fds[1]);
    return true;
  }
};

struct Spawned {
  pid_t pid = -1;
  Fd in, out, err;  // our ends: in is empty when standard input is /dev/null
};

// Starts argv with piped standard output and error, and standard input piped (withInput) or
// /dev/null. pid stays -1 when the program cannot be started.
void spawn(const std::vector<std::string>& argv, const Environment& environment, bool withInput,
           Spawned& child) {
  Environment merged;
  for (char** e = environ; *e; ++e) {
    std::string entry = *e;
    std::size_t eq = entry.find('=');
    if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [key, value] : environment) merged[key] = value;
  std::vector<std::string> envStrings;
  for (const auto& [key, value] : merged) envStrings.push_back(key + "=" + value);
  std::vector<char*> envp, args;
  for (auto& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  if (argv.empty()) return;

  Pipe in, out, err;
  if ((withInput && !in.open()) || !out.open() || !err.open()) return;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (withInput) {
    posix_spawn_file_actions_adddup2(&actions, in.read.get(), STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, out.write.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err.write.get(), STDERR_FILENO);
  pid_t pid = -1;
  int rc = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return;
  child.pid = pid;
  child.in.reset(in.write.release());
  child.out.reset(out.read.release());
  child.err.reset(err.read.release());
}

int reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

RunResult runProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  RunResult result;
  Spawned child;
  spawn(argv, options.environment, true, child);
  if (child.pid < 0) return result;

  // A child that exits without reading all its input must not kill the test with SIGPIPE.
  struct sigaction ignore = {}, previous = {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &previous);
  const std::string& input = options.input;
  std::size_t fed = 0;
  if (input.empty()) child.in.reset();
  auto deadline = std::chrono::steady_clock::now() + options.timeout;
  bool timedOut = false;
  while (child.out.get() >= 0 || child.err.get() >= 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timedOut = true;
      break;
    }
    pollfd fds[3];
    Fd* owners[3];
    nfds_t count = 0;
    auto watch = [&](Fd& fd, short events) {
      if (fd.get() < 0) return;
      owners[count] = &fd;
      fds[count++] = {fd.get(), events, 0};
    };
    watch(child.out, POLLIN);
    watch(child.err, POLLIN);
    watch(child.in, POLLOUT);
    int ready = ::poll(fds, count, int(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) break;
    for (nfds_t i = 0; i < count; ++i) {
      if (!fds[i].revents) continue;
      if (owners[i] == &child.in) {
        ssize_t n = ::write(fds[i].fd, input.data() + fed, input.size() - fed);
        if (n > 0) fed += std::size_t(n);
        if (n < 0 || fed == input.size()) child.in.reset();
        continue;
      }
      char buffer[65536];
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        (owners[i] == &child.out ? result.out : result.err).append(buffer, std::size_t(n));
      } else if (n == 0 || errno != EINTR) {
        owners[i]->reset();
      }
    }
  }
  child.in.reset();
  ::sigaction(SIGPIPE, &previous, nullptr);
  if (timedOut) ::kill(child.pid, SIGKILL);
  int status = reap(child.pid);
  result.status = timedOut ? -1 : status;
  return result;
}

RunResult runCli(const std::vector<std::string>& args, const RunOptions& options) {
  std::vector<std::string> argv{GATEWISE_TEST_CLI};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv, options);
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Environment& environment) {
  Spawned child;
  spawn(argv, environment, false, child);
  if (child.pid < 0) throw std::runtime_error("cannot start " + (argv.empty() ? "" : argv[0]));
  pid_ = child.pid;
  out_ = child.out.release();
  err_ = child.err.release();
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    reap(pid_);
  }
  if (out_ >= 0) ::close(out_);
  if (err_ >= 0) ::close(err_);
}

std::optional<std::string> ChildProcess::readOutLine(std::chrono::milliseconds timeout) {
  return readLine(out_, outBuffer_, timeout);
}

std::optional<std::string> ChildProcess::readErrLine(std::chrono::milliseconds timeout) {
  return readLine(err_, errBuffer_, timeout);
}

std::optional<std::string> ChildProcess::readLine(int fd, std::string& buffer,
                                                  std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (std::size_t nl = buffer.find('\n'); nl != std::string::npos) {
      std::string line = buffer.substr(0, nl);
      buffer.erase(0, nl + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd p{fd, POLLIN, 0};
    int r = ::poll(&p, 1, int(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return std::nullopt;
    char chunk[4096];
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) return std::nullopt;
    buffer.append(chunk, std::size_t(n));
  }
}

int ChildProcess::wait() {
  int status = reap(pid_);
  pid_ = -1;
  return status;
}

int runInChild(const std::function<int()>& body) {
  pid_t pid = ::fork();
  if (pid < 0) return -1;
  if (pid == 0) ::_exit(body() & 0xff);
  return reap(pid);
}

bool dropToUnprivilegedUser() {
  if (::geteuid() != 0) return true;
  constexpr uid_t kNobody = 65534;
  return ::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0;
}

}  // namespace gwtest
