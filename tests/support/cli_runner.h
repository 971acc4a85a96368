// Runs the built `gatewise` tool (GATEWISE_TEST_CLI) as a black box: posix_spawn, no shell, with
// the given standard input; collects its exit status, standard output and standard error.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace gwtest {

struct CliResult {
  int status = -1;  // exit status, or -1 if the tool died by a signal or could not start
  std::string out;
  std::string err;
};

// args exclude the program name. The tool inherits the environment (GATEWISE_ROOT of a TempRoot).
CliResult runCli(const std::vector<std::string>& args, std::string_view input = {});

// Runs any program the same way (argv[0] is the program's path).
CliResult runProgram(const std::vector<std::string>& argv, std::string_view input = {});

}  // namespace gwtest
