// Child processes for tests: run a program to completion, keep one running and read its output as
// it comes, or run a piece of the test itself in a forked child.
//
// Programs are started directly (no shell; argv[0] is a path or a name looked up in PATH) with the
// test's own environment plus the given additions. Standard input is fed from a string (empty:
// end of file at once) while standard output and error are drained together, so no pipe can fill
// up and stall either side. A run that outlives its time limit is killed. Call from the test
// thread only: SIGPIPE is ignored while a run feeds standard input.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace gwtest {

using Environment = std::map<std::string, std::string>;

struct RunOptions {
  std::string input{};                       // standard input
  Environment environment{};                 // added to (or replacing) the test's environment
  std::chrono::milliseconds timeout{60000};  // the program is killed after this long
};

struct RunResult {
  int status = -1;  // exit status; -1 when it could not start, died by a signal or timed out
  std::string out;
  std::string err;
};

// Runs argv[0] with its arguments and waits for it.
RunResult runProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// Runs the built `gatewise` tool (GATEWISE_TEST_CLI); args exclude the program name.
RunResult runCli(const std::vector<std::string>& args, const RunOptions& options = {});

// A running child with piped standard output and error (standard input is /dev/null); killed and
// reaped on destruction.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& argv, const Environment& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The next whole line of standard output (or error), without its newline; nullopt when the
  // stream ends or timeout passes first.
  std::optional<std::string> readOutLine(std::chrono::milliseconds timeout);
  std::optional<std::string> readErrLine(std::chrono::milliseconds timeout);
  // Waits for the child to exit; its exit status, or -1.
  int wait();

 private:
  std::optional<std::string> readLine(int fd, std::string& buffer,
                                      std::chrono::milliseconds timeout);
  pid_t pid_ = -1;
  int out_ = -1, err_ = -1;
  std::string outBuffer_, errBuffer_;
};

// Forks, runs body in the child and returns its result as the child's exit status (0..255), or -1
// if the child died by a signal or could not be started. For failures that need a process of their
// own (a file size limit, an unprivileged user).
int runInChild(const std::function<int()>& body);

// In a child: switches to uid/gid 65534 when running as root (otherwise the caller is unprivileged
// already). The tests run as root in CI, where permission bits alone refuse nothing, so a child
// drops to this user to meet a read-only folder. Returns false if the switch failed.
bool dropToUnprivilegedUser();

}  // namespace gwtest
