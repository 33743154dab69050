"""A file descriptor that somebody owns."""
from __future__ import annotations

import os
import warnings
from types import TracebackType
from typing import NoReturn, Optional, Type


class Descriptor:
    """An open descriptor, which is closed by close(), by the end of a `with` block, or at the
    latest when nobody refers to it any more, with a ResourceWarning then.

        with packet.take_descriptors()[0] as descriptor:
            os.fstat(descriptor.fileno())
        file = open(descriptor.detach(), "rb")

    Whatever a peer has sent may be anything: fstat it before it is read. The close may block.
    """

    __slots__ = ("_fd", "__weakref__")

    def __init__(self, fd: int):
        """Takes `fd` over."""
        self._fd = -1
        if fd < 0:
            raise ValueError("a descriptor is not negative")
        self._fd = fd

    def fileno(self) -> int:
        """The number, which stays this object's; ValueError when it is closed or detached."""
        if self._fd < 0:
            raise ValueError("the descriptor is closed")
        return self._fd

    def detach(self) -> int:
        """Hands the number over to the caller, who closes it from then on."""
        fd, self._fd = self.fileno(), -1
        return fd

    def close(self) -> None:
        """Does nothing a second time."""
        fd, self._fd = self._fd, -1
        if fd >= 0:
            os.close(fd)

    @property
    def closed(self) -> bool:
        return self._fd < 0

    def __enter__(self) -> Descriptor:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_fd", -1) < 0:
            return
        warning = f"unclosed {self!r}"
        self.close()  # First: the warning may be an exception.
        warnings.warn(warning, ResourceWarning, source=self)

    def __reduce__(self) -> NoReturn:
        raise TypeError("a Descriptor is not copied or pickled: each closes its own")

    def __repr__(self) -> str:
        return f"<Descriptor {'closed' if self.closed else self._fd}>"
