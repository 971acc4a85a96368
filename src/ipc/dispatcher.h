// The server half of the routine catalogue: decodes requests, calls handlers, encodes replies.
//
// A daemon registers one handler per routine it serves. dispatch() takes one received frame
// (message and regions), checks it against the catalogue (size, shape, descriptors, inline bounds)
// and hands the handler the decoded fields and the caller's credentials, which come from the
// socket (SO_PEERCRED) and are the only identity a handler may trust: uid fields in a message are
// claims. A malformed request to a two-way routine is answered with the 36-byte error form
// (MIG_BAD_ARGUMENTS; an unknown id or a routine without handler: MIG_BAD_ID); a malformed one-way
// request is dropped. A handler that throws is answered with KERN_FAILURE and logged.
//
// Handlers run on the thread that calls dispatch() (the message server's loop). Registration
// must be finished before serving starts; dispatch() itself keeps no state and is reentrant.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "ipc/message_codec.h"
#include "ipc/routine_catalogue.h"

namespace gw::ipc {

inline constexpr std::int32_t kMigBadId = -303;
inline constexpr std::int32_t kMigBadArguments = -304;
inline constexpr std::int32_t kKernFailure = 5;

struct Credentials {
  uid_t uid = uid_t(-1);
  gid_t gid = gid_t(-1);
  pid_t pid = 0;
};

struct Request {
  const Routine& routine;
  const mach_msg_header_t& header;
  std::span<const FieldValue> fields;  // in the stub's argument order
  Credentials peer;
  std::span<const std::uint8_t> frame;  // the message and its regions, as received

  // The field named name (an empty value when the routine has no such field).
  const FieldValue& field(std::string_view name) const;
};

// What a handler answers. One-way routines ignore everything but `close`.
struct Reply {
  std::int32_t returnCode = 0;         // non-zero: the 36-byte error form
  std::vector<std::int32_t> scalars;   // Plain replies, in the routine's out order
  std::vector<std::uint8_t> data;      // Data replies
  std::chrono::milliseconds delay{0};  // answer this much later (the loop keeps serving)
  bool close = false;                  // close the connection without answering
  // Sent instead of the encoded reply, as the frame body (message and regions). For test servers
  // that must misbehave precisely.
  std::optional<std::vector<std::uint8_t>> rawFrame;
};

using Handler = std::function<Reply(const Request&)>;

class Dispatcher {
 public:
  explicit Dispatcher(Service service) : service_(service) {}

  // Serves routineName with handler (replacing an earlier one). False for a name not in the
  // catalogue of this dispatcher's service.
  bool handle(std::string_view routineName, Handler handler);
  // Called with every request that decoded, before its handler (tests watch the wire with it).
  void observe(std::function<void(const Request&)> observer) { observer_ = std::move(observer); }

  struct Outcome {
    bool answer = false;                 // send `reply` (a frame body)
    std::vector<std::uint8_t> reply;     // message and regions
    std::chrono::milliseconds delay{0};  // before answering, or before closing silently
  };
  Outcome dispatch(std::span<const std::uint8_t> body, std::span<const int> fds,
                   const Credentials& peer) const;
  // The answer to a frame that arrived with more descriptors than the server would take (they
  // were closed unread): the malformed-request error for a two-way routine, the unknown-id error
  // for an id not served, nothing for a one-way routine. No handler runs.
  Outcome refuseMalformed(std::span<const std::uint8_t> body, const Credentials& peer) const;

  Service service() const { return service_; }

 private:
  Service service_;
  std::map<std::int32_t, Handler> handlers_;
  std::function<void(const Request&)> observer_;
};

// The most port descriptors any routine's request carries: what a server takes with one frame.
std::size_t maxPortsPerRequest();

}  // namespace gw::ipc
