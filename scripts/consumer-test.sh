#!/usr/bin/env bash
# Installs the default build into a temporary prefix and builds a small
# program against it twice: through find_package(QVCore) and through
# pkg-config. Run after scripts/test.sh.
set -euo pipefail
cd "$(dirname "$0")/.."
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install build/default --prefix "$prefix" > /dev/null
libdir=$(dirname "$(find "$prefix" -name 'libqvcore.so' | head -n 1)")
for tool in qvcore-shell qvcore-logtool; do
  test -x "$prefix/bin/$tool" || { echo "missing installed tool $tool" >&2; exit 1; }
done

cmake -S tests/consumer -B "$prefix/build" -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
cmake --build "$prefix/build" > /dev/null
LD_LIBRARY_PATH="$libdir" "$prefix/build/qvcore-consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++20 tests/consumer/main.cpp $(pkg-config --cflags --libs qvcore) -o "$prefix/consumer-pc"
LD_LIBRARY_PATH="$libdir" "$prefix/consumer-pc"
