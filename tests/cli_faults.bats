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
  # The fault of the output counts for more than that of the input.
  head -c 200 file >short
  run -255 "$VQPACK" short /dev/full
  [ "${lines[-1]}" = "Can't write output" ]
}

@test "a limit on the size of files" {
  run -255 bash -c 'ulimit -f 4; "$VQPACK" -q -v 0 "$SAMPLES/sort.velk" limited'
  [ "$output" = "Can't write output" ]
}

@test "standard output is full or closed" {
  run -255 bash -c '"$VQPACK" file >/dev/full'
  [ "$output" = "Can't write output" ]
  run -255 bash -c '"$VQPACK" file >&-'
  [ "$output" = "Can't write output" ]
}

@test "a command or compressor that fails" {
  for command in "exit 1" "cat >out; exit 1" "head -c 10 >out; kill -9 \$\$"; do
    run -255 "$VQPACK" file "|$command"
    [ "$output" = "Can't write output" ]
    run -255 "$VQPACK" -q -v 0 "$trace" "|$command"
    [ "$output" = "Can't write output" ]
  done
}
