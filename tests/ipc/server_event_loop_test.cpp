// The message server on an sd-event loop (as the daemon runs it) and on an adopted socket (as
// socket activation hands it over).
#include <gatewise/ipc.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

#include "ipc/message_server.h"
#include "platform/mach/socket_io.h"
#include "support/temp_root.h"

namespace {

using gw::fs::UniqueFd;
using gw::ipc::Dispatcher;
using gw::ipc::MessageServer;
using namespace std::chrono_literals;

class ServerEventLoopTest : public ::testing::Test {
 protected:
  ServerEventLoopTest() {
    dispatcher_.handle("_GWMIGUserCanLogin", [](const gw::ipc::Request& request) {
      gw::ipc::Reply reply;
      reply.scalars = {std::int32_t(request.field("uid").integer + 1), 3};
      return reply;
    });
    EXPECT_GE(sd_event_new(&loop_), 0);
  }
  ~ServerEventLoopTest() override { sd_event_unref(loop_); }

  // Runs the loop until done() holds (bounded by a number of iterations of at most 100 ms).
  bool runLoopUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 200 && !done(); ++i) {
      if (sd_event_run(loop_, 100000) < 0) return false;
    }
    return done();
  }

  // Asks the login question from another thread while the loop runs on this one.
  bool askWhileLooping(std::int32_t uid) {
    std::atomic<bool> finished{false};
    std::int32_t seconds = -1, reason = -1;
    kern_return_t status = -1;
    std::thread client([&] {
      mach_port_t port = 0;
      if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) == KERN_SUCCESS) {
        status = _GWMIGUserCanLogin(port, 5000, uid, &seconds, &reason);
      }
      finished = true;
    });
    bool ran = runLoopUntil([&] { return finished.load(); });
    client.join();
    return ran && status == KERN_SUCCESS && seconds == uid + 1 && reason == 3;
  }

  gwtest::TempRoot root_;
  Dispatcher dispatcher_{gw::ipc::Service::Daemon};
  sd_event* loop_ = nullptr;
};

TEST_F(ServerEventLoopTest, AttachedServerAnswersAndClosesStalledClientsByItsTimer) {
  MessageServer::Limits limits;
  limits.idleTimeout = 200ms;
  std::string error;
  auto server = MessageServer::listen(gw::ipc::serviceSocketPathFor(gw::ipc::Service::Daemon),
                                      dispatcher_, limits, &error);
  ASSERT_TRUE(server) << error;
  ASSERT_EQ(server->attach(loop_), 0);
  EXPECT_EQ(server->attach(loop_), -EBUSY);

  EXPECT_TRUE(askWhileLooping(41));
  EXPECT_TRUE(askWhileLooping(-7));

  // A client that connects and says nothing is closed when the timer source fires.
  UniqueFd stalled;
  ASSERT_EQ(
      gw::mach::connectUnix(server->path(), gw::mach::Deadline::afterMilliseconds(1000), &stalled),
      gw::mach::IoStatus::Ok);
  ASSERT_TRUE(runLoopUntil([&] { return server->stats().timedOutConnections == 1; }));
  EXPECT_EQ(server->openConnections(), 0u);
  std::string path = server->path();
  server.reset();  // takes its sources off the loop and removes the socket it bound
  struct stat st;
  EXPECT_NE(::lstat(path.c_str(), &st), 0);
  EXPECT_EQ(sd_event_run(loop_, 0), 0);  // nothing of the server is left to dispatch
}

TEST_F(ServerEventLoopTest, AdoptedSocketIsServedAndLeftInPlace) {
  std::string path = gw::ipc::serviceSocketPathFor(gw::ipc::Service::Daemon);
  root_.makeFolder("/run/gatewise/bootstrap");
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  ASSERT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

  std::string error;
  UniqueFd notListening(::dup(listener.get()));
  EXPECT_FALSE(MessageServer::adopt(std::move(notListening), path, dispatcher_, {}, &error));
  EXPECT_NE(error.find("not a listening socket"), std::string::npos);
  EXPECT_FALSE(MessageServer::adopt(UniqueFd(), path, dispatcher_, {}, &error));

  ASSERT_EQ(::listen(listener.get(), 16), 0);
  auto server = MessageServer::adopt(std::move(listener), path, dispatcher_, {}, &error);
  ASSERT_TRUE(server) << error;
  EXPECT_EQ(server->path(), path);
  ASSERT_EQ(server->attach(loop_), 0);
  EXPECT_TRUE(askWhileLooping(500));
  server.reset();
  struct stat st;
  EXPECT_EQ(::lstat(path.c_str(), &st), 0);  // socket activation owns the file
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
}

}  // namespace
