// The server half against raw clients: malformed requests get the error form or are dropped, and
// handlers see the caller's socket credentials.
#include <gatewise/ipc.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "ipc/message_codec.h"
#include "platform/mach/frame.h"
#include "support/temp_root.h"
#include "support/test_daemon.h"

namespace {

using gw::mach::load32;

// Sends one frame body over a plain socket and returns what comes back before the server closes.
std::vector<std::uint8_t> roundTrip(const std::string& path, const std::vector<std::uint8_t>& body,
                                   std::uint32_t length) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  std::uint8_t prefix[4] = {std::uint8_t(length), std::uint8_t(length >> 8),
                            std::uint8_t(length >> 16), std::uint8_t(length >> 24)};
  ::send(fd, prefix, 4, MSG_NOSIGNAL);
  ::send(fd, body.data(), body.size(), MSG_NOSIGNAL);
  ::shutdown(fd, SHUT_WR);
  std::vector<std::uint8_t> reply;
  std::uint8_t chunk[256];
  ssize_t n;
  while ((n = ::read(fd, chunk, sizeof chunk)) > 0) reply.insert(reply.end(), chunk, chunk + n);
  ::close(fd);
  return reply;
}

std::vector<std::uint8_t> roundTrip(const std::string& path, const std::vector<std::uint8_t>& body) {
  return roundTrip(path, body, std::uint32_t(body.size()));
}

std::vector<std::uint8_t> request(std::uint32_t bits, std::int32_t id, std::uint32_t local,
                                  std::initializer_list<std::uint32_t> words) {
  std::vector<std::uint8_t> out(24);
  mach_msg_header_t h{bits, std::uint32_t(24 + 4 * words.size()), 0x103, local, 0, id};
  std::memcpy(out.data(), &h, 24);
  for (std::uint32_t w : words) {
    for (int i = 0; i < 4; ++i) out.push_back(std::uint8_t(w >> (8 * i)));
  }
  return out;
}

constexpr std::uint32_t kNdr0 = 0, kNdr1 = 1;  // the NDR record as two words

class ServerTest : public ::testing::Test {
 protected:
  gwtest::TempRoot root_;
  gwtest::TestDaemon daemon_;
};

TEST_F(ServerTest, WellFormedRawRequestIsAnsweredAndSeesTheCallersCredentials) {
  daemon_.answer("_GWMIGUserCanLogin", {5, 6});
  auto reply = roundTrip(daemon_.socketPath(), request(0x1513, 5016, 0x99, {kNdr0, kNdr1, 501}));
  ASSERT_EQ(reply.size(), 4u + 44u);
  EXPECT_EQ(load32(reply.data()), 44u);
  EXPECT_EQ(load32(reply.data() + 4), 0x12u);   // bits
  EXPECT_EQ(load32(reply.data() + 12), 0x99u);  // remote = the request's reply port
  EXPECT_EQ(load32(reply.data() + 16), 0u);     // local
  EXPECT_EQ(load32(reply.data() + 24), 5116u);  // id + 100
  EXPECT_EQ(load32(reply.data() + 36), 0u);     // return code
  EXPECT_EQ(load32(reply.data() + 40), 5u);
  EXPECT_EQ(load32(reply.data() + 44), 6u);
  auto got = daemon_.received().at(0);
  EXPECT_EQ(got.peer.uid, ::getuid());
  EXPECT_EQ(got.peer.pid, ::getpid());
}

TEST_F(ServerTest, MalformedRequestsAreRefusedOrDropped) {
  const std::string& path = daemon_.socketPath();
  struct Case {
    const char* what;
    std::vector<std::uint8_t> body;
    std::int32_t code;  // 0: closed without an answer
  } cases[] = {
      {"unknown id", request(0x1513, 5099, 0x99, {kNdr0, kNdr1, 1}), -303},
      {"largest id", request(0x1513, 0x7fffffff, 0x99, {kNdr0, kNdr1, 1}), -303},
      {"short two-way", request(0x1513, 5016, 0x99, {kNdr0, kNdr1}), -304},
      {"long two-way", request(0x1513, 5016, 0x99, {kNdr0, kNdr1, 1, 2}), -304},
      {"complex bit on a simple request", request(0x80001513, 5016, 0x99, {0, kNdr1, 1}), -304},
      {"two-way without reply port", request(0x1513, 5016, 0, {kNdr0, kNdr1, 1}), 0},
      {"inline count past the end", request(0x1513, 5010, 0x99, {kNdr0, kNdr1, 2000, 1, 4}), -304},
      {"simple request for a complex routine", request(0x1513, 5015 + 10, 0x99, {}), -304},
      {"short one-way", request(0x13, 5018, 0, {kNdr0, kNdr1}), 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto reply = roundTrip(path, c.body);
    if (c.code == 0) {
      EXPECT_TRUE(reply.empty());
      continue;
    }
    ASSERT_EQ(reply.size(), 4u + 36u);
    EXPECT_EQ(load32(reply.data() + 8), 36u);
    EXPECT_EQ(std::int32_t(load32(reply.data() + 36)), c.code);
  }
  // Frames the server will not even read: too short, too long.
  EXPECT_TRUE(roundTrip(path, std::vector<std::uint8_t>(8, 0)).empty());
  EXPECT_TRUE(roundTrip(path, {}, 0x7fffffff).empty());
  EXPECT_EQ(daemon_.requestCount(), 0u);
  // Still serving afterwards.
  EXPECT_EQ(roundTrip(path, request(0x1513, 5016, 0x99, {kNdr0, kNdr1, 501})).size(), 48u);
}

TEST_F(ServerTest, BigEndianRequestIsReadInItsOwnByteOrder) {
  auto body = request(0x1513, 5016, 0x99, {kNdr0, 0, __builtin_bswap32(4321)});
  roundTrip(daemon_.socketPath(), body);
  ASSERT_EQ(daemon_.requestCount(), 1u);
  EXPECT_EQ(daemon_.received()[0].integers[0], 4321);
}

}  // namespace
