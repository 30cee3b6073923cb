#!/usr/bin/env bash
# Builds the consumer against this tree and runs it.
#   build_and_run.sh installed|subdirectory BUILD_DIR SOURCE_DIR [COMPILER-FLAG]...
set -euo pipefail
how=$1 build_dir=$2 source_dir=$3 flags=${*:4}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
options=(-DCMAKE_CXX_FLAGS="$flags" -DCMAKE_BUILD_TYPE=Debug -G Ninja)
if [[ $how == installed ]]; then
  cmake --install "$build_dir" --prefix "$work/prefix" >"$work/install.log"
  options+=(-DCMAKE_PREFIX_PATH="$work/prefix")
else
  options+=(-DVARNIC_SOURCE_DIR="$source_dir")
fi
if command -v ccache >/dev/null; then options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake -S "$source_dir/tests/consumer" -B "$work/build" "${options[@]}"
cmake --build "$work/build"
"$work/build/consumer"
