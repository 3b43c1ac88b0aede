#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# Runs one ThreadSanitizer test binary. GCC 12's TSan runtime sometimes cannot map its shadow memory
# on this kernel ("ThreadSanitizer failed to allocate ... (errno: 12)") before any of our code runs a
# check; such a run says nothing about the code, so it is run again (at most 4 times). Any other
# failure, a race report included, fails at once.
set -u
out=$(mktemp)
trap 'rm -f "$out"' EXIT
for attempt in 1 2 3 4; do
  "$@" >"$out" 2>&1
  rc=$?
  if [ $rc -eq 0 ] || ! grep -q 'ThreadSanitizer failed to allocate' "$out"; then
    cat "$out"
    exit $rc
  fi
  echo "tsan-retry: attempt $attempt hit the TSan runtime's shadow allocation failure; running again" >&2
  grep -m1 'ThreadSanitizer failed to allocate' "$out" >&2
done
cat "$out"
exit $rc
