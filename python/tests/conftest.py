"""Traces to test with, and what they hold according to other code than the module's."""

import os
import random
import subprocess

import numpy as np
import pytest

import vqpack

PROGRAM = os.environ["VQPACK_PROGRAM"]
FILE_TYPES = range(6)


def program(*arguments):
    """Runs vqpack(1), which has to succeed."""
    subprocess.run([PROGRAM, "-q", *map(str, arguments)], check=True)


def parse(text):
    """VELK text as the program writes it."""
    rows = [line.split() for line in text.splitlines()]
    return [
        (int(address, 16), int(agent, 16), int(count[0]) if count else 1, name)
        for name, address, agent, *count in rows
    ]


def rows(transactions):
    """Transactions of the module as parse() has them."""
    assert transactions.dtype == vqpack.TRANSACTION
    return [(a, g, c, vqpack.NAMES[t]) for a, g, c, t in transactions.tolist()]


def text_of(version, length=3000):
    """Text for a file type: every type name, runs, jumps, the highest values."""
    choose = random.Random(version)
    highest_agent = 255 if version < 4 else 65535
    lines, address = [], 0x1000
    for index in range(length):
        address += choose.choice([8, 64, 64, 64, -128, 8 * choose.randrange(1 << 30)])
        agent = choose.choice([0, 0, 3, highest_agent])
        name = vqpack.NAMES[index % 68] if index % 5 == 0 else "MEMRD64B"
        count = f" {choose.choice([0, 1, 2, 300, 2**32 - 1])}" if version in (3, 5) else ""
        odd = 5 if name.startswith("DEFR") else 0
        lines.append(f"{name} {address % 2**64 + odd:X} {agent:x}{count}\n")
    return "".join(lines) + f"MEMRD64B {2**64 - 8:X} 0\nIORD 0 0\n"


def arrays(version):
    """The highest values that a file type holds, one transaction of every type."""
    transactions = np.zeros(68, vqpack.TRANSACTION)
    # In 64 KiB, as 47 and 48 have no other bits.
    transactions["address"] = np.arange(68, dtype="u8") * 0x10000
    transactions["address"][-1] = 2**64 - 8
    transactions["agent"] = 255 if version < 4 else 65535
    transactions["count"] = 2**32 - 1 if version in (3, 5) else 1
    transactions["type"] = np.arange(68)
    return transactions


@pytest.fixture
def trace(tmp_path):
    """Returns the path of a trace of a file type, made by the program."""

    def make(version, *options, length=3000):
        text, path = tmp_path / "trace.velk", tmp_path / "trace.qu"
        text.write_text(text_of(version, length))
        program("-v", version, *options, text, path)
        return path

    return make
