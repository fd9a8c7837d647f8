#ifndef KLV_LOCKSERVICE_RECORDING_REPLY_SINK_H_
#define KLV_LOCKSERVICE_RECORDING_REPLY_SINK_H_

#include <string>
#include <string_view>
#include <vector>

#include "foundation/socket.h"
#include "lockservice/reply_sink.h"

namespace klv {

// For tests and the fuzzer: keeps every datagram handed to it, in order,
// instead of sending it.
class RecordingReplySink : public ReplySink {
 public:
  enum class Writer { kReply, kAsync };
  struct Sent {
    Writer writer;
    SocketAddress to;
    std::string datagram;
  };

  void SendReply(const SocketAddress& to, std::string_view datagram) override {
    sent_.push_back({Writer::kReply, to, std::string(datagram)});
  }
  void SendAsync(const SocketAddress& to, std::string_view datagram) override {
    sent_.push_back({Writer::kAsync, to, std::string(datagram)});
  }

  // What was handed over since the last Clear, oldest first.
  const std::vector<Sent>& SentDatagrams() const { return sent_; }
  void Clear() { sent_.clear(); }

 private:
  std::vector<Sent> sent_;
};

}  // namespace klv

#endif  // KLV_LOCKSERVICE_RECORDING_REPLY_SINK_H_
