// Who a log line names as its caller (lambdas name the function around them), and the C entry
// GWFrameworkLog that host programs in C call.
#include <gatewise/framework_log.h>
#include <gatewise/log.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

std::string callerOf(const std::string& line) { return line.substr(0, line.find(" [")); }

void entryPointWithLambdas() {
  auto inner = [] { GW_LOG(0, "from a lambda"); };
  inner();
  [] { [] { GW_LOG(0, "from a nested lambda"); }(); }();
  auto generic = [](auto value) { GW_LOG(0, "generic %d", value); };
  generic(3);
  [] { GW_LOG_CAUGHT(std::runtime_error("thrown in a lambda")); }();
}

struct Widget {
  void method(int (*)(int)) const {
    [] { GW_LOG(0, "in a method"); }();
  }
};

template <class T>
void templated(T) {
  [] { GW_LOG(0, "in a template"); }();
}

struct Functor {
  void operator()() const { GW_LOG(0, "a call operator of its own"); }
};

TEST(LogCallerTest, LambdasNameTheFunctionAroundThem) {
  gwtest::LogCapture log(0);
  entryPointWithLambdas();
  Widget().method(nullptr);
  templated(2.5);
  Functor()();
  GW_LOG(0, "plain");
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 8u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(callerOf(lines[i]), "entryPointWithLambdas") << lines[i];
  EXPECT_NE(lines[3].find("*** Caught exception: thrown in a lambda"), std::string::npos);
  EXPECT_EQ(callerOf(lines[4]), "method");
  EXPECT_EQ(callerOf(lines[5]), "templated");
  EXPECT_EQ(callerOf(lines[6]), "operator()");  // not a lambda: its own name stands
  EXPECT_EQ(callerOf(lines[7]), "TestBody");
}

TEST(LogCallerTest, CEntryFormatsPrintfArgumentsAndTakesCStringsForObjects) {
  gwtest::LogCapture log(1);
  ::GWFrameworkLog(0, "cFunction", 7, "%s has %d items, %@ 100%% %%@", "list", 3, "text");
  ::GWFrameworkLog(1, nullptr, 8, "%05.1f|%x|%lld", 2.25, 255u, -4LL);
  ::GWFrameworkLog(2, "quiet", 9, "above the threshold");
  std::string longText(2000, 'x');
  ::GWFrameworkLog(0, "long", 10, "%s!", longText.c_str());
  auto lines = log.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "cFunction [7] -- list has 3 items, text 100% %@");
  EXPECT_EQ(lines[1], "unknown [8] -- 002.2|ff|-4");
  EXPECT_EQ(lines[2], "long [10] -- " + longText + "!");
}

TEST(LogCallerTest, HeaderCompilesAsCAndTheEntryLinksUnmangled) {
  gwtest::TempRoot root;
  std::string source =
      root.writeFile("/src/host.c",
                     "#include <gatewise/framework_log.h>\n"
                     "int main(void) {\n"
                     "  gGWFrameworkLoggingLevel = 1;\n"
                     "  GWFrameworkLog(0, __func__, __LINE__, \"%d %@\", 1, \"x\");\n"
                     "  return 0;\n"
                     "}\n");
  std::string library = GATEWISE_TEST_LIBRARY;
  auto result = gwtest::runProgram({"cc", "-std=c11", "-Wall", "-Wextra", "-Werror",
                                    "-I" GATEWISE_TEST_SOURCE_DIR "/../include", source, "-o",
                                    root.at("/host"), library});
  EXPECT_EQ(result.status, 0) << result.out << result.err;
}

}  // namespace
