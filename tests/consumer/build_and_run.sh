#!/usr/bin/env bash
# Builds the consumer against this tree and runs it, and sees what is generated anew when.
#   build_and_run.sh installed|subdirectory GENERATOR BUILD_DIR SOURCE_DIR [COMPILER-FLAG]...
set -euo pipefail
how=$1 generator=$2 build_dir=$3 source_dir=$4 flags=${*:5}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
options=(-DCMAKE_CXX_FLAGS="$flags" -DCMAKE_BUILD_TYPE=Debug -G "$generator")
if [[ $how == installed ]]; then
  cmake --install "$build_dir" --prefix "$work/prefix" >"$work/install.log"
  options+=(-DCMAKE_PREFIX_PATH="$work/prefix")
  plugin=$work/prefix/bin/protoc-gen-varnic
else
  options+=(-DVARNIC_SOURCE_DIR="$source_dir")
  plugin=$work/build/varnic/compiler/protoc-gen-varnic
fi
if command -v ccache >/dev/null; then options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
# A copy, because its proto files are going to change; its name has a space, as a user's may.
consumer="$work/the consumer"
cp -r "$source_dir/tests/consumer" "$consumer"
cmake -S "$consumer" -B "$work/build" "${options[@]}"
cmake --build "$work/build" --parallel "$(nproc)"
"$work/build/consumer"

# expect_next_build_to_generate HEADER...: builds again, and holds what it writes against the list.
expect_next_build_to_generate() {
  local written
  touch "$work/stamp"
  cmake --build "$work/build" --parallel "$(nproc)"
  written=$(find "$work/build/generated" -name '*.h' -newer "$work/stamp" -printf '%f\n' | sort)
  diff <(printf '%s\n' "$@") <(echo "$written") || { echo 'Generated, if not expected' >&2; exit 1; }
}
expect_next_build_to_generate ''
touch "$consumer/protos/notes/note.proto"
expect_next_build_to_generate note.pb.h notes.client.h notes.pb.h notes.rpc.h
touch "$consumer/protos/notes/notes.proto"
expect_next_build_to_generate notes.client.h notes.pb.h notes.rpc.h
touch "$plugin"
expect_next_build_to_generate notes.client.h notes.rpc.h
expect_next_build_to_generate ''
