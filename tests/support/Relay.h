// Stands between a client and a server on 127.0.0.1, and does to their connections what networks do. Runs on
// a thread of its own until the object goes; all methods may be called on any thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/WaitUntil.h"

namespace Support {

class Relay final {
 public:
  // To the server at this port of 127.0.0.1, be it there already or not; from that port, or from a free one.
  explicit Relay(uint16_t target, uint16_t port = 0);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  uint16_t port() const { return port_; }
  std::string endpoint() const;

  // Ends connections, and new ones as soon as they are made: all of them, or those of the process. Nothing
  // that is sent from then on gets through.
  void cut();
  void cutFrom(pid_t client);
  // Keeps connections, takes new ones, and lets nothing through.
  void freeze();
  // Every byte is late by this much, and no more than so many go each way in a second.
  void slow(Millis delay, size_t bytesPerSecond);
  // As if nothing had been; what was held up goes on.
  void heal();

  // That came from the server so far.
  uint64_t bytesBack() const { return bytesBack_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Rules {
    bool cutAll = false;
    pid_t cutFrom = 0;
    bool frozen = false;
    Millis delay{0};
    size_t bytesPerSecond = 0;  // 0: no limit
  };
  struct Chunk {
    Clock::time_point due;
    std::string bytes;
  };
  struct Direction {
    int from = -1;
    int to = -1;
    bool ended = false;  // nothing more comes
    bool shut = false;   // and the receiver was told
    size_t held = 0;     // bytes
    std::list<Chunk> chunks;
  };
  struct Connection {
    uint16_t clientPort = 0;
    Direction out;
    Direction back;
    bool broken = false;
  };

  void rulesAre(const Rules& rules);
  void run();
  void takeConnection(const Rules& rules);
  void read(Direction& direction, const Rules& rules, Connection& connection);
  void write(Direction& direction, Connection& connection);
  static bool isCut(const Rules& rules, uint16_t clientPort);

  const uint16_t target_;
  uint16_t port_ = 0;
  int listener_ = -1;
  int wake_ = -1;
  std::atomic<bool> ends_ = false;
  std::atomic<uint64_t> bytesBack_ = 0;
  std::mutex mutex_;  // guards the next two
  Rules rules_;
  std::vector<Rules> news_;  // what they were set to since the thread looked last
  std::list<Connection> connections_;
  std::thread thread_;
};

}  // namespace Support
