#include "cluster/etcd_codec.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>

namespace klv::cluster::etcd {
namespace {

using nlohmann::json;

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The value of the field `name` of `object`, or nullptr: never throws, so
// that any reply can be looked at.
const json* Field(const json& object, const char* name) {
  if (!object.is_object()) return nullptr;
  const auto found = object.find(name);
  return found == object.end() ? nullptr : &*found;
}

// 64-bit numbers come as decimal strings; a missing field is 0.
int64_t Number(const json& object, const char* name) {
  const json* field = Field(object, name);
  int64_t number = 0;
  if (field != nullptr && field->is_string()) {
    const std::string& text = field->get_ref<const std::string&>();
    std::from_chars(text.data(), text.data() + text.size(), number);
  } else if (field != nullptr && field->is_number_integer()) {
    number = field->get<int64_t>();
  }
  return number;
}

bool Flag(const json& object, const char* name) {
  const json* field = Field(object, name);
  return field != nullptr && field->is_boolean() && field->get<bool>();
}

std::string Bytes(const json& object, const char* name) {
  const json* field = Field(object, name);
  std::string bytes;
  if (field != nullptr && field->is_string())
    Base64Decode(field->get_ref<const std::string&>(), &bytes);
  return bytes;
}

const json& Items(const json& object, const char* name) {
  static const json kNone = json::array();
  const json* field = Field(object, name);
  return field != nullptr && field->is_array() ? *field : kNone;
}

KeyValue ToKeyValue(const json& kv) {
  return {Bytes(kv, "key"),           Bytes(kv, "value"),    Number(kv, "create_revision"),
          Number(kv, "mod_revision"), Number(kv, "version"), Number(kv, "lease")};
}

std::vector<KeyValue> KeyValues(const json& reply) {
  std::vector<KeyValue> kvs;
  for (const json& kv : Items(reply, "kvs")) kvs.push_back(ToKeyValue(kv));
  return kvs;
}

std::string Text(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// Parses a reply body; false with the reason for one that is no JSON object
// or that reports an error.
bool ParseReply(const std::string& body, json* reply, std::string* failure) {
  *reply = json::parse(body, nullptr, false);
  if (reply->is_discarded() || !reply->is_object()) {
    *failure = "the store's reply is not a JSON object: " + body.substr(0, 200);
    return false;
  }
  if (const json* error = Field(*reply, "error")) {
    const json* message = Field(*error, "message");
    if (message == nullptr) message = Field(*reply, "message");
    *failure = "the store refused the request: " + Text(message != nullptr ? *message : *error);
    return false;
  }
  return true;
}

json RangeRequest(const std::string& key, const std::string& range_end) {
  json request = {{"key", Base64Encode(key)}};
  if (!range_end.empty()) request["range_end"] = Base64Encode(range_end);
  return request;
}

json OperationRequest(const Operation& operation) {
  switch (operation.kind) {
    case Operation::Kind::kPut: {
      json put = {{"key", Base64Encode(operation.key)}, {"value", Base64Encode(operation.value)}};
      if (operation.lease != 0) put["lease"] = std::to_string(operation.lease);
      return {{"request_put", put}};
    }
    case Operation::Kind::kGet:
      return {{"request_range", RangeRequest(operation.key, operation.range_end)}};
    case Operation::Kind::kDelete:
      return {{"request_delete_range", RangeRequest(operation.key, operation.range_end)}};
  }
  return {};
}

json CompareRequest(const Compare& compare) {
  static const char* const kRelations[] = {"EQUAL", "NOT_EQUAL", "LESS", "GREATER"};
  json request = {{"key", Base64Encode(compare.key)},
                  {"result", kRelations[static_cast<int>(compare.relation)]}};
  const std::string number = std::to_string(compare.number);
  switch (compare.target) {
    case Compare::Target::kValue:
      request["target"] = "VALUE", request["value"] = Base64Encode(compare.value);
      break;
    case Compare::Target::kVersion:
      request["target"] = "VERSION", request["version"] = number;
      break;
    case Compare::Target::kModRevision:
      request["target"] = "MOD", request["mod_revision"] = number;
      break;
    case Compare::Target::kCreateRevision:
      request["target"] = "CREATE", request["create_revision"] = number;
      break;
  }
  return request;
}

}  // namespace

std::string Base64Encode(const std::string& bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t at = 0; at < bytes.size(); at += 3) {
    const size_t count = std::min<size_t>(3, bytes.size() - at);
    uint32_t group = 0;
    for (size_t i = 0; i < 3; ++i) {
      group = group << 8 | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0);
    }
    for (size_t i = 0; i < 4; ++i) {
      text += i <= count ? kBase64[(group >> (18 - 6 * i)) & 63] : '=';
    }
  }
  return text;
}

bool Base64Decode(const std::string& text, std::string* bytes) {
  bytes->clear();
  uint32_t group = 0;
  int bits = 0;
  for (const char c : text) {
    if (c == '=') break;
    const char* digit = c == '\0' ? nullptr : strchr(kBase64, c);
    if (digit == nullptr) return false;
    group = group << 6 | static_cast<uint32_t>(digit - kBase64);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      bytes->push_back(static_cast<char>((group >> bits) & 0xFF));
    }
  }
  return true;
}

std::string TransactionBody(const Transaction& transaction) {
  json request = {
      {"compare", json::array()}, {"success", json::array()}, {"failure", json::array()}};
  for (const Compare& compare : transaction.compares)
    request["compare"].push_back(CompareRequest(compare));
  for (const Operation& operation : transaction.success) {
    request["success"].push_back(OperationRequest(operation));
  }
  for (const Operation& operation : transaction.failure) {
    request["failure"].push_back(OperationRequest(operation));
  }
  return Text(request);
}

std::string RangeBody(const std::string& key, const std::string& range_end) {
  return Text(RangeRequest(key, range_end));
}

std::string GrantBody(int64_t ttl_s) { return Text({{"TTL", std::to_string(ttl_s)}}); }

std::string LeaseIdBody(int64_t id) { return Text({{"ID", std::to_string(id)}}); }

std::string WatchBody(const std::string& prefix, int64_t start_revision) {
  json create = RangeRequest(prefix, PrefixEnd(prefix));
  if (start_revision > 0) create["start_revision"] = std::to_string(start_revision);
  return Text({{"create_request", create}});
}

bool ParseTransaction(const std::string& body, TransactionResult* result, std::string* failure) {
  json reply;
  if (!ParseReply(body, &reply, failure)) return false;
  result->succeeded = Flag(reply, "succeeded");
  result->revision = Number(reply["header"], "revision");
  result->results.clear();
  for (const json& response : Items(reply, "responses")) {
    OperationResult& one = result->results.emplace_back();
    if (const json* range = Field(response, "response_range")) one.kvs = KeyValues(*range);
    if (const json* erase = Field(response, "response_delete_range")) {
      one.deleted = Number(*erase, "deleted");
    }
  }
  return true;
}

bool ParseRange(const std::string& body, RangeResult* result, std::string* failure) {
  json reply;
  if (!ParseReply(body, &reply, failure)) return false;
  result->kvs = KeyValues(reply);
  result->revision = Number(reply["header"], "revision");
  return true;
}

bool ParseLease(const std::string& body, LeaseResult* result, std::string* failure) {
  json reply;
  if (!ParseReply(body, &reply, failure)) return false;
  const json* inner = Field(reply, "result");
  const json& lease = inner != nullptr ? *inner : reply;
  result->id = Number(lease, "ID");
  result->ttl_s = Number(lease, "TTL");
  return true;
}

bool ParseDone(const std::string& body, std::string* failure) {
  json reply;
  return ParseReply(body, &reply, failure);
}

WatchMessage ParseWatchMessage(const std::string& line, WatchReport* report, std::string* failure) {
  json reply;
  if (!ParseReply(line, &reply, failure)) return WatchMessage::kError;
  const json* inner = Field(reply, "result");
  if (inner == nullptr) {
    *failure = "the store's watch message holds no result: " + line.substr(0, 200);
    return WatchMessage::kError;
  }
  *report = WatchReport();
  if (Flag(*inner, "canceled")) {
    report->compact_revision = Number(*inner, "compact_revision");
    if (report->compact_revision == 0) {
      *failure = "the store cancelled the watch: " + Text(*inner).substr(0, 200);
      return WatchMessage::kError;
    }
    report->kind = WatchReport::Kind::kCompacted;
    return WatchMessage::kReport;
  }
  for (const json& event : Items(*inner, "events")) {
    const json* type = Field(event, "type");
    const bool deleted = type != nullptr && *type == "DELETE";
    const json* kv = Field(event, "kv");
    report->events.push_back({deleted ? WatchEvent::Type::kDelete : WatchEvent::Type::kPut,
                              kv != nullptr ? ToKeyValue(*kv) : KeyValue()});
  }
  return report->events.empty() ? WatchMessage::kNothing : WatchMessage::kReport;
}

}  // namespace klv::cluster::etcd
