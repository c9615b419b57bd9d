#!/usr/bin/env bash
# package_test.sh BUILD_DIR SOURCE_DIR: builds the Debian package from the tests' build, checks it
# with lintian, installs it with dpkg on this machine (root only: CI is), and drives the installed
# program: --version, --bridge-status, the man page against --help, and a first start through D-Bus
# activation (velnora --send-settings with no instance running) in the private desktop session,
# which writes the Chrome host manifest and opens the settings window. Removes the package at the end.
# Exit 77: skipped (not root, or velnora already installed by someone else).
set -uo pipefail

build_dir=$1
source_dir=$2
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

# --- The package -------------------------------------------------------------------------------
cpack -G DEB --config "$build_dir/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; exit 1; }
deb=$(ls "$work"/out/velnora_*.deb 2>/dev/null | head -n 1)
[ -n "$deb" ] || { echo "FAILED: cpack made no .deb" >&2; exit 1; }

dpkg-deb -c "$deb" | awk '{print $6}' | sed 's|^\./|/|' >"$work/contents"
for path in /usr/bin/velnora \
  /usr/share/applications/com.tarnwick.velnora.domestic.desktop \
  /usr/share/icons/hicolor/scalable/apps/velnora.svg \
  /usr/share/icons/hicolor/64x64/apps/velnora.png \
  /usr/share/icons/hicolor/128x128/apps/velnora.png \
  /usr/share/icons/hicolor/256x256/apps/velnora.png \
  /usr/share/velnora/extension/manifest.json \
  /usr/share/velnora/extension/background.js \
  /usr/share/dbus-1/services/com.tarnwick.lumaquill.service \
  /usr/share/man/man1/velnora.1.gz \
  /usr/share/doc/velnora/copyright /usr/share/doc/velnora/changelog.gz /usr/share/doc/velnora/README.md; do
  grep -qxF "$path" "$work/contents" || fail "the package lacks $path"
done
# The extension's own tests stay in the source tree; nothing of the build prefix leaks in.
grep -q '^/usr/share/velnora/extension/test/' "$work/contents" && fail "the package ships the extension's tests"
grep -q '^/usr/local/' "$work/contents" && fail "the package installs under /usr/local"

depends=$(dpkg-deb -f "$deb" Depends)
[[ "$depends" == *libqt6widgets6* && "$depends" == *libsecret-1-0* ]] ||
  fail "Depends lacks the runtime libraries: $depends"
[[ "$depends" == *-dev* ]] && fail "Depends names a development package: $depends"
[ "$(dpkg-deb -f "$deb" Version)" = "$("$build_dir/src/velnora" --version | awk '{print $2}')" ] ||
  fail "package version differs from velnora --version"

# Each PNG is the size its folder says.
dpkg-deb -x "$deb" "$work/tree"
for size in 64 128 256; do
  png="$work/tree/usr/share/icons/hicolor/${size}x${size}/apps/velnora.png"
  [ "$(identify -format '%wx%h' "$png" 2>/dev/null)" = "${size}x${size}" ] || fail "icon $png is not ${size}x${size}"
done
desktop-file-validate "$work/tree/usr/share/applications/com.tarnwick.velnora.domestic.desktop" ||
  fail "desktop-file-validate"

lintian --no-tag-display-limit "$deb" >"$work/lintian.log" 2>&1
if grep -q '^E: ' "$work/lintian.log"; then
  fail "lintian reports errors:"
  grep '^E: ' "$work/lintian.log" >&2
fi
grep '^W: ' "$work/lintian.log" | sed 's/^/lintian: /'

# --- Installed on this machine -----------------------------------------------------------------
if [ "$(id -u)" -ne 0 ]; then
  echo "package_test: not root, the install steps are skipped" >&2
  [ "$failures" -eq 0 ] && exit 77 || exit 1
fi
# Two build folders may run this at once: one install at a time.
exec 9>/tmp/velnora-package-test.lock
flock -w 600 9 || { echo "FAILED: no install lock" >&2; exit 1; }
if dpkg-query -W -f='${Status}' velnora 2>/dev/null | grep -q 'install ok installed'; then
  echo "package_test: velnora is installed on this machine already; leaving it alone" >&2
  [ "$failures" -eq 0 ] && exit 77 || exit 1
fi
installed=1
dpkg -i "$deb" >"$work/install.log" 2>&1 || { cat "$work/install.log" >&2; exit 1; }

# A home of our own, with Chrome's configuration folder so the manifest has somewhere to go.
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_DATA_HOME="$work/home/.local/share"
export XDG_CACHE_HOME="$work/home/.cache" XDG_RUNTIME_DIR="$work/runtime"
unset VELNORA_DATA_DIR XDG_DATA_DIRS
mkdir -p "$XDG_CONFIG_HOME/google-chrome" "$XDG_DATA_HOME" "$XDG_CACHE_HOME"
mkdir -m 700 -p "$XDG_RUNTIME_DIR"

[ "$(/usr/bin/velnora --version)" = "velnora $(dpkg-deb -f "$deb" Version)" ] || fail "installed --version"
status_text=$(/usr/bin/velnora --bridge-status 2>&1)
status=$?
# No browser ever connected here: "not ready" (2), with a sentence for the user.
[ "$status" -eq 2 ] || fail "--bridge-status exited $status: $status_text"
[[ "$status_text" == *未连接* ]] || fail "--bridge-status said: $status_text"

# The man page names every mode --help lists.
MANWIDTH=200 man -l /usr/share/man/man1/velnora.1.gz 2>/dev/null >"$work/man.txt"
for flag in $(/usr/bin/velnora --help | grep -o -- '^ *--[a-z-]*' | tr -d ' '); do
  grep -qF -- "$flag" "$work/man.txt" || fail "the man page does not list $flag"
done

# First start through the installed D-Bus service file: a bus of our own reads it, and passes it
# this environment (DISPLAY from the desktop session, the home above).
if [ -z "${DISPLAY:-}" ]; then
  fail "no DISPLAY: run inside scripts/desktop-session.sh"
  exit 1
fi
bus_info=$(dbus-daemon --session --fork --print-address=1 --print-pid=1) || { fail "dbus-daemon"; exit 1; }
export DBUS_SESSION_BUS_ADDRESS=$(sed -n 1p <<<"$bus_info")
pids+=("$(sed -n 2p <<<"$bus_info")")

send_text=$(timeout 30 /usr/bin/velnora --send-settings 2>&1) || fail "--send-settings: $send_text"
app_pid=$(dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
  org.freedesktop.DBus.GetConnectionUnixProcessID string:com.tarnwick.lumaquill 2>/dev/null |
  awk '/uint32/ {print $2}')
if [ -z "$app_pid" ]; then
  fail "no instance owns com.tarnwick.lumaquill after --send-settings"
else
  pids=("$app_pid" "${pids[@]}")
  [ "$(readlink "/proc/$app_pid/exe")" = /usr/bin/velnora ] || fail "the bus started $(readlink "/proc/$app_pid/exe")"
  window=
  for _ in $(seq 100); do
    window=$(xdotool search --onlyvisible --pid "$app_pid" 2>/dev/null | head -n 1)
    [ -n "$window" ] && break
    sleep 0.1
  done
  [ -n "$window" ] || fail "the first start shows no settings window"
  if [ -n "$window" ] && [ -n "${VELNORA_SHOTS_DIR:-}" ]; then
    mkdir -p "$VELNORA_SHOTS_DIR"
    sleep 1 # the bridge status line fills in after the first paint
    import -window root "$VELNORA_SHOTS_DIR/first-run-settings.png"
  fi
  manifest="$XDG_CONFIG_HOME/google-chrome/NativeMessagingHosts/com.tarnwick.velnora.domestic.json"
  for _ in $(seq 50); do [ -s "$manifest" ] && break; sleep 0.1; done
  if [ -s "$manifest" ]; then
    grep -q '"path": *"/usr/bin/velnora"' "$manifest" || fail "the Chrome manifest points elsewhere: $(cat "$manifest")"
  else
    fail "the installed app wrote no Chrome manifest"
  fi
  # A second start finds the first and opens its settings: still one instance.
  again=$(timeout 20 /usr/bin/velnora 2>&1) || fail "second start: $again"
  [[ "$again" == *已经在运行* ]] || fail "second start said: $again"
fi

[ "$failures" -eq 0 ]
