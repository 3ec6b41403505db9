#!/bin/bash
# What was recorded beside a scene passes when it is played, and does not where the box is broken.
# usage: record_test.sh BUILD_DIRECTORY
set -euo pipefail

PLAY=$(readlink -f "$(dirname "${BASH_SOURCE[0]}")/../../sim/play")
BUILD=$(readlink -f "$1")
SCRATCH=$(mktemp -d)
trap 'rm -rf "$SCRATCH"' EXIT
cd "$SCRATCH"

cat >life.scene <<'TEXT'
guard --stall 4
input 640x360@30-0
start
expect condition streaming within 12
wait 10
timing none
wait 3
timing 480x270@30-0
expect condition streaming within 15
wait 3
kill daemon
wait 3
start daemon
expect condition streaming within 12
wait 9
TEXT
status=0
"$PLAY" --build "$BUILD" --record recorded.scene life.scene || status=$?
[[ $status -eq 0 ]] || exit $status # 77: no box here
cat recorded.scene
"$PLAY" --build "$BUILD" recorded.scene

# What is broken, how, and what the player says of the first expectation that does not hold. At the
# same time: to be late does not make a broken box a good one.
broken() {
    sed "$2" recorded.scene >"$1.scene"
    if "$PLAY" --build "$BUILD" "$1.scene" >"$1.out" || ! grep -q "line .*expect.*: $3" "$1.out"; then
        echo "FAILED: $1" >&2
        cat "$1.out" >&2
        return 1
    fi
}
broken no_encoder_starts 's/^start$/always fail\n&/' 'condition is' &
broken no_daemon_is_told_the_input 's/^guard .*/guard --no-announce --no-restart/' 'condition is' &
broken another_size 's/^timing 480x270@30-0/timing 640x480@30-0/' 'stream.width is 640' &
failures=0
for _ in 1 2 3; do
    wait -n || failures=$((failures + 1))
done
exit $failures
