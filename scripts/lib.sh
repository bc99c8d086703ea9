# shellcheck shell=bash disable=SC2034,SC2154 # variables that the sourcing scripts use and set
# What the scripts share: options, packages, network namespaces, headings. The scripts source this file; afterwards the
# working directory is the top of the tree.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

FXM_BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libpcap-dev liblog4cxx-dev libgtest-dev)
# Of fxmd and fxmctl.
FXM_BUILD_PACKAGES+=(libmicrohttpd-dev libboost-json1.81-dev libtomlplusplus-dev libcli11-dev
    libfmt-dev libsqlite3-dev libsystemd-dev prometheus-cpp-dev libnats-dev liblz4-dev)
FXM_RUN_PACKAGES=(iproute2 util-linux python3 python3-jsonschema)
# Of the tests alone.
FXM_TEST_PACKAGES=(nats-server libpq-dev openssl postgresql prometheus tshark curl mandoc scdoc abigail-tools)
# Of the Debian packages alone.
FXM_PACKAGING_PACKAGES=(debhelper dpkg-dev fakeroot lintian mandoc scdoc)
FXM_CLANG_VERSION=14
# Of the library's branches, in percent.
FXM_BRANCHES=95

say() { printf '\n== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# common_options "$@": ends the script if -h, --help or --version is among its arguments. `usage` holds the usage text.
common_options() {
    local argument
    for argument in "$@"; do
        case $argument in
        -h | --help)
            printf '%s\n' "$usage"
            exit 0
            ;;
        --version)
            # The public header is the one place of the version.
            printf '%s (fxm) %s\n' "${0##*/}" \
                "$(sed -n 's/^#define FXM_VERSION_[MP][A-Z]* *\([0-9]*\)$/\1/p' include/fxm.h | paste -sd .)"
            exit 0
            ;;
        esac
    done
}

# wrong_usage ARGUMENT: ends the script because of an argument that it does not know.
wrong_usage() {
    printf '%s: unknown argument: %s\n%s\n' "${0##*/}" "$1" "$usage" >&2
    exit 2
}

# need_packages NAME...: installs the missing packages with apt-get, as root or with sudo. Where it may not, it prints
# the command to type. Services that a package brings are not started; only its programs are wanted.
need_packages() {
    local missing=() package as_root=() installed
    if ! command -v dpkg-query >/dev/null; then
        printf 'This machine has no dpkg. Install the equivalents of these Debian packages: %s\n' "$*" >&2
        return
    fi
    # shellcheck disable=SC2016 # the expansions are dpkg-query's
    installed=$(dpkg-query -W -f='${Package} ${db:Status-Status}\n' "$@" 2>/dev/null || true)
    for package in "$@"; do
        [[ $'\n'$installed$'\n' == *$'\n'"$package installed"$'\n'* ]] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    say "Installing missing packages: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        # sudo can ask for a password only at a terminal.
        if command -v sudo >/dev/null && { sudo -n true 2>/dev/null || [ -t 0 ]; }; then
            as_root=(sudo)
        else
            die "these packages are missing: ${missing[*]}
Type, as root:  apt-get update && apt-get install -y ${missing[*]}
and run ${0##*/} again."
        fi
    fi
    "${as_root[@]}" apt-get update -q ||
        printf 'apt-get update failed. Continuing with the existing package lists.\n' >&2
    # shellcheck disable=SC2016 # the expansions are those of the inner shell
    "${as_root[@]}" sh -c 'policy=/usr/sbin/policy-rc.d
        if [ ! -e "$policy" ]; then
            trap "rm -f $policy" EXIT
            trap "exit 1" HUP INT TERM
            printf "#!/bin/sh\nexit 101\n" >"$policy"
            chmod 755 "$policy"
        fi
        DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends "$@"' sh "${missing[@]}" ||
        die "apt-get could not install: ${missing[*]}. See its messages above."
}

# need_clang: installs clang, and sets FXM_FORMAT and FXM_TIDY to the commands that check the tree. Their findings
# differ from version to version, so each is empty if the required version is not available.
need_clang() {
    local v=$FXM_CLANG_VERSION
    need_packages clang
    FXM_FORMAT='' FXM_TIDY=''
    if apt-cache show "clang-format-$v" >/dev/null 2>&1; then
        need_packages "clang-format-$v"
        FXM_FORMAT=clang-format-$v
    fi
    # An older lint cannot parse the headers of a newer system.
    if clang --version | grep -q "version $v\."; then
        need_packages "clang-tidy-$v"
        FXM_TIDY=clang-tidy-$v
    fi
}

# need_fuzzer: installs clang with its sanitizers and its fuzzer, which some systems have in a package of their own, and
# what names the functions in their reports.
need_fuzzer() {
    local version package
    need_packages clang llvm
    version=$(clang -dumpversion)
    package=libclang-rt-${version%%.*}-dev
    if ! compgen -G "$(clang -print-resource-dir)/lib/*/libclang_rt.fuzzer*.a" >/dev/null; then need_packages "$package"; fi
}

# need_page_tools: installs what builds and tests the page: Node, a browser, and the packages of host/web/package-lock.json.
need_page_tools() {
    # Node that does not come from Debian brings its own npm.
    command -v node >/dev/null && command -v npm >/dev/null || need_packages nodejs npm
    node -e 'process.exit(Number(process.versions.node.split(".")[0]) >= 18 ? 0 : 1)' ||
        die "the page needs Node 18 or later; this is $(node --version). Install a later one, or remove it for Debian's."
    need_packages chromium-headless-shell fonts-dejavu-core
    if [ ! host/web/node_modules/.package-lock.json -nt host/web/package-lock.json ]; then
        say "Installing the packages of the page (npm ci)"
        (cd host/web && npm ci --no-audit --no-fund)
    fi
}

# need_network: sets FXM_UNSHARE to the command that runs another command in a new network namespace, with the right to
# create interfaces there. If there is no such command, it prints what is missing and what to type.
need_network() {
    local try
    # iproute2 is in sbin, which may be missing from a user's PATH.
    PATH=$PATH:/usr/sbin:/sbin
    for try in "unshare -n" "unshare -rn"; do
        if $try ip link add fxmtry0 type veth peer name fxmtry1 2>/dev/null; then
            read -ra FXM_UNSHARE <<<"$try"
            return
        fi
    done
    die "cannot create a network namespace with a pair of virtual interfaces. Either
  run the script as root:                    sudo ./scripts/${0##*/}
or allow users to create namespaces, as root:
  sysctl -w user.max_user_namespaces=10000
  sysctl -w kernel.unprivileged_userns_clone=1                 (where that key exists: Debian)
  sysctl -w kernel.apparmor_restrict_unprivileged_userns=0     (where that key exists: Ubuntu)
and, if veth is a kernel module:  modprobe veth
A container must be started with that right (--privileged, or CAP_SYS_ADMIN and CAP_NET_ADMIN)."
}

# build_release [TARGET...]: makes the release build in build/release, or these targets of it alone.
build_release() {
    mkdir -p build
    cmake --preset release >build/cmake.log 2>&1 || {
        cat build/cmake.log >&2
        die "cmake could not configure the release build; see its messages above."
    }
    cmake --build build/release ${1:+--target "$@"}
}

# built NAME: prints the path of a program of the release build.
built() { find build/release -name "$1" -type f -perm -u+x -print -quit; }

# export_programs: tells host/tests/fabric.py which programs to run.
export_programs() {
    FXMD=$(built fxmd) FXMCTL=$(built fxmctl) FXMSIM=$(built fxmsim) FXM_MONITOR=$(built fxm-monitor)
    export FXMD FXMCTL FXMSIM FXM_MONITOR
}

# fabric_up: creates the two cables of the fabric inside a network namespace. The library uses fxm0 and fxm1, the cards
# card0 and card1.
fabric_up() {
    local n
    ip link set lo up
    for n in 0 1; do
        ip link add "fxm$n" type veth peer name "card$n"
        # The kernel's IPv6 frames would only be noise on a network of raw frames.
        printf 1 2>/dev/null >"/proc/sys/net/ipv6/conf/fxm$n/disable_ipv6" || true
        printf 1 2>/dev/null >"/proc/sys/net/ipv6/conf/card$n/disable_ipv6" || true
        ip link set "fxm$n" up
        ip link set "card$n" up
    done
}
