#include "cluster/cluster_config.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>

namespace klv::cluster {
namespace {

std::string Trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// A whole decimal number in [low, high].
bool ParseNumber(const std::string& text, int low, int high, int* number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, *number);
  return error == std::errc() && stop == end && *number >= low && *number <= high;
}

// Cluster and node names become parts of keys: no blanks, no slashes.
bool IsName(const std::string& text) {
  if (text.empty() || text.size() > 64) return false;
  for (const char c : text) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.') return false;
  }
  return true;
}

// "http://host:port" with a port from 1 to 65535.
bool IsEndpoint(const std::string& text) {
  const std::string scheme = "http://";
  if (text.compare(0, scheme.size(), scheme) != 0) return false;
  const size_t colon = text.rfind(':');
  int port = 0;
  return colon > scheme.size() && text.find('/', scheme.size()) == std::string::npos &&
         ParseNumber(text.substr(colon + 1), 1, 65535, &port);
}

// Comma-separated endpoints; an empty item (as after a trailing comma) is bad.
bool ParseEndpoints(const std::string& text, std::vector<std::string>* endpoints) {
  for (size_t start = 0, comma = 0; comma != std::string::npos; start = comma + 1) {
    comma = text.find(',', start);
    const std::string item = Trimmed(text.substr(start, comma - start));
    if (!IsEndpoint(item)) return false;
    endpoints->push_back(item);
  }
  return true;
}

// Stores one key's value; false for a bad value. `*known` tells whether the
// key is one of ours.
bool SetValue(const std::string& key, const std::string& value, ClusterConfig* config,
              bool* known) {
  *known = true;
  if (key == "endpoints") return ParseEndpoints(value, &config->endpoints);
  if (key == "lease_ttl") return ParseNumber(value, 2, 3600, &config->lease_ttl_s);
  if (key == "fence_delay") return ParseNumber(value, 0, 3600, &config->fence_delay_s);
  if (key == "defer_ms") return ParseNumber(value, 1, 60000, &config->defer_ms);
  std::string* name = key == "cluster" ? &config->cluster : key == "node" ? &config->node : nullptr;
  if (name == nullptr) {
    *known = false;
    return false;
  }
  *name = value;
  return IsName(value);
}

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) return {};
  std::string host = name;
  return host.substr(0, host.find('.'));
}

}  // namespace

bool ParseClusterConfig(const std::string& text, const std::string& origin, ClusterConfig* config,
                        std::string* error) {
  *config = ClusterConfig();
  std::set<std::string> seen;
  std::stringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    line = Trimmed(line.substr(0, line.find('#')));
    if (line.empty()) continue;
    const std::string where = origin + " line " + std::to_string(number) + ": ";
    const size_t equals = line.find('=');
    if (equals == std::string::npos) {
      *error = where + "\"" + line + "\" is not a key = value line.";
      return false;
    }
    const std::string key = Trimmed(line.substr(0, equals));
    const std::string value = Trimmed(line.substr(equals + 1));
    bool known = false;
    if (!SetValue(key, value, config, &known)) {
      *error = where + (known ? "bad value \"" + value + "\" for " + key + "."
                              : "unknown key \"" + key + "\".");
      return false;
    }
    if (!seen.insert(key).second) {
      *error = where + key + " is set twice.";
      return false;
    }
  }
  for (const char* required : {"endpoints", "cluster"}) {
    if (seen.count(required) == 0) {
      *error = origin + " sets no " + required + ".";
      return false;
    }
  }
  if (config->node.empty()) config->node = HostName();
  if (!IsName(config->node)) {
    *error = origin + " sets no node, and the host name \"" + config->node + "\" is no node name.";
    return false;
  }
  return true;
}

bool ReadClusterConfig(const std::string& path, ClusterConfig* config, std::string* error) {
  FILE* file = fopen(path.c_str(), "r");
  std::string text;
  char buffer[4096];
  size_t count = 0;
  while (file != nullptr && (count = fread(buffer, 1, sizeof buffer, file)) > 0) {
    text.append(buffer, count);
  }
  const int saved_errno = errno;
  const bool failed = file == nullptr || ferror(file);
  if (file != nullptr) fclose(file);
  if (failed) {
    *error =
        "Cannot read the cluster configuration file " + path + ": " + strerror(saved_errno) + ".";
    return false;
  }
  return ParseClusterConfig(text, path, config, error);
}

}  // namespace klv::cluster
