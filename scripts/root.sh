# shellcheck shell=bash
# Debian roots of our own, in which packages are built and boxes boot. Sourced after common.sh.
#
# They are made from where the machine's own apt takes its Debian packages.

# The machine's Debian sources, one line each.
debian_sources() {
    # shellcheck disable=SC2016 # apt's own variables
    apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
        'Created-By: Packages' 'Component: main' 'Origin: Debian' | sort -u
}

# unpack_debootstrap DIR: as it comes in its package, with apt in the place of wget, so that nothing
# has to be installed on the machine.
unpack_debootstrap() {
    mkdir -p "$1/bin"
    (cd "$1" && apt-get -qq -o APT::Sandbox::User=root download debootstrap && dpkg-deb -x debootstrap_*.deb .)
    cat >"$1/bin/wget" <<'TEXT'
#!/bin/bash
while (($# > 1)); do
    [[ $1 != -O ]] || file=$2
    shift
done
/usr/lib/apt/apt-helper -qq -o APT::Sandbox::User=root download-file "$1" "$file"
TEXT
    chmod +x "$1/bin/wget"
}

# make_root DIR [PACKAGE...]: a minimal Debian with those packages in it, by DEBOOTSTRAP_OPTIONS of
# another architecture. Made under another name first, so that DIR is a whole one or none.
make_root() {
    local root=$1 uri suite packages
    shift
    [[ ! -d $root ]] || return 0
    [[ -n $(debian_sources) ]] || as_root apt-get update -q
    read -r _ uri suite _ < <(debian_sources | grep -v -e -security -e -updates) ||
        die "apt knows no source of Debian packages"
    say "making a Debian root in ${root#"$REPO"/}"
    rm -rf "$root.new"
    mkdir -p "$(dirname "$root")"
    packages="$*"
    unpack_debootstrap "$root.tools"
    # shellcheck disable=SC2086 # several
    PATH=$root.tools/bin:$root.tools/usr/sbin:$PATH DEBOOTSTRAP_DIR=$root.tools/usr/share/debootstrap \
        debootstrap --variant=minbase ${DEBOOTSTRAP_OPTIONS-} ${packages:+--include="${packages// /,}"} "$suite" "$root.new" "$uri" \
        >"$root.log" 2>&1 || {
        tail -n 5 "$root.log" >&2
        die "no Debian root could be made"
    }
    rm -rf "$root.tools"
    debian_sources >"$root.new/etc/apt/sources.list"
    apt-config dump | grep -iE '^Acquire::(Check-|[a-z]+::Proxy)' >"$root.new/etc/apt/apt.conf.d/90machine" ||
        true
    # Archives are kept, so that what was fetched once is there for the next run.
    rm -f "$root.new/etc/apt/apt.conf.d/docker-clean"
    printf 'APT::Sandbox::User "root";\nAPT::Keep-Downloaded-Packages "true";\n' \
        >"$root.new/etc/apt/apt.conf.d/91root"
    echo force-unsafe-io >"$root.new/etc/dpkg/dpkg.cfg.d/speed"
    echo debian >"$root.new/etc/hostname"
    mv "$root.new" "$root"
}

# in_root DIR COMMAND...: runs it there, in a private mount and process namespace, with the
# machine's network.
in_root() {
    local root=$1
    shift
    cp /etc/resolv.conf /etc/hosts "$root/etc/"
    unshare --mount --pid --ipc --uts --fork --kill-child -- bash -c '
        mount --rbind /dev "$0/dev" && mount -t proc proc "$0/proc" && mount -t tmpfs tmpfs "$0/tmp" &&
        exec chroot "$0" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
            DEBIAN_FRONTEND=noninteractive "$@"' "$root" "$@"
}

# export_sources DIR: the tree as it is, with its version written down.
export_sources() {
    local version
    version=$("$REPO/scripts/version")
    mkdir -p "$1"
    if [[ -e $REPO/.git ]] && (cd "$REPO" && git ls-files -z --cached --others --exclude-standard) >"$1.list"; then
        tar -C "$REPO" --null --ignore-failed-read -T "$1.list" -c | tar -C "$1" -x
    else
        tar -C "$REPO" --exclude=./build --exclude=./dist --exclude=./demo-output -c . | tar -C "$1" -x
    fi
    rm -f "$1.list"
    sed -i "1s/([^)]*)/($version)/" "$1/debian/changelog"
}

# cross_options ARCHITECTURE: those that apt-get build-dep and dpkg-buildpackage need for another one.
cross_options() { [[ $1 == "$(dpkg --print-architecture)" ]] || echo "-a$1" -Pcross,nocheck; }

# install_build_needs ARCHITECTURE [PACKAGE...]: in a root whose package lists have it, what the sources
# in the current folder need to be built for it, and those packages.
install_build_needs() {
    local options
    options=$(cross_options "$1")
    # shellcheck disable=SC2086 # two options or none
    apt-get install -y -q --no-install-recommends ${options:+"crossbuild-essential-$1" "libc6:$1"} "${@:2}"
    # shellcheck disable=SC2086
    apt-get build-dep -y -q --no-install-recommends $options ./
}

# build_packages ARCHITECTURE [OPTION...]: from the sources in the current folder into the one above.
build_packages() {
    umask "${MASK-022}"
    # shellcheck disable=SC2046 # two options or none
    DEB_BUILD_OPTIONS="parallel=${JOBS-$(nproc)} ${DEB_BUILD_OPTIONS-}" \
        dpkg-buildpackage -us -uc $(cross_options "$1") "${@:2}"
}
