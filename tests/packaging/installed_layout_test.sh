#!/usr/bin/env bash
# installed_layout_test.sh ROOT WORK: run by package_test.sh in a private mount namespace. Lays ROOT/usr
# over /usr (read-only; only this namespace sees it) and uses the app as installed: version, man pages,
# D-Bus activation, first start, window class against the desktop entry, one instance.
# Exit 77: this kernel or user cannot mount the overlay here.
set -uo pipefail

root=$1
work=$2
mkdir -p "$work"
failures=0
pids=()
fail() { echo "FAILED: $*" >&2; failures=$((failures + 1)); }
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
    kill -KILL "$pid" 2>/dev/null
  done
}
trap cleanup EXIT

if ! mount -t overlay overlay -o "lowerdir=$root/usr:/usr" /usr 2>"$work/mount.log"; then
  echo "installed_layout_test: cannot lay the package over /usr here: $(cat "$work/mount.log")" >&2
  exit 77
fi

[ "$(/usr/bin/velnora --version)" = "velnora $(dpkg-query --root="$root" -W -f='${Version}' velnora)" ] ||
  fail "installed --version: $(/usr/bin/velnora --version)"

# Both manual pages name every mode --help lists, each in its own language.
for page in man1 zh_CN/man1; do
  LC_ALL=C.UTF-8 MANWIDTH=200 man -l "/usr/share/man/$page/velnora.1.gz" >"$work/man.txt" 2>"$work/man.err" || fail "man $page"
  [ -s "$work/man.err" ] && fail "man $page warns: $(cat "$work/man.err")"
  for flag in $(/usr/bin/velnora --help | grep -o -- '^ *--[a-z-]*'); do
    grep -qF -- "$flag" "$work/man.txt" || fail "the $page page does not list $flag"
  done
done
LC_ALL=C.UTF-8 MANWIDTH=200 man -l /usr/share/man/man1/velnora.1.gz | grep -P '\p{Han}{8}' >/dev/null &&
  fail "the English page carries Chinese sentences"
[ "$(zcat /usr/share/man/zh_CN/man1/velnora.1.gz | grep -c '^\.SH')" -eq "$(zcat /usr/share/man/man1/velnora.1.gz | grep -c '^\.SH')" ] ||
  fail "the two pages have different sections"

# A home of our own, with Chrome's configuration folder so the host manifest has somewhere to go,
# and a bus of our own that reads the installed service file.
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config" XDG_DATA_HOME="$work/home/.local/share"
export XDG_CACHE_HOME="$work/home/.cache" XDG_RUNTIME_DIR="$work/runtime"
unset VELNORA_DATA_DIR XDG_DATA_DIRS
mkdir -p "$XDG_CONFIG_HOME/google-chrome" "$XDG_DATA_HOME" "$XDG_CACHE_HOME"
mkdir -m 700 -p "$XDG_RUNTIME_DIR"
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
window=
for _ in $(seq 100); do
  window=$(xdotool search --onlyvisible --pid "$app_pid" 2>/dev/null | head -1)
  [ -n "$window" ] && [ -s "$manifest" ] && break
  sleep 0.1
done
[ -n "$window" ] || fail "the first start shows no settings window"
grep -q '"path": *"/usr/bin/velnora"' "$manifest" || fail "the Chrome host manifest: $(cat "$manifest")"

# Docks and window switchers match windows to the menu entry by the window class.
if [ -n "$window" ]; then
  wm_class=$(xprop -id "$window" WM_CLASS | sed -n 's/.*, "\(.*\)"$/\1/p')
  wanted=$(sed -n 's/^StartupWMClass=//p' /usr/share/applications/com.tarnwick.velnora.domestic.desktop)
  [ -n "$wanted" ] && [ "$wm_class" = "$wanted" ] || fail "window class '$wm_class', desktop entry '$wanted'"
fi

# A second start finds the first and opens its settings: still one instance.
again=$(timeout 20 /usr/bin/velnora 2>&1) || fail "second start: $again"
[[ "$again" == *已经在运行* ]] || fail "second start said: $again"

[ "$failures" -eq 0 ]
