#include "kelstore/etcd/Client.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <utility>

#include "kelstore/etcd/Channels.h"
#include "kelstore/etcd/Endpoints.h"
#include "kelstore/etcd/History.h"
#include "kelstore/etcd/KeyTable.h"
#include "kelstore/etcd/RpcMessages.h"
#include "kelstore/etcd/rpc.grpc.pb.h"
#include "runtime/Errors.h"

namespace Kelstore::Etcd {
namespace {

namespace Rpc = etcdserverpb;
using Clock = std::chrono::system_clock;  // gRPC's deadlines are of this one
using Channel = std::shared_ptr<grpc::Channel>;

// How often a listing is tried whose revision is compacted, or whose pages come from different clusters.
constexpr int kListingTries = 5;

// Whether another endpoint may answer instead.
bool isElsewhere(absl::StatusCode code) {
  return code == absl::StatusCode::kUnavailable || code == absl::StatusCode::kDeadlineExceeded ||
         code == absl::StatusCode::kInternal || code == absl::StatusCode::kUnknown;
}

absl::Status noSuchLease(int64_t lease) {
  return absl::NotFoundError(fmt::format("there is no lease {:x}", lease));
}

}  // namespace

class Client::Impl {
 public:
  // One call at one endpoint.
  using Attempt = std::function<grpc::Status(const Channel& channel, grpc::ClientContext& context)>;

  Impl(std::vector<std::string> endpoints, Access access, Options options)
      : endpoints_(std::move(endpoints)),
        access_(std::move(access)),
        options_(std::move(options)),
        store_(options_.known ? options_.known : std::make_shared<KnownStore>()),
        history_(static_cast<uint64_t>(options_.hold.count()), endpoints_.size()) {}

  const Options& options() const { return options_; }
  const std::string& endpoint() const { return endpoints_.current(); }
  void prefer(const std::string& endpoint) {
    if (!endpoints_.prefer(endpoint)) return;
    channel_.reset();
    leftHomeAt_ = std::chrono::steady_clock::now();
  }

  absl::Status call(const Attempt& attempt) {
    // The system's clock may be set meanwhile, so this one measures the time.
    auto end = std::chrono::steady_clock::now() + options_.deadline;
    end_ = Clock::now() + options_.deadline;
    std::string failures;
    absl::Status status;
    repeated_ = false;
    if (homeIsDue()) goHome();
    for (size_t left = endpoints_.size(); left > 0; --left) {
      // The endpoint that answered last is the most likely to answer again.
      bool first = left == endpoints_.size() && left > 1;
      auto share = (end - std::chrono::steady_clock::now()) / static_cast<int64_t>(first ? 2 : left);
      Clock::time_point deadline = Clock::now() + share;
      bool connected = channel_ != nullptr;
      status = callHere(deadline, attempt);
      if (connected && absl::IsUnavailable(status)) {
        // The connection may have ended since the last call, as by a restart of the server.
        repeated_ |= mayBeDone_;
        channel_.reset();
        status = callHere(deadline, attempt);
      }
      if (!isElsewhere(status.code())) return status;
      failures += fmt::format("{}{}", failures.empty() ? "" : "; ", Runtime::textOf(status));
      repeated_ |= mayBeDone_;
      // A channel that failed fails further calls for a while; a new one connects at once.
      channel_.reset();
      endpoints_.next();
      leftHomeAt_ = std::chrono::steady_clock::now();
      history_.serverLeft(nowMs());
    }
    return {status.code(), failures};
  }

  // Whether the answer is one of the store that is known, or of one that counts in its place. `latest`: the
  // server had seen every revision when it answered.
  grpc::Status believed(const Rpc::ResponseHeader& answer, bool latest) {
    if (options_.hold.count() == 0) return grpc::Status::OK;
    Header header = headerOf(answer);
    if (!latest) header.revision = 0;
    bool foreign = latest ? History::foreign(header, known_)
                          : known_.clusterId != 0 && header.clusterId != known_.clusterId;
    if (foreign) history_.contradicted(nowMs());
    if (foreign && !history_.overdue()) {
      return {grpc::StatusCode::UNAVAILABLE,
              fmt::format("another store: {}; nothing is written to it until no server has had the expected "
                          "one for {} s, or "
                          "this program is started again",
                          history_.difference(header), options_.hold.count() / 1000)};
    }
    if (foreign || latest) {
      history_.is(header);
      store_->is(header, known_);
    } else {
      history_.confirmed();
    }
    return grpc::Status::OK;
  }

  // The page, or why there is none.
  struct PageOr {
    absl::StatusOr<Page> page;
    std::optional<PageFailure> failure;
  };
  PageOr page(const Rpc::RangeRequest& request) {
    Rpc::RangeResponse response;
    PageFailure failure = PageFailure::other;
    absl::Status status = call([&](const Channel& channel, grpc::ClientContext& context) {
      response.Clear();
      grpc::Status end = Rpc::KV::NewStub(channel)->Range(&context, request, &response);
      failure = end.ok() ? PageFailure::other : failureOf(end);
      return end.ok() ? believed(response.header(), true) : end;
    });
    if (!status.ok()) return {status, failure};
    return {pageOf(response, options_.valueBytes), std::nullopt};
  }

  // Whether an unanswered attempt of the last call may have been carried out.
  bool repeated() const { return repeated_; }

  // A unary call of a service.
  template <class Service, class Request, class Response>
  absl::Status unary(grpc::Status (Service::Stub::*method)(grpc::ClientContext*, const Request&, Response*),
                     const Request& request, Response& response) {
    return call([&](const Channel& channel, grpc::ClientContext& context) {
      response.Clear();
      grpc::Status end = (Service::NewStub(channel).get()->*method)(&context, request, &response);
      constexpr bool kLatest = !std::is_same_v<Response, Rpc::LeaseTimeToLiveResponse>;
      return end.ok() ? believed(response.header(), kLatest) : end;
    });
  }

  // A unary call that changes who may do what.
  template <class Request>
  absl::Status account(grpc::Status (Rpc::Auth::Stub::*method)(grpc::ClientContext*, const Request&,
                                                               Rpc::AuthAnswer*),
                       const Request& request) {
    Rpc::AuthAnswer answer;
    absl::Status status = unary<Rpc::Auth>(method, request, answer);
    bool there = status.message().find("already exists") != std::string_view::npos;
    return there ? absl::AlreadyExistsError(status.message()) : status;
  }

 private:
  // Whether a failed attempt may have been carried out. It was not if there never was a connection.
  bool mayBeDone(const grpc::Status& status) const {
    if (refusedWithoutLeader(status)) return false;
    grpc_connectivity_state state = channel_->GetState(false);
    return state == GRPC_CHANNEL_READY || state == GRPC_CHANNEL_IDLE;
  }

  bool homeIsDue() const {
    return options_.goHomeAfter.count() != 0 && !endpoints_.atHome() &&
           std::chrono::steady_clock::now() - leftHomeAt_ >= options_.goHomeAfter;
  }

  // Stays with the present endpoint unless the home answers soon, so that the call has nearly all of its
  // time.
  void goHome() {
    leftHomeAt_ = std::chrono::steady_clock::now();
    std::string present = endpoints_.current();
    Channel channel = std::exchange(channel_, nullptr);
    endpoints_.goHome();
    Rpc::RangeRequest request = rangeRequest("home", "", 0, 1);
    Rpc::RangeResponse response;
    absl::Status status =
        callHere(Clock::now() + std::min<std::chrono::milliseconds>(options_.deadline / 4, kHomeAnswer),
                 [&](const Channel& home, grpc::ClientContext& context) {
                   grpc::Status end = Rpc::KV::NewStub(home)->Range(&context, request, &response);
                   return end.ok() ? believed(response.header(), true) : end;
                 });
    mayBeDone_ = false;
    if (!isElsewhere(status.code())) return;
    endpoints_.prefer(present);
    channel_ = std::move(channel);
  }

  absl::Status callHere(Clock::time_point deadline, const Attempt& attempt) {
    TokenRenewal renewal;
    while (true) {
      mayBeDone_ = false;
      absl::Status ready = connect(deadline);
      if (!ready.ok()) return ready;
      grpc::ClientContext context;
      context.set_deadline(deadline);
      addMetadata(context, *token_);
      known_ = store_->header();
      if (known_.clusterId != history_.at(0).clusterId) history_.is(known_);
      grpc::Status status = attempt(channel_, context);
      mayBeDone_ = !status.ok() && mayBeDone(status);
      if (!renewal.dueAfter(access_, status)) return asStatus(endpoint(), access_, status);
      refused_ = std::exchange(token_, std::nullopt);
    }
  }

  static uint64_t nowMs() {
    auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
  }

  absl::Status connect(Clock::time_point deadline) {
    if (!channel_) {
      auto channel = makeChannel(endpoint(), access_);
      if (!channel.ok()) return channel.status();
      channel_ = *std::move(channel);
    }
    if (token_) return absl::OkStatus();
    // A server that has just refused a token answers, though maybe to hundreds of others as well.
    if (refused_) deadline = end_;
    auto token = store_->token(refused_, deadline, [&]() -> absl::StatusOr<std::string> {
      grpc::ClientContext context;
      context.set_deadline(deadline);
      auto loggedIn = logIn(endpoint(), access_, channel_, std::nullopt, context);
      if (!loggedIn.ok()) return loggedIn.status();
      return loggedIn->token;
    });
    if (!token.ok()) return token.status();
    token_ = *std::move(token);
    return absl::OkStatus();
  }

  Endpoints endpoints_;
  const Access access_;
  const Options options_;
  Channel channel_;
  std::optional<std::string> token_;    // empty: calls need none
  std::optional<std::string> refused_;  // the last one that was
  Clock::time_point end_;               // of the call under way
  const std::shared_ptr<KnownStore> store_;
  Header known_;                                      // of the store, when the attempt began
  std::chrono::steady_clock::time_point leftHomeAt_;  // or when it was asked in vain
  History history_;                                   // for how long it has not been seen
  bool mayBeDone_ = false;  // whether the last attempt failed, but may have been carried out
  bool repeated_ = false;
};

Client::Client(std::vector<std::string> endpoints, Access access, Options options)
    : impl_(std::make_unique<Impl>(std::move(endpoints), std::move(access), std::move(options))) {}

Client::~Client() = default;

void Client::prefer(const std::string& endpoint) { impl_->prefer(endpoint); }

const std::string& Client::endpoint() const { return impl_->endpoint(); }

absl::StatusOr<std::string> Client::version() {
  Rpc::StatusResponse response;
  absl::Status status =
      impl_->unary<Rpc::Maintenance>(&Rpc::Maintenance::Stub::Status, Rpc::StatusRequest(), response);
  if (!status.ok()) return status;
  return response.version();
}

absl::StatusOr<Listing> Client::range(const KeyRange& keys) {
  Listing listing;
  std::string from = keys.first;
  PageSize size(impl_->options().pageKeys);
  for (int tries = 1;;) {
    auto [page, failure] = impl_->page(rangeRequest(from, keys.end, listing.revision, size.keys()));
    if (failure == PageFailure::tooLarge && size.failed(*failure)) continue;
    bool otherCluster = page.ok() && listing.revision != 0 && page->header.clusterId != listing.clusterId;
    if ((otherCluster || failure == PageFailure::noRevision) && tries < kListingTries) {
      ++tries;
      listing = {};
      from = keys.first;
      continue;
    }
    if (!page.ok()) return page.status();
    if (otherCluster) return absl::UnavailableError("the endpoints are of different clusters");
    size.worked();
    if (listing.revision == 0) {
      listing.revision = page->header.revision;
      listing.clusterId = page->header.clusterId;
    }
    bool last = !page->more || page->records.empty();
    std::move(page->records.begin(), page->records.end(), std::back_inserter(listing.records));
    if (last) return listing;
    from = keyAfter(listing.records.back().key);
  }
}

absl::StatusOr<Listing> Client::get(const std::string& key) { return range({key, ""}); }

absl::StatusOr<Listing> Client::getAll(const std::vector<std::string>& keys) {
  Listing listing;
  size_t most = kMaxTxnOps;
  for (size_t done = 0; done < keys.size();) {
    size_t end = std::min(done + most, keys.size());
    Rpc::TxnRequest request;
    for (size_t i = done; i < end; ++i) {
      *request.add_success()->mutable_request_range() = rangeRequest(keys[i], "", 0, 0);
    }
    Rpc::TxnResponse response;
    absl::Status status = impl_->unary<Rpc::KV>(&Rpc::KV::Stub::Txn, request, response);
    // Together they may be more than a message may hold.
    if (absl::IsResourceExhausted(status) && most > 1) {
      most /= 2;
      continue;
    }
    if (!status.ok()) return status;
    for (Rpc::ResponseOp& one : *response.mutable_responses()) {
      Page page = pageOf(*one.mutable_response_range(), impl_->options().valueBytes);
      std::move(page.records.begin(), page.records.end(), std::back_inserter(listing.records));
    }
    listing.revision = response.header().revision();
    listing.clusterId = response.header().cluster_id();
    done = end;
  }
  return listing;
}

absl::StatusOr<int64_t> Client::put(const std::string& key, const std::string& value, int64_t lease) {
  Rpc::PutRequest request;
  request.set_key(key);
  request.set_value(value);
  request.set_lease(lease);
  Rpc::PutResponse response;
  absl::Status status = impl_->unary<Rpc::KV>(&Rpc::KV::Stub::Put, request, response);
  if (!status.ok()) return status;
  return response.header().revision();
}

absl::StatusOr<int64_t> Client::del(const std::string& key) {
  absl::StatusOr<Deletion> deletion = del(KeyRange{key, ""});
  if (!deletion.ok()) return deletion.status();
  return deletion->revision;
}

absl::StatusOr<Deletion> Client::del(const KeyRange& keys) {
  Rpc::DeleteRangeRequest request;
  request.set_key(keys.first);
  request.set_range_end(keys.end);
  Rpc::DeleteRangeResponse response;
  absl::Status status = impl_->unary<Rpc::KV>(&Rpc::KV::Stub::DeleteRange, request, response);
  if (!status.ok()) return status;
  return Deletion{response.header().revision(), response.deleted(), impl_->repeated()};
}

absl::StatusOr<int64_t> Client::txn(const std::vector<Op>& ops,
                                    const std::vector<Precondition>& preconditions) {
  Rpc::TxnRequest request;
  for (const Precondition& precondition : preconditions) {
    Rpc::Compare& compare = *request.add_compare();
    compare.set_result(Rpc::Compare::EQUAL);
    compare.set_target(Rpc::Compare::MOD);
    compare.set_key(precondition.key);
    compare.set_mod_revision(precondition.modRevision);
  }
  for (const Op& op : ops) {
    Rpc::RequestOp& added = *request.add_success();
    if (op.what == Op::What::put) {
      added.mutable_request_put()->set_key(op.key);
      added.mutable_request_put()->set_value(op.value);
      added.mutable_request_put()->set_lease(op.lease);
    } else {
      added.mutable_request_delete_range()->set_key(op.key);
    }
  }
  Rpc::TxnResponse response;
  absl::Status status = impl_->unary<Rpc::KV>(&Rpc::KV::Stub::Txn, request, response);
  if (!status.ok()) return status;
  if (!response.succeeded()) return absl::AbortedError("a key is not as it was expected to be");
  return response.header().revision();
}

absl::Status Client::addUser(const std::string& user, const std::string& password) {
  Rpc::AuthUserAddRequest request;
  request.set_name(user);
  request.set_password(password);
  request.mutable_options()->set_no_password(password.empty());
  return impl_->account(&Rpc::Auth::Stub::UserAdd, request);
}

absl::Status Client::addRole(const std::string& role) {
  Rpc::AuthRoleAddRequest request;
  request.set_name(role);
  return impl_->account(&Rpc::Auth::Stub::RoleAdd, request);
}

absl::Status Client::grantRole(const std::string& user, const std::string& role) {
  Rpc::AuthUserGrantRoleRequest request;
  request.set_user(user);
  request.set_role(role);
  return impl_->account(&Rpc::Auth::Stub::UserGrantRole, request);
}

absl::Status Client::grantKeys(const std::string& role, const KeyRange& keys, Right right) {
  Rpc::AuthRoleGrantPermissionRequest request;
  request.set_name(role);
  request.mutable_perm()->set_permtype(right == Right::read ? Rpc::Permission::MAY_READ
                                                            : Rpc::Permission::MAY_DO_BOTH);
  request.mutable_perm()->set_key(keys.first);
  request.mutable_perm()->set_range_end(keys.end);
  return impl_->account(&Rpc::Auth::Stub::RoleGrantPermission, request);
}

absl::Status Client::askWhoItIs() {
  return impl_->account(&Rpc::Auth::Stub::AuthEnable, Rpc::AuthEnableRequest());
}

absl::StatusOr<int64_t> Client::grant(std::chrono::seconds ttl) {
  Rpc::LeaseGrantRequest request;
  request.set_ttl(ttl.count());
  Rpc::LeaseGrantResponse response;
  absl::Status status = impl_->unary<Rpc::Lease>(&Rpc::Lease::Stub::LeaseGrant, request, response);
  if (!status.ok()) return status;
  return response.id();
}

absl::StatusOr<std::chrono::seconds> Client::keepAliveOnce(int64_t lease) {
  Rpc::LeaseKeepAliveRequest request;
  request.set_id(lease);
  Rpc::LeaseKeepAliveResponse response;
  absl::Status status = impl_->call([&](const Channel& channel, grpc::ClientContext& context) {
    response.Clear();
    auto stub = Rpc::Lease::NewStub(channel);
    auto stream = stub->LeaseKeepAlive(&context);
    if (stream->Write(request) && stream->Read(&response)) {
      // The answer is there; nobody needs the end of the stream.
      context.TryCancel();
      stream->Finish();
      return impl_->believed(response.header(), false);
    }
    grpc::Status end = stream->Finish();
    return end.ok() ? grpc::Status(grpc::StatusCode::UNAVAILABLE, "the stream ended without an answer") : end;
  });
  if (!status.ok()) return status;
  if (response.ttl() <= 0) return noSuchLease(lease);
  return std::chrono::seconds(response.ttl());
}

absl::Status Client::revoke(int64_t lease) {
  Rpc::LeaseRevokeRequest request;
  request.set_id(lease);
  Rpc::LeaseRevokeResponse response;
  absl::Status status = impl_->unary<Rpc::Lease>(&Rpc::Lease::Stub::LeaseRevoke, request, response);
  return absl::IsNotFound(status) ? noSuchLease(lease) : status;
}

absl::StatusOr<LeaseTime> Client::timeToLive(int64_t lease) {
  Rpc::LeaseTimeToLiveRequest request;
  request.set_id(lease);
  Rpc::LeaseTimeToLiveResponse response;
  absl::Status status = impl_->unary<Rpc::Lease>(&Rpc::Lease::Stub::LeaseTimeToLive, request, response);
  if (!status.ok()) return status;
  if (response.ttl() < 0) return noSuchLease(lease);
  return LeaseTime{std::chrono::seconds(response.ttl()), std::chrono::seconds(response.grantedttl())};
}

}  // namespace Kelstore::Etcd
