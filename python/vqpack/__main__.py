"""The command `python3 -m vqpack`: pictures of traces."""

from __future__ import annotations

import argparse
import sys
from contextlib import nullcontext
from typing import Any, Optional

import vqpack


def _numbers(text: str) -> list[int]:
    return [int(part, 16) for part in text.split(",")]


def _span(text: str) -> tuple[int, int]:
    low, _, high = text.partition("-")
    span = int(low or "0", 16), int(high, 16) + 1 if high else 1 << 64
    if not 0 <= span[0] < span[1] <= 1 << 64:
        raise ValueError
    return span


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="python3 -m vqpack", description=__doc__)
    commands = parser.add_subparsers(metavar="COMMAND", required=True)
    plot = commands.add_parser("plot", help="draw a trace", description="Draws a trace on a page.")
    plot.set_defaults(run=_plot)
    plot.add_argument("trace", help="VELK text or QUBIX, also as .gz or .bz2")
    plot.add_argument("-o", "--output", required=True, metavar="FILE", help=".png, .svg or .pdf")
    plot.add_argument(
        "--from", type=int, default=0, metavar="A", dest="begin", help="skip the first A"
    )
    plot.add_argument("--to", type=int, metavar="B", dest="end", help="stop after the first B")
    plot.add_argument("--agent", type=_numbers, metavar="LIST", help="of these, in hexadecimal")
    plot.add_argument("--type", metavar="LIST", help="of these, by name")
    plot.add_argument(
        "--address",
        type=_span,
        default=(0, 1 << 64),
        metavar="LO-HI",
        help="from LO to HI, in hexadecimal",
    )
    return parser


def _progress(total: Optional[int]) -> Any:
    """A context that gives what is called with each number of transactions read, or None."""
    if sys.stderr.isatty():
        try:
            from tqdm import tqdm
        except ImportError:
            pass
        else:
            return tqdm(total=total, unit=" transactions", unit_scale=True, leave=False)
    return nullcontext()


def _caption(name: str, metadata: vqpack.Metadata, summary: Any) -> str:
    kind = "text" if metadata.version < 0 else f"QUBIX type {metadata.version}"
    facts = [kind, f"{summary.size:,} transactions"]
    for value, what in (
        (metadata.instructions, "instructions"),
        (metadata.cycles, "cycles"),
        (metadata.threads, "threads"),
        (metadata.cache_size_kib, "KiB of cache"),
    ):
        if value:
            facts.append(f"{value:,} {what}")
    comment = (metadata.comment or "").strip().splitlines()
    return ", ".join(facts) + "".join(f"\n{line[:150]}" for line in comment[:2])


def _plot(arguments: argparse.Namespace) -> None:
    from . import plot

    with vqpack.open(arguments.trace, batch=1 << 18) as trace:
        codes = None
        if arguments.type:
            wanted = arguments.type.split(",")
            if unknown := set(wanted) - set(trace.names):
                raise ValueError(f"no such type: {', '.join(sorted(unknown))}")
            codes = [trace.names.index(name) for name in wanted]
        with _progress(trace.metadata.transactions) as shown:
            summary = plot.summarize(
                trace,
                arguments.begin,
                arguments.end,
                arguments.agent,
                codes,
                *arguments.address,
                progress=shown and shown.update,
            )
        caption = _caption(arguments.trace, trace.metadata, summary)
        plot.figure(summary, arguments.trace, trace.names, caption).savefig(arguments.output)


def main() -> int:
    """Runs the command; returns its exit status."""
    arguments = _parser().parse_args()
    try:
        arguments.run(arguments)
    except vqpack.Error as error:
        print(f"{arguments.trace}: {error}", file=sys.stderr)
        return 1
    except (ImportError, OSError, ValueError) as error:
        print(f"python3 -m vqpack: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
