# Sourced by the scripts beside it, in a handset and at the repository's top: modem, daemon, waiting.
# The programs come from build/release or from QUILLOD_BIN_DIR. What is started here ends with the
# handset.
bin=${QUILLOD_BIN_DIR:-build/release}
daemon_log=/data/quillod.log
# shellcheck disable=SC2034
handset_address=192.168.42.129

fail() {
    echo "${0##*/}: $*" >&2
    tail -n 5 "$daemon_log" >&2
    exit 1
}

# Waits up to ten seconds until CMD succeeds. Arguments: what is awaited, CMD.
await() {
    local what=$1 tries
    shift
    for ((tries = 0; tries < 1000; tries++)); do
        "$@" && return
        sleep 0.01
    done
    fail "$what"
}

# Succeeds when the daemon listens for the $1-th time.
listens() { [[ $(grep -cs 'Listening for connections' "$daemon_log") -ge $1 ]]; }

# A property, replaced as a whole.
set_property() {
    printf '%s' "$2" >"/data/property/.$1"
    mv "/data/property/.$1" "/data/property/$1"
}

# Starts the simulated modem with the given options, then the daemon at log level I as $daemon.
start_both() {
    [[ -e /run/netns/pc ]] || fail "run this inside scripts/handset"
    "$bin/quilltool" modem "$@" >/data/modem.log 2>&1 &
    await "no modem at /dev/ttydiag0" test -e /dev/ttydiag0
    set_property log.tag I
    QUILLOD_LOG_FILE=$daemon_log "$bin/quillod" &
    # shellcheck disable=SC2034
    daemon=$!
    await "the daemon does not listen" listens 1
}
