// The inside of a MessageServer: its connections and the bounds on what each peer holds. Used by
// message_server.cpp only; everything here runs on the serving thread, except the counters, which
// stats() reads from any thread.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <vector>

#include "ipc/message_server.h"

namespace gw::ipc {

struct MessageServer::Counters {
  std::atomic<std::size_t> openConnections{0};
  std::atomic<std::uint64_t> bytesInFlight{0};
  std::atomic<std::uint64_t> accepted{0};
  std::atomic<std::uint64_t> refusedConnections{0};
  std::atomic<std::uint64_t> reclaimedConnections{0};
  std::atomic<std::uint64_t> overBudgetConnections{0};
  std::atomic<std::uint64_t> timedOutConnections{0};
  std::atomic<std::uint64_t> descriptorsRefused{0};
  std::atomic<std::uint64_t> descriptorExhaustions{0};
  std::atomic<std::uint64_t> loopWakeups{0};
};

struct MessageServer::Loop {
  using Clock = std::chrono::steady_clock;

  struct Connection {
    fs::UniqueFd fd;
    Credentials peer;
    std::uint64_t serial = 0;       // accept order: lower is older
    std::vector<std::uint8_t> in;   // length prefix and body as they arrive
    std::uint64_t charged = 0;      // bytes of `in` counted against the budgets
    std::vector<fs::UniqueFd> fds;  // at most maxPortsPerRequest()
    bool excessDescriptors = false;
    std::vector<std::uint8_t> out;  // length prefix and reply
    std::size_t sent = 0;
    bool dispatched = false;
    bool answering = false;
    bool writing = false;
    Clock::time_point due;  // whole request by then; after dispatch: answer (or close) time
  };

  Loop(MessageServer& server);

  // Handles one batch of epoll events.
  void handle(const epoll_event* events, int count);
  // Accepts and serves the connections waiting on the listener (when it is listened to).
  void acceptWaiting();
  bool holdsNoConnection() const { return connections_.empty(); }
  // Acts on the deadlines that have passed.
  void expire();
  std::optional<Clock::time_point> nextDeadline() const;
  std::uint64_t readGeneration() const { return readGeneration_; }

 private:
  // A connection just accepted, with its first read.
  struct Arrival {
    fs::UniqueFd fd;
    Credentials peer;
    std::size_t size = 0;  // bytes read
    std::vector<fs::UniqueFd> fds;
    bool excessDescriptors = false;
  };

  void accept();
  // The peer and the first bytes (at most the free allowance) of a new connection; false when it
  // is to be closed at once.
  bool receiveFirst(Arrival& arrival, std::uint8_t* bytes);
  // Serves a whole request at once, or keeps the connection for the rest.
  void admit(Arrival& arrival, const std::uint8_t* bytes);
  // Takes a connection into the table and epoll (watching `events`), within the caps; nullptr
  // (the connection closed) when there is no room.
  Connection* keep(fs::UniqueFd fd, const Credentials& peer, std::uint32_t events);
  bool reclaimFrom(uid_t uid);
  bool reclaimFromLargestHolder();
  void outOfDescriptors();
  void pauseListener();
  void resumeListener();
  void read(Connection& c);
  bool charge(Connection& c, std::size_t capacity);
  Dispatcher::Outcome serve(std::span<const std::uint8_t> body,
                            const std::vector<fs::UniqueFd>& fds, const Credentials& peer,
                            bool excessDescriptors);
  void dispatch(Connection& c);
  void answerLater(Connection& c, Dispatcher::Outcome outcome);
  void finish(Connection& c);
  void close(int fd);
  void watch(int fd, std::uint32_t events, int op);

  MessageServer& server_;
  Counters& counters_;
  std::map<int, Connection> connections_;
  std::map<uid_t, std::size_t> connectionsPerUid_;
  std::map<uid_t, std::uint64_t> bytesPerUid_;
  std::uint64_t bytesInFlight_ = 0;
  std::uint64_t nextSerial_ = 0;
  fs::UniqueFd spare_;  // given up to accept-and-close when descriptors run out
  bool listening_ = true;
  Clock::time_point resumeAt_{};
  std::vector<std::uint8_t> chunk_;
  std::vector<Arrival> arrivals_;         // of one sweep of accept()
  std::vector<std::uint8_t> firstBytes_;  // their first reads, kFreeBytes each
  std::uint64_t readGeneration_ = 0;
};

}  // namespace gw::ipc
