# Sourced by desktop-session.sh and wayland-session.sh: what both private sessions share. Defines
# session_root (a throwaway folder), pids (stopped by PID in reverse order when the script exits),
# fail, and a private home with the XDG folders under session_root. $1 names the session in messages
# and in the folder's name.
session_name=$1
session_root=$(mktemp -d "${TMPDIR:-/tmp}/velnora-$session_name.XXXXXX")
pids=()

cleanup() {
  local pid
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
    kill -TERM "${pids[i]}" 2>/dev/null
  done
  for pid in "${pids[@]}"; do
    for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.02; done
    kill -KILL "$pid" 2>/dev/null
  done
  rm -rf "$session_root"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

fail() { echo "$session_name-session: $*" >&2; exit 1; }

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
