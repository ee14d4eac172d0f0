#include "kelstore/etcd/Session.h"

#include <grpcpp/alarm.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/async_unary_call.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <new>
#include <utility>

#include "kelstore/etcd/Channels.h"
#include "kelstore/etcd/Feed.h"
#include "kelstore/etcd/Follower.h"
#include "kelstore/etcd/KeySpace.h"
#include "kelstore/etcd/Login.h"
#include "kelstore/etcd/RpcMessages.h"
#include "kelstore/etcd/rpc.grpc.pb.h"
#include "runtime/Errors.h"
#include "runtime/Memory.h"

namespace Kelstore::Etcd {
namespace {

constexpr uint64_t kNsPerMs = 1'000'000;
// Questions for leases at a time, and how long an answer may take.
constexpr size_t kLeasesAtOnce = 32;
constexpr std::chrono::seconds kLeaseAnswer(2);

// A tag of the queue. Holds what its operation uses.
using Done = Login::Done;
void* tag(Done done) { return new Done(std::move(done)); }

}  // namespace

class Session::Impl {
 public:
  Impl(const FollowSettings& settings, const Zavro::Clock& clock, Mailbox& mailbox, Runtime::Threads& threads)
      : settings_(settings),
        clock_(clock),
        keys_(KeySpace(settings.address.prefix).all()),
        follower_(followerSettings(), Runtime::unforeseenRandom()),
        mailbox_(mailbox),
        feed_(KeySpace(settings.address.prefix),
              {settings.limits, settings.clearAfterHold, uint64_t{settings.graceSeconds} * 1000}, clock,
              mailbox),
        login_(queue_, threads),
        homeLogin_(queue_, threads) {}

  void run() {
    follower_.start(nowMs());
    while (!stopping_) {
      try {
        turn();
      } catch (const std::bad_alloc&) {
        outOfMemory();
      }
    }
    close();
    queue_.Shutdown();
    void* done = nullptr;
    bool ok = false;
    while (queue_.Next(&done, &ok)) delete static_cast<Done*>(done);
  }

  void accept() {
    onThread([this] { follower_.accept(nowMs()); });
  }

  void askForLeases() {
    onThread([this] { beginLeases(); });
  }

  bool alive() {
    bool alive = asked_ - answered_ < 2;
    onThread([this, number = ++asked_] { answered_ = number; });
    return alive;
  }

  void stop() {
    // run() serves the queue until the alarm, so that this never comes too late.
    alarm_.Set(&queue_, gpr_time_0(GPR_TIMESPAN), stop_.release());
  }

 private:
  // Calls `work` on the session's thread.
  void onThread(std::function<void()> work) {
    auto alarm = std::make_shared<grpc::Alarm>();
    alarm->Set(&queue_, gpr_time_0(GPR_TIMESPAN),
               tag([alarm, work = std::move(work)](bool /*ok*/) { work(); }));
  }

  struct Watch {
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientAsyncReaderWriter<etcdserverpb::WatchRequest, etcdserverpb::WatchResponse>>
        stream;
    etcdserverpb::WatchRequest request;
    etcdserverpb::WatchResponse response;
    grpc::Status status;
    bool writing = true;
    bool wantsProgress = false;
  };
  using WatchPtr = std::shared_ptr<Watch>;

  // A connection to one server and the calls on it. Results that come after it was left are ignored.
  struct Connection {
    std::string endpoint;
    std::shared_ptr<grpc::Channel> channel;
    std::string token;
    bool left = false;
    TokenRenewal renewal;
    std::vector<std::weak_ptr<grpc::ClientContext>> contexts;
    WatchPtr watch;
  };
  using ConnectionPtr = std::shared_ptr<Connection>;

  template <class Response>
  struct Call {
    grpc::ClientContext context;
    Response response;
    grpc::Status status;
    std::unique_ptr<grpc::ClientAsyncResponseReader<Response>> reader;
  };

  Follower::Settings followerSettings() const {
    return {keys_.first,
            inOrderOf(settings_.place, settings_.address.endpoints),
            uint64_t{settings_.holdSeconds} * 1000,
            uint64_t{settings_.resyncSeconds} * 1000,
            KeySpace(settings_.address.prefix).groups(settings_.limits),
            settings_.limits.values,
            settings_.place};
  }

  uint64_t nowMs() const { return clock_.monotonicNs() / kNsPerMs; }

  void turn() {
    carryOut();
    feed_.follow(follower_);
    waitOnce();
    uint64_t now = nowMs();
    if (now >= follower_.wakeAtMs()) follower_.elapsed(now);
  }

  // What is known of the keys may be incomplete, so all are read again.
  void outOfMemory() {
    close();
    Follower next(followerSettings(), Runtime::unforeseenRandom());
    next.succeeds(follower_);
    follower_ = std::move(next);
    follower_.startAfter(Follower::kLastRetryMs, nowMs(), "out of memory, what was read before stays");
    feed_.startsAnew();
  }

  void waitOnce() {
    uint64_t now = nowMs();
    uint64_t at = std::min(follower_.wakeAtMs(), feed_.wakeAtMs());
    uint64_t wait = std::min<uint64_t>(at > now ? at - now : 0, 60'000);
    gpr_timespec deadline = gpr_time_from_millis(static_cast<int64_t>(wait), GPR_TIMESPAN);
    void* next = nullptr;
    bool ok = false;
    if (queue_.AsyncNext(&next, &ok, deadline) != grpc::CompletionQueue::GOT_EVENT) return;
    std::unique_ptr<Done> done(static_cast<Done*>(next));
    (*done)(ok);
  }

  void carryOut() {
    // Commands may lead to further commands.
    while (true) {
      std::vector<Command> commands = follower_.takeCommands();
      if (commands.empty()) return;
      for (Command& command : commands) {
        std::visit([this](auto& one) { carryOut(one); }, command);
      }
    }
  }

  void carryOut(const Disconnect& /*command*/) { close(); }

  void carryOut(const Connect& command) {
    ConnectionPtr home = std::exchange(home_, nullptr);
    close();
    if (home && home->channel && home->endpoint == command.endpoint) {
      token_ = home->token;
      connection_ = std::move(home);
      return;
    }
    connection_ = std::make_shared<Connection>();
    connection_->endpoint = command.endpoint;
    logIn(connection_);
  }

  void carryOut(const AskHome& command) {
    leaveHome();
    home_ = std::make_shared<Connection>();
    home_->endpoint = command.endpoint;
    logInAtHome(home_, command, token_);
  }

  void logInAtHome(const ConnectionPtr& home, const AskHome& command,
                   const std::optional<std::string>& token) {
    absl::Status started = homeLogin_.start(command.endpoint, settings_.access, home->channel, token,
                                            [this, home, command](absl::StatusOr<LoggedIn> result) {
                                              if (!result.ok()) return homeFailed();
                                              home->channel = std::move(result->channel);
                                              home->token = std::move(result->token);
                                              askHome(home, command);
                                            });
    if (!started.ok()) homeFailed();
  }

  // A server that was started again knows no token of before.
  void askHome(const ConnectionPtr& home, const AskHome& command) {
    auto call = make<Call<etcdserverpb::RangeResponse>>(home);
    call->context.set_deadline(std::chrono::system_clock::now() + kHomeAnswer);
    call->reader =
        etcdserverpb::KV::NewStub(home->channel)
            ->AsyncRange(&call->context, rangeRequest(command.key, "", command.revision, 1), &queue_);
    finish(home, call, [this, home, command](Call<etcdserverpb::RangeResponse>& done) {
      if (home->renewal.dueAfter(settings_.access, done.status))
        return logInAtHome(home, command, std::nullopt);
      if (!done.status.ok()) return homeFailed();
      follower_.homeSaid(nowMs(), pageOf(done.response, settings_.limits.valueBytes));
      carryOut();
      leaveHome();
    });
  }

  void homeFailed() {
    leaveHome();
    follower_.homeFailed(nowMs());
  }

  void carryOut(const ReadPage& command) {
    whenLetIn([this, command](const ConnectionPtr& connection) { readPage(connection, command); });
  }

  void carryOut(const OpenWatch& command) {
    whenLetIn([this, command](const ConnectionPtr& connection) { openWatch(connection, command); });
  }

  void carryOut(const RequestProgress& /*command*/) {
    if (!connection_ || !connection_->watch) return;
    connection_->watch->wantsProgress = true;
    writeNext(connection_, connection_->watch);
  }

  // Leaves a connection at once and cancels its calls.
  static void leave(ConnectionPtr& connection) {
    if (!connection) return;
    connection->left = true;
    for (const auto& weak : connection->contexts) {
      if (auto context = weak.lock()) context->TryCancel();
    }
    connection->watch.reset();
    connection.reset();
  }

  void leaveHome() {
    homeLogin_.cancel();
    leave(home_);
  }

  void close() {
    leaveHome();
    leave(connection_);
    waiting_.clear();
    leases_.clear();
    login_.cancel();
    loggingIn_ = false;
  }

  void whenLetIn(std::function<void(const ConnectionPtr&)> call) {
    if (!connection_) return;
    if (loggingIn_) {
      waiting_.push_back(std::move(call));
    } else {
      call(connection_);
    }
  }

  // A call that is cancelled when the connection is left.
  template <class Made>
  std::shared_ptr<Made> make(const ConnectionPtr& connection) {
    auto made = std::make_shared<Made>();
    addMetadata(made->context, connection->token);
    std::erase_if(connection->contexts, [](const auto& weak) { return weak.expired(); });
    connection->contexts.push_back(std::shared_ptr<grpc::ClientContext>(made, &made->context));
    return made;
  }

  // Starts the call and passes its result to `done`, unless the connection was left.
  template <class Response, class Finished>
  void finish(const ConnectionPtr& connection, std::shared_ptr<Call<Response>> call, Finished finished) {
    call->reader->Finish(&call->response, &call->status,
                         tag([connection, call, finished = std::move(finished)](bool /*ok*/) {
                           if (!connection->left) finished(*call);
                         }));
  }

  void logIn(const ConnectionPtr& connection) {
    loggingIn_ = true;
    absl::Status started = login_.start(
        connection->endpoint, settings_.access, connection->channel, token_,
        [this, connection](absl::StatusOr<LoggedIn> result) { loggedIn(connection, std::move(result)); });
    if (started.ok()) return;
    close();
    follower_.lost(nowMs(), Runtime::textOf(started));
  }

  void loggedIn(const ConnectionPtr& connection, absl::StatusOr<LoggedIn> result) {
    if (!result.ok()) return follower_.lost(nowMs(), Runtime::textOf(result.status()));
    connection->channel = std::move(result->channel);
    connection->token = result->token;
    token_ = std::move(result->token);
    loggingIn_ = false;
    for (const auto& call : std::exchange(waiting_, {})) call(connection);
  }

  void readPage(const ConnectionPtr& connection, const ReadPage& command) {
    etcdserverpb::RangeRequest request =
        rangeRequest(command.from, keys_.end, command.revision, command.limit, command.keysOnly);
    auto call = make<Call<etcdserverpb::RangeResponse>>(connection);
    call->reader =
        etcdserverpb::KV::NewStub(connection->channel)->AsyncRange(&call->context, request, &queue_);
    finish(connection, call, [this, connection, command](Call<etcdserverpb::RangeResponse>& done) {
      if (connection->renewal.dueAfter(settings_.access, done.status)) {
        token_.reset();
        logIn(connection);
        whenLetIn([this, command](const ConnectionPtr& again) { readPage(again, command); });
      } else if (done.status.ok()) {
        Runtime::needMemoryFor(0);
        follower_.pageRead(nowMs(), command.number,
                           pageOf(done.response, settings_.limits.valueBytes, command.keysOnly));
      } else {
        follower_.pageFailed(nowMs(), command.number, failureOf(done.status),
                             Runtime::textOf(asStatus(connection->endpoint, settings_.access, done.status)));
      }
    });
  }

  void openWatch(const ConnectionPtr& connection, const OpenWatch& command) {
    auto watch = make<Watch>(connection);
    connection->watch = watch;
    auto* create = watch->request.mutable_create_request();
    create->set_key(keys_.first);
    create->set_range_end(keys_.end);
    create->set_start_revision(command.fromRevision);
    create->set_progress_notify(true);
    create->set_fragment(true);
    watch->stream =
        etcdserverpb::Watch::NewStub(connection->channel)->PrepareAsyncWatch(&watch->context, &queue_);
    watch->stream->StartCall(tag([this, connection, watch](bool ok) {
      if (connection->left) return;
      if (!ok) return finishWatch(connection, watch);
      watch->stream->Write(watch->request, tag([this, connection, watch](bool /*ok*/) {
                             watch->writing = false;
                             writeNext(connection, watch);
                           }));
      readNext(connection, watch);
    }));
  }

  void writeNext(const ConnectionPtr& connection, const WatchPtr& watch) {
    if (connection->left || watch->writing || !std::exchange(watch->wantsProgress, false)) return;
    watch->writing = true;
    watch->request.Clear();
    watch->request.mutable_progress_request();
    // If the stream has ended, a read shows it.
    watch->stream->Write(watch->request, tag([this, connection, watch](bool ok) {
                           watch->writing = !ok;
                           writeNext(connection, watch);
                         }));
  }

  void readNext(const ConnectionPtr& connection, const WatchPtr& watch) {
    watch->response.Clear();
    watch->stream->Read(&watch->response, tag([this, connection, watch](bool ok) {
      if (connection->left) return;
      if (!ok) return finishWatch(connection, watch);
      follower_.watchSaid(nowMs(), watchResponseOf(watch->response, settings_.limits.valueBytes));
      readNext(connection, watch);
    }));
  }

  void finishWatch(const ConnectionPtr& connection, const WatchPtr& watch) {
    watch->stream->Finish(&watch->status, tag([this, connection, watch](bool /*ok*/) {
      if (connection->left) return;
      absl::Status status = asStatus(connection->endpoint, settings_.access, watch->status);
      follower_.lost(nowMs(),
                     status.ok() ? connection->endpoint + ": the watch was ended" : Runtime::textOf(status));
    }));
  }

  // A question that comes while others are under way is answered with these.
  void beginLeases() {
    if (leaseQuestions_ != 0) return;
    leases_ = feed_.takeLeases();
    askForMoreLeases();
  }

  // Questions of a connection that was left end while the next one may have no channel yet.
  void askForMoreLeases() {
    if (!connection_ || loggingIn_) leases_.clear();
    for (; !leases_.empty() && leaseQuestions_ < kLeasesAtOnce; leases_.pop_back())
      askForLease(leases_.back());
    if (leaseQuestions_ == 0) mailbox_.give({.leasesAsked = true});
  }

  void askForLease(int64_t lease) {
    etcdserverpb::LeaseTimeToLiveRequest request;
    request.set_id(lease);
    auto call = make<Call<etcdserverpb::LeaseTimeToLiveResponse>>(connection_);
    call->context.set_deadline(std::chrono::system_clock::now() + kLeaseAnswer);
    call->reader = etcdserverpb::Lease::NewStub(connection_->channel)
                       ->AsyncLeaseTimeToLive(&call->context, request, &queue_);
    ++leaseQuestions_;
    call->reader->Finish(&call->response, &call->status, tag([this, call, lease](bool /*ok*/) {
      --leaseQuestions_;
      int64_t left = call->response.ttl();
      if (call->status.ok())
        feed_.leaseIs(lease, left < 0 ? std::optional<uint64_t>() : static_cast<uint64_t>(left),
                      static_cast<uint64_t>(std::max<int64_t>(call->response.grantedttl(), 0)));
      askForMoreLeases();
    }));
  }

  const FollowSettings settings_;
  const Zavro::Clock& clock_;
  const KeyRange keys_;
  Follower follower_;
  Mailbox& mailbox_;
  Feed feed_;
  bool stopping_ = false;
  uint64_t asked_ = 0;  // whether the thread is alive
  std::atomic<uint64_t> answered_ = 0;
  grpc::CompletionQueue queue_;
  grpc::Alarm alarm_;
  std::unique_ptr<Done> stop_ = std::make_unique<Done>([this](bool /*ok*/) { stopping_ = true; });
  ConnectionPtr connection_;
  ConnectionPtr home_;  // to the home, while that is asked
  Login login_;
  Login homeLogin_;
  bool loggingIn_ = false;
  std::optional<std::string> token_;  // that is kept from one connection to the next
  std::vector<std::function<void(const ConnectionPtr&)>> waiting_;  // for the login
  std::vector<int64_t> leases_;                                     // to be asked for yet
  size_t leaseQuestions_ = 0;                                       // without an answer
};

Session::Session(const FollowSettings& settings, const Zavro::Clock& clock, Mailbox& mailbox,
                 Runtime::Threads& threads)
    : impl_(std::make_unique<Impl>(settings, clock, mailbox, threads)) {}

Session::~Session() = default;

void Session::run() { impl_->run(); }

void Session::accept() { impl_->accept(); }

void Session::askForLeases() { impl_->askForLeases(); }

bool Session::alive() { return impl_->alive(); }

void Session::stop() { impl_->stop(); }

}  // namespace Kelstore::Etcd
