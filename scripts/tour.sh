# shellcheck shell=bash
# The guided tour of the demo: walks the daemon through what it does and tests every step by what
# comes out of it. Sourced by scripts/demo, within the bench box.
#
# Each step is a function that says what it saw in SAW and succeeds only if that is right.

readonly PLAYING="Let's run [gst-h264]!"
readonly SEEN=/run/tour.json
SAW=
PLAYED=0

# value NAME [FILE]: the first value of that name in the JSON.
value() { sed -nE "s/.*\"$1\": ?\"?([^\",}]*).*/\\1/p" "${2:-$SEEN}" | head -n 1; }

# The stream's rate as a whole number.
kbit_per_s() {
    local rate
    rate=$(value kbit_per_s)
    echo "${rate%.*}"
}

# until_true SECONDS COMMAND...
until_true() {
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        ((SECONDS < end)) || return 1
        sleep 0.1
    done
}

played() { grep -cF "$PLAYING" "$LOG"; }
played_again() { (($(played) > PLAYED)); }

# restarts COMMAND...: runs it and waits until the stream was built anew.
restarts() {
    PLAYED=$(played) || true
    "$@" >/run/tour.out 2>&1 || {
        SAW=$(tail -n 1 /run/tour.out)
        return 1
    }
    until_true 30 played_again || {
        SAW="the stream was not built anew within 30 s"
        return 1
    }
}

# receive SECONDS: what an independent receiver makes of the stream.
receive() {
    sim-receive --seconds "$1" --json ${2:+--picture "$2"} >"$SEEN" 2>/run/tour.err || true
    SAW="$(value pictures) pictures of $(value width)x$(value height) in $1 s, "
    SAW+="$(kbit_per_s) kbit/s, $(value lost) packets lost"
}

# decoded WxH: the last look at the stream had pictures of that size.
decoded() { (($(value pictures) > 0)) && [[ $(value width)x$(value height) == "$1" ]]; }

set_and_check() { # FIELD VALUE READ_BACK
    restarts mv3300ctl set --json "--$1" "$2" || return 1
    mv3300ctl get "$1" --json >/run/tour.get && [[ $(value "$1" /run/tour.get) == "$3" ]] && return
    SAW="the daemon reports $(</run/tour.get)"
    return 1
}

tour_timing() {
    restarts sim-uevent --quiet "$TIMING" && receive 5 "$OUTPUT/picture.png" &&
        decoded "${TIMING%@*}"
}

tour_preview() {
    local first second
    until_true 20 test -s /tmp/image.jpeg || return 1
    first=$(stat -c %y /tmp/image.jpeg)
    sleep 3
    until_true 5 cp -p /tmp/image.jpeg "$OUTPUT/preview.jpeg" || return 1
    second=$(stat -c %y "$OUTPUT/preview.jpeg")
    SAW="$(file_kind "$OUTPUT/preview.jpeg") of $(stat -c %s "$OUTPUT/preview.jpeg") bytes"
    [[ $first != "$second" && $SAW == JPEG* ]]
}

# Its first and last two bytes tell a whole JPEG file.
file_kind() {
    [[ $(head -c 2 "$1" | od -An -tx1)$(tail -c 2 "$1" | od -An -tx1) == " ff d8 ff d9" ]] &&
        echo "JPEG file" || echo "something else"
}

tour_get() {
    mv3300ctl get --json >"$SEEN" || return 1
    SAW=$(<"$SEEN")
    [[ $(value h264) == true && $(value preview) == true ]]
}

# A low rate and a high one: the picture decides how much of it is used.
tour_bitrate() {
    local low high
    set_and_check bitrate 300k 300000 && receive 5 || return 1
    low=$(kbit_per_s)
    set_and_check bitrate 3M 3000000 && receive 5 || return 1
    high=$(kbit_per_s)
    SAW="$low kbit/s at 300k, $high kbit/s at 3M"
    ((low > 0 && high > 3 * low))
}

tour_gop() {
    set_and_check gop 15 15 && receive 5 || return 1
    SAW="a key frame every $(value gop) pictures"
    [[ $(value gop) == 15 ]]
}

tour_off() {
    set_and_check h264 off false && receive 3 || return 1
    SAW="$(value packets) packets in 3 s"
    [[ $(value packets) == 0 ]]
}

tour_on() { set_and_check h264 on true && receive 5 && decoded "${TIMING%@*}"; }

tour_other_timing() {
    local size=640x360
    [[ ${TIMING%@*} != "$size" ]] || size=1280x720
    restarts sim-uevent --quiet "$size@30-0" && receive 5 && decoded "$size"
}

tour_no_signal() {
    sim-uevent --quiet --none || return 1
    until_true 20 silent
}
silent() {
    receive 2
    SAW="$(value packets) packets in 2 s"
    [[ $(value packets) == 0 ]]
}

# step NAME FUNCTION: counts the steps whose outcome was not the one to be seen.
FAILED_STEPS=0
step() {
    SAW=
    if "$2"; then
        printf '  yes  %-44s %s\n' "$1" "$SAW"
    else
        printf '  NO   %-44s %s\n' "$1" "${SAW:-not seen}"
        FAILED_STEPS=$((FAILED_STEPS + 1))
    fi
}

tour() {
    say "the tour, about a minute"
    step "$TIMING is announced: a stream comes" tour_timing
    step "the preview is there and is renewed" tour_preview
    step "mv3300ctl get: the settings" tour_get
    step "mv3300ctl set --bitrate: the stream follows" tour_bitrate
    step "mv3300ctl set --gop 15: the stream follows" tour_gop
    step "mv3300ctl set --h264 off: the stream stops" tour_off
    step "mv3300ctl set --h264 on: it comes back" tour_on
    step "another timing: another size" tour_other_timing
    step "no signal: the stream stops" tour_no_signal
}

# tour_end STATUS: the last step, with the daemon's exit status.
tour_end() {
    ENDED=$1
    step "SIGTERM: the daemon ends" tour_ended
    ((FAILED_STEPS == 0)) || say "$FAILED_STEPS steps were not seen as they should be"
}
tour_ended() {
    SAW="exit status $ENDED"
    ((ENDED == 0))
}
