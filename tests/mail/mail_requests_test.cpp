// The mail and chat requests as the daemon receives them: payloads, the 100K limit, bad arguments.
#include <gatewise/core.h>
#include <gatewise/mail.h>
#include <gatewise/plist.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

namespace plist = gw::plist;
using gwtest::LogCapture;
using gwtest::TempRoot;
using gwtest::TestDaemon;

plist::DictionaryRef payloadOf(const gwtest::ReceivedRequest& request) {
  plist::ReadResult read = plist::readPropertyList(
      std::span<const std::uint8_t>(request.bytes.at(0).data(), request.bytes.at(0).size()));
  EXPECT_TRUE(read) << read.error;
  return read && read.value->isDictionary() ? read.value->dictionary() : nullptr;
}

// The XML of an add request with one contact of n letters.
std::size_t addPayloadSize(std::size_t n) {
  auto request = plist::Value::newDictionary(
      {{"userName", "mia"}, {"contactList", plist::Value::newArray({std::string(n, 'a')})}});
  return plist::writePropertyList(request, plist::Format::XML)->size();
}

TEST(MailRequestsTest, AddPayloadOfExactly100KIsSentAndOneByteMoreIsRefused) {
  TempRoot root;
  TestDaemon daemon;
  LogCapture log(2);
  std::size_t fits = kGWMailPayloadLimit - addPayloadSize(0);
  ASSERT_EQ(addPayloadSize(fits), kGWMailPayloadLimit);

  GWMailAddToWhiteList(plist::Array::make({std::string(fits + 1, 'a')}), "mia");
  EXPECT_TRUE(log.contains("*** 100K limit exceeded"));
  GWMailAddToWhiteList(plist::Array::make({std::string(fits, 'a')}), "mia");
  ASSERT_TRUE(daemon.waitForRequests(1));
  EXPECT_TRUE(daemon.waitUntilIdle());
  std::vector<gwtest::ReceivedRequest> got = daemon.received();
  ASSERT_EQ(got.size(), 1u);  // the refused one never left
  EXPECT_EQ(got[0].routine, "_GWMIGMailAddContactsToWhiteList");
  EXPECT_EQ(got[0].bytes[0].size(), kGWMailPayloadLimit);
  plist::DictionaryRef payload = payloadOf(got[0]);
  ASSERT_TRUE(payload);
  EXPECT_EQ(payload->get("userName").string(), "mia");
  EXPECT_EQ(payload->get("contactList").array()->at(0).string().size(), fits);
}

TEST(MailRequestsTest, RemoveSendsOneAddress) {
  TempRoot root;
  TestDaemon daemon;
  GWMailRemoveFromWhiteList("grandma@example.org", "mia");
  ASSERT_TRUE(daemon.waitForRequests(1));
  gwtest::ReceivedRequest got = daemon.received().at(0);
  EXPECT_EQ(got.routine, "_GWMIGMailRemoveContactFromWhiteList");
  plist::DictionaryRef payload = payloadOf(got);
  ASSERT_TRUE(payload);
  EXPECT_EQ(payload->size(), 2u);
  EXPECT_EQ(payload->get("emailAddress").string(), "grandma@example.org");
}

TEST(MailRequestsTest, EmptyArgumentsAreRefusedWithoutSending) {
  TempRoot root;
  TestDaemon daemon;
  LogCapture log(2);
  GWMailAddToWhiteList(plist::Array::make(), "mia");
  GWMailAddToWhiteList(nullptr, "mia");
  GWMailAddToWhiteList(plist::Array::make({"a@b"}), "");
  GWMailAddToWhiteList(plist::Array::make({"a@b"}), std::nullopt);
  GWMailRemoveFromWhiteList("", "mia");
  GWMailRemoveFromWhiteList("a@b", std::nullopt);
  GWParletSaveChatLog(plist::Value(), "/chat.log", std::make_shared<const plist::Data>());
  GWParletSaveChatLog("leo", std::nullopt, std::make_shared<const plist::Data>());
  GWParletSaveChatLog("leo", "/chat.log", nullptr);
  std::size_t invalid = 0, chatInvalid = 0;
  for (const std::string& line : log.lines()) {
    if (line.ends_with("-- *** invalid param")) ++invalid;
    if (line.ends_with("-- invalid param")) ++chatInvalid;
  }
  EXPECT_EQ(invalid, 6u);
  EXPECT_EQ(chatInvalid, 3u);
  // A contact that is no property-list value cannot be written.
  GWMailAddToWhiteList(plist::Array::make({plist::Value()}), "mia");
  EXPECT_TRUE(log.contains("*** serialization failed with error: "));
  EXPECT_TRUE(daemon.waitUntilIdle());
  EXPECT_EQ(daemon.requestCount(), 0u);
}

TEST(MailRequestsTest, ChatLogCarriesTheCallersUidAndNameAndMaySendEmptyData) {
  TempRoot root;
  TestDaemon daemon;
  auto participants = plist::Value::newArray({"leo", "sam"});
  GWParletSaveChatLog(participants, "/home/leo/chat.log", std::make_shared<const plist::Data>());
  ASSERT_TRUE(daemon.waitForRequests(1));
  gwtest::ReceivedRequest got = daemon.received().at(0);
  EXPECT_EQ(got.routine, "_GWMIGParletSaveChatLog");
  EXPECT_EQ(got.integers.at(1), std::int64_t(::getuid()));
  plist::DictionaryRef payload = payloadOf(got);
  ASSERT_TRUE(payload);
  EXPECT_EQ(payload->get("participants"), participants);
  EXPECT_EQ(payload->get("filePath").string(), "/home/leo/chat.log");
  EXPECT_TRUE(payload->get("fileData").data().empty());
  EXPECT_EQ(payload->get("userName").string(), *GetUserShortNameForUID(::getuid()));
}

TEST(MailRequestsTest, ChatLogWithoutDaemonSaysSoAndMailStaysSilent) {
  TempRoot root;
  LogCapture log(2);
  GWParletSaveChatLog("leo", "/chat.log", std::make_shared<const plist::Data>(3, 'x'));
  EXPECT_TRUE(log.contains("*** tutelad is not running"));
  log.clear();
  GWMailAddToWhiteList(plist::Array::make({"a@b"}), "mia");
  for (const std::string& line : log.lines()) EXPECT_EQ(line.find("***"), std::string::npos);
}

}  // namespace

namespace {

TEST(MailCommandsTest, RequestsReachTheDaemonAndBadInputIsOneLine) {
  gwtest::TempRoot root;
  ::chmod(root.path().c_str(), 0755);  // the child that becomes another user reaches the socket
  auto cli = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"--root", root.path()});
    return gwtest::runCli(args);
  };
  EXPECT_EQ(cli({"mail", "add", "mia", "a@b"}).status, 1);  // no daemon
  gwtest::TestDaemon daemon;
  gwtest::RunResult over = cli({"mail", "add", "mia", std::string(kGWMailPayloadLimit, 'a')});
  EXPECT_EQ(over.status, 2);
  EXPECT_EQ(std::count(over.err.begin(), over.err.end(), '\n'), 1) << over.err;
  EXPECT_EQ(cli({"mail", "add", "../mia", "a@b"}).status, 2);
  EXPECT_EQ(cli({"mail", "add", "mia", "a@b", "c@d"}).status, 0);
  EXPECT_EQ(cli({"mail", "remove", "mia", "a@b"}).status, 0);
  ASSERT_TRUE(daemon.waitForRequests(2));

  // Root hands a chat log over as the user it was: the daemon sees that uid on the socket.
  passwd* pw = ::getpwuid(1);
  if (::geteuid() == 0 && pw) {
    std::string log = root.writeFile("/chat.txt", "hi there");
    ::chmod(log.c_str(), 0644);
    EXPECT_EQ(cli({"chat", "save", pw->pw_name, log, "--with", "sam"}).status, 0);
    ASSERT_TRUE(daemon.waitForRequests(3));
    gwtest::ReceivedRequest got = daemon.received().at(2);
    EXPECT_EQ(got.routine, "_GWMIGParletSaveChatLog");
    EXPECT_EQ(got.peer.uid, 1u);
    EXPECT_EQ(got.integers.at(1), 1);
  }
  EXPECT_EQ(cli({"chat", "save", "no-such-user-here", "/chat.txt"}).status, 2);
}

}  // namespace
