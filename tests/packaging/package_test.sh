#!/usr/bin/env bash
# package_test.sh BUILD_DIR: the Debian package as Debian would review it (reproducible, lintian,
# AppStream, hardened binary; readme_tests validates its desktop entry in the source tree), installed with
# dpkg into a throwaway root, started from there over /usr in a private mount namespace
# (installed_layout_test.sh), and removed again.
# The machine's own packages are never touched. Exit 77: the run inside the namespace was not possible.
set -uo pipefail

build_dir=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/velnora-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAILED: $*" >&2; failures=$((failures + 1)); }

# Pipelines end in grep without -q: an early exit would fail the whole pipeline under pipefail.

# Two packagings of one build: byte for byte the same.
for run in 1 2; do
  cpack -G DEB --config "$build_dir/CPackConfig.cmake" -B "$work/out$run" >"$work/cpack$run.log" 2>&1 ||
    { cat "$work/cpack$run.log" >&2; exit 1; }
done
deb=$(ls "$work"/out1/velnora_*.deb) || { echo "FAILED: cpack made no .deb" >&2; exit 1; }
cmp "$deb" "$work"/out2/velnora_*.deb || fail "two packagings of one build differ"
[ "$(basename "$deb")" = "velnora_$(dpkg-deb -f "$deb" Version)_$(dpkg --print-architecture).deb" ] ||
  fail "package file name $(basename "$deb")"
# The time stamps are the last commit's, not the build's.
commit_time=$(git -C "$here" log -1 --format=%ct 2>/dev/null)
if [ -n "$commit_time" ] && [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
  newest=$(dpkg-deb --fsys-tarfile "$deb" | tar -t --full-time -v | awk '{print $4" "$5}' | sort | tail -1)
  [ "$(date -u -d "$newest" +%s)" -le "$commit_time" ] || fail "files dated $newest, after the last commit"
fi

dpkg-deb -x "$deb" "$work/tree"
for path in /usr/bin/velnora /usr/share/velnora/extension/manifest.json /usr/share/man/man1/velnora.1.gz \
  /usr/share/man/zh_CN/man1/velnora.1.gz /usr/share/metainfo/com.tarnwick.velnora.domestic.metainfo.xml \
  /usr/share/dbus-1/services/com.tarnwick.lumaquill.service /usr/share/icons/hicolor/scalable/apps/velnora.svg; do
  [ -f "$work/tree$path" ] || fail "the package lacks $path"
done
[ -e "$work/tree/usr/local" ] && fail "the package installs under /usr/local"
for unwanted in test package.json package-lock.json node_modules; do
  [ -e "$work/tree/usr/share/velnora/extension/$unwanted" ] && fail "the package ships the extension's $unwanted"
done
for size in 64 128 256; do
  png="$work/tree/usr/share/icons/hicolor/${size}x${size}/apps/velnora.png"
  [ "$(identify -format '%wx%h' "$png")" = "${size}x${size}" ] || fail "icon $png is not ${size}x${size}"
done
appstreamcli validate --no-net --pedantic "$work/tree/usr/share/metainfo/com.tarnwick.velnora.domestic.metainfo.xml" \
  >"$work/appstream.log" 2>&1 || { cat "$work/appstream.log" >&2; fail "appstreamcli validate"; }
grep -q "<release version=\"$(dpkg-deb -f "$deb" Version)\"" \
  "$work/tree/usr/share/metainfo/com.tarnwick.velnora.domestic.metainfo.xml" || fail "metainfo release version"
# Qt's translations help but are not needed to run.
dpkg-deb -f "$deb" Depends | grep qt6-translations-l10n >/dev/null && fail "qt6-translations-l10n is a Depends"
dpkg-deb -f "$deb" Recommends | grep qt6-translations-l10n >/dev/null || fail "qt6-translations-l10n is not recommended"

binary="$work/tree/usr/bin/velnora"
readelf -d "$binary" | grep 'BIND_NOW' >/dev/null || fail "the binary is not linked with -z now"
readelf -l "$binary" | grep 'GNU_RELRO' >/dev/null || fail "the binary has no RELRO segment"
nm -D "$binary" | grep '__stack_chk_fail' >/dev/null || fail "the binary has no stack protector"
readelf -S "$binary" | grep -E ' \.comment | \.note ' >/dev/null && fail "the binary keeps .comment or .note"

# Lintian cannot see fortification in a program that has nothing to fortify: the compile commands can.
grep -q -- '-D_FORTIFY_SOURCE=2' "$build_dir/compile_commands.json" || fail "not compiled with -D_FORTIFY_SOURCE=2"
lintian -I -E --pedantic --tag-display-limit 0 "$deb" >"$work/lintian.log" 2>&1
grep -E '^[EW]: |hardening|unneeded-section' "$work/lintian.log" >&2 && fail "lintian"

# Installed with dpkg, into a root of its own: the machine's package database never sees it.
root="$work/root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
dpkg_root=(dpkg --root="$root" --log=/dev/null --force-not-root --force-depends)
"${dpkg_root[@]}" -i "$deb" >"$work/install.log" 2>&1 || { cat "$work/install.log" >&2; exit 1; }
[ "$(dpkg-query --root="$root" -W -f='${Status}' velnora)" = "install ok installed" ] || fail "dpkg status after install"

status=0
if [ -n "${DISPLAY:-}" ]; then
  namespace=(unshare -m --propagation private)
  [ "$(id -u)" -eq 0 ] || namespace=(unshare -rm --propagation private)
  "${namespace[@]}" -- "$here/installed_layout_test.sh" "$root" "$work/run"
  status=$?
else
  echo "package_test: no DISPLAY (run inside scripts/desktop-session.sh): the installed app is not started" >&2
  status=77
fi
[ "$status" -eq 0 ] || [ "$status" -eq 77 ] || fail "the installed layout"

"${dpkg_root[@]}" --purge velnora >"$work/purge.log" 2>&1 || { cat "$work/purge.log" >&2; fail "dpkg --purge"; }
left=$(find "$root" -path "$root/var" -prune -o ! -type d -print)
[ -z "$left" ] || fail "left behind after purge: $left"

[ "$failures" -eq 0 ] || exit 1
exit "$status"
