#include "cluster/store.h"

#include <sys/select.h>

#include <algorithm>

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

void RunStoreOnce(Store* store, long max_wait_ms) {
  fd_set readable, writable;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  int max_fd = -1;
  store->AddDescriptors(&readable, &writable, &max_fd);
  const long store_ms = store->TimeoutMs();
  const long wait_ms = store_ms < 0 ? max_wait_ms : std::min(store_ms, max_wait_ms);
  timeval timeout = {wait_ms / 1000, (wait_ms % 1000) * 1000};
  select(max_fd + 1, &readable, &writable, nullptr, &timeout);
  store->Perform();
}

}  // namespace klv::cluster
