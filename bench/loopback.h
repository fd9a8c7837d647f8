#ifndef KLV_BENCH_LOOPBACK_H_
#define KLV_BENCH_LOOPBACK_H_

#include <cstdint>

namespace klv::bench {

// A socket of `type` (SOCK_DGRAM or SOCK_STREAM, flags allowed) connected to
// 127.0.0.1 at `port`; -1 when it cannot be made or connected.
int ConnectLoopback(int type, uint16_t port);

}  // namespace klv::bench

#endif  // KLV_BENCH_LOOPBACK_H_
