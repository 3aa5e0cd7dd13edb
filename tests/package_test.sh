#!/usr/bin/env bash
# Installs the build into a temporary prefix, builds examples/locate.c against the
# installed copy through pkg-config and through the CMake package, and runs it on
# the sample city with the access points of the sample walk's first scan.
set -euo pipefail
build=$1
source_dir=$2
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libzelapi.so' | head -n1)")
export PKG_CONFIG_PATH=$libdir/pkgconfig

# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Werror -o "$prefix/locate" "$source_dir/examples/locate.c" \
    $(pkg-config --cflags --libs zelapi) -Wl,-rpath,"$libdir"

# The same program through find_package(zelapi).
mkdir -p "$prefix/consumer"
cat > "$prefix/consumer/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.22)
project(consumer C)
find_package(zelapi REQUIRED)
add_executable(locate_cmake $source_dir/examples/locate.c)
target_link_libraries(locate_cmake PRIVATE zelapi::zelapi)
CMAKE
cmake -S "$prefix/consumer" -B "$prefix/consumer/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer/build" >/dev/null

# The access points of the first recorded scan, as MAC=RSS arguments.
mapfile -t aps < <(head -n1 "$source_dir/examples/sample-walk.jsonl" |
    grep -o '"mac": *"[0-9A-Fa-f:]*", *"rss": *-\?[0-9]*' |
    sed -E 's/"mac": *"([^"]*)", *"rss": *(-?[0-9]+)/\1=\2/; s/://g')
realm=$(cat "$source_dir/examples/sample-city.realm" 2>/dev/null || true)
for program in "$prefix/locate" "$prefix/consumer/build/locate_cmake"; do
    output=$("$program" "$source_dir/examples/sample-city.zel" "$realm" "${aps[@]}")
    echo "$output"
    case "$output" in
        *"(code 0)"*) ;;
        *) echo "expected a position from $program"; exit 1 ;;
    esac
done
