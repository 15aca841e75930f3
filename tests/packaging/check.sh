# Sourced by the tests of this folder. Sets $work, a folder in /tmp that goes with the test.

work=$(mktemp -d /tmp/tarnvte-packaging.XXXXXX)
trap 'rm -rf "$work"' EXIT
failures=0

# check WHAT COMMAND...: the command succeeds.
check() {
  local what=$1
  shift
  "$@" || { echo "failed: $what" >&2; failures=$((failures + 1)); }
}

# equal WHAT EXPECTED ACTUAL
equal() {
  [[ $2 == "$3" ]] || {
    printf 'failed: %s\n  expected: %q\n  actual:   %q\n' "$1" "$2" "$3" >&2
    failures=$((failures + 1))
  }
}

# status COMMAND...: prints the exit status.
status() {
  local result=0
  "$@" >/dev/null 2>&1 || result=$?
  echo "$result"
}
