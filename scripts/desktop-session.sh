#!/usr/bin/env bash
# desktop-session.sh CMD...: runs CMD inside a private desktop session made for tests: Xvfb on a free
# display, a private D-Bus session bus, gnome-keyring with an unlocked default collection and the
# AT-SPI accessibility bus, under a throwaway home. Everything started here is stopped by PID when
# CMD ends, whatever its exit status; the script exits with CMD's status.
set -uo pipefail

if [ $# -eq 0 ]; then
  echo "usage: $0 CMD [ARG...]" >&2
  exit 2
fi

session_root=$(mktemp -d "${TMPDIR:-/tmp}/velnora-session.XXXXXX")
pids=()

cleanup() {
  local pid
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    pid=${pids[i]}
    kill -TERM "$pid" 2>/dev/null
  done
  for pid in "${pids[@]}"; do
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.02; done
    kill -KILL "$pid" 2>/dev/null
  done
  rm -rf "$session_root"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

fail() { echo "desktop-session: $*" >&2; exit 1; }

# Every desktop runs with a UTF-8 locale; under plain C the GTK and Tk programs of the tests hand
# Chinese text over as Latin-1.
case "${LC_ALL:-${LC_CTYPE:-${LANG:-}}}" in
  *UTF-8* | *utf8*) ;;
  *) export LANG=C.UTF-8; unset LC_ALL LC_CTYPE ;;
esac
export HOME="$session_root/home"
export XDG_RUNTIME_DIR="$session_root/runtime"
export XDG_CONFIG_HOME="$HOME/.config" XDG_DATA_HOME="$HOME/.local/share"
export XDG_CACHE_HOME="$HOME/.cache" XDG_STATE_HOME="$HOME/.local/state"
mkdir -p "$HOME" "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_CACHE_HOME" "$XDG_STATE_HOME"
mkdir -m 700 -p "$XDG_RUNTIME_DIR"
unset WAYLAND_DISPLAY SESSION_MANAGER

# X server: -displayfd picks a free display number without races.
display_pipe="$session_root/display"
mkfifo "$display_pipe"
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp -noreset 3>"$display_pipe" >"$session_root/xvfb.log" 2>&1 &
pids+=($!)
read -r -t 10 display_number <"$display_pipe" || fail "Xvfb did not start (see $session_root/xvfb.log)"
export DISPLAY=":$display_number"

# Session bus: given explicitly, so nothing autolaunches a stray one.
bus_info=$(dbus-daemon --session --fork --print-address=1 --print-pid=1) || fail "dbus-daemon did not start"
export DBUS_SESSION_BUS_ADDRESS=$(sed -n 1p <<<"$bus_info")
pids+=("$(sed -n 2p <<<"$bus_info")")

# Secret Service with an unlocked default ("login") collection.
keyring_env=$(printf 'velnora-test' | gnome-keyring-daemon --unlock --components=secrets 2>/dev/null) ||
  fail "gnome-keyring-daemon did not start"
keyring_pid=$(sed -n 's/^GNOME_KEYRING_PID=//p' <<<"$keyring_env")
[ -n "$keyring_pid" ] && pids+=("$keyring_pid")
export GNOME_KEYRING_CONTROL=$(sed -n 's/^GNOME_KEYRING_CONTROL=//p' <<<"$keyring_env")

# Accessibility bus, so AT-SPI clients find it at once.
if [ -x /usr/libexec/at-spi-bus-launcher ]; then
  /usr/libexec/at-spi-bus-launcher --launch-immediately >"$session_root/at-spi.log" 2>&1 &
  pids+=($!)
fi

"$@"
status=$?
exit $status
