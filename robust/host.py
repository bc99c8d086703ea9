#!/usr/bin/python3
"""Attacks fxmd on virtual cables against fxmsim: python3 robust/host.py [--seed N] [--rounds N] kills|fuzz|clients ...

kills    kill -9 at random moments under load: it starts again, the history opens, numbers rise, nothing is left
fuzz     random requests, half requests and slow readers; fxmd answers all along. Run it on a build with sanitizers
clients  10,000 connections at once

The programs are those of build/release, or of FXMD, FXMCTL and FXMSIM. Prints the seed; exit code 1 after a finding."""
import argparse
import json
import os
import random
import signal
import socket
import sys
import threading
import time

TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
for name, path in (("FXMD", "host/daemon/fxmd"), ("FXMCTL", "host/ctl/fxmctl"), ("FXMSIM", "sim/fxmsim")):
    os.environ.setdefault(name, os.path.join(TOP, "build/release", path))
sys.path.insert(0, os.path.join(TOP, "host/tests"))
import fabric  # noqa: E402
from fabric import CARDS, DEVICE, SERVER, SMALL, Fabric, Refused, until  # noqa: E402


def kills(dice, rounds):
    f = Fabric(CARDS, period=50)
    f.cards("fxio 02:00:00:10:00:00 count=300 ports=0")
    last, boots = 0, set()
    for turn in range(rounds):
        f.start()
        status = f.get("/v1/status")
        assert status["boot"] not in boots and status["history"]["error"] is None, status
        boots.add(status["boot"])
        stream = f.events(after=f"{dice.choice(sorted(boots))}.{last}" if last else None)
        busy = threading.Event()

        def load():
            try:
                while not busy.is_set():
                    f.get(f"/v1/cards/{SMALL}/registers?start=0&end=64")
                    f.send("POST", "/v1/jobs", {"kind": "eeprom-dump", "card": SERVER, "end": 64})
                    f.get("/v1/history?limit=100")
                    f.request("GET", "/metrics")
            except (OSError, Refused, ValueError, EOFError, Exception):  # the kill ends it in any way
                return

        loads = [threading.Thread(target=load) for _ in range(3)]
        for thread in loads:
            thread.start()
        end = time.monotonic() + dice.uniform(0, 0.4)
        while time.monotonic() < end:
            event = stream.read()
            if event is None or "seq" not in event:
                break
            assert event["seq"] > last, f"round {turn}: {event} after {last}"
            last = event["seq"]
        f.stop(signal.SIGKILL)
        busy.set()
        for thread in loads:
            thread.join()
        stream.close()
        if turn % 20 == 19:
            print(f"{turn + 1} kills, last event {last}", flush=True)
    f.start()
    events = [e["seq"] for e in f.get("/v1/history?limit=10000")["events"] if "seq" in e]
    assert events == sorted(set(events)) and len(events) > 100, len(events)
    f.close()


WORDS = ["v1", "cards", "registers", "jobs", "events", "status", "history", "minutes", "log", "schema", "topology",
         "topology.dot", "ports", "stats", "reload", "level", "vlan", "monitor", "reset", "pages", "eeprom-lock", DEVICE,
         SERVER, SMALL, "02:00:00:00:10:01", "0x1000", "eeprom.lock", "0", "-1", "%00", "..", "%2e%2e", "💥", "a" * 3000, ""]
ROUTES = ["cards", "cards/*", "cards/*/registers", "cards/*/registers/*", "cards/*/vlan", "cards/*/monitor", "cards/*/reset",
          "cards/*/pages/*", "cards/*/eeprom-lock", "jobs", "jobs/*", "events", "status", "ports", "stats", "topology", "history",
          "history/minutes", "log", "registers", "log/level", "log/status-dump", "schema", "reload"]
PARTS = [DEVICE, SERVER, SMALL, "0x1000", "eeprom.lock", "1", "3"]
NAMES = ["after", "filter", "fields", "rows", "limit", "newest", "start", "end", "state", "vlan", "id", "since_ms", "card", "type", "dry_run",
         "value", "mask", "verify", "kind", "words", "force", "data", "status", "monitored", "level", "retries", "interval_ms"]
KINDS = ["eeprom-dump", "eeprom-compare", "eeprom-restore", "eeprom-write", "register-dump", "vlan"]
VALUES = ["", "1", "-1", "0x10", "4294967296", "1e400", "true", "null", "nan", "x" * 500, SERVER, "02:00:*", "state=lost",
          "eeprom-dump", "eeprom-restore", "eeprom-compare", "register-dump", "100-200", "%ff", "9f86d081.5", "debug"]


def json_value(dice, depth=0):
    kind = dice.randrange(8 if depth < 4 else 5)
    if kind == 0:
        return dice.choice([0, 1, -1, 4095, 2**31, 2**32, 2**63, 2**64, 1.5, 1e308, -2**63])
    if kind == 1:
        return dice.choice(VALUES)
    if kind == 2:
        return dice.choice([True, False, None])
    if kind in (3, 4):
        return dice.choice(WORDS)
    if kind == 5:
        return [json_value(dice, depth + 1) for _ in range(dice.randrange(4))]
    return {dice.choice(NAMES): json_value(dice, depth + 1) for _ in range(dice.randrange(6))}


def random_request(dice):
    method = dice.choice(["GET", "GET", "GET", "PUT", "POST", "PATCH", "DELETE", "HEAD", "OPTIONS", "BREW", "get", ""])
    if dice.random() < 0.6:  # most of what is behind the router is only reached by a path that exists
        path = "/v1/" + "/".join(dice.choice(PARTS if dice.random() < 0.9 else WORDS) if word == "*" else word
                                 for word in dice.choice(ROUTES).split("/"))
    elif dice.random() < 0.1:
        path = dice.choice(["/", "/metrics", "/favicon.ico"])
    else:
        path = dice.choice(["/", "/v1/"]) + "/".join(dice.choice(WORDS) for _ in range(dice.randrange(7)))
    query = "&".join(f"{dice.choice(NAMES)}={dice.choice(VALUES)}" for _ in range(max(0, dice.randrange(-3, 4))))
    body = dice.choice([b"", b"", json.dumps(json_value(dice)).encode(), dice.randbytes(dice.randrange(200)), b"[" * 5000])
    if dice.random() < 0.3:
        body = json.dumps({"kind": dice.choice(KINDS), "card": dice.choice(PARTS),
                           dice.choice(NAMES): dice.choice([0, 4, 64, 200, True, [1, 2], dice.choice(VALUES)])}).encode()
    if dice.random() < 0.02:
        body = b"x" * dice.choice([65536, 65537, 200000])
    length = dice.choice([len(body), len(body), len(body), len(body), 0, len(body) + 1, -1, "x", 2**64])
    lines = [f"{method} {path}{'?' + query if query else ''} HTTP/1.1", f"Content-Length: {length}", "Host: localhost"]
    lines += dice.choice([[], ["Origin: http://localhost"], ["Origin: http://y"], ["Accept: text/event-stream"],
                          ["Accept: application/x-ndjson"], ["Transfer-Encoding: chunked"],
                          ["X: " + "y" * 5000], ["Authorization: Bearer " + "z" * 300], [":", "\0: \0"]])
    text = ("\r\n".join(lines) + "\r\n\r\n").encode("utf-8", "surrogateescape") + body
    if dice.random() < 0.3:
        text = text[: dice.randrange(len(text) + 1)]
    if dice.random() < 0.1:
        text = bytes(byte if dice.random() > 0.02 else dice.randrange(256) for byte in text)
    return text


def fuzz(dice, rounds):
    f = Fabric(CARDS, period=200, library="frame_retry_count = 1\nframe_retry_interval = 20\n" + fabric.QUICK_EEPROM).start()
    f.well(5)
    kept, answers = [], {}
    for turn in range(rounds):
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connection.settimeout(0.05)
        connection.connect(f.socket)
        try:
            connection.sendall(random_request(dice))
            if dice.random() < 0.5:
                status = connection.recv(2000).split(b"\r\n")[0][9:12].decode(errors="replace")
                answers[status] = answers.get(status, 0) + 1
        except OSError:
            pass
        # Half requests and readers that read nothing stay for a while.
        kept.append(connection)
        if len(kept) > 300:
            kept.pop(dice.randrange(len(kept))).close()
        if turn % 500 == 499:
            fabric.fits(f.get("/v1/status"), "status")
            assert f.daemon.poll() is None
            print(f"{turn + 1} requests, answers {dict(sorted(answers.items()))}", flush=True)
    for connection in kept:
        connection.close()
    assert "500" not in answers or answers["500"] < rounds // 20, answers
    until(lambda: f.get("/v1/status")["clients"] <= 2, "the connections are gone")
    f.close()


def clients(_, rounds):
    f = Fabric(CARDS).start()
    f.well(5)
    connections = []
    for _ in range(min(rounds, 10000)):
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connection.setblocking(False)
        try:
            connection.connect(f.socket)
            connection.send(b"GET /v1/status HTTP/1.1\r\nHost: x\r\n")  # and never the end of it
        except BlockingIOError:
            pass  # the kernel's queue of the socket is full: this one waits
        connections.append(connection)
    print(f"{len(connections)} connections; {f.get('/v1/status')['clients'] if len(connections) < 4000 else 'full'}")
    # Silent connections are ended after 10 s, and then there is room again.
    began = time.monotonic()
    until(lambda: f.get("/v1/status"), "it answers again", 120)
    print(f"answers after {time.monotonic() - began:.1f} s")
    for connection in connections:
        connection.close()
    until(lambda: f.get("/v1/status")["clients"] <= 2, "the connections are gone", 60)
    f.close()


if __name__ == "__main__":
    options = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    options.add_argument("--seed", type=int, default=int(time.time()))
    options.add_argument("--rounds", type=int, help="200 kills, 20,000 requests or 10,000 connections")
    options.add_argument("what", nargs="+", choices=["kills", "fuzz", "clients"])
    chosen = options.parse_args()
    import resource
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    fabric.enter_namespace()
    print(f"seed {chosen.seed}", flush=True)
    for word in chosen.what:
        run, standard = {"kills": (kills, 200), "fuzz": (fuzz, 20000), "clients": (clients, 10000)}[word]
        run(random.Random(chosen.seed), chosen.rounds or standard)
        print(f"{word}: no finding", flush=True)
