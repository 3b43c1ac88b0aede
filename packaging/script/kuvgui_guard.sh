#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# kuvgui_guard.sh 1 - keeps the user's GUI service running.
#
# The service starts this script with the argument "1" at the end of every successful start. The guard
# waits on the instance tag itself: the running service holds an exclusive flock() on the tag's .lock
# file, and the guard blocks in flock(1) for a shared lock on the same file. The kernel grants it the
# moment the service's process ends, however it ends, so the guard costs nothing while the service
# runs: no timer, no polling.
#
# When the lock is granted the guard looks at what the service left behind:
#   - no attributes (.attr of the tag): the service quit normally (it removes them before it lets go
#     of the tag); a quit chosen by the user or asked for by "kuvgui quit" is never undone: guard ends;
#   - attributes with the pid it guarded: killed or crashed; the guard starts bin/kuvgui again at once;
#   - attributes of another live kuvgui: another instance took the tag meanwhile; the guard goes on
#     guarding that one.
#
# One guard per user: it holds an flock() on <runtime>/kuvgui_guard.lock for its whole life. A guard
# started while another one runs waits a little (the other may be about to end after a normal quit) and
# then leaves it to that one.
#
# A crash loop is cut short: after KUV_GUARD_MAX_RESTARTS restarts (default 5) within
# KUV_GUARD_WINDOW seconds (default 300) the guard gives up and says so in its log. The first restart
# is immediate; one that follows a restart within a minute waits 1, 2, 4 ... up to 30 seconds.
#
# Log: <install>/log/kuvgui_guard.log, or ~/.local/state/kuv/log/ in an installation the user does not
# own (the restarted service's own output goes there too).
set -u

. "$(dirname "$0")/kuvgui_common.sh"

if [ "${1:-}" != "1" ]; then
  echo "usage: $0 1" >&2
  exit 2
fi

install_dir=$(kuv_install_dir) || exit 1
guard_log=$(kuv_user_log "$install_dir" kuvgui_guard.log) || guard_log=/dev/null
runtime=$(kuv_runtime_dir) || { kuv_log "$guard_log" "no usable runtime directory, guard not started"; exit 1; }
tag_lock="${runtime}${KUV_TAG_NAME}.lock"

# kuvgui starts this guard right after it removed the back end's stop marker: the back end runs again.
kuv_start_backend "$install_dir" "$guard_log" &

max_restarts=${KUV_GUARD_MAX_RESTARTS:-5}
window=${KUV_GUARD_WINDOW:-300}

exec 9>"${runtime}kuvgui_guard.lock" || exit 1
if ! flock -w "${KUV_GUARD_TAKEOVER_WAIT:-10}" 9; then
  # Another guard watches this user's service.
  exit 0
fi

# Waits until pid holds the tag with its attributes published, or has ended. Runs only right after a
# (re)start, for as long as the service takes to come up.
wait_published() { # pid
  local i
  for ((i = 0; i < 1200; i++)); do
    [ "$(kuv_tag_pid "$runtime")" = "$1" ] && return 0
    kuv_is_service "$1" || return 1
    sleep 0.05
  done
  return 1
}

# Blocks until nobody holds the tag. The shared lock is let go at once, so a service starting right
# then finds the tag free.
wait_tag_free() {
  local rc
  exec 8<"$tag_lock" || return 1
  flock -s 8
  rc=$?
  exec 8<&-
  return $rc
}

restarts=()
delay=0
since=$(date +%s)
pid=$(kuv_tag_pid "$runtime")
if ! kuv_is_service "$pid"; then
  kuv_log "$guard_log" "no running instance to guard"
  exit 0
fi
kuv_log "$guard_log" "guarding kuvgui pid $pid"

while :; do
  if ! wait_tag_free; then
    kuv_log "$guard_log" "cannot wait on the instance tag $tag_lock, guard ends"
    exit 1
  fi
  left=$(kuv_tag_pid "$runtime")
  if [ -z "$left" ]; then
    # Attributes removed: the service quit normally.
    kuv_log "$guard_log" "kuvgui pid $pid quit normally, guard ends"
    exit 0
  fi
  if [ "$left" != "$pid" ]; then
    if kuv_is_service "$left"; then
      # pid ended and another instance holds the tag now (its own guard gives way to this one).
      kuv_log "$guard_log" "kuvgui pid $pid ended, pid $left holds the tag now; guarding kuvgui pid $left"
      pid=$left
      continue
    fi
    # Attributes of a pid that is gone too: an instance that died while it was starting.
  fi

  # It died holding the tag: killed, crashed, or a restarted one that failed to start.
  now=$(date +%s)
  if ((now - since > 60)); then
    delay=0
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

  kuv_log "$guard_log" "kuvgui pid $left ended without quitting, restarting it in ${delay}s"
  if ((delay > 0)); then
    sleep "$delay"
    other=$(kuv_tag_pid "$runtime")
    if [ "$other" != "$left" ] && kuv_is_service "$other"; then
      kuv_log "$guard_log" "kuvgui pid $other was started meanwhile; guarding kuvgui pid $other"
      pid=$other
      continue
    fi
  fi
  delay=$((delay == 0 ? 1 : (delay * 2 > 30 ? 30 : delay * 2)))
  kuv_start_service "$install_dir" "$guard_log"
  pid=$!
  since=$(date +%s)
  if wait_published "$pid"; then
    kuv_log "$guard_log" "guarding kuvgui pid $pid"
  else
    # It ended before it published itself; the tag is free, so the loop sees that at once.
    kuv_log "$guard_log" "kuvgui pid $pid did not come up"
  fi
done
