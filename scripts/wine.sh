# wine.sh - sourced by the scripts that run something under Wine: a world of its own that ends with the script.
#
# Everything lies in a fresh prefix below build/, with a home of its own there: the caller's is not touched, nothing
# is shown on a display. Whatever way the script ends, the prefix's server ends with all that it runs.

me=${0##*/}
fail() {
    echo "$me: $*" >&2
    exit 1
}

child=""
end_world() {
    trap '' INT TERM HUP
    [ -z "$child" ] || kill "$child" 2>/dev/null || true
    if [ -d "$WINEPREFIX" ]; then
        wineserver -k 2>/dev/null || true # none runs
        timeout 10 wineserver -w 2>/dev/null || wineserver -k9 2>/dev/null || true
    fi
    rm -rf "$world"
}

# within SECONDS COMMAND...: in the background, so that a signal is heard while it runs.
within() {
    timeout --kill-after=5 "$@" </dev/null &
    child=$!
    local status=0
    wait $child || status=$?
    child=""
    return $status
}

# make_world: makes the prefix; then $wine runs a program in it.
make_world() {
    local limit=100 status
    wine=/usr/lib/wine/wine64 # the wrapper in the path asks for 32-bit packages
    [ -x "$wine" ] || wine=$(command -v wine64) || fail "there is no wine64: install the package wine64"
    command -v wineserver >/dev/null || fail "there is no wineserver: install the package wine"

    world=$(mktemp -d "$PWD/build/wine-XXXXXX") || exit 1
    export HOME=$world/home WINEPREFIX=$world/prefix WINEARCH=win64
    export WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe=" WINEDEBUG=-all
    unset DISPLAY WAYLAND_DISPLAY XDG_RUNTIME_DIR XDG_DATA_HOME XDG_CONFIG_HOME XDG_CACHE_HOME
    mkdir "$HOME"
    trap end_world EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP

    # The server writes the prefix to the disk when it ends; what runs before that does not find all of it.
    status=0
    { within $limit "$wine" wineboot -i >"$world/wineboot.log" 2>&1 && within $limit wineserver -w; } || status=$?
    [ $status -ne 124 ] || fail "the prefix was not made within $limit seconds"
    [ $status -eq 0 ] && [ -f "$WINEPREFIX/system.reg" ] && return
    cat "$world/wineboot.log" >&2
    fail "the prefix could not be made"
}

# play SECONDS PROGRAM [OPTION...]: a GoogleTest program; ends the script as it ends. A program that falls may end
# with status 0 here, so the line that says that all have run is asked for too.
play() {
    local limit=$1 status
    shift
    within "$limit" "$wine" "$@" >"$world/tests.log" 2>&1
    status=$?
    cat "$world/tests.log"
    [ $status -ne 124 ] || fail "the tests did not end within $limit seconds"
    grep -q '^\[  PASSED  \]' "$world/tests.log" || fail "the tests ended with status $status before all had run"
    exit $status
}
