#!/usr/bin/python3
"""Measures fxmd and fxmctl on virtual cables against fxmsim: python3 bench/host.py [small|large|watchers ...].

The programs are those of build/release, or of FXMD, FXMCTL and FXMSIM. Each line ends with its limit; the exit code is 1
if one is missed. Times of whole processes depend on the machine; run it on a quiet one."""
import json
import os
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
from fabric import CARDS, FXMCTL, SERVER, SMALL, Fabric, UnixConnection, until  # noqa: E402

MANY = 65536
missed = []


def report(what, value, unit, limit):
    good = value <= limit
    if not good:
        missed.append(what)
    print(f"{what:<62} {value:10.2f} {unit:<4} limit {limit:g}{'' if good else '  MISSED'}", flush=True)


def cpu_s(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as file:
        words = file.read().rsplit(")", 1)[1].split()
    return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")


def resident_mib(pid):
    with open(f"/proc/{pid}/statm", encoding="ascii") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE") / 2**20


def ctl_ms(f, *words):
    began = time.monotonic()
    subprocess.run([FXMCTL, *words], env=os.environ | {"FXM_SOCKET": f.socket}, stdout=subprocess.DEVNULL, check=True)
    return (time.monotonic() - began) * 1000


def reads_ms(f, count, connection=None):
    """Round trips of register reads over one connection, and the part of each that is fxmd's."""
    connection = connection or UnixConnection(f.socket)
    whole, own = [], []
    for _ in range(count):
        began = time.monotonic()
        connection.request("GET", f"/v1/cards/{SMALL}/registers/0x10")
        document = json.loads(connection.getresponse().read())
        took = (time.monotonic() - began) * 1000
        whole.append(took)
        own.append(took - document["duration_us"] / 1000)
    connection.close()
    return sorted(whole), sorted(own)


def scrapes_ms(f):
    took = []
    for _ in range(50):
        began = time.monotonic()
        text = f.request("GET", "/metrics").decode()
        took.append((time.monotonic() - began) * 1000)
    return sorted(took), text


def small():
    f = Fabric(CARDS).start()
    f.well(5)
    ctl_ms(f, "reg", SERVER, "0x10")
    report("fxmctl reg, whole process, median of 200",
           statistics.median(ctl_ms(f, "reg", SERVER, "0x10") for _ in range(200)), "ms", 20)
    _, own = reads_ms(f, 3000)
    report("register read over the API, beyond the library's, median", own[len(own) // 2], "ms", 1)
    report("the same, 99th percentile", own[len(own) * 99 // 100], "ms", 1)
    second = []
    for _ in range(20):
        began = time.monotonic()
        code = subprocess.run([fabric.FXMD, "--config", f.config], stderr=subprocess.DEVNULL, check=False).returncode
        second.append((time.monotonic() - began) * 1000)
        assert code == 5
    report("a second manager ends, whole process, median", statistics.median(second), "ms", 100)
    f.close()


def large():
    f = Fabric(period=1000).start()
    stream = f.events()
    seen = {"count": 0, "gaps": 0}

    def count():
        while True:
            line = stream.answer.readline()
            if not line:
                return
            seen["count"] += b'"type":"change"' in line
            seen["gaps"] += b'"type":"gap"' in line

    reader = threading.Thread(target=count, daemon=True)
    reader.start()
    began = time.monotonic()
    f.cards(f"fxio 02:00:00:00:00:00 count={MANY} ports=0")
    # The last card announces itself one period after the command.
    asked = time.monotonic() - began
    until(lambda: f.get("/v1/status")["cards"]["total"] == MANY, "all cards are known", 60)
    whole = time.monotonic() - began
    report(f"{MANY} cards: from the command to the whole model", whole, "s", asked + 1 + 3)
    time.sleep(3)
    status, stats = f.get("/v1/status"), f.get("/v1/stats")
    report("events that reached a client", seen["count"], "", 70000)
    report("gaps of that client", seen["gaps"], "", 0)
    report("frames dropped", sum(port["dropped"] for port in status["ports"]), "", 0)
    report("callbacks that wait", stats["callbacks"]["queued"], "", 1000)
    report("fxmctl cards", ctl_ms(f, "cards"), "ms", 1000)
    report("fxmctl cards state=lost", ctl_ms(f, "cards", "state=lost"), "ms", 1000)
    # Frames go on arriving, and their CPU time is not the list's.
    before = cpu_s(f.daemon.pid)
    time.sleep(3)
    idle = (cpu_s(f.daemon.pid) - before) / 3
    memory = resident_mib(f.daemon.pid)
    before, began = cpu_s(f.daemon.pid), time.monotonic()
    for _ in range(5):
        f.request("GET", "/v1/cards", headers={"Accept": "application/x-ndjson"})
    used = cpu_s(f.daemon.pid) - before - idle * (time.monotonic() - began)
    report("GET /v1/cards as NDJSON, CPU of fxmd", used / 5 * 1000, "ms", 200)
    report("the same, more resident memory", resident_mib(f.daemon.pid) - memory, "MiB", 8)
    print(f"{'resident memory with all cards (128 MiB are capture rings)':<62} {memory:10.2f} MiB")
    for cards, most in (("no card in error", 150), ("2,000 more, in error", 1150)):
        took, text = scrapes_ms(f)
        report(f"GET /metrics, {cards}: median of 50", took[25], "ms", 10)
        report("  series", sum(not line.startswith("#") for line in text.splitlines()), "", most)
        print(f"{'  size':<62} {len(text) / 1024:10.2f} KiB")
        if most == 150:
            f.cards("fxio 02:10:00:00:00:00 count=2000 int=01 ports=1")
            until(lambda: f.get("/v1/status")["cards"]["error"] == 2000, "the cards are in error", 60)
    began = time.monotonic()
    assert f.stop() == 0
    report("from SIGTERM to the exit", time.monotonic() - began, "s", 2)
    stream.close()
    f.close()


def watchers():
    f = Fabric(CARDS, period=1000).start()
    f.well(5)
    f.cards("fxio 02:00:00:10:00:00 count=2000 ports=0")
    until(lambda: f.get("/v1/status")["cards"]["total"] == 2005, "all cards are known")
    alone, _ = reads_ms(f, 3000)
    memory = resident_mib(f.daemon.pid)
    script = os.path.join(TOP, "bench/watchers.py")
    # Watchers sit on other machines or other processors, so their crowd takes what the rest leaves.
    crowd = subprocess.Popen(["chrt", "--idle", "0", sys.executable, script, f.socket, "1000", "100"],
                             stdout=subprocess.PIPE, text=True)
    assert crowd.stdout.readline() == "ready\n"
    # Every card changes now and then: 2,000 events a second for each watcher would be the machine's limit, not fxmd's.
    stop = threading.Event()

    def change():
        vlan = 0
        while not stop.is_set():
            vlan += 1
            for card in range(5):
                f.cards(f"set 02:00:00:10:{card:02x}:00 vlan={300 + vlan % 100}")
                f.cards(f"notify 02:00:00:10:{card:02x}:00")
            time.sleep(0.2)

    changer = threading.Thread(target=change)
    changer.start()
    crowded, _ = reads_ms(f, 3000)
    grown = resident_mib(f.daemon.pid) - memory
    report("register read, 99th percentile, 1,000 watchers / none", crowded[2970] / alone[2970], "", 2)
    report("more resident memory with 1,000 watchers", grown, "MiB", 40)
    stop.set()
    changer.join()
    # More events than the ring and the sockets hold: those who read nothing lose some, and are told.
    for first in ("02:01:00:00:00:00", "02:02:00:00:00:00"):
        f.cards(f"fxio {first} count={MANY // 2 + 5000} ports=0")
    until(lambda: f.get("/v1/status")["cards"]["total"] == MANY + 12005, "all cards are known", 120)
    time.sleep(3)
    crowd.terminate()
    end = json.loads(crowd.stdout.readline())
    crowd.wait()
    report("clients that ended with another state", end["wrong"], "", 0)
    report("quick clients that ended at another event", len(end["last"]) - 1, "", 0)
    report("slow clients that were told no gap", 100 - end["slow_with_gap"], "", 0)
    report("gaps of quick clients", end["gaps_quick"], "", 0)
    f.close()


if __name__ == "__main__":
    fabric.enter_namespace()
    chosen = sys.argv[1:] or ["small", "large"]
    for name in chosen:
        {"small": small, "large": large, "watchers": watchers}[name]()
    sys.exit(1 if missed else 0)
