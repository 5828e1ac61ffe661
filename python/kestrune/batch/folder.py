# SPDX-License-Identifier: Apache-2.0
"""The folder of a run: what it was begun with, its journal, its tables.

A part is written under another name, made to last and renamed; then the journal tells of it in one transaction.
Whatever is killed in between leaves a part that the journal does not know, which the next opening removes.
"""

import fcntl
import json
import sqlite3
import time
import warnings
from pathlib import Path
from typing import Any, Dict, List

from kestrune import InputError

from .errors import KEPT, RunInterrupted
from .files import write_text
from .journal import Journal, Part, Totals
from .parts import CSV, PARQUET, TABLES, Layout, best_format, part_file, remove_unknown, write_part
from .record import FAILED, Record

RUN, JOURNAL, LOCK = "run.json", "journal.sqlite", "lock"
# A part is written when this many exposures or pairs are held, which bounds memory, or after some time, which bounds
# what a killed run measures again: a twentieth of the run until now, within bounds, so that long runs make few parts.
_EXPOSURES, _PAIRS = 1000, 200_000
_SHARE, _LEAST_SECONDS, _MOST_SECONDS = 0.05, 1.0, 10.0


class RunFolder:
    """Used by one thread."""

    def __init__(self, out: Path, begun_with: Dict[str, Any], resume: bool):
        """Makes the folder, or opens it again.

        @param begun_with  what decides on the results, as JSON holds it.
        @raises InputError  where the folder holds a run (or anything else) and `resume` is false, the run was begun
                            with something else, or another process is at work on it.
        """
        self.path = out
        self._held: List[Record] = []
        self._held_pairs, self._begun = 0, time.monotonic()
        self._since = self._begun
        if out.is_dir() and (out / RUN).exists() and not resume:
            raise InputError(f"{out}: holds a run; resume goes on with it")
        if out.exists() and not (out.is_dir() and (_is_ours(out) or not any(out.iterdir()))):
            raise InputError(f"{out}: is neither a run nor an empty folder")
        try:
            for folder in (out, *(out / table for table in TABLES)):
                folder.mkdir(parents=True, exist_ok=True)
            self._lock = open(out / LOCK, "w")
        except OSError as error:
            raise InputError(f"{out}: {error.strerror}") from error
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)  # goes away with the process, however it ends
        except OSError:
            self._lock.close()
            raise InputError(f"{out}: another process is at work on this run") from None
        try:
            self.layout = self._begin(begun_with) if not (out / RUN).exists() else self._check(begun_with)
            self.journal = Journal(out / JOURNAL)
            self._mend()
        except BaseException:
            self._lock.close()
            raise
        self._next = max((part.number for part in self.journal.parts()), default=-1) + 1

    def _begin(self, begun_with: Dict[str, Any]) -> Layout:
        format = best_format()
        (self.path / JOURNAL).unlink(missing_ok=True)  # of a beginning that was cut off
        Journal(self.path / JOURNAL).close()
        write_text(self.path / RUN, json.dumps({"format": format, **begun_with}, indent=1) + "\n")
        return _layout(format, begun_with)

    def _check(self, begun_with: Dict[str, Any]) -> Layout:
        file = self.path / RUN
        layout, before = read_run(self.path)
        differences = list(_differences("", before, json.loads(json.dumps(begun_with))))
        if differences:
            raise InputError(f"{file}: the run was begun otherwise: {'; '.join(differences)}")
        if not (self.path / JOURNAL).exists():
            raise InputError(f"{self.path / JOURNAL}: is missing, so that nobody knows what is done")
        if layout.format == PARQUET and best_format() != PARQUET:
            raise InputError(f"{file}: the run writes Parquet, which needs pyarrow")
        return layout

    def _mend(self) -> None:
        """Forgets parts whose files are gone or torn, removes files that the journal does not know."""
        for part in list(self.journal.parts()):
            files = [part_file(self.path, table, part.number, self.layout) for table in TABLES]
            sizes = [file.stat().st_size if file.exists() else -1 for file in files]
            if sizes != [part.row_bytes, part.point_bytes]:
                warnings.warn(f"{files[0]}: part {part.number} is damaged, its {part.exposures} exposures are measured "
                              f"again")
                self.journal.drop(part.number)
        remove_unknown(self.path, {part.number for part in self.journal.parts()})

    @property
    def as_lines(self) -> bool:
        return self.layout.format == CSV

    def add(self, records: List[Record]) -> None:
        """@raises RunInterrupted  where the disk takes no more."""
        now = time.monotonic()
        if not self._held:
            self._since = now
        self._held += records
        self._held_pairs += sum(r.row.pairs for r in records)
        most = min(max(_LEAST_SECONDS, _SHARE * (now - self._begun)), _MOST_SECONDS)
        if len(self._held) >= _EXPOSURES or self._held_pairs >= _PAIRS or now - self._since >= most:
            self.flush()

    def flush(self) -> None:
        """Writes what is held as a part. @raises RunInterrupted"""
        if not self._held:
            return
        records, number = self._held, self._next
        # Before anything can fail: what is not journalled in the end is measured again, but never written twice.
        self._held, self._held_pairs, self._next = [], 0, number + 1
        try:
            sizes = write_part(self.path, number, self.layout, records)
            good = sum(r.row.pairs for r in records if r.row.status != FAILED)
            bad = sum(r.row.status == FAILED for r in records)
            self.journal.commit(Part(number, len(records), bad, good, *sizes), (r.row.exposure for r in records))
        except (OSError, sqlite3.OperationalError) as error:
            raise RunInterrupted(f"{self.path}: {error}; {KEPT}") from error
        except KeyboardInterrupt:
            if not self.journal.has(number):
                self._held = records
            raise

    def totals(self) -> Totals:
        """Of what is journalled."""
        return self.journal.totals()

    def close(self) -> None:
        """Without writing what is held."""
        self.journal.close()
        self._lock.close()


def _layout(format: str, begun_with: Dict[str, Any]) -> Layout:
    options = begun_with.get("options", {})
    return Layout(format, bool(options.get("refine")), options.get("match") == "trusted")


def read_run(out: Path) -> "tuple[Layout, Dict[str, Any]]":
    """Layout of the tables, and what the run was begun with. @raises InputError"""
    try:
        content: Dict[str, Any] = json.loads((out / RUN).read_text("utf-8"))
        return _layout(str(content.pop("format")), content), content
    except (OSError, ValueError, KeyError) as error:
        raise InputError(f"{out / RUN}: holds no run ({error})") from error


def _is_ours(out: Path) -> bool:
    """Whether it is a run, or what a beginning that was cut off leaves: no part of a table is there then."""
    return (out / RUN).exists() or all(
        entry.name == LOCK or entry.name.startswith((RUN, JOURNAL)) or entry.name in TABLES and not any(entry.iterdir())
        for entry in out.iterdir())


def _differences(place: str, before: Any, now: Any) -> "List[str]":
    if isinstance(before, dict) and isinstance(now, dict):
        keys = list(before) + [key for key in now if key not in before]
        return [d for key in keys for d in _differences(f"{place}.{key}".strip("."), before.get(key), now.get(key))]
    if before == now:
        return []
    if isinstance(before, str) and "\n" in before:
        return [f"another {place}"]
    return [f"{place} was {json.dumps(before)} and is {json.dumps(now)}"]
