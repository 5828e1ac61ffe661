# SPDX-License-Identifier: Apache-2.0
"""What a run costs besides measuring: memory of client and scheduler, and the scheduler's time, with exposures that do
nothing.

    python3 tests/python/batch_memory.py COUNT [CHUNK, 0: by the rate] [local]
"""

import os
import resource
import sys
import tempfile
from pathlib import Path

import distributed
from batch_scene import own_cluster
from batch_tasks import Nothing

from kestrune import batch
from kestrune.batch.folder import RunFolder
from kestrune.batch.run import execute, executor_for


def run(count, chunk, client):
    with tempfile.TemporaryDirectory() as out:
        folder = RunFolder(Path(out), {}, False)
        source = (batch.Exposure("/l", "/r", f"e{k}") for k in range(count))
        summary = execute(source, count, folder, executor_for(Nothing(), client, 2, 1, None), chunk or None, None)
        folder.close()
    assert (summary.exposures, summary.failed) == (count, 0)
    return summary.seconds


def of_process(pid):
    """Memory in MB, the most of it, and seconds of processor."""
    lines = dict(line.split(":", 1) for line in Path(f"/proc/{pid}/status").read_text().splitlines())
    ticks = sum(map(int, Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[11:13]))
    return *(int(lines[f].split()[0]) / 1024 for f in ("VmRSS", "VmHWM")), ticks / os.sysconf("SC_CLK_TCK")


def main(count, chunk=0, where="cluster"):
    if where == "local":
        seconds, scheduler = run(count, chunk, None), ""
    else:
        with tempfile.TemporaryDirectory() as folder, own_cluster(folder) as (process, file), \
                distributed.Client(scheduler_file=file, timeout=60) as client:
            seconds = run(count, chunk, client)
            now, most, used = of_process(process.pid)
            scheduler = f"; scheduler {now:.0f} MB, at most {most:.0f} MB, {used / count * 1e3:.2f} ms an exposure"
    most = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024
    chunks = f"chunks of {chunk}" if chunk else "chunks by the rate"
    print(f"{count} exposures, {chunks}: {count / seconds:.0f}/s; client at most {most:.0f} MB{scheduler}")


if __name__ == "__main__":
    main(int(sys.argv[1]), *map(int, sys.argv[2:3]), *sys.argv[3:4])
