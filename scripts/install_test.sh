#!/usr/bin/env bash
# Clean-machine install test: builds the Debian packages, installs them with dpkg, builds a C and a
# C++ consumer against the installed files only (find_package and pkg-config), runs them, the
# installed tool and the Python package, checks the udev rules and the library's links, then
# removes the packages and checks that nothing of them is left.
#   scripts/install_test.sh [PACKAGE_BUILD_DIR]
# Needs root; exit status 77 (skipped) without it or when a tevix package is installed already,
# which the test will not touch.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/package}
pkgs=(libtevix1 libtevix-dev tevix-tools python3-tevix)
libdir=/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -dumpmachine)
rules=/usr/lib/udev/rules.d/60-tevix.rules

if [ "$(id -u)" -ne 0 ]; then echo "install test: needs root for dpkg"; exit 77; fi
for p in "${pkgs[@]}"; do
    if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed'; then
        echo "install test: $p is installed on this machine already; left alone"
        exit 77
    fi
done
if [ -e "$libdir/libtevix.so.1" ] || [ -e "$rules" ]; then
    echo "install test: a tevix installation outside the packages is in the way"; exit 77
fi

"$root/scripts/packages.sh" "$build"
work=$(mktemp -d)
cleanup() {
    dpkg --purge "${pkgs[@]}" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "install test: $*" >&2; exit 1; }

dpkg -i "$build"/libtevix1_*.deb "$build"/libtevix-dev_*.deb "$build"/tevix-tools_*.deb \
     "$build"/python3-tevix_*.deb >/dev/null

# The library, its links and the ldconfig trigger.
[ "$(readlink "$libdir/libtevix.so")" = libtevix.so.1 ] || fail "libtevix.so does not link to libtevix.so.1"
[ -f "$libdir/$(readlink "$libdir/libtevix.so.1")" ] || fail "libtevix.so.1 points nowhere"
# The cache is read whole first: grep -q leaving early would kill ldconfig with SIGPIPE, and
# pipefail would take that for a miss.
cache=$(ldconfig -p)
grep -q "libtevix.so.1 " <<<"$cache" || fail "ldconfig does not know libtevix.so.1"

# udev rules: verified by udevadm where it can, else each rule line checked for its keys.
[ -f "$rules" ] || fail "no udev rules at $rules"
if udevadm verify --help >/dev/null 2>&1; then
    udevadm verify "$rules" || fail "udevadm rejects $rules"
else
    while IFS= read -r line; do
        case "$line" in ''|'#'*) continue ;; esac
        echo "$line" | grep -Eq '^SUBSYSTEM=="usb", .*ATTR\{idVendor\}=="3e77", ATTR\{idProduct\}=="0001", .*TAG\+="uaccess"' ||
            fail "unexpected rule: $line"
        echo "$line" | grep -Eq '^([A-Z]+(\{[A-Za-z_]+\})?(==|!=|=|\+=)"[^"]*"(, |$))+$' ||
            fail "rule does not parse: $line"
    done < "$rules"
fi

# Consumers built against the installed files only.
cmake -S "$root/tests/install/consumer" -B "$work/cmake" -G Ninja >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer" | grep -q "consumer ok" || fail "C consumer (find_package)"
"$work/cmake/consumer_cpp" | grep -q "consumer ok" || fail "C++ consumer (find_package)"
# shellcheck disable=SC2046
gcc -std=c11 -Wall -Werror -o "$work/consumer_pc" "$root/tests/install/consumer/main.c" \
    $(pkg-config --cflags --libs tevix)
# shellcheck disable=SC2046
g++ -std=c++17 -Wall -Werror -o "$work/consumer_cpp_pc" "$root/tests/install/consumer/main.cpp" \
    $(pkg-config --cflags --libs tevix)
"$work/consumer_pc" | grep -q "consumer ok" || fail "C consumer (pkg-config)"
"$work/consumer_cpp_pc" | grep -q "consumer ok" || fail "C++ consumer (pkg-config)"
/usr/bin/tevix version | grep -q "^tevix v" || fail "tevix version"
(cd "$work" && /usr/bin/python3 -c "import tevix; assert tevix.__file__.startswith('/usr/lib/python3/dist-packages'); print(tevix.__version__)") >/dev/null ||
    fail "the installed Python package does not import"

# Removal leaves nothing behind.
dpkg --purge "${pkgs[@]}" >/dev/null
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' && fail "$p still installed"
done
for f in "$libdir/libtevix.so.1" "$libdir/libtevix.so" /usr/include/tevix /usr/bin/tevix "$rules" \
         /usr/lib/python3/dist-packages/tevix; do
    [ -e "$f" ] && fail "$f left after removal"
done
cache=$(ldconfig -p)
grep -q "libtevix.so" <<<"$cache" && fail "ldconfig still lists libtevix"
echo "install test: packages install, work and remove cleanly"
