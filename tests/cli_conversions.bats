# Conversions: what comes out, where the count and the header end up, what the metadata options do.
load helpers

setup() { cd "$BATS_TEST_TMPDIR"; }

# report FILE: the metadata of a file.
report() { "$VQPACK" -p -e 0 "$1" /dev/null 2>&1; }

# field FILE LABEL: one value of the report.
field() { report "$1" | sed -n "s/^$2: //p"; }

@test "every type and coding gives the trace back, and every other type from it" {
  "$VQPACK" -q -v 1 "$trace" wanted
  # Sizes of outputs, the ways of coding that they store, their types and options.
  for row in 50012::0 50012::"0 -nc" 11185::1 11185::"1 -c" 11216:1:2 11216:1:"2 -c" \
      50043:0:"2 -nc" 11237:1:3 11237:1:"3 -c" 70043:0:"3 -nc" 11239:1:4 11239:1:"4 -c" \
      55061:0:"4 -nc" 11260:1:5 11260:1:"5 -c" 75061:0:"5 -nc"; do
    IFS=: read -r size compression coding <<<"$row"
    "$VQPACK" -q -v $coding "$trace" file
    [ "$(stat -c %s file) $(field file Compression)" = "$size $compression" ] || { echo "$row"; false; }
    case $coding in
      3* | 5*) "$VQPACK" file | cmp - <(sed 's/$/ 1/' "$trace") ;;
      *) "$VQPACK" file | cmp "$trace" - ;;
    esac
    "$VQPACK" -q -v 1 file again
    cmp wanted again
    [ "$(field file 'Total transactions')" = 5000 ]
  done
}

@test "compressed files and commands on either side" {
  "$VQPACK" -q "$trace" file >file.pipe
  for suffix in gz bz2; do
    seq 99999 >out.$suffix
    "$VQPACK" -q "$trace" "out.$suffix"
    "$VQPACK" "out.$suffix" | cmp "$trace" -
    "$VQPACK" out copy.velk.$suffix
    "$VQPACK" -q copy.velk again
    cmp file again
    rm out.$suffix copy.velk.$suffix
  done
  "$VQPACK" -q "|cat '$trace'" "|cat >again"
  "$VQPACK" "cat again|" | cmp "$trace" -
}

@test "ranges count from the start of the input" {
  for range in "10 20" "0 1" "4990 6000" "20 10" "6000 7000"; do
    set -- $range
    awk -v b="$1" -v e="$2" 'NR > b && NR <= e' "$trace" >wanted
    "$VQPACK" -q -v 2 -b "$1" -e "$2" "$trace" file
    "$VQPACK" file | cmp wanted -
    [ "$(field file 'Total transactions')" -eq "$(wc -l <wanted)" ]
    "$VQPACK" -q "$trace" | "$VQPACK" -b "$1" -e "$2" | cmp wanted -
  done
}

@test "the count stands at offset 3 of a file and after the end of a pipe" {
  for version in 0 1; do
    "$VQPACK" -q -v $version "$trace" file
    "$VQPACK" -q -v $version "$trace" | cat >pipe
    [ "$(od -An -tu4 -j3 -N4 file | tr -d ' ')" = 5000 ]
    [ "$(od -An -tx4 -j3 -N4 pipe | tr -d ' ')" = ffffffff ]
    [ "$(tail -c4 pipe | od -An -tu4 | tr -d ' ')" = 5000 ]
    cmp -i 7 <(head -c -4 pipe) file
    [ "$(field pipe 'Total transactions')" = 5000 ]
  done
}

@test "the header is corrected where the output can seek" {
  "$VQPACK" -q -v 4 -mr 1 -ma 99 - file <"$trace"
  [ "$(field file 'Total transactions')" = 5000 ]
  [ "$(field file 'Address length')" = 37 ]
  ends -0 "Need to change transaction count: output not seekable" "$VQPACK" -q -v 4 - file.gz <"$trace"
  ends -0 "Can't update address size: output not seekable" "$VQPACK" -q -v 4 "$trace" file.gz
  ends -0 "" "$VQPACK" -q -v 4 -ma 37 "$trace" file.gz
  zcat file.gz | cmp - <("$VQPACK" -q -v 4 "$trace" file && cat file)
}

@test "an error in the input closes the output before it" {
  local notice='
Error found on input, so the output was closed with what it already had.
Output is legal QUBIX or text VELK/PRUV file, but
it is unknown how much of the input is corrupt.
The entire input, even at the start, could be bad.
Therefore, the output could be garbage -- USE AT YOUR OWN RISK!'
  { head -2000 "$trace"; echo; tail -3000 "$trace"; } >bad
  head -2000 "$trace" >wanted
  for options in "" "-v 0" "-v 4 -c" "-v 2 -nc"; do
    run -1 --separate-stderr "$VQPACK" -q $options bad file
    [ "$stderr" = "Bad input line, at record 2001"$'\n'"$notice" ]
    "$VQPACK" file | cmp wanted -
  done
  # Also past the end of the range.
  run -1 --separate-stderr "$VQPACK" -q -e 5 bad file
  [ "$("$VQPACK" file | wc -l)" -eq 5 ]

  "$VQPACK" -q -v 0 "$trace" file
  head -c 20012 file >short
  run -1 --separate-stderr "$VQPACK" short out
  [ "$stderr" = "Input ends early, at record 2001, byte 20012"$'\n'"$notice" ]
  cmp wanted out
  # What the output holds stands before the message when both go the same way.
  { "$VQPACK" -q -v 0 bad stdout 2>/dev/null || true; } | cat >alone
  { "$VQPACK" -q -v 0 bad stderr || true; } |& cat >both
  echo "Bad input line, at record 2001"$'\n'"$notice" | cat alone - | cmp both
}

@test "an error of the output leaves it unfinished" {
  { cat "$trace"; echo 'MEMRD 1 0'; } >bad
  ends -255 "Lowest 3 bits of address not 0, at record 5001" "$VQPACK" -q bad file
  run -1 "$VQPACK" file
}

@test "report of metadata" {
  head -100 "$trace" >lines
  [ "$(report lines)" = $'METADATA FROM INPUT:\nQUBIX version: -1 (legacy/text)\nTotal transactions: 100' ]
  [ "$("$VQPACK" -p - /dev/null <lines 2>&1 | sed -n 3p)" = "Total transactions: -1" ]
  "$VQPACK" -q -v 1 lines file
  [ "$(report file)" = $'METADATA FROM INPUT:\nQUBIX version: 1\nTotal transactions: 100' ]
  "$VQPACK" -q -v 5 -nc -mt 4 -ms 8192 -ml 64 -mi 0x100000000 -mc 77 lines file
  [ "$(report file)" = 'METADATA FROM INPUT:
QUBIX version: 5
Total transactions: 100
Total instructions: 4294967296
Total cycles: 77
Threads: 4
Cache size: 8192 KiB
Line size: 64 B
Address length: 27
Compression: 0' ]
  # What the output gets does not show.
  [ "$("$VQPACK" -p -v 4 -c -q -mt 9 file out 2>&1)" = "$(report file)" ]
  [ "$("$VQPACK" -p -nc out /dev/null 2>&1 | tail -1)" = "Compression: 1" ]
  ends -0 "" "$VQPACK" -p -np file /dev/null
}

@test "comments" {
  # comment OPTIONS...: those of a file whose comment is "one".
  comment() {
    "$VQPACK" -q -v 4 -nc -e 0 -t one "$trace" file
    "$VQPACK" -q -v 4 -nc -e 0 "$@" file out
    tail -c +55 out | head -c -6 | tr '\n\0' '/.'
  }
  [ "$(comment)" = one. ]
  [ "$(comment -t two)" = one/two. ]
  [ "$(comment -t $'x\n' -t two)" = one/two. ]
  [ "$(comment -nt)" = . ]
  [ "$(comment -nt -t two)" = two. ]
  [ "$(comment -t two -nt)" = . ]
  "$VQPACK" -q -v 4 -t $'one\n' "$trace" file
  "$VQPACK" -q -v 4 -t two file out && grep -qaz $'one\ntwo' out
}

# points COUNT [FIRST]: that many lines of a sensitivity file.
points() { seq -f "%.0f 1 2 3 4 5 6 " "${2:-0}" $((${2:-0} + $1 - 1)); }

@test "sensitivity points: -s replaces, -S adds" {
  points 3 >three && points 2 3 >two && points 5 >five && : >none
  for options in "-s five" "-S five" "-s three -S five"; do
    "$VQPACK" -q -v 2 $options "$trace" wanted
  done
  "$VQPACK" -q -v 2 -s three "$trace" file
  "$VQPACK" -q -v 2 -S two file out && cmp wanted out
  "$VQPACK" -q -v 2 -s five file out && cmp wanted out
  "$VQPACK" -q -v 2 -S none file out && cmp file out
  "$VQPACK" -q -v 2 "$trace" wanted
  "$VQPACK" -q -v 2 -s none file out && cmp wanted out
}

@test "sensitivity files that are refused" {
  points 5 >old
  "$VQPACK" -q -v 2 -s old "$trace" file
  ends -255 "Can't read sensitivity file (-s/S)" "$VQPACK" -v 2 -s . "$trace" out
  # refused MESSAGE OPTION: with the file on standard input
  refused() {
    cat >new
    ends -255 "$1" "$VQPACK" -v 2 "$2" new file out
    [ ! -s out ]
  }
  points 255 >most
  "$VQPACK" -q -v 2 -s most "$trace" out
  { points 255; echo "0 9 1 1 1 1 1"; } | refused "Sensitivity file max is 255 data points, at record 256" -s
  points 251 5 | refused "Sensitivity file max is 255 data points, at record 251" -S
  for line in "" "1 2 3 4 5 6" "1 2 3 4 5 6 7 8" "1 2 3 4 5 6 7 x" "x"; do
    { points 2; echo "$line"; } | refused "Trouble parsing sensitivity file, at record 3" -s
  done
  points 1 256 | refused "Sensitivity cfg class out of range, at record 1" -s
  echo "255 65536 0 0 0 0 0" | refused "Sensitivity MLC size out of range, at record 1" -s
  { points 3; echo "1 1 2 9 9 9 9"; } | refused "Conflict in new sensitivity data, at record 4" -s
  { points 1 7; points 1 4; } | refused "Conflict in new sensitivity data, at record 2" -S
  base64 -d >file <<<UVUCTwAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAADcdCb6AAAAAAIBAgADAAAABAAAAAUAAAAGAAAABwAAAAECAAMAAAAIAAAACAAAAAgAAAAIAAAA/wAAAAA=
  points 1 7 | refused "Conflict in old sensitivity data, at record 2" -S
}

@test "the statistic line, the window and the limit of contexts" {
  # statistic OPTIONS...
  statistic() { "$VQPACK" "$@" "$trace" file |& sed 's/^QUBIX compressor used //; s/ contexts with average distance / /'; }
  [ "$(statistic)" = "18 2" ]
  [ "$(statistic -q -nq -C 1)" = "1 0" ]
  [ "$(statistic -d 0 -C 0)" = "5000 0" ]
  [ "$(statistic -d 0)" = "5000 0" ]
  [ "$(statistic -d 0 -C 4999)" = "4999 0" ]
  for options in -q "-v 0" "-v 5 -nc" "-e 0"; do [ -z "$(statistic $options)" ]; done
  # What is usual.
  seq -f 'MEMRD %.0f0000 0' 20000 >many
  [[ $("$VQPACK" many file 2>&1) = *" 16383 contexts "* ]]
  printf 'MEMRD 0 0\nMEMRD fff8 0\n' >apart
  [[ $("$VQPACK" apart file 2>&1) = *" 2 contexts "* ]]
}
