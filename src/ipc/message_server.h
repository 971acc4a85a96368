// A message server: serves one service's socket with a Dispatcher, many clients at once, on one
// thread, against clients that may be hostile.
//
// listen() binds "<bootstrap folder>/<service name>" (or any path given), replacing a stale socket
// file, and makes it connectable by every local user; adopt() takes a socket that already listens
// (socket activation). The server reads one frame from each connection, dispatches it, writes the
// answer (after the handler's delay, without blocking other clients) and closes the connection.
// It runs either by run() (an epoll loop on the calling thread, ended by stop() from any thread)
// or attached to an sd-event loop (attach()), never both.
//
// What one peer can take is bounded by Limits:
// - connections: at most maxConnections in all and maxConnectionsPerUid per uid (root is held
//   only to the total). A uid at its cap gives up its oldest connection that is still reading a
//   request; when the total is reached, the uid holding the most connections does. Nothing to
//   give up: the new connection is closed at once.
// - time: a whole request must arrive within idleTimeout of the connection being accepted.
// - memory: a request buffer grows as bytes arrive, never to the declared length up front. The
//   first kMaxRequestSize bytes of every connection are free (so a login question never waits
//   for memory); what a connection holds beyond that counts against maxBytesInFlightPerUid and
//   maxBytesInFlight, and a connection that would pass either is closed. An allocation failure
//   closes the connection it happened for; nothing escapes the loop.
// - descriptors: a frame keeps at most as many SCM_RIGHTS descriptors as the routine with the
//   most ports takes (one); the rest are closed unread and the request is refused as malformed
//   (-304 for a two-way routine). When the process runs out of descriptors, accept() failing
//   with EMFILE/ENFILE, the server spends a spare descriptor to accept and close the waiting
//   connection and stops listening until a connection closes or listenerPause passes.
//
// Threads: everything but stop() and stats() runs on the serving thread. The destructor closes
// every connection and removes the socket file it bound (not an adopted one).
#pragma once

#include <systemd/sd-event.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "ipc/dispatcher.h"
#include "platform/fs/unique_fd.h"

namespace gw::ipc {

class MessageServer {
 public:
  // The production values are the defaults; tests use small ones.
  struct Limits {
    std::size_t maxConnections = 4096;
    std::size_t maxConnectionsPerUid = 64;
    std::uint64_t maxBytesInFlight = std::uint64_t(256) << 20;
    // Room for one request of the largest size (1152 bytes and 64 MiB of regions) and then some.
    std::uint64_t maxBytesInFlightPerUid = std::uint64_t(80) << 20;
    std::chrono::milliseconds idleTimeout{10000};
    std::chrono::milliseconds listenerPause{250};
  };

  // What the server has done so far, for tests and statistics (any thread).
  struct Stats {
    std::size_t openConnections = 0;
    std::uint64_t bytesInFlight = 0;          // counted as above (beyond each free allowance)
    std::uint64_t accepted = 0;               // connections taken into service
    std::uint64_t refusedConnections = 0;     // closed on accept: over a cap, nothing to reclaim
    std::uint64_t reclaimedConnections = 0;   // idle connections closed to make room
    std::uint64_t overBudgetConnections = 0;  // closed for holding too many bytes
    std::uint64_t timedOutConnections = 0;
    std::uint64_t descriptorsRefused = 0;     // received descriptors closed unread
    std::uint64_t descriptorExhaustions = 0;  // accept() failed for want of descriptors
    std::uint64_t loopWakeups = 0;            // event batches handled
  };

  // nullptr with *error set when the socket cannot be made.
  static std::unique_ptr<MessageServer> listen(const std::string& socketPath,
                                               const Dispatcher& dispatcher, std::string* error);
  static std::unique_ptr<MessageServer> listen(const std::string& socketPath,
                                               const Dispatcher& dispatcher, Limits limits,
                                               std::string* error);
  // Adopt an already listening socket (socket activation through sd_listen_fds); path is only
  // recorded (not unlinked on destruction).
  static std::unique_ptr<MessageServer> adopt(fs::UniqueFd listener, std::string path,
                                              const Dispatcher& dispatcher, Limits limits,
                                              std::string* error);
  ~MessageServer();
  MessageServer(const MessageServer&) = delete;
  MessageServer& operator=(const MessageServer&) = delete;

  // Serves until stop().
  void run();
  void stop();
  // Serve on an sd-event loop instead of run(): the server's epoll descriptor becomes an I/O source
  // of the loop and its earliest deadline a timer source. Returns 0 or a negative errno.
  int attach(sd_event* loop);

  // Moves on before requests are handed to their handlers, once for all the requests of one
  // sweep over the listener and once for each request that arrived later: every request handled
  // under one number was read in full before the first of them was handled. So a handler that
  // checks for outside changes once per number sees every change made before its request was
  // sent. Serving thread only.
  std::uint64_t readGeneration() const;

  const std::string& path() const { return path_; }
  const Limits& limits() const { return limits_; }
  // Connections open right now (any thread; for tests and statistics).
  std::size_t openConnections() const;
  Stats stats() const;

 private:
  struct Loop;
  struct Counters;
  MessageServer(std::string path, bool ownsPath, const Dispatcher& dispatcher, Limits limits,
                fs::UniqueFd listener, fs::UniqueFd epoll, fs::UniqueFd wake);
  static std::unique_ptr<MessageServer> make(fs::UniqueFd listener, std::string path, bool ownsPath,
                                             const Dispatcher& dispatcher, Limits limits,
                                             std::string* error);
  // Handles whatever is ready without waiting, then the deadlines that passed.
  void serviceOnce();
  // Milliseconds until the earliest deadline (-1: none), and that deadline for sd-event.
  int millisecondsToNextDeadline() const;
  int rearmTimer();
  static int onIo(sd_event_source* source, int fd, std::uint32_t revents, void* self);
  static int onTimer(sd_event_source* source, std::uint64_t usec, void* self);

  std::string path_;
  bool ownsPath_;
  const Dispatcher& dispatcher_;
  Limits limits_;
  fs::UniqueFd listener_, epoll_, wake_;
  std::atomic<bool> stopping_{false};
  std::unique_ptr<Counters> counters_;
  std::unique_ptr<Loop> loop_;
  sd_event_source* ioSource_ = nullptr;
  sd_event_source* timerSource_ = nullptr;
};

// "<bootstrap folder>/<service name>" for the dispatcher's service.
std::string serviceSocketPathFor(Service service);

}  // namespace gw::ipc
