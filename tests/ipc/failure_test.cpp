// How the stubs turn every way an exchange can go wrong into its status.
#include <dirent.h>
#include <gatewise/ipc.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "ipc/routine_catalogue.h"
#include "support/log_capture.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gwtest::Misbehaviour;
using gwtest::TestDaemon;
using namespace std::chrono_literals;

mach_port_t daemonPort() {
  mach_port_t port = 0;
  EXPECT_EQ(bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port), KERN_SUCCESS);
  return port;
}

kern_return_t userCanLogin(std::int32_t* seconds, std::int32_t* reason,
                           gw_timeout_t timeout = 5000) {
  return _GWMIGUserCanLogin(daemonPort(), timeout, 501, seconds, reason);
}

class FailureTest : public ::testing::Test {
 protected:
  gwtest::TempRoot root_;
};

TEST_F(FailureTest, NoServiceMeansUnknownServiceAndNothingToSendTo) {
  mach_port_t port = 77;
  EXPECT_EQ(bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port),
            BOOTSTRAP_UNKNOWN_SERVICE);
  EXPECT_EQ(port, 0u);
  std::int32_t seconds = -1, reason = -1;
  EXPECT_EQ(_GWMIGUserCanLogin(0, 5000, 501, &seconds, &reason), MACH_SEND_INVALID_DEST);
  EXPECT_EQ(_GWMIGReadOverrides(0, 0, 501), MACH_SEND_INVALID_DEST);
  EXPECT_EQ(reason, -1);
  // Names that are not one path component never reach the file system.
  EXPECT_EQ(bootstrap_look_up(bootstrap_port, "../etc", &port), BOOTSTRAP_UNKNOWN_SERVICE);
  EXPECT_EQ(bootstrap_look_up(0, kGWDaemonServiceName, &port), MACH_SEND_INVALID_DEST);
}

TEST_F(FailureTest, StaleSocketWithoutListenerCountsAsNoService) {
  std::string folder = root_.makeFolder("/run/gatewise/bootstrap");
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string path = folder + "/com.morvane.gatewise";
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(fd);  // bound, never listening: connect is refused
  mach_port_t port = 0;
  EXPECT_EQ(bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port),
            BOOTSTRAP_UNKNOWN_SERVICE);
}

TEST_F(FailureTest, BadRepliesGiveTheirStatuses) {
  TestDaemon daemon;
  struct Case {
    Misbehaviour how;
    kern_return_t status;
  } cases[] = {
      {Misbehaviour::CloseWithoutReply, MIG_SERVER_DIED},
      {Misbehaviour::WrongId, MIG_REPLY_MISMATCH},
      {Misbehaviour::WrongSize, MIG_TYPE_ERROR},
      {Misbehaviour::ComplexBit, MIG_TYPE_ERROR},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(int(c.how));
    daemon.answer("_GWMIGUserCanLogin", {900, 2});
    daemon.misbehave("_GWMIGUserCanLogin", c.how);
    std::int32_t seconds = -1, reason = -1;
    EXPECT_EQ(userCanLogin(&seconds, &reason), c.status);
    EXPECT_EQ(seconds, -1);  // nothing stored on failure
    EXPECT_EQ(reason, -1);

    daemon.misbehave("_GWMIGGetStatusItems", c.how);
    vm_offset_t data = 0;
    mach_msg_type_number_t count = 0;
    EXPECT_EQ(_GWMIGGetStatusItems(daemonPort(), 1000, &data, &count), c.status);
    EXPECT_EQ(data, 0u);
  }
}

TEST_F(FailureTest, ErrorReplyReturnsItsCodeAndSwappedRepliesAreSwappedBack) {
  TestDaemon daemon;
  daemon.answerError("_GWMIGUserCanLogin", 0x1234);
  std::int32_t seconds = -1, reason = -1;
  EXPECT_EQ(userCanLogin(&seconds, &reason), 0x1234);
  daemon.misbehave("_GWMIGUserCanLogin", Misbehaviour::SwappedNdr);
  EXPECT_EQ(userCanLogin(&seconds, &reason), 0x1234);  // the code itself swapped back
  EXPECT_EQ(reason, -1);

  daemon.answer("_GWMIGUserCanLogin", {900, 2});
  ASSERT_EQ(userCanLogin(&seconds, &reason), KERN_SUCCESS);
  EXPECT_EQ(seconds, 900);
  EXPECT_EQ(reason, 2);

  daemon.answerData("_GWMIGGetStatusItems", {1, 2, 3, 4, 5});
  daemon.misbehave("_GWMIGGetStatusItems", Misbehaviour::SwappedNdr);
  vm_offset_t data = 0;
  mach_msg_type_number_t count = 0;
  ASSERT_EQ(_GWMIGGetStatusItems(daemonPort(), 1000, &data, &count), KERN_SUCCESS);
  EXPECT_EQ(count, 5u);
  vm_deallocate(mach_task_self(), data, count);

  // A data reply in its error form; and a zero code in that form is a shape error.
  daemon.misbehave("_GWMIGGetStatusItems", Misbehaviour::None);
  daemon.answerError("_GWMIGGetStatusItems", -5);
  EXPECT_EQ(_GWMIGGetStatusItems(daemonPort(), 1000, &data, &count), -5);
}

TEST_F(FailureTest, ReceiveTimeOutReplacesTheReplyPortAndTheLateReplyIsNeverSeen) {
  TestDaemon daemon;
  daemon.answer("_GWMIGUserCanLogin", {111, 1});
  daemon.misbehave("_GWMIGUserCanLogin", Misbehaviour::Delay, 300ms);
  mach_port_t replyPort = mig_get_reply_port();
  std::int32_t seconds = -1, reason = -1;
  EXPECT_EQ(userCanLogin(&seconds, &reason, 50), MACH_RCV_TIMED_OUT);
  EXPECT_NE(mig_get_reply_port(), replyPort);

  daemon.misbehave("_GWMIGUserCanLogin", Misbehaviour::None);
  daemon.answer("_GWMIGUserCanLogin", {222, 2});
  ASSERT_EQ(userCanLogin(&seconds, &reason), KERN_SUCCESS);
  EXPECT_EQ(seconds, 222);
  EXPECT_EQ(reason, 2);
  std::this_thread::sleep_for(350ms);  // let the delayed answer fall due: it must go nowhere
  ASSERT_EQ(userCanLogin(&seconds, &reason), KERN_SUCCESS);
  EXPECT_EQ(seconds, 222);

  // Other failures keep the thread's reply port.
  replyPort = mig_get_reply_port();
  daemon.misbehave("_GWMIGUserCanLogin", Misbehaviour::WrongId);
  EXPECT_EQ(userCanLogin(&seconds, &reason), MIG_REPLY_MISMATCH);
  EXPECT_EQ(mig_get_reply_port(), replyPort);
}

TEST_F(FailureTest, DaemonRestartedBetweenLookUpAndSendIsReachedAgain) {
  mach_port_t port = 0;
  {
    TestDaemon first;
    port = daemonPort();  // its connection now leads to a daemon that goes away
  }
  TestDaemon second;
  second.answer("_GWMIGUserCanLogin", {0, 7});
  std::int32_t seconds = -1, reason = -1;
  EXPECT_EQ(_GWMIGUserCanLogin(port, 5000, 501, &seconds, &reason), KERN_SUCCESS);
  EXPECT_EQ(reason, 7);
}

TEST_F(FailureTest, ManyThreadsEachGetTheirOwnReply) {
  TestDaemon daemon;
  daemon.answerWith("_GWMIGUserCanLogin", [](const gw::ipc::Request& r) {
    std::int32_t uid = std::int32_t(r.field("uid").integer);
    return std::vector<std::int32_t>{uid * 10, uid};
  });
  std::atomic<int> mismatches{0}, failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) {
        std::uint32_t uid = std::uint32_t(1000 + t * 1000 + i);
        std::int32_t seconds = 0, reason = 0;
        mach_port_t port = 0;
        if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS ||
            _GWMIGUserCanLogin(port, 5000, uid, &seconds, &reason) != KERN_SUCCESS) {
          ++failures;
        } else if (seconds != std::int32_t(uid) * 10 || reason != std::int32_t(uid)) {
          ++mismatches;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(mismatches, 0);
}

std::size_t openDescriptors() {
  std::size_t n = 0;
  DIR* dir = ::opendir("/proc/self/fd");
  while (dirent* e = ::readdir(dir)) n += e->d_name[0] != '.';
  ::closedir(dir);
  return n;
}

TEST_F(FailureTest, TenThousandCallsLeakNoDescriptor) {
  TestDaemon daemon;
  daemon.answerData("_GWMIGGetStatusItems", std::vector<std::uint8_t>(64, 1));
  const std::size_t before = openDescriptors();
  const Misbehaviour kinds[] = {Misbehaviour::None, Misbehaviour::CloseWithoutReply,
                                Misbehaviour::WrongId, Misbehaviour::WrongSize};
  for (int i = 0; i < 10000; ++i) {
    std::int32_t seconds, reason;
    vm_offset_t data = 0;
    mach_msg_type_number_t count = 0;
    switch (i % 5) {
      case 0:
        daemon.misbehave("_GWMIGUserCanLogin", kinds[(i / 5) % 4]);
        userCanLogin(&seconds, &reason);
        break;
      case 1:
        if (_GWMIGGetStatusItems(daemonPort(), 1000, &data, &count) == KERN_SUCCESS) {
          vm_deallocate(mach_task_self(), data, count);
        }
        break;
      case 2:
        _GWMIGReadSettings(daemonPort(), 0, 501);
        break;
      case 3: {
        mach_port_t unused = 0;  // a look-up whose port is never used
        bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &unused);
        mach_port_deallocate(mach_task_self(), unused);
        break;
      }
      case 4:
        _GWMIGUserCanLogin(0, 5000, 1, &seconds, &reason);  // no destination
        break;
    }
  }
  // The daemon's own ends live in this process too: the last one-way request may still be on
  // its way in when the loop ends.
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (openDescriptors() != before && std::chrono::steady_clock::now() < until) {
    ASSERT_TRUE(daemon.waitUntilIdle());
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
