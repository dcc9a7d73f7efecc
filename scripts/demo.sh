#!/usr/bin/env bash
# The demo: one of the three demo dialogs in the host, on a throwaway
# SoftHSM2 token with a few certificates and keys.
#
#     bash scripts/demo.sh               # PIN entry
#     bash scripts/demo.sh certificate   # certificate choice
#     bash scripts/demo.sh admin         # token administration, then PIN entry with the new PIN
#
# Installs what is missing, builds, creates the token, opens the dialog and
# prints the result file when the window closes: its last line is the
# result.  Without a display it runs under Xvfb, drives the dialog by
# keyboard itself and leaves screenshots in build/demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD

user_pin=123456
new_pin=654321
wrong_pin=000000
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

# The host's command line for dialog NAME (pin, certificate, admin) in the
# array host_command; its result file is $work/NAME.result, its plug-in log
# $work/NAME.log.  The caller hands the token's serial over as the key: the
# dialog is for that token.  An empty -useragent asks for the composed one.
command_for() {
  local name=$1 width=420 height=400
  case $name in
    certificate) width=520 height=560 ;;
    admin) width=440 height=600 ;;
  esac
  local page="$repo/examples/dialog/$name.html"
  host_command=(
    "$repo/$build/bin/kavori-host"
    -url "file://${page// /%20}"
    -root "$repo/$build/examples/demo"
    -title "Kavori Demo"
    -size $(((width << 16) | (height + 30)))
    -center
    -key "$serial"
    -store "$work/$name.result"
    -useragent
  )
}

# Shows dialog NAME and, without a display, drives it by keyboard in Xvfb.
run_dialog() {
  local name=$1
  command_for "$name"
  export KAVORI_DEMO_LOG="$work/$name.log"
  rm -f "$work/$name.result"
  if [ -n "${DISPLAY:-}" ] && [ -z "${KAVORI_DEMO_DRIVE:-}" ]; then
    "${host_command[@]}" || true
  else
    drive "$name"
  fi
}

# The headless part: the host on the Xvfb that this script runs in, keys
# typed with xdotool, screenshots of the window.
drive() {
  local name=$1 ready="GetProperty Token:PinState"
  [ "$name" = certificate ] && ready="certificate(s) listed"
  "${host_command[@]}" &
  host=$!
  window=""
  find_window() { window=$(xdotool search --onlyvisible --pid "$host" 2>/dev/null | head -n1); [ -n "$window" ]; }
  page_ready() { grep -q "$ready" "$KAVORI_DEMO_LOG" 2>/dev/null; }
  if ! wait_for 300 find_window || ! wait_for 300 page_ready; then
    echo "The dialog did not come up; the plug-in's log:" >&2
    cat "$KAVORI_DEMO_LOG" >&2 || true
    kill "$host" 2>/dev/null || true
    exit 1
  fi
  xdotool windowfocus --sync "$window"
  case $name in
    pin)
      if [ "$(pin_now)" = "$user_pin" ]; then
        shoot pin-dialog.png
        keys "Typing a wrong PIN ($wrong_pin) and Enter" "$wrong_pin" Return
        wait_for 100 grep -q "Login on slot" "$KAVORI_DEMO_LOG" || true
        shoot pin-dialog-wrong-pin.png
      fi
      keys "Typing the user PIN ($(pin_now)) and Enter" "$(pin_now)" Return
      ;;
    certificate)
      shoot certificate-dialog.png
      keys "Down to the second certificate" Down
      shoot certificate-dialog-second.png
      keys "Enter chooses it" Return
      ;;
    admin)
      shoot admin-dialog.png
      keys "Typing the current PIN ($user_pin), Tab, the new PIN ($new_pin) twice and Enter" \
        "$user_pin" Tab "$new_pin" Tab "$new_pin" Return
      wait_for 100 grep -q "ChangePin on slot" "$KAVORI_DEMO_LOG" || true
      shoot admin-dialog-changed.png
      keys "Enter closes the dialog" Return
      ;;
  esac
  if ! wait_for 300 bash -c "! kill -0 $host 2>/dev/null"; then
    echo "The host did not end; stopping it." >&2
    kill "$host" 2>/dev/null || true
  fi
  wait "$host" || true
}

# keys WHAT KEY...: says WHAT, then presses the named keys and types the rest.
keys() {
  say "$1"
  shift
  for key in "$@"; do
    case $key in
      Return | Up | Down | Tab) xdotool key "$key" ;;
      *) xdotool type --delay 40 "$key" ;;
    esac
  done
}

shoot() {
  sleep 1
  eval "$(xdotool getwindowgeometry --shell "$window")"
  import -window root -crop "${WIDTH}x${HEIGHT}+${X}+${Y}" +repage "$shots/$1"
  echo "    screenshot: $shots/$1"
}

# The user PIN as the token has it now: changed once the admin dialog has
# changed it.
pin_now() {
  if grep -q "ChangePin on slot .*: CKR_OK" "$work/admin.log" 2>/dev/null; then echo "$new_pin"; else echo "$user_pin"; fi
}

show_result() {
  say "The window closed. Result file $work/$1.result:"
  if [ -f "$work/$1.result" ]; then
    cat "$work/$1.result"
    echo
  else
    echo "(none written)"
  fi
}

# Every dialog of the mode in turn, each followed by its result.
run_mode() {
  case $1 in
    pin)
      [ -n "${KAVORI_DEMO_DRIVE:-}" ] || say "Opening the PIN dialog: type $user_pin and press Enter (Esc cancels)"
      run_dialog pin
      show_result pin
      ;;
    certificate)
      [ -n "${KAVORI_DEMO_DRIVE:-}" ] || say "Opening the certificate dialog: choose one with the arrows and Enter"
      run_dialog certificate
      show_result certificate
      ;;
    admin)
      [ -n "${KAVORI_DEMO_DRIVE:-}" ] || say "Opening the administration dialog: change the PIN (now $user_pin)"
      run_dialog admin
      show_result admin
      say "Opening the PIN dialog: log in with the PIN the token has now ($(pin_now))"
      run_dialog pin
      show_result pin
      ;;
  esac
}

# Run again by this script inside xvfb-run, with what it set up in the environment.
if [ "${1:-}" = "--in-xvfb" ]; then
  run_mode "$2"
  exit 0
fi

mode=${1:-pin}
case $mode in
  pin | certificate | admin) ;;
  *)
    echo "usage: bash scripts/demo.sh [pin|certificate|admin]" >&2
    exit 2
    ;;
esac

bash scripts/setup.sh

say "Building"
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$jobs" --target kavori-host kavori-web-extension kavori-demo-plugin

work=$(mktemp -d "${TMPDIR:-/tmp}/kavori-demo.XXXXXX")
trap 'rm -rf "$work"' EXIT

say "Creating a throwaway SoftHSM2 token with certificates (CKA_ID, label)"
bash scripts/demo-token.sh "$work/token" | sed 's/^/    /'
export SOFTHSM2_CONF="$work/token/softhsm2.conf"
serial=$(softhsm2-util --show-slots | awk '/Serial number:/ && NF > 2 { print $3; exit }')
echo "    label:    Kavori Demo"
echo "    serial:   $serial"
echo "    user PIN: $user_pin"
echo "    SO PIN:   12345678"
echo "    (in $work/token, removed when the demo ends)"

if [ -n "${DISPLAY:-}" ]; then
  run_mode "$mode"
else
  say "No display: running the dialog under Xvfb, screenshots in $shots/"
  mkdir -p "$shots"
  export work serial shots KAVORI_DEMO_DRIVE=1
  xvfb-run -a -s "-screen 0 1280x1024x24" bash "$repo/scripts/demo.sh" --in-xvfb "$mode"
fi
