#include "platform/sessions/sessions.h"

#include <gatewise/core.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <utmpx.h>

#include <cstring>
#include <fstream>

#include "support/bus_fixture.h"
#include "support/temp_root.h"

namespace gw::sessions {
namespace {

utmpx record(short type, const char* user, const char* line, const char* host) {
  utmpx entry{};
  entry.ut_type = type;
  entry.ut_pid = 4242;
  std::strncpy(entry.ut_user, user, sizeof entry.ut_user);  // fills the whole field, unterminated
  std::strncpy(entry.ut_line, line, sizeof entry.ut_line);
  std::strncpy(entry.ut_host, host, sizeof entry.ut_host);
  return entry;
}

// The login records of a small machine: root on the first virtual terminal and over ssh, a user
// that no longer exists, a finished login, and the boot record.
std::string writeUtmp(const gwtest::TempRoot& root) {
  std::string path = root.at("/var/run/utmp");
  root.writeFile("/var/run/utmp", "");
  std::ofstream out(path, std::ios::binary);
  for (const utmpx& entry :
       {record(BOOT_TIME, "reboot", "~", ""), record(USER_PROCESS, "root", "pts/3", "192.0.2.7"),
        record(USER_PROCESS, "gone-user-xyz", "tty2", ""), record(DEAD_PROCESS, "root", "tty3", ""),
        record(USER_PROCESS, "root", "tty1", "")}) {
    out.write(reinterpret_cast<const char*>(&entry), sizeof entry);
  }
  return path;
}

TEST(SessionsTest, UtmpxLoginsOfKnownUsersWithTheirConsoleState) {
  gwtest::TempRoot root;
  auto sessions = sessionsFromUtmpx(writeUtmp(root));
  ASSERT_TRUE(sessions);
  ASSERT_EQ(sessions->size(), 2u);
  EXPECT_EQ((*sessions)[0].userName, "root");
  EXPECT_EQ((*sessions)[0].uid, 0u);
  EXPECT_FALSE((*sessions)[0].onConsole);  // remote
  EXPECT_TRUE((*sessions)[1].onConsole);   // tty1, local
  EXPECT_FALSE(sessionsFromUtmpx(root.at("/missing")));
}

TEST(SessionsTest, UserIsLoggedInReadsTheSessionList) {
  gwtest::TempRoot root;
  setUtmpxFileForTesting(writeUtmp(root));
  EXPECT_TRUE(UserIsLoggedIn(0));
  EXPECT_FALSE(UserIsLoggedIn(4242));
  setUtmpxFileForTesting(root.at("/missing"));
  EXPECT_FALSE(copySessionList());
  EXPECT_FALSE(UserIsLoggedIn(0));
  setUtmpxFileForTesting("");
}

TEST(SessionsTest, StaleSystemdFoldersWithoutLogindOnTheBusFallBackToUtmpx) {
  gwtest::PrivateBus bus;
  gwtest::TempRoot root;
  root.makeFolder("/run/systemd/seats");
  root.makeFolder("/run/systemd/system");
  writeUtmp(root);  // <root>/var/run/utmp, where the fallback looks

  setBootedForTesting(true);  // as a container whose image says systemd booted it
  EXPECT_FALSE(logindIsRunning());
  auto sessions = copySessionList();
  ASSERT_TRUE(sessions);
  ASSERT_EQ(sessions->size(), 2u);
  EXPECT_TRUE((*sessions)[1].onConsole);

  // A logind on the bus (a stand-in holding its name) is believed only when systemd booted.
  sd_bus* standIn = nullptr;
  ASSERT_GE(sd_bus_open_system(&standIn), 0);
  ASSERT_GE(sd_bus_request_name(standIn, "org.freedesktop.login1", 0), 0);
  EXPECT_TRUE(logindIsRunning());
  setBootedForTesting(false);
  EXPECT_FALSE(logindIsRunning());
  sd_bus_flush_close_unref(standIn);
  setBootedForTesting(std::nullopt);
}

}  // namespace
}  // namespace gw::sessions
