#include "cluster/store.h"

namespace klv::cluster {

std::string PrefixEnd(const std::string& prefix) {
  std::string end = prefix;
  while (!end.empty() && static_cast<unsigned char>(end.back()) == 0xFF) end.pop_back();
  // A prefix of 0xFF bytes only (or none) reaches to the end of the key space,
  // which the store writes as the key "\0".
  if (end.empty()) return std::string(1, '\0');
  end.back() = static_cast<char>(static_cast<unsigned char>(end.back()) + 1);
  return end;
}

}  // namespace klv::cluster
