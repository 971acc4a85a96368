#include "support/cli_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

extern char** environ;

namespace gwtest {
namespace {

struct Pipe {
  int read = -1, write = -1;
  Pipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == 0) {
      read = fds[0];
      write = fds[1];
    }
  }
  ~Pipe() {
    closeRead();
    closeWrite();
  }
  void closeRead() {
    if (read >= 0) ::close(read);
    read = -1;
  }
  void closeWrite() {
    if (write >= 0) ::close(write);
    write = -1;
  }
};

}  // namespace

CliResult runCli(const std::vector<std::string>& args, std::string_view input) {
  std::vector<std::string> argv{GATEWISE_TEST_CLI};
  argv.insert(argv.end(), args.begin(), args.end());
  return runProgram(argv, input);
}

CliResult runProgram(const std::vector<std::string>& argv, std::string_view input) {
  CliResult result;
  Pipe in, out, err;
  if (in.read < 0 || out.read < 0 || err.read < 0) return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.read, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.write, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err.write, STDERR_FILENO);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  in.closeRead();
  out.closeWrite();
  err.closeWrite();
  if (rc != 0) return result;

  // Feed standard input and drain both outputs together, so no pipe can fill up and stall us.
  std::signal(SIGPIPE, SIG_IGN);
  std::size_t fed = 0;
  if (input.empty()) in.closeWrite();
  while (out.read >= 0 || err.read >= 0) {
    pollfd fds[3];
    nfds_t count = 0;
    auto watch = [&](int fd, short events) {
      if (fd >= 0) fds[count++] = {fd, events, 0};
    };
    watch(out.read, POLLIN);
    watch(err.read, POLLIN);
    watch(in.write, POLLOUT);
    if (::poll(fds, count, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (nfds_t i = 0; i < count; ++i) {
      if (!fds[i].revents) continue;
      if (fds[i].fd == in.write) {
        ssize_t n = ::write(in.write, input.data() + fed, input.size() - fed);
        if (n > 0) fed += std::size_t(n);
        if (n < 0 || fed == input.size()) in.closeWrite();
        continue;
      }
      char buffer[65536];
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      bool isOut = fds[i].fd == out.read;
      if (n > 0) {
        (isOut ? result.out : result.err).append(buffer, std::size_t(n));
      } else if (n == 0 || errno != EINTR) {
        isOut ? out.closeRead() : err.closeRead();
      }
    }
  }
  in.closeWrite();
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return result;
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace gwtest
