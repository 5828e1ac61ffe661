# SPDX-License-Identifier: Apache-2.0
"""The journal of a run: which exposures there are, in which order, and which part of the tables holds each.

SQLite, so that a process killed at any instant leaves either the whole of a transaction or nothing. It also gives out
the names, since a set of all names used would grow with the run. Used by one thread.
"""

import sqlite3
from pathlib import Path
from typing import Iterable, Iterator, NamedTuple, Optional

from kestrune import InputError

from .exposures import Exposure, plain

# `pass` counts the openings of the run: a name is used if it was given out in the present one. The exposures of earlier
# openings keep their rows and places.
_TABLES = """
CREATE TABLE IF NOT EXISTS part (
    number INTEGER PRIMARY KEY, exposures INTEGER, failed INTEGER, pairs INTEGER, rowBytes INTEGER, pointBytes INTEGER);
CREATE TABLE IF NOT EXISTS exposure (
    name TEXT PRIMARY KEY, leftFile TEXT, rightFile TEXT, place INTEGER, pass INTEGER, part INTEGER) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS exposureOfPart ON exposure (part);
CREATE TABLE IF NOT EXISTS numbered (stem TEXT PRIMARY KEY, last INTEGER, pass INTEGER) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS opening (pass INTEGER);
"""
_ADMIT = """INSERT INTO exposure VALUES (?, ?, ?, ?, ?, NULL) ON CONFLICT (name) DO UPDATE
    SET leftFile = excluded.leftFile, rightFile = excluded.rightFile, place = excluded.place, pass = excluded.pass"""
_BUSY_SECONDS = 60.0  # someone may read the tables of a run that goes on


class Part(NamedTuple):
    """Counts of one part, and the sizes of its two files in bytes, by which a torn file is noticed."""

    number: int
    exposures: int
    failed: int
    pairs: int
    row_bytes: int
    point_bytes: int


class Totals(NamedTuple):
    exposures: int
    failed: int
    pairs: int


class Journal:
    def __init__(self, file: Path):
        """Opens it, made where there is none."""
        self._db = sqlite3.connect(str(file), timeout=_BUSY_SECONDS)
        self._db.executescript("PRAGMA synchronous = FULL;" + _TABLES)
        self._db.execute("INSERT INTO opening SELECT coalesce(max(pass), 0) + 1 FROM opening")
        (self._pass,) = self._db.execute("SELECT max(pass) FROM opening").fetchone()
        self._place = 0
        self._db.commit()

    def admit(self, exposure: Exposure) -> Optional[Exposure]:
        """The exposure under its own name; None if it is done already.

        @raises InputError  where that name was measured from other files.
        """
        name = self._name(plain(exposure.name))
        files = (plain(exposure.left), plain(exposure.right))
        before = self._db.execute("SELECT leftFile, rightFile, part FROM exposure WHERE name = ?", (name,)).fetchone()
        done = before is not None and before[2] is not None
        if done and before[:2] != files:
            raise InputError(f"exposure {name} was measured from {before[0]}, {before[1]} and would now be "
                             f"{files[0]}, {files[1]}: resume with the run's exposures in their order, or give names")
        self._db.execute(_ADMIT, (name, *files, self._place, self._pass))
        self._place += 1
        return None if done else Exposure(exposure.left, exposure.right, name)

    def _name(self, stem: str) -> str:
        """`stem` or, where it is used, stem-2, stem-3 and so on."""
        if not self._used(stem):
            return stem
        row = self._db.execute("SELECT last FROM numbered WHERE stem = ? AND pass = ?", (stem, self._pass)).fetchone()
        number = (row[0] if row else 1) + 1
        while self._used(f"{stem}-{number}"):
            number += 1
        self._db.execute("INSERT OR REPLACE INTO numbered VALUES (?, ?, ?)", (stem, number, self._pass))
        return f"{stem}-{number}"

    def _used(self, name: str) -> bool:
        query = "SELECT 1 FROM exposure WHERE name = ? AND pass = ?"
        return self._db.execute(query, (name, self._pass)).fetchone() is not None

    def commit(self, part: Part, names: Iterable[str]) -> None:
        """The part's files are in place: from now on its exposures are done."""
        self._db.commit()  # what was admitted is not to be taken back with a part that fails
        with self._db:
            self._db.execute("INSERT INTO part VALUES (?, ?, ?, ?, ?, ?)", part)
            self._db.executemany("UPDATE exposure SET part = ? WHERE name = ?", ((part.number, n) for n in names))

    def has(self, number: int) -> bool:
        return self._db.execute("SELECT 1 FROM part WHERE number = ?", (number,)).fetchone() is not None

    def drop(self, number: int) -> None:
        """Its exposures are to be measured again."""
        with self._db:
            self._db.execute("UPDATE exposure SET part = NULL WHERE part = ?", (number,))
            self._db.execute("DELETE FROM part WHERE number = ?", (number,))

    def parts(self) -> Iterator[Part]:
        return map(Part._make, self._db.execute("SELECT * FROM part ORDER BY number"))

    def totals(self) -> Totals:
        query = "SELECT coalesce(sum(exposures), 0), coalesce(sum(failed), 0), coalesce(sum(pairs), 0) FROM part"
        return Totals._make(self._db.execute(query).fetchone())

    def close(self) -> None:
        """What was admitted but never measured is forgotten."""
        self._db.rollback()
        self._db.close()


def order_of(file: Path) -> "tuple[list[int], dict[str, int]]":
    """Numbers of the parts, and the place of each exposure that is done.

    @raises InputError  where it is no journal.
    """
    try:
        # Not read-only: the transaction of a process that was killed may have to be taken back.
        db = sqlite3.connect(f"{file.absolute().as_uri()}?mode=rw", uri=True, timeout=_BUSY_SECONDS)
        try:
            numbers = [number for (number,) in db.execute("SELECT number FROM part ORDER BY number")]
            names = db.execute("SELECT name FROM exposure WHERE part IS NOT NULL ORDER BY place, name")
            return numbers, {name: place for place, (name,) in enumerate(names)}
        finally:
            db.close()
    except sqlite3.Error as error:
        raise InputError(f"{file}: {error}") from error
