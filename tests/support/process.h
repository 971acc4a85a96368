// Child processes for black-box tests: run a program to completion, or keep one running and read
// its output as it comes.
//
// Programs are started directly (no shell; argv[0] is a path or a name looked up in PATH) with the
// test's own environment plus the given additions. Standard input is fed from a string (empty:
// end of file at once) while standard output and error are drained together, so no pipe can fill
// up and stall either side. A run that outlives its time limit is killed. Call from the test
// thread only: SIGPIPE is ignored while a run feeds standard input.
#pragma once

#include <sys/types.h>

#include <chrono>
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

}  // namespace gwtest
