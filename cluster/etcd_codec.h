#ifndef KLV_CLUSTER_ETCD_CODEC_H_
#define KLV_CLUSTER_ETCD_CODEC_H_

#include <cstdint>
#include <string>

#include "cluster/store.h"

namespace klv::cluster::etcd {

// The request and reply bodies of the store's JSON gateway. Keys and values
// travel base64-encoded, 64-bit numbers as decimal strings, and fields that
// hold zero, false or nothing are left out of replies.

std::string Base64Encode(const std::string& bytes);
// False when `text` is not base64.
bool Base64Decode(const std::string& text, std::string* bytes);

// Request bodies.
std::string TransactionBody(const Transaction& transaction);
std::string RangeBody(const std::string& key, const std::string& range_end);
std::string GrantBody(int64_t ttl_s);
std::string LeaseIdBody(int64_t id);  // keep-alive, time to live and revoke
std::string WatchBody(const std::string& prefix, int64_t start_revision);

// Reply bodies. Each returns false, with the reason in `*failure`, for a
// reply that is not what the call expects or that reports an error.
bool ParseTransaction(const std::string& body, TransactionResult* result, std::string* failure);
bool ParseRange(const std::string& body, RangeResult* result, std::string* failure);
// A grant or time-to-live reply, or one message of the keep-alive stream.
bool ParseLease(const std::string& body, LeaseResult* result, std::string* failure);
bool ParseDone(const std::string& body, std::string* failure);

// One message of the watch stream: nothing to report (the watch was
// created), or `*report` holds events or the compaction, or the stream
// reported an error, given in `*failure`.
enum class WatchMessage { kNothing, kReport, kError };
WatchMessage ParseWatchMessage(const std::string& line, WatchReport* report, std::string* failure);

}  // namespace klv::cluster::etcd

#endif  // KLV_CLUSTER_ETCD_CODEC_H_
