# setup.sh - sourced by run and test: the Debian packages that are missing, the build folders.
# What installing says goes to standard error. A stamp in the build folder, which holds the list of packages,
# spares the question the next time.

PACKAGES_RUN="g++ cmake ninja-build zlib1g-dev libcli11-dev libtomlplusplus-dev libfmt-dev libusb-1.0-0-dev pkg-config"
PACKAGES_FAST="$PACKAGES_RUN clang clang-format llvm libclang-rt-14-dev libgtest-dev libbenchmark-dev python3" # ./test fast
PACKAGES_TEST="$PACKAGES_FAST clang-tidy lld g++-mingw-w64-x86-64 binutils-mingw-w64-x86-64 g++-mingw-w64-i686 xz-utils"
# For what runs under Wine: the kernel under the driver's file, a command interpreter for Windows, and the tests'
# library to build for it.
PACKAGES_WINE="wine wine64 googletest"
# For the virtual machine; its kernel's package is taken apart, not installed.
PACKAGES_GUEST="qemu-system-x86 cpio python3"

# Put before a program: sanitizers place their shadow memory where a widely randomised address space may have put
# something else.
plain=""
setarch "$(uname -m)" -R true 2>/dev/null && plain="setarch $(uname -m) -R" || true

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
        install_packages $missing || return 1
    fi
    mkdir -p build
    echo "$wanted" >"$stamp"
}

# install_packages PACKAGE...
install_packages() {
    local root=""
    if [ "$(id -u)" != 0 ]; then
        root="sudo"
        command -v sudo >/dev/null || {
            echo "these packages are missing, and there is no sudo to install them: $*" >&2
            return 1
        }
    fi
    echo "installing: $*" >&2
    {
        $root apt-get update -qq
        $root env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 install -y -qq \
            --no-install-recommends "$@"
    } >&2
}

# configure PRESET: a build folder that belongs to this tree (a copied or moved one is made anew).
configure() {
    if [ -f "build/$1/build.ninja" ] && grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "build/$1/CMakeCache.txt"; then
        [ CMakePresets.json -nt "build/$1/build.ninja" ] || return 0
    else
        rm -rf "build/$1"
    fi
    cmake --preset "$1"
}

# ensure_wine32: a Wine for 32-bit programs, where its packages go together with the machine's; $wine32_missing says
# why there is none. The foreign architecture that it needs is taken away again when it was added in vain.
ensure_wine32() {
    local stamp=build/.packages-wine32 root="" added=""
    wine32_missing=""
    dpkg-query -W -f='${Status}' wine32:i386 2>/dev/null | grep -q 'install ok installed' && return
    mkdir -p build
    if [ -f $stamp ]; then
        wine32_missing=$(cat $stamp)
        return
    fi
    [ "$(id -u)" = 0 ] || root=sudo
    {
        if ! dpkg --print-foreign-architectures | grep -qx i386; then
            $root dpkg --add-architecture i386 && added=1
            $root apt-get update -qq
        fi
        if $root apt-get install -s --no-install-recommends wine32:i386 >build/wine32.log 2>&1 &&
            ! grep '^Remv' build/wine32.log; then
            install_packages wine32:i386 && return
        fi
        if [ -n "$added" ]; then
            $root dpkg --remove-architecture i386 && $root apt-get update -qq
        fi
    } >&2
    wine32_missing="the package wine32:i386 does not go together with the machine's packages (build/wine32.log)"
    echo "$wine32_missing" >$stamp
}
