#include "support/test_daemon.h"

#include <stdexcept>

#include "platform/mach/frame.h"

namespace gwtest {

using gw::ipc::ReplyShape;

std::vector<std::uint8_t> tamperedReply(const gw::ipc::Routine& routine,
                                        const mach_msg_header_t& request,
                                        std::vector<std::uint8_t> reply, Misbehaviour how) {
  (void)request;
  if (reply.size() < 36) return reply;
  std::uint8_t* p = reply.data();
  std::uint32_t size = gw::mach::load32(p + 4);
  switch (how) {
    case Misbehaviour::WrongId:
      gw::mach::store32(p + 20, gw::mach::load32(p + 20) + 1);
      break;
    case Misbehaviour::WrongSize:
      // Keep the frame consistent: the message shrinks, any region moves with it.
      gw::mach::store32(p + 4, size - 4);
      reply.erase(reply.begin() + std::ptrdiff_t(size - 4), reply.begin() + std::ptrdiff_t(size));
      if (gw::mach::load32(p) & MACH_MSGH_BITS_COMPLEX) {
        reply.data()[28] = std::uint8_t(size - 4);  // region offset (little-endian low byte)
      }
      break;
    case Misbehaviour::ComplexBit:
      gw::mach::store32(p, gw::mach::load32(p) ^ MACH_MSGH_BITS_COMPLEX);
      break;
    case Misbehaviour::SwappedNdr: {
      bool data = routine.reply == ReplyShape::Data && size == 56;
      std::size_t ndr = data ? 44 : 24;
      p[ndr + gw::ipc::kNdrIntRepOffset] = 0;  // big-endian integers
      for (std::size_t at = ndr + 8; at + 4 <= size; at += 4) {
        gw::mach::store32(p + at, __builtin_bswap32(gw::mach::load32(p + at)));
      }
      break;
    }
    default:
      break;
  }
  return reply;
}

TestDaemon::TestDaemon(gw::ipc::Service service) : dispatcher_(service) {
  for (const gw::ipc::Routine& r : gw::ipc::allRoutines()) {
    if (r.service != service) continue;
    dispatcher_.handle(r.name,
                       [this](const gw::ipc::Request& request) { return respond(request); });
  }
  std::string error;
  server_ =
      gw::ipc::MessageServer::listen(gw::ipc::serviceSocketPathFor(service), dispatcher_, &error);
  if (!server_) throw std::runtime_error("test daemon: " + error);
  thread_ = std::thread([this] { server_->run(); });
}

TestDaemon::~TestDaemon() {
  server_->stop();
  thread_.join();
}

TestDaemon::Script& TestDaemon::script(std::string_view routine) {
  auto it = scripts_.find(routine);
  if (it == scripts_.end()) it = scripts_.emplace(std::string(routine), Script{}).first;
  return it->second;
}

void TestDaemon::answer(std::string_view routine, std::vector<std::int32_t> scalars) {
  std::lock_guard lock(mutex_);
  script(routine).scalars = std::move(scalars);
  script(routine).errorCode = 0;
}

void TestDaemon::answerWith(
    std::string_view routine,
    std::function<std::vector<std::int32_t>(const gw::ipc::Request&)> compute) {
  std::lock_guard lock(mutex_);
  script(routine).compute = std::move(compute);
  script(routine).errorCode = 0;
}

void TestDaemon::answerData(std::string_view routine, std::vector<std::uint8_t> data) {
  std::lock_guard lock(mutex_);
  script(routine).data = std::move(data);
  script(routine).errorCode = 0;
}

void TestDaemon::answerError(std::string_view routine, std::int32_t code) {
  std::lock_guard lock(mutex_);
  script(routine).errorCode = code;
}

void TestDaemon::misbehave(std::string_view routine, Misbehaviour how,
                           std::chrono::milliseconds delay) {
  std::lock_guard lock(mutex_);
  script(routine).how = how;
  script(routine).delay = delay;
}

gw::ipc::Reply TestDaemon::respond(const gw::ipc::Request& request) {
  ReceivedRequest record;
  record.routine = std::string(request.routine.name);
  record.id = request.header.msgh_id;
  record.frame.assign(request.frame.begin(), request.frame.end());
  record.messageSize = request.header.msgh_size;
  for (const gw::ipc::FieldValue& f : request.fields) {
    record.integers.push_back(f.integer);
    record.bytes.emplace_back(f.bytes.begin(), f.bytes.end());
  }
  record.peer = request.peer;

  gw::ipc::Reply reply;
  Script script;
  {
    std::lock_guard lock(mutex_);
    auto it = scripts_.find(request.routine.name);
    if (it != scripts_.end()) script = it->second;
    received_.push_back(std::move(record));
  }
  arrived_.notify_all();

  reply.returnCode = script.errorCode;
  reply.scalars = script.compute ? script.compute(request) : script.scalars;
  reply.data = script.data;
  reply.delay = script.delay;
  switch (script.how) {
    case Misbehaviour::None:
    case Misbehaviour::Delay:
      break;
    case Misbehaviour::CloseWithoutReply:
      reply.close = true;
      break;
    default:
      reply.rawFrame =
          tamperedReply(request.routine, request.header,
                        gw::ipc::encodeReply(request.routine, request.header, reply.returnCode,
                                             reply.scalars, reply.data),
                        script.how);
  }
  return reply;
}

bool TestDaemon::waitUntilIdle(std::chrono::milliseconds limit) const {
  auto until = std::chrono::steady_clock::now() + limit;
  while (server_->openConnections() != 0) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::vector<ReceivedRequest> TestDaemon::received() const {
  std::lock_guard lock(mutex_);
  return received_;
}

std::size_t TestDaemon::requestCount() const {
  std::lock_guard lock(mutex_);
  return received_.size();
}

bool TestDaemon::waitForRequests(std::size_t n, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, limit, [&] { return received_.size() >= n; });
}

}  // namespace gwtest
