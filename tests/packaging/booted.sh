#!/usr/bin/env bash
# booted.sh SOURCE BUILD [DEB]: tests the package in a separate Debian 12 that systemd has booted, where
# tests/packaging/booted/trial does the work. Without DEB the package is made of the programs in BUILD. The bare Debian
# is fetched once and kept in BUILD; the trial writes into memory.
set -euo pipefail
source=$1 build=$2 package=${3:-}
fail() { printf 'FAILED: %s\n' "$*"; exit 1; }
skip() { # where each change is tested, nobody would notice a skipped test
    [ "${CI:-}" != true ] || fail "$*"
    printf 'skipped: %s\n' "$*"
    exit 77
}
[ "$(id -u)" -eq 0 ] || skip 'only root can boot a tree'
for program in systemd-nspawn mmdebstrap dh; do
    command -v "$program" >/dev/null || skip "$program is missing (packages systemd-container, mmdebstrap, debhelper)"
done
grep -qx 'VERSION_CODENAME=bookworm' /etc/os-release || skip 'programs that were built on another system do not run in Debian 12'
work=$(mktemp -d)
trap 'rm -rf --one-file-system "$work"' EXIT

# fetch_tree: with what the package needs. The package's own service may not start there.
fetch_tree() {
    local mirror
    mirror=$(apt-get indextargets --format "\$(SITE)" 'Codename: bookworm' 'Created-By: Packages' | head -n 1)
    rm -rf --one-file-system "$build/debian.new"
    mmdebstrap --variant=minbase --dpkgopt=force-unsafe-io --include=systemd-sysv,python3,libedit2,libmicrohttpd12 \
        bookworm "$build/debian.new" ${mirror:+"$mirror"} >"$work/log" 2>&1 || { tail "$work/log" && return 1; }
    mv "$build/debian.new" "$build/debian"
}

# make_package: uses the programs that are built already, so only debian/rules and what it installs are tested. Steps
# that take long and change no installed file are left to scripts/package.
make_package() {
    mkdir "$work/sched"
    tar -C "$source" --exclude='./build*' --exclude=./.git -c . | tar -C "$work/sched" -x
    cd "$work/sched"
    cat >>debian/rules <<END

override_dh_auto_configure:
	dh_auto_configure -- -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON
override_dh_auto_build:
	for program in sched schedcheck schedctl schedctl-exporter schedpasswd; do strip -o "\$\$(echo obj-*)/\$\$program" $build/\$\$program; done
override_dh_builddeb:
	dh_builddeb -- -Znone
override_dh_auto_test override_dh_dwz override_dh_strip override_dh_autoreconf override_dh_strip_nondeterminism override_dh_shlibdeps override_dh_md5sums:
END
    touch "$work/made"
    env -u MAKEFLAGS -u CMAKE_GENERATOR DEB_BUILD_OPTIONS=nostrip debian/rules binary >"$work/log" 2>&1 || { tail "$work/log" && return 1; }
    cd "$work"
}

# older NAME: the package with a lower version, and a configuration file that has changed since.
older() {
    dpkg-deb --raw-extract "$work/new.deb" "$work/old"
    sed -i 's/^Version: .*/Version: 0.1/' "$work/old/DEBIAN/control"
    echo '# of the older version' >>"$work/old/etc/sched/timer_jobs"
    dpkg-deb --build -Znone "$work/old" "$work/old.deb" >"$work/log"
}

[ -d "$build/debian" ] || fetch_tree || skip 'the bare Debian cannot be fetched'
[ -n "$package" ] || make_package || fail 'the package cannot be made'
cp "${package:-$(echo "$work"/sched_*.deb)}" "$work/new.deb"
older
cp "$source"/tests/packaging/booted/* "$source/debian/tests/smoke" "$work"
cat >"$work/trial.service" <<'END'
[Unit]
After=multi-user.target
[Service]
Type=oneshot
StandardOutput=file:/srv/said
StandardError=inherit
ExecStart=/srv/trial
ExecStopPost=/bin/systemctl --no-block exit
END
# systemd's generators take most of the time of each reload, and the package needs none of them. The one that is kept
# reads systemd.wants.
mkdir "$work/generators"
cp "$build/debian/usr/lib/systemd/system-generators/systemd-debug-generator" "$work/generators" ||
    fail "the tree has no systemd-debug-generator"
# Only the unit of the trial is added, by a mount: the tree itself is read-only.
timeout 600 systemd-nspawn --quiet --directory="$build/debian" --volatile=overlay --register=no --keep-unit \
    --private-network --capability=CAP_SYS_RAWIO --console=pipe --bind="$work:/srv" --bind-ro="$work/generators:/usr/lib/systemd/system-generators" \
    --bind-ro="$work/trial.service:/etc/systemd/system/trial.service" \
    --boot systemd.wants=trial.service </dev/null >"$work/console" 2>&1 || true
cat "$work/said" 2>/dev/null || { tail -n 20 "$work/console"; skip 'a tree cannot be booted here'; }
grep -qx 'the trial has ended well' "$work/said" || fail 'the trial in the booted tree'
