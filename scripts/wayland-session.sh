#!/usr/bin/env bash
# wayland-session.sh CMD...: runs CMD inside a private headless KDE Wayland session made for tests:
# kwin_wayland on its virtual backend with XWayland, a private D-Bus session bus without service
# activation, xdg-desktop-portal with its KDE backend, under a throwaway home. CMD sees WAYLAND_DISPLAY,
# DISPLAY (XWayland) and XDG_CURRENT_DESKTOP=KDE. Everything started here is stopped by PID when CMD
# ends; the script exits with CMD's status, or 77 when a program the session needs is missing.
set -uo pipefail

if [ $# -eq 0 ]; then
  echo "usage: $0 CMD [ARG...]" >&2
  exit 2
fi

portal_kde=$(dpkg -L xdg-desktop-portal-kde 2>/dev/null | grep '/libexec/xdg-desktop-portal-kde$' | head -1)
for program in /usr/bin/kwin_wayland /usr/bin/Xwayland /usr/libexec/xdg-desktop-portal \
  "${portal_kde:-xdg-desktop-portal-kde}" dbus-daemon gdbus; do
  if ! command -v "$program" >/dev/null; then
    echo "wayland-session: $program is missing (scripts/install-deps.sh test installs it)" >&2
    exit 77
  fi
done

source "$(dirname "$0")/session-common.sh" wayland
mkdir -p "$session_root/bin"
unset DISPLAY
export XDG_CURRENT_DESKTOP=KDE XDG_SESSION_TYPE=wayland KDE_FULL_SESSION=true

# The KDE portal tries to open System Settings; nothing here should start.
printf '#!/bin/sh\nexit 0\n' >"$session_root/bin/xdg-open"
chmod +x "$session_root/bin/xdg-open"
export PATH="$session_root/bin:$PATH"

# A bus that activates nothing: the document portal would otherwise mount a filesystem here.
cat >"$session_root/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=$session_root</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
CONF
bus_info=$(dbus-daemon --config-file="$session_root/bus.conf" --fork --print-address=1 --print-pid=1) ||
  fail "dbus-daemon did not start"
export DBUS_SESSION_BUS_ADDRESS=$(sed -n 1p <<<"$bus_info")
pids+=("$(sed -n 2p <<<"$bus_info")")

# The installed binary carries a file capability a container cannot grant; a plain copy runs. It keeps
# its name: KWin loads its own Qt platform plugin only into a binary called so.
mkdir -p "$session_root/kwin"
cp /usr/bin/kwin_wayland "$session_root/kwin/kwin_wayland"
socket=velnora-wayland-$$
ready="$session_root/xwayland-display"
# KWin hands its XWayland DISPLAY only to the session command, which reports it and waits.
"$session_root/kwin/kwin_wayland" --virtual --xwayland --no-lockscreen --no-kactivities \
  --socket "$socket" --width 1280 --height 1024 \
  --exit-with-session "sh -c 'echo \$DISPLAY > $ready; exec sleep 3600'" \
  >"$session_root/kwin.log" 2>&1 &
pids+=($!)
for _ in $(seq 300); do [ -s "$ready" ] && break; sleep 0.05; done
[ -s "$ready" ] || { cat "$session_root/kwin.log" >&2; fail "kwin_wayland did not start XWayland in 15 s"; }
export WAYLAND_DISPLAY=$socket
export DISPLAY=$(cat "$ready")

"$portal_kde" >"$session_root/portal-kde.log" 2>&1 &
pids+=($!)
for _ in $(seq 200); do
  gdbus call --session --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method org.freedesktop.DBus.NameHasOwner org.freedesktop.impl.portal.desktop.kde 2>/dev/null |
    grep -q true && break
  sleep 0.05
done
/usr/libexec/xdg-desktop-portal --replace >"$session_root/portal.log" 2>&1 &
pids+=($!)
for _ in $(seq 200); do
  gdbus introspect --session --dest org.freedesktop.portal.Desktop \
    --object-path /org/freedesktop/portal/desktop 2>/dev/null | grep -q GlobalShortcuts && break
  sleep 0.05
done

export VELNORA_WAYLAND_SESSION_LOGS=$session_root
"$@"
status=$?
exit $status
