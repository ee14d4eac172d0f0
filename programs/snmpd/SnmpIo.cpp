#include "programs/snmpd/SnmpIo.h"

#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "snmp-modules/NetSnmp.h"

namespace InSnmpd {
namespace {

class Alarm final : public Runtime::Io::Activity {
 public:
  Alarm(uint64_t milliseconds, std::function<void()> elapsed) : elapsed_(std::move(elapsed)) {
    timeval time{static_cast<time_t>(milliseconds / 1000),
                 static_cast<suseconds_t>(milliseconds % 1000 * 1000)};
    id_ = snmp_alarm_register_hr(
        time, 0, [](unsigned, void* alarm) { static_cast<Alarm*>(alarm)->ring(); }, this);
  }
  // Nothing for one that has rung: net-snmp gives no number twice.
  ~Alarm() override { snmp_alarm_unregister(id_); }
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

 private:
  // The callback may destroy this.
  void ring() { std::exchange(elapsed_, {})(); }

  std::function<void()> elapsed_;
  unsigned id_ = 0;
};

Runtime::FileSignature signatureAt(const std::string& path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 ? Runtime::signatureOf(file) : Runtime::FileSignature{};
}

class Watch final : public Runtime::Io::Activity {
 public:
  Watch(Runtime::Io& io, std::string path, std::function<void()> changed)
      : io_(io), path_(std::move(path)), changed_(std::move(changed)), seen_(signatureAt(path_)) {
    again();
  }

 private:
  void again() {
    next_ = io_.after(SnmpIo::kLookMs, [this] { look(); });
  }
  // The callback may destroy this.
  void look() {
    again();
    auto before = std::exchange(seen_, signatureAt(path_));
    if (seen_ == before) return;
    auto changed = changed_;
    changed();
  }

  Runtime::Io& io_;
  const std::string path_;
  const std::function<void()> changed_;
  Runtime::FileSignature seen_;
  std::unique_ptr<Runtime::Io::Activity> next_;
};

}  // namespace

Event::Event(std::function<void()> happened)
    : happened_(std::move(happened)), descriptor_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  auto read = [](int fd, void* self) {
    eventfd_t count = 0;
    eventfd_read(fd, &count);
    auto call = static_cast<Event*>(self)->happened_;
    call();
  };
  if (!descriptor_.opened() || register_readfd(descriptor_.get(), read, this) != FD_REGISTERED_OK) {
    throw std::runtime_error("no descriptor to wake the agent's loop with");
  }
}

Event::~Event() { unregister_readfd(descriptor_.get()); }

void Event::wake() { eventfd_write(descriptor_.get(), 1); }

std::unique_ptr<Runtime::Io::Waker> SnmpIo::waker(std::function<void()> woken) {
  return std::make_unique<Event>(std::move(woken));
}

std::unique_ptr<Runtime::Io::Activity> SnmpIo::watch(const std::string& path, std::function<void()> changed) {
  return std::make_unique<Watch>(*this, path, std::move(changed));
}

std::unique_ptr<Runtime::Io::Activity> SnmpIo::after(uint64_t milliseconds, std::function<void()> elapsed) {
  return std::make_unique<Alarm>(milliseconds, std::move(elapsed));
}

void SnmpIo::offLoop(std::function<void()> work, std::function<void()> done) {
  work();
  done_.push_back(std::move(done));
  worked_.wake();
}

void SnmpIo::workIsDone() {
  for (auto& done : std::exchange(done_, {})) done();
}

}  // namespace InSnmpd
