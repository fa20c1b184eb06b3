# Sourced by the scripts, which it takes to the repository's directory: one habit for --help, for
# what is not understood, and for steps that tell only what they are.
set -euo pipefail

readonly script=${BASH_SOURCE[1]}
script_path=$(realpath "$script")
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# The script's own comment is its help.
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$script_path"; }

wrong_usage() {
    [[ $# -eq 0 ]] || printf '%s: %s\n\n' "${script##*/}" "$*" >&2
    usage >&2
    exit 2
}

# Answers -h and --help among the arguments.
answer_help() {
    local argument
    for argument; do
        case $argument in
        -h | --help)
            usage
            exit 0
            ;;
        esac
    done
}

# Runs a command with its output in build/log; tells WHAT, and when it fails, the log and its end.
step() {
    local what=$1 log
    shift
    mkdir -p build/log
    log=build/log/${script##*/}
    echo "$what"
    printf '\n== %s: %s\n' "$what" "$*" >>"$log"
    "$@" >>"$log" 2>&1 </dev/null && return
    tail -n 20 "$log" >&2
    echo "${script##*/}: FAILED: $what; all of it is in $log" >&2
    return 1
}

# Configures build/PRESET for a purpose, demo, test or bench, which names what is built. A release
# build goes from one to the other without building anew what both have.
configure() {
    local preset=$1 purpose=$2 tests=OFF bench=OFF
    [[ $purpose == demo ]] || tests=ON
    [[ $purpose != bench ]] || bench=ON
    cmake --preset "$preset" -DQUILLOD_BUILD_TESTS=$tests -DQUILLOD_BUILD_BENCH=$bench
}
