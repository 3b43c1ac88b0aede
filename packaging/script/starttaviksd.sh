#!/usr/bin/env bash
# starttaviksd.sh user_restart|start|stop - restarts, starts or stops the user's GUI service.
#
# The service runs "starttaviksd.sh user_restart" when the installed client version changed while it was
# running. "user_restart" (and "stop") ask the running instance to quit through its command channel
# ("kuvgui quit"), wait until that process has ended and so has let go of its instance tag (up to
# KUV_STOP_TIMEOUT seconds, default 30; after that it is terminated), and then "user_restart" (and
# "start") start the installed bin/kuvgui again. A quit through the command channel is a normal quit,
# so the guard of the old instance ends and the new instance starts its own.
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

case "${1:-}" in
  user_restart)
    kuv_log "$log" "restart requested (user_restart)"
    stop_service && start_service
    ;;
  start) start_service ;;
  stop) stop_service ;;
  *)
    echo "usage: $0 user_restart|start|stop" >&2
    exit 2
    ;;
esac
