# What several scripts need. To be sourced; $top is the top of the tree from then on.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)

# The end of every list of options: help, or the refusal of a word that is not known. Wants the function usage.
other_option() {
  case "$1" in
    --help|-h) usage; exit 0 ;;
    *) echo "$(basename "$0"): unknown option '$1'" >&2; usage >&2; exit 2 ;;
  esac
}

# Runs a command and shows what it has printed only if it fails.
quietly() {
  local log status=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 || { status=$?; cat "$log" >&2; }
  rm -f "$log"
  return "$status"
}

# configure_preset PRESET DIRECTORY [OPTION ...]
configure_preset() {
  quietly cmake -S "$top" --preset "$1" -B "$2" "${@:3}"
}

# build_preset PRESET DIRECTORY [TARGET ...]
build_preset() {
  configure_preset "$1" "$2" && cmake --build "$2" ${3:+--target "${@:3}"}
}

# How many times as long as usual everything may take in a preset whose daemon is run. Fails for other presets.
time_factor() {
  case "$1" in
    release|debug) echo 1 ;;
    asan|tsan) echo 2 ;;
    *) return 1 ;;
  esac
}

# Runs a command as root.
as_root() {
  if [[ $(id -u) -eq 0 ]]; then
    "$@"
  else
    sudo "$@"
  fi
}

# Goes on with another command, as root in a user namespace of its own unless this is root. The daemon wants to
# be root, and is content with that; its bus has to be in there, too.
exec_as_root_of_a_namespace() {
  if [[ $(id -u) -eq 0 ]]; then
    exec "$@"
  fi
  exec unshare --user --map-root-user "$@"
}
