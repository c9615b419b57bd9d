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

source "$(dirname "$0")/session-common.sh" desktop

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
