# SPDX-License-Identifier: Apache-2.0
import os
import random
import signal
import threading
import time

import pytest
from batch_scene import Scene, own_cluster, run_task, same
from batch_tasks import Task

from kestrune import batch

dask = pytest.importorskip("dask")
distributed = pytest.importorskip("distributed")


@pytest.fixture
def cluster(tmp_path):
    dask.config.set({"distributed.deploy.lost-worker-timeout": "1h",  # killed ones come again, however slowly
                     "distributed.scheduler.allowed-failures": 1})
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                                  local_directory=str(tmp_path / "dask")) as cluster:
        yield cluster


def test_workers_killed_at_random(cluster, tmp_path):
    count, killed, scene = 2000, [], Scene(tmp_path)

    def kill(progress):
        # One that is killed while it starts can make its nanny miss the next one's start, and then Dask (2024.12) waits
        # for that start without end when the cluster is closed.
        pids = [nanny.pid for nanny in cluster.workers.values()
                if nanny.pid and nanny.process.status == distributed.Status.running]
        if pids and progress.done >= 100 * (1 + len(killed)) + random.randrange(200):
            killed.append(random.choice(pids))
            os.kill(killed[-1], signal.SIGKILL)

    with distributed.Client(cluster) as client:
        summary = batch.measure(scene.many(count), scene.settings, scene.rig, tmp_path / "out", client=client, chunk=20,
                                progress=kill)
    assert len(killed) >= 3 and (summary.exposures, summary.failed) == (count, 0)
    same(batch.read(tmp_path / "out"), scene.expected(count, tmp_path / "one"))


def test_a_lost_scheduler_is_told_and_resume_does_what_is_missing(tmp_path):
    log, out, names = tmp_path / "log", tmp_path / "out", [f"e{k}" for k in range(200)]
    for killed in (True, False):
        with own_cluster(tmp_path) as (scheduler, file), distributed.Client(scheduler_file=file, timeout=30) as client:
            done = log.read_text().split() if log.exists() else []
            if killed:
                threading.Thread(target=lambda: (wait_for(log, 60), scheduler.kill())).start()
                with pytest.raises(batch.RunInterrupted, match="go on with resume"):
                    run_task(Task(log, 0.02), names, out, client=client)
                kept = set(batch.read(out).exposures.exposure)
            else:
                summary, rows = run_task(Task(log), names, out, resume=True, client=client)
    assert 0 < len(kept) < 200 and (summary.exposures, summary.measured) == (200, 200 - len(kept))
    assert list(rows.index) == names
    assert sorted(log.read_text().split()[len(done):]) == sorted(set(names) - kept)


def wait_for(log, lines):
    while not log.exists() or len(log.read_text().split()) < lines:
        time.sleep(0.05)


def test_what_ends_its_child_or_its_workers_is_given_up(cluster, tmp_path, monkeypatch):
    monkeypatch.setattr("kestrune.batch.cluster._ROUNDS", 1)  # each takes seconds, until workers are there again
    log, names = tmp_path / "log", ["a", "segfault", "b", "worker", "c", "d", "e", "f"]
    with distributed.Client(cluster) as client:
        summary, rows = run_task(Task(log), names, tmp_path / "out", client=client)
    assert (summary.exposures, summary.failed) == (8, 2)
    assert rows.reason["segfault"] == "ended its process three times: signal 11 (SIGSEGV)"
    assert "its workers were killed again and again" in rows.reason["worker"]


def test_a_closed_client_interrupts(cluster, tmp_path):
    client = distributed.Client(cluster)
    log = tmp_path / "log"
    threading.Thread(target=lambda: (wait_for(log, 30), client.close())).start()
    with pytest.raises(batch.RunInterrupted):
        run_task(Task(log, 0.05), (f"e{k}" for k in range(1000)), tmp_path / "out", client=client)
    assert len(batch.read(tmp_path / "out").exposures) > 0
