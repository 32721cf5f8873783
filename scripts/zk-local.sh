#!/usr/bin/env bash
# Starts a standalone ZooKeeper server (Debian's package) on a free loopback
# port with its data in a new temporary directory, and prints two lines:
# the connect string and the directory. `zk-local.sh stop DIR` stops it and
# removes the directory. The server stops by itself after KORVEL_ZK_LIFETIME
# seconds (default 600), and then removes the directory too, so that nothing
# is left behind. A server that fails at start leaves it, with its log.
set -euo pipefail

if [ "${1:-}" = "stop" ]; then
  dir=${2:?usage: zk-local.sh stop DIR}
  if [ -f "$dir/pid" ]; then
    pid=$(cat "$dir/pid")
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 -- "-$pid" 2>/dev/null || true  # timeout leads the JVM's process group
  fi
  rm -rf "$dir"
  exit 0
fi

port_in_use() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
port=$((20000 + RANDOM % 30000))
while port_in_use "$port"; do port=$((20000 + RANDOM % 30000)); done

dir=$(mktemp -d "${TMPDIR:-/tmp}/korvel-zk.XXXXXX")
mkdir -p "$dir/data"
cat >"$dir/zoo.cfg" <<CFG
tickTime=200
dataDir=$dir/data
clientPort=$port
clientPortAddress=127.0.0.1
admin.enableServer=false
4lw.commands.whitelist=srvr,ruok
maxSessionTimeout=60000
CFG
lifetime=${KORVEL_ZK_LIFETIME:-600}
# The JVM runs under `timeout` in a shell of its own, which removes the
# directory when the lifetime has run out (`stop` removes it itself).
setsid bash -c '
  timeout "$1" java -Xmx256m -XX:+UseSerialGC -XX:TieredStopAtLevel=1 -XX:-UsePerfData \
    -Dzookeeper.log.dir="$2" -Dlog4j.configuration=file:/etc/zookeeper/conf_example/log4j.properties \
    -cp /etc/zookeeper/conf:/usr/share/java/zookeeper.jar \
    org.apache.zookeeper.server.ZooKeeperServerMain "$2/zoo.cfg" >"$2/server.log" 2>&1 &
  echo $! >"$2/pid"
  wait $!
  [ $? -ne 124 ] || rm -rf "$2"' zk-local "$lifetime" "$dir" </dev/null >/dev/null 2>&1 &
for _ in $(seq 50); do [ -s "$dir/pid" ] && break; sleep 0.1; done

for _ in $(seq 150); do
  kill -0 "$(cat "$dir/pid")" 2>/dev/null || break  # ended at start
  reply=$( (exec 3<>"/dev/tcp/127.0.0.1/$port" && echo srvr >&3 && timeout 1 cat <&3) 2>/dev/null || true)
  if grep -q "Mode:" <<<"$reply"; then
    echo "127.0.0.1:$port"
    echo "$dir"
    exit 0
  fi
  sleep 0.2
done
echo "ZooKeeper did not start; its log:" >&2
tail -20 "$dir/server.log" >&2
"$0" stop "$dir"
exit 1
