# Sourced by scripts that go through stages: a stage that is well says one line, and one that is not names
# the place of its log.
# shellcheck shell=bash

# stage NAME LOG COMMAND ...
# Runs the command with what it says in the file LOG. A line of it that tells the outcome of tests goes
# behind the stage's name. Where the command fails, the end of the log and its place follow, and the
# script ends with status 1. With KELVANE_VERBOSE=1 everything is shown as it comes.
stage() {
  local name=$1 log=$2 status=0 outcome
  shift 2
  mkdir -p "$(dirname "$log")"
  if [[ ${KELVANE_VERBOSE:-0} == 1 ]]; then
    # The command's own words are the last, for whoever reads the end of a long run.
    "$@" 2>&1 | tee "$log" && return 0
    status=$?
  else
    "$@" >"$log" 2>&1 || status=$?
  fi
  if ((status == 0)); then
    outcome=$(grep -E '% tests passed' "$log") || true
    echo "$name: ok${outcome:+: $outcome}"
    return 0
  fi
  [[ ${KELVANE_VERBOSE:-0} == 1 ]] || tail -n 40 "$log" >&2
  echo "$name: failed; its log is $log" >&2
  exit 1
}
