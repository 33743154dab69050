"""Where the lines of the library go."""
from __future__ import annotations

import ctypes
import logging
from typing import Dict, List, Union

from . import _library as lib

# "normal", "debug" and "quiet" are about standard error. A logger gets the debug lines when it is
# enabled for them at that moment.
Log = Union[str, logging.Logger]

_FUNCTIONS = {"normal": lib.normal_logging, "debug": lib.debug_logging, "quiet": lib.shut_up}
_LEVELS = {b"ERROR": logging.ERROR, b"BUG": logging.ERROR, b"WARNING": logging.WARNING,
           b"DEBUG": logging.DEBUG}
_loggers: List[logging.Logger] = []  # The library knows them by their numbers.


def set_log(endpoint: int, log: Log) -> None:
    if isinstance(log, logging.Logger):
        if log not in _loggers:
            _loggers.append(log)
        lib.set_log_sink(endpoint, ctypes.cast(_sink, ctypes.c_void_p), _loggers.index(log))
        log = "debug" if log.isEnabledFor(logging.DEBUG) else "normal"
    if log not in _FUNCTIONS:
        raise ValueError("log is normal, debug, quiet or a logging.Logger")
    _FUNCTIONS[log](endpoint)


def _write(number: int, level: bytes, text: bytes, loggers: List[logging.Logger] = _loggers,
           levels: Dict[bytes, int] = _LEVELS) -> None:
    loggers[number].log(levels[level], "%s", text.decode("utf-8", "surrogateescape"))


_sink = lib.LogSink(_write)
# An endpoint may be closed, and say so, later than this module at the end of a program.
ctypes.pythonapi.Py_IncRef(ctypes.py_object(_sink))
