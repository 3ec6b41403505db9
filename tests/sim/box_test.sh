#!/bin/bash
# The bench box from outside: what it hides, what it passes on, what it ends.
# usage: box_test.sh BUILD_DIRECTORY
set -euo pipefail

BOX=$(readlink -f "$(dirname "${BASH_SOURCE[0]}")/../../sim/box")
BUILD=$(readlink -f "$1")
SCRATCH=$(mktemp -d)
trap 'rm -rf "$SCRATCH"' EXIT
cd "$SCRATCH"
failures=0

box() {
    "$BOX" --build "$BUILD" "$@"
}

expect() { # what it is about, expected, actual
    if [[ $2 != "$3" ]]; then
        echo "FAILED: $1: expected \"$2\", got \"$3\"" >&2
        failures=$((failures + 1))
    fi
}

status_of() {
    local status=0
    "$@" >/dev/null 2>"$SCRATCH/stderr" || status=$?
    echo "$status"
}

fate_of() { # of a process
    grep -qs '^State:[[:space:]]*[^Z[:space:]]' "/proc/$1/status" && echo alive || echo gone
}

status=$(status_of box true)
if [[ $status -eq 77 ]]; then
    cat "$SCRATCH/stderr" >&2
    echo "SKIPPED: no bench box on this machine" >&2
    exit 77
fi
expect "the box opens" 0 "$status"

expect "exit status" 5 "$(status_of box -- sh -c 'exit 5')"
expect "unknown option" 2 "$(status_of box --nonsense true)"
expect "own network" "eth0 lo switch0" "$(box sh -c 'cd /sys/class/net && ip -br link' |
    sed 's/[@ ].*//' | sort | tr '\n' ' ' | sed 's/ $//')"
expect "hardware address" 0a:1b:2c:3d:4e:5f \
    "$(box ip -o link show eth0 | grep -o 'ether [^ ]*' | cut -d ' ' -f 2)"
expect "own /run" "mv3300-sim mv3300d" "$(box --no-relay ls /run | xargs)"
expect "own /tmp" 0 "$(status_of box -- touch "/tmp/${SCRATCH##*/}-leak")"
expect "nothing of it in the machine's" gone \
    "$([[ -e /tmp/${SCRATCH##*/}-leak ]] && echo there || echo gone)"
expect "no process that is no box is joined" "2 no bench box" \
    "$(status_of "$BOX" --join $$ true) $(grep -o 'no bench box' "$SCRATCH/stderr")"
expect "no capabilities, no box" 77 \
    "$(status_of box setpriv --bounding-set=-all --inh-caps=-all -- "$BOX" --build "$BUILD" true)"

# The command goes on alone, tells its number, and is gone when the box has closed.
box -- sh -c 'setsid sleep 300 >/dev/null 2>&1 & echo $! >left'
expect "what was left behind is ended" gone \
    "$(fate_of "$(cat left)")"

"$BOX" --build "$BUILD" -- \
    sh -c 'trap "sleep 0.3; exit 7" TERM; echo $$ >signalled; while :; do sleep 0.1; done' &
supervisor=$!
for _ in {1..100}; do
    [[ ! -s signalled ]] || break
    sleep 0.1
done
kill -TERM "$supervisor"
status=0
wait "$supervisor" || status=$?
expect "a signal goes to the command, which ends in its own time" "7 gone" \
    "$status $(fate_of "$(cat signalled)")"

[[ $failures -eq 0 ]] || exit 1
echo "the bench box is tight"
