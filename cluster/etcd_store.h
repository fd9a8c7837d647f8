#ifndef KLV_CLUSTER_ETCD_STORE_H_
#define KLV_CLUSTER_ETCD_STORE_H_

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "cluster/store.h"

namespace klv::cluster {

// The store served by etcd v3 members through their JSON gateway, over HTTP
// with libcurl's multi interface: every call is one POST, many may be in
// flight at once, and the watch is one streaming response. Calls go to one
// endpoint at a time; when it refuses the connection, the call and the ones
// after it move on to the next endpoint in the list.
class EtcdStore : public Store {
 public:
  struct Options {
    long connect_timeout_ms = 2000;
    long request_timeout_ms = 5000;  // all but the watch
  };

  // `endpoints`: "http://host:port", in the order to try them; at least one.
  explicit EtcdStore(std::vector<std::string> endpoints);
  EtcdStore(std::vector<std::string> endpoints, const Options& options);
  ~EtcdStore() override;
  EtcdStore(const EtcdStore&) = delete;
  EtcdStore& operator=(const EtcdStore&) = delete;

  void Commit(const Transaction& transaction, TransactionDone done) override;
  void Range(const std::string& key, const std::string& range_end, RangeDone done) override;
  void GrantLease(int64_t ttl_s, LeaseDone done) override;
  void KeepAlive(int64_t id, LeaseDone done) override;
  void RevokeLease(int64_t id, Done done) override;
  void Watch(const std::string& prefix, int64_t start_revision, WatchHandler handler) override;
  void CancelWatch() override;

  void AddDescriptors(fd_set* readable, fd_set* writable, int* max_fd) override;
  long TimeoutMs() override;
  void Perform() override;

  // Reads how long lease `id` has left, without renewing it: ttl_s is -1
  // once the lease has ended. For tools that look at other nodes' leases.
  void TimeToLive(int64_t id, LeaseDone done);

  // The endpoint that the next call goes to.
  const std::string& Endpoint() const { return endpoints_[endpoint_]; }
  // Calls in flight, the watch not counted.
  size_t CallsInFlight() const { return calls_.size(); }

 private:
  // One HTTP request: its path and body, the reply as it arrives, and what
  // to do with the reply.
  struct Call {
    using Reply = std::function<void(const StoreResult&, const std::string& body)>;
    std::string path, body, received;
    Reply reply;
    CURL* handle = nullptr;
    size_t endpoint = 0;  // where it was sent
    size_t tries = 0;     // endpoints tried
    char error[CURL_ERROR_SIZE] = {};
  };

  void Post(const std::string& path, std::string body, Call::Reply reply);
  void Send(Call* call);
  void Finish(CURL* handle, CURLcode code);
  // True when the call was never sent and another endpoint is left to try.
  bool MovedToNextEndpoint(Call* call, CURLcode code);
  StoreResult Outcome(Call* call, CURLcode code) const;
  // Hands the complete messages of the watch stream to its handler.
  void DeliverWatchMessages();
  // Ends the watch; with a report, hands it to the handler first.
  void EndWatch(const WatchReport* report);

  static size_t Receive(char* data, size_t size, size_t count, void* user);

  std::vector<std::string> endpoints_;
  Options options_;
  size_t endpoint_ = 0;
  CURLM* multi_;
  curl_slist* headers_;
  std::unordered_map<CURL*, std::unique_ptr<Call>> calls_;
  std::unique_ptr<Call> watch_;
  WatchHandler watch_handler_;
  uint64_t watch_serial_ = 0;  // counts the watches ended
};

}  // namespace klv::cluster

#endif  // KLV_CLUSTER_ETCD_STORE_H_
