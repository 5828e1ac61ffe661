# SPDX-License-Identifier: Apache-2.0
"""Objects through a pipe: eight bytes of length, then the pickled object."""

import os
import pickle
import select
import struct
import time
from typing import Any, Optional

_LENGTH = struct.Struct("<Q")
_MOST_AT_ONCE = 1 << 20


class Late(Exception):
    """The deadline passed before the object was there."""


def frame(value: Any) -> bytes:
    data = pickle.dumps(value, protocol=pickle.HIGHEST_PROTOCOL)
    return _LENGTH.pack(len(data)) + data


def send(fd: int, value: Any) -> None:
    """@raises OSError  where the reader is gone."""
    write(fd, frame(value))


def write(fd: int, data: bytes) -> None:
    """@raises OSError  where the reader is gone."""
    rest = memoryview(data)
    while rest:
        rest = rest[os.write(fd, rest):]


def receive(fd: int, deadline: Optional[float] = None) -> Any:
    """@param deadline  as time.monotonic() tells it, seconds; None waits for ever.

    @raises EOFError  where the writer is gone.
    @raises Late
    """
    (length,) = _LENGTH.unpack(_read(fd, _LENGTH.size, deadline))
    return pickle.loads(_read(fd, length, deadline))


def _read(fd: int, count: int, deadline: Optional[float]) -> bytes:
    data = bytearray()
    poll = select.poll()  # select() knows no descriptors above 1023, and a host may have many open
    poll.register(fd, select.POLLIN)
    while len(data) < count:
        if deadline is not None:
            left = deadline - time.monotonic()
            if left <= 0 or not poll.poll(left * 1000):
                raise Late
        more = os.read(fd, min(count - len(data), _MOST_AT_ONCE))
        if not more:
            raise EOFError
        data += more
    return bytes(data)
