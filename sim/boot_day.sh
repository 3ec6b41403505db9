# shellcheck shell=bash
# shellcheck disable=SC2016 # expanded in the box
# A day in the life of the installed service, seen from the box, from its network, and from its
# manager. Sourced by sim/boot, beside the switch.

readonly KEPT="/config/logconf/mvx3300.conf /config/mv3300 /config/mv3300/param.xml "
# What dpkg keeps until the purge.
readonly CONFFILES="/etc/avahi/services/mv3300-panel.service /etc/mv3300 "
readonly GROUP=234.29.78.95 LOG=/run/mv3300d/mv3300.log PICTURE=/tmp/image.jpeg
FAILED=0 SAW='' BEGAN=$SECONDS

# step NAME COMMAND...: says whether it went as it has to, and what was seen.
step() {
    local name=$1 word=yes
    shift
    SAW=
    "$@" || { word=NO && FAILED=$((FAILED + 1)); }
    printf '%4d s  %-3s  %-46s %s\n' $((SECONDS - BEGAN)) $word "$name" "$SAW"
    [[ $word == yes ]] || box_for 20 journalctl -q --no-pager -n 12 -u 'mv3300*' 2>/dev/null | sed 's/^/    /' || true
}

# --- what is done and looked at --------------------------------------------------------------------

put() { box tee "$2" <<<"$1" >/dev/null; } # TEXT FILE

# Stand-ins for the board's capture device and encoder: the bench's, no part of the packages.
put_stand_ins() {
    local units=/etc/systemd/system
    # shellcheck disable=SC2086 # several
    box_for 300 apt-get install -y -q --no-download --no-install-recommends $BOOT_BENCH >"$WORK/apt.log" 2>&1 &&
        box mkdir -p /opt/stand-ins $units/mv3300{d,-guard}.service.d /debs /new &&
        tar -C "$BOOT_BUILD/sim" -c gst/libgstvideo4linux2.so libsim_capture.so | box tar -x -C /opt/stand-ins &&
        put "[Service]"$'\n'"Environment=GST_PLUGIN_PATH_1_0=/opt/stand-ins/gst"$'\n'"ReadWritePaths=-/run/mv3300-sim" \
            $units/mv3300d.service.d/bench.conf &&
        put "[Service]"$'\n'"Environment=LD_PRELOAD=/opt/stand-ins/libsim_capture.so" \
            $units/mv3300-guard.service.d/bench.conf &&
        box ln -s /lib/systemd/system/mv3300-preview-relay.service $units/multi-user.target.wants/ &&
        put "d /run/mv3300-sim 0777"$'\n'"f /run/mv3300-sim/video0 0666 - - - run\ninput 1280x720@30-0" /etc/tmpfiles.d/bench.conf &&
        box systemd-tmpfiles --create bench.conf &&
        tar -C "$BOOT_DEBS" --exclude='*-dbgsym_*' -c . | box tar -x -C /debs --wildcards './mv3300*.deb'
}

# The command that the README gives to a box's owner.
apt_install() { # FOLDER
    local command
    command=$(sed -nE 's/^apt (install .*\.deb).*/apt-get -y -q \1/p' "$REPO/README.md")
    command=${command/_arm64/_$(dpkg --print-architecture)}
    [[ $command == *' ./mv3300'* ]] && box_for 300 sh -c "cd $1 && $command" >"$WORK/apt.log" 2>&1 || {
        SAW=$(tail -n 3 "$WORK/apt.log" | tr '\n' ' ')
        return 1
    }
}

active() { [[ $(box systemctl is-active mv3300d) == active ]]; }
pid_of() { box systemctl show -P MainPID mv3300d; }
restarts() { box systemctl show -P NRestarts mv3300d; }
answers() { box mv3300ctl get --json --timeout 2s >"$WORK/get.json" 2>&1; }
log_has() { (($(box grep -cF "$1" $LOG 2>/dev/null || true) >= ${2:-1})); }

is_up() {
    until_true 30 active && until_true 30 answers || {
        SAW="$(box systemctl is-active mv3300d): $(tail -n 1 "$WORK/get.json")"
        return 1
    }
    SAW=$(<"$WORK/get.json")
}

# The files as the manual says, the service enabled, and everything running as its user.
installed() {
    local user
    box test -s /config/mv3300/param.xml -a -s /config/logconf/mvx3300.conf || return 1
    [[ $(box systemctl is-enabled mv3300d) == enabled ]] || return 1
    # Of the release before: the guard relays now.
    ! box test -L /etc/systemd/system/multi-user.target.wants/mv3300-preview-relay.service || return 1
    until_true 10 box sh -c 'for deb in /debs/*.deb; do
        unit=$(dpkg-deb -f "$deb" Package | sed s/mv3300d/mv3300-guard/)
        [ "$unit" = mv3300ctl ] || systemctl -q is-active "$unit" || exit; done' || return 1
    user=$(box stat -c %U "/proc/$(pid_of)")
    SAW="runs as $user; $(box mv3300ctl --version); package $(box dpkg-query -W -f '${Version}' mv3300d)"
    [[ $user == mv3300 && $SAW == "runs as mv3300; mv3300ctl ${SAW##* }; package ${SAW##* }" ]] &&
        until_true 10 box test -s $LOG
}

confined() {
    local unit exposure
    for unit in $(box sh -c 'cd /lib/systemd/system && ls mv3300*.service'); do
        exposure=$(box systemd-analyze security --no-pager "$unit" | sed -n 's/.*exposure level for.*: \([0-9.]*\) .*/\1/p')
        SAW+="${unit%.service} $exposure; "
        [[ -n $exposure ]] && awk "BEGIN { exit !($exposure <= 2.0) }" || return 1
    done
    # CAP_NET_ADMIN for the guard, none for the others.
    [[ $(capabilities mv3300d) == 0000000000000000 && $(capabilities mv3300-guard) == 0000000000001000 ]] &&
        { ! box systemctl -q is-active mv3300-panel || [[ $(capabilities mv3300-panel) == 0000000000000000 ]]; }
}
capabilities() { # UNIT
    box grep -hE '^Cap(Prm|Eff|Bnd|Amb)' "/proc/$(box systemctl show -P MainPID "$1")/status" | cut -f 2 | sort -u
}

timing() { nsenter --target "$INIT" --net "$BOOT_BUILD/sim/sim-uevent" --quiet "$1"; }

# decoded WxH [OTHER]: a receiver on the switch decodes pictures of that size.
decoded() {
    local size
    "$BOOT_BUILD/sim/sim-receive" --interface switch0 --group "${2:-$GROUP}" --seconds 20 --pictures 60 --json \
        >"$WORK/seen.json" 2>"$WORK/seen.err" || true
    size=$(sed -nE 's/.*"height": ?([0-9]+).*"width": ?([0-9]+).*/\2x\1/p' <(tr -d '\n' <"$WORK/seen.json"))
    SAW="$(grep -oE '"(pictures|lost)": ?[0-9]+' "$WORK/seen.json" | sort -u | tr '\n' ' ') of ${size:-nothing} on the switch"
    [[ $size == "$1" ]]
}
streams() { # WxH
    timing "$1@30-0" && decoded "$1"
}

# What is changed on the panel's page is kept in the parameter file, from within its unit.
panel_keeps() {
    local web=(nsenter --target "$INIT" --net curl -s -m 20 -b "$WORK/cookie" -c "$WORK/cookie")
    local at=http://127.0.0.1:8080/api
    compgen -G "$BOOT_DEBS/mv3300-panel_*" >/dev/null || {
        SAW="skipped: there is no package of the panel"
        return 0
    }
    box sh -c 'echo "correct horse" | mv3300-panel --set-password' >/dev/null 2>&1 &&
        "${web[@]}" --json '{"password": "correct horse"}' "$at/login" &&
        SAW=$("${web[@]}" --json '{"gop": 45}' -X PUT "$at/settings?save=1") &&
        [[ $SAW == *'"saved":true'* ]] && SAW='"saved":true' &&
        box grep -q 'NAME="h264_stream_gop".*>45<' /config/mv3300/param.xml
}

# Another user of the box may look at the picture.
preview() {
    until_true 30 box setpriv --reuid=nobody --clear-groups head -c 3 $PICTURE >"$WORK/magic" 2>/dev/null || return 1
    SAW="$(od -An -tx1 "$WORK/magic" | tr -d ' \n'), $(box stat -c '%U %a' $PICTURE 2>/dev/null || true)"
    [[ $SAW == ffd8ff* ]]
}

# crash SIGNAL: the manager starts the daemon again, and it answers.
crash() {
    local pid count
    pid=$(pid_of) count=$(restarts)
    box systemctl kill --kill-whom=main -s "$1" mv3300d
    until_true 20 eval '[[ $(pid_of) != "$pid" ]]' && is_up || return 1
    SAW="restart $(restarts) after SIG$1"
    (($(restarts) == count + 1))
}

# A second instance by hand is refused; a service that finds one running does not try by the second.
refused() {
    local count
    box systemctl stop mv3300d
    box systemd-run -q --unit=by-hand -p User=mv3300 /usr/sbin/mv3300d
    until_true 10 box sh -c 'test -s /run/mv3300.pid' || return 1
    count=$(restarts)
    box systemctl start mv3300d || true
    sleep 8
    SAW="$(($(restarts) - count)) further starts in 8 s"
    [[ $SAW == "0 further"* && $(box systemctl is-active mv3300d) == *activating ]]
    box systemctl stop by-hand && is_up
}

stopped() {
    local from=$EPOCHREALTIME
    box_for 200 systemctl stop mv3300d || return 1
    SAW="$(awk "BEGIN { print $EPOCHREALTIME - $from }") s, $(box systemctl show -P Result mv3300d)"
    [[ $SAW == *success && $(box systemctl is-active mv3300d) == inactive ]] && log_has "g_objConfig stop run" &&
        box_for 200 systemctl start mv3300d && is_up
}

# The pipeline ends with an error, and stays down until somebody does something.
failed_once() {
    box sed -i '1s/.*/fail/' /run/mv3300-sim/video0 && box chmod 0666 /run/mv3300-sim/video0
    until_true 10 log_has "Received error in [gst-h264]" && sleep 8 && decoded 1280x720
}

# The control channel, and everything else but the stream, is no one's from outside.
unreachable() {
    local port
    for port in 8366 8365 12345 12350; do
        # A closed or filtered UDP port is told by ICMP or not at all; what is bound to the address
        # would be listed.
        ! box cat /proc/net/udp | grep -qi " 00000000:$(printf %04X $port)\| 010200C0:$(printf %04X $port)" || return 1
    done
    SAW=$(box cat /proc/net/udp | awk 'NR > 1 { print $2 }' | grep -c '^0100007F')" sockets, all on 127.0.0.1"
}

# The same packages under a higher version.
upgraded() {
    local deb folder=$WORK/box/new version
    mkdir -p "$folder"
    for deb in "$BOOT_DEBS"/mv3300*.deb; do
        [[ $deb != *-dbgsym_* ]] || continue
        rm -rf "$folder/tree"
        dpkg-deb -R "$deb" "$folder/tree"
        sed -Ei 's/^Version: .*/&+next/' "$folder/tree/DEBIAN/control"
        dpkg-deb --root-owner-group -Zgzip -b "$folder/tree" "$folder/${deb##*/}" >/dev/null
    done
    rm -rf "$folder/tree"
    tar -C "$folder" -c . | box tar -x -C /new
    box sh -c 'echo "<!-- mine -->" >>/config/mv3300/param.xml'
    apt_install /new && is_up || return 1
    version=$(box dpkg-query -W -f '${Version}' mv3300d)
    SAW=$version
    [[ $version == *+next ]] && box grep -q mine /config/mv3300/param.xml
}

rebooted() {
    box systemctl reboot >/dev/null 2>&1 || true
    { until_true 200 gone && wait "$UNSHARE"; } 2>/dev/null || true
    gone || return 1
    boot && is_up
}

# left NAMES...: what of ours is still there.
left() {
    # shellcheck disable=SC2016 # expanded in the box
    SAW=$(box sh -c 'find / -xdev \( -path /debs -o -path /new -o -path /opt -o -path /proc -o -path /var/cache/apt \
        -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/log -o -path /var/cache/debconf \
        -o -path "/etc/systemd/system/mv3300*.service.d" -o -path "/var/lib/systemd/deb-systemd-*" \) -prune \
        -o \( -iname "*mv3300*" -o -iname "mvx3300*" -o -name param.xml \) -print; find /run /tmp -name "*mv3300*" ! -path "/run/mv3300-sim*" -o -name "image*"' |
        sort | tr '\n' ' ')
    ! pgrep -f /usr/sbin/mv3300d --nslist pid --ns "$INIT" >/dev/null || SAW+=running
    [[ $SAW == "$1" ]]
}
removed() {
    local files=$KEPT
    ! compgen -G "$BOOT_DEBS/mv3300-panel_*" >/dev/null || files+=$CONFFILES
    box_for 250 apt-get remove -y -q 'mv3300*' >"$WORK/apt.log" 2>&1 &&
        left "$files"
}
purged() { # ANSWER LEFT
    box sh -c "touch /config/mv3300/panel.password
        echo mv3300d mv3300d/remove-config boolean $1 | debconf-set-selections" &&
        box_for 250 apt-get purge -y -q 'mv3300*' >"$WORK/apt.log" 2>&1 && left "$2"
}
panel_alone() {
    local asked
    box_for 250 sh -c 'apt-get install -y -q --no-install-recommends /debs/mv3300-panel_*.deb' >"$WORK/apt.log" 2>&1 &&
        until_true 10 box systemctl -q is-active mv3300-panel &&
        until_true 10 nsenter --target "$INIT" --net curl -s -o "$WORK/alone.json" http://127.0.0.1:8080/api/state || return 1
    asked=$(grep -oE '"(condition|text)": ?"[^"]*"' "$WORK/alone.json" | tr '\n' ' ')
    box_for 250 apt-get purge -y -q 'mv3300*' >"$WORK/apt.log" 2>&1 && left "" || return 1
    SAW=$asked
    [[ $SAW == *guard* ]]
}

# --- the plans -------------------------------------------------------------------------------------

begin() {
    step "the bench's stand-ins" put_stand_ins
    step "apt install on a bare system" apt_install /debs
    step "the service answers" is_up
    ((FAILED == 0)) || end_of_day
    step "files, user, version" installed
}
end_of_day() {
    echo "$FAILED failed, after $((SECONDS - BEGAN)) s"
    exit $((FAILED != 0))
}

quick() {
    begin
    step "exposure at most 2.0, capabilities" confined
    step "a timing becomes a picture on the switch" streams 1280x720
    step "others may look at the preview" preview
    step "the panel keeps a setting" panel_keeps
    step "a crash is restarted" crash SEGV
    step "and ends in a picture" decoded 1280x720
    step "a removal leaves /config alone" removed
    end_of_day
}

day() {
    begin
    step "exposure at most 2.0, capabilities" confined
    step "a timing becomes a picture on the switch" streams 1280x720
    step "others may look at the preview" preview
    step "the panel keeps a setting" panel_keeps
    step "nothing but the stream is reachable" unreachable
    step "a failed assertion is restarted" crash ABRT
    step "a killed daemon is restarted" crash KILL
    step "a crash is restarted" crash SEGV
    step "and ends in a picture" decoded 1280x720
    step "an encoder that fails once is started again" failed_once
    step "a stop ends in order, a start follows" stopped
    step "a start that cannot succeed waits" refused
    step "which ends in a picture" decoded 1280x720
    step "an upgrade under a running stream" upgraded
    step "ends in a picture" decoded 1280x720
    step "a reboot brings the service" rebooted
    step "and, with the cable in, a picture" decoded 1280x720
    step "a removal leaves /config alone" removed
    step "an installation finds it" apt_install /debs
    step "and starts" is_up
    step "a purge that nobody answers keeps it" purged false "$KEPT"
    step "an installation once more" apt_install /debs
    step "a purge that is told to takes it" purged true ""
    step "the panel without a daemon says so" panel_alone
    end_of_day
}

# The programs of the tests at the paths that they were built with, and in the daemon's place one
# that starts it confined.
suite() {
    begin
    # The guard only relays, as in the bench box.
    put "[Service]"$'\n'"Environment=\"GUARD_OPTIONS=--no-restart --no-announce\"" \
        /etc/systemd/system/mv3300-guard.service.d/suite.conf
    box systemctl daemon-reload
    box systemctl restart mv3300-guard
    box systemctl stop mv3300d
    box mkdir -p "$BOOT_BUILD" /run/mv3300-sim
    tar -C "$BOOT_BUILD" -c tests/system_tests mv3300ctl mv3300-guard sim/sim-receive sim/sim-uevent \
        sim/libsim_capture.so | box tar -x -C "$BOOT_BUILD"
    box tee "$BOOT_BUILD/mv3300d" <"$REPO/sim/confined" >/dev/null
    box chmod +x "$BOOT_BUILD/mv3300d"
    echo 1 | box tee /run/mv3300-sim/box.pid >/dev/null
    say "left out: WatchdogTest, whose daemons have to come to the test with -D, and here come to systemd"
    box_for 3000 env GST_PLUGIN_PATH_1_0=/opt/stand-ins/gst BOX_CAPTURE=/opt/stand-ins/libsim_capture.so \
        "$BOOT_BUILD/tests/system_tests" --gtest_filter='-WatchdogTest.*' || FAILED=$?
    end_of_day
}

shell() {
    begin
    nsenter --target "$INIT" --mount --net --pid --ipc --uts --cgroup --root --wdns=/ -- bash -l || true
}
