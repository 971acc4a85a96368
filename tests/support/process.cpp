#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

extern char** environ;

namespace gwtest {
namespace {

struct Spawned {
  pid_t pid;
  int out;
  int err;
};

Spawned spawn(const std::vector<std::string>& argv, const Environment& environment) {
  std::map<std::string, std::string> merged;
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
  std::vector<std::string> argvCopy = argv;
  for (auto& s : argvCopy) args.push_back(s.data());
  args.push_back(nullptr);

  int outPipe[2], errPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  if (::pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
  pid_t pid;
  int r = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  if (r != 0) {
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    throw std::runtime_error("cannot start " + argv[0]);
  }
  return {pid, outPipe[0], errPipe[0]};
}

int reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const Environment& environment) {
  Spawned child = spawn(argv, environment);
  ProcessResult result;
  pollfd fds[2] = {{child.out, POLLIN, 0}, {child.err, POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buffer[4096];
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, std::size_t(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  result.exitStatus = reap(child.pid);
  return result;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const Environment& environment) {
  Spawned child = spawn(argv, environment);
  pid_ = child.pid;
  out_ = child.out;
  err_ = child.err;
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

}  // namespace gwtest
