// The message server against hostile local clients: descriptor floods, connection floods from
// another uid, memory held by half-sent frames, stalled clients, and running out of descriptors.
// Every test ends with a legitimate question answered correctly: no client can make the server
// stop answering another.
#include <fcntl.h>
#include <gatewise/ipc.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

#include "ipc/message_codec.h"
#include "ipc/message_server.h"
#include "platform/mach/frame.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/temp_root.h"

namespace {

using gw::fs::UniqueFd;
using gw::ipc::Dispatcher;
using gw::ipc::MessageServer;
using namespace std::chrono_literals;

constexpr std::uint32_t kReplyPort = 0x99;

// Waits (bounded) for a condition that another thread or process brings about.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 10s) {
  auto until = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

UniqueFd connectTo(const std::string& path) {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return {};
  return fd;
}

// Sends bytes with `copies` duplicates of descriptor `rights` attached (none when copies is 0).
bool sendWithRights(int fd, const std::uint8_t* bytes, std::size_t size, int rights,
                    std::size_t copies) {
  iovec v{const_cast<std::uint8_t*>(bytes), size};
  msghdr message{};
  message.msg_iov = &v;
  message.msg_iovlen = 1;
  std::vector<char> control(CMSG_SPACE(sizeof(int) * copies));
  if (copies > 0) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* c = CMSG_FIRSTHDR(&message);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int) * copies);
    for (std::size_t i = 0; i < copies; ++i) {
      std::memcpy(CMSG_DATA(c) + i * sizeof(int), &rights, sizeof(int));
    }
  }
  return ::sendmsg(fd, &message, MSG_NOSIGNAL) == ssize_t(size);
}

// A request frame (length prefix included) for routine with the given arguments.
std::vector<std::uint8_t> frameFor(std::string_view routine,
                                   std::initializer_list<gw::ipc::Argument> arguments) {
  gw::ipc::MessageBuffer buffer;
  std::uint32_t size = 0;
  EXPECT_EQ(gw::ipc::encodeRequest(*gw::ipc::routineNamed(routine), arguments, 0x103, kReplyPort,
                                   buffer, &size),
            0);
  std::vector<std::uint8_t> frame(4);
  gw::mach::store32(frame.data(), size);
  frame.insert(frame.end(), buffer.bytes, buffer.bytes + size);
  return frame;
}

// Everything the server sends until it closes (bounded by a time limit).
std::optional<std::vector<std::uint8_t>> readUntilClosed(int fd,
                                                         std::chrono::milliseconds limit = 10s) {
  std::vector<std::uint8_t> bytes;
  auto until = std::chrono::steady_clock::now() + limit;
  for (;;) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - std::chrono::steady_clock::now());
    pollfd p{fd, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&p, 1, int(left.count())) <= 0) return std::nullopt;
    std::uint8_t chunk[256];
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n <= 0) return bytes;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
}

bool stillOpen(int fd) {
  pollfd p{fd, POLLIN | POLLRDHUP, 0};
  return ::poll(&p, 1, 0) == 0;
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

// Asks the login question through the library's stub; the server answers twice the uid.
bool loginQuestionAnswered(std::int32_t uid = 501) {
  mach_port_t port = 0;
  if (bootstrap_look_up(bootstrap_port, kGWDaemonServiceName, &port) != KERN_SUCCESS) return false;
  std::int32_t seconds = -1, reason = -1;
  kern_return_t status = _GWMIGUserCanLogin(port, 5000, uid, &seconds, &reason);
  EXPECT_EQ(status, KERN_SUCCESS);
  return status == KERN_SUCCESS && seconds == 2 * uid && reason == 0;
}

class HostileClientTest : public ::testing::Test {
 protected:
  HostileClientTest() {
    dispatcher_.handle("_GWMIGUserCanLogin", [](const gw::ipc::Request& request) {
      gw::ipc::Reply reply;
      reply.scalars = {std::int32_t(2 * request.field("uid").integer), 0};
      return reply;
    });
    dispatcher_.handle("_GWMIGRegisterUserAgent", [this](const gw::ipc::Request&) {
      ++agentsRegistered_;
      return gw::ipc::Reply{};
    });
  }
  ~HostileClientTest() override { stopServing(); }

  MessageServer& serve(MessageServer::Limits limits) {
    std::string error;
    server_ = MessageServer::listen(gw::ipc::serviceSocketPathFor(gw::ipc::Service::Daemon),
                                    dispatcher_, limits, &error);
    EXPECT_TRUE(server_) << error;
    thread_ = std::thread([this] { server_->run(); });
    return *server_;
  }
  void stopServing() {
    if (!thread_.joinable()) return;
    server_->stop();
    thread_.join();
  }
  const std::string& path() const { return server_->path(); }

  gwtest::TempRoot root_;
  gwtest::LogCapture log_{1};
  Dispatcher dispatcher_{gw::ipc::Service::Daemon};
  std::atomic<int> agentsRegistered_{0};
  std::unique_ptr<MessageServer> server_;
  std::thread thread_;
};

TEST_F(HostileClientTest, DescriptorsBeyondWhatTheRoutineTakesAreClosedAndRefused) {
  MessageServer& server = serve({});
  UniqueFd right(::eventfd(0, EFD_CLOEXEC));
  const std::size_t baseline = openDescriptors();

  // A login question sent a byte at a time, each byte carrying 200 descriptors: while the frame
  // is still coming, the server holds at most one of them.
  auto login = frameFor("_GWMIGUserCanLogin", {{501}});
  UniqueFd flood = connectTo(path());
  for (std::size_t i = 0; i + 1 < login.size(); ++i) {
    ASSERT_TRUE(sendWithRights(flood.get(), &login[i], 1, right.get(), 200));
  }
  ASSERT_TRUE(eventually([&] { return server.stats().descriptorsRefused >= login.size() - 1; }));
  EXPECT_LT(openDescriptors(), baseline + 8);
  ASSERT_TRUE(sendWithRights(flood.get(), &login.back(), 1, right.get(), 0));
  auto reply = readUntilClosed(flood.get());
  ASSERT_TRUE(reply);
  ASSERT_EQ(reply->size(), 4u + 36u);  // the error form
  EXPECT_EQ(std::int32_t(gw::mach::load32(reply->data() + 36)), gw::ipc::kMigBadArguments);

  // One descriptor too many on a routine with no port at all, in one message.
  UniqueFd one = connectTo(path());
  ASSERT_TRUE(sendWithRights(one.get(), login.data(), login.size(), right.get(), 1));
  reply = readUntilClosed(one.get());
  ASSERT_TRUE(reply);
  ASSERT_EQ(reply->size(), 4u + 36u);
  EXPECT_EQ(std::int32_t(gw::mach::load32(reply->data() + 36)), gw::ipc::kMigBadArguments);

  // The routine with a port: two rights are dropped (one-way, no answer), one is served.
  auto agent = frameFor("_GWMIGRegisterUserAgent", {{7}, {right.get()}});
  UniqueFd two = connectTo(path());
  ASSERT_TRUE(sendWithRights(two.get(), agent.data(), agent.size(), right.get(), 2));
  reply = readUntilClosed(two.get());
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->empty());
  EXPECT_EQ(agentsRegistered_, 0);
  UniqueFd exact = connectTo(path());
  ASSERT_TRUE(sendWithRights(exact.get(), agent.data(), agent.size(), right.get(), 1));
  ASSERT_TRUE(readUntilClosed(exact.get()));
  EXPECT_EQ(agentsRegistered_, 1);

  EXPECT_TRUE(loginQuestionAnswered());
  ASSERT_TRUE(eventually([&] { return server.openConnections() == 0; }));
  EXPECT_LE(openDescriptors(), baseline + 4);  // the four test sockets; nothing of the flood
}

TEST_F(HostileClientTest, AnotherUsersConnectionFloodDoesNotSilenceTheServer) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to flood as another uid";
  MessageServer::Limits limits;
  limits.maxConnections = 8;
  limits.maxConnectionsPerUid = 5;
  MessageServer& server = serve(limits);
  // The unprivileged flooder must reach the socket through the temporary root.
  ::chmod(root_.path().c_str(), 0755);

  int ready[2], done[2];
  ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(done, O_CLOEXEC), 0);
  int flooderStatus = -1;
  std::thread flooder([&] {
    flooderStatus = gwtest::runInChild([&] {
      ::close(done[1]);  // so that the test closing its end is seen as the end of the file
      if (!gwtest::dropToUnprivilegedUser()) return 10;
      std::vector<UniqueFd> idle;
      for (int i = 0; i < 10; ++i) {
        UniqueFd fd = connectTo(server.path());
        if (!fd) return 11;
        idle.push_back(std::move(fd));
      }
      char byte = 1;
      if (::write(ready[1], &byte, 1) != 1) return 12;
      return ::read(done[0], &byte, 1) == 0 ? 0 : 13;  // holds on until the test is done
    });
  });
  char byte;
  pollfd p{ready[0], POLLIN, 0};
  if (::poll(&p, 1, 10000) != 1 || ::read(ready[0], &byte, 1) != 1) {
    ::close(done[1]);
    flooder.join();
    FAIL() << "the flooder did not get going: " << flooderStatus;
  }
  // Ten taken in, the five oldest given back: the flooder's share is its cap.
  ASSERT_TRUE(eventually([&] { return server.stats().accepted >= 10; }));
  EXPECT_EQ(server.stats().reclaimedConnections, 5u);
  EXPECT_EQ(server.openConnections(), 5u);

  // Root fills the rest of the table with idle connections and still gets its answer: the
  // flooder, holding the most, gives up one more.
  std::vector<UniqueFd> rootIdle;
  for (int i = 0; i < 3; ++i) rootIdle.push_back(connectTo(path()));
  ASSERT_TRUE(eventually([&] { return server.openConnections() == 8; }));
  EXPECT_TRUE(loginQuestionAnswered(77));
  EXPECT_EQ(server.stats().reclaimedConnections, 6u);
  for (const UniqueFd& fd : rootIdle) EXPECT_TRUE(stillOpen(fd.get()));

  ::close(done[1]);
  flooder.join();
  EXPECT_EQ(flooderStatus, 0);
  for (int fd : {ready[0], ready[1], done[0]}) ::close(fd);
}

TEST_F(HostileClientTest, MemoryGrowsWithArrivingBytesAndIsBoundedPerUid) {
  MessageServer::Limits limits;
  limits.maxBytesInFlightPerUid = 256 * 1024;
  limits.maxBytesInFlight = 1024 * 1024;
  MessageServer& server = serve(limits);

  // Eight connections announce the largest frame and send 2000 bytes of it.
  const std::uint32_t declared = gw::ipc::kMaxRequestSize + (64u << 20);
  std::vector<std::uint8_t> start(4 + 1996, 0);
  gw::mach::store32(start.data(), declared);
  std::vector<UniqueFd> slow;
  for (int i = 0; i < 8; ++i) {
    slow.push_back(connectTo(path()));
    ASSERT_TRUE(sendWithRights(slow.back().get(), start.data(), start.size(), -1, 0));
  }
  const std::uint64_t eachBeyondFree = 2000 - (4 + gw::ipc::kMaxRequestSize);
  ASSERT_TRUE(eventually([&] { return server.stats().bytesInFlight >= 8 * eachBeyondFree; }));
  EXPECT_LE(server.stats().bytesInFlight, 8 * 2 * 2000u);  // nothing reserved ahead of the bytes

  // One of them sends more than its uid may hold in all: it alone is closed.
  std::vector<std::uint8_t> more(300 * 1024, 0);
  ::send(slow[0].get(), more.data(), more.size(), MSG_NOSIGNAL);  // until the server closes
  ASSERT_TRUE(readUntilClosed(slow[0].get()));
  EXPECT_EQ(server.stats().overBudgetConnections, 1u);
  for (std::size_t i = 1; i < slow.size(); ++i) EXPECT_TRUE(stillOpen(slow[i].get()));
  EXPECT_TRUE(loginQuestionAnswered());

  slow.clear();
  ASSERT_TRUE(eventually([&] { return server.openConnections() == 0; }));
  EXPECT_EQ(server.stats().bytesInFlight, 0u);
}

TEST_F(HostileClientTest, StalledClientsAreClosedAtTheIdleLimitWhileOthersAreServed) {
  MessageServer::Limits limits;
  limits.idleTimeout = 300ms;
  MessageServer& server = serve(limits);
  auto login = frameFor("_GWMIGUserCanLogin", {{501}});
  UniqueFd half = connectTo(path());
  ASSERT_TRUE(sendWithRights(half.get(), login.data(), login.size() / 2, -1, 0));
  UniqueFd lengthOnly = connectTo(path());
  ASSERT_TRUE(sendWithRights(lengthOnly.get(), login.data(), 4, -1, 0));
  UniqueFd silent = connectTo(path());

  EXPECT_TRUE(loginQuestionAnswered());
  for (int fd : {half.get(), lengthOnly.get(), silent.get()}) {
    auto reply = readUntilClosed(fd);
    ASSERT_TRUE(reply);
    EXPECT_TRUE(reply->empty());
  }
  EXPECT_EQ(server.stats().timedOutConnections, 3u);
  EXPECT_TRUE(loginQuestionAnswered());
}

TEST_F(HostileClientTest, RunningOutOfDescriptorsPausesListeningInsteadOfSpinning) {
  // In a child of its own: the test lowers its descriptor limit and fills the table.
  int status = gwtest::runInChild([&] {
    rlimit limit{128, 128};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
    MessageServer::Limits limits;
    limits.listenerPause = 20ms;
    MessageServer& server = serve(limits);
    // The clients' own sockets are made before the table is full.
    UniqueFd first(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    UniqueFd second(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path().c_str());
    std::vector<UniqueFd> filler;
    for (;;) {
      int fd = ::dup(first.get());
      if (fd < 0) break;
      filler.emplace_back(fd);
    }
    if (errno != EMFILE) return 2;
    if (::connect(first.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      return 3;
    }
    // The server cannot take the connection: it closes it rather than leave it waiting.
    auto reply = readUntilClosed(first.get());
    if (!reply || !reply->empty()) return 4;
    if (server.stats().descriptorExhaustions < 1) return 5;
    if (server.stats().loopWakeups > 1000) return 6;  // a spinning loop counts in the millions

    filler.clear();  // descriptors free up: the next question is answered
    if (::connect(second.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      return 7;
    }
    auto login = frameFor("_GWMIGUserCanLogin", {{501}});
    if (!sendWithRights(second.get(), login.data(), login.size(), -1, 0)) return 8;
    reply = readUntilClosed(second.get());
    if (!reply || reply->size() != 4 + 44 || gw::mach::load32(reply->data() + 40) != 1002) {
      return 9;
    }
    stopServing();
    return 0;
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
