#!/usr/bin/python3
"""Measures what a fleet promises when something fails and when it is large: fxmd as sites and as a room, cards of fxmsim, and
servers of NATS, in a network namespace of its own. Each line of the table ends with its limit; the exit status is 1 if one is
missed."""
import argparse
import contextlib
import json
import math
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
LARGE = 20, 65000  # sites, and cards of each
UPDATES, UPDATES_S = 400000, 60  # of the case large, and for how long they go on at night
LATE = 9  # an election that lasts longer had more than one round
case_name, missed = "", []  # the case that runs, and what it and those before it have missed


def row(what, value, unit="", limit=None, excuse=""):
    """The limit is the most that is good; without one the figure is told. With an excuse, what is above it is not ours."""
    result = "" if limit is None else "holds" if value <= limit else excuse or "MISSED"
    if result == "MISSED":
        missed.append(f"{case_name}: {what}")
    progress("")
    figure = f"{value:,}" if isinstance(value, int) else f"{value:,.4g}"
    print(f"{case_name:<9} | {what:<66} | {figure:>9} {unit:<5} | {'' if limit is None else f'{limit:g}':>6} | {result}", flush=True)


def progress(text):
    if sys.stderr.isatty():
        print(f"\r\033[K{case_name}: {text}" if text else "\r\033[K", end="", file=sys.stderr, flush=True)


def settle(f):
    until(lambda: (now := f.get("/v1/status"))["fleet"]["sent_seq"] == now["seq"] and now["fleet"]["cards_waiting"] == 0,
          "the fleet has all of a site", 120)


class Site(Fabric):
    """fxmd with many cards, which all change with each tick."""

    def __init__(self, urls, number=0, cards=100, period=1000):
        self.name, self.vlan, self.count = NAMES[number], 300, cards
        super().__init__([f"fxio {FIRST} count={cards} ports=0"], number=number, period=period)
        self.configure(history=joins(urls, self.name), library=QUICK_EEPROM + f"devinfo_expire_time = {max(5000, 5 * period)}\n")
        self.start()

    def known(self):
        self.well(self.count) if self.count < 10000 else until(
            lambda: self.get("/v1/status")["cards"]["well"] == self.count, f"{self.count} cards are well", 90)
        return self

    def tick(self):
        self.vlan = 1300 - self.vlan
        self.cards(f"set all vlan={self.vlan}")
        self.cards("announce all")

    def sent(self):
        return self.get("/v1/status")["fleet"]["sent_seq"]

    def settle(self):
        settle(self)

    def vlans(self, of=None, query=""):
        """What this site, or a room about it, says of each card."""
        return {card["id"]: card["vlan"] for card in (of or self).get(f"/v1/cards?fields=vlan{query}")["cards"]}

    def history(self):
        """The events that are kept, by number."""
        until(lambda: self.get("/v1/history?limit=1&newest=true")["events"][-1]["seq"] == self.get("/v1/status")["seq"], "the history has all")
        kept = {}
        while events := self.get(f"/v1/history?limit=10000&after_seq={max(kept, default=0)}")["events"]:
            kept.update((event["seq"], event) for event in events)
        return kept


def joins(urls, site):
    return f'[fleet]\nurls = {json.dumps(urls)}\nsite = "{site}"\nallow = "operate"\n' if urls else ""


class Load:
    """All cards of the sites change some times a second."""

    def __init__(self, sites, ticks=10):
        self.sites, self.every, self.end, self.rate = sites, 1 / ticks, threading.Event(), None
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
        if self.rate is None:
            self.rate = (self.numbers() - self.before) / (time.monotonic() - self.began)
            self.end.set()
            for thread in self.threads:
                thread.join()
        return self.rate

    def __exit__(self, *_):
        with contextlib.suppress(OSError):
            self.stop()


def longest_silence(sites, seconds):
    """For how long each site has got no confirmation, at most."""
    end, began = time.monotonic() + seconds, time.monotonic()
    last, since, longest = {site: site.sent() for site in sites}, dict.fromkeys(sites, began), dict.fromkeys(sites, 0)
    while (now := time.monotonic()) < end:
        for site in sites:
            longest[site] = max(longest[site], now - since[site])
            if last[site] != (sent := site.sent()):
                last[site], since[site] = sent, now
        progress(f"{end - now:.0f} s more")
        time.sleep(0.05)
    return longest


def stored(servers):
    """All batches; None while the servers have no leader, which cannot read."""
    with contextlib.closing(servers.client()) as client:
        try:
            return list(client.stored(EVENTS))
        except (RuntimeError, OSError) as failure:
            progress(str(failure))
            time.sleep(1)
            return None


def compare(servers, sites, second=None):
    """A reader of the stream, as docs/fleet.md describes it, against the histories of the sites."""
    seen, last, doubled, wrong, lost = {site.name: {} for site in sites}, dict.fromkeys(NAMES, 0), 0, 0, 0
    for message in until(lambda: stored(servers), "the servers read the stream", 20):
        at = message.subject.rsplit(".", 1)[1]
        wrong += int(message.headers["Fxm-Prev"]) > last[at]  # a hole
        for event in map(json.loads, message.data.splitlines()):
            number = event.get("seq", event.get("to"))
            if number > last[at]:
                seen[at][number], last[at] = event, number
            else:
                doubled += 1
    for site in sites:
        kept, read = site.history(), seen[site.name]
        lost += len(set(kept) - set(read))
        wrong += sum(kept[number] != read[number] for number in set(kept) & set(read))
    row("events that a reader has", sum(map(len, seen.values())))
    row("events of the history that a reader has not, or not in order", lost, limit=0)
    row("events that differ from the history, and holes", wrong, limit=0)
    row("events that come twice, and that a reader drops", doubled, limit=second)


def resident(process):
    with open(f"/proc/{process.pid}/status", encoding="ascii") as file:
        found = dict(re.findall(r"(VmRSS|Threads):\s*(\d+)", file.read()))
    return int(found["VmRSS"]) / 1024, int(found["Threads"])


def p99(times):
    return sorted(times)[len(times) * 99 // 100] * 1000


def timed(do, *words):
    began = time.monotonic()
    do(*words)
    return time.monotonic() - began


def calls(count, of):
    """Times of GET at each of some, in turns. `of` has an fxmd and a path."""
    connections, times = [UnixConnection(f.socket) for f, _ in of], [[] for _ in of]

    def ask(connection, path):
        connection.request("GET", path)
        answer = connection.getresponse()
        assert answer.read() and answer.status == 200, path
    for number in range(count):
        for at in range(len(of)) if number % 2 else reversed(range(len(of))):
            times[at].append(timed(ask, connections[at], of[at][1]))
        if number % 100 == 0:
            progress(f"{number} of {count} calls")
    for connection in connections:
        connection.close()
    return times


def fleet(stack, servers=3, sites=1, cards=100, period=1000, **options):
    made = stack.enter_context(contextlib.closing(Servers(servers, **options)))
    many = [stack.enter_context(contextlib.closing(Site(made.urls, number, cards, period))) for number in range(sites)]
    for site in many:
        site.known().settle()
    return made, many


def room_of(stack, servers):
    return stack.enter_context(contextlib.closing(Room(servers.urls).start()))


def leader(stack, _):
    """the leader of the stream is killed under 4 sites with 1,000 events/s each"""
    servers, sites = fleet(stack, sites=4, window=120)
    with Load(sites) as load:
        time.sleep(2)
        killed = servers.leader(EVENTS)
        began = time.time()
        servers.signal(killed, signal.SIGKILL)
        silent = longest_silence(sites, 14)
        servers.start(killed)
        time.sleep(3)
        row("events a second, of all sites", load.stop(), "1/s")
    row("from the kill until the servers have elected another leader", servers.elected(EVENTS, began) or math.inf, "s")
    row("longest time without a confirmation", max(silent.values()), "s", 10)
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
        row("backlog", site.get("/v1/status")["fleet"]["waiting"])
        servers.cut(False)
        row("from the end of the cut to the first confirmation", timed(until, lambda: site.sent() > sent, "a confirmation"), "s")
        gone = timed(until, lambda: site.get("/v1/status")["fleet"]["waiting"] <= 2 * site.count, "only the last ticks wait", 60)
        row("from there until the backlog is gone", gone, "s", 15)
        row("events a second", load.stop(), "1/s")
    site.settle()
    compare(servers, [site])


def partition(stack, _):
    """the leader of the stream is cut from the other two servers, and joined again"""
    servers, sites = fleet(stack, sites=0, window=120, apart=True)
    alone = servers.leader(EVENTS)
    for number in range(2):  # the first one is at the server that will be alone
        at = (alone + number) % 3
        sites.append(stack.enter_context(contextlib.closing(Site(servers.urls[at:] + servers.urls[:at], number, cards=20))))
        sites[-1].known().settle()
    with Load(sites):
        cut_off = time.time()
        servers.isolate(alone)
        during = longest_silence(sites, 25)
        healed = time.time()
        servers.isolate(alone, False)
        after = longest_silence(sites, 12)
    election = servers.elected(EVENTS, cut_off) or math.inf
    row("from the cut until the servers have elected another leader", election, "s", 25)
    row("from the heal until they have elected one again, if they have", servers.elected(EVENTS, healed) or 0, "s")
    # Two servers may refuse each other once or twice, for 4 to 9 s each.
    excuse = "late election" if LATE < election < math.inf else ""
    for site, where, limit in ((sites[0], "the isolated server", 20), (sites[1], "a healthy server", 15)):
        row(f"longest time without a confirmation at {where}", during[site], "s", limit, excuse)
        if excuse:
            row("the same, beyond the election", during[site] - election, "s", limit - LATE)
        row("the same after the heal", after[site], "s", limit)
        site.settle()
    compare(servers, sites)


def heal(stack, nightly):
    """cards change while sites and room are cut off; the room's view is whole again"""
    cards, count = (65536, 2) if nightly else (5000, 2)
    servers, sites = fleet(stack, sites=count, cards=cards, period=20000 if nightly else 2000)
    room, wanted = room_of(stack, servers), {site: site.vlans() for site in sites}

    def whole():
        return all(site.vlans(room, f"&site={site.name}") == wanted[site] for site in sites)

    def hundredth(site):
        for number in range(0, 2 * cards, 200):
            card = f"02:00:00:{1 + (number >> 16):02x}:{number >> 8 & 255:02x}:{number & 255:02x}"
            site.cards(f"set {card} vlan=77")
            site.cards(f"announce {card}")
    until(lambda: len(room.get("/v1/sites")["sites"]) == count and whole(), "the room has all", 120)
    for what, limit, change, number in (("1 %", 30, hundredth, cards // 100), ("all", 90, Site.tick, cards))[:2 if nightly else 1]:
        servers.cut()
        ends = {site: site.get("/v1/status")["seq"] + number for site in sites}
        for site in sites:
            change(site)
        for site, end in ends.items():
            until(lambda: site.get("/v1/status")["seq"] >= end, "the changes", 60)  # pylint: disable=cell-var-from-loop
            wanted[site] = site.vlans()
        until(lambda: room.get("/v1/status")["room"]["state"] == "cut-off", "the room is cut off")
        servers.cut(False)
        row(f"{what} of {count} x {cards:,} cards changed: until the view is whole", timed(until, whole, "the view", 120), "s", limit)
    row("resident memory of the room", resident(room.daemon)[0], "MiB")


def kills(stack, nightly):
    """fxmd of a site is killed at random moments under load"""
    servers, (site,) = fleet(stack)
    count = 50 if nightly else 5
    with Load([site]):
        for number in range(count):
            progress(f"{number} of {count}")
            time.sleep(random.uniform(0, 1))
            site.stop(signal.SIGKILL)
            site.start()
    site.known().settle()
    row("kills", count)
    compare(servers, [site])


def burst(stack, nightly):
    """all cards of a site change at once"""
    burst_on(stack, 1, 65536 if nightly else 5000)
    if nightly:
        stack.close()
        burst_on(stack, 3, 65536)


def burst_on(stack, copies, cards):
    servers, (site,) = fleet(stack, copies, cards=cards, period=20000 if cards > 5000 else 2000)
    client = stack.enter_context(contextlib.closing(servers.client()))

    def ends():
        return [client.api(f"STREAM.INFO.{stream}")["state"]["last_seq"] for stream in (EVENTS, BUCKET)]
    before, last = ends(), site.get("/v1/status")["seq"]
    known = timed(lambda: (site.tick(), until(lambda: site.get("/v1/status")["seq"] >= last + cards, "all changes are known", 60)))
    whole = timed(site.settle)
    batches, puts = (now - then for now, then in zip(ends(), before))
    subjects = [f"$JS.API.DIRECT.GET.{BUCKET}.$KV.fxm_cards_1.{site.name}.{card.replace(':', '')}" for card in site.vlans()]
    wrong = sum(answer.json()["vlan"] != site.vlan for answer in client.ask_all((subject, b"") for subject in subjects))
    of = f"{cards:,} cards, {copies} server{'s' * (copies > 1)}"
    row(f"{of}: from the tick until fxmd knows all changes", known, "s")
    row(f"{of}: from there until the servers have all", whole, "s", 5)
    row(f"{of}: cards that are wrong in the bucket", wrong, limit=0)
    row(f"{of}: puts into the bucket", puts, limit=cards)
    row(f"{of}: batches", batches, limit=cards // 1000 + 66)


def reads(stack, nightly):
    """register reads through a room, beside those at the site"""
    servers, _ = fleet(stack, servers=1, sites=0)
    f = stack.enter_context(contextlib.closing(Fabric(CARDS, history="")))
    f.configure(history=joins(servers.urls, "north"))
    f.start().well(5)
    room, end = room_of(stack, servers), threading.Event()
    until(lambda: room.get("/v1/status")["cards"].get("well") == 5, "the room has all cards")

    def compared(what, count, limit):
        own, through = calls(count, [(f, f"/v1/cards/{SMALL}/registers/0x10"), (room, f"/v1/cards/north/{SMALL}/registers/0x10")])
        row(f"{what}: median at the site", statistics.median(own) * 1000, "ms")
        row(f"{what}: median through the room", statistics.median(through) * 1000, "ms")
        row(f"{what}: 99th percentile through the room, above the site's", p99(through) - p99(own), "ms", limit)

    def dump(card):
        while not end.is_set():
            f.job(kind="eeprom-dump", card=card)
    compared("register read", 5000 if nightly else 500, 5)
    jobs = [threading.Thread(target=dump, args=(card,), daemon=True) for card in (SERVER, DEVICE, MULTI, LOOSE)]
    for job in jobs:
        job.start()
    until(lambda: f.get("/v1/status")["jobs"]["running"] == 4, "four jobs run")
    compared("beside 4 dumps", 1000 if nightly else 300, 50)
    end.set()
    for job in jobs:
        job.join()

    def refused(what):
        def ask():
            connection = UnixConnection(room.socket)
            connection.request("GET", f"/v1/cards/north/{SMALL}/registers/0x10")
            assert b"FXM_API_ENOLINK" in connection.getresponse().read()
            connection.close()
        row(f"a read at {what}: until the refusal", timed(ask), "s", 0.1)
        code = subprocess.run([FXMCTL, "--fleet", room.socket, "--site", "north", "reg", SMALL, "0x10"], capture_output=True, check=False).returncode
        row(f"exit code of fxmctl, which is 4: {code}", int(code != 4), limit=0)
    f.daemon.send_signal(signal.SIGSTOP)
    until(lambda: room.get("/v1/sites")["sites"][0]["state"] == "silent", "the site is silent", 40)
    refused("a silent site")
    f.daemon.send_signal(signal.SIGCONT)
    servers.cut()
    until(lambda: room.get("/v1/status")["room"]["state"] == "cut-off", "the room is cut off")
    refused("a site that is cut off")


def costs(stack, nightly):
    """memory, threads and calls of an fxmd in a fleet, beside one in none"""
    servers, (site,) = fleet(stack, servers=1, cards=500)
    plain = stack.enter_context(contextlib.closing(Site([], 1, cards=500))).known()
    with Load((site, plain)) as load:
        # The ring of events has its full size first, in both.
        until(lambda: all(f.get("/v1/status")["seq"] > 70000 for f in (site, plain)), "the rings are full", 120)
        here, there = resident(site.daemon), resident(plain.daemon)
        row("more resident memory in a fleet", here[0] - there[0], "MiB", 8)
        row("more threads in a fleet", here[1] - there[1], limit=7)
        servers.cut()
        most = 0
        for second in range(30 if nightly else 15):
            time.sleep(1)
            most = max(most, resident(site.daemon)[0])
            progress(f"cut, {second} s")
        row("more resident memory in a cut", most - here[0], "MiB", 1)
        row("the same of the fxmd in no fleet", resident(plain.daemon)[0] - there[0], "MiB")
        row("events a second of each", load.stop() / 2, "1/s")
    servers.cut(False)
    site.settle()
    with Load((site, plain), ticks=2):
        own, other = calls(6000 if nightly else 3000, [(site, f"/v1/cards/{FIRST}"), (plain, f"/v1/cards/{FIRST}")])
    row("99th percentile of a call in no fleet", p99(other), "ms")
    row("the same in a fleet, as a ratio", p99(own) / p99(other), limit=1.1)


def absent(stack, _):
    """the servers are not there: an fxmd beside one in no fleet"""
    fabric.run("ip", "addr", "add", "10.99.0.1/24", "dev", "lo")  # nobody answers there
    stack.callback(fabric.run, "ip", "addr", "del", "10.99.0.1/24", "dev", "lo")
    urls = ["nats://10.99.0.77:4222", "nats://127.0.0.1:9"]
    both = [stack.enter_context(contextlib.closing(Site(at, number))) for number, at in enumerate((urls, []))]
    ready = [[], []]
    for _ in range(8):
        for f, times in zip(both, ready):
            f.stop()
            times.append(timed(f.start))
    paths = [(f.known(), f"/v1/cards/{FIRST}") for f in both]
    rounds = [[[sum(call > 0.01 for call in some), max(some) * 1000] for some in calls(4000, paths)] for _ in range(3)]
    row("from the start to the first answer, as a ratio", statistics.median(ready[0]) / statistics.median(ready[1]), limit=1.1)
    row("longest of 12,000 calls", max(own[1] for own, _ in rounds), "ms")
    row("longest of 12,000 calls in no fleet", max(other[1] for _, other in rounds), "ms")
    # What comes from elsewhere is not in every round.
    row("calls of more than 10 ms, beyond those in no fleet, best of 3 rounds", min(own[0] - other[0] for own, other in rounds), limit=0)


def large(stack, nightly):
    """1.3 million cards in the bucket, put there as sites would, and 400,000 updates; with --nightly a minute of them"""
    os.environ |= {"GOMEMLIMIT": "700MiB", "GLIBC_TUNABLES": "glibc.malloc.hugetlb=1"}  # as the unit of the room has it
    servers, _ = fleet(stack, servers=1, sites=0)
    servers.client_options["timeout"] = 60
    client = stack.enter_context(contextlib.closing(servers.client()))
    with contextlib.closing(Fabric(CARDS)) as f:  # this one makes the streams, and has put one document
        f.configure(history=joins(servers.urls, "first"))
        f.start().well(5)
        settle(f)
        document = client.ask(f"$JS.API.DIRECT.GET.{BUCKET}.$KV.fxm_cards_1.first.{DEVICE.replace(':', '')}").data
    document = document[document.index(b'"id"'):]
    client.api(f"STREAM.PURGE.{BUCKET}")

    def message(site, key, rev):
        return b'{"schema":"fxm/1","site":"%s","boot":"0000abcd","rev":%d,' % (site.encode(), rev) + document.replace(
            DEVICE.encode(), ":".join(re.findall("..", key)).encode(), 1)

    def put(places, rev, seconds=math.inf):
        """Returns how many it has put in that time."""
        end = time.monotonic() + seconds
        for start in range(0, len(places), 1000):
            if time.monotonic() > end:
                return start
            parts = []
            for site, number in places[start:start + 1000]:
                key = f"020000{number:06x}"
                data = message(site, key, rev)
                parts.append(b"PUB $KV.fxm_cards_1.%s.%s %d\r\n%s\r\n" % (site.encode(), key.encode(), len(data), data))
            client.send(b"".join(parts[:-1]))
            client.ask(f"$KV.fxm_cards_1.{site}.{key}", data)
            progress(f"{start:,} of {len(places):,} cards")
        return len(places)
    sites, cards = [f"s{number:02}" for number in range(LARGE[0])], LARGE[1]
    everything = [(site, number) for number in range(cards) for site in sites]
    row(f"{len(everything):,} cards of {len(message(sites[0], '0' * 12, 1))} bytes are put", timed(put, everything, 1), "s")
    row("resident memory of the server", resident(servers.processes[0])[0], "MiB")

    def whole():
        now = room.get("/v1/status")["room"]
        return now["cards_read"] >= len(everything) and now["cards_wanted"] == 0
    began = time.monotonic()
    room = room_of(stack, servers)
    until(whole, "the room has all cards", 200)
    row("a new room has all", time.monotonic() - began, "s", 20)
    began = time.monotonic()
    listed = room.request("GET", f"/v1/cards?site={sites[7]}", headers={"Accept": "application/x-ndjson"}).count(b'"id"')
    row("the list of one site", time.monotonic() - began, "s", 2)
    row("cards that are not in that list", cards - listed, limit=0)
    row("resident memory of the room", resident(room.daemon)[0], "MiB")
    began = time.monotonic()
    updates = put(random.choices(everything, k=UPDATES), 2, UPDATES_S if nightly else math.inf)
    row(f"{updates:,} updates at random, with the room", time.monotonic() - began, "s")
    row("resident memory of the server afterwards", resident(servers.processes[0])[0], "MiB", 1536 if updates == UPDATES else None)
    row("resident memory of the room afterwards", resident(room.daemon)[0], "MiB")


CASES = {case.__name__: case for case in (leader, cut, partition, heal, kills, burst, costs, reads, absent, large)}
# One round after the other. In a round some lists of cases run beside each other: most of the time those wait. What is measured
# most finely comes last.
QUICK = (((partition, heal, kills, cut), (leader, burst, costs, reads)),)
NIGHTLY = (((kills, partition), (cut, leader)), ((heal, burst, costs, reads, absent, large),))


def apart(options):
    """Each list in a process of its own. Returns whether all limits hold."""
    words = [sys.executable, "-B", os.path.abspath(__file__), "--part"] + ["--nightly"] * options.nightly
    good = True
    for lists in NIGHTLY if options.nightly else QUICK:
        parts = [subprocess.Popen(words + [case.__name__ for case in cases]) for cases in lists]
        good = not any([part.wait() for part in parts]) and good
    return good


def alone(options):
    """The cases that are named, here."""
    global case_name  # pylint: disable=global-statement
    fabric.enter_namespace()
    fabric.run("ip", "link", "set", "lo", "up")
    for case_name in options.case:
        began = time.monotonic()
        try:
            with contextlib.ExitStack() as stack:
                CASES[case_name](stack, options.nightly)
        except (AssertionError, OSError, RuntimeError, fabric.Refused) as failure:
            row(f"broke off: {str(failure)[:400]}", 1, limit=0)
        row("the whole case took", time.monotonic() - began, "s")
    return not missed


def main():
    quick = {case for lists in QUICK for cases in lists for case in cases}
    told = "\n".join(f"  {word:<10} {case.__doc__}{'' if case in quick else ' (nightly)'}" for word, case in CASES.items())
    parser = argparse.ArgumentParser(description=__doc__, epilog=f"cases:\n{told}", formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--nightly", action="store_true", help="all cases, in their larger form")
    parser.add_argument("--part", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("case", nargs="*", help="only these, one after the other")
    options = parser.parse_args()
    if unknown := set(options.case) - set(CASES):
        parser.error(f"no such case: {', '.join(sorted(unknown))}; the cases are {', '.join(CASES)}")
    if not options.part:
        print(f"{'case':<9} | {'figure':<66} | {'':<15} | {'limit':>6} | result", flush=True)
    good = alone(options) if options.case else apart(options)
    if not options.part:
        print(f"load {os.getloadavg()[0]:.1f} at the end; " + ("all limits hold" if good else "some are MISSED"))
    sys.exit(0 if good else 1)


if __name__ == "__main__":
    main()
