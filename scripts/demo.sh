#!/usr/bin/env bash
# The demo: the PIN dialog in the host, on a throwaway SoftHSM2 token.
# Installs what is missing, builds, creates the token, opens the dialog and
# prints the result file when the window closes.  Without a display it runs
# under Xvfb, types the PINs itself and leaves screenshots of the dialog.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

label="Kavori Demo"
user_pin=123456
so_pin=12345678
wrong_pin=000000
width=420
height=400
build="${KAVORI_BUILD_DIR:-build}"  # another build tree, if wanted
shots="$repo/$build/demo"

say() { printf '\033[1m==> %s\033[0m\n' "$*"; }

# Waits up to $1 tenths of a second for the command after it to succeed.
wait_for() {
  local tenths=$1
  shift
  for ((i = 0; i < tenths; i++)); do
    if "$@"; then return 0; fi
    sleep 0.1
  done
  return 1
}

# The headless part, run again by this script inside xvfb-run with the
# host's command line in the environment.
if [ "${1:-}" = "--in-xvfb" ]; then
  mapfile -d '' -t host_command < "$KAVORI_DEMO_COMMAND"
  "${host_command[@]}" &
  host=$!
  window=""
  find_window() { window=$(xdotool search --onlyvisible --pid "$host" 2>/dev/null | head -n1); [ -n "$window" ]; }
  # The page reads the PIN state last when it starts: then it is drawn.
  page_ready() { grep -q "GetProperty Token:PinState" "$KAVORI_DEMO_LOG" 2>/dev/null; }
  shoot() {
    sleep 1
    eval "$(xdotool getwindowgeometry --shell "$window")"
    import -window root -crop "${WIDTH}x${HEIGHT}+${X}+${Y}" +repage "$1"
    echo "    screenshot: $1"
  }
  if ! wait_for 300 find_window || ! wait_for 300 page_ready; then
    echo "The dialog did not come up; the plug-in's log:" >&2
    cat "$KAVORI_DEMO_LOG" >&2 || true
    kill "$host" 2>/dev/null || true
    exit 1
  fi
  xdotool windowfocus --sync "$window"
  shoot "$shots/pin-dialog.png"
  say "Typing a wrong PIN ($wrong_pin) and Enter"
  xdotool type --delay 40 "$wrong_pin"
  xdotool key Return
  wait_for 100 grep -q "Login on slot" "$KAVORI_DEMO_LOG" || true
  shoot "$shots/pin-dialog-wrong-pin.png"
  say "Typing the user PIN ($user_pin) and Enter"
  xdotool type --delay 40 "$user_pin"
  xdotool key Return
  if ! wait_for 300 bash -c "! kill -0 $host 2>/dev/null"; then
    echo "The host did not end; stopping it." >&2
    kill "$host" 2>/dev/null || true
  fi
  wait "$host" || true
  exit 0
fi

bash scripts/setup.sh

say "Building"
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs" --target kavori-host kavori-web-extension kavori-demo-plugin

work=$(mktemp -d "${TMPDIR:-/tmp}/kavori-demo.XXXXXX")
trap 'rm -rf "$work"' EXIT

say "Creating a throwaway SoftHSM2 token"
export SOFTHSM2_CONF="$work/softhsm2.conf"
mkdir "$work/tokens"
cat > "$SOFTHSM2_CONF" <<EOF
directories.tokendir = $work/tokens
objectstore.backend = file
log.level = ERROR
EOF
softhsm2-util --init-token --free --label "$label" --pin "$user_pin" --so-pin "$so_pin" >/dev/null
serial=$(softhsm2-util --show-slots | awk '/Serial number:/ && NF > 2 { print $3; exit }')
echo "    label:    $label"
echo "    serial:   $serial"
echo "    user PIN: $user_pin"
echo "    SO PIN:   $so_pin"
echo "    (in $work/tokens, removed when the demo ends)"

# The caller hands the token's serial over as the key: the dialog is for
# that token.  An empty -useragent asks for the composed user agent.
page="$repo/examples/dialog/pin.html"
host_command=(
  "$repo/$build/bin/kavori-host"
  -url "file://${page// /%20}"
  -root "$repo/$build/examples/demo"
  -title "Kavori Demo"
  -size $(((width << 16) | (height + 30)))
  -center
  -key "$serial"
  -store "$work/result.txt"
  -useragent
)
export KAVORI_DEMO_LOG="$work/plugin.log"

if [ -n "${DISPLAY:-}" ]; then
  say "Opening the PIN dialog: type $user_pin and press Enter (Esc cancels)"
  "${host_command[@]}" || true
else
  say "No display: running the dialog under Xvfb"
  mkdir -p "$shots"
  export KAVORI_DEMO_COMMAND="$work/command"
  printf '%s\0' "${host_command[@]}" > "$KAVORI_DEMO_COMMAND"
  export user_pin wrong_pin shots
  xvfb-run -a -s "-screen 0 1280x1024x24" bash "$repo/scripts/demo.sh" --in-xvfb
  echo "    Screenshots of the dialog are in $shots/"
fi

say "The window closed. Result file $work/result.txt:"
if [ -f "$work/result.txt" ]; then
  cat "$work/result.txt"
  echo
else
  echo "(none written)"
fi
