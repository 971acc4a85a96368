// A message server: serves one service's socket with a Dispatcher, many clients at once, on one
// thread.
//
// listen() binds "<bootstrap folder>/<service name>" (or any path given), replacing a stale socket
// file, and makes it connectable by every local user. run() is an epoll loop: it accepts
// connections, reads one frame from each (bounded: the largest request plus 64 MiB of regions),
// dispatches it, writes the answer (after the handler's delay, without blocking other clients)
// and closes the connection. A connection that sends nothing for kIdleTimeout is closed. stop()
// may be called from any thread and makes run() return; the destructor closes every connection
// and removes the socket file.
#pragma once

#include <systemd/sd-event.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

#include "ipc/dispatcher.h"
#include "platform/fs/unique_fd.h"

namespace gw::ipc {

class MessageServer {
 public:
  static constexpr std::chrono::milliseconds kIdleTimeout{10000};
  static constexpr std::size_t kMaxConnections = 4096;

  // What one server lets its peers take.
  struct Limits {
    std::size_t maxConnections = kMaxConnections;
  };

  // nullptr with *error set when the socket cannot be made.
  static std::unique_ptr<MessageServer> listen(const std::string& socketPath,
                                               const Dispatcher& dispatcher, std::string* error);
  static std::unique_ptr<MessageServer> listen(const std::string& socketPath,
                                               const Dispatcher& dispatcher, Limits limits,
                                               std::string* error);
  // Serves a listening socket made by someone else (socket activation); path is removed on
  // destruction only when it names a socket.
  static std::unique_ptr<MessageServer> adopt(fs::UniqueFd listener, std::string path,
                                              const Dispatcher& dispatcher, Limits limits,
                                              std::string* error);
  // Serves as I/O and timer sources of loop instead of run(); 0 or -errno.
  int attach(sd_event* loop);
  ~MessageServer();
  MessageServer(const MessageServer&) = delete;
  MessageServer& operator=(const MessageServer&) = delete;

  void run();
  void stop();
  const std::string& path() const { return path_; }
  // Connections open right now (any thread; for tests and statistics).
  std::size_t openConnections() const { return open_.load(); }

 private:
  MessageServer(std::string path, const Dispatcher& dispatcher, fs::UniqueFd listener,
                fs::UniqueFd epoll, fs::UniqueFd wake);
  struct Loop;
  void serveEvents(int timeoutMs);
  void rearmTimer();
  static int onReadable(sd_event_source*, int, uint32_t, void* self);
  static int onTimer(sd_event_source*, uint64_t, void* self);

  std::unique_ptr<Loop> loop_;
  sd_event_source* io_ = nullptr;
  sd_event_source* timer_ = nullptr;
  Limits limits_;
  std::string path_;
  const Dispatcher& dispatcher_;
  fs::UniqueFd listener_, epoll_, wake_;
  std::atomic<bool> stopping_{false};
  std::atomic<std::size_t> open_{0};
};

// "<bootstrap folder>/<service name>" for the dispatcher's service.
std::string serviceSocketPathFor(Service service);

}  // namespace gw::ipc
