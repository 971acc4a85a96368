// Checking property lists against python3's plistlib: running the scripts in tests/support/
// (through support/process.h) and the canonical text they print. Call from the test thread only.
#pragma once

#include <gatewise/plist.h>

#include <string>
#include <vector>

#include "support/process.h"

namespace gwtest {

// Runs python3 on tests/support/<script> with args.
RunResult runPythonScript(const std::string& script, const std::vector<std::string>& args,
                          const std::string& input = {});

// The canonical text of a value as tests/support/plistlib_tool.py prints it: every type tagged,
// reals as IEEE bits, strings and data as hex, dates as whole seconds since 1970, dictionary keys
// sorted by bytes. Two readers agree on a document when their canonical texts are equal.
std::string canonicalText(const gw::plist::Value& v);

}  // namespace gwtest
