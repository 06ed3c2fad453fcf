#!/usr/bin/env bash
# The installed package: install Quarl to a temporary prefix, build the
# examples out of tree against it through CMake and through pkg-config and
# run them; then the same with a shared library, whose exported symbols
# must be exactly the public quarl_ functions of the header.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

if ! command -v pkg-config >/dev/null; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q pkg-config
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Configure, build and install one flavour of the library and the tool.
install_flavour() { # name, extra cmake arguments...
    local name=$1
    shift
    cmake -S "$root" -B "$work/build-$name" -DCMAKE_BUILD_TYPE=Release \
        -DQUARL_BUILD_TESTS=OFF "$@" >/dev/null
    cmake --build "$work/build-$name" -j2 >/dev/null
    cmake --install "$work/build-$name" --prefix "$work/$name" >/dev/null
    echo "installed $name: $(cd "$work/$name" && find . -type f | sort | tr '\n' ' ')"
}

# Build and run both examples against an installed prefix.
check_examples() { # prefix
    local prefix=$1 out=$work/examples-$(basename "$1")
    cmake -S "$root/examples" -B "$out/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build "$out/cmake" -j2 >/dev/null
    "$out/cmake/profile_branch" | tail -n 1
    "$out/cmake/profile_loop" | tail -n 1

    local libdir
    libdir=$(dirname "$(find "$prefix" -name quarl.pc)")
    export PKG_CONFIG_PATH=$libdir
    mkdir -p "$out/pkg-config"
    cc -std=c11 -Wall -Wextra -Werror "$root/examples/profile_branch.c" \
        $(pkg-config --cflags --libs quarl) -o "$out/pkg-config/profile_branch"
    c++ -std=c++17 -Wall -Wextra -Werror "$root/examples/profile_loop.cpp" \
        $(pkg-config --cflags --libs quarl) -o "$out/pkg-config/profile_loop"
    LD_LIBRARY_PATH=$(pkg-config --variable=libdir quarl) "$out/pkg-config/profile_branch" | tail -n 1
    LD_LIBRARY_PATH=$(pkg-config --variable=libdir quarl) "$out/pkg-config/profile_loop" | tail -n 1
    unset PKG_CONFIG_PATH
}

echo "== static library"
install_flavour static
test ! -e "$(find "$work/static" -name 'libquarl_testable*' | head -n 1)" || {
    echo "the test build of the library was installed" >&2
    exit 1
}
"$work/static/bin/quarl" --version
check_examples "$work/static"

echo "== shared library"
install_flavour shared -DBUILD_SHARED_LIBS=ON
"$work/shared/bin/quarl" demo | tail -n 1
library=$(find "$work/shared" -name 'libquarl.so.*.*' | head -n 1)
nm -D --defined-only "$library" | awk '{print $3}' | sort >"$work/exported"
grep -o 'QUARL_API[^(]*(' "$root/include/quarl/edgeinst.h" | grep -o 'quarl_[a-z0-9_]*' |
    sort >"$work/public"
if ! diff -u "$work/public" "$work/exported"; then
    echo "exported symbols differ from the public functions (- public, + exported)" >&2
    exit 1
fi
echo "exports: exactly the $(wc -l <"$work/public") public functions"
check_examples "$work/shared"
