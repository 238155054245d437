"""The command `python3 -m vqpack`: pictures of traces."""

from __future__ import annotations

import argparse
import errno
import os
import sys
import warnings
from collections.abc import Iterator
from contextlib import contextmanager
from typing import Any, Optional

import vqpack

ALL = (0, 1 << 64)  # addresses


def _agents(text: str) -> list[int]:
    return [_number(part, 16, 1 << 32) for part in text.split(",")]


def _position(text: str) -> int:
    return _number(text, 10, 1 << 62)


def _addresses(text: str) -> tuple[int, int]:
    low, dash, high = text.partition("-")
    span = (_number(low, 16, 1 << 64), _number(high, 16, 1 << 64) + 1) if dash else (0, 0)
    if span[0] >= span[1]:
        raise argparse.ArgumentTypeError(f"{text!r} is no range of addresses, as 1000-1FFF")
    return span


def _number(text: str, base: int, limit: int) -> int:
    try:
        number = int(text, base)
    except ValueError:
        number = -1
    if not 0 <= number < limit:
        kind = "hexadecimal" if base == 16 else "decimal"
        raise argparse.ArgumentTypeError(f"{text!r} is no {kind} number below {limit:,}")
    return number


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="python3 -m vqpack", description=__doc__)
    commands = parser.add_subparsers(metavar="COMMAND", required=True)
    plot = commands.add_parser("plot", help="draw a trace", description="Draws a trace on a page.")
    plot.set_defaults(run=_plot)
    plot.add_argument("trace", help="VELK text or QUBIX, also as .gz or .bz2")
    plot.add_argument("-o", "--output", required=True, metavar="FILE", help=".png, .svg or .pdf")
    plot.add_argument(
        "--from", type=_position, default=0, metavar="A", dest="begin", help="skip the first A"
    )
    plot.add_argument(
        "--to", type=_position, metavar="B", dest="end", help="stop after the first B"
    )
    plot.add_argument("--agent", type=_agents, metavar="LIST", help="of these, in hexadecimal")
    plot.add_argument("--type", metavar="LIST", help="of these, by name")
    plot.add_argument(
        "--address",
        type=_addresses,
        default=ALL,
        metavar="LO-HI",
        help="from LO to HI, in hexadecimal",
    )
    return parser


@contextmanager
def _progress(total: Optional[int]) -> Iterator[Any]:
    """Gives what is called with each number of transactions read, or None."""
    if sys.stderr.isatty():
        try:
            from tqdm import tqdm
        except ImportError:
            pass
        else:
            with tqdm(total=total, unit=" transactions", unit_scale=True, leave=False) as bar:
                yield bar.update
            return
    yield None


def _caption(arguments: argparse.Namespace, metadata: vqpack.Metadata, drawn: int) -> str:
    """What the header says, what of the trace is drawn, and the start of the comment."""
    known, chosen = metadata.transactions, _choice(arguments)
    total = drawn if known is None and not chosen else known
    facts = ["text" if metadata.version < 0 else f"QUBIX type {metadata.version}"]
    for value, what in (
        (total, "transaction" if total == 1 else "transactions"),
        (metadata.instructions, "instructions"),
        (metadata.cycles, "cycles"),
        (metadata.threads, "threads"),
        (metadata.cache_size_kib, "KiB of cache"),
        (metadata.line_size, "bytes a line"),
    ):
        if value:
            facts.append(f"{value:,} {what}")
    lines = [", ".join(facts)]
    if chosen:
        lines.append(f"{drawn:,} of them chosen by {chosen}")
    lines += (metadata.comment or "").strip().splitlines()[:2]
    return "\n".join(line if len(line) <= 150 else f"{line[:147]}..." for line in lines)


def _choice(arguments: argparse.Namespace) -> str:
    """The options that choose what is drawn, as they would be given."""
    agents, (low, high) = arguments.agent, arguments.address
    options = {
        "--from": arguments.begin or None,
        "--to": arguments.end,
        "--agent": agents and ",".join(f"{agent:X}" for agent in agents),
        "--type": arguments.type,
        "--address": None if (low, high) == ALL else f"{low:X}-{high - 1:X}",
    }
    return " ".join(f"{name} {value}" for name, value in options.items() if value is not None)


def _plot(arguments: argparse.Namespace) -> None:
    from . import plot

    _check_output(arguments.output)  # before hours of reading
    low, high = arguments.address
    with vqpack.open(arguments.trace, batch=1 << 18) as trace:
        codes = None if arguments.type is None else _codes(arguments.type, trace.names)
        ends = (trace.metadata.transactions, arguments.end)
        total = min((end for end in ends if end is not None), default=None)
        with _progress(total) as progress:
            summary = plot.summarize(
                trace,
                arguments.begin,
                arguments.end,
                arguments.agent,
                codes,
                low,
                high,
                progress,
            )
        caption = _caption(arguments, trace.metadata, summary.size)
        page = plot.figure(summary, arguments.trace, trace.names, caption)
    with warnings.catch_warnings():  # of letters that the font has not
        warnings.filterwarnings("ignore", "Glyph")
        page.savefig(arguments.output)


def _check_output(name: str) -> None:
    from matplotlib.figure import Figure

    ending = os.path.splitext(name)[1][1:].lower()
    if ending not in Figure().canvas.get_supported_filetypes():
        raise ValueError(f"the format of {name!r} is not supported; .png, .svg and .pdf are")
    folder = os.path.dirname(name) or "."
    if not os.path.isdir(folder):
        raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), folder)


def _codes(wanted: str, names: tuple[str, ...]) -> list[int]:
    """The codes of types by name; a file's own names may repeat."""
    chosen = [name.strip() for name in wanted.split(",")]
    for name in chosen:
        if name not in names:
            raise ValueError(f"no such type: {name}")
    return [code for code, name in enumerate(names) if name in chosen]


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
