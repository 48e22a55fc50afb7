# Sourced by the scripts beside it: installs the Debian packages that are missing.
#
# need PACKAGE...: returns when all are installed. As root it installs them, else through sudo; with neither it prints
# the one command to run and ends the script.

need() {
    local missing=() package
    for package in "$@"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0

    local -a as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "These Debian packages are missing. Install them as root, then start again:" >&2
            echo "  apt-get update && apt-get install -y --no-install-recommends ${missing[*]}" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build_packages=(g++ cmake ninja-build libcli11-dev nlohmann-json3-dev libspdlog-dev libfmt-dev libpugixml-dev zlib1g-dev libboost-dev)
test_packages=(libgtest-dev python3)
browser_packages=(chromium chromium-driver python3-selenium)
can_packages=(qemu-system-x86 busybox-static iproute2 gcc-12 make xz-utils libelf1)
package_packages=(dpkg-dev lintian debootstrap)
check_packages=(clang-14 libclang-rt-14-dev clang-format-14 clang-tidy-14 libbenchmark-dev python3)

# build PRESET [TARGET...]: configures when needed, with the tests, and builds with all cores. Two at once take turns.
build() {
    local preset=$1 told lock
    shift
    mkdir -p build
    exec {lock}>"build/$preset.lock"
    flock "$lock"
    # Said each time: the demo leaves a release without them.
    told=$(cmake --preset "$preset" -DXCPLUMO_TESTS=ON 2>&1) || {
        echo "$told" >&2
        return 1
    }
    local status=0
    cmake --build --preset "$preset" --parallel "$(nproc)" ${1:+--target "$@"} || status=$?
    exec {lock}>&-
    return "$status"
}
