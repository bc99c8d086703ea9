"""fxmd and fxmctl as their users run them. Each test names what would be wrong."""
import contextlib
import grp
import json
import os
import re
import signal
import socket
import sqlite3
import subprocess
import threading
import time
import unittest
import urllib.parse
import urllib.request

import fabric
from fabric import CARDS, DEVICE, FXMCTL, FXMD, LOOSE, MONITOR, MULTI, SERVER, SMALL, Fabric, Refused, fits, until

TOP = os.path.realpath(f"{os.path.dirname(fabric.__file__)}/../..")
VOLATILE = re.compile(r"_ms$|^(pid|boot|seq|mac|ifindex|received|sent|resident_bytes|duration_us|uid|requests|events|"
                      r"clients|ring_\w+|called|returned|allocated|in_use|freed|r_\w+|t_\w+|FXM_\w+|connected_ms)$")


def stable(value, key=""):
    """The document with what differs from run to run replaced by its type."""
    if isinstance(value, dict):
        return {name: stable(item, name) for name, item in value.items()}
    if isinstance(value, list):
        return [stable(item, key) for item in value]
    is_time = isinstance(value, int) and value > 10**12
    return type(value).__name__ if is_time or (VOLATILE.search(key) and value is not None) else value


class HostTest(unittest.TestCase):
    maxDiff = None

    def fabric(self, cards=CARDS, start=True, prefix=(), **more):
        made = Fabric(cards, **more)
        self.addCleanup(made.close)
        if start:
            made.start(prefix)
            made.well(len(cards))
        return made

    def refused(self, status, code, call, *arguments):
        with self.assertRaises(Refused) as caught:
            call(*arguments)
        self.assertEqual((caught.exception.status, caught.exception.document["code"]), (status, code))
        return caught.exception.document


class Documents(HostTest):
    def test_every_document_fits_the_schema_and_its_golden_file(self):
        f = self.fabric()
        fits(f.send("PUT", f"/v1/cards/{SMALL}/registers/0x1000", {"value": 7}), "register_write")
        f.job(kind="eeprom-dump", card=SERVER, end=8)
        stored_ms = self.store_a_minute(f)
        requests = {
            "status": "/v1/status", "ports": "/v1/ports", "stats": "/v1/stats", "cards": "/v1/cards",
            "card": f"/v1/cards/{SERVER}", "topology": "/v1/topology", "job": "/v1/jobs/1", "jobs": "/v1/jobs",
            "register": f"/v1/cards/{SERVER}/registers/eeprom.lock", "log": "/v1/log",
            "register_range": f"/v1/cards/{SMALL}/registers?start=0xffc&end=0x1008", "registers": "/v1/registers",
            "minutes": f"/v1/history/minutes?since_ms={stored_ms}&until_ms={stored_ms}",
        }
        for name, path in requests.items():
            with self.subTest(name):
                document = fits(f.get(path), name)
                self.assertEqual(next(iter(document)), "schema")
                if name == "log":
                    continue  # its lines are for people
                golden = os.path.join(fabric.HERE, "golden", f"{name}.json")
                shown = json.dumps(stable(document), indent=1) + "\n"
                if os.environ.get("FXM_WRITE_GOLDEN"):
                    with open(golden, "w", encoding="utf-8") as file:
                        file.write(shown)
                with open(golden, encoding="utf-8") as file:
                    self.assertEqual(file.read(), shown)
        fits(f.get(f"/v1/cards/{MULTI}"), "card")
        lines = f.request("GET", "/v1/cards?class=fxio", headers={"Accept": "application/x-ndjson"}).splitlines()
        self.assertEqual([fits(json.loads(line), "card_line")["id"] for line in lines], [DEVICE, MULTI, LOOSE])
        self.assertEqual(f.get("/v1/schema")["$defs"], fabric.SCHEMA["$defs"])
        until(lambda: len(fits(f.get("/v1/history?type=change"), "history")["events"]) >= 5, "the history has the cards")
        whole = [event["seq"] for event in f.get("/v1/history?type=change")["events"]]
        for query, cut in (("limit=2", whole[:2]), ("limit=2&newest=true", whole[-2:])):
            page = fits(f.get(f"/v1/history?type=change&until_ms={int(time.time() * 1000)}&{query}"), "history")
            self.assertEqual([event["seq"] for event in page["events"]], cut)
            self.assertEqual(page["next_seq"], None if "newest" in query else cut[-1])

    def store_a_minute(self, f):
        """One of an hour ago: fxmd itself would take a minute for its first one. Returns its time."""
        until(lambda: f.get("/v1/history?limit=1")["events"], "the history has a file")
        with contextlib.closing(sqlite3.connect(f"{f.dir}/state/history.db", timeout=30)) as file, file:
            minute_ms = (int(time.time()) // 60 - 60) * 60000
            file.execute("INSERT INTO minutes VALUES(?, 5, 4, 3, 2, 1, 181, 136, 12, 7, 5715)", (minute_ms,))
        return minute_ms

    def test_lists_are_filtered_cut_and_continued(self):
        f = self.fabric()
        ids = lambda query: [card["id"] for card in f.get(f"/v1/cards?{query}")["cards"]]
        self.assertEqual(ids("vlan=100&class=fxio"), [DEVICE, MULTI])
        self.assertEqual(ids("vlan=150-250"), [SMALL, LOOSE])
        self.assertEqual(ids("filter=class!%3Dfxio%20gen%3D40g"), [SERVER])
        self.assertEqual(ids(f"partner={SERVER}&id=02:00:00:00:20:*"), [DEVICE])
        first = f.get("/v1/cards?limit=2&fields=id,vlan")
        self.assertEqual(first["cards"], [{"id": SERVER, "vlan": 100}, {"id": SMALL, "vlan": 200}])
        self.assertEqual(ids(f"after={first['next']}"), [DEVICE, MULTI, LOOSE])
        listed = lambda: [json.loads(line) for line in f.request(
            "GET", "/v1/cards?class=fxio&fields=vlan,channels.p1m1&rows=true",
            headers={"Accept": "application/x-ndjson"}).splitlines()]
        # A list is as of the last tick. The record of a card is not, so it may know of a channel before the list does.
        until(lambda: listed() == [{"schema": "fxm/1", "fields": ["id", "vlan", "channels.p1m1"]}, [DEVICE, 100, "up"],
                                   [MULTI, 100, "up"], [LOOSE, 200, None]], "rows with the channels that are up")
        for query in ("state=bad", "colour=red", "fields=id,nothing", "limit=0", "after=x", "vlan=5000", "filter=x", "rows=true"):
            self.refused(400, "FXM_API_EINVAL", f.get, f"/v1/cards?{query}")


class Events(HostTest):
    def test_changes_of_a_tick_are_one_event_and_no_interrupt_bit_is_lost(self):
        f = self.fabric()
        stream = f.events()
        for command in ("set {} int=04", "notify {}", "set {} int=01", "notify {}", "set {} int=00 vlan=300", "notify {}"):
            f.cards(command.format(DEVICE))
        seen = stream.until(lambda e: e.get("vlan") == 300)
        # A tick may hold any part of it. The bits are gone at its end, but not that there was an error.
        self.assertIn("error", [kind for e in seen for kind in e["kinds"]], seen)
        self.assertEqual([e["seq"] for e in seen], list(range(seen[0]["seq"], seen[0]["seq"] + len(seen))))
        self.assertEqual(seen[-1]["changes"]["vlan"], [100, 300])

    def test_a_filter_selects_what_matched_before_or_after(self):
        f = self.fabric()
        stream = f.events(query="filter=vlan%3D300")
        sse = f.events(accept="text/event-stream")
        f.cards(f"set {SMALL} int=02")
        f.cards(f"notify {SMALL}")
        for vlan in (300, 100):
            f.cards(f"set {DEVICE} vlan={vlan}")
            f.cards(f"notify {DEVICE}")
            self.assertEqual(stream.until(lambda e: True)[0]["vlan"], vlan)
        f.health(SMALL, "error")
        line = b""
        while b"event: change" not in line:
            previous, line = line, sse.answer.readline()
        self.assertRegex(previous.decode(), r"^id: [0-9a-f]{8}\.\d+\n$")
        stream.close()
        sse.close()

    def test_a_client_goes_on_where_it_was_and_across_a_restart(self):
        f = self.fabric()
        first = f.events()
        boot = first.boot["boot"]
        f.cards(f"set {DEVICE} vlan=300")
        f.cards(f"notify {DEVICE}")
        seq = first.until(lambda e: e["type"] == "change")[-1]["seq"]
        first.close()
        self.assertEqual(f.events(after=f"{boot}.{seq - 1}").until(lambda e: True)[0]["seq"], seq)
        f.stop(signal.SIGKILL)
        f.start()
        f.well(5)
        again = f.events(after=f"{boot}.{seq}")
        self.assertFalse(again.boot["resumed"])
        self.assertNotEqual(again.boot["boot"], boot)
        news = again.until(lambda e: e.get("card") == LOOSE)
        self.assertGreater(news[0]["seq"], seq)
        self.assertEqual({e["card"] for e in news if "card" in e and "new" in e["kinds"]},
                         {SERVER, SMALL, DEVICE, MULTI, LOOSE} & {e.get("card") for e in news})

    def test_health_follows_the_channels(self):
        f = self.fabric(library="devinfo_expire_time = 1000")
        f.cards(f"set {SERVER} int=04")
        f.health(SERVER, "error")
        f.cards(f"silent {DEVICE} p0m0")
        f.health(DEVICE, "degraded")
        f.cards(f"silent {DEVICE}")
        f.health(DEVICE, "lost")
        f.cards(f"set {MULTI} fault0=yes")
        f.health(MULTI, "degraded")
        f.ctl("monitor", "off", SERVER, "--yes")
        f.health(SERVER, "unmonitored")
        sums = {"well": 2, "degraded": 1, "error": 0, "lost": 1, "unmonitored": 1, "total": 5}
        until(lambda: sums.items() <= f.get("/v1/status")["cards"].items(), f"the sums are {sums}")
        f.stop()
        f.start()
        f.health(SMALL, "well")
        self.assertEqual(f.get(f"/v1/cards?state=unmonitored")["cards"], [])
        f.ctl("monitor", "on", SERVER)
        f.health(SERVER, "error")


class Registers(HostTest):
    def test_registers_are_read_and_written_and_a_dry_run_writes_nothing(self):
        f = self.fabric()
        f.cards(f"reg {SMALL} 0x1000 0xbeef")
        path = f"/v1/cards/{SMALL}/registers/0x1000"
        dry = fits(f.send("PUT", path, {"value": 0xcafe, "verify": True, "dry_run": True}), "register_write")
        self.assertEqual((dry["old"], dry["new"], dry["done"]), (0xbeef, 0xcafe, False))
        for words in (["reg", SMALL, "0x1000=1"], ["vlan", SMALL, "300"], ["reset", SMALL, "--status", "1"],
                      ["eeprom", "write", SMALL, "0", "1"], ["delete", SMALL], ["monitor", "off", SMALL],
                      ["eeprom", "unlock", SMALL]):
            self.assertIn("nothing was written", f.ctl(*words, code=2))
            f.ctl(*words, "--dry-run")
        counts = f.counts(SMALL)
        self.assertEqual((counts["writes"], counts["vlansets"], counts["resets"]),
                         (counts["writes"], 0, 0))
        self.assertEqual(f.cards(f"reg {SMALL} 0x1000"), "0x0000beef")
        self.assertEqual(f.ctl("reg", SMALL, "0x1000=0xcafe", "--verify", "--yes"), "0x0000beef → 0x0000cafe, verified\n")
        f.send("PATCH", path, {"value": 0xff, "mask": 0x0f})
        self.assertEqual(f.cards(f"reg {SMALL} 0x1000"), "0x0000caff".replace("caff", "caff"))
        self.assertIn("uid=0", [line for line in f.log().splitlines() if "old=0x0000beef new=0x0000cafe" in line][0])
        f.cards(f"reg {SERVER} 0x50f0 4")
        self.assertEqual(f.ctl("reg", SERVER.replace("10:00", "10:01"), "eeprom.lock"),
                         "0x50f0 eeprom.lock = 0x00000004 (own)\n")
        for bad in ("0x400000", "0x1002", "nothing", "-4"):
            self.refused(400, "FXM_API_EINVAL", f.get, f"/v1/cards/{SMALL}/registers/{bad}")
        for body in ("{", "[]", '{"value": -1}', '{"value": 1, "valeu": 2}', '{"value": "x"}', '{"value": 1e99}', "x" * 70000):
            status = 413 if len(body) > 65536 else 400
            self.refused(status, "FXM_TOO_LARGE" if status == 413 else "FXM_API_EINVAL", f.request, "PUT", path, body)

    def test_a_card_that_does_not_answer_holds_up_itself_alone(self):
        f = self.fabric()
        f.cards(f"deaf {DEVICE}")
        waiting = [threading.Thread(target=lambda: self.refused(504, "FXM_API_ETIMEDOUT", f.get,
                                                                f"/v1/cards/{DEVICE}/registers/0x10")) for _ in range(40)]
        for thread in waiting:
            thread.start()
        began = time.monotonic()
        for _ in range(20):
            f.get(f"/v1/cards/{SMALL}/registers/0x10")
        alone = time.monotonic() - began
        self.assertTrue(any(thread.is_alive() for thread in waiting), f"20 reads took {alone} s")
        for thread in waiting:
            thread.join()
        self.assertIn(DEVICE, f.ctl("reg", DEVICE, "0x10", "--retries", "0", code=4))

    def test_two_clients_at_once_get_no_wrong_word(self):
        f = self.fabric()
        for address in range(0x100, 0x200, 4):
            f.cards(f"reg {SERVER} {address} {address * 0x10001}")
        f.cards(f"eeprom-fill {SERVER} 5")
        faults = []

        def work():
            for _ in range(10):
                values = f.get(f"/v1/cards/{SERVER}/registers?start=0x100&end=0x200")["values"]
                if values != [address * 0x10001 for address in range(0x100, 0x200, 4)]:
                    faults.append(values)
                words = f.job(kind="eeprom-dump", card=SERVER, end=0x40)["result"]["words"]
                if words != [(5 * 0x01000193 ^ at * 0x9e3779b1) & 0xffffffff for at in range(0, 0x40, 4)]:
                    faults.append(words)

        clients = [threading.Thread(target=work) for _ in range(2)]
        for client in clients:
            client.start()
        for client in clients:
            client.join()
        self.assertEqual(faults, [])
        self.assertEqual(f.counts(SERVER)["foul"], 0)


class Eeprom(HostTest):
    def image(self, f, seed):
        words = [(seed * 0x01000193 ^ at * 0x9e3779b1) & 0xffffffff for at in range(0, 0x800, 4)]
        with open(f"{f.dir}/good.bin", "wb") as file:
            file.write(b"".join(word.to_bytes(4, "little") for word in words))
        return words

    def test_a_restore_that_is_killed_is_finished_by_running_it_again(self):
        f = self.fabric()
        words = self.image(f, 9)
        f.cards(f"eeprom-fill {SERVER} 4")
        self.assertIn("512 of 512 words differ", f.ctl("eeprom", "restore", SERVER, "good.bin", "--dry-run"))
        self.assertIn("nothing was written", f.ctl("eeprom", "restore", SERVER, "good.bin", code=2))
        client = subprocess.Popen([FXMCTL, "--socket", f.socket, "--yes", "eeprom", "restore", SERVER, "good.bin"],
                                  cwd=f.dir, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        until(lambda: any(job["kind"] == "eeprom-restore" and not job["dry_run"] and 3 < job["done"] < 500
                          and job["total"] == 512 and "eeprom 0x" in f.log() for job in f.get("/v1/jobs")["jobs"]),
              "the restore writes", 120)
        f.stop(signal.SIGKILL)
        self.assertIn(client.wait(60), (4, 7), client.stdout.read())
        client.stdout.close()
        f.start()
        f.well(5)
        out = f.ctl("eeprom", "restore", SERVER, "good.bin", "--yes")
        self.assertRegex(out, r"^\d+ of 512 words differ")
        self.assertLess(int(out.split()[0]), 512)
        self.assertIn("all 512 verified", out)
        self.assertEqual(int(f.cards(f"eeprom {SERVER} 0x7fc"), 0), words[-1])
        backups = [name for name in os.listdir(f.dir) if name.endswith("Z.bin")]
        self.assertEqual(len(backups), 2)
        with open(f"{f.dir}/{min(backups)}", "rb") as file:
            self.assertEqual(int.from_bytes(file.read()[4:8], "little"), (4 * 0x01000193 ^ 4 * 0x9e3779b1) & 0xffffffff)

    def test_a_cancelled_restore_tells_what_is_left_and_locks_are_respected(self):
        f = self.fabric()
        words = self.image(f, 7)
        number = f.send("POST", "/v1/jobs", {"kind": "eeprom-restore", "card": SERVER, "words": words})["job"]
        until(lambda: "eeprom 0x" in f.log(), "it writes", 120)
        f.ctl("jobs", "cancel", str(number))
        job = until(lambda: (j := f.get(f"/v1/jobs/{number}"))["ended_ms"] and j, "it ends")
        result = job["result"]
        self.assertEqual(job["state"], "cancelled")
        self.assertEqual(len(result["written"]) + len(result["left"]), 512)
        self.assertEqual(int(f.cards(f"eeprom {SERVER} {result['written'][-1]}"), 0), words[result["written"][-1] // 4])
        f.cards(f"holder {SERVER} take")
        f.configure(library=QUICK + "eeprom_retry_count = 2\n")
        f.stop()
        f.start()
        f.well(5)
        self.assertIn("another manager", f.ctl("eeprom", "read", SERVER, "0", code=5))
        f.ctl("eeprom", "read", SERVER, "0", "--force")
        self.assertEqual(f.counts(SERVER)["foul"], 0)

    def test_only_a_writer_writes(self):
        f = self.fabric(top="")
        self.refused(403, "FXM_DENIED", f.send, "POST", "/v1/jobs",
                     {"kind": "eeprom-write", "card": SERVER, "address": 0, "value": 1})
        self.assertIn("eeprom_writer", f.ctl("eeprom", "write", SERVER, "0", "1", "--yes", code=6))
        f.job(kind="eeprom-write", card=SERVER, address=0, value=1, dry_run=True)
        for request in ({"kind": "x", "card": SERVER}, {"kind": "eeprom-dump", "card": SERVER, "start": 2},
                        {"kind": "eeprom-compare", "card": SERVER, "words": []}, {"kind": "vlan", "card": SERVER, "vlan": 3},
                        {"kind": "register-dump", "card": SERVER, "start": 0, "end": 0x400000}):
            self.refused(400, "FXM_API_EINVAL", f.send, "POST", "/v1/jobs", request)
        self.assertEqual(f.cards(f"eeprom {SERVER} 0"), "0x00000000")


QUICK = fabric.QUICK_EEPROM


class Roles(HostTest):
    def as_user(self, f, groups, *words):
        def become():
            os.setgroups([grp.getgrnam(name).gr_gid for name in groups])
            os.setgid(54321)
            os.setuid(54321)
        return subprocess.run([FXMCTL, "--socket", f.socket, *words], preexec_fn=become, capture_output=True, text=True,
                              check=False, cwd="/", stdin=subprocess.DEVNULL, env={"ASAN_OPTIONS": "detect_leaks=0"})

    def test_the_kernel_tells_who_may_do_what(self):
        f = self.fabric(api='group_view = "games"\ngroup_operate = "users"\ngroup_admin = "staff"')
        for groups, reads, writes, reloads in (([], 6, 6, 6), (["games"], 0, 6, 6), (["users"], 0, 0, 6), (["staff"], 0, 0, 0)):
            with self.subTest(groups):
                self.assertEqual(self.as_user(f, groups, "status").returncode, reads)
                write = self.as_user(f, groups, "reg", SMALL, "0x1000=1", "--yes")
                self.assertEqual(write.returncode, writes, write.stderr)
                if writes:
                    self.assertIn("group users", write.stderr)
                self.assertEqual(self.as_user(f, groups, "reload").returncode, reloads)

    def test_the_loopback_address_wants_a_token_and_its_own_name(self):
        f = self.fabric(start=False)
        with open(f"{f.dir}/tokens", "w", encoding="utf-8") as file:
            file.write("view 0123456789abcdef\n")
        os.chmod(f"{f.dir}/tokens", 0o640)
        f.configure(api=f'listen = "127.0.0.1:8619"\ntoken_file = "{f.dir}/tokens"')
        run = subprocess.run
        run(["ip", "link", "set", "lo", "up"], check=True)
        f.start()
        f.well(5)

        def ask(method="GET", path="/v1/status", token="0123456789abcdef", host="127.0.0.1:8619", origin=None):
            with socket.create_connection(("127.0.0.1", 8619), 30) as connection:
                connection.sendall(f"{method} {path} HTTP/1.1\r\nHost: {host}\r\nAuthorization: Bearer {token}\r\n"
                                   f"{f'Origin: {origin}' if origin else 'X-None: 1'}\r\n"
                                   f"Content-Length: 2\r\nConnection: close\r\n\r\n{{}}".encode())
                return int(connection.makefile().readline().split()[1])

        self.assertEqual(ask(), 200)
        self.assertEqual(ask(token="0123456789abcdee"), 403)
        self.assertEqual(ask(host="evil.example:8619"), 403)
        self.assertEqual(ask(host="localhost:8619", origin="http://localhost:8619"), 200)
        self.assertEqual(ask(origin="http://evil.example"), 403)
        # The page holds nothing of the fabric, so that a browser can ask for the token.
        self.assertEqual(ask(path="/", token=""), 200)
        # A browser behind a forwarded port brings the rights of its user, so the same holds on the Unix socket.
        for headers, status in (({"Host": "evil.example", "Accept-Language": "en"}, 403), ({"Origin": "http://evil.example"}, 403),
                                ({"Host": "localhost:8610", "Origin": "http://localhost:8610"}, 200), ({"Host": "any.name"}, 200)):
            connection = fabric.UnixConnection(f.socket)
            connection.request("GET", "/v1/status", headers=headers)
            self.assertEqual(connection.getresponse().status, status, headers)
            connection.close()
        self.assertEqual(ask("PUT", f"/v1/cards/{SMALL}/vlan"), 403)
        f.ctl("--url", "http://127.0.0.1:8619", "--token-file", f"{f.dir}/tokens", "status")

    def test_an_ordinary_user_with_one_capability_is_enough(self):
        f = self.fabric(start=False)
        os.chmod(f.dir, 0o777)
        f.start(prefix=["setpriv", "--reuid", "54321", "--regid", "54321", "--clear-groups", "--inh-caps=-all,+net_raw",
                        "--ambient-caps=-all,+net_raw", "--bounding-set=-all,+net_raw"])
        f.well(5)
        f.ctl("reg", SERVER, "0x10")


class Life(HostTest):
    def test_a_port_has_one_manager(self):
        f = self.fabric()
        for program in ([FXMD, "--config", f.config], [MONITOR, "--dir", f"{f.dir}/run/library"]):
            began = time.monotonic()
            second = subprocess.run(program, capture_output=True, text=True, check=False)
            self.assertEqual(second.returncode, 5, second.stderr)
            self.assertIn(f"fxm0 is managed by fxmd (pid {f.daemon.pid}); use fxmctl", second.stderr)
            self.assertLess(time.monotonic() - began, 30)
        # Whoever has asked for the holder must not keep the next one from an answer.
        address = b"\0fxm-port-%d" % socket.if_nametoindex("fxm0")
        visitors = []
        with contextlib.suppress(BlockingIOError):
            while True:
                visitors.append(socket.socket(socket.AF_UNIX))
                visitors[-1].setblocking(False)
                visitors[-1].connect(address)
        for visitor in visitors:
            visitor.close()
        full = subprocess.run([MONITOR, "--dir", f"{f.dir}/run/library"], capture_output=True, timeout=60, check=False)
        self.assertEqual(full.returncode, 5, full.stderr)
        until(lambda: f"fxmd (pid {f.daemon.pid})" in
              subprocess.run([FXMD, "--config", f.config], capture_output=True, text=True, check=False).stderr,
              "the holder is named again")

    def test_a_deleted_port_does_not_end_fxmd(self):
        f = self.fabric()
        stream = f.events()
        subprocess.run(["ip", "link", "del", "card1"], check=True)
        stream.until(lambda e: e["type"] == "library" and e["state"] == "restarting")
        self.assertEqual(f.get("/v1/status")["library"]["last_result"], "FXM_API_EPROTO")
        self.assertTrue(f.get("/v1/status")["warnings"])
        f.health(SERVER, "lost")
        f.ctl("reg", SERVER, "0x10", code=4)
        f.cable(1)
        stream.until(lambda e: e["type"] == "library" and e["state"] == "running")
        until(lambda: f.get("/v1/status")["library"]["restarts"] == 1, "the restart is counted")
        f.health(SERVER, "well")  # by its channels on the first port; the simulator has lost the second cable
        stream.close()

    def test_kills_leave_no_trace(self):
        f = self.fabric()
        boot, seq = None, 0
        for _ in range(5):
            stream = f.events(after=f"{boot}.{seq}" if boot else None)
            self.assertTrue(boot is None or stream.boot["seq"] >= seq)
            boot = stream.boot["boot"]
            f.cards(f"set {DEVICE} vlan={300 + seq % 2}")
            f.cards(f"notify {DEVICE}")
            for event in stream.until(lambda e: e.get("card") == DEVICE):
                self.assertGreater(event["seq"], seq)
                seq = event["seq"]
            f.stop(signal.SIGKILL)
            stream.close()
            f.start()
            f.get("/v1/history")
            f.well(5)

    def test_a_full_disk_stops_the_history_alone(self):
        f = self.fabric(start=False)
        os.mkdir(f"{f.dir}/state")
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=2m", "none", f"{f.dir}/state"], check=True)
        self.addCleanup(lambda: subprocess.run(["umount", f"{f.dir}/state"], check=False, stderr=subprocess.DEVNULL))
        f.start()
        f.well(5)
        until(lambda: f.get("/v1/status")["history"]["events"] >= 5, "the history has begun")
        filler = os.open(f"{f.dir}/state/filler", os.O_WRONLY | os.O_CREAT)
        with self.assertRaises(OSError):
            while True:
                os.write(filler, b"x" * 4096)
        os.close(filler)

        def failing():
            f.cards(f"set {DEVICE} vlan={300 + int(time.monotonic() * 100) % 50}")
            f.cards(f"notify {DEVICE}")
            return f.get("/v1/status")["history"]["state"] == "failing"

        until(failing, "the full disk is noticed")
        self.assertTrue(f.get("/v1/status")["warnings"])
        self.assertIn(b"\nfxm_history_up 0\n", f.request("GET", "/metrics"))
        f.ctl("reg", SERVER, "0x10")
        os.unlink(f"{f.dir}/state/filler")
        until(lambda: f.get("/v1/status")["history"]["state"] == "on", "the history goes on", 60)
        self.assertEqual(f.log().count("the history cannot be written"), 1)
        f.stop()
        subprocess.run(["umount", f"{f.dir}/state"], check=True)

    def test_a_wrong_configuration_is_named_and_a_reload_loses_nothing(self):
        f = self.fabric()
        with open(f.config, encoding="utf-8") as file:
            good = file.read()
        with open(f.config, "w", encoding="utf-8") as file:
            file.write(good.replace("eeprom_writer = true", "eeprom_writer = 1\nmax_card = 7"))
        refusal = f.ctl("reload", code=2)
        self.assertIn(f"{f.config}:4: eeprom_writer = 1: expected true or false", refusal)
        self.assertIn("did you mean max_cards?", refusal)
        with open(f"{f.dir}/bad.toml", "w", encoding="utf-8") as file:
            file.write(f'[api]\nlisten = "127.0.0.1:8610"\ntoken_file = "{f.dir}/bad.toml"\n[histroy]\ndays = 5\n'
                       '[library]\ntag_min = 9\ntag_max = 7\nbroadcast_mac = "03-00-ff-ff-ff-ff"\n')
        check = subprocess.run([FXMD, "--check", "--config", f"{f.dir}/bad.toml"], capture_output=True, text=True,
                               check=False)
        self.assertEqual(check.returncode, 2)
        for line in ("bad.toml: ports is missing", "bad.toml:3: api.token_file =", "did you mean history.days?",
                     "bad.toml:7: library.tag_min = 9: must not be greater", 'bad.toml:9: library.broadcast_mac = "03-'):
            self.assertIn(line, check.stderr)
        self.assertTrue(f.get("/v1/status")["eeprom_writer"])
        with open(f.config, "w", encoding="utf-8") as file:
            file.write(good.replace("eeprom_writer = true", "eeprom_writer = false").replace(
                "[library]", "[library]\ntag_max = 100"))
        f.daemon.send_signal(signal.SIGHUP)
        until(lambda: not f.get("/v1/status")["eeprom_writer"], "the reload is applied")
        until(lambda: "a restart of fxmd is needed to change library.tag_max" in f.log(), "the log names the key")

    def test_the_sample_and_the_ranges_are_those_of_the_programs(self):
        for name, flags in (("fxmd", []), ("room", ["--fleet"])):
            with open(f"{fabric.HERE}/../../conf/{name}.toml", "rb") as file:
                self.assertEqual(subprocess.run([FXMD, *flags, "--print-config"], capture_output=True, check=True).stdout, file.read())
        sample = subprocess.run([FXMD, "--print-config"], capture_output=True, text=True, check=True).stdout
        with open(f"{fabric.HERE}/../../conf/fxmd.toml", encoding="utf-8") as file:
            self.assertEqual(file.read(), sample)
        ranges = re.findall(r"a number from (\d+) to (\d+)\.\n#(\w+) =", sample.split("[library]")[1])
        self.assertGreater(len(ranges), 20)
        f = self.fabric()
        for end in (0, 1):
            f.daemon.kill()
            f.daemon.wait()
            f.configure(library="\n".join(f"{key[2]} = {key[end]}" for key in ranges))
            f.start()
        f.daemon.kill()
        f.daemon.wait()
        f.daemon = None

    def test_the_wire_cannot_make_it_grow_without_end(self):
        f = self.fabric(cards=[], top='max_cards = 50\nforget_after = "1s"', library="devinfo_expire_time = 1000")
        f.cards("fxio 02:00:00:00:00:00 count=200")
        until(lambda: f.get("/v1/status")["cards"]["refused"] > 200, "cards are refused")
        until(lambda: f.get("/v1/status")["cards"]["total"] == 50, "the others are known")
        self.assertEqual(f.log().count("more than max_cards = 50"), 1)
        f.cards("silent all")
        until(lambda: f.get("/v1/status")["cards"]["total"] == 0, "lost cards are forgotten")
        self.assertEqual(int(f.get("/v1/stats")["memory"]["fxio"]["in_use"]), 0)


class Commands(HostTest):
    def test_every_command_answers_and_no_daemon_has_an_exit_code(self):
        f = self.fabric()
        self.assertIn("5 cards (2 FXSV, 3 FXIO): 5 well", f.ctl("status"))
        self.assertEqual(f.ctl("tree").splitlines()[1], f"├─ 0  {DEVICE} FXIO 8086:1572  connected")
        self.assertEqual(len(f.ctl("cards", "class=fxio").splitlines()), 4)
        for words in (["ports"], ["show", SERVER], ["show", MULTI], ["topology"], ["stats"], ["log"], ["jobs"],
                      ["reg", "--names"], ["history", "--since", "1h"], ["loglevel", "debug"],
                      ["completion", "bash"], ["wait", DEVICE, "connected"], ["reg", SMALL, "0x0..0x40"],
                      ["page", MULTI, "3", "page.bin", "--yes"], ["monitor", "on", LOOSE],
                      ["eeprom", "read", SERVER, "0x10", "--retries", "5", "--livecheck"], ["vlan", LOOSE, "201", "--yes"]):
            with open(f"{f.dir}/page.bin", "wb") as file:
                file.write(bytes(range(128)))
            f.ctl(*words)
        report = f.ctl("status-dump", "--verbose").split()[-1]
        with open(report, encoding="utf-8") as file:
            self.assertIn("FX card information detail", file.read())
        self.assertEqual(f.cards(f"page {MULTI} 3"), bytes(range(128)).hex())
        for words in (["-j", "status"], ["-j", "cards"], ["ports", "-j"], ["-j", "show", SERVER], ["stats", "-j"]):
            self.assertEqual(json.loads(f.ctl(*words))["schema"], "fxm/1")
        with open(f"{f.dir}/old.json", "w", encoding="utf-8") as file:
            file.write(f.ctl("snapshot"))
        f.ctl("diff", "old.json")
        f.ctl("vlan", DEVICE, "300", "--verify", "--yes")
        until(lambda: f.get(f"/v1/cards/{DEVICE}")["vlan"] == 300, "the card has announced it")
        f.ctl("diff", "old.json", code=1)
        self.assertIn(DEVICE, f.ctl("__complete", "--", "show", "02:00"))
        for code, words in ((2, ["nothing"]), (2, ["cards", "x"]), (2, ["show", "zz"]), (3, ["show", "020000999999"]),
                            (4, ["wait", SERVER, "lost", "--timeout", "0"]), (2, ["reg", SERVER, "0x1"]),
                            (1, ["jobs", "show", "99"]), (2, ["eeprom", "read", SERVER, "0x10", "--retries", "101"]), (2, ["vlan", DEVICE, "5000", "--yes"]),
                            (2, ["page", MULTI, "3", "old.json", "--yes"]), (7, ["--socket", "/nowhere", "status"])):
            self.assertEqual(len(f.ctl(*words, code=code).splitlines()), 1, words)

    def test_watch_goes_on_after_a_restart(self):
        f = self.fabric()
        watch = subprocess.Popen([FXMCTL, "--socket", f.socket, "--ndjson", "watch"], stdout=subprocess.PIPE, text=True)
        first = json.loads(watch.stdout.readline())
        f.stop(signal.SIGKILL)
        f.start()
        f.well(5)
        seen, cards = [first["seq"]], set()
        while len(cards) < 5:
            event = json.loads(watch.stdout.readline())
            if event["type"] == "change":
                cards.add(event["card"])
                seen.append(event["seq"])
        self.assertEqual(seen, sorted(set(seen)))
        watch.terminate()
        watch.wait()
        watch.stdout.close()

    def test_the_doctor_names_what_is_wrong(self):
        f = self.fabric()
        doctor = lambda code, *words: subprocess.run(
            [FXMCTL, "--socket", f.socket, "doctor", "--config", f.config, *words], capture_output=True, text=True,
            check=False)
        done = doctor(0)
        self.assertEqual((done.returncode, done.stdout.count("WRONG")), (0, 0), done.stdout)
        stranger = subprocess.run(["setpriv", "--reuid", "4711", "--regid", "4711", "--clear-groups", FXMCTL, "--socket",
                                   f.socket, "doctor", "--config", f.config], capture_output=True, text=True, check=False)
        self.assertIn("ask for membership of the group", stranger.stdout)
        self.assertIn(f"ok       claim on fxm0: held by fxmd (pid {f.daemon.pid})", stranger.stdout)
        self.assertIn("run fxmctl doctor with sudo", stranger.stdout)
        f.stop()
        holder = socket.socket(socket.AF_UNIX)
        holder.bind(b"\0fxm-port-%d" % socket.if_nametoindex("fxm0"))
        holder.listen()
        f.configure(library="ether_type = 0x9999")
        subprocess.run(["ip", "link", "set", "card1", "down"], check=True)
        done = doctor(1)
        for words in ("fxmd is not running", "cards announce themselves with EtherType 0x88b6, but 0x9999 is configured",
                      "WRONG    port fxm1: no carrier", f"held by python3 (pid {os.getpid()})"):
            self.assertIn(words, done.stdout)
        holder.close()
        subprocess.run(["ip", "link", "set", "fxm1", "down"], check=True)
        self.assertIn("port fxm1: the interface is down", doctor(1).stdout)
        with open(f.config, "w", encoding="utf-8") as file:
            file.write('ports = ["nothere"]\n')
        self.assertIn("port nothere: there is no such interface", doctor(1).stdout)
        f.daemon = None


class Metrics(HostTest):
    MONITORING = f"{fabric.HERE}/../../packaging/monitoring"
    ROOM = ("fxm_fleet_site_", "fxm_fleet_room_")  # metrics that a room serves, and no site: documented() has them, for its own test
    last: dict = {}

    def scrape(self, f):
        """All samples by the text of their series. No counter may be less than in the last scrape."""
        text = f.request("GET", "/metrics").decode()
        self.types = dict(re.findall(r"^# TYPE (\w+) (\w+)$", text, re.M))
        now = {series: float(value) for series, value in re.findall(r"^(\w+(?:{[^}]*})?) (\S+)$", text, re.M)}
        self.assertEqual(len(now), len([line for line in text.splitlines() if line and line[0] != "#"]))
        for series, before in self.last.items():
            name = re.sub(r"(_bucket|_sum|_count)?(\{.*)?$", "", series)
            if self.types.get(name) == "histogram" or self.types.get(series.split("{")[0]) == "counter":
                self.assertGreaterEqual(now[series], before, series)
        self.last = now
        return now

    def promtool(self, *words, stdin=None):
        done = subprocess.run(["promtool", *words], input=stdin, capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)

    def documented(self, room=False):
        """Type and labels of each metric of a site, or of those that a room has besides."""
        with open(f"{fabric.HERE}/../../docs/monitoring.md", encoding="utf-8") as file:
            rows = re.findall(r"^\| `(\w+)` \| (counter|gauge|histogram) \|(.*?)\|", file.read(), re.M)
        return {name: (kind, set(re.findall(r"`(\w+)`", text))) for name, kind, text in rows if name.startswith(self.ROOM) == room}

    def expressions(self):
        """Of the board and of the rules."""
        with open(f"{self.MONITORING}/fxm-board.json", encoding="utf-8") as file:
            board = json.load(file)
        with open(f"{self.MONITORING}/fxm-rules.yml", encoding="utf-8") as file:
            rules = re.findall(r"expr: (?:>-\n)?(.*?)\n        for:", file.read(), re.S)
        marks = [mark["expr"] for mark in board["annotations"]["list"]]
        variables = [entry["definition"] for entry in board["templating"]["list"] if "definition" in entry]
        return [target["expr"] for panel in board["panels"] for target in panel["targets"]], rules + marks + variables

    def test_the_document_says_what_the_cards_and_the_api_say(self):
        f = self.fabric()
        f.stop()  # the numbers of events go on, so that a client of the next run can ask for lost ones
        f.start()
        f.well(5)
        now = self.scrape(f)
        self.assertLessEqual(len(now), 150)
        for kind, count in (("fxsv", 2), ("fxio", 3)):
            self.assertEqual(now[f'fxm_cards{{class="{kind}",health="well"}}'], count)
        self.promtool("check", "metrics", stdin=f.request("GET", "/metrics").decode())

        path = f"/v1/cards/{SMALL}/registers"
        for address in ("0x10", "0x14", "0x18"):
            f.get(f"{path}/{address}")
        f.get(f"{path}?start=0&end=0x40")
        f.send("PUT", f"{path}/0x1000", {"value": 7})  # reads the old value, too
        f.cards(f"deaf {LOOSE}")
        self.refused(504, "FXM_API_ETIMEDOUT", f.get, f"/v1/cards/{LOOSE}/registers/0x10?retries=1&interval_ms=5")
        f.job(kind="register-dump", card=SMALL, start=0, end=8)
        stream = f.events(after=f"{f.get('/v1/status')['boot']}.0")
        stream.until(lambda e: e["type"] == "gap")
        stream.close()
        before, now, after = f.get("/v1/stats"), self.scrape(f), f.get("/v1/stats")
        for series, value in {'requests_total{op="read",result="ok"}': 4, 'requests_total{op="range",result="ok"}': 1,
                              'requests_total{op="write",result="ok"}': 1, 'duration_seconds_count{op="write"}': 1,
                              'requests_total{op="read",result="timeout"}': 1, 'duration_seconds_count{op="read"}': 4,
                              'duration_seconds_bucket{op="read",le="+Inf"}': 4}.items():
            self.assertEqual(now[f"fxm_register_{series}"], value, series)
        self.assertGreater(now['fxm_register_duration_seconds_sum{op="write"}'], 0)
        buckets = [value for series, value in now.items() if 'bucket{op="read"' in series]
        self.assertEqual(buckets, sorted(buckets))
        self.assertEqual((now['fxm_jobs{state="done"}'], now["fxm_client_gaps_total"]), (1, 1))
        sums = {"r": 0, "t": 0}
        for port in (0, 1):
            for kind in [key for key in before["frames"][port] if "_" in key and not key.endswith("_total")]:
                value = now[f'fxm_port_frames_total{{port="{port}",kind="{kind}"}}']
                self.assertTrue(before["frames"][port][kind] <= value <= after["frames"][port][kind], kind)
                sums[kind[0]] += value
        total = lambda stats, key: sum(port[key] for port in stats["frames"])
        self.assertTrue(total(before, "r_total") <= sums["r"] <= total(after, "r_total"), sums)
        self.assertEqual(sums["t"], total(after, "t_total"))
        self.assertEqual(sum(now[f'fxm_port_frames_total{{port="{port}",kind="t_regw"}}'] for port in (0, 1)),
                         f.counts("all")["writes"])
        for name, kind in (("NEWDEVINFO", "new"), ("CHANNELSTATECHANGE", "channel"), ("MAJORMINORERROR", "error")):
            self.assertEqual(now[f'fxm_events_total{{kind="{kind}"}}'], after["library_events"][f"FXM_EVT_{name}"])

        f.cards(f"set {DEVICE} int=04")
        until(lambda: f.get("/v1/status")["cards"]["error"] == 1, "it is in error")
        now = self.scrape(f)
        named = [series for series in now if series.startswith("fxm_card_int_vector")]
        self.assertEqual(named, [f'fxm_card_int_vector{{card="{DEVICE}",class="fxio"}}'])
        self.assertEqual((now[named[0]], now['fxm_cards{class="fxio",health="error"}']), (4, 1))
        labels = {name: set() for name in self.types}
        for name, text in re.findall(r"^(\w+){(.*)}$", "\n".join(now), re.M):
            labels[re.sub("_(bucket|sum|count)$", "", name)] |= set(re.findall(r'(\w+)="', text)) - {"le"}
        self.assertEqual(self.documented(), {name: (kind, labels[name]) for name, kind in self.types.items()})
        with open(f"{fabric.HERE}/../../docs/monitoring.md", encoding="utf-8") as file:
            manual = file.read()
        with open(f"{self.MONITORING}/fxm-rules.yml", encoding="utf-8") as file:
            self.assertEqual(re.findall(r"alert: (\w+)", file.read()), re.findall(r"^\| `(Fxm\w+)` \|", manual, re.M))

        f.cards("fxio 02:00:00:10:00:00 count=1100 int=01 ports=0")
        until(lambda: f.get("/v1/status")["cards"]["error"] == 1101, "all are in error")
        now = self.scrape(f)
        self.assertEqual(now["fxm_card_error_series_omitted"], 101)
        self.assertEqual(len([series for series in now if "card=" in series]), 1000)
        self.promtool("check", "metrics", stdin=f.request("GET", "/metrics").decode())
        f.cards("set all int=00")
        until(lambda: f.get("/v1/status")["cards"]["error"] == 0, "none is in error")
        self.assertFalse([series for series in self.scrape(f) if "card=" in series])

        # A port that is made anew, and with it a new start of the library, whose own counters begin at 0.
        subprocess.run(["ip", "link", "set", "card1", "down"], check=True)
        until(lambda: self.scrape(f)['fxm_port_up{port="1"}'] == 0, "the port is down")
        self.assertEqual((self.last['fxm_port_up{port="0"}'], self.last['fxm_port_downs_total{port="1"}']), (1, 1))
        subprocess.run(["ip", "link", "del", "card1"], check=True)
        until(lambda: self.scrape(f)["fxm_library_up"] == 0, "the library has stopped")
        seen = self.last['fxm_port_frames_total{port="0",kind="r_dev"}']
        f.cable(1)
        until(lambda: self.scrape(f)["fxm_library_restarts_total"] == 1, "the library runs again")
        until(lambda: self.scrape(f)['fxm_port_frames_total{port="0",kind="r_dev"}'] > seen, "frames are counted on")
        self.assertEqual((self.last["fxm_library_up"], self.last['fxm_port_downs_total{port="1"}']), (1, 1))

    def test_prometheus_takes_the_shipped_files_and_every_query_has_an_answer(self):
        self.promtool("check", "rules", f"{self.MONITORING}/fxm-rules.yml")
        self.promtool("test", "rules", f"{self.MONITORING}/fxm-rules-test.yml")
        f = self.fabric(start=False)
        for name, text in (("tokens", "view 0123456789abcdef\n"), ("fxm.token", "0123456789abcdef\n")):
            with open(f"{f.dir}/{name}", "w", encoding="utf-8") as file:
                file.write(text)
            os.chmod(f"{f.dir}/{name}", 0o640)
        f.configure(api=f'listen = "127.0.0.1:8610"\ntoken_file = "{f.dir}/tokens"')
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        f.start()
        f.well(5)
        f.cards(f"set {DEVICE} int=04")
        f.health(DEVICE, "error")
        f.get(f"/v1/cards/{SMALL}/registers/0x10")
        request = urllib.request.Request("http://127.0.0.1:8610/metrics", headers={"Authorization": "Bearer 0123456789abcdef"})
        with urllib.request.urlopen(request) as answer:
            self.assertEqual(answer.headers["Content-Type"], "text/plain; version=0.0.4; charset=utf-8")
        for name in ("prometheus.yml", "fxm-rules.yml"):
            with open(f"{self.MONITORING}/{name}", encoding="utf-8") as file:
                text = file.read().replace("15s", "1s").replace("/etc/prometheus", f.dir)
            with open(f"{f.dir}/{name}", "w", encoding="utf-8") as file:
                file.write(text)
        server = subprocess.Popen(["prometheus", f"--config.file={f.dir}/prometheus.yml", "--log.level=error",
                                   f"--storage.tsdb.path={f.dir}/tsdb", "--web.listen-address=127.0.0.1:9090"])
        self.addCleanup(lambda: (server.terminate(), server.wait()))

        def ask(path, **query):
            with contextlib.suppress(OSError):
                with urllib.request.urlopen(f"http://127.0.0.1:9090/api/v1/{path}?{urllib.parse.urlencode(query)}") as answer:
                    return json.load(answer)["data"]
            return {}

        answers = lambda query: ask("query", query=query).get("result")
        until(lambda: answers('up{job="fxm"} == 1'), "Prometheus has scraped fxmd")
        panels, others = self.expressions()
        self.assertGreater(len(panels), 20)
        for query in panels:
            if any(name in query for name in self.ROOM):
                continue  # this fxmd is a site
            query = query.replace("$__rate_interval", "1m").replace("$instance", ".*")
            until(lambda query=query: answers(query), f"an answer to {query}")
        known = set(ask("label/__name__/values")) | set(self.documented(room=True))
        for query in panels + others:
            names = re.findall(r"\b(?:fxm|process)_\w+|\bup\b", query)
            self.assertTrue(names and known.issuperset(names), f"{query}: {set(names) - known}")
        alerts = lambda state: [alert["labels"]["alertname"] for alert in ask("alerts")["alerts"] if alert["state"] == state]
        until(lambda: alerts("firing").count("FxmErrorBits") == 1, "the alert on the error fires")
        subprocess.run(["ip", "link", "set", "card1", "down"], check=True)
        until(lambda: "FxmPortDown" in alerts("pending"), "the alert on the port begins")
        groups = ask("rules")["groups"]
        self.assertEqual([rule for group in groups for rule in group["rules"] if rule["health"] != "ok"], [])


if __name__ == "__main__":
    fabric.enter_namespace()
    unittest.main()
