#!/usr/bin/python3
"""Measures what a fleet promises when it fails and when it is large: fxmd as sites and as a room, cards of fxmsim, and
servers of NATS, on virtual cables. Each line of the table ends with its limit; the exit status is 1 if one is missed."""
import argparse
import contextlib
import json
import os
import random
import re
import signal
import statistics
import subprocess
import sys
import threading
import time

TOP = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
for name, path in (("FXMD", "host/daemon/fxmd"), ("FXMCTL", "host/ctl/fxmctl"), ("FXMSIM", "sim/fxmsim")):
    os.environ.setdefault(name, os.path.join(TOP, "build/release", path))
sys.path.insert(0, os.path.join(TOP, "host/tests"))
import fabric  # noqa: E402
from fabric import CARDS, DEVICE, FXMCTL, LOOSE, MULTI, SERVER, SMALL, QUICK_EEPROM, Fabric, Room, UnixConnection, until  # noqa: E402
from nats import Servers  # noqa: E402

NAMES = ["north", "south", "east", "west"]
FIRST = "02:00:00:01:00:00"  # of many cards
EVENTS, BUCKET = "FXM_EVENTS", "KV_fxm_cards_1"
MIB = 2**20


class Table:
    def __init__(self):
        self.case, self.missed = "", []

    def row(self, what, value, unit, limit=None):
        """The limit is the most that is good; without one the figure is told."""
        good = limit is None or value <= limit
        if not good:
            self.missed.append(f"{self.case}: {what}")
        self.progress("")
        told = "" if limit is None else f"{limit:g}"
        print(f"{self.case:<9} | {what:<66} | {value:10,.4g} {unit:<5} | {told:>7} | {'' if limit is None else 'holds' if good else 'MISSED'}", flush=True)

    def progress(self, text):
        if sys.stderr.isatty():
            print(f"\r\033[K{self.case}: {text}" if text else "\r\033[K", end="", file=sys.stderr, flush=True)


table = Table()


class Site(Fabric):
    """fxmd with many cards of which all change when they are told to."""

    def __init__(self, urls, number=0, cards=100, period=1000):
        self.name, self.vlan, self.count = NAMES[number], 300, cards
        super().__init__([f"fxio {FIRST} count={cards} ports=0"], number=number, period=period)
        self.join(urls, library=QUICK_EEPROM + f"devinfo_expire_time = {max(5000, 10 * period)}\n")
        self.start()

    def join(self, urls, **options):
        self.configure(history=f'[fleet]\nurls = {json.dumps(urls)}\nsite = "{self.name}"\nallow = "operate"\n' if urls else "", **options)

    def known(self):
        until(lambda: self.get("/v1/status")["cards"]["well"] == self.count, f"{self.count} cards are well", 90)
        return self

    def tick(self):
        self.vlan = 1300 - self.vlan
        self.cards(f"set all vlan={self.vlan}")
        self.cards("announce all")

    def sent(self):
        return self.get("/v1/status")["fleet"]["sent_seq"]

    def settle(self, seconds=120):
        def settled():
            now = self.get("/v1/status")
            return now["fleet"]["sent_seq"] == now["seq"] and now["fleet"]["cards_waiting"] == 0
        until(settled, f"the fleet has all of {self.name}", seconds)

    def own(self):
        return {card["id"]: card["vlan"] for card in self.get("/v1/cards?fields=vlan")["cards"]}

    def history(self):
        """The events that are kept, by number."""
        until(lambda: self.get("/v1/history?limit=1&newest=true")["events"][-1]["seq"] == self.get("/v1/status")["seq"], "the history has all")
        kept, after = {}, 0
        while events := self.get(f"/v1/history?limit=10000&after_seq={after}")["events"]:
            kept.update((event["seq"], event) for event in events)
            after = events[-1]["seq"]
        return kept


class Load:
    """All cards of the sites change every 1/`ticks` s."""

    def __init__(self, sites, ticks=10):
        self.sites, self.every, self.end = sites, 1 / ticks, threading.Event()
        self.threads = [threading.Thread(target=self.turn, args=(site,), daemon=True) for site in sites]

    def turn(self, site):
        due = time.monotonic()
        while not self.end.wait(max(0, due - time.monotonic())):
            due += self.every
            site.tick()

    def numbers(self):
        return sum(site.get("/v1/status")["seq"] for site in self.sites)

    def __enter__(self):
        self.began, self.before = time.monotonic(), self.numbers()
        for thread in self.threads:
            thread.start()
        return self

    def stop(self):
        if not self.end.is_set():
            self.rate = (self.numbers() - self.before) / (time.monotonic() - self.began)
            self.end.set()
            for thread in self.threads:
                thread.join()
        return self.rate

    def __exit__(self, *_):
        with contextlib.suppress(OSError):
            self.stop()


def longest_silence(sites, seconds):
    """How long each site has got no confirmation, at most, within so many seconds."""
    end, began = time.monotonic() + seconds, time.monotonic()
    last, since, longest = {}, dict.fromkeys(sites, began), dict.fromkeys(sites, 0)
    while (now := time.monotonic()) < end:
        for site in sites:
            sent = site.sent()
            longest[site] = max(longest[site], now - since[site])
            if last.setdefault(site, sent) != sent:
                last[site], since[site] = sent, now
        table.progress(f"{end - now:.0f} s more")
        time.sleep(0.05)
    return longest


def compare(servers, sites, second=None):
    """A reader of the stream, as docs/fleet.md describes it, against the histories of the sites."""
    client = servers.client()
    seen, last = {site.name: {} for site in sites}, dict.fromkeys(NAMES, 0)
    doubled = holes = 0
    for message in client.stored(EVENTS):
        name = message.headers["Nats-Subject"].rsplit(".", 1)[1]
        holes += int(message.headers["Fxm-Prev"]) > last[name]
        for line in message.data.splitlines():
            event = json.loads(line)
            number = event.get("seq", event.get("to"))
            if number > last[name]:
                seen[name][number] = event
                last[name] = number
            else:
                doubled += 1
    client.close()
    lost = strange = 0
    for site in sites:
        kept = site.history()
        lost += len(set(kept) - set(seen[site.name]))
        strange += sum(1 for number in set(kept) & set(seen[site.name]) if kept[number] != seen[site.name][number])
    table.row("events in all", sum(len(events) for events in seen.values()), "")
    table.row("events that the history has, and a reader does not see in order", lost, "", 0)
    table.row("events that are not those of the history, and holes", strange + holes, "", 0)
    table.row("events that come twice, which a reader drops", doubled, "", second)


def resident(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        found = dict(re.findall(r"(VmRSS|Threads):\s*(\d+)", file.read()))
    return int(found["VmRSS"]) / 1024, int(found["Threads"])


def p99(times):
    return sorted(times)[len(times) * 99 // 100] * 1000


def timed(do):
    began = time.monotonic()
    do()
    return time.monotonic() - began


def fleet(stack, servers=3, sites=1, cards=100, period=1000, **options):
    made = Servers(servers, **options)
    stack.callback(made.close)
    many = []
    for number in range(sites):
        many.append(Site(made.urls, number, cards, period))
        stack.callback(many[-1].close)
    for site in many:
        site.known()
        site.settle()
    return made, many


def room_of(stack, servers, **options):
    room = Room(servers.urls, **options)
    stack.callback(room.close)
    return room


def leader(stack, _):
    """the leader of the stream is killed under 4 sites with 1,000 events/s each"""
    servers, sites = fleet(stack, sites=4, window=120)
    with Load(sites) as load:
        time.sleep(2)
        killed = servers.leader(EVENTS)
        servers.signal(killed, signal.SIGKILL)
        silent = longest_silence(sites, 14)
        servers.start(killed)
        time.sleep(3)
        rate = load.stop()
    table.row("events a second, of all sites", rate, "1/s")
    table.row("longest time without a confirmation", max(silent.values()), "s", 10)
    for site in sites:
        site.settle()
    compare(servers, sites, second=0)


def cut(stack, nightly):
    """a site is cut off, for longer than the servers know the ids of batches"""
    servers, (site,) = fleet(stack, window=5)
    with Load([site]) as load:
        servers.cut()
        time.sleep(60 if nightly else 20)
        sent = site.sent()
        table.row("backlog", site.get("/v1/status")["fleet"]["waiting"], "")
        servers.cut(False)
        table.row("from the end of the cut to the first confirmation", timed(lambda: until(lambda: site.sent() > sent, "a confirmation")), "s")
        # What one tick brings is no backlog.
        table.row("from there until the backlog is gone", timed(lambda: until(
            lambda: site.get("/v1/status")["fleet"]["waiting"] <= 2 * site.count, "the backlog is gone", 60)), "s", 15)
        table.row("events a second", load.stop(), "1/s")
    site.settle()
    compare(servers, [site])


def partition(stack, _):
    """the leader of the stream is cut from the other two servers, and joined again"""
    servers, _none = fleet(stack, sites=0, window=120, apart=True)
    alone = servers.leader(EVENTS)
    sites = []
    for number in range(2):  # the first one is at the server that will be alone
        at = (alone + number) % 3
        sites.append(Site(servers.urls[at:] + servers.urls[:at], number, cards=20))
        stack.callback(sites[-1].close)
        sites[-1].known().settle()
    with Load(sites):
        servers.isolate(alone)
        during = longest_silence(sites, 25)
        servers.isolate(alone, False)
        after = longest_silence(sites, 12)
    for site, where, limit in ((sites[0], "the isolated server", 20), (sites[1], "a healthy server", 15)):
        table.row(f"longest time without a confirmation at {where}", during[site], "s", limit)
        table.row("the same after the heal", after[site], "s", limit)
        site.settle()
    compare(servers, sites)


def heal(stack, nightly):
    """cards change while all sites and the room are cut off; the room's view is whole again"""
    cards, count = (65536, 3) if nightly else (5000, 2)
    servers, sites = fleet(stack, sites=count, cards=cards, period=20000 if nightly else 2000)
    room = room_of(stack, servers).start()

    def same():
        return all({card["id"]: card["vlan"] for card in room.get(f"/v1/cards?fields=vlan&site={site.name}")["cards"]}
                   == wanted[site] for site in sites)

    def again(what, limit, change):
        servers.cut()
        for site in sites:
            before = site.get("/v1/status")["seq"]
            number = change(site)
            until(lambda: site.get("/v1/status")["seq"] >= before + number, "the changes", 60)  # pylint: disable=cell-var-from-loop
            wanted[site] = site.own()
        until(lambda: room.get("/v1/status")["room"]["state"] == "cut-off", "the room is cut off")
        servers.cut(False)
        table.row(f"{what} of {count} x {cards:,} cards changed: whole again", timed(lambda: until(same, "the view is whole", 120)), "s", limit)

    def some(site):
        for n in range(cards // 100):
            card = f"02:00:00:01:{n * 200 // 256:02x}:{n * 200 % 256:02x}"  # each hundredth
            site.cards(f"set {card} vlan=77")
            site.cards(f"announce {card}")
        return cards // 100

    def every(site):
        site.tick()
        return cards
    wanted = {site: site.own() for site in sites}
    until(same, "the room has all", 120)
    again("1 %", 30, some)
    if nightly:
        again("all", 90, every)
    table.row("resident memory of the room", resident(room.daemon.pid)[0], "MiB")


def costs(stack, _):
    """memory, threads and the API of an fxmd in a fleet, beside one in none"""
    servers, (site,) = fleet(stack, servers=1, cards=500)
    plain = Site([], 1, cards=500)
    stack.callback(plain.close)
    plain.known()
    both = (site, plain)
    times = {f: [] for f in both}
    with Load(both, ticks=2):  # 1,000 events/s
        connections = {f: UnixConnection(f.socket) for f in both}
        for number in range(6000):
            def ask(f):
                connections[f].request("GET", f"/v1/cards/{FIRST}")
                connections[f].getresponse().read()
            for f in both if number % 2 else both[::-1]:
                times[f].append(timed(lambda: ask(f)))  # pylint: disable=cell-var-from-loop
            if number % 500 == 0:
                table.progress(f"{number} calls")
    table.row("99th percentile of a call, in no fleet", p99(times[plain]), "ms")
    table.row("the same in a fleet, as a ratio", p99(times[site]) / p99(times[plain]), "", 1.1)
    with Load(both) as load:
        # The ring of events has its full size first, in both.
        until(lambda: all(f.get("/v1/status")["seq"] > 80000 for f in both), "the rings are full", 120)
        here, there = resident(site.daemon.pid), resident(plain.daemon.pid)
        table.row("more resident memory in a fleet", here[0] - there[0], "MiB", 8)
        table.row("more threads in a fleet", here[1] - there[1], "", 7)
        servers.cut()
        most = 0
        for second in range(30):
            time.sleep(1)
            most = max(most, resident(site.daemon.pid)[0])
            table.progress(f"cut, {30 - second} s more")
        grown, beside = most - here[0], resident(plain.daemon.pid)[0] - there[0]
        table.row("events a second, of one of both", load.stop() / 2, "1/s")
        servers.cut(False)
    table.row("more resident memory after a cut of 30 s", grown, "MiB", 1)
    table.row("the same of the fxmd in no fleet", beside, "MiB")


def reads(stack, nightly):
    """register reads through a room, beside those at the site"""
    servers, _none = fleet(stack, servers=1, sites=0)
    f = Fabric(CARDS)
    stack.callback(f.close)
    f.configure(history=f'[fleet]\nurls = {json.dumps(servers.urls)}\nsite = "north"\nallow = "operate"\n')
    f.start().well(5)
    room = room_of(stack, servers).start()
    until(lambda: room.get("/v1/status")["cards"].get("well") == 5, "the room has all cards")

    def read(what, count, limit):
        times, connections = {f: [], room: []}, {f: UnixConnection(f.socket), room: UnixConnection(room.socket)}
        for number in range(count):
            for of, where in ((f, SMALL), (room, f"north/{SMALL}")):
                def ask():
                    connections[of].request("GET", f"/v1/cards/{where}/registers/0x10")  # pylint: disable=cell-var-from-loop
                    answer = connections[of].getresponse()  # pylint: disable=cell-var-from-loop
                    assert answer.status == 200, answer.read()
                    answer.read()
                times[of].append(timed(ask))
            if number % 100 == 0:
                table.progress(f"{number} reads")
        table.row(f"{what}: median at the site", statistics.median(times[f]) * 1000, "ms")
        table.row(f"{what}: median through the room", statistics.median(times[room]) * 1000, "ms")
        table.row(f"{what}: 99th percentile through the room, above the site's", p99(times[room]) - p99(times[f]), "ms", limit)
    read("register read", 5000 if nightly else 500, 5)
    end = threading.Event()

    def dump(card):
        while not end.is_set():
            f.job(kind="eeprom-dump", card=card)
    jobs = [threading.Thread(target=dump, args=(card,), daemon=True) for card in (SERVER, DEVICE, MULTI, LOOSE)]
    for job in jobs:
        job.start()
    until(lambda: f.get("/v1/status")["jobs"]["running"] == 4, "four jobs run")
    read("beside 4 dumps", 1000 if nightly else 300, 50)
    end.set()
    for job in jobs:
        job.join()

    def refused(what):
        def ask():
            connection = UnixConnection(room.socket)
            connection.request("GET", f"/v1/cards/north/{SMALL}/registers/0x10")
            assert b"FXM_API_ENOLINK" in connection.getresponse().read()
            connection.close()
        table.row(f"read at {what}: until the refusal", timed(ask), "s", 0.1)
        code = subprocess.run([FXMCTL, "--fleet", room.socket, "--site", "north", "reg", SMALL, "0x10"], capture_output=True, check=False).returncode
        table.row("exit code of fxmctl is not 4", int(code != 4), "", 0)
    f.daemon.send_signal(signal.SIGSTOP)
    until(lambda: room.get("/v1/sites")["sites"][0]["state"] == "silent", "the site is silent", 40)
    refused("a silent site")
    f.daemon.send_signal(signal.SIGCONT)
    until(lambda: room.get("/v1/sites")["sites"][0]["state"] == "live", "the site is live", 40)
    servers.cut()
    until(lambda: room.get("/v1/status")["room"]["state"] == "cut-off", "the room is cut off")
    refused("a site that is cut off")
    servers.cut(False)


def burst(stack, nightly):
    """all cards of a site change at once"""
    cards = 65536 if nightly else 5000
    servers, (site,) = fleet(stack, cards=cards, period=20000 if nightly else 2000)
    client = servers.client()
    stack.callback(client.close)

    def ends():
        return [client.api(f"STREAM.INFO.{stream}")["state"]["last_seq"] for stream in (EVENTS, BUCKET)]
    before, last = ends(), site.get("/v1/status")["seq"]
    began = time.monotonic()
    site.tick()
    until(lambda: site.get("/v1/status")["seq"] >= last + cards, "all changes are known", 60)
    known = time.monotonic() - began
    site.settle()
    whole = time.monotonic() - began
    puts = [now - then for now, then in zip(ends(), before)]
    ids = sorted(site.own())
    subjects = [f"$JS.API.DIRECT.GET.{BUCKET}.$KV.fxm_cards_1.{site.name}.{card.replace(':', '')}" for card in ids]
    wrong = sum(json.loads(answer.data)["vlan"] != site.vlan for answer in client.ask_all((subject, b"") for subject in subjects))
    table.row(f"{cards:,} cards: from the tick until fxmd knows all changes", known, "s")
    table.row("from there until the bucket and the stream have all", whole - known, "s", 5)
    table.row("cards that are wrong in the bucket", wrong, "", 0)
    table.row("puts into the bucket", puts[1], "", cards)
    table.row("batches", puts[0], "", cards // 1000 + 66)


def kills(stack, nightly):
    """fxmd of a site is killed at random moments under load"""
    servers, (site,) = fleet(stack)
    count = 50 if nightly else 5
    with Load([site]):
        for number in range(count):
            table.progress(f"{number} of {count}")
            time.sleep(random.uniform(0, 2))
            site.stop(signal.SIGKILL)
            site.start()
    site.known().settle()
    table.row("kills", count, "")
    compare(servers, [site])


def absent(stack, _):
    """the servers are not there: an fxmd beside one in no fleet"""
    fabric.run("ip", "addr", "add", "10.99.0.1/24", "dev", "lo")  # nobody answers there
    site, plain = Site(["nats://10.99.0.77:4222", "nats://127.0.0.1:9"], 0), Site([], 1)
    for f in (site, plain):
        stack.callback(f.close)
    ready, calls = {site: [], plain: []}, {site: [], plain: []}
    for _ in range(8):
        for f in ready:
            f.stop()
            ready[f].append(timed(f.start))
    for f in calls:
        f.known()
    for number in range(10000):
        for f in calls:
            calls[f].append(timed(lambda: f.request("GET", f"/v1/cards/{FIRST}")))  # pylint: disable=cell-var-from-loop
        if number % 500 == 0:
            table.progress(f"{number} calls")
    table.row("from the start to the first answer, as a ratio", statistics.median(ready[site]) / statistics.median(ready[plain]), "", 1.1)
    slow = {f: sum(call > 0.01 for call in calls[f]) for f in calls}
    table.row("longest call", max(calls[site]) * 1000, "ms")
    table.row("longest call in no fleet", max(calls[plain]) * 1000, "ms")
    table.row("calls of more than 10 ms, beyond those in no fleet", slow[site] - slow[plain], "", 0)


def large(stack, _):
    """1.3 million cards in the bucket, put there as sites would"""
    sites, cards = [f"s{number:02}" for number in range(20)], 65000
    os.environ["GOMEMLIMIT"] = "700MiB"
    servers, _none = fleet(stack, servers=1, sites=0)
    del os.environ["GOMEMLIMIT"]
    with contextlib.ExitStack() as first:  # this one makes the streams
        maker = room_of(first, servers).start()
        until(lambda: maker.get("/v1/status")["room"]["state"] == "connected", "the streams are there")
    with contextlib.ExitStack() as around:
        f = Fabric(CARDS)
        around.callback(f.close)
        f.start().well(5)
        document = f.request("GET", f"/v1/cards/{DEVICE}").strip()
    client = servers.client()
    stack.callback(client.close)

    def put(places, rev):
        for start in range(0, len(places), 1000):
            parts = []
            for site, number in places[start:start + 1000]:
                key = f"020000{number:06x}"
                data = b'{"schema":"fxm/1","site":"%s","boot":"0000abcd","rev":%d,' % (site.encode(), rev) + document[1:].replace(
                    DEVICE.encode(), ":".join(re.findall("..", key)).encode(), 1)
                parts.append(b"PUB $KV.fxm_cards_1.%s.%s %d\r\n%s\r\n" % (site.encode(), key.encode(), len(data), data))
            client.send(b"".join(parts[:-1]))
            client.ask(f"$KV.fxm_cards_1.{site}.{key}", data)
            table.progress(f"{start} of {len(places)} cards")
    for site in sites:
        client.publish(f"$KV.fxm_sites.{site}", b'{"schema":"fxm/1","site":"%s","boot":"0000abcd","seq":1}' % site.encode())
    everything = [(site, number) for number in range(cards) for site in sites]
    table.row(f"{len(everything):,} cards of {len(document)} B are put", timed(lambda: put(everything, 1)), "s")
    server = servers.processes[0].pid
    table.row("resident memory of the server with all cards", resident(server)[0], "MiB")
    room = room_of(stack, servers)
    began = time.monotonic()
    room.start()

    def whole():
        now = room.get("/v1/status")
        return now["room"]["state"] == "connected" and now["room"]["reading"] is None and sum(now["cards"].values()) >= len(everything)
    until(whole, "the room has all cards", 300)
    table.row("a new room has all", time.monotonic() - began, "s", 20)
    size = []
    table.row("the list of one site", timed(lambda: size.append(room.request("GET", "/v1/cards?site=s07", headers={
        "Accept": "application/x-ndjson"}).count(b'"id"'))), "s", 2)
    table.row("cards that are not in that list", cards - size[0], "", 0)
    table.row("resident memory of the room", resident(room.daemon.pid)[0], "MiB")
    updates = [random.choice(everything) for _ in range(400000)]
    table.row(f"{len(updates):,} updates of cards, with the room", timed(lambda: put(updates, 2)), "s")
    table.row("resident memory of the server afterwards", resident(server)[0], "MiB", 1536)
    table.row("resident memory of the room afterwards", resident(room.daemon.pid)[0], "MiB")


QUICK = (leader, cut, partition, heal, kills, burst, costs, reads)
NIGHTLY = (*QUICK, absent, large)


def main():
    cases = {case.__name__: case for case in NIGHTLY}
    told = "\n".join(f"  {name:<10} {case.__doc__}{'' if case in QUICK else ' (nightly)'}" for name, case in cases.items())
    parser = argparse.ArgumentParser(description=__doc__, epilog=f"cases:\n{told}", formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--nightly", action="store_true", help="the larger form of each case, and two that are nightly only")
    parser.add_argument("case", nargs="*", help="only these; one of them may be a nightly one")
    options = parser.parse_args()
    if unknown := set(options.case) - set(cases):
        parser.error(f"no such case: {', '.join(sorted(unknown))}; the cases are {', '.join(cases)}")
    fabric.enter_namespace()
    fabric.run("ip", "link", "set", "lo", "up")
    print(f"{'case':<9} | {'figure':<66} | {'':<16} | {'limit':>7} | result")
    for case in [cases[word] for word in options.case] or (NIGHTLY if options.nightly else QUICK):
        table.case = case.__name__
        try:
            with contextlib.ExitStack() as stack:
                case(stack, options.nightly)
        except (AssertionError, OSError, RuntimeError) as failure:
            table.row(f"broke off: {str(failure)[:400]}", 1, "", 0)
    print(f"load {os.getloadavg()[0]:.1f} at the end; " + (f"MISSED: {'; '.join(table.missed)}" if table.missed else "all limits hold"))
    sys.exit(1 if table.missed else 0)


if __name__ == "__main__":
    main()
