// The gatewise-webfilter program as the content filter sees it: verdicts and dumps scored from its
// word list, bounded whatever a page holds, and the command line around it.
#include <gatewise/ipc.h>
#include <gatewise/mach.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/process.h"
#include "support/temp_root.h"
#include "web_test_support.h"

namespace {

using gw::plist::Value;
using gwtest::web::pageBytes;
using gwtest::web::pageMeta;
using namespace std::chrono_literals;

std::string webfilterProgram() {
  return (std::filesystem::path(GATEWISE_TEST_CLI).parent_path() / "gatewise-webfilter").string();
}

constexpr char kWords[] =
    "# test list\n"
    "threshold 10\n"
    "5 casino\n"
    "4 Poker\n"
    "-3 homework\n";

class WebfilterServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string words = root_.writeFile("/words.txt", kWords);
    service_ = std::make_unique<gwtest::ChildProcess>(
        std::vector<std::string>{webfilterProgram(), "--words", words});
    std::optional<std::string> line = service_->readOutLine(10s);
    ASSERT_TRUE(line && line->starts_with("listening on ")) << line.value_or("(nothing)");
  }

  gwtest::TempRoot root_;
  gwtest::web::FilterStateReset reset_;
  std::unique_ptr<gwtest::ChildProcess> service_;
};

TEST_F(WebfilterServiceTest, ScoresVisibleWordsTitleAndAddress) {
  Value meta = pageMeta("http://casino.example/");
  meta.dictionary()->set(kWFPageTitleKey, "POKER night");
  Value verdict = GWCopyContentEvaluation(
      pageBytes("<html><script>casino casino casino</script><body class=\"casino\">"
                "Casino, casino!</body></html>"),
      meta);
  ASSERT_TRUE(verdict.isDictionary());
  // Two words of the text, one of the title, one of the address; markup and scripts do not count.
  EXPECT_EQ(verdict.dictionary()->get(kWFFilterRestrictedScoreKey).intValue(), 5 + 5 + 4 + 5);
  EXPECT_EQ(verdict.dictionary()->get(kWFFilterWantsToBlockKey), Value(true));
  EXPECT_EQ(verdict.dictionary()->get(kWFFilterDescriptionKey),
            Value("score 19 of 10: casino x3, poker x1"));
  EXPECT_EQ(verdict.dictionary()->get(kWFURLKey), Value("http://casino.example/"));
  EXPECT_FALSE(verdict.dictionary()->contains(kWFDebugMessageKey));

  Value calm = pageMeta("http://school.example/");
  calm.dictionary()->set(kWFDebugPageKey, true);
  verdict = GWCopyContentEvaluation(pageBytes("casino homework homework"), calm);
  ASSERT_TRUE(verdict.isDictionary());
  EXPECT_EQ(verdict.dictionary()->get(kWFFilterRestrictedScoreKey).intValue(), -1);
  EXPECT_EQ(verdict.dictionary()->get(kWFFilterWantsToBlockKey), Value(false));
  const std::string* debug = verdict.dictionary()->get(kWFDebugMessageKey).ifString();
  ASSERT_NE(debug, nullptr);
  EXPECT_NE(debug->find("text:\ncasino homework homework\n"), std::string::npos);
}

TEST_F(WebfilterServiceTest, DumpsOfLargeOrForeignPagesStayBoundedText) {
  // Asked directly, with time to spare: scoring 8 MiB may take longer than the library's one
  // second on a loaded machine or under the sanitizers, and the bound is what is tested here.
  std::string big;
  while (big.size() < (10u << 20)) big += "<p>casino and a lot of other words</p>\n";
  std::optional<std::string> meta =
      gw::plist::writePropertyList(pageMeta("http://big.example/"), gw::plist::Format::XML);
  ASSERT_TRUE(meta);
  mach_port_t port = 0;
  ASSERT_EQ(bootstrap_look_up(bootstrap_port, kGWWebFilterServiceName, &port), KERN_SUCCESS);
  vm_offset_t address = 0;
  mach_msg_type_number_t count = 0;
  ASSERT_EQ(_WFMIGGetPageDump(port, 60000, vm_offset_t(big.data()),
                              mach_msg_type_number_t(big.size()), vm_offset_t(meta->data()),
                              mach_msg_type_number_t(meta->size()), &address, &count),
            KERN_SUCCESS);
  std::string bigDump(reinterpret_cast<const char*>(address), count);
  vm_deallocate(mach_task_self(), address, count);
  mach_port_deallocate(mach_task_self(), port);
  EXPECT_LT(bigDump.size(), 70u * 1024);
  EXPECT_NE(bigDump.find("(first 8 MiB read)"), std::string::npos);
  EXPECT_NE(bigDump.find("[text cut at 64 KiB]"), std::string::npos);

  // Latin-1 bytes are not UTF-8: the dump marks them and stays text.
  std::optional<std::string> dump =
      GWCopyPageDump(pageBytes("caf\xE9 casino"), pageMeta("http://latin.example/"));
  ASSERT_TRUE(dump);
  EXPECT_NE(dump->find("caf? casino"), std::string::npos);

  // Past what one message may carry (64 MiB of regions): refused on the way, no dump, no hang.
  gwtest::web::StderrCapture capture;
  Value huge = Value(gw::plist::Data((64u << 20) + 1, 'a'));
  EXPECT_EQ(GWCopyPageDump(huge, pageMeta("http://huge.example/")), std::nullopt);
  EXPECT_NE(capture.text().find("GWCopyPageDump: MIG error "), std::string::npos);
}

TEST_F(WebfilterServiceTest, DescriptionsThatAreNotDictionariesAreRefused) {
  mach_port_t port = 0;
  ASSERT_EQ(bootstrap_look_up(bootstrap_port, kGWWebFilterServiceName, &port), KERN_SUCCESS);
  std::string page = "casino", meta = "<plist><array/></plist>";
  vm_offset_t data = 0;
  mach_msg_type_number_t count = 0;
  EXPECT_EQ(_WFMIGEvalutePageContent(port, 1000, vm_offset_t(page.data()), page.size(),
                                     vm_offset_t(meta.data()), meta.size(), &data, &count),
            -304);
  EXPECT_EQ(data, 0u);
}

TEST(WebfilterProgramTest, RefusesBadWordListsWithOneLine) {
  gwtest::TempRoot root;
  for (const char* words : {"5\n", "x casino\n", "5 two words\n", "threshold 0\n", "2000 big\n"}) {
    SCOPED_TRACE(words);
    std::string path = root.writeFile("/words.txt", words);
    gwtest::RunResult run =
        gwtest::runProgram({webfilterProgram(), "--words", path}, {.timeout = 10s});
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(run.err.starts_with("gatewise-webfilter: " + path + ": line 1: ")) << run.err;
  }
  gwtest::RunResult missing =
      gwtest::runProgram({webfilterProgram(), "--words", root.at("/none")}, {.timeout = 10s});
  EXPECT_EQ(missing.status, 2);
  // The shipped list is one the program takes.
  std::string shipped = std::string(GATEWISE_TEST_SOURCE_DIR) + "/../data/webfilter/words.txt";
  gwtest::ChildProcess service({webfilterProgram(), "--words", shipped});
  std::optional<std::string> line = service.readOutLine(10s);
  EXPECT_TRUE(line && line->starts_with("listening on ")) << line.value_or("(nothing)");
}

}  // namespace
