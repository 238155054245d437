# What the tests of the program share.
bats_require_minimum_version 1.5.0

trace=$SAMPLES/sort.velk
export ASAN_OPTIONS=verify_asan_link_order=0

# ends STATUS MESSAGE COMMAND...: how it ends, and the first line that it prints
ends() {
  local status_wanted=$1 message=$2
  shift 2
  run "$status_wanted" "$@"
  [ "${lines[0]-}" = "$message" ] || { echo "$*: $output"; false; }
}

# unwritten COMMAND...: fails, and says that its output cannot be written, and no more
unwritten() {
  ends -255 "Can't write output" "$@"
  [ ${#lines[@]} = 1 ]
}

# same_trace FILE TEXT: a QUBIX file holds the transactions of a text
same_trace() { "$VQPACK" "$1" | sed 's/ 1$//' | cmp "$2" -; }
