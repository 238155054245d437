# vqtrace: each sub-command against awk or another program, bad input, and where outputs go.
load helpers

setup() { cd "$BATS_TEST_TMPDIR"; }

vqtrace() { "$VQTRACE" "$@"; }

# text_of FILE: its transactions with single blanks
text_of() { "$VQPACK" "$1" | awk '{ $1 = $1 } 1'; }

# json FILE EXPRESSION: of what info says
json() { vqtrace info --json "$1" | python3 -c "import json, sys; info = json.load(sys.stdin); print($2)"; }

# champsim_record IP STORE STORE LOAD LOAD LOAD LOAD
champsim_record() {
  python3 -c 'import struct, sys; v = [int(a, 0) for a in sys.argv[1:]]
sys.stdout.buffer.write(struct.pack("<Q8s6Q", v[0], b"branches", *v[1:]))' "$@"
}

@test "import: what becomes of each kind of line" {
  # Arguments, input with ; for ends of lines, transactions
  while IFS='|' read -r arguments input wanted; do
    printf '%b' "${input//;/\\n}" >in
    vqtrace import $arguments in out.qu || { echo "$arguments"; false; }
    [ "$(text_of out.qu | paste -sd ';')" = "$wanted" ] || { echo "$arguments"; text_of out.qu; false; }
  done <<'ROWS'
lackey --cache none|==1== x;I  04001000,3; L 1ffeffe7fc,8; S 1FFEFFE7E8,8; M 0,4;\r;|CDRD64B 04001000 0 1;MEMRD64B 1FFEFFE7C0 0 1;MEMRD64B 1FFEFFE800 0 0;MEMWR64B 1FFEFFE7C0 0 1;MEMRD64B 00000000 0 1;MEMWR64B 00000000 0 0
lackey --cache 128:1|I  40,3;I  43,3; L 40,8; M 0,4; S 80,4; L 100,8; L 80,8|CDRD64B 00000040 0 1;MEMRD64B 00000040 0 2;RDINV64B 00000000 0 1;RDINV64B 00000080 0 1;LNWR64B 00000000 0 0;MEMRD64B 00000100 0 1;LNWR64B 00000080 0 0;MEMRD64B 00000080 0 1
drmemtrace --cache none|Output format:;<--record#->;-----; 1  0: 32 <marker: version 5>; 2 1: 32 ifetch 3 byte(s) @ 0x0000000000401000 48 89 e7  mov %rsp, %rdi; 2 1: 32               00 0f; 3 1: W0.T32 write  8 byte(s) @ 0x00007ffd8e5a2a88 by PC 0x1; 4: T32 read 8 byte(s) @ 0x80; 5 1: 32 prefetch 64 byte(s) @ 0x40; 6 1: 32 <thread 32 exited>;View tool results:; 1 : total instructions|CDRD64B 00401000 0 1;MEMWR64B 7FFD8E5A2A80 0 1;MEMRD64B 00000080 0 1
dramsim|0x12345680 READ 30; # x;7f WRITE 35;0xFFFFFFFFFFFFFFC1 P_MEM_RD 35|MEMRD64B 12345680 0 30;MEMWR64B 00000040 0 5;MEMRD64B FFFFFFFFFFFFFFC0 0 0
dramsim --line 32 -v 1|0x12345670 READ 30|MEMRD32B 12345660 0
ramulator|LD 0x80;ST 193;|MEMRD64B 00000080 0 1;MEMWR64B 000000C0 0 1
ramulator-rw|0x80 R;C1 W|MEMRD64B 00000080 0 1;MEMWR64B 000000C0 0 1
ramulator|3 128;0 0x100 192|MEMRD64B 00000080 0 4;MEMRD64B 00000100 0 1;MEMWR64B 000000C0 0 0
stl|# x;31: read 0x400140;40: write 0x400180 0xdeadbeef;40: (128) read 0x0|MEMRD64B 00400140 0 31;MEMWR64B 00400180 0 9;MEMRD64B 00000000 0 0;MEMRD64B 00000040 0 0
gem5 --period 500|r,128,64,4000;7,w,100,64,4999;u,0,4,4999;r,0,4,257,5000,12345|MEMRD64B 00000080 0 8;MEMWR64B 00000040 0 1;MEMWR64B 00000080 0 0;MEMRD64B 00000000 0 1
gem5|r,0,4,9000000000|MEMRD64B 00000000 0 4294967295
ROWS
  { champsim_record 0x401000 0x7fff40 0 0x80 0 0 0; champsim_record 0x401004 0 0 0 0 0 0x1040; } >in
  vqtrace import champsim --cache none - - <in >out.qu
  [ "$(text_of out.qu | paste -sd ';')" = "CDRD64B 00401000 0 1;MEMRD64B 00000080 0 1;MEMWR64B 007FFF40 0 1;CDRD64B 00401000 0 1;MEMRD64B 00001040 0 1" ]
}

@test "import: inputs are agents, in the order of their times" {
  printf '%s\n' '0x0 READ 1' '0x40 READ 5' '0x80 READ 6' >a
  printf '%s\n' '0x100 READ 2' '0x140 READ 6' >b
  vqtrace import dramsim a b out.qu
  [ "$(text_of out.qu | cut -d ' ' -f 2- | paste -sd ';')" = "00000000 0 1;00000100 1 1;00000040 0 3;00000080 0 1;00000140 1 0" ]
  vqtrace import dramsim b a out.qu
  [ "$(text_of out.qu | cut -d ' ' -f 2- | paste -sd ';')" = "00000000 1 1;00000100 0 1;00000040 1 3;00000140 0 1;00000080 1 0" ]
}

@test "import: a line that fits no rule ends it, or is left out" {
  while IFS='|' read -r format good bad; do
    printf '%b\n' "$good" "$good" "$bad" "$good" >in
    run -1 vqtrace import "$format" -q --line 4096 in out.qu
    [ "$output" = "in: line 3 fits no rule of $format" ] || { echo "$format $bad: $output"; false; }
    vqtrace test -q out.qu
    run -0 vqtrace import "$format" --skip-bad in out.qu
    [ "${lines[-1]}" = "in: lines left out: 1" ]
  done <<'ROWS'
lackey|I  40,4| L 40
lackey|I  40,4| L 40,4 5
lackey|I  40,4| L 40,0
lackey|I  40,4| S 40,99999
lackey|I  40,4| S fffffffffffffffe,4
lackey|I  40,4| X 40,4
lackey|I  40,4|Killed
drmemtrace|1 1: 5 read 8 byte(s) @ 0x40|1 1: 5 read 8 byte(s) @ 40
drmemtrace|1 1: 5 read 8 byte(s) @ 0x40|Segmentation fault
dramsim|0x40 READ 5|0x40 READS 5
dramsim|0x40 READ 5|4G READ 5
dramsim|0x40 READ 5|0x10000000000000000 READ 5
ramulator|LD 0x40|LD 40W
ramulator|LD 0x40|0x40 RW
ramulator|LD 0x40|1 2 3 4
ramulator|LD 0x40|18446744073709551615 2
stl|5: read 0x40|5 read 0x40
stl|5: read 0x40|5: read 0x40z
gem5|r,64,64,5|x,64,64,5
gem5|r,64,64,5|r,64,64
gem5|r,64,64,5|r,64,64,5,6,7,8
ROWS
  { printf '0x40 READ 5\n'; head -c 100000 /dev/zero | tr '\0' 1; printf '\n0x80 READ 6\n'; } >in
  run -0 vqtrace import dramsim --skip-bad in out.qu
  [ "$output" = "in: lines left out: 1" ]
  [ "$(text_of out.qu | wc -l)" = 2 ]
  printf '0x40 READ 5\n%70000s\n' '0x80 READ 6' >in
  ends -1 "in: line 2 fits no rule of dramsim" "$VQTRACE" import dramsim in out.qu
  printf '0x40 READ 5\n0x80 READ 4\n' >in
  ends -1 "in: line 2 is of an earlier time than the one before" "$VQTRACE" import dramsim in out.qu
  yes '0x40 READ 5' | head -9999 | gzip | head -c 50 >in.gz
  run -1 --separate-stderr vqtrace import dramsim in.gz out.qu
  [ "${stderr_lines[-1]}" = "in.gz: Can't read input" ]
  head -c 100 /dev/zero >in
  ends -1 "in: record 2 fits no rule of champsim" "$VQTRACE" import champsim in out.qu
}

@test "export: what was imported, and what has no place" {
  # Formats, their options, lines
  while IFS='|' read -r arguments lines; do
    printf '%b' "${lines//;/\\n}" >in
    vqtrace import $arguments in out.qu
    vqtrace export $arguments out.qu out
    cmp in out || { echo "$arguments"; cat out; false; }
  done <<'ROWS'
dramsim|0x12345680 READ 30;0x40 WRITE 35;0xffffffffffffffc0 READ 35;
ramulator|LD 0x12345680;ST 0x40;
ramulator-rw|0x12345680 R;0x40 W;
ramulator-cpu|3 20734016;0 20846400 20734016;7 64 128;
stl|31: read 0x400140;40: write 0x400180;
gem5 --period 500|r,128,64,4000;w,4096,64,4500;
ROWS
  printf '%s\n' 'CDRD64B 40 0 3' 'INTA 0 0 4' 'LNWR32B 80 1 5' 'MEMWR 10 0 0' >in
  vqtrace export lackey in out 2>messages
  printf '%s\n' 'I  00000040,64' ' S 00000080,32' ' S 00000010,8' | cmp - out
  [ "$(cat messages)" = "Transactions left out, for which lackey has no place: 1" ]
  ends -0 "Transactions left out, for which ramulator-cpu has no place: 2" \
    "$VQTRACE" export ramulator-cpu in out
  printf '2 64 128\n' | cmp - out
  printf '%s\n' 'CDRD64B 00000040 0 1' 'MEMRD64B 00000080 0 1' 'MEMWR64B 000000C0 0 1' >in
  vqtrace export champsim in - | vqtrace import champsim --cache none - out.qu
  text_of out.qu | cmp in -
}

@test "the way from a program to a simulator; another simulator finds as many misses" {
  seq 300 | sort -R --random-source="$VQPACK" >file
  valgrind --tool=lackey --trace-mem=yes --log-fd=3 sort -n file 3>&1 >/dev/null |
    vqtrace import lackey --cache 16K:4 - sort.qu 2>statistics
  valgrind --tool=cachegrind --cache-sim=yes --I1=16384,4,64 --D1=16384,4,64 --LL=65536,8,64 \
    --cachegrind-out-file=/dev/null --log-fd=3 sort -n file 3>other >/dev/null
  for cache in I1 D1; do
    misses=$(sed -n "s/^$cache: .* accesses, \([0-9]*\) misses.*/\1/p" statistics)
    [ "$misses" -gt 1000 ]
    [ "$misses" = "$(sed -n "s/.*$cache *misses: *\([0-9,]*\).*/\1/p" other | tr -d ,)" ]
  done
  [ "$(json sort.qu 'info["header"]["instructions"]')" = "$(sed -n 's/.*I *refs: *//p' other | tr -d ,)" ]
  [ "$(json sort.qu 'info["whole"], info["types"]["CDRD64B"] > 0, info["writes"] > 0')" = "True True True" ]
  vqtrace export ramulator sort.qu sort.trace
  [ "$(grep -c '^LD 0x' sort.trace)" = "$(json sort.qu 'info["reads"]')" ]
}

@test "info counts what awk counts" {
  "$VQPACK" -q -v 5 -t $'a "comment"\e' -mi 12 "$trace" file.qu
  for file in "$trace" file.qu; do
    [ "$(json $file 'info["transactions"], info["reads"], info["writes"], info["types"]["CDRD64B"], info["agents"]')" = \
      "$(awk '{ ++n; if (/LNWR|MEMWR/) ++w; if (/CDRD/) ++c } END { printf "%d %d %d %d {\0470\047: %d}\n", n, n - w, w, c, n }' "$trace")" ]
    [ "$(json $file 'info["lines"], info["lines_exact"]')" = "$(awk '{ print $2 }' "$trace" | sort -u | wc -l) True" ]
    [ "$(json $file '"%08X %X" % (info["lowest_address"], info["highest_address"])')" = \
      "$(awk '{ printf "%17s\n", $2 }' "$trace" | sort | awk '{ $1 = $1 } NR == 1 { low = $1 } END { print low, $1 }')" ]
  done
  printf 'MEMRD64B %s FFFFFFFF\n' 0 40 50 80 80 100 >lines
  [ "$(json lines 'info["sequential"], info["lines"]')" = "2 4" ]
  [ "$(vqtrace info --line 256 --json lines | grep -o '"lines":[0-9]*')" = '"lines":2' ]
  echo 1 2 3 4 5 6 7 >points
  "$VQPACK" -q -v 4 -s points "$trace" points.qu
  run -0 vqtrace info file.qu points.qu
  [[ $output = *'comment               a "comment"?'*"5,000"*"LLC 3: 4 instructions, 5 cycles, 6 LLC references, 7 misses"* ]]
  head -c 2000 file.qu >cut.qu
  run -1 --separate-stderr vqtrace info --json cut.qu "$trace" nothing
  [[ ${#lines[@]} = 2 && ${lines[0]} = *'"whole":false'* && ${stderr_lines[0]} = "cut.qu: Input ends early"* ]]
  [ "${stderr_lines[1]}" = "nothing: Can't open input file" ]
}

@test "test names each file that is not whole" {
  for number in 1 2 3 4 5 6; do "$VQPACK" -q -v 4 "$trace" $number.qu; done
  printf '\377' | dd of=2.qu bs=1 seek=3000 conv=notrunc status=none
  head -c 4000 "$trace" >4.qu
  : >5.qu
  gzip -c "$trace" >6.gz && truncate -s -4 6.gz
  run -1 --separate-stderr vqtrace test [1-5].qu 6.gz 7.qu
  [[ ${lines[0]} = "1.qu: ok" && ${lines[1]} = "2.qu: "*", at record "* && ${lines[2]} = "3.qu: ok" ]]
  [[ ${lines[3]} = "4.qu: Bad input line, at record "* && ${lines[4]} = "5.qu: ok" ]]
  [[ ${lines[5]} = "6.gz: Can't read input" && ${lines[6]} = "7.qu: Can't open input file" ]]
  ends -1 "" "$VQTRACE" test -q 2.qu
  ends -0 "" "$VQTRACE" test -q 1.qu 3.qu
}

@test "split and cat: the parts are whole, and together what they were cut from" {
  awk '{ print $0, NR % 7 }' "$trace" >counted
  for version in 0 1 2 3 4 5 text; do
    # Metadata: 1000 instructions for 5000 transactions
    [ $version = text ] && cp counted whole || "$VQPACK" -q -v $version -mi 1000 -mc 3 -t words counted whole
    rm -f part*
    vqtrace split -n 2000 whole 'part%%.%03d'
    [ "$(echo part*)" = "part%.000 part%.001 part%.002" ]
    vqtrace test -q part*
    vqtrace cat part* joined
    cmp whole joined || { echo "$version"; false; }
  done
  "$VQPACK" -q -v 4 -nc -mi 1000 -t words "$trace" whole
  vqtrace split -n 2000 whole %d.gz
  [ "$(json 2.gz 'info["transactions"], info["header"]["instructions"], info["header"]["comment"], info["coded"]')" = "1000 200 words False" ]
  vqtrace cat -v text 0.gz 1.gz 2.gz - | cmp "$trace" -
  "$VQPACK" -q "$trace" one
  ends -255 "one: has another file type than whole; choose one with -v" "$VQTRACE" cat whole one joined
  vqtrace cat -v 3 whole one joined
  "$VQPACK" -q -v 2 -mi 4000000000 "$trace" many
  ends -255 "many: the totals become too large for the file type" "$VQTRACE" cat many many joined
  [ "$(vqtrace info --json joined | grep -o '"transactions":[0-9]*' | tail -1)" = '"transactions":10000' ]
  for pattern in part part%s %d%d %4d %099d; do
    run -255 vqtrace split -n 2 whole $pattern
  done
  "$VQPACK" -q -e 0 "$trace" empty
  vqtrace split -n 10 empty 'empty.%d'
  [ "$(text_of empty.0 | wc -l)" = 0 ]
}

@test "filter takes what awk takes" {
  awk '{ printf "%s %s %x %d\n", $1, $2, NR % 3, NR }' "$trace" >text
  "$VQPACK" -q -v 5 text whole
  while IFS='|' read -r arguments condition; do
    awk "$condition" text >wanted
    vqtrace filter $arguments whole out.qu
    text_of out.qu | cmp wanted - || { echo "$arguments"; false; }
    vqtrace filter -v text $arguments whole - | awk '{ $1 = $1 } 1' | cmp wanted -
  done <<'ROWS'
|1
--agent 0,2|$3 != 1
--type LNWR64B,CDRD64B|$1 ~ /LNWR|CDRD/
--type write --agent 1|$1 ~ /LNWR/ && $3 == 1
--type read|$1 !~ /LNWR/
--address 4A8BB80-0x4A8CB80|length($2) == 8 && $2 >= "04A8BB80" && $2 <= "04A8CB80"
--address 1000000000-|length($2) > 8
--from 100 --to 4000 --every 3|NR > 100 && NR <= 4000 && (NR - 101) % 3 == 0
--from 9 --to 5|0
ROWS
  printf 'MEMRD64B %s\n' '40 0' '80 0 3' 'oops' 'C0 0' >bad
  ends -1 "bad: Bad input line, at record 3" "$VQTRACE" filter bad out
  [ "$(wc -l <out)" = 2 ]
  sed -i 1,2d bad
  ends -1 "bad: Bad input line, at record 1" "$VQTRACE" filter bad out
  rm out
  for arguments in "--type NOTHING" "--agent x" "--agent 1,g" "--address 5-4" "--address 5" "--every 0" "--from -1"; do
    run -255 vqtrace filter $arguments whole out
    [ ! -e out ]
  done
}

@test "an output is whole, or is not there" {
  "$VQPACK" -q -v 3 "$trace" whole
  head -c 3000 whole >cut
  for command in "filter cut out.qu" "cat cut out.qu" "cat whole cut out.qu" "split -n 99999 cut out%d.qu"; do
    rm -f out*
    run -1 vqtrace $command
    [[ $output = "cut: Input ends early, at record "* ]]
    vqtrace test -q out*.qu
  done
  rm out*
  echo old >out
  echo "MEMRD64B 40 100" >wide
  for command in "filter wide -v 1 out" "filter whole /dev/full" "cat whole wide -v 3 out" "export stl whole /dev/full" \
      "filter whole nowhere/out" "cat none out" "export stl whole whole" "cat whole wide -v 5 wide" "import stl nothing out" "import stl |false out" "cat - - out"; do
    run -255 vqtrace $command <wide
    [ "$(cat out)" = old ] || { echo "$command"; false; }
  done
  [ "$(echo $(ls -A))" = "cut out whole wide" ]
  ends -255 "wide: Input and output are the same file" "$VQTRACE" filter wide ./wide
  mkfifo slow
  "$VQTRACE" filter slow out &
  exec 9>slow
  cat "$trace" >&9
  until ls -A | grep -q .new; do sleep 0.1; done
  kill $!
  wait $! || [ $? = 143 ]
  exec 9>&-
  [ "$(cat out)" = old ] && ! ls -A | grep .new
  (ulimit -f 1 && trap '' XFSZ && run -255 vqtrace filter -v 0 "$trace" out)
  run -255 bash -c "\"$VQTRACE\" info whole >/dev/full"
}

@test "arguments that are refused" {
  for arguments in "" nothing info "test --what" "split whole %d" "split -n 0 whole %d" "cat one" "import lackey in" \
      "import what in out" "export drmemtrace in out" "import dramsim --cache 1K:1 in out" "import lackey --line 48 in out" \
      "import lackey --cache 3K:8 in out" "filter -v 6 in out"; do
    run -255 vqtrace $arguments
    [[ $output != *"Can't open"* ]] || { echo "$arguments: $output"; false; }
  done
  run -0 vqtrace --help
  [[ $output = *export* ]]
  [[ $(vqtrace --version) = "vqtrace "[0-9]* ]]
}

@test "the manual page and the completions know every option" {
  for command in info test split cat filter import export; do
    for option in $(vqtrace $command --help | grep -oE -- '--[a-z-]+' | cut -c 3-); do
      grep -qE "Fl \\\\?-$option" "$SOURCE"/man/vqtrace.1
      grep -q -- "--$option" "$SOURCE"/completions/vqtrace.bash
      grep -q -- "--$option" "$SOURCE"/completions/_vqtrace
      grep -q -- "-l $option" "$SOURCE"/completions/vqtrace.fish
    done
  done
}
