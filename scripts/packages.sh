# packages.sh - sourced by run and test: installs the Debian packages that are missing.
# Everything it says goes to standard error. A stamp in the build folder spares the question the next time.

PACKAGES_RUN="g++ cmake ninja-build libpcap-dev libcli11-dev libtomlplusplus-dev libfmt-dev"
PACKAGES_TEST="$PACKAGES_RUN clang clang-format llvm libclang-rt-14-dev libgtest-dev libbenchmark-dev
    g++-mingw-w64-x86-64 binutils-mingw-w64-x86-64 git python3"

# ensure_packages STAMP-NAME PACKAGE...
ensure_packages() {
    local stamp="build/.packages-$1"
    shift
    local wanted="$*"
    [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ] && return 0
    local missing=""
    local package
    for package in $wanted; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $package"
    done
    if [ -n "$missing" ]; then
        echo "installing:$missing" >&2
        local root=""
        [ "$(id -u)" = 0 ] || root="sudo"
        $root apt-get update -qq >&2
        DEBIAN_FRONTEND=noninteractive $root apt-get install -y -qq --no-install-recommends $missing >&2
    fi
    mkdir -p build
    echo "$wanted" >"$stamp"
}
