#include "platform/directory/records.h"

#include <gatewise/core.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_root.h"

namespace gw::directory {
namespace {

// A user record file whose settings attribute holds settings (omitted when null).
std::string recordXML(const char* name, const char* realName, const char* settings) {
  auto escape = [](std::string s) {
    std::string out;
    for (char c : s)
      out += c == '<' ? "&lt;" : c == '>' ? "&gt;" : c == '&' ? "&amp;" : std::string(1, c);
    return out;
  };
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>";
  xml += std::string("<key>name</key><array><string>") + name + "</string></array>";
  if (realName) {
    xml += std::string("<key>dsAttrTypeStandard:RealName</key><array><string>") + realName +
           "</string><string>second</string></array>";
  }
  xml += "<key>dsAttrTypeStandard:UniqueID</key><array><string>501</string></array>";
  if (settings) {
    xml += "<key>dsAttrTypeStandard:QRMSettings</key><array><string>" + escape(settings) +
           "</string></array>";
  }
  return xml + "</dict></plist>\n";
}

void writeRecord(const gwtest::TempRoot& root, const std::string& file, const std::string& xml) {
  root.writeFile("/var/lib/gatewise/directory/users/" + file, xml);
}

std::vector<std::string> managedNames() {
  std::vector<std::string> names;
  gw::plist::ArrayRef users = GWGetLocalManagedUsers();
  for (const auto& user : *users) {
    names.push_back(user.dictionary()->get("name").string());
  }
  return names;
}

TEST(DirectoryRecordsTest, ManagedUsersBeginWithTheDeclarationIgnoringCase) {
  gwtest::TempRoot root;
  gwtest::LogCapture log(0);
  const std::string body = "\n<plist version=\"1.0\"><dict/></plist>";
  const std::pair<const char*, const char*> declarations[] = {
      {"alice", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"},
      {"bob", "<?XML VERSION=\"1.0\" encoding=\"utf-8\"?>"},
      {"carol", "<?xml version=\"1.0\" encoding=\"UTF-16\"?>"},
      {"dave", " <?xml version=\"1.0\" encoding=\"UTF-8\"?>"}};
  for (auto [name, declaration] : declarations) {
    writeRecord(root, std::string(name) + ".plist",
                recordXML(name, name, (declaration + body).c_str()));
  }
  writeRecord(root, "erin.plist", recordXML("erin", "Erin", nullptr));
  writeRecord(root, "broken.plist", "<plist><dict><key>name</key>");
  writeRecord(root, "flat.plist",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
              "<key>name</key><string>flat</string></dict></plist>");
  EXPECT_EQ(managedNames(), (std::vector<std::string>{"alice", "bob"}));
  EXPECT_TRUE(log.contains("Skipping directory record"));
  EXPECT_TRUE(log.contains("broken.plist"));
  EXPECT_TRUE(log.contains("flat.plist"));
}

TEST(DirectoryRecordsTest, ManagedUserDictionariesHoldSingleNameAndRealName) {
  gwtest::TempRoot root;
  gwtest::LogCapture log(0);
  writeRecord(root, "alice.plist",
              recordXML("alice", "Alice L", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"));
  writeRecord(root, "zed.plist",
              recordXML("zed", nullptr, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"));
  gw::plist::ArrayRef users = GWGetLocalManagedUsers();
  ASSERT_EQ(users->size(), 2u);
  EXPECT_EQ(
      plist::Value((*users)[0]),
      plist::Value::newDictionary({{"name", "alice"}, {"dsAttrTypeStandard:RealName", "Alice L"}}));
  // No real name: reported as a caught failure, the record still listed with its name.
  EXPECT_EQ(plist::Value((*users)[1]), plist::Value::newDictionary({{"name", "zed"}}));
  EXPECT_TRUE(log.contains("Caught exception"));
}

TEST(DirectoryRecordsTest, QueriesThatCannotBeMadeAndEmptyNodes) {
  gwtest::TempRoot root;
  RecordQuery query;
  query.attribute = kAttributeManagedSettings;
  query.recordType = "dsRecTypeStandard:Groups";
  EXPECT_FALSE(queryRecords(query));
  query.recordType = kRecordTypeUsers;
  query.matchType = 0x2999;
  EXPECT_FALSE(queryRecords(query));
  query.matchType = kMatchBeginsWithCaseInsensitive;
  ASSERT_TRUE(queryRecords(query));
  EXPECT_TRUE(queryRecords(query)->empty());
  EXPECT_TRUE(GWGetLocalManagedUsers()->empty());
  EXPECT_FALSE(readUserRecord("../etc/passwd"));
}

}  // namespace
}  // namespace gw::directory
