#!/usr/bin/env bash
# package_test.sh BUILD_DIR: the Debian package built, linted and, as root (CI is), installed and
# started through D-Bus activation in the private desktop session, then purged.
# Exit 77: skipped (not root, or velnora already installed by someone else).
set -uo pipefail

build_dir=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/velnora-package.XXXXXX")
failures=0
pids=()
installed=0

cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
    kill -KILL "$pid" 2>/dev/null
  done
  if [ "$installed" = 1 ]; then
    dpkg --purge velnora >"$work/purge.log" 2>&1 || cat "$work/purge.log" >&2
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "FAILED: $*" >&2; failures=$((failures + 1)); }
done_or_skip() { [ "$failures" -eq 0 ] && exit 77 || exit 1; }

cpack -G DEB --config "$build_dir/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; exit 1; }
deb=$(ls "$work"/out/velnora_*.deb) || { echo "FAILED: cpack made no .deb" >&2; exit 1; }

dpkg-deb -x "$deb" "$work/tree"
for path in /usr/bin/velnora /usr/share/velnora/extension/manifest.json /usr/share/man/man1/velnora.1.gz \
  /usr/share/dbus-1/services/com.tarnwick.lumaquill.service /usr/share/icons/hicolor/scalable/apps/velnora.svg; do
  [ -f "$work/tree$path" ] || fail "the package lacks $path"
done
[ -e "$work/tree/usr/local" ] && fail "the package installs under /usr/local"
[ -e "$work/tree/usr/share/velnora/extension/test" ] && fail "the package ships the extension's tests"
for size in 64 128 256; do
  png="$work/tree/usr/share/icons/hicolor/${size}x${size}/apps/velnora.png"
  [ "$(identify -format '%wx%h' "$png")" = "${size}x${size}" ] || fail "icon $png is not ${size}x${size}"
done
desktop-file-validate "$work/tree/usr/share/applications/com.tarnwick.velnora.domestic.desktop" ||
  fail "desktop-file-validate"
lintian --no-tag-display-limit "$deb" >"$work/lintian.log" 2>&1
grep '^E: ' "$work/lintian.log" >&2 && fail "lintian reports errors"

[ "$(id -u)" -eq 0 ] || { echo "package_test: not root, the install steps are skipped" >&2; done_or_skip; }
# Two build folders may run this at once: one install at a time.
exec 9>/tmp/velnora-package-test.lock
flock -w 600 9 || { echo "FAILED: no install lock" >&2; exit 1; }
if dpkg-query -W -f='${Status}' velnora 2>/dev/null | grep -q 'install ok installed'; then
  echo "package_test: velnora is installed on this machine already; leaving it alone" >&2
  done_or_skip
fi
installed=1
dpkg -i "$deb" >"$work/install.log" 2>&1 || { cat "$work/install.log" >&2; exit 1; }
[ "$(/usr/bin/velnora --version)" = "velnora $(dpkg-deb -f "$deb" Version)" ] || fail "installed --version"

MANWIDTH=200 man -l /usr/share/man/man1/velnora.1.gz >"$work/man.txt" 2>/dev/null
for flag in $(/usr/bin/velnora --help | grep -o -- '^ *--[a-z-]*'); do
  grep -qF -- "$flag" "$work/man.txt" || fail "the man page does not list $flag"
done

# A home of our own, with Chrome's configuration folder so the host manifest has somewhere to go,
# and a bus of our own that reads the installed service file.
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_DATA_HOME="$work/home/.local/share"
export XDG_CACHE_HOME="$work/home/.cache" XDG_RUNTIME_DIR="$work/runtime"
unset VELNORA_DATA_DIR XDG_DATA_DIRS
mkdir -p "$XDG_CONFIG_HOME/google-chrome" "$XDG_DATA_HOME" "$XDG_CACHE_HOME"
mkdir -m 700 -p "$XDG_RUNTIME_DIR"
[ -n "${DISPLAY:-}" ] || { echo "FAILED: no DISPLAY: run inside scripts/desktop-session.sh" >&2; exit 1; }
bus_info=$(dbus-daemon --session --fork --print-address=1 --print-pid=1) || { echo "FAILED: dbus-daemon" >&2; exit 1; }
export DBUS_SESSION_BUS_ADDRESS=$(sed -n 1p <<<"$bus_info")
pids+=("$(sed -n 2p <<<"$bus_info")")

send_text=$(timeout 30 /usr/bin/velnora --send-settings 2>&1) || fail "--send-settings: $send_text"
app_pid=$(dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
  org.freedesktop.DBus.GetConnectionUnixProcessID string:com.tarnwick.lumaquill | awk '/uint32/ {print $2}')
[ -n "$app_pid" ] || { fail "no instance owns com.tarnwick.lumaquill after --send-settings"; exit 1; }
pids=("$app_pid" "${pids[@]}")
[ "$(readlink "/proc/$app_pid/exe")" = /usr/bin/velnora ] || fail "the bus started $(readlink "/proc/$app_pid/exe")"
manifest="$XDG_CONFIG_HOME/google-chrome/NativeMessagingHosts/com.tarnwick.velnora.domestic.json"
for _ in $(seq 100); do
  xdotool search --onlyvisible --pid "$app_pid" >/dev/null && [ -s "$manifest" ] && break
  sleep 0.1
done
xdotool search --onlyvisible --pid "$app_pid" >/dev/null || fail "the first start shows no settings window"
grep -q '"path": *"/usr/bin/velnora"' "$manifest" || fail "the Chrome host manifest: $(cat "$manifest")"
# A second start finds the first and opens its settings: still one instance.
again=$(timeout 20 /usr/bin/velnora 2>&1) || fail "second start: $again"
[[ "$again" == *已经在运行* ]] || fail "second start said: $again"

[ "$failures" -eq 0 ]
