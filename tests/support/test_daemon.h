// A daemon for tests: the library's own message server on a thread of the test process, answering
// every routine of one service as the test says, and misbehaving on request.
//
// It listens on "<bootstrap folder>/<service name>" of the moment it is made (so make it inside a
// TempRoot, or with GATEWISE_BOOTSTRAP_DIR set) and stops and removes its socket when destroyed.
// Every request that decodes is recorded (frame bytes, fields, caller) for wire checks. Routines
// with no answer set reply with zeros (plain) or empty data. Setters may be called while serving.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "ipc/dispatcher.h"
#include "ipc/message_server.h"

namespace gwtest {

enum class Misbehaviour {
  None,
  Delay,              // answer after the delay
  CloseWithoutReply,  // close the connection (after the delay) without a word
  WrongId,            // reply id + 1
  WrongSize,          // a reply 4 bytes short
  ComplexBit,         // the complex bit flipped
  SwappedNdr,         // big-endian NDR record, every scalar byte-swapped
};

struct ReceivedRequest {
  std::string routine;
  std::int32_t id = 0;
  std::vector<std::uint8_t> frame;  // message then regions, as received
  std::uint32_t messageSize = 0;
  std::vector<std::int64_t> integers;            // per field (0 for bytes fields)
  std::vector<std::vector<std::uint8_t>> bytes;  // per field (empty for scalar fields)
  gw::ipc::Credentials peer;
};

class TestDaemon {
 public:
  explicit TestDaemon(gw::ipc::Service service = gw::ipc::Service::Daemon);
  ~TestDaemon();
  TestDaemon(const TestDaemon&) = delete;
  TestDaemon& operator=(const TestDaemon&) = delete;

  // Plain reply scalars, in the routine's out order.
  void answer(std::string_view routine, std::vector<std::int32_t> scalars);
  // Plain reply scalars computed from each request (e.g. to echo a field back).
  void answerWith(std::string_view routine,
                  std::function<std::vector<std::int32_t>(const gw::ipc::Request&)> compute);
  // The region of a data reply.
  void answerData(std::string_view routine, std::vector<std::uint8_t> data);
  // The 36-byte error reply with this return code.
  void answerError(std::string_view routine, std::int32_t code);
  void misbehave(std::string_view routine, Misbehaviour how,
                 std::chrono::milliseconds delay = std::chrono::milliseconds(0));

  std::vector<ReceivedRequest> received() const;
  std::size_t requestCount() const;
  // Waits (bounded) until at least n requests were received.
  bool waitForRequests(std::size_t n, std::chrono::milliseconds limit = std::chrono::seconds(5));
  const std::string& socketPath() const { return server_->path(); }
  // Waits (bounded) until the daemon has closed every connection; false if it has not.
  bool waitUntilIdle(std::chrono::milliseconds limit = std::chrono::seconds(5)) const;

 private:
  struct Script {
    std::vector<std::int32_t> scalars;
    std::function<std::vector<std::int32_t>(const gw::ipc::Request&)> compute;
    std::vector<std::uint8_t> data;
    std::int32_t errorCode = 0;
    Misbehaviour how = Misbehaviour::None;
    std::chrono::milliseconds delay{0};
  };
  gw::ipc::Reply respond(const gw::ipc::Request& request);
  Script& script(std::string_view routine);

  gw::ipc::Dispatcher dispatcher_;
  std::unique_ptr<gw::ipc::MessageServer> server_;
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::map<std::string, Script, std::less<>> scripts_;
  std::vector<ReceivedRequest> received_;
  std::thread thread_;
};

// The reply frame a misbehaving daemon sends instead of the right one (exposed for the fuzz
// corpus and the CLI's test daemon).
std::vector<std::uint8_t> tamperedReply(const gw::ipc::Routine& routine,
                                        const mach_msg_header_t& request,
                                        std::vector<std::uint8_t> reply, Misbehaviour how);

}  // namespace gwtest
