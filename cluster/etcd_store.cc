#include "cluster/etcd_store.h"

#include <functional>
#include <utility>

#include "cluster/etcd_codec.h"

namespace klv::cluster {
namespace {

// Without a descriptor of its own (while it resolves a name, say) curl still
// wants to be called now and then.
constexpr long kPollWithoutDescriptorsMs = 100;

// Failures in which nothing reached the server, so that the call may go to
// another endpoint.
bool ConnectionFailed(CURLcode code) {
  return code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_HOST ||
         code == CURLE_OPERATION_TIMEDOUT;
}

// The handler of a reply that `parse` reads into a Result for `done`; a reply
// it cannot read makes the call refused.
template <typename Result>
std::function<void(const StoreResult&, const std::string&)> Parsed(
    bool (*parse)(const std::string&, Result*, std::string*),
    std::function<void(const StoreResult&, const Result&)> done) {
  return [parse, done = std::move(done)](const StoreResult& sent, const std::string& body) {
    StoreResult result = sent;
    Result reply;
    if (result.Done() && !parse(body, &reply, &result.failure)) {
      result.status = StoreStatus::kRefused;
    }
    done(result, reply);
  };
}

}  // namespace

EtcdStore::EtcdStore(std::vector<std::string> endpoints)
    : EtcdStore(std::move(endpoints), Options()) {}

EtcdStore::EtcdStore(std::vector<std::string> endpoints, const Options& options)
    : endpoints_(std::move(endpoints)), options_(options) {
  // Once per process, before any other curl call; we have one thread.
  static const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  (void)initialised;
  multi_ = curl_multi_init();
  headers_ = curl_slist_append(nullptr, "Content-Type: application/json");
  // No "Expect: 100-continue" round trip before a larger body.
  headers_ = curl_slist_append(headers_, "Expect:");
}

EtcdStore::~EtcdStore() {
  EndWatch(nullptr);
  for (auto& [handle, call] : calls_) {
    curl_multi_remove_handle(multi_, handle);
    curl_easy_cleanup(handle);
  }
  curl_multi_cleanup(multi_);
  curl_slist_free_all(headers_);
}

void EtcdStore::Commit(const Transaction& transaction, TransactionDone done) {
  Post("/v3/kv/txn", etcd::TransactionBody(transaction), Parsed(etcd::ParseTransaction, done));
}

void EtcdStore::Range(const std::string& key, const std::string& range_end, RangeDone done) {
  Post("/v3/kv/range", etcd::RangeBody(key, range_end), Parsed(etcd::ParseRange, done));
}

void EtcdStore::GrantLease(int64_t ttl_s, LeaseDone done) {
  Post("/v3/lease/grant", etcd::GrantBody(ttl_s), Parsed(etcd::ParseLease, done));
}

void EtcdStore::KeepAlive(int64_t id, LeaseDone done) {
  // A stream on the wire; one request brings one message and the end.
  Post("/v3/lease/keepalive", etcd::LeaseIdBody(id), Parsed(etcd::ParseLease, done));
}

void EtcdStore::TimeToLive(int64_t id, LeaseDone done) {
  Post("/v3/lease/timetolive", etcd::LeaseIdBody(id), Parsed(etcd::ParseLease, done));
}

void EtcdStore::RevokeLease(int64_t id, Done done) {
  Post("/v3/lease/revoke", etcd::LeaseIdBody(id),
       [done = std::move(done)](const StoreResult& sent, const std::string& body) {
         StoreResult result = sent;
         if (result.Done() && !etcd::ParseDone(body, &result.failure)) {
           result.status = StoreStatus::kRefused;
         }
         done(result);
       });
}

void EtcdStore::Watch(const std::string& prefix, int64_t start_revision, WatchHandler handler) {
  EndWatch(nullptr);
  watch_ = std::make_unique<Call>();
  watch_->path = "/v3/watch";
  watch_->body = etcd::WatchBody(prefix, start_revision);
  watch_handler_ = std::move(handler);
  Send(watch_.get());
}

void EtcdStore::CancelWatch() { EndWatch(nullptr); }

void EtcdStore::Post(const std::string& path, std::string body, Call::Reply reply) {
  auto call = std::make_unique<Call>();
  call->path = path;
  call->body = std::move(body);
  call->reply = std::move(reply);
  Call* sent = call.get();
  Send(sent);
  calls_[sent->handle] = std::move(call);
}

void EtcdStore::Send(Call* call) {
  call->endpoint = endpoint_;
  ++call->tries;
  call->received.clear();
  CURL* handle = call->handle != nullptr ? call->handle : curl_easy_init();
  call->handle = handle;
  const std::string url = endpoints_[endpoint_] + call->path;
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers_);
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, call->body.c_str());
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(call->body.size()));
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &EtcdStore::Receive);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, call);
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, call->error);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, options_.connect_timeout_ms);
  const bool is_watch = call == watch_.get();
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, is_watch ? 0L : options_.request_timeout_ms);
  curl_multi_add_handle(multi_, handle);
}

size_t EtcdStore::Receive(char* data, size_t size, size_t count, void* user) {
  static_cast<Call*>(user)->received.append(data, size * count);
  return size * count;
}

void EtcdStore::AddDescriptors(fd_set* readable, fd_set* writable, int* max_fd) {
  fd_set exceptional;
  FD_ZERO(&exceptional);
  int highest = -1;
  curl_multi_fdset(multi_, readable, writable, &exceptional, &highest);
  if (highest > *max_fd) *max_fd = highest;
}

long EtcdStore::TimeoutMs() {
  long timeout_ms = -1;
  curl_multi_timeout(multi_, &timeout_ms);
  if (calls_.empty() && watch_ == nullptr) return timeout_ms;
  fd_set readable, writable, exceptional;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  FD_ZERO(&exceptional);
  int highest = -1;
  curl_multi_fdset(multi_, &readable, &writable, &exceptional, &highest);
  if (highest < 0 && (timeout_ms < 0 || timeout_ms > kPollWithoutDescriptorsMs)) {
    return kPollWithoutDescriptorsMs;
  }
  return timeout_ms;
}

void EtcdStore::Perform() {
  int running = 0;
  curl_multi_perform(multi_, &running);
  DeliverWatchMessages();
  // Collect first: a callback may start calls, which curl would report here.
  std::vector<std::pair<CURL*, CURLcode>> ended;
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg == CURLMSG_DONE)
      ended.emplace_back(message->easy_handle, message->data.result);
  }
  for (const auto& [handle, code] : ended) Finish(handle, code);
}

void EtcdStore::Finish(CURL* handle, CURLcode code) {
  if (watch_ != nullptr && handle == watch_->handle) {
    curl_multi_remove_handle(multi_, handle);
    if (MovedToNextEndpoint(watch_.get(), code)) return Send(watch_.get());
    const uint64_t serial = watch_serial_;
    DeliverWatchMessages();
    if (watch_ == nullptr || watch_serial_ != serial) return;
    WatchReport lost;
    lost.kind = WatchReport::Kind::kLost;
    lost.failure = Outcome(watch_.get(), code).failure;
    if (lost.failure.empty()) lost.failure = "the store ended the watch stream";
    return EndWatch(&lost);
  }
  const auto found = calls_.find(handle);
  if (found == calls_.end()) return;
  curl_multi_remove_handle(multi_, handle);
  if (MovedToNextEndpoint(found->second.get(), code)) return Send(found->second.get());
  std::unique_ptr<Call> call = std::move(found->second);
  calls_.erase(found);
  const StoreResult result = Outcome(call.get(), code);
  curl_easy_cleanup(handle);
  call->reply(result, call->received);
}

bool EtcdStore::MovedToNextEndpoint(Call* call, CURLcode code) {
  long request_bytes = 0;
  curl_easy_getinfo(call->handle, CURLINFO_REQUEST_SIZE, &request_bytes);
  if (!ConnectionFailed(code) || request_bytes > 0) return false;
  // Calls sent before an earlier one moved on must not move the store back.
  if (call->endpoint == endpoint_) endpoint_ = (endpoint_ + 1) % endpoints_.size();
  return call->tries < endpoints_.size();
}

StoreResult EtcdStore::Outcome(Call* call, CURLcode code) const {
  const std::string where = endpoints_[call->endpoint] + call->path + ": ";
  const std::string detail = call->error[0] != '\0' ? call->error : curl_easy_strerror(code);
  long request_bytes = 0;
  curl_easy_getinfo(call->handle, CURLINFO_REQUEST_SIZE, &request_bytes);
  if (code != CURLE_OK && request_bytes == 0) {
    return {StoreStatus::kUnreachable, "no endpoint took the request; last " + where + detail};
  }
  if (code != CURLE_OK) return {StoreStatus::kLost, where + detail};
  long http_status = 0;
  curl_easy_getinfo(call->handle, CURLINFO_RESPONSE_CODE, &http_status);
  if (http_status != 200) {
    return {StoreStatus::kRefused, where + "HTTP status " + std::to_string(http_status) + ": " +
                                       call->received.substr(0, 200)};
  }
  return {};
}

void EtcdStore::DeliverWatchMessages() {
  // A handler may end the watch or start another: then stop.
  const uint64_t serial = watch_serial_;
  size_t end = 0;
  while (watch_ != nullptr && watch_serial_ == serial &&
         (end = watch_->received.find('\n')) != std::string::npos) {
    const std::string line = watch_->received.substr(0, end);
    watch_->received.erase(0, end + 1);
    WatchReport report;
    std::string failure;
    switch (etcd::ParseWatchMessage(line, &report, &failure)) {
      case etcd::WatchMessage::kNothing:
        break;
      case etcd::WatchMessage::kReport:
        if (report.kind == WatchReport::Kind::kCompacted) return EndWatch(&report);
        watch_handler_(report);
        break;
      case etcd::WatchMessage::kError:
        report.kind = WatchReport::Kind::kLost;
        report.failure = failure;
        return EndWatch(&report);
    }
  }
}

void EtcdStore::EndWatch(const WatchReport* report) {
  if (watch_ == nullptr) return;
  ++watch_serial_;
  std::unique_ptr<Call> watch = std::move(watch_);
  WatchHandler handler = std::move(watch_handler_);
  watch_handler_ = nullptr;
  curl_multi_remove_handle(multi_, watch->handle);
  curl_easy_cleanup(watch->handle);
  if (report != nullptr) handler(*report);
}

}  // namespace klv::cluster
