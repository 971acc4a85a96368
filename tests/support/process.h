// Child processes for black-box tests: run one to completion, or keep one running and read its
// output as it comes. Environment additions are applied on top of the test's own environment.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace gwtest {

using Environment = std::map<std::string, std::string>;

struct ProcessResult {
  int exitStatus = -1;  // -1 when it did not exit normally
  std::string out;
  std::string err;
};

// Runs argv[0] (a path) with its arguments and waits for it.
ProcessResult runProcess(const std::vector<std::string>& argv, const Environment& environment = {});

// A running child with piped standard output and error; killed and reaped on destruction.
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, const Environment& environment = {});
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
