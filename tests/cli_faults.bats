# Outputs that fail: success is told only when every byte arrived.
bats_require_minimum_version 1.5.0

setup() {
  cd "$BATS_TEST_TMPDIR"
  trace=$SAMPLES/sort.velk
  "$VQPACK" -q -v 0 "$trace" file
}

@test "a full disk" {
  for options in "-v 0" "-v 1" "-v 4 -nc" "-e 0" "-v 2 -e 0"; do
    run -255 "$VQPACK" -q $options "$trace" /dev/full
    [ "$output" = "Can't write output" ]
  done
  for range in 0x100000 1; do
    run -255 "$VQPACK" -e $range file /dev/full
    [ "$output" = "Can't write output" ]
  done
  # Both faults are told; that of the output counts.
  head -c 200 file >short
  run -255 "$VQPACK" short /dev/full
  [[ "${lines[0]}" = "Input ends early, at record "* ]]
  [ "${lines[-1]}" = "Can't write output" ]
}

@test "a limit on the size of files" {
  run -255 bash -c 'ulimit -f 4; "$VQPACK" -q -v 0 "$SAMPLES/sort.velk" limited'
  [ "$output" = "Can't write output" ]
}

@test "standard output is full or closed" {
  run -255 bash -c '"$VQPACK" file >/dev/full'
  [ "$output" = "Can't write output" ]
  for options in "" "-e 0"; do
    run -255 bash -c '"$VQPACK" '"$options"' file >&-'
    [ "$output" = "Can't write output" ]
  done
}

@test "a write, a flush or a close that fails once, at any time" {
  # each_call OPTION...: lets the first call fail, then the second and so on, until all are good
  each_call() {
    for ((call = 1; call < 100; ++call)); do
      run env FAILING_CALL=$call LD_PRELOAD=./failing.so "$VQPACK" -q "$@"
      [ "$status" -ne 0 ] || break
      [ "$status" -eq 255 ] && [ "$output" = "Can't write output" ]
    done
    ((call >= least && call < 100)) || { echo "$*: $call calls"; false; }
  }
  export ASAN_OPTIONS=verify_asan_link_order=0
  cp "$FAILING_OUTPUT" failing.so # its name must not have blanks
  head -500 "$trace" >lines
  least=5
  each_call -v 0 lines out
  each_call -v 1 lines out.gz
  each_call -v 4 -nc lines out   # with a header that is written again
  "$VQPACK" -p out /dev/null 2>&1 | grep -q "Address length: 27"
  each_call -v 3 -e 0 lines out
  least=4
  each_call file text
  each_call file "|cat >text"
  cmp "$trace" text
}

@test "a failed write ends the reading of an endless input" {
  ln -s /dev/full full.gz
  for options in "-v 0 /dev/full" "-v 1 /dev/full" "-v 5 -nc /dev/full" "-v 0 full.gz"; do
    run -255 timeout 60 "$VQPACK" -q - $options < <(while cat "$trace"; do :; done)
    [ "${lines[-1]}" = "Can't write output" ]
  done
  run -255 timeout 60 "$VQPACK" - /dev/full < <(printf 'QU\0\377\377\377\377' && cat /dev/zero)
  [ "$output" = "Can't write output" ]
  run -255 timeout 60 "$VQPACK" -q "yes MEMRD 1000 0|" "|exit 3"
  # A closed pipe ends it, too, but quietly.
  run -141 bash -c 'set -o pipefail; yes MEMRD 1000 0 | timeout 60 "$VQPACK" -q | head -c 10 >start'
  [ -z "$output" ] && [ -s start ]
}

@test "messages do not go into an output when standard error is closed" {
  "$VQPACK" - out <"$trace" 2>&-
  "$VQPACK" out | cmp "$trace" -
  run -255 bash -c '"$VQPACK" missing out <&- >&- 2>&-'
}

@test "a command or compressor that fails" {
  for command in "exit 1" "cat >out; exit 1" "head -c 10 >out; kill -9 \$\$"; do
    run -255 "$VQPACK" file "|$command"
    [ "$output" = "Can't write output" ]
    run -255 "$VQPACK" -q -v 0 "$trace" "|$command"
    [ "$output" = "Can't write output" ]
  done
}
