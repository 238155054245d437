#!/usr/bin/env python3
"""Counts a folder of traces on many machines, with dask.distributed.

    cluster.py FOLDER [--scheduler ADDRESS | --workers N]

Prints transactions by type and agent, the bytes that they move, and the distinct lines of 64 bytes
that they touch, of all traces in the folder and its subfolders together. Without an address it
starts workers on this machine, one a processor. A damaged trace is named and left out, and the
others are counted; a worker that is lost has its traces counted again by the others. Ends with 1 if
a trace was damaged.

The workers need this module's packages and see the folder under the same name.
"""

import argparse
import contextlib
import os
import pathlib
import signal
import sys

import dask
from distributed import Client, KilledWorker, LocalCluster, as_completed

import vqpack

GROUP = 8  # results that are merged at a time


def count(path):
    """Returns the totals of one trace, and what is wrong with it: {name: message}."""
    totals = vqpack.Totals()
    try:
        with vqpack.open(path, batch=1 << 18) as trace:
            for transactions in trace:
                totals.add(transactions)
    except (vqpack.Error, OSError) as error:
        return vqpack.Totals(), {path: str(error)}
    return totals, {}


def merge(results):
    """Merges what count() or merge() returned."""
    totals, damaged = vqpack.Totals(), {}
    for part, faults in results:
        totals.merge(part)
        damaged |= faults
    return totals, damaged


def show_progress(counted):
    """Shows on a terminal how many of the traces have been counted."""
    if not sys.stderr.isatty():
        return
    for done, _ in enumerate(as_completed(counted), 1):
        print(f"\r{done} of {len(counted)} traces", end="", file=sys.stderr, flush=True)
    print(file=sys.stderr)


def count_all(client, paths):
    """Counts traces, one a task, and merges the results in a tree."""
    results = counted = client.map(count, paths, pure=False)
    while len(results) > 1:
        groups = [results[i : i + GROUP] for i in range(0, len(results), GROUP)]
        results = [client.submit(merge, group, pure=False) for group in groups]
    show_progress(counted)
    return results[0].result()


def start_workers(number):
    """Starts workers on this machine; Ctrl-C reaches this process alone."""
    # By default they give freed memory back at once, which costs a quarter of their time here.
    dask.config.set({"distributed.nanny.pre-spawn-environ": {}})
    handler = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        return LocalCluster(n_workers=number, threads_per_worker=1, dashboard_address=None)
    finally:
        signal.signal(signal.SIGINT, handler)


def print_totals(totals):
    print(f"{'type':16} {'agent':>5} {'transactions':>15}")
    for (code, agent), times in sorted(totals.counts.items()):
        name = vqpack.NAMES[code] if code < len(vqpack.NAMES) else code
        print(f"{name:16} {agent:>5X} {times:>15,}")
    about = "" if totals.lines_are_exact else "about "
    print(f"\n{totals.transactions:,} transactions, {totals.bytes:,} bytes moved, "
          f"{about}{totals.lines:,} distinct lines of 64 bytes")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--scheduler", metavar="ADDRESS", help="as tcp://host:8786")
    parser.add_argument("--workers", type=int, default=os.cpu_count(), help="on this machine")
    arguments = parser.parse_args()
    paths = sorted(str(path.resolve()) for path in arguments.folder.rglob("*") if path.is_file())
    if not paths:
        sys.exit(f"no files in {arguments.folder}")
    try:
        with contextlib.ExitStack() as stack:
            where = arguments.scheduler
            if where is None:
                where = stack.enter_context(start_workers(max(arguments.workers, 1)))
            client = stack.enter_context(Client(where))
            totals, damaged = count_all(client, paths)
    except (OSError, ValueError, KilledWorker) as error:
        sys.exit(f"cluster.py: {error}")
    except KeyboardInterrupt:
        return 130
    print_totals(totals)
    for name, fault in damaged.items():
        print(f"{name}: {fault}", file=sys.stderr)
    return 1 if damaged else 0


if __name__ == "__main__":
    sys.exit(main())
