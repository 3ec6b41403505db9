# shellcheck shell=bash
# Shared set-up of the scripts: installs what is missing and builds. Sourced, not run.
#
# Works on a bare Debian 12, as root or with sudo. Nothing is installed that is there already, and
# what is installed is said together with its reason.

# First of all: while bash waits for a program without a trap, a Ctrl-C that the program itself did not
# die of is lost.
trap 'exit 130' INT

REPO=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly REPO
export DEBIAN_FRONTEND=noninteractive

say() { printf '==> %s\n' "$*"; }
die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

as_root() {
    if [[ $(id -u) == 0 ]]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo env DEBIAN_FRONTEND="$DEBIAN_FRONTEND" "$@"
    else
        die "installing packages needs root or sudo; missing: ${MISSING[*]:-}"
    fi
}

# want REASON PACKAGE...: notes those of the Debian packages that are missing.
MISSING=()
REASONS=
want() {
    local reason=$1 package lacks=
    shift
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -x installed >/dev/null ||
            lacks+=" $package"
    done
    [[ -n $lacks ]] || return 0
    # shellcheck disable=SC2206 # names of packages have no spaces
    MISSING+=($lacks)
    REASONS+="    $reason:$lacks"$'\n'
}

# Reads the package lists. One source that fails is no reason to end; none that answers is.
read_package_lists() {
    local answer
    [[ -z ${PACKAGE_LISTS_READ:-} ]] || return 0
    answer=$(as_root apt-get update -q -o APT::Update::Error-Mode=any -o Acquire::Retries=1 2>&1) ||
        grep -qE '^(Hit|Get):' <<<"$answer" ||
        die "no source of packages answers, is there a network? Missing: ${MISSING[*]}"
    PACKAGE_LISTS_READ=1
}

# What apt says of an installation: packages, download, disk.
size_of() {
    LC_ALL=C apt-get install --assume-no --no-install-recommends -o Debug::NoLocking=1 "$@" 2>/dev/null |
        sed -nE -e 's/^.* ([0-9]+) newly installed.*/\1 packages with what they need in turn/p' \
            -e 's/^Need to get ([^/]*)(\/.*)? of archives.*/\1 to download/p' \
            -e 's/^After this operation, (.*) of additional.*/\1 of disk/p' | paste -sd , - |
        sed 's/,/, /g'
}

# Installs what was wanted and is missing, after it has said what for and how much.
install_wanted() {
    ((${#MISSING[@]})) || return 0
    command -v apt-get >/dev/null ||
        die "this is no Debian (no apt-get). Install by hand: ${MISSING[*]}"
    as_root true # whoever may not is told here, not that no source answers
    read_package_lists
    say "installing $(size_of "${MISSING[@]}")"
    printf %s "$REASONS"
    as_root apt-get install -y -q --no-install-recommends -o DPkg::Lock::Timeout=120 \
        "${MISSING[@]}" ||
        die "cannot install: ${MISSING[*]}"
    MISSING=()
    REASONS=
}

# install_without_service: install_wanted, where Prometheus may be among it. Debian's package starts it
# and has it start with the machine, on every interface; here it is only wanted as a program.
install_without_service() {
    local policy=/usr/sbin/policy-rc.d made=
    [[ " ${MISSING[*]-} " == *" prometheus "* ]] || {
        install_wanted
        return
    }
    if [[ ! -e $policy ]]; then
        made=1
        # shellcheck disable=SC2064 # the path as it is now
        trap "as_root rm -f $policy" EXIT
        printf '#!/bin/sh\nexit 101\n' | as_root tee "$policy" >/dev/null
        as_root chmod +x "$policy"
    fi
    install_wanted
    as_root systemctl --quiet disable prometheus.service 2>/dev/null || true
    [[ -n $made ]] || return 0
    as_root rm -f "$policy"
    trap - EXIT
}

# need REASON PACKAGE...: installs those of the Debian packages that are missing.
need() {
    want "$@"
    install_wanted
}

# What is needed for what; scripts/arm64 installs the libraries and elements of another architecture.
readonly BUILD_TOOLS=(g++ cmake make pkg-config)
readonly DAEMON_LIBRARIES=(libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev liblog4cpp5-dev
    libtinyxml2-dev)
readonly TOOL_LIBRARIES=(libcli11-dev nlohmann-json3-dev)
readonly ELEMENTS=(gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
    gstreamer1.0-plugins-ugly gstreamer1.0-libav)
readonly BOX_TOOLS=(iproute2 socat util-linux procps python3)

want_build() {
    want "compiler and build tools" "${BUILD_TOOLS[@]}"
    want "libraries of the daemon" "${DAEMON_LIBRARIES[@]}"
    want "libraries of the tools and the bench box" "${TOOL_LIBRARIES[@]}"
    want "libraries of the panel" libcpp-httplib-dev libssl-dev prometheus-cpp-dev libcrypt-dev libgd-dev
}

want_box() {
    want "elements of the pipelines" "${ELEMENTS[@]}"
    want "network and processes of the bench box" "${BOX_TOOLS[@]}"
}

need_build() {
    want_build
    install_wanted
}

need_box() {
    want_box
    install_wanted
}

# take_folder FOLDER: makes sure that it can be built there, and that nobody else does meanwhile, up
# to release_folder.
take_folder() {
    local folder=$1 path home
    for path in "$folder/CMakeCache.txt" "$folder" "${folder%/*}"; do
        [[ -e $path ]] || continue
        [[ -w $path ]] || die "$(id -un) cannot write $path, which belongs to $(stat -c %U "$path")"
        break
    done
    home=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$folder/CMakeCache.txt" 2>/dev/null) || true
    [[ -z $home || $home -ef $REPO ]] || die "$folder is the build of $home: remove it"
    mkdir -p "$folder" || die "$folder cannot be made"
    exec 9>"$folder/.lock"
    flock -n 9 || {
        say "waiting for another run in ${folder#"$REPO"/}"
        flock 9
    }
}
release_folder() { exec 9>&-; }

# configure_and_build FOLDER [CMAKE OPTION...]: the targets named in TARGETS, else all.
TARGETS=()
configure_and_build() {
    local folder=$1
    shift
    mkdir -p "$folder"
    say "configuring ${folder#"$REPO"/}"
    cmake -S "$REPO" -B "$folder" "$@" >"$folder/configure.log" 2>&1 || {
        cat "$folder/configure.log" >&2
        die "the configuration failed"
    }
    say "building ${folder#"$REPO"/} on $(nproc) processors"
    cmake --build "$folder" -j "$(nproc)" ${TARGETS[@]:+--target "${TARGETS[@]}"} ||
        die "the build failed"
}
