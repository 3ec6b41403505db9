# shellcheck shell=bash
# Shared set-up of the scripts: installs what is missing and builds. Sourced, not run.
#
# Works on a bare Debian 12, as root or with sudo. Nothing is installed that is there already, and
# what is installed is said together with its reason.

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

# need REASON PACKAGE...: installs those of the Debian packages that are missing.
need() {
    local reason=$1 package
    shift
    MISSING=()
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -x installed >/dev/null ||
            MISSING+=("$package")
    done
    ((${#MISSING[@]})) || return 0
    command -v apt-get >/dev/null ||
        die "this is no Debian (no apt-get). Install by hand ($reason): ${MISSING[*]}"
    say "installing ($reason): ${MISSING[*]}"
    if [[ -z ${PACKAGE_LISTS_READ:-} ]]; then
        as_root apt-get update -q ||
            die "the package lists cannot be read as root; missing: ${MISSING[*]}"
        PACKAGE_LISTS_READ=1
    fi
    as_root apt-get install -y -q --no-install-recommends -o DPkg::Lock::Timeout=120 \
        "${MISSING[@]}" ||
        die "cannot install: ${MISSING[*]}"
}

need_build() {
    need "compiler and build tools" g++ cmake make pkg-config
    need "libraries of the daemon" libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev \
        liblog4cpp5-dev libtinyxml2-dev
    need "libraries of the tools and the bench box" libcli11-dev nlohmann-json3-dev
}

need_box() {
    need "elements of the pipelines" gstreamer1.0-plugins-base gstreamer1.0-plugins-good \
        gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
    need "network and processes of the bench box" iproute2 socat util-linux procps
}

# configure_and_build FOLDER [CMAKE OPTION...]
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
    cmake --build "$folder" -j "$(nproc)" || die "the build failed"
}
