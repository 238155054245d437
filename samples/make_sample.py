#!/usr/bin/env python3
"""Runs a program under valgrind's lackey and writes what would cross its memory bus, as VELK text.

    samples/make_sample.py COMMAND... >trace.velk

The output of COMMAND is dropped. Ends with a status other than 0 if COMMAND does.

Models one write-back cache of 16 KiB, 4 ways, 64-byte lines, least recently used out first. A load
or store that misses reads the line (MEMRD64B, RDINV64B), an instruction that misses fetches it
(CDRD64B), and a modified line that has to go is written back (LNWR64B) after the read.
"""
import collections
import os
import subprocess
import sys

SETS, WAYS, LINE = 64, 4, 64


def transactions(accesses):
    cache = [collections.OrderedDict() for _ in range(SETS)]  # line -> modified, oldest first
    for kind, address in accesses:
        line = address // LINE
        ways = cache[line % SETS]
        modified = kind in "SM"
        if line in ways:
            ways[line] |= modified
            ways.move_to_end(line)
            continue
        yield {"I": "CDRD64B", "L": "MEMRD64B"}.get(kind, "RDINV64B"), line * LINE
        ways[line] = modified
        if len(ways) > WAYS:
            victim, was_modified = ways.popitem(last=False)
            if was_modified:
                yield "LNWR64B", victim * LINE


def lackey(command):
    reading, writing = os.pipe()  # of its own, so that what the command prints does not mix in
    run = subprocess.Popen(["valgrind", "--tool=lackey", "--trace-mem=yes", f"--log-fd={writing}",
                            *command], stdout=subprocess.DEVNULL, pass_fds=[writing])
    os.close(writing)
    with open(reading) as log:
        for text in log:
            if text[:2] in ("I ", " L", " S", " M"):
                yield text[:2].strip(), int(text[3:].split(",")[0], 16)
    if run.wait() != 0:
        sys.exit(f"{command[0]}: status {run.returncode}")


for name, address in transactions(lackey(sys.argv[1:])):
    print(f"{name:>10} {address:08X} 0")
