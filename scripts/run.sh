#!/usr/bin/env bash
# The main job: builds norvaned and the norvane client (installing what is missing), starts the
# daemon on 127.0.0.1 serving a demo directory in which a log grows a few lines a second, follows
# that log live with the client in the terminal, and shows it in a browser with `norvane web`.
# Ctrl-C, or --seconds N, stops everything cleanly.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=0
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="${2:?--seconds needs a number}"; shift 2 ;;
    -h|--help)
      echo "usage: bash scripts/run.sh [--seconds N]   (without --seconds: until Ctrl-C)"
      exit 0 ;;
    *) echo "run.sh: unknown argument: $1 (try --help)" >&2; exit 2 ;;
  esac
done

source scripts/deps.sh
norvane_install_deps

echo "==> Building norvaned and norvane in build/"
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target norvaned norvane

# A port on 127.0.0.1 that nothing answers on, from 9080 upwards.
port=9080
while (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done

demo=$(mktemp -d /tmp/norvane-demo.XXXXXX)
mkdir -p "$demo/logs"
cp build/norvaned "$demo/"
password="demo-$RANDOM$RANDOM"
cat > "$demo/Norvane.cf" <<EOF
FileVersion=1.0
[SessionManager]
[SessionManager\\Ports\\MonitoringPort]
IncomingServer=127.0.0.1
IncomingPort=$port
DocumentRoot=$demo/logs
Password=$password
EOF
chmod 600 "$demo/Norvane.cf"  # it holds the password
: > "$demo/logs/app.log"

writer=""
client=""
web=""
daemon=""
cleanup() {
  trap - EXIT INT TERM
  [ -n "$client" ] && kill -INT "$client" 2>/dev/null && wait "$client" 2>/dev/null || true
  [ -n "$web" ] && kill -INT "$web" 2>/dev/null && wait "$web" 2>/dev/null || true
  [ -n "$writer" ] && kill "$writer" 2>/dev/null || true
  if [ -n "$daemon" ] && kill -TERM "$daemon" 2>/dev/null; then
    for _ in $(seq 50); do kill -0 "$daemon" 2>/dev/null || break; sleep 0.1; done
  fi
  echo
  echo "==> Stopped. The daemon's own log: $demo/Norvane.log"
  echo "    To follow this machine's own logs, see README.md, 'Following this machine's own logs'."
}
trap cleanup EXIT
trap 'exit 0' INT TERM

echo "==> Starting norvaned on 127.0.0.1:$port, serving $demo/logs"
"$demo/norvaned"
for _ in $(seq 100); do [ -s "$demo/Norvane.pid" ] && break; sleep 0.1; done
daemon=$(cat "$demo/Norvane.pid")
for _ in $(seq 100); do grep -q " listening on " "$demo/Norvane.log" 2>/dev/null && break; sleep 0.1; done

# The demo application: a few log lines a second.
(
  i=1
  while :; do
    echo "$(date '+%F %T') demo[$$]: request $i served in $((RANDOM % 90 + 10)) ms" >> "$demo/logs/app.log"
    i=$((i + 1))
    sleep 0.4
  done
) &
writer=$!

# The web view, on 127.0.0.1 from port 8080 upwards.
webport=8080
while (exec 3<>"/dev/tcp/127.0.0.1/$webport") 2>/dev/null; do webport=$((webport + 1)); done
NORVANE_PASSWORD="$password" build/norvane web -q -n 100 -F --port "$port" \
  --listen "127.0.0.1:$webport" app.log 2> "$demo/web.log" &
web=$!
for _ in $(seq 100); do grep -q "web view on" "$demo/web.log" 2>/dev/null && break; sleep 0.1; done
echo "==> Web view on http://127.0.0.1:$webport/ with: norvane web -n 100 -F --port $port" \
  "--listen 127.0.0.1:$webport app.log"
echo "    From another machine: ssh -L $webport:127.0.0.1:$webport $(hostname), then open it there"

echo "==> Following app.log with: norvane tail -n 5 -F --port $port app.log  (Ctrl-C stops)"
NORVANE_PASSWORD="$password" build/norvane tail -n 5 -F --port "$port" app.log &
client=$!
if [ "$seconds" -gt 0 ]; then
  sleep "$seconds"
  exit 0
fi
wait "$client"
