#!/usr/bin/env bash
# Inside a headless KDE Wayland session (scripts/wayland-session.sh): the app binds its hot key through
# the GlobalShortcuts portal, KGlobalAccel fires it without a keyboard, and the text selected in an
# XWayland window lands in the browser-mode queue.
# wayland_hotkey_test.sh VELNORA
set -uo pipefail
velnora=$1
fail() { echo "FAIL: $*" >&2; tail -20 "$work/app.log" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/velnora-wayland-test.XXXXXX")
app_pid=
clip_pid=
cleanup() {
  for pid in $app_pid $clip_pid; do kill -TERM "$pid" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT

export VELNORA_DATA_DIR="$work/data" QT_QPA_PLATFORM=xcb
"$velnora" >"$work/app.log" 2>&1 &
app_pid=$!

# The portal names the KGlobalAccel component after our session; find the one that holds our id.
component=
for _ in $(seq 150); do
  for path in $(gdbus call --session --dest org.kde.kglobalaccel --object-path /kglobalaccel \
    --method org.kde.KGlobalAccel.allComponents 2>/dev/null | grep -o "/component/[A-Za-z0-9_]*"); do
    if gdbus call --session --dest org.kde.kglobalaccel --object-path "$path" \
      --method org.kde.kglobalaccel.Component.shortcutNames 2>/dev/null | grep -q "'explain-selection'"; then
      component=$path
    fi
  done
  [ -n "$component" ] && break
  kill -0 "$app_pid" 2>/dev/null || fail "the app ended before binding its hot key"
  sleep 0.1
done
[ -n "$component" ] || fail "no KGlobalAccel component holds explain-selection after 15 s"
echo "bound through the portal: $component"
text="Wayland 会话里选中的文字 $$"
printf "%s" "$text" | xclip -selection primary -loops 0 2>/dev/null &
clip_pid=$!
for _ in $(seq 50); do
  [ "$(xclip -o -selection primary 2>/dev/null)" = "$text" ] && break
  sleep 0.05
done

gdbus call --session --dest org.kde.kglobalaccel --object-path "$component" \
  --method org.kde.kglobalaccel.Component.invokeShortcut explain-selection >/dev/null ||
  fail "KGlobalAccel refused to invoke the shortcut"

for _ in $(seq 100); do
  if grep -rqsF "$text" "$VELNORA_DATA_DIR"; then
    echo "the selection reached the queue: $(grep -rlF "$text" "$VELNORA_DATA_DIR")"
    echo "1 passed, 0 failed"
    exit 0
  fi
  sleep 0.1
done
fail "no request with the selected text in $VELNORA_DATA_DIR after 10 s"
