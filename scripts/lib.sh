# shellcheck shell=bash disable=SC2034 # the variables are for the scripts that source it
# What the scripts share: packages, network namespaces, headings. Sourced by them, with the top of the tree as the
# working directory afterwards.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

FXM_BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libpcap-dev liblog4cxx-dev libgtest-dev libbenchmark-dev)
FXM_RUN_PACKAGES=(iproute2 util-linux)
FXM_CLANG_VERSION=14

say() { printf '\n== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# need_packages NAME...: installs what is missing, with apt-get, as root or by sudo; else says what to type.
need_packages() {
    local missing=() package as_root=()
    if ! command -v dpkg-query >/dev/null; then
        printf 'This machine has no dpkg; the equivalents of these Debian packages are needed: %s\n' "$*" >&2
        return
    fi
    for package in "$@"; do
        # shellcheck disable=SC2016 # the expansion is dpkg-query's
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    say "Installing packages that are missing: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        # Asking for a password needs somebody to ask.
        if command -v sudo >/dev/null && { sudo -n true 2>/dev/null || [ -t 0 ]; }; then
            as_root=(sudo)
        else
            die "these packages are missing: ${missing[*]}
Type, as root:  apt-get update && apt-get install -y ${missing[*]}
and start ${0##*/} again."
        fi
    fi
    "${as_root[@]}" apt-get update -q ||
        printf 'apt-get update failed; trying with the package lists that are there.\n' >&2
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends "${missing[@]}" ||
        die "apt-get could not install: ${missing[*]}. Its messages stand above."
}

# need_clang: installs clang, and sets FXM_FORMAT and FXM_TIDY to the commands that look at the tree. What these find
# differs from version to version, so each is empty where the tree's own version is not to be had.
need_clang() {
    local v=$FXM_CLANG_VERSION
    need_packages clang
    FXM_FORMAT='' FXM_TIDY=''
    if apt-cache show "clang-format-$v" >/dev/null 2>&1; then
        need_packages "clang-format-$v"
        FXM_FORMAT=clang-format-$v
    fi
    # An older lint does not understand the headers of a newer system.
    if clang --version | grep -q "version $v\."; then
        need_packages "clang-tidy-$v"
        FXM_TIDY=clang-tidy-$v
    fi
}

# need_network: sets FXM_UNSHARE to the command that runs another one in a network namespace of its own, with the right
# to make interfaces there; without such a command says what is missing and what to type.
need_network() {
    local try
    # iproute2 lives in sbin, which a user's PATH may lack.
    PATH=$PATH:/usr/sbin:/sbin
    for try in "unshare -n" "unshare -rn"; do
        if $try ip link add fxmtry0 type veth peer name fxmtry1 2>/dev/null; then
            read -ra FXM_UNSHARE <<<"$try"
            return
        fi
    done
    die "cannot make a network namespace with a pair of virtual interfaces in it. Either
  run it as root:                            sudo ./scripts/${0##*/}
or let users make namespaces of their own, as root:
  sysctl -w user.max_user_namespaces=10000
  sysctl -w kernel.unprivileged_userns_clone=1                 (where that key exists: Debian)
  sysctl -w kernel.apparmor_restrict_unprivileged_userns=0     (where that key exists: Ubuntu)
and, where the kernel has veth as a module:  modprobe veth
In a container, start it with the right to do so (--privileged, or CAP_SYS_ADMIN and CAP_NET_ADMIN)."
}

# build_release: the release build, in build/release.
build_release() {
    mkdir -p build
    cmake --preset release >build/cmake.log 2>&1 || {
        cat build/cmake.log >&2
        die "cmake could not configure the release build; its messages stand above."
    }
    cmake --build build/release
}

# built NAME: the path of a program of the release build.
built() { find build/release -name "$1" -type f -perm -u+x -print -quit; }

# fabric_up: inside a network namespace, the two cables of the fabric; the library sits at fxm0 and fxm1, the cards at
# card0 and card1.
fabric_up() {
    local n
    ip link set lo up
    for n in 0 1; do
        ip link add "fxm$n" type veth peer name "card$n"
        # The kernel's own IPv6 frames would only be noise on a network of raw frames.
        printf 1 2>/dev/null >"/proc/sys/net/ipv6/conf/fxm$n/disable_ipv6" || true
        printf 1 2>/dev/null >"/proc/sys/net/ipv6/conf/card$n/disable_ipv6" || true
        ip link set "fxm$n" up
        ip link set "card$n" up
    done
}
