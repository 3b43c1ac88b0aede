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

# kuvgui starts this guard right after it removed the back end's stop marker: the back end runs again.
kuv_start_backend "$install_dir" "$guard_log" &

interval=${KUV_GUARD_INTERVAL:-1}
max_restarts=${KUV_GUARD_MAX_RESTARTS:-5}
window=${KUV_GUARD_WINDOW:-300}

exec 9>"${runtime}kuvgui_guard.lock" || exit 1
if ! flock -w "${KUV_GUARD_TAKEOVER_WAIT:-10}" 9; then
  # Another guard watches this user's service.
  exit 0
fi

# The first instance to watch: the tag holder's pid, published before this script is started.
first_instance() {
  local i pid
  for ((i = 0; i < 100; i++)); do
    pid=$(kuv_tag_pid "$runtime")
    if kuv_is_service "$pid"; then
      echo "$pid"
      return 0
    fi
    sleep 0.1
  done
  return 1
}

# Waits until the started process has published itself in the tag, or has ended.
wait_published() { # pid
  local i
  for ((i = 0; i < 600; i++)); do
    [ "$(kuv_tag_pid "$runtime")" = "$1" ] && return 0
    kuv_is_service "$1" || return 1
    sleep 0.1
  done
  return 1
}

restarts=()
delay=1
since=$(date +%s)
pid=$(first_instance) || { kuv_log "$guard_log" "no running instance to guard"; exit 0; }
kuv_log "$guard_log" "guarding kuvgui pid $pid"

while :; do
  while kuv_is_service "$pid"; do
    sleep "$interval"
  done
  left=$(kuv_tag_pid "$runtime")
  if [ "$left" != "$pid" ]; then
    # Attributes gone: the service quit normally. Attributes of another pid: another instance was
    # started meanwhile, and that instance starts its own guard.
    kuv_log "$guard_log" "kuvgui pid $pid quit normally, guard ends"
    exit 0
  fi

  # It died holding the tag: killed, crashed, or a restarted one that failed to start.
  now=$(date +%s)
  if ((now - since > 60)); then
    delay=1
  fi
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

  # The bus frees a dead process's endpoints only after a while; a restart that came too early fails its
  # start, and the next one waits longer.
  kuv_log "$guard_log" "kuvgui pid $pid ended without quitting, restarting it in ${delay}s"
  sleep "$delay"
  delay=$((delay * 2 > 30 ? 30 : delay * 2))
  other=$(kuv_tag_pid "$runtime")
  if [ "$other" != "$pid" ] && kuv_is_service "$other"; then
    kuv_log "$guard_log" "kuvgui pid $other was started meanwhile, guard ends"
    exit 0
  fi
  kuv_start_service "$install_dir" "$guard_log"
  pid=$!
  since=$(date +%s)
  if wait_published "$pid"; then
    kuv_log "$guard_log" "guarding kuvgui pid $pid"
  fi
done
