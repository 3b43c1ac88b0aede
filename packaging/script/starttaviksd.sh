#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# starttaviksd.sh user_restart|start|stop|backend - restarts, starts or stops the user's client.
#
# The service runs "starttaviksd.sh user_restart" when the installed client version changed while it was
# running. "user_restart" (and "stop") ask the running instance to quit through its command channel
# ("kuvgui quit"), wait until that process has ended and so has let go of its instance tag (up to
# KUV_STOP_TIMEOUT seconds, default 30; after that it is terminated), and then "user_restart" (and
# "start") start the installed bin/kuvgui again. A quit through the command channel is a normal quit,
# so the guard of the old instance ends and the new instance starts its own.
#
# The back end kuv-scand is part of the client: "user_restart" restarts it too (a new version is a new
# binary), "start" starts it, and "backend" only starts it. It is started through its systemd user unit
# when the user manager has that unit, else directly (it goes to the background and restarts itself
# after a crash). Starting it while it runs does nothing (one per user), and it does not start while the
# user's choice to stop it (data/pubcfg/.guiexit) stands: kuvgui removes that marker when it starts.
#
# Log: <install>/log/starttaviksd.log, or ~/.local/state/kuv/log/ in an installation the user does not
# own (the started service's own output goes there too).
set -u

. "$(dirname "$0")/kuvgui_common.sh"

install_dir=$(kuv_install_dir) || exit 1
log=$(kuv_user_log "$install_dir" starttaviksd.log) || log=/dev/null
runtime=$(kuv_runtime_dir) || { kuv_log "$log" "no usable runtime directory"; exit 1; }
timeout=${KUV_STOP_TIMEOUT:-30}

wait_gone() { # pid, seconds
  local i
  for ((i = 0; i < $2 * 10; i++)); do
    kuv_is_service "$1" || return 0
    sleep 0.1
  done
  return 1
}

stop_service() {
  local pid
  pid=$(kuv_tag_pid "$runtime")
  if ! kuv_is_service "$pid"; then
    kuv_log "$log" "no running kuvgui to stop"
    return 0
  fi
  kuv_log "$log" "asking kuvgui pid $pid to quit"
  "${install_dir}bin/kuvgui" quit >>"$log" 2>&1 </dev/null
  if wait_gone "$pid" "$timeout"; then
    kuv_log "$log" "kuvgui pid $pid has quit"
    return 0
  fi
  kuv_log "$log" "kuvgui pid $pid did not quit within ${timeout}s, terminating it"
  kill -TERM "$pid" 2>/dev/null
  wait_gone "$pid" 5 || kill -KILL "$pid" 2>/dev/null
  wait_gone "$pid" 5
}

start_service() {
  local pid
  pid=$(kuv_tag_pid "$runtime")
  if kuv_is_service "$pid"; then
    kuv_log "$log" "kuvgui pid $pid is already running"
    return 0
  fi
  kuv_log "$log" "starting ${install_dir}bin/kuvgui"
  kuv_start_service "$install_dir" "$log"
}

scand_unit="kuv-scand.service"

# Whether the user manager knows the back end's unit (the package installs it; a private tree does not).
backend_unit_usable() {
  command -v systemctl >/dev/null 2>&1 || return 1
  case "$(systemctl --user is-enabled "$scand_unit" 2>/dev/null)" in
    enabled | enabled-runtime | static | indirect | generated | alias | linked | linked-runtime) return 0 ;;
  esac
  return 1
}

backend_pid() {
  local pid exe
  pid=$(head -n 1 "${runtime}kuv-scand.lock" 2>/dev/null)
  case "$pid" in '' | *[!0-9]*) return 0 ;; esac
  exe=$(readlink "/proc/$pid/exe" 2>/dev/null) || return 0
  case "$exe" in */kuv-scand | */kuv-scand" (deleted)") echo "$pid" ;; esac
}

start_backend() {
  kuv_log "$log" "starting the back end kuv-scand"
  kuv_start_backend "$install_dir" "$log"
}

stop_backend() {
  if backend_unit_usable && systemctl --user is-active --quiet "$scand_unit" 2>/dev/null; then
    kuv_log "$log" "stopping $scand_unit"
    systemctl --user stop "$scand_unit" >>"$log" 2>&1
    return 0
  fi
  local pid
  pid=$(backend_pid)
  [ -n "$pid" ] || return 0
  kuv_log "$log" "stopping kuv-scand pid $pid"
  kill -TERM "$pid" 2>/dev/null
  # The lock is free once every process of it has ended; waiting on it is waiting for exactly that.
  if ! flock -w "$timeout" "${runtime}kuv-scand.lock" true 2>/dev/null; then
    kuv_log "$log" "kuv-scand pid $pid did not stop within ${timeout}s, killing it"
    kill -KILL "$pid" 2>/dev/null
    flock -w 5 "${runtime}kuv-scand.lock" true 2>/dev/null
  fi
}

case "${1:-}" in
  user_restart)
    kuv_log "$log" "restart requested (user_restart)"
    stop_backend
    stop_service && start_service
    start_backend
    ;;
  start)
    start_service
    start_backend
    ;;
  stop) stop_service ;;
  backend) start_backend ;;
  *)
    echo "usage: $0 user_restart|start|stop|backend" >&2
    exit 2
    ;;
esac
