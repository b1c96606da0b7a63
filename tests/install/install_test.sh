#!/usr/bin/env bash
# Installs the build into empty roots, once as it is and once by way of the package, and uses what is there.
# Usage: install_test.sh BUILD_FOLDER C_COMPILER GENERATOR
set -euo pipefail
readonly build=$1 compiler=$2 generator=$3
readonly here=${BASH_SOURCE[0]%/*}
readonly goodbye="unloaded after an installed c"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# expect <status> <text> <command...>: the command ends with this status and says this.
expect() {
    local wanted=$1 text=$2 output status=0
    shift 2
    output=$("$@" 2>&1) || status=$?
    [[ $status == "$wanted" && $output == *"$text"* ]] || fail "'$*' ended with $status and said: $output"
}

use() {
    local root=$1 prefix=$1/usr program page gpu
    ! grep -rIlF "$build" "$root" || fail "these files name the build's folder"

    # Clients, in C and C++.
    cmake -S "$here/client" -B "$root.client" -G "$generator" -DCMAKE_PREFIX_PATH="$prefix" >"$work/log" &&
        cmake --build "$root.client" >>"$work/log" || { cat "$work/log"; fail "no client with find_package"; }
    expect 0 "$goodbye" "$root.client/client_C"
    expect 0 "$goodbye" "$root.client/client_CXX"
    local flags
    flags=$(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs "counterfeed >= 0.1")
    # shellcheck disable=SC2086
    "$compiler" "$here/client/client.c" $flags -o "$root.client/by_pkg_config"
    expect 0 "$goodbye" env LD_LIBRARY_PATH="$prefix/lib" "$root.client/by_pkg_config"

    # Programs, each with its page of the manual.
    for program in counters evaluate launcher record report; do
        expect 0 "counterfeed-$program " "$prefix/bin/counterfeed-$program" --version
        expect 0 "counterfeed-$program" "$prefix/bin/counterfeed-$program" --help
        page=$prefix/share/man/man1/counterfeed-$program.1.gz
        [[ -s $page ]] || fail "there is no $page"
    done
    [[ $(find "$prefix/share/counterfeed/configs" -name '*.txtpb' -size +0 | wc -l) == 54 ]] || fail "configs are missing"

    # The launcher finds the library beside it. With the virtual GPU it stays.
    gpu=$prefix/lib/counterfeed/libvirtual_gpu.so
    expect 1 "gave up" env LD_PRELOAD="$gpu" VIRTUAL_GPU=none "$prefix/bin/counterfeed-launcher"
    expect 124 "" env LD_PRELOAD="$gpu" timeout 1 "$prefix/bin/counterfeed-launcher"
}

listing() { (cd "$1/usr" && find . ! -type d | sort); }

DESTDIR=$work/installed cmake --install "$build" --prefix /usr >"$work/log"
use "$work/installed"
if ! command -v dpkg-deb >/dev/null; then
    echo "No package is made: there is no dpkg-deb."
    exit
fi
cpack --config "$build/CPackConfig.cmake" -B "$work/package" >"$work/log" 2>&1 || { cat "$work/log"; fail "cpack"; }
dpkg-deb --extract "$work"/package/counterfeed_*.deb "$work/packaged"
diff <(listing "$work/installed") <(listing "$work/packaged") || fail "the package holds other files"
[[ $(dpkg-deb --field "$work"/package/*.deb Depends) == *libc6* ]] || fail "the package depends on nothing"
if command -v lintian >/dev/null; then
    lintian --allow-root --fail-on error "$work"/package/*.deb >"$work/log" || { cat "$work/log"; fail "lintian"; }
fi
! readelf --sections "$work/packaged/usr/lib/libcounterfeed.so" | grep -q debug_info || fail "it is not stripped"
use "$work/packaged"
