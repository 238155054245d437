"""Totals of parts, and the example that counts on a cluster."""

import concurrent.futures
import os
import pathlib
import pickle
import random
import signal
import subprocess
import sys
import time
from collections import Counter

import numpy as np
import pytest

import vqpack
from vqpack import _distinct

CLUSTER = pathlib.Path(__file__).parents[2] / "examples" / "cluster.py"


def make_trace(seed, length=3000):
    random_numbers = np.random.default_rng(seed)
    trace = np.zeros(length, vqpack.TRANSACTION)
    trace["address"] = random_numbers.integers(0, 1 << 20, length) * 8
    trace["agent"] = random_numbers.integers(0, 3, length)
    trace["type"] = random_numbers.choice([12, 20, 28, 46], length)
    return trace


@pytest.mark.parametrize("exact", [1 << 21, 20_000, 100])
def test_merging_equals_one_pass_in_any_order(exact, monkeypatch):
    monkeypatch.setattr(_distinct.Distinct, "EXACT", exact)
    parts = [make_trace(seed) for seed in range(8)]
    whole = np.concatenate(parts)
    wanted = vqpack.Totals().add(whole)
    choose = random.Random(exact)
    for _ in range(5):
        totals = [vqpack.Totals().add(part) for part in parts]
        while len(totals) > 1:
            other = totals.pop(choose.randrange(len(totals)))
            totals[choose.randrange(len(totals))].merge(pickle.loads(pickle.dumps(other)))
        assert totals[0].counts == wanted.counts
        assert (totals[0].lines, totals[0].lines_are_exact) == (wanted.lines, wanted.lines_are_exact)

    assert wanted.counts == Counter(zip(whole["type"].tolist(), whole["agent"].tolist()))
    sizes = {12: 16, 20: 32, 28: 64, 46: 0}
    assert wanted.bytes == sum(sizes[code] for code in whole["type"].tolist())
    lines = len(np.unique(whole["address"] // 64))
    assert wanted.lines_are_exact == (lines <= exact)
    assert wanted.lines == lines or not wanted.lines_are_exact


def test_estimate(monkeypatch):
    monkeypatch.setattr(_distinct.Distinct, "EXACT", 1000)
    distinct = _distinct.Distinct()
    for low in range(0, 500_000, 50_000):
        distinct.add(np.arange(low, low + 60_000, dtype="u8"))
    assert distinct.size == pytest.approx(510_000, rel=0.03)


def test_a_reader_is_pickled_as_what_it_reads(tmp_path):
    path = tmp_path / "run.qu"
    vqpack.write(path, make_trace(1))
    with vqpack.open(path, batch=100) as trace:
        next(trace)
        with pickle.loads(pickle.dumps(trace)) as again:
            assert len(next(again)) == 100 and len(again.read_all()) == 2900
    with open(path, "rb") as file, vqpack.open(file) as trace:
        with pytest.raises(TypeError, match="descriptor"):
            pickle.dumps(trace)


@pytest.fixture
def folder(tmp_path):
    """Traces, one of them damaged, and the totals of the others."""
    pytest.importorskip("distributed")
    wanted = vqpack.Totals()
    (tmp_path / "more").mkdir()
    for seed in range(20):
        trace = make_trace(seed)
        vqpack.write(tmp_path / ("more" if seed > 9 else "") / f"{seed:02}.qu", trace)
        if seed != 7:
            wanted.add(trace)
    damaged = tmp_path / "07.qu"
    damaged.write_bytes(damaged.read_bytes()[:-20])
    return tmp_path, wanted


def check(run, wanted):
    assert run.returncode == 1
    assert "07.qu: Input ends early" in run.stderr
    assert f"{wanted.transactions:,} transactions, {wanted.bytes:,} bytes" in run.stdout
    assert f"{wanted.lines:,} distinct lines" in run.stdout


def test_cluster(folder):
    path, wanted = folder
    command = [sys.executable, CLUSTER, path]
    check(subprocess.run(command, capture_output=True, text=True, timeout=100), wanted)


def test_cluster_loses_a_worker(folder, monkeypatch):
    path, wanted = folder
    monkeypatch.syspath_prepend(CLUSTER.parent)
    monkeypatch.setenv("PYTHONPATH", os.pathsep.join([*os.environ["PYTHONPATH"].split(os.pathsep),
                                                      str(CLUSTER.parent)]))
    import cluster
    from distributed import Client, LocalCluster

    paths = 20 * [str(file) for file in path.rglob("*.qu")]
    options = {"n_workers": 2, "threads_per_worker": 1, "dashboard_address": None}
    with LocalCluster(**options) as local, Client(local) as client:
        processes = client.run(os.getpid)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            counting = pool.submit(cluster.count_all, client, paths)
            time.sleep(0.2)
            assert not counting.done()
            os.kill(next(iter(processes.values())), signal.SIGKILL)
            totals, damaged = counting.result(timeout=100)
    assert totals.counts == {key: 20 * times for key, times in wanted.counts.items()}
    assert (totals.lines, list(damaged)) == (wanted.lines, [str(path / "07.qu")])
