# shellcheck shell=bash
# The guided tour of the demo: walks the daemon through what it does and tests every step by what
# comes out of it. Sourced by scripts/demo, within the bench box.
#
# Each step is a function that says what it saw in SAW and succeeds only if that is right.

readonly PLAYING="Let's run [gst-h264]!"
readonly SEEN=/run/tour.json
SAW=
PLAYED=0

# value NAME [FILE]: the first value of that name in the JSON; nothing if there is none.
value() {
    local found
    found=$(grep -oE "\"$1\": ?\"?[^\",}]*" "${2:-$SEEN}") || return 0
    found=${found%%$'\n'*}
    found=${found#*:}
    found=${found# }
    echo "${found#\"}"
}

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

# receive SECONDS [PICTURE]: what an independent receiver makes of the stream. Fails when the
# receiver does; that there were no pictures is no failure of its own.
receive() {
    sim-receive --seconds "$1" --json ${2:+--picture "$2"} >"$SEEN" 2>/run/tour.err &
    RECEIVER=$!
    wait "$RECEIVER" || true
    RECEIVER=
    if [[ ! -s $SEEN || -n $(value error) ]]; then
        SAW="the receiver failed: $(value error) $(tail -n 1 /run/tour.err)"
        return 1
    fi
    SAW="$(value pictures) pictures of $(value width)x$(value height) in $1 s, "
    SAW+="$(kbit_per_s) kbit/s, $(value lost) packets lost"
}

# decoded WxH: the last look at the stream had pictures of that size.
decoded() { (($(value pictures) > 0)) && [[ $(value width)x$(value height) == "$1" ]]; }

# silent SECONDS: no packet came, although receiver and daemon are well.
silent() {
    receive "$1" || return 1
    SAW="$(value packets) packets in $1 s"
    [[ $(value packets) == 0 ]] || return 1
    mv3300ctl get --json >/run/tour.get 2>&1 || {
        SAW+="; but $(tail -n 1 /run/tour.get)"
        return 1
    }
    SAW+="; the daemon answers"
}

# reads_back FIELD VALUE
reads_back() {
    mv3300ctl get "$1" --json >/run/tour.get 2>&1 && [[ $(value "$1" /run/tour.get) == "$2" ]] &&
        return
    SAW="the daemon reports $(tail -n 1 /run/tour.get)"
    return 1
}

set_and_check() { # FIELD VALUE READ_BACK
    restarts mv3300ctl set --json "--$1" "$2" && reads_back "$1" "$3"
}

# preview_kept: a copy of the picture published now, with its time. The daemon may take the picture
# away at any moment.
preview_kept() {
    cp -p /tmp/image.jpeg "$OUTPUT/preview.jpeg" 2>/dev/null && [[ -s $OUTPUT/preview.jpeg ]]
}
preview_newer_than() { preview_kept && [[ $(stat -c %y "$OUTPUT/preview.jpeg") != "$1" ]]; }
preview_of() { preview_kept && [[ $(jpeg_size "$OUTPUT/preview.jpeg") == "$1" ]]; }
no_preview_for() { ! until_true "$1" test -e /tmp/image.jpeg; }

# jpeg_size FILE: WxH as the frame header tells it; nothing unless the file begins and ends as a
# whole JPEG file does.
jpeg_size() {
    local bytes
    bytes=$({ head -c 1024 "$1" && tail -c 2 "$1"; } | od -An -v -tx1 | tr -d '\n')
    [[ $bytes == " ff d8"*" ff d9" ]] || return 0
    [[ $bytes =~ " ff c0 00 11 08 "(..)" "(..)" "(..)" "(..) ]] || return 0
    echo "$((16#${BASH_REMATCH[3]}${BASH_REMATCH[4]}))x$((16#${BASH_REMATCH[1]}${BASH_REMATCH[2]}))"
}
saw_preview() {
    SAW="JPEG of $(jpeg_size "$OUTPUT/preview.jpeg"), $(stat -c %s "$OUTPUT/preview.jpeg") bytes"
}

tour_timing() {
    restarts sim-uevent --quiet "$TIMING" && receive 5 "$OUTPUT/picture.png" &&
        decoded "${TIMING%@*}"
}

# preview_size HEIGHT: the preview keeps the input's proportions.
preview_size() {
    local size=${TIMING%@*}
    echo "$((${size%x*} * $1 / ${size#*x}))x$1"
}

tour_preview() {
    until_true 20 preview_of "$(preview_size 720)" || return 1
    until_true 10 preview_newer_than "$(stat -c %y "$OUTPUT/preview.jpeg")" || return 1
    saw_preview
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

tour_preview_off_on() {
    set_and_check preview off false || return 1
    until_true 15 no_preview_for 3 || {
        SAW="there are still pictures"
        return 1
    }
    set_and_check preview on true && until_true 20 preview_kept || return 1
    saw_preview
    SAW="none for 3 s; then a $SAW"
}

tour_preview_height() {
    restarts mv3300ctl set --json --height 360 --refreshrate 5 && reads_back height 360 &&
        reads_back refreshrate 5 && until_true 20 preview_of "$(preview_size 360)" || return 1
    saw_preview
}

# The one setting that the daemon reports but does not let itself be given.
tour_mode() {
    local status=0
    mv3300ctl set --mode cbr >/run/tour.out 2>&1 || status=$?
    reads_back mode vbr || return 1
    SAW=$(tail -n 1 /run/tour.out)
    ((status == 1))
}

tour_off() { set_and_check h264 off false && silent 3; }

tour_on() { set_and_check h264 on true && receive 5 && decoded "${TIMING%@*}"; }

tour_other_timing() {
    local size=640x360
    [[ ${TIMING%@*} != "$size" ]] || size=1280x720
    restarts sim-uevent --quiet "$size@30-0" && receive 5 && decoded "$size"
}

tour_no_signal() {
    sim-uevent --quiet --none || return 1
    until_true 20 silent 2
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

# look NAME FUNCTION: a step that needs the daemon; without it there is no use in waiting.
look() {
    if kill -0 "$DAEMON" 2>/dev/null; then step "$@"; else step "$1" gone; fi
}
gone() {
    SAW="the daemon has ended"
    return 1
}

tour() {
    say "the tour, about a minute and a half"
    look "$TIMING is announced: a stream comes" tour_timing
    look "the preview is there and is renewed" tour_preview
    look "mv3300ctl get: the settings" tour_get
    look "mv3300ctl set --bitrate: the stream follows" tour_bitrate
    look "mv3300ctl set --gop 15: the stream follows" tour_gop
    look "mv3300ctl set --preview off and on: it obeys" tour_preview_off_on
    look "mv3300ctl set --height 360 --refreshrate 5" tour_preview_height
    look "mv3300ctl set --mode cbr: is refused" tour_mode
    look "mv3300ctl set --h264 off: the stream stops" tour_off
    look "mv3300ctl set --h264 on: it comes back" tour_on
    look "another timing: another size" tour_other_timing
    look "no signal: the stream stops" tour_no_signal
}

# tour_end: the last step, with the daemon's exit status in ENDED.
tour_end() {
    step "SIGTERM: the daemon ends" tour_ended
    ((FAILED_STEPS == 0)) || say "$FAILED_STEPS steps were not seen as they should be"
}
tour_ended() {
    SAW="exit status $ENDED"
    ((ENDED == 0))
}
