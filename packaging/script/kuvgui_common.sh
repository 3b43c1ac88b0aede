# SPDX-License-Identifier: GPL-2.0-or-later
# Shared helpers of the kuvgui scripts (sourced, not run).
#
# The running instance is found through its instance tag in the per-user runtime directory:
#   <runtime>/A5F24530-52D7-11EE-AF47-4B159A309AD8.lock  held with flock() by the running service
#   <runtime>/A5F24530-52D7-11EE-AF47-4B159A309AD8.attr  its published attributes, {"pid":"...","status":"..."}
# A service that quits normally removes the .attr file before it lets go of the tag; one that was killed or
# crashed leaves it behind with its own pid in it. That difference is what the guard acts on.

KUV_TAG_NAME="A5F24530-52D7-11EE-AF47-4B159A309AD8"

# The installation directory: the parent of the directory holding the scripts, with a final "/".
kuv_install_dir() {
  local here
  here=$(cd "$(dirname "${BASH_SOURCE[1]:-$0}")" && pwd -P) || return 1
  printf '%s/\n' "$(dirname "$here")"
}

# Whether a directory is ours alone: a real directory (not a link), owned by us, mode 0700.
kuv_private_dir() {
  [ -d "$1" ] && [ ! -L "$1" ] && [ "$(stat -c '%u %a' "$1" 2>/dev/null)" = "$(id -u) 700" ]
}

# The per-user runtime directory, as the platform chooses it; empty (and status 1) when it is unusable.
# Without XDG_RUNTIME_DIR: ~/.cache/kuv/runtime once it exists (it is made when another user took
# /tmp/kuv-UID first), else /tmp/kuv-UID.
kuv_runtime_dir() {
  local dir fallback
  if [ -n "${XDG_RUNTIME_DIR:-}" ] && [ "${XDG_RUNTIME_DIR#/}" != "$XDG_RUNTIME_DIR" ] &&
     kuv_private_dir "$XDG_RUNTIME_DIR"; then
    dir="$XDG_RUNTIME_DIR/kuv"
  else
    fallback="${HOME:-/nonexistent}/.cache/kuv/runtime"
    if kuv_private_dir "$fallback"; then
      printf '%s/\n' "$fallback"
      return 0
    fi
    dir="/tmp/kuv-$(id -u)"
    if { [ -e "$dir" ] || [ -L "$dir" ]; } && [ "$(stat -c '%u' "$dir" 2>/dev/null)" != "$(id -u)" ]; then
      mkdir -p -m 0700 "${HOME:-/nonexistent}/.cache/kuv" 2>/dev/null &&
        mkdir -p -m 0700 "$fallback" 2>/dev/null && kuv_private_dir "$fallback" || return 1
      printf '%s/\n' "$fallback"
      return 0
    fi
  fi
  if [ ! -e "$dir" ]; then
    mkdir -m 0700 "$dir" 2>/dev/null || return 1
  fi
  kuv_private_dir "$dir" || return 1
  printf '%s/\n' "$dir"
}

# Where the user's own files of an installation go (its log/ and data/pubcfg/), with a final "/": the
# installation itself when the user owns it, else $XDG_STATE_HOME/kuv/ (default ~/.local/state/kuv/).
kuv_state_dir() { # install_dir
  local state
  if [ -O "$1" ] && [ -w "$1" ]; then
    printf '%s\n' "$1"
    return 0
  fi
  state="${XDG_STATE_HOME:-${HOME:-/nonexistent}/.local/state}"
  case "$state" in /*) ;; *) state="${HOME:-/nonexistent}/.local/state" ;; esac
  mkdir -p -m 0700 "$state/kuv" 2>/dev/null || return 1
  [ -d "$state/kuv" ] && [ ! -L "$state/kuv" ] && [ -O "$state/kuv" ] || return 1
  chmod 0700 "$state/kuv" 2>/dev/null
  printf '%s/\n' "$state/kuv"
}

# A log file of the user's, created private; empty when its directory cannot be made.
kuv_user_log() { # install_dir, name
  local base
  base=$(kuv_state_dir "$1") || return 1
  mkdir -p -m 0700 "${base}log" 2>/dev/null || return 1
  printf '%slog/%s\n' "$base" "$2"
}

# The pid published by the instance (or by the last one that did not quit normally); empty when none.
kuv_tag_pid() { # runtime_dir
  local attr="$1$KUV_TAG_NAME.attr"
  [ -f "$attr" ] && [ ! -L "$attr" ] || return 0
  sed -n 's/.*"pid"[[:space:]]*:[[:space:]]*"\([0-9][0-9]*\)".*/\1/p' "$attr" 2>/dev/null | head -n 1
}

# Whether pid is a live kuvgui process of ours.
kuv_is_service() { # pid
  [ -n "$1" ] && kill -0 "$1" 2>/dev/null || return 1
  local exe
  exe=$(readlink "/proc/$1/exe" 2>/dev/null) || return 1
  case "$exe" in
    */kuvgui|*/kuvgui" (deleted)") return 0 ;;
  esac
  return 1
}

kuv_log() { # file, message...
  local file=$1
  shift
  [ -n "$file" ] && [ ! -L "$file" ] || return 0
  (umask 077; printf '[%s] [%s] %s\n' "$(date '+%Y-%m-%d %H:%M:%S')" "$$" "$*" >>"$file") 2>/dev/null || true
}

# Starts the installed service detached from the caller, its output appended to the given log.
kuv_start_service() { # install_dir, log
  setsid "$1bin/kuvgui" </dev/null >>"$2" 2>&1 9>&- &
}

# Starts the back end kuv-scand: through its systemd user unit when the user manager has that unit, else
# directly (it goes to the background and restarts itself after a crash). Starting it while it runs does
# nothing (one per user), and it stays down while the user's choice to stop it (data/pubcfg/.guiexit)
# stands.
kuv_start_backend() { # install_dir, log
  if command -v systemctl >/dev/null 2>&1; then
    case "$(systemctl --user is-enabled kuv-scand.service 2>/dev/null)" in
      enabled | enabled-runtime | static | indirect | generated | alias | linked | linked-runtime)
        systemctl --user start --no-block kuv-scand.service >>"$2" 2>&1
        return 0
        ;;
    esac
  fi
  "$1bin/kuv-scand" </dev/null >>"$2" 2>&1 9>&-
  return 0
}
