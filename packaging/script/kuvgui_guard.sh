#!/usr/bin/env bash
# kuvgui_guard.sh 1 - keeps the user's GUI service running.
#
# The service starts this script with the argument "1" at the end of every successful start. The guard
# watches the instance that holds the instance tag and starts the installed bin/kuvgui again when that
# process died without quitting: it was killed or crashed, so its published attributes (the .attr file of
# the tag, with its pid) are still there. A service that quits normally removes them before it ends, and
# then the guard ends too: a quit chosen by the user (or asked for by "kuvgui quit") is never undone.
#
# One guard per user: it holds an flock() on <runtime>/kuvgui_guard.lock for its whole life. A guard
# started while another one runs waits a little (the other may be about to end after a normal quit and
# restart) and then leaves it to that one.
#
# A crash loop is cut short: after KUV_GUARD_MAX_RESTARTS restarts (default 5) within
# KUV_GUARD_WINDOW seconds (default 300) the guard gives up and says so in its log.
#
# Log: <install>/log/kuvgui_guard.log (the restarted service's own output goes there too).
set -u

. "$(dirname "$0")/kuvgui_common.sh"

if [ "${1:-}" != "1" ]; then
  echo "usage: $0 1" >&2
  exit 2
fi

install_dir=$(kuv_install_dir) || exit 1
guard_log="${install_dir}log/kuvgui_guard.log"
runtime=$(kuv_runtime_dir) || { kuv_log "$guard_log" "no usable runtime directory, guard not started"; exit 1; }

interval=${KUV_GUARD_INTERVAL:-1}
max_restarts=${KUV_GUARD_MAX_RESTARTS:-5}
window=${KUV_GUARD_WINDOW:-300}

exec 9>"${runtime}kuvgui_guard.lock" || exit 1
if ! flock -w "${KUV_GUARD_TAKEOVER_WAIT:-10}" 9; then
  # Another guard watches this user's service.
  exit 0
fi

# The instance to watch: the tag holder's pid, once it is published (the service publishes it first thing).
wait_for_instance() { # previous pid or ""; prints the new pid
  local i pid
  for ((i = 0; i < 30 * 10; i++)); do
    pid=$(kuv_tag_pid "$runtime")
    if [ -n "$pid" ] && [ "$pid" != "$1" ] && kuv_is_service "$pid"; then
      echo "$pid"
      return 0
    fi
    sleep 0.1
  done
  return 1
}

restarts=()
pid=$(wait_for_instance "") || { kuv_log "$guard_log" "no running instance to guard"; exit 0; }
kuv_log "$guard_log" "guarding kuvgui pid $pid"

while :; do
  while kuv_is_service "$pid"; do
    sleep "$interval"
  done
  left=$(kuv_tag_pid "$runtime")
  if [ "$left" != "$pid" ]; then
    # Attributes gone: the service quit normally. Attributes of another pid: someone else started a new
    # instance, and that instance starts its own guard.
    kuv_log "$guard_log" "kuvgui pid $pid quit normally, guard ends"
    exit 0
  fi

  now=$(date +%s)
  recent=()
  for t in "${restarts[@]+"${restarts[@]}"}"; do
    if ((now - t < window)); then recent+=("$t"); fi
  done
  restarts=("${recent[@]+"${recent[@]}"}")
  if ((${#restarts[@]} >= max_restarts)); then
    kuv_log "$guard_log" "kuvgui died ${#restarts[@]} times within ${window}s, not restarting it again"
    exit 1
  fi
  restarts+=("$now")

  kuv_log "$guard_log" "kuvgui pid $pid ended without quitting, restarting ${install_dir}bin/kuvgui"
  kuv_start_service "$install_dir" "$guard_log"
  if ! pid=$(wait_for_instance "$pid"); then
    kuv_log "$guard_log" "restarted kuvgui did not come up"
    # Count it and try again on the next round: the dead pid is still what the tag shows.
    continue
  fi
  kuv_log "$guard_log" "guarding kuvgui pid $pid"
done
