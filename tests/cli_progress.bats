# Progress: a line on the terminal while a conversion lasts, and nothing of it anywhere else.
load helpers

setup() {
  cd "$BATS_TEST_TMPDIR"
  cp "$SAMPLES/sort.velk" trace.velk
  export trace=trace.velk
  # Its first line shows when the second part comes, the next with the third.
  export slow="(cat $trace $trace; sleep 2.2; cat $trace $trace; sleep 0.4; cat $trace $trace)|"
  statistics=$'QUBIX compressor used 43 contexts with average distance 2\r\n'
}

# on_terminal NAME COMMAND: in the background; all that reaches the terminal goes to the file NAME
on_terminal() {
  SHELL=/bin/bash script -qec "$2" /dev/null </dev/null >"$1" 3>&- &
}

# holds NAME TEXT: TEXT, to the byte, is what reached the terminal
holds() {
  printf %s "$2" | cmp "$1" - || { cat -A "$1"; false; }
}

# drew NAME PATTERN REST: lines of PATTERN were drawn there and wiped before REST, the last on it
drew() {
  local text=$(cat "$1"; echo .)
  [[ $text =~ ^($'\r'$2\ *)+$'\r'\ +$'\r'(.*)$ && ${BASH_REMATCH[-1]} = "$3." ]] || { cat -A "$1"; false; }
}

@test "a line appears, is renewed and is wiped before anything else is printed" {
  mkfifo points more
  on_terminal slow '"$VQPACK" "$slow" slow.qu'
  on_terminal narrow 'stty cols 19; "$VQPACK" "$slow" narrow.qu'
  on_terminal fault '"$VQPACK" "(cat $trace; sleep 2.2; cat $trace; echo fault)|" fault.qu'
  on_terminal full '"$VQPACK" "(head -n 1 $trace; sleep 2.2; cat $trace $trace)|" /dev/full'
  # The data for the header come late, so that the reading of the file takes long. The long one ends
  # with a line that is no transaction.
  on_terminal file 'sleep 2.2 >points & "$VQPACK" -v 4 -p -s points "$trace" file.qu'
  cp "$trace" long.velk
  truncate -s 200M long.velk
  on_terminal long 'sleep 2.2 >more & "$VQPACK" -v 4 -s more - long.qu <long.velk'
  wait

  drew slow '([0-9]{4}|[0-9]{2}\.[0-9] k) transactions, [0-9]{4}/s' "$statistics"
  grep -Eq $'^\r0%, [1-4]:[0-9]{2}:[0-9]{2} left, 256 transactions, [0-9]+/s' long
  [ "$(tr '\r' '\n' <slow | grep -c transactions)" -ge 2 ]
  "$VQPACK" slow.qu | cmp - <(cat "$trace"{,,,,,})
  drew narrow '([0-9]{4} transactions|[0-9]{4}/s)' "$statistics"
  grep -q $'\r *\rQUBIX.*\r$' fault
  grep -q '^Bad input line, at record 10001' fault
  drew full '[0-9.k ]+ transactions, [0-9]+/s' $'Can\'t write output\r\n'
  sed '1,/^Total/d' file >after_metadata
  drew after_metadata '59%, 0:0[2-9] left, 256 transactions, [0-9]+/s' \
    $'QUBIX compressor used 18 contexts with average distance 2\r\n'
}

@test "no line" {
  on_terminal short '"$VQPACK" "$trace" short.qu'
  on_terminal soon '"$VQPACK" "(cat $trace $trace; sleep 1.1; cat $trace)|" soon.qu'
  on_terminal quiet '"$VQPACK" -q "$slow" quiet.qu'
  on_terminal elsewhere '"$VQPACK" "$slow" elsewhere.qu 2>messages'
  on_terminal background 'set -m; "$VQPACK" "$slow" background.qu & set +m; wait'
  on_terminal pipe '"$VQPACK" "$slow" | cat >pipe.qu'
  on_terminal command '"$VQPACK" "$slow" "|cat >command.qu"'
  "$VQPACK" -q -v 0 "$trace" raw.qu
  on_terminal text '"$VQPACK" "(head -c 20000 raw.qu; sleep 2.2; tail -c +20001 raw.qu)|"'
  wait

  holds short $'QUBIX compressor used 18 contexts with average distance 2\r\n'
  run ! grep transactions soon
  holds quiet ""
  holds elsewhere ""
  printf %s "${statistics/$'\r'/}" | cmp messages -
  for name in background pipe command; do holds $name "$statistics"; done
  holds text "$(sed 's/$/\r/' "$trace")"$'\n'
}
