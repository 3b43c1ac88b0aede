#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# wakeups.sh [--seconds N] PID... - context switches (voluntary + involuntary) of every thread of each
# process over N seconds (default 60), scaled to one minute, one line per thread and one total per process:
#   <pid> <comm> <thread name> <switches/min>
#   <pid> <comm> TOTAL <switches/min>
# A thread that started or ended during the window counts with what it did inside it.
set -u
usage() { sed -n '3,6p' "$0" | sed 's/^# \{0,1\}//'; }
seconds=60
while [ $# -gt 0 ]; do
  case "$1" in
    --help|-h) usage; exit 0 ;;
    --seconds) seconds=${2:?--seconds needs a value}; shift 2 ;;
    --) shift; break ;;
    -*) echo "wakeups.sh: unknown option $1" >&2; exit 2 ;;
    *) break ;;
  esac
done
[ $# -gt 0 ] || { usage >&2; exit 2; }

snapshot() { # pid -> "tid name count" lines
  local task name v n
  for task in /proc/"$1"/task/*; do
    [ -r "$task/status" ] || continue
    name= v=0 n=0
    while IFS=$':\t ' read -r key value; do
      case "$key" in
        Name) name=${value// /_} ;;
        voluntary_ctxt_switches) v=$value ;;
        nonvoluntary_ctxt_switches) n=$value ;;
      esac
    done <"$task/status" 2>/dev/null
    printf '%s %s %s\n' "${task##*/}" "${name:-?}" $((v + n))
  done
}

declare -A before
for pid in "$@"; do
  before[$pid]=$(snapshot "$pid")
done
sleep "$seconds"
for pid in "$@"; do
  after=$(snapshot "$pid")
  comm=$(cat /proc/"$pid"/comm 2>/dev/null || echo gone)
  awk -v pid="$pid" -v comm="$comm" -v secs="$seconds" '
    NR == FNR { start[$1] = $3; next }
    {
      d = $3 - (($1 in start) ? start[$1] : 0)
      per[$2] += d; total += d
    }
    END {
      for (n in per) printf "%s %s %s %.1f\n", pid, comm, n, per[n] * 60 / secs
      printf "%s %s TOTAL %.1f\n", pid, comm, total * 60 / secs
    }' <(printf '%s\n' "${before[$pid]}") <(printf '%s\n' "$after")
done
