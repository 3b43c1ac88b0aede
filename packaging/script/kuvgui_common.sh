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
kuv_runtime_dir() {
  local dir
  if [ -n "${XDG_RUNTIME_DIR:-}" ] && [ "${XDG_RUNTIME_DIR#/}" != "$XDG_RUNTIME_DIR" ] &&
     kuv_private_dir "$XDG_RUNTIME_DIR"; then
    dir="$XDG_RUNTIME_DIR/kuv"
  else
    dir="/tmp/kuv-$(id -u)"
  fi
  if [ ! -e "$dir" ]; then
    mkdir -m 0700 "$dir" 2>/dev/null || return 1
  fi
  kuv_private_dir "$dir" || return 1
  printf '%s/\n' "$dir"
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
  printf '[%s] [%s] %s\n' "$(date '+%Y-%m-%d %H:%M:%S')" "$$" "$*" >>"$file" 2>/dev/null || true
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
