# Arguments: what is refused, in which words, and how values are read.
load helpers

setup() {
  cd "$BATS_TEST_TMPDIR"
  printf 'MEMRD %x 0\n' $(seq 4096 8 4888) >trace # 100 transactions
}

# refused MESSAGE ARGUMENT...
refused() {
  local message=$1
  shift
  run -255 --separate-stderr "$VQPACK" "$@" </dev/null
  [ "$stderr" = "$message"$'\n\n'"See 'vqpack -h' for help" ] || { echo "$*: $stderr"; false; }
  [ -z "$output" ]
}

@test "help is printed whole and opens no file" {
  run -0 --separate-stderr "$VQPACK" trace out -h -x
  [ -z "$output" ]
  [ ! -e out ]
  "$VQPACK" -h |& diff "$BATS_TEST_DIRNAME/help.txt" -
}

@test "refusals by the arguments alone" {
  refused "Multiple outputs specified" a b c
  refused "Multiple inputs specified" a -
  for letter in S s t d v b e C m; do
    refused "-$letter requires a value" "-$letter"
  done
  for letters in x nx mx; do refused "-$letters unknown switch" -$letters 1; done
  refused "-m takes a non-negative number without spurious text" -mx z
  refused $'Version (-v) must be 0 - 5\n' -v 6 -h
  refused $'Version (-v) must be 0 - 5\n' -v 0x100000001
  refused "Can't read sensitivity file (-s/S)" -s missing
  refused "Can't open input file" missing out
  refused "Can't open output file" trace missing/out
  [ ! -e out ]
}

@test "refused combinations leave an empty output" {
  touch points
  local sensitivity="Sensitivity data not allowed unless explicitly making a version 2-or-greater QUBIX"
  for options in "-s points" "-S points -v 1"; do
    echo old >out
    refused "$sensitivity" $options trace out
    [ -e out ] && [ ! -s out ]
  done
  refused "Selected compress and version options incompatible" -v 0 -c trace out
  refused "Selected compress and version options incompatible" -v 1 -nc trace out
  refused "Can't output version 2 or higher to stdout" -v 2 trace
  refused "Can't output version 2 or higher to stdout" -v 5 trace stdout
}

@test "numbers" {
  "$VQPACK" -q -b 16 trace wanted
  for number in 0x10 0X10 020 "16  " $'16\t\n' 00020; do
    "$VQPACK" -q -b "$number" trace out
    cmp wanted out
  done
  "$VQPACK" -q -e 18446744073709551615 trace out
  "$VQPACK" -q trace wanted
  cmp wanted out
  for number in 08 12abc -1 x "" 0x 0xg "1 2" 18446744073709551616; do
    for letter in b e d C v ma; do
      refused "-${letter:0:1} takes a non-negative number without spurious text" "-$letter" "$number"
    done
  done
}

@test "options stand anywhere, later ones win, and only their letters count" {
  "$VQPACK" -v 3 -nc -b 5 -e 10 trace wanted
  "$VQPACK" trace -b 7 -c -e 10 out -version 3 -ncx -bx 5
  cmp wanted out
  # A value is a value, whatever it begins with.
  "$VQPACK" -v 4 -t -nc trace out -q
  grep -qa -e -nc out
}

@test "no arguments, - and stdin read standard input" {
  "$VQPACK" -q trace | cat >wanted
  "$VQPACK" <trace 2>message | cmp wanted -
  [ "$(cat message)" = "QUBIX compressor used 1 contexts with average distance 0" ]
  "$VQPACK" -q - out <trace
  [ "$("$VQPACK" out | wc -l)" -eq 100 ]
  "$VQPACK" -q stdin stdout <trace | cmp wanted -
}
