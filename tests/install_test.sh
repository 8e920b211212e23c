#!/usr/bin/env bash
# Installs the build into a temporary prefix and compiles the C example against it with
# pkg-config alone, then checks that the program starts and links the installed library.
set -euo pipefail
build=$1 example=$2
extra=${3:-}
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
pc_dir=$(dirname "$(find "$prefix" -name quorvex.pc | head -n1)")
flags=$(PKG_CONFIG_PATH=$pc_dir pkg-config --cflags --libs quorvex)
# shellcheck disable=SC2086
cc -std=c11 -Wall -Wextra -Werror $extra -o "$prefix/quota_example" "$example" $flags
libdir=$(PKG_CONFIG_PATH=$pc_dir pkg-config --variable=libdir quorvex)
out=$(LD_LIBRARY_PATH=$libdir "$prefix/quota_example" 2>&1 || true)
case "$out" in
usage:*) echo "1 passed, 0 failed" ;;
*) echo "unexpected output: $out"; echo "0 passed, 1 failed"; exit 1 ;;
esac
ls "$libdir"/libquorvex.so.1 >/dev/null
