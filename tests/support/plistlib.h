// Running helper programs from tests: python3 with the scripts in tests/support/, and other
// command-line readers of property lists.
//
// Programs are started directly (no shell) with the given arguments; standard input is fed from a
// string and standard output captured while the program runs, so neither side can block on a full
// pipe. Standard error passes through to the test's output. Call from the test thread only.
#pragma once

#include <gatewise/plist.h>

#include <string>
#include <vector>

namespace gwtest {

struct ProgramResult {
  int exitStatus = -1;  // -1 when the program could not be started or did not exit normally
  std::string output;   // everything written to standard output
};

// Runs argv[0] (an absolute path, or a name looked up in PATH) with argv.
ProgramResult runProgram(const std::vector<std::string>& argv, const std::string& input = {});

// Runs python3 on tests/support/<script> with args.
ProgramResult runPythonScript(const std::string& script, const std::vector<std::string>& args,
                              const std::string& input = {});

// The canonical text of a value as tests/support/plistlib_tool.py prints it: every type tagged,
// reals as IEEE bits, strings and data as hex, dates as whole seconds since 1970, dictionary keys
// sorted by bytes. Two readers agree on a document when their canonical texts are equal.
std::string canonicalText(const gw::plist::Value& v);

}  // namespace gwtest
