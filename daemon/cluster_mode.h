#ifndef KLV_DAEMON_CLUSTER_MODE_H_
#define KLV_DAEMON_CLUSTER_MODE_H_

#include <sys/select.h>

#include <cstdint>
#include <memory>
#include <string>

namespace klv {

class LockManagerDaemon;

// Something besides the two sockets that the event loop waits for.
class LoopPart {
 public:
  virtual ~LoopPart() = default;
  virtual void AddDescriptors(fd_set* readable, fd_set* writable, int* max_fd) = 0;
  // Milliseconds until Perform is due without input; -1: no limit.
  virtual long TimeoutMs() = 0;
  // Runs first after every wait, before anything is decided.
  virtual void CheckDeadline() = 0;
  virtual void Perform() = 0;
};

// The daemon in cluster mode: the setting that KLVLOCKD_CLUSTER names, the
// store, and this node's part in the cluster.
class ClusterMode : public LoopPart {
 public:
  // The exit status of a node that has lost the cluster.
  static constexpr int kFencedStatus = 20;

  // Reads the setting when KLVLOCKD_CLUSTER is set. Null without the
  // variable, or with `*error` set (one line) when the setting is bad.
  static std::unique_ptr<ClusterMode> FromEnvironment(std::string* error);
  ~ClusterMode() override;

  // Connects to the store and registers the node; false with `*error` when
  // the store cannot be reached or the node name is taken.
  bool Register(std::string* error);
  // Makes `daemon` decide through the cluster and exit with kFencedStatus
  // after an error record once the node has lost it.
  void Attach(LockManagerDaemon* daemon);

  // At an orderly stop: ends the node's lease, so that the other nodes count
  // it dead at once, waiting a short while for the store.
  void Leave();

  void AddDescriptors(fd_set* readable, fd_set* writable, int* max_fd) override;
  long TimeoutMs() override;
  void CheckDeadline() override;
  void Perform() override;

 private:
  struct Parts;
  ClusterMode();
  // Serves the store alone until `*finished` or for at most `ms` milliseconds.
  void ServeStoreUntil(const bool* finished, int64_t ms);
  std::unique_ptr<Parts> parts_;
};

}  // namespace klv

#endif  // KLV_DAEMON_CLUSTER_MODE_H_
