#!/usr/bin/env bash
# lockinfo --cluster against a real etcd (run under tests/cluster/with_etcd.sh,
# which sets KLV_ETCD_ENDPOINT and KLV_ETCD_PID): keys put as nodes publish
# them, in text and JSON, and the failures with their exit statuses.
# Usage: with_etcd.sh lockinfo_cluster_test.sh LOCKINFO
set -u
export LC_ALL=C
lockinfo=$1
dir=$(mktemp -d)
source "$(dirname "$0")/../support/expect_output.sh"
stopped_etcd=
cleanup() {
  # etcd is with_etcd.sh's to stop; it must not be left stopped by a signal.
  [ -n "$stopped_etcd" ] && kill -CONT "$KLV_ETCD_PID"
  rm -rf "$dir"
}
trap cleanup EXIT
etcdctl() { ETCDCTL_API=3 command etcdctl --endpoints="$KLV_ETCD_ENDPOINT" "$@" >/dev/null; }
# lease TTL: grants a lease and prints its id.
lease() {
  ETCDCTL_API=3 command etcdctl --endpoints="$KLV_ETCD_ENDPOINT" lease grant "$1" |
    sed -n 's/^lease \([0-9a-f]*\) granted.*/\1/p'
}

printf 'endpoints = %s\ncluster = sales\nnode = a\n' "$KLV_ETCD_ENDPOINT" >"$dir/cluster.conf"
lease_a=$(lease 60) && lease_b=$(lease 60) && [ -n "$lease_a" ] && [ -n "$lease_b" ] ||
  fail "no lease granted"
p=/klvlockd/sales
etcdctl put --lease="$lease_a" $p/nodes/a 'pid=4242' &&
  etcdctl put --lease="$lease_b" $p/nodes/b 'pid=77' &&
  etcdctl put --lease="$lease_a" $p/files/0000000a:00000014/a '2000 0:100:x 200:5:s' &&
  etcdctl put --lease="$lease_b" $p/files/0000000a:00000014/b '0003' &&
  etcdctl put --lease="$lease_b" $p/files/0000000a:00000019/b $'odd\x1b[2J' &&
  etcdctl put --lease="$lease_b" $p/files/0000000a:0000001e/b '0003 x:1:s' &&
  etcdctl put $p/files/0000000a:00000014 '' &&
  etcdctl put /klvlockd/other/nodes/z 'pid=1' ||
  fail "etcdctl put failed"

# expect STATUS PATTERN COUNT ARGUMENT...: lockinfo ARGUMENT... ends with
# STATUS, and COUNT lines of its output and errors match the extended
# regular expression PATTERN.
expect() { expect_output -E "$1" "$2" "$3" "$lockinfo" "${@:4}"; }

conf=$dir/cluster.conf
while IFS=';' read -r status pattern count arguments; do
  # shellcheck disable=SC2086
  expect "$status" "$pattern" "$count" $arguments
done <<TABLE
0;^Cluster sales at revision [0-9]+$;1;--cluster $conf
0;^  a               +(59|60) s  pid=4242$;1;--cluster $conf
0;^  b               +(59|60) s  pid=77$;1;--cluster $conf
0;^\[10,20\]$;1;--cluster $conf
0;^    a               OPEN_READWRITE\|DENY_WRITE$;1;--cluster $conf
0;^                    0 100 exclusive$;1;--cluster $conf
0;^                    200 5 shared$;1;--cluster $conf
0;^    b               OPEN_READ\|DENY_MSDOS OPEN_READ\|DENY_NONE$;1;--cluster $conf
0;^\[10,25\]$;1;--cluster $conf
0;^    b               summary: odd\\\\x1b\[2J$;1;--cluster $conf
0;^    b               summary: 0003 x:1:s$;1;--cluster $conf
0;^Nodes: 2 Files: 3$;1;--cluster=$conf
0;z;0;--cluster $conf
0;"name": "a", "lease": "$lease_a", "lease_left": (59|60), "registration": "pid=4242";1;--json --cluster $conf
0;"node": "a", "classes": \["OPEN_READWRITE\|DENY_WRITE"\], "ranges": \[\{"offset": 0, "length": 100, "type": "exclusive"\}, \{"offset": 200, "length": 5, "type": "shared"\}\];1;--cluster $conf --json
0;"node": "b", "summary": "odd\\\\u001b\[2J";1;--cluster $conf --json
2;--cluster has no --metrics;1;--cluster $conf --metrics
2;--cluster takes no port;1;--cluster $conf 4000
2;bad value for --cluster;1;--cluster
TABLE
"$lockinfo" --json --cluster "$conf" | python3 -c 'import json, sys; json.load(sys.stdin)' ||
  fail "--json is not JSON"

# A revoked lease takes its node and summaries with it.
etcdctl lease revoke "$lease_b" || fail "etcdctl lease revoke failed"
expect 0 '^Nodes: 1 Files: 1$' 1 --cluster "$conf"
expect 0 '^    b ' 0 --cluster "$conf"

# A bad setting file, an endpoint where nothing listens, an etcd that does not
# answer.
echo 'colour = blue' >>"$dir/bad.conf"
expect 2 "lockinfo: .*bad.conf.*colour" 1 --cluster "$dir/bad.conf"
printf 'endpoints = http://127.0.0.1:1\ncluster = sales\n' >"$dir/nothing.conf"
expect 12 '^lockinfo: cannot contact the etcd of cluster sales: ' 1 --cluster "$dir/nothing.conf"
kill -STOP "$KLV_ETCD_PID" && stopped_etcd=1
expect 13 '^lockinfo: error reading the keys from the etcd of cluster sales: ' 1 \
  --timeout 0.5 --cluster "$conf"
kill -CONT "$KLV_ETCD_PID" && stopped_etcd=
echo "lockinfo_cluster_test: passed"
