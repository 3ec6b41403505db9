#!/bin/bash
# Runs one of the panel's tests in a bench box: run.sh BUILD_DIR TEST.py. What it leaves, screenshots
# of the page in each condition among it, is in BUILD_DIR/panel-tests.
set -euo pipefail
folder=$(dirname "$(readlink -f "$0")")
export MV3300_BUILD_DIR=$1 MV3300_PANEL_OUTPUT=$1/panel-tests/${2%.py}
rm -rf "$MV3300_PANEL_OUTPUT"
mkdir -p "$MV3300_PANEL_OUTPUT"
# Of a sanitizer, where one is built in: what is GLib's and not ours.
export LSAN_OPTIONS=suppressions=$folder/../lsan.supp
export TSAN_OPTIONS=suppressions=$folder/../tsan.supp
export ASAN_OPTIONS=fast_unwind_on_malloc=0:malloc_context_size=8
# Debian's own: another Python would not find python3-selenium.
exec "$folder/../../sim/box" --build "$1" --no-relay -- /usr/bin/python3 "$folder/$2"
