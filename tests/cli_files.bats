# Files: which are refused, what names may look like, and that no process outlives a run.
load helpers

setup() { cd "$(mktemp -d -p "$BATS_TEST_TMPDIR")"; } # bats keeps files of its own around it

# shared ARGUMENT...: refused, and leaves its files as they are
shared() {
  local message="Input and output are the same file"
  [ "$1" != -s ] || message="Sensitivity file and output are the same file"
  local before=$(find . -type f -exec cksum {} +)
  run -255 --separate-stderr "$VQPACK" "$@"
  [ "$stderr" = "$message"$'\n\n'"See 'vqpack -h' for help" ] || { echo "$*: $stderr"; false; }
  [ "$(find . -type f -exec cksum {} +)" = "$before" ]
}

@test "an output that is read, too, is refused before it is opened" {
  "$VQPACK" -q "$trace" file
  gzip -k file
  echo 1 2 3 4 5 6 7 >points
  ln file hard
  ln -s file soft
  mkdir folder
  for name in file ./file hard soft folder/../file /dev/stdin /proc/self/fd/0; do
    shared file "$name" <file
    shared - "$name" <file
    shared -v 5 stdin "$name" <file
  done
  shared file.gz file.gz
  shared -s points -v 2 "$trace" points
  gzip -c file >found.gz
  shared found found.gz
  for command in '"$VQPACK" file >>hard' '"$VQPACK" <file >>soft' '"$VQPACK" soft /dev/stdout >>file'; do
    ends -255 "Input and output are the same file" bash -c "$command"
    zcat file.gz | cmp file -
  done
}

@test "inputs and outputs that may share a name" {
  "$VQPACK" -q /dev/null /dev/null
  "$VQPACK" -q - /dev/null </dev/null
  mkfifo pipe
  cat pipe >copy &
  "$VQPACK" -q "|cat '$trace'" pipe
  wait
  "$VQPACK" copy | cmp "$trace" -
  # The same name without the suffix is another file.
  gzip -c copy >copy2.gz
  "$VQPACK" copy2 copy2
  cmp "$trace" copy2
  # The two ends of a pipe have the same name.
  run timeout 5 bash -c '"$VQPACK" pipe /dev/null & "$VQPACK" -q "$SAMPLES/sort.velk" pipe && wait'
  [ "$status" -eq 0 ]
}

@test "names stay names" {
  local deep=$(printf 'd/%.0s' {1..2000})
  mkdir -p "$deep"
  for name in "a b.gz" '$(touch pwned).gz' "'; x.bz2" ./-x.gz $'new\nline.gz' '`touch pwned`;*.bz2' \
      "${deep}f" "${deep}g.gz" "$(printf 'x%.0s' {1..255})"; do
    "$VQPACK" -q "$trace" "$name"
    "$VQPACK" "$name" | cmp "$trace" -
  done
  [ "$(find . -type f | wc -l)" -eq 10 ] # one of them has two lines
  [ ! -e pwned ]
  [ "$(head -c2 "a b.gz" | od -An -tx1)" = " 1f 8b" ]
  [ "$(head -c3 "'; x.bz2")" = BZh ]
  for name in .gz .bz2 stdin 'end|'; do # not compressed; the last two name files for output alone
    "$VQPACK" -q "$trace" "$name"
    [ "$(head -c2 "$name")" = QU ]
  done
  ends -255 "-x unknown switch" "$VQPACK" -q "$trace" -x.gz
}

@test "an input is looked for under other names" {
  # found NAME FILE: which one is read
  found() { "$VQPACK" -q "$1" | "$VQPACK" | cmp "$2" -; }
  for n in 1 2 3; do sed 1,${n}d "$trace" >t$n; done
  bzip2 -c t1 >name.bz2 && found name t1
  gzip -c t2 >name.gz && found name t2
  cp t3 name && found name t3
  gzip -c t1 >none.gz.gz && cp none.gz.gz none.bz2.gz
  for name in none none.gz none.bz2; do
    ends -255 "Can't open input file" "$VQPACK" $name out
  done
}

@test "names that cannot be opened" {
  mkdir folder folder.gz
  : >file
  local long=$(printf 'x%.0s' {1..4000})
  for name in folder folder.gz missing/file missing/file.gz file/file "$long" "$long.gz" ""; do
    ends -255 "Can't open input file" "$VQPACK" "$name" out
    [ ! -e out ]
    ends -255 "Can't open output file" "$VQPACK" "$trace" "$name"
  done
}

@test "pipes with names are read once" {
  mkfifo pipe
  for options in "" "-v 0" "-v 4"; do
    cat "$trace" >pipe &
    timeout 20 "$VQPACK" -q $options pipe out
    "$VQPACK" out | cmp "$trace" -
    cat "$trace" | "$VQPACK" -q $options /dev/stdin out
    "$VQPACK" out | cmp "$trace" -
    # A file can be read twice by any name.
    "$VQPACK" -q $options "$trace" again
    "$VQPACK" -q $options /dev/stdin out <"$trace"
    cmp again out
  done
}

@test "no process outlives the run" {
  "$VQPACK" -q "$trace" file.gz
  { cat "$trace"; echo bad; } | bzip2 >bad.bz2
  head -c 1000 file.gz >short.gz
  ln -s /dev/full full.gz
  # The lock lasts until all who inherited it have ended.
  for arguments in "file.gz out" "file.gz out.gz" "file.gz missing/out" "file.gz file.gz" \
      "file.gz full.gz" "-v 0 -c file.gz out.gz" "-v 5 file.gz" '-p -v 1 "$trace" out.gz' \
      "-v 4 bad.bz2 out.gz" "-v 4 -ml 65536 file.gz out.gz" "short.gz out.gz" \
      '-v 0 "while cat \$trace; do :; done|" full.gz' "-s missing file.gz out.gz" \
      "-v 2 -s /dev/zero file.gz out.gz"; do
    eval "trace='$trace' flock lock \"$VQPACK\" -q $arguments" </dev/null 2>/dev/null || true
    flock -n lock true || { echo "$arguments"; false; }
  done
}
