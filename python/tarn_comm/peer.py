"""Who is at the other end."""
from __future__ import annotations

from typing import NamedTuple


class Peer(NamedTuple):
    """The process that connected, that listens, or that made the pair, and its user and group, as
    the kernel knew them at that moment. A pid may belong to another process by now."""

    pid: int
    uid: int
    gid: int
