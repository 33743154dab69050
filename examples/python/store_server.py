#!/usr/bin/env python3
"""Keeps notes by name for its clients, of a user each his own, as store_server.c does.

    store_server.py SOCKET

Requests are "set" with a name and a text as arguments, "get" with a name, and "list". The answer
has the text as its argument, or a pair for each note; or an error code, an errno, and its text.
"""
from __future__ import annotations

import asyncio
import contextlib
import errno
import os
import signal
import sys
from typing import Dict, Tuple

import tarn_comm

# What is kept has bounds, like everything that others may fill.
MOST_NOTES, LONGEST_NAME, LONGEST_TEXT = 100, 64, 512

notes: Dict[Tuple[int, str], str] = {}


def failed(request: tarn_comm.Packet, error: int) -> tarn_comm.Packet:
    return request.answer(error_code=error, error_string=os.strerror(error))


def answer_to(request: tarn_comm.Packet, owner: int) -> tarn_comm.Packet:
    texts = [argument for argument in request.args if isinstance(argument, str)]
    if request.command == "list":
        return request.answer(pairs=[(name, text) for (user, name), text in notes.items()
                                     if user == owner])
    if request.command == "get" and len(texts) == 1:
        note = notes.get((owner, texts[0]))
        return failed(request, errno.ENOENT) if note is None else request.answer(note)
    if request.command == "set" and len(texts) == 2:
        return set_note(request, owner, *texts)
    return failed(request, errno.ENOSYS)


def set_note(request: tarn_comm.Packet, owner: int, name: str, text: str) -> tarn_comm.Packet:
    if not 0 < len(name) <= LONGEST_NAME or len(text) > LONGEST_TEXT:
        return failed(request, errno.EINVAL)
    if len(notes) >= MOST_NOTES and (owner, name) not in notes:
        return failed(request, errno.ENOSPC)
    notes[owner, name] = text
    return request.answer()


async def attend(client: tarn_comm.Connection) -> None:
    async for request in client:
        await client.send(answer_to(request, client.peer.uid))


async def main() -> None:
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    serving = asyncio.ensure_future(
        tarn_comm.serve(sys.argv[1], attend, limits=tarn_comm.Limits(idle=600)))
    for number in (signal.SIGTERM, signal.SIGINT):
        asyncio.get_running_loop().add_signal_handler(number, serving.cancel)
    with contextlib.suppress(asyncio.CancelledError):
        await serving


if __name__ == "__main__":
    asyncio.run(main())
