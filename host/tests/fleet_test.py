"""A site of a fleet: the real fxmd, simulated cards, and real servers of NATS."""
import json
import os
import re
import signal
import threading
import time
import unittest

import fabric
from fabric import CARDS, DEVICE, SERVER, Fabric, until
from nats import Client, Servers

SITE = "north"


class Reader:
    """What a reader of the stream keeps of one site: each event once, in order, and the holes."""

    def __init__(self):
        self.seen, self.holes, self.doubled, self.last = [], [], 0, 0

    def take(self, message):
        first, last, previous = (int(message.headers[name]) for name in ("Fxm-First", "Fxm-Last", "Fxm-Prev"))
        assert message.headers["Fxm-Schema"] == "fxm/1"
        assert message.headers["Nats-Msg-Id"].startswith(f"{SITE}.") and message.headers["Nats-Msg-Id"].endswith(f".{first}")
        if previous > self.last:
            self.holes.append((self.last, previous))
        events = [json.loads(line) for line in message.data.splitlines()]
        for event in events:
            number = event.get("seq", event.get("to"))
            if event["type"] == "reset":
                self.seen, self.last = [], number
            elif number > self.last:
                self.seen.append(event)
                self.last = number
            else:
                self.doubled += 1
        assert last == events[-1].get("seq", events[-1].get("to")), message.headers
        return self


class Fleet(unittest.TestCase):
    def fleet(self, servers=3, allow="view", more="", prepare=lambda: None, **options):
        self.servers = Servers(servers, **options)
        self.addCleanup(self.servers.close)
        prepare()
        f = Fabric(CARDS)
        self.addCleanup(f.close)
        urls = json.dumps(self.servers.urls)
        f.configure(history=f'[fleet]\nurls = {urls}\nsite = "{SITE}"\nallow = "{allow}"\n{more.replace("DIR", self.servers.dir)}')
        f.start()
        f.well(len(CARDS))
        self.sent(f)
        return f

    def sent(self, f, seconds=60):
        """Waits until the fleet has all that this fxmd has told."""
        until(lambda: (now := f.get("/v1/status"))["fleet"]["sent_seq"] == now["seq"] and now["fleet"]["cards_waiting"] == 0,
              "the fleet has everything", seconds)

    def read(self):
        client = self.servers.client()
        reader = Reader()
        for message in client.stored("FXM_EVENTS"):
            reader.take(message)
        client.close()
        return reader

    def whole(self, f):
        """The stream has each event of the history, once for a reader, in order, and nothing else."""
        self.sent(f)
        self.stored(f)
        reader = self.read()
        events = f.get("/v1/history?limit=10000")["events"]
        self.assertEqual([event["seq"] for event in reader.seen], [event["seq"] for event in events])
        self.assertEqual(reader.seen, events)
        self.assertEqual(reader.holes, [])
        return reader

    def stored(self, f):
        until(lambda: f.get("/v1/history?limit=1&newest=true")["events"][-1]["seq"] == f.get("/v1/status")["seq"], "the history has all")

    def churn(self, f, stop):
        """Some hundred events a second."""
        vlan = 300
        while not stop.is_set():
            f.cards(f"set all vlan={vlan}")
            f.cards("announce all")
            vlan = 1300 - vlan
            time.sleep(0.03)

    def test_a_site_tells_its_events_its_cards_and_itself(self):
        f = self.fleet()
        client = self.servers.client()
        self.addCleanup(client.close)
        client.subscribe(f"fxm.beat.{SITE}")
        f.cards(f"set {DEVICE} vlan=300")
        until(lambda: f.get(f"/v1/cards/{DEVICE}")["vlan"] == 300, "the new VLAN")
        f.request("DELETE", f"/v1/cards/{SERVER}")
        f.well(5)  # it has announced itself again
        self.whole(f)
        for card in f.get("/v1/cards")["cards"]:
            key = card["id"].replace(":", "")
            stored = client.ask(f"$JS.API.DIRECT.GET.KV_fxm_cards_1.$KV.fxm_cards_1.{SITE}.{key}").json()
            own = f.get(f"/v1/cards/{card['id']}")
            self.assertEqual((stored["site"], stored["id"], stored["vlan"]), (SITE, card["id"], own["vlan"]))
            self.assertEqual(set(stored) - set(own), {"site", "boot", "rev"})
            # What a card that has announced nothing has, too, is left out.
            self.assertNotIn("server" if card["class"] == "fxsv" else "down_ports", stored)
            self.assertLessEqual({"class", "health", "channels", "seen_ms", "partners" if card["partners"] else "vlan"}, set(stored))
        f.cards(f"remove {SERVER}")
        f.health(SERVER, "lost")
        f.request("DELETE", f"/v1/cards/{SERVER}")
        key = SERVER.replace(":", "")
        until(lambda: client.ask(f"$JS.API.DIRECT.GET.KV_fxm_cards_1.$KV.fxm_cards_1.{SITE}.{key}").headers.get("KV-Operation") == "DEL",
              "the card is deleted in the bucket")
        about = client.ask(f"$JS.API.DIRECT.GET.KV_fxm_sites.$KV.fxm_sites.{SITE}").json()
        self.assertEqual((about["schema"], about["site"], about["boot"], about["bucket"]),
                         ("fxm/1", SITE, f.get("/v1/status")["boot"], 1))
        beat = next((message for message in client.messages if message.subject == f"fxm.beat.{SITE}"), None) or client.receive()
        self.assertEqual(beat.json()["site"], SITE)

    def test_nothing_is_lost_or_doubled_when_servers_and_links_fail(self):
        f = self.fleet(window=5)
        stop = threading.Event()
        churn = threading.Thread(target=self.churn, args=(f, stop))
        churn.start()
        self.addCleanup(stop.set)
        time.sleep(1)
        leader = self.servers.leader("FXM_EVENTS")
        self.servers.signal(leader, signal.SIGKILL)
        before = f.get("/v1/status")["fleet"]["sent_seq"]
        until(lambda: f.get("/v1/status")["fleet"]["sent_seq"] > before + 100, "confirmed again after the leader was killed", 20)
        self.servers.start(leader)
        # Longer than the window in which the server knows the ids of batches.
        self.servers.cut()
        time.sleep(8)
        until(lambda: f.get("/v1/status")["fleet"]["waiting"] > 100, "a backlog")
        self.servers.cut(False)
        until(lambda: f.get("/v1/status")["fleet"]["waiting"] < 100, "the backlog is gone", 30)
        for server in range(3):  # late confirmations
            self.servers.signal(server, signal.SIGSTOP)
        time.sleep(2)
        for server in range(3):
            self.servers.signal(server, signal.SIGCONT)
        # A kill in the middle, and a start.
        f.stop(signal.SIGKILL)
        stop.set()
        churn.join()
        f.start()
        f.well(len(CARDS))
        self.sent(f)
        self.stored(f)
        reader = self.read()
        self.assertEqual(reader.holes, [])
        numbers = [event.get("seq", event.get("to")) for event in reader.seen]
        stored = [event["seq"] for event in f.get("/v1/history?limit=10000")["events"]]
        self.assertEqual(sorted(set(stored) - set(numbers)), [], "the stream has all that the history has")

    def test_a_stream_that_has_lost_its_end_gets_it_again(self):
        f = self.fleet(servers=1)
        for vlan in range(300, 310):
            f.cards(f"set {DEVICE} vlan={vlan}")
            until(lambda: f.get(f"/v1/cards/{DEVICE}")["vlan"] == vlan, "the VLAN")  # pylint: disable=cell-var-from-loop
        self.sent(f)
        client = self.servers.client()
        state = client.api("STREAM.INFO.FXM_EVENTS")["state"]
        for seq in range(state["last_seq"] - 4, state["last_seq"] + 1):
            client.api("STREAM.MSG.DELETE.FXM_EVENTS", seq=seq)
        client.close()
        self.servers.signal(0, signal.SIGTERM)  # which stores the deletions; the site connects again, and compares
        self.servers.start(0)
        until(lambda: "fxm_fleet_resent_after_loss_total 0" not in f.request("GET", "/metrics").decode(), "the loss is counted", 90)
        self.whole(f)

    def request(self, client, path, method="GET", role="view", seconds=10, number=None, body=b""):
        number = number or os.urandom(8).hex()
        return client.ask(f"fxm.api.{SITE}.{role}.alice", body, {"Fxm-Id": number, "Fxm-Deadline": int((time.time() + seconds) * 1000),
                                                                 "Fxm-Method": method, "Fxm-Path": path})

    def test_requests_have_a_role_a_deadline_and_one_answer(self):
        f = self.fleet(servers=1, allow="operate")
        client = self.servers.client()
        self.addCleanup(client.close)
        answer = self.request(client, f"/v1/cards/{SERVER}")
        self.assertEqual((answer.headers["Fxm-Status"], answer.json()["id"]), ("200", SERVER))
        self.assertEqual(len(self.request(client, "/v1/cards?state=well").json()["cards"]), 5)
        write = f"/v1/cards/{SERVER}/registers/0x1000"
        for role, status, code in (("view", "403", "FXM_DENIED"), ("admin", "403", "FXM_DENIED")):
            refused = self.request(client, write, "PUT", role, body=b'{"value": 7}')
            self.assertEqual((refused.headers["Fxm-Status"], refused.json()["code"]), (status, code))
        late = self.request(client, write, "PUT", "operate", seconds=-1, body=b'{"value": 7}')
        self.assertEqual(late.json()["code"], "FXM_API_ETIMEDOUT")
        self.assertEqual(self.request(client, f"/v1/cards/{SERVER}/registers/0x1000").json()["value"], 0)
        first = self.request(client, write, "PUT", "operate", number="once", body=b'{"value": 7}')
        self.assertEqual((first.headers["Fxm-Status"], first.json()["new"]), ("200", 7))
        writes = f.counts(SERVER)["writes"]
        again = self.request(client, write, "PUT", "operate", number="once", body=b'{"value": 9}')
        self.assertEqual((again.data, f.counts(SERVER)["writes"]), (first.data, writes))
        self.assertEqual(self.request(client, "/v1/events").headers["Fxm-Status"], "400")
        # A stream that delivers to the subject of requests asks for nothing.
        client.publish("fxm.ev.south", b'{"value": 8}', headers={"Fxm-Id": "stored", "Fxm-Deadline": int((time.time() + 60) * 1000),
                                                                 "Fxm-Method": "PUT", "Fxm-Path": write})
        client.api("CONSUMER.CREATE.FXM_EVENTS", stream_name="FXM_EVENTS", config={
            "deliver_subject": f"fxm.api.{SITE}.operate.alice", "filter_subject": "fxm.ev.south", "ack_policy": "none", "deliver_policy": "all"})
        self.assertEqual(self.request(client, f"/v1/cards/{SERVER}/registers/0x1000").json()["value"], 7)
        self.assertIn("write user=alice role=operate card=02:00:00:00:10:00 register 0x1000", f.log())
        self.assertIn("refused; this site allows operate", f.log())

    def test_a_site_needs_no_more_rights_than_the_document_lists(self):
        with open(f"{os.path.dirname(__file__)}/../../docs/fleet.md", encoding="utf-8") as file:
            listed = re.search(r"Rights that a site needs.*?: publish (.*?); subscribe\s(.*?)\.\n", file.read(), re.S).groups()
        publish, subscribe = [re.findall("`(.*?)`", part.replace("SITE", SITE)) for part in listed]

        def prepare():
            self.admin = self.servers.client()
            self.addCleanup(self.admin.close)
            for bucket in ("fxm_cards_1", "fxm_sites"):
                self.admin.api(f"STREAM.CREATE.KV_{bucket}", name=f"KV_{bucket}", subjects=[f"$KV.{bucket}.>"], max_msgs_per_subject=1,
                               allow_direct=True)
        f = self.fleet(1, more=f'ca = "DIR/ca.pem"\ncertificate = "DIR/{SITE}.pem"\n', prepare=prepare, window=600,
                       rights={SITE: {"publish": publish, "subscribe": subscribe}})
        self.whole(f)
        until(lambda: self.admin.api("STREAM.INFO.KV_fxm_sites")["state"]["messages"] == 1, "the document of the site")
        self.assertEqual(self.request(self.admin, f"/v1/cards/{SERVER}").headers["Fxm-Status"], "200")
        self.assertEqual(f.get("/v1/status")["fleet"]["error"], None)
        for subject in ("fxm.ev.south", "$KV.fxm_cards_1.south.020000001000", "$KV.fxm_sites.south", "$JS.API.STREAM.DELETE.FXM_EVENTS",
                        "$JS.API.DIRECT.GET.FXM_EVENTS.fxm.ev.south"):
            liar = Client(4222, ca=self.servers.file("ca"), certificate=self.servers.file(SITE))
            liar.publish(subject, b"{}")
            with self.assertRaisesRegex(ConnectionError, "Permissions Violation for Publish"):
                liar.receive()
            liar.close()

    def test_a_card_of_the_past_leaves_the_bucket(self):
        f = self.fleet(servers=1)
        f.stop()
        f.cards(f"remove {SERVER}")
        f.start()
        client = self.servers.client()
        self.addCleanup(client.close)
        key = f"$JS.API.DIRECT.GET.KV_fxm_cards_1.$KV.fxm_cards_1.{SITE}.{SERVER.replace(':', '')}"
        self.assertEqual(client.ask(key).json()["id"], SERVER)
        until(lambda: client.ask(key).headers.get("KV-Operation") == "DEL", "the card of the past is deleted in the bucket", 90)

    def test_servers_that_are_not_there_hold_up_nothing(self):
        for url in ("nats://127.0.0.1:9", "nats://10.99.0.77:4222"):  # refused; nobody answers
            f = Fabric(CARDS)
            try:
                fabric.run("ip", "addr", "replace", "10.99.0.1/24", "dev", "lo")
                f.configure(history=f'[fleet]\nurls = ["{url}"]\nsite = "{SITE}"\n')
                f.start()
                f.well(len(CARDS))
                until(lambda: f.get("/v1/status")["fleet"]["error"], "the reason")
                self.assertEqual(f.get("/v1/status")["fleet"]["state"], "cut-off")
                time.sleep(3)
                self.assertEqual(f.log().count(" fleet: "), 1, f.log())
            finally:
                f.close()


if __name__ == "__main__":
    fabric.enter_namespace()
    fabric.run("ip", "link", "set", "lo", "up")
    unittest.main()
