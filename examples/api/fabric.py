#!/usr/bin/env python3
"""A client of fxmd's API that needs nothing but Python: lists the cards, reads a register of the first one, and follows the
events until it has seen COUNT of them.

    fabric.py [COUNT] [SOCKET]
"""
import http.client
import json
import socket
import sys


class Fxmd(http.client.HTTPConnection):
    """HTTP over the Unix socket of fxmd."""

    def __init__(self, path):
        super().__init__("localhost", timeout=60)
        self.path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.path)

    def ask(self, path, **headers):
        self.request("GET", path, headers=headers)
        answer = self.getresponse()
        if answer.status >= 400:
            failure = json.load(answer)  # message says what happened, hint what to do
            sys.exit(f"{path}: {failure['code']}: {failure['message']}. {failure['hint'] or ''}")
        return answer


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    path = sys.argv[2] if len(sys.argv) > 2 else "/run/fxm/fxmd.sock"
    fxmd = Fxmd(path)

    # One document a line: a list of any length takes no more memory than one card.
    cards = []
    for line in fxmd.ask("/v1/cards", Accept="application/x-ndjson"):
        card = json.loads(line)
        cards.append(card["id"])
        print(card["id"], card["class"], card["health"])

    if cards:
        register = json.load(fxmd.ask(f"/v1/cards/{cards[0]}/registers/0x1000"))
        print(f"register 0x1000 of {cards[0]}: 0x{register['value']:08x}")

    # Events without end. After a break, ?after=BOOT.SEQ of the last one goes on behind it.
    events = fxmd.ask("/v1/events", Accept="application/x-ndjson")
    for line in events:
        if line == b"\n":  # the connection lives
            continue
        event = json.loads(line)
        if event["type"] == "boot":  # which run of fxmd this is
            continue
        print(event["type"], event.get("card"), event.get("changes"), flush=True)
        count -= 1
        if count == 0:
            break


if __name__ == "__main__":
    main()
