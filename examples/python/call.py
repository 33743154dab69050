#!/usr/bin/env python3
"""Sends a request to a server and prints the response.

    call.py SOCKET COMMAND [TEXT...]
"""
import sys

import tarn_comm


def printable(value: object) -> str:
    """A peer's text for a terminal, which obeys control characters."""
    return "".join(c if c.isprintable() else "?" for c in str(value))


def main() -> None:
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    path, command, *texts = sys.argv[1:]
    with tarn_comm.Client(path, timeout=5) as server:
        answer = server.call(command, *texts)
    print("command:", printable(answer.command))
    if answer.error_string:
        print("error:", printable(answer.error_string))
    for i, argument in enumerate(answer.args):
        print(f"argument {i}:", printable(argument))
    for name, value in answer.pairs.items():
        # Pairs may share their bytes: all together could be thousands of times the packet.
        print(f"{printable(name)}:", printable(value)[:64])
    if answer.data:
        print("data:", len(answer.data), "bytes")


try:
    main()
except OSError as failure:
    sys.exit(f"{sys.argv[0]}: {failure}")
