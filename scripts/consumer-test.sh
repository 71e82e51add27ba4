#!/usr/bin/env bash
# Installs the default build into a temporary prefix and builds a small
# program against it twice: through find_package(QVCore) and through
# pkg-config. The first build also enables the core from the installed
# default settings and posts one message to a collection server on
# 127.0.0.1. Run after scripts/test.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
prefix=$(mktemp -d)
server_pid=
cleanup() {
  if [[ -n "$server_pid" ]]; then kill "$server_pid" 2>/dev/null || true; fi
  rm -rf "$prefix"
}
trap cleanup EXIT

cmake --install build/default --prefix "$prefix" > /dev/null
libdir=$(dirname "$(find "$prefix" -name 'libqvcore.so' | head -n 1)")
for tool in qvcore-shell qvcore-logtool; do
  test -x "$prefix/bin/$tool" || { echo "missing installed tool $tool" >&2; exit 1; }
done
test -f "$prefix/share/qvcore/QVCoreSettings.bundle/QVCoreBasicConfig.plist" ||
  { echo "missing installed QVCoreSettings.bundle" >&2; exit 1; }

cmake -S tests/consumer -B "$prefix/build" -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
cmake --build "$prefix/build" > /dev/null

# A collection server on 127.0.0.1 that keeps each body, inflated, and
# answers 200; it ends by itself after a minute.
python3 - "$prefix/port" "$prefix/bodies" <<'PY' &
import gzip, http.server, os, sys, threading
port_file, bodies = sys.argv[1], sys.argv[2]
os.makedirs(bodies, exist_ok=True)
class Collect(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        if self.headers.get("Content-Encoding") == "gzip" or body[:2] == b"\x1f\x8b":
            body = gzip.decompress(body)
        with open(os.path.join(bodies, str(len(os.listdir(bodies)))), "wb") as out:
            out.write(body)
        self.send_response(200)
        self.send_header("Content-Length", "0")
        self.end_headers()
    def log_message(self, *args):
        pass
server = http.server.HTTPServer(("127.0.0.1", 0), Collect)
threading.Timer(60, server.shutdown).start()
with open(port_file + ".tmp", "w") as out:
    out.write(str(server.server_address[1]))
os.rename(port_file + ".tmp", port_file)
server.serve_forever()
PY
server_pid=$!
for _ in $(seq 100); do [[ -f "$prefix/port" ]] && break; sleep 0.1; done
url="http://127.0.0.1:$(cat "$prefix/port")/collect"

QVCORE_HOME="$prefix/home" QVCONSUMER_URL="$url" LD_LIBRARY_PATH="$libdir" \
  "$prefix/build/qvcore-consumer"
grep -q '"offset":4242' "$prefix"/bodies/* ||
  { echo "the server received no message from the installed package" >&2; exit 1; }

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++20 tests/consumer/main.cpp $(pkg-config --cflags --libs qvcore) -o "$prefix/consumer-pc"
LD_LIBRARY_PATH="$libdir" "$prefix/consumer-pc"
