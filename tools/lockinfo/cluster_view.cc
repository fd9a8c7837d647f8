#include "tools/lockinfo/cluster_view.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string_view>
#include <utility>

#include "protocol/open_modes.h"
#include "protocol/report_layout.h"
#include "tools/lockinfo/report_writers.h"

namespace klv {

namespace {

// The open mode that stands for share index `index`: its access and deny
// values, one of each class.
std::string ClassText(int index) {
  static constexpr uint32_t kAccessOfClass[] = {OPEN_READ, OPEN_WRITE, OPEN_READWRITE};
  static constexpr uint32_t kDenyOfClass[] = {DENY_MSDOS, DENY_NONE, DENY_READ, DENY_WRITE,
                                              DENY_READWRITE};
  if (index < 0 || index >= kShareModes) return "class " + std::to_string(index);
  return std::string(report::AccessText(kAccessOfClass[index / 5])) +
         report::DenyText(kDenyOfClass[index % 5]);
}

// A number of at most 20 digits at the front of `*text`, which moves past it.
bool ReadNumber(std::string_view* text, uint64_t* number) {
  size_t digits = 0;
  *number = 0;
  while (digits < text->size() && digits < 20 && (*text)[digits] >= '0' && (*text)[digits] <= '9')
    *number = *number * 10 + static_cast<uint64_t>((*text)[digits++] - '0');
  text->remove_prefix(digits);
  return digits > 0;
}

// "OFFSET:LENGTH:x" (exclusive) or "...:s" (shared).
bool DecodeRange(std::string_view word, ClusterRange* range) {
  if (!ReadNumber(&word, &range->offset) || word.empty() || word[0] != ':') return false;
  word.remove_prefix(1);
  if (!ReadNumber(&word, &range->length) || word.size() != 2 || word[0] != ':') return false;
  range->exclusive = word[1] == 'x';
  return word[1] == 'x' || word[1] == 's';
}

// "hhhhhhhh:llllllll", eight lower-case hex digits each.
bool ReadFileKey(std::string_view text, uint32_t* hi, uint32_t* lo) {
  if (text.size() != 17 || text[8] != ':') return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (i != 8 && !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  *hi = static_cast<uint32_t>(strtoul(std::string(text.substr(0, 8)).c_str(), nullptr, 16));
  *lo = static_cast<uint32_t>(strtoul(std::string(text.substr(9)).c_str(), nullptr, 16));
  return true;
}

// A name field as the report has them: escaped, padded to 15 characters.
void AppendName(std::string* out, const std::string& name) {
  const size_t before = out->size();
  AppendEscaped(out, name);
  if (out->size() - before < 15) out->append(15 - (out->size() - before), ' ');
}

void AppendHoldingText(std::string* out, const ClusterHolding& holding) {
  *out += "    ";
  AppendName(out, holding.node);
  if (!holding.decoded) {
    *out += " summary: ";
    AppendEscaped(out, holding.undecoded);
    *out += '\n';
    return;
  }
  for (const int index : holding.classes) *out += ' ' + ClassText(index);
  *out += '\n';
  for (const ClusterRange& range : holding.ranges) {
    *out += "                    " + std::to_string(range.offset) + ' ' +
            std::to_string(range.length) + (range.exclusive ? " exclusive\n" : " shared\n");
  }
}

void AppendHoldingJson(std::string* out, const ClusterHolding& holding) {
  *out += "\n      {\"node\": ";
  AppendQuoted(out, holding.node);
  if (!holding.decoded) {
    *out += ", \"summary\": ";
    AppendQuoted(out, holding.undecoded);
    *out += '}';
    return;
  }
  *out += ", \"classes\": [";
  for (size_t i = 0; i < holding.classes.size(); ++i)
    *out += (i > 0 ? ", \"" : "\"") + ClassText(holding.classes[i]) + '"';
  *out += "], \"ranges\": [";
  for (size_t i = 0; i < holding.ranges.size(); ++i) {
    const ClusterRange& range = holding.ranges[i];
    *out += std::string(i > 0 ? ", " : "") + "{\"offset\": " + std::to_string(range.offset) +
            ", \"length\": " + std::to_string(range.length) + ", \"type\": \"" +
            (range.exclusive ? "exclusive" : "shared") + "\"}";
  }
  *out += "]}";
}

}  // namespace

std::string ClusterPrefix(const std::string& cluster) { return "/klvlockd/" + cluster + "/"; }

bool DecodeSummary(const std::string& value, ClusterHolding* holding) {
  std::string_view text = value;
  holding->classes.clear();
  holding->ranges.clear();
  const size_t end = std::min(text.find(' '), text.size());
  if (end == 0 || end > 4) return false;
  uint32_t classes = 0;
  for (const char c : text.substr(0, end)) {
    const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    if (digit < 0) return false;
    classes = classes << 4 | static_cast<uint32_t>(digit);
  }
  if (classes >> kShareModes != 0) return false;
  for (int index = 0; index < kShareModes; ++index) {
    if ((classes >> index & 1) != 0) holding->classes.push_back(index);
  }
  text.remove_prefix(end);
  while (!text.empty()) {
    text.remove_prefix(1);  // the blank before each range
    const size_t blank = std::min(text.find(' '), text.size());
    ClusterRange range;
    if (!DecodeRange(text.substr(0, blank), &range)) return false;
    holding->ranges.push_back(range);
    text.remove_prefix(blank);
  }
  return true;
}

ClusterView ReadClusterView(const std::string& cluster, const cluster::RangeResult& read) {
  ClusterView view;
  view.cluster = cluster;
  view.revision = read.revision;
  const std::string prefix = ClusterPrefix(cluster);
  std::map<std::pair<uint32_t, uint32_t>, ClusterFile> files;
  for (const cluster::KeyValue& kv : read.kvs) {
    if (kv.key.compare(0, prefix.size(), prefix) != 0) continue;
    const std::string_view rest = std::string_view(kv.key).substr(prefix.size());
    if (rest.substr(0, 6) == "nodes/" && rest.size() > 6 && rest.find('/', 6) == rest.npos) {
      view.nodes.push_back({std::string(rest.substr(6)), kv.value, kv.lease, -1});
      continue;
    }
    const size_t slash = rest.find('/', 6);
    ClusterFile file;
    if (rest.substr(0, 6) != "files/" || slash == rest.npos || slash + 1 == rest.size() ||
        !ReadFileKey(rest.substr(6, slash - 6), &file.key_hi, &file.key_lo))
      continue;
    ClusterHolding holding;
    holding.node = std::string(rest.substr(slash + 1));
    if (!DecodeSummary(kv.value, &holding)) {
      holding.decoded = false;
      holding.undecoded = kv.value;
    }
    ClusterFile& entry = files.try_emplace({file.key_hi, file.key_lo}, file).first->second;
    entry.holdings.push_back(std::move(holding));
  }
  for (auto& [key, file] : files) view.files.push_back(std::move(file));
  return view;
}

std::string ClusterText(const ClusterView& view) {
  std::string out = "Cluster ";
  AppendEscaped(&out, view.cluster);
  out += " at revision " + std::to_string(view.revision) + "\n\n== Nodes\n";
  if (!view.nodes.empty()) out += "  Name            Lease left  Registration\n";
  for (const ClusterNode& node : view.nodes) {
    out += "  ";
    AppendName(&out, node.name);
    char left[16];
    snprintf(left, sizeof left, "%10s  ",
             node.lease_left_s < 0 ? "ended" : (std::to_string(node.lease_left_s) + " s").c_str());
    out += ' ';
    out += left;
    AppendEscaped(&out, node.registration);
    out += '\n';
  }
  out += "\n== Files\n";
  for (const ClusterFile& file : view.files) {
    out += '[' + std::to_string(file.key_hi) + ',' + std::to_string(file.key_lo) + "]\n";
    out += "  Holdings: [node classes] [offset length type]\n";
    for (const ClusterHolding& holding : file.holdings) AppendHoldingText(&out, holding);
  }
  out += "\nNodes: " + std::to_string(view.nodes.size()) +
         " Files: " + std::to_string(view.files.size()) + "\n";
  return out;
}

std::string ClusterJson(const ClusterView& view) {
  std::string out = "{\"cluster\": ";
  AppendQuoted(&out, view.cluster);
  out += ", \"revision\": " + std::to_string(view.revision) + ",\n  \"nodes\": [";
  for (size_t i = 0; i < view.nodes.size(); ++i) {
    const ClusterNode& node = view.nodes[i];
    out += std::string(i > 0 ? "," : "") + "\n    {\"name\": ";
    AppendQuoted(&out, node.name);
    char lease[24];  // in hex, as etcdctl writes lease ids
    snprintf(lease, sizeof lease, "%016llx", static_cast<unsigned long long>(node.lease));
    out += ", \"lease\": \"" + std::string(lease) +
           "\", \"lease_left\": " + std::to_string(node.lease_left_s) + ", \"registration\": ";
    AppendQuoted(&out, node.registration);
    out += '}';
  }
  out += view.nodes.empty() ? "],\n  \"files\": [" : "\n  ],\n  \"files\": [";
  for (size_t i = 0; i < view.files.size(); ++i) {
    const ClusterFile& file = view.files[i];
    out += std::string(i > 0 ? "," : "") + "\n    {\"key_hi\": " + std::to_string(file.key_hi) +
           ", \"key_lo\": " + std::to_string(file.key_lo) + ", \"holdings\": [";
    for (size_t j = 0; j < file.holdings.size(); ++j) {
      if (j > 0) out += ',';
      AppendHoldingJson(&out, file.holdings[j]);
    }
    out += "]}";
  }
  out += view.files.empty() ? "]}\n" : "\n  ]}\n";
  return out;
}

}  // namespace klv
