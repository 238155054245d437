# Completion for vqtrace(1) in fish.

set -l commands info test split cat filter import export

complete -c vqtrace -n "not __fish_seen_subcommand_from $commands" -f -a "
  info\t'print what is in traces'
  test\t'read traces and say whether they are whole'
  split\t'cut a trace into parts'
  cat\t'join traces into one'
  filter\t'keep some of the transactions of a trace'
  import\t'make a trace of other tools’ ones'
  export\t'write a trace for another tool'"
complete -c vqtrace -s h -l help -d 'print a summary of the options'
complete -c vqtrace -n "not __fish_seen_subcommand_from $commands" -l version -d 'print the version'
complete -c vqtrace -n "__fish_seen_subcommand_from $commands" -s q -l quiet -d 'print neither progress nor statistics'

# The formats, as long as none is there.
set -l formats lackey champsim dramsim ramulator ramulator-rw ramulator-cpu stl gem5
set -l no_format "not __fish_seen_subcommand_from drmemtrace $formats"
complete -c vqtrace -n "__fish_seen_subcommand_from import export; and $no_format" -f -a "
  lackey\t'accesses, of valgrind'
  champsim\t'instructions'
  dramsim\t'requests with cycles'
  ramulator\t'loads and stores'
  ramulator-rw\t'reads and writes'
  ramulator-cpu\t'instruction counts and reads'
  stl\t'requests with cycles'
  gem5\t'packets with ticks'"
complete -c vqtrace -n "__fish_seen_subcommand_from import; and $no_format" -f -a "
  drmemtrace\t'accesses, as its view tool prints them'"

set -l types "
  0\t'raw, no header'
  1\t'coded, no header'
  2\t'with a header'
  3\t'with a header, with counts'
  4\t'long header, 16-bit agents'
  5\t'long header, 16-bit agents, with counts'"
complete -c vqtrace -n '__fish_seen_subcommand_from import' -s v -x -d 'write QUBIX of this type' -a $types
complete -c vqtrace -n '__fish_seen_subcommand_from split cat filter' -s v -x -d 'write this type of file' -a "$types
  text\t'VELK text'"

complete -c vqtrace -n '__fish_seen_subcommand_from info' -l json -d 'print one JSON object a file'
complete -c vqtrace -n '__fish_seen_subcommand_from info import' -l line -x -d 'size of a line' -a '8 16 32 64 128'
complete -c vqtrace -n '__fish_seen_subcommand_from split' -s n -l size -x -d 'transactions a part'
complete -c vqtrace -n '__fish_seen_subcommand_from filter' -l agent -x -d 'keep these agents'
complete -c vqtrace -n '__fish_seen_subcommand_from filter' -l type -x -d 'keep these types' -a "(__fish_append , read write \
  CDRD64B MEMRD64B RDINV64B IORD64B LNWR64B MEMWR64B WRINV64B IOWR64B)"
complete -c vqtrace -n '__fish_seen_subcommand_from filter' -l address -x -d 'keep these byte addresses, LO-HI'
complete -c vqtrace -n '__fish_seen_subcommand_from filter' -l from -x -d 'leave out the first A transactions'
complete -c vqtrace -n '__fish_seen_subcommand_from filter' -l to -x -d 'leave out all after the first B transactions'
complete -c vqtrace -n '__fish_seen_subcommand_from filter' -l every -x -d 'keep each K-th'
complete -c vqtrace -n '__fish_seen_subcommand_from import' -l cache -x -d 'caches before the bus' -a 'none 32K:8,1M:16'
complete -c vqtrace -n '__fish_seen_subcommand_from import' -l skip-bad -d 'leave out lines that fit no rule'
complete -c vqtrace -n '__fish_seen_subcommand_from import export' -l period -x -d 'units of time in one of the count'
