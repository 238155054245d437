# Outputs that fail: success is reported only when every byte arrived.
load helpers

setup() {
  cd "$BATS_TEST_TMPDIR"
  cp "$FAILING_CALLS" failing.so # its name must not have blanks
  "$VQPACK" -q -v 0 "$trace" file
}

@test "a full disk" {
  for options in "-v 0" "-v 1" "-v 4 -nc" "-e 0" "-v 2 -e 0"; do
    unwritten "$VQPACK" -q $options "$trace" /dev/full
  done
  for range in 0x100000 1; do
    unwritten "$VQPACK" -e $range file /dev/full
  done
  # Both faults are reported; that of the output counts.
  head -c 200 file >short
  ends -255 "Input ends early, at record 20, byte 200" "$VQPACK" short /dev/full
  [ "${lines[-1]}" = "Can't write output" ]
}

@test "a limit on the size of files; standard output is full or closed" {
  unwritten bash -c 'ulimit -f 4; "$VQPACK" -q -v 0 "$SAMPLES/sort.velk" limited'
  unwritten bash -c '"$VQPACK" file >/dev/full'
  unwritten bash -c '"$VQPACK" file >&-'
  unwritten bash -c '"$VQPACK" -e 0 file >&-'
}

@test "a write, a flush or a close that fails once, at any time" {
  # each_call OPTION...: lets the first call fail, then the second and so on, until all are good
  each_call() {
    for ((call = 1; call < 100; ++call)); do
      run env FAILING_CALL=$call LD_PRELOAD=./failing.so "$VQPACK" -q "$@"
      [ "$status" -ne 0 ] || break
      [ "$status $output" = "255 Can't write output" ]
    done
    ((call >= least && call < 100)) || { echo "$*: $call calls"; false; }
  }
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
  unwritten timeout 60 "$VQPACK" - /dev/full < <(printf 'QU\0\377\377\377\377' && cat /dev/zero)
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
    unwritten "$VQPACK" file "|$command"
    unwritten "$VQPACK" -q -v 0 "$trace" "|$command"
  done
}

# runs STATUS OPTION... : that is how it ends, with the message about an input that cannot be read
unreadable() {
  local status=$1
  shift
  run "-$status" --separate-stderr timeout 20 "$@"
  grep -qx "Can't read input" <<<"$stderr" || { echo "$*: $stderr"; false; }
  ! ((status == 1)) || [[ $stderr = *"USE AT YOUR OWN RISK!" ]]
}

@test "an input that cannot be read" {
  mkdir folder
  unreadable 255 "$VQPACK" -q - out <folder
  unreadable 255 "$VQPACK" -q - out 0>written
  unreadable 255 bash -c '"$VQPACK" -q - out <&-'
  unreadable 255 "$VQPACK" -q /proc/self/mem out
  unreadable 255 "$VQPACK" -q 'exec /nowhere/command|' out
  unreadable 255 "$VQPACK" '|exit 3' out
  echo no archive >bad.gz
  cp bad.gz bad.bz2
  unreadable 255 "$VQPACK" -v 4 bad.gz out
  unreadable 255 "$VQPACK" bad.bz2 out
  [ ! -s out ]
}

@test "a process that fails after it has delivered a trace" {
  { gzip -c "$trace" | head -c -1 && printf x; } >text.gz  # the length in its trailer is wrong
  { gzip -c file | head -c -1 && printf x; } >file.gz
  head -1000 "$trace" >part
  for options in "" "-v 0" "-v 5" "-p -v 2"; do
    unreadable 1 "$VQPACK" -q $options text.gz out
    same_trace out "$trace"
    unreadable 1 "$VQPACK" -q $options "head -1000 '$trace'; exit 3|" out
    same_trace out part
  done
  unreadable 1 "$VQPACK" file.gz out
  cmp "$trace" out
  # An error of the trace's own comes first, and a reader that goes away is no fault of the input.
  { cat "$trace" && echo bad; } >bad
  ends -1 "Bad input line, at record 5001" "$VQPACK" -q "cat bad; exit 3|" out
  unwritten "$VQPACK" -q "cat '$trace'; exit 3|" /dev/full
}

@test "outputs that do not start at their file's start, or append, are not rewritten" {
  "$VQPACK" -q "$trace" one
  "$VQPACK" -q "$trace" | cat >pipe
  { echo text; "$VQPACK" -q "$trace"; "$VQPACK" -q "$trace"; } >both
  { echo text; cat pipe pipe; } | cmp both
  { "$VQPACK" -q "$trace"; "$VQPACK" -q "$trace"; echo text; } >both
  { cat one pipe; echo text; } | cmp both
  "$VQPACK" -q "$trace" >>added
  cmp pipe added
  ends -0 "" "$VQPACK" -q -v 4 - /dev/null <"$trace" # a device that seeks, but stays at its start
}

@test "a parent that ignores the end of its children" {
  (trap '' CHLD && exec "$VQPACK" -q "$trace" out.gz)
  (trap '' CHLD && exec "$VQPACK" out.gz) | cmp "$trace" -
}

@test "a process that cannot start" {
  gzip -k file
  for arguments in "file.gz out" "file| out" "file out.bz2" "file |cat"; do
    run -255 env FAILING_SPAWN=1 LD_PRELOAD=./failing.so "$VQPACK" -q $arguments
    [[ ${lines[0]} = "Can't open "*"put file" ]]
  done
}

@test "memory that runs out, once or for good" {
  [[ $(ldd "$VQPACK") != *libasan* ]] || skip "the sanitizer has its own memory"
  tail -c +3 "$SOURCE/fuzz/seeds/decode/type-5-coded-lists" | gzip >lists.gz # its header has all
  echo 1 2 3 4 5 6 7 >points
  # short_of_memory CALL [VARIABLE=VALUE]: fails in one of the documented ways, or not at all
  short_of_memory() {
    run env FAILING_ALLOCATION=$1 ${2-} LD_PRELOAD=./failing.so "$VQPACK" -q $arguments
    [[ $status = 0 || $status = 255 && ($output = *"Out of memory" || $output = "Can't "*) ]]
  }
  for arguments in "file out" "-v 5 -p -t text -s points lists.gz out.gz"; do
    for ((status = 255, calls = 0; status; )); do short_of_memory $((++calls)) ALL_ALLOCATIONS=1; done
    ((calls > 20))
    for ((call = 1; call < calls; ++call)); do short_of_memory $call; done
  done
}
