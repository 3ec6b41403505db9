# shellcheck shell=bash
# The guided tour of the demo: one thing after the other that the daemon does, and what an
# independent receiver sees of it. Sourced by scripts/demo, within the bench box.
#
# Each step is a function that says what it saw in SAW and fails if that is not what it is to show.

readonly PLAYING="Let's run [gst-h264]!" SEEN=/run/tour.json RUNNING=/run/demo
SAW=
STEPS=0
FAILED_STEPS=0

# until_true SECONDS COMMAND...
until_true() {
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        ((SECONDS < end)) || return 1
        sleep 0.1
    done
}

# value NAME: the first value of that name in what the receiver measured, a number without fraction.
value() { sed -nE "0,/\"$1\":/s/.*\"$1\": ?\"?([^\",.}]*).*/\1/p" "$SEEN"; }

# receive SECONDS [PICTURE]
receive() {
    sim-receive --seconds "$1" --json ${2:+--picture "$2"} >"$SEEN" 2>/run/tour.err &
    RECEIVER=$!
    wait "$RECEIVER" || true
    RECEIVER=
    SAW="$(value pictures) pictures of $(value width)x$(value height) in $1 s, "
    SAW+="$(value kbit_per_s) kbit/s, $(value lost) packets lost"
    [[ -z $(value error) && -n $(value packets) ]]
}
silent() {
    receive 2 || return 1
    SAW="$(value packets) packets in 2 s"
    [[ $(value packets) == 0 ]]
}

played() { grep -cF "$PLAYING" "$LOG" || true; }
played_more_than() { (($(played) > $1)); }

# anew COMMAND...: succeeds when the command does and the stream was built anew. mv3300ctl reads a
# setting back and fails if it did not take effect.
anew() {
    local before
    before=$(played)
    "$@" >/run/tour.out 2>&1 && until_true 30 played_more_than "$before" && return
    SAW=$(tail -n 1 /run/tour.out)
    return 1
}

# preview_kept: a copy of the picture published now, with its time. The daemon may take the picture
# away at any moment.
preview_kept() {
    cp -p /tmp/image.jpeg "$OUTPUT/preview.jpeg" 2>/dev/null && [[ -s $OUTPUT/preview.jpeg ]]
}
preview_newer_than() { preview_kept && [[ $(stat -c %y "$OUTPUT/preview.jpeg") != "$1" ]]; }
no_preview_for() { ! until_true "$1" test -e /tmp/image.jpeg; }

# streams WxH [PICTURE]: the guard calls it streaming, and pictures of that size are received.
is_streaming() { grep -qs '"condition": *"streaming"' /run/mv3300/state.json; }
is_not_streaming() { ! is_streaming; }
streams() {
    until_true 45 is_streaming && receive 5 "${@:2}" && [[ $(value width)x$(value height) == "$1" ]]
}
# again COMMAND...: the stream goes down by it and comes back, without another hand.
again() {
    "$@" && until_true 20 is_not_streaming && streams "${TIMING%@*}"
}
kill_daemon() { kill -KILL "$(</var/run/mv3300.pid)"; }
# As when the box is switched off and on: nothing that ran goes on, nothing it remembered is there.
restart_everything() {
    kill -KILL "$(<"$RUNNING/mv3300d.pid")" "$(<"$RUNNING/mv3300-guard.pid")" \
        "$(<"$RUNNING/mv3300-panel.pid")" && rm -f /run/mv3300/*
}
panel_answers() { (exec 9<>/dev/tcp/127.0.0.1/8080) 2>/dev/null; }
fail_encoder() { printf 'fail\ninput %s\n' "$TIMING" >/run/mv3300-sim/video0; }
timing() { # TIMING [PICTURE]
    anew sim-uevent --quiet "$1" && receive 5 "${@:2}" &&
        [[ $(value width)x$(value height) == "${1%@*}" ]]
}
other_timing() {
    local other=640x360@30-0
    [[ ${TIMING%@*} != "${other%@*}" ]] || other=1280x720@30-0
    timing "$other"
}
preview() {
    until_true 20 preview_kept &&
        until_true 10 preview_newer_than "$(stat -c %y "$OUTPUT/preview.jpeg")" || return 1
    SAW="a JPEG of $(stat -c %s "$OUTPUT/preview.jpeg") bytes"
}
no_preview() {
    anew mv3300ctl set --preview off && until_true 15 no_preview_for 3 || return 1
    SAW="none for 3 s"
}
# A low rate and a high one: the picture decides how much of it is used.
bitrate() {
    local low
    anew mv3300ctl set --bitrate 300k && receive 5 || return 1
    low=$(value kbit_per_s)
    anew mv3300ctl set --bitrate 3M && receive 5 || return 1
    SAW="$low kbit/s at 300k, $(value kbit_per_s) kbit/s at 3M"
    ((low > 0 && $(value kbit_per_s) > 3 * low))
}
gop() {
    anew mv3300ctl set --gop 15 && receive 5 || return 1
    SAW="a key frame every $(value gop) pictures"
    [[ $(value gop) == 15 ]]
}
# The one setting that the daemon reports but does not let itself be given.
mode() {
    local status=0
    mv3300ctl set --mode cbr >/run/tour.out 2>&1 || status=$?
    SAW=$(tail -n 1 /run/tour.out)
    ((status == 1))
}
on_again() { anew mv3300ctl set --h264 on && receive 5 && (($(value pictures) > 0)); }
no_signal() {
    sim-uevent --quiet --none && until_true 20 silent
}
ended() {
    SAW="exit status $ENDED"
    ((ENDED == 0))
}

# step NAME COMMAND...: without the daemon there is no use in waiting for what it does.
step() {
    local mark=yes
    SAW=
    STEPS=$((STEPS + 1))
    { [[ -n ${ENDED:-} ]] || kill -0 "$DAEMON" 2>/dev/null; } && "${@:2}" || {
        mark=NO
        FAILED_STEPS=$((FAILED_STEPS + 1))
    }
    printf '  %-3s  %-44s %s\n' "$mark" "$1" "${SAW:-not seen}"
}

tour() {
    say "the tour, about two minutes"
    step "booted with the cable in: a stream comes" streams "${TIMING%@*}" "$OUTPUT/picture.png"
    step "the preview is there and is renewed" preview
    step "the daemon is killed: the stream comes back" again kill_daemon
    step "the encoder fails: the stream comes back" again fail_encoder
    step "all is restarted: the stream comes back" \
        eval 'again restart_everything && until_true 10 panel_answers'
    step "mv3300ctl set --bitrate: the stream follows" bitrate
    step "mv3300ctl set --gop 15: the stream follows" gop
    step "mv3300ctl set --preview off: no picture" no_preview
    step "mv3300ctl set --preview on: it is back" eval 'anew mv3300ctl set --preview on && preview'
    step "mv3300ctl set --height 360 --refreshrate 5" \
        eval 'anew mv3300ctl set --height 360 --refreshrate 5 && preview'
    step "mv3300ctl set --mode cbr: is refused" mode
    step "mv3300ctl set --h264 off: the stream stops" \
        eval 'mv3300ctl set --h264 off >/run/tour.out 2>&1 && silent'
    step "mv3300ctl set --h264 on: it comes back" on_again
    step "another timing: another size" other_timing
    step "no signal: the stream stops" no_signal
}

# tour_end: the last step, with the daemon's exit status in ENDED.
tour_end() {
    step "SIGTERM: the daemon ends" ended
    ((FAILED_STEPS == 0)) || say "$FAILED_STEPS of $STEPS were not seen as they should be"
}
