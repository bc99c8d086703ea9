"""A room over two sites of a fleet: the real fxmd three times, simulated cards, and real servers of NATS."""
import json
import re
import signal
import subprocess
import unittest

import fabric
import host_test
from fabric import CARDS, DEVICE, FXMCTL, LOOSE, MULTI, SERVER, SMALL, Fabric, Refused, Room, fits, until
from nats import Servers


class Rooms(unittest.TestCase):
    def build(self, servers=1, allow="view"):
        self.servers = Servers(servers)
        self.addCleanup(self.servers.close)
        self.sites = {}
        for number, name in enumerate(("north", "south")):
            f = Fabric(CARDS, number=number)
            self.addCleanup(f.close)
            f.configure(history=f'[fleet]\nurls = {json.dumps(self.servers.urls)}\nsite = "{name}"\nallow = "operate"\n')
            self.sites[name] = f.start()
        room = self.room(allow=allow)
        for f in self.sites.values():
            f.well(len(CARDS))
        until(lambda: room.get("/v1/status")["cards"].get("well") == 2 * len(CARDS), "the room has all cards")
        return room

    def room(self, **options):
        room = Room(self.servers.urls, **options)
        self.addCleanup(room.close)
        return room.start()

    def state(self, room, name):
        return next((site["state"] for site in room.get("/v1/sites")["sites"] if site["site"] == name), None)

    def same(self, room):
        """The room has each card of each site as the site has it."""
        kept = {card["id"]: card["vlan"] for card in room.get("/v1/cards")["cards"]}
        own = {f"{name}/{card['id']}": card["vlan"] for name, f in self.sites.items() for card in f.get("/v1/cards")["cards"]}
        return kept == own

    def test_a_room_shows_all_sites_and_asks_them(self):
        room = self.build(allow="operate")
        north = self.sites["north"]
        until(lambda: self.state(room, "north") == self.state(room, "south") == "live", "both are live")
        cards = room.get("/v1/cards")["cards"]
        self.assertEqual([card["id"] for card in cards][4:6], ["north/02:00:00:00:22:00", "south/02:00:00:00:10:00"])
        self.assertEqual(room.get(f"/v1/cards?limit=5&after=north/{DEVICE}")["next"], f"south/{DEVICE}")
        of_north = room.get("/v1/cards?site=north&filter=vlan=200")["cards"]
        own = north.get("/v1/cards?filter=vlan=200")["cards"]
        for card in of_north + own:
            card.pop("seen_ms")
        self.assertEqual([{key: card[key] for key in card if key != "site"} for card in of_north], own)
        rows = [json.loads(line) for line in room.request("GET", "/v1/cards?rows=true&fields=vlan,channels.p0m0&site=south&id=" + DEVICE,
                                                          headers={"Accept": "application/x-ndjson"}).splitlines()]
        self.assertEqual(rows, [{"schema": "fxm/1", "fields": ["id", "vlan", "channels.p0m0"]}, [DEVICE, 100, "up"]])
        # The bucket lacks what a card that has announced nothing has, too; the room does not.
        of_site = {"schema", "site", "boot", "rev", "seen_ms", "received_ms"}
        for card in (SERVER, SMALL, DEVICE, MULTI, LOOSE):
            own = self.sites["south"].get(f"/v1/cards/{card}")
            kept = room.get(f"/v1/cards/south/{card}")
            self.assertEqual({key: kept[key] for key in kept if key not in of_site}, {key: own[key] for key in own if key not in of_site})
            self.assertEqual(set(kept) - set(own), {"site", "boot", "rev"})
        graph, own = room.get("/v1/topology"), north.get("/v1/topology")
        self.assertEqual(room.get("/v1/topology?site=north"), own)
        self.assertEqual([server["ports"] for server in graph["servers"]][:2],
                         [[{**port, "id": f"north/{port['id']}"} for port in server["ports"]] for server in own["servers"]])
        self.assertEqual(len(room.request("GET", "/v1/topology.dot").splitlines()), 4 + 2 * (5 + 2))
        # Events of all, and of one site in its own numbers, which go on where a reader was.
        of_all, of_one = room.events(), room.events(query="site=north")
        self.addCleanup(of_all.close)
        self.addCleanup(of_one.close)
        self.assertEqual(of_one.boot["boot"], north.get("/v1/status")["boot"])
        north.cards(f"set {DEVICE} vlan=300")
        seen = of_all.until(lambda event: event.get("changes", {}).get("vlan") == [100, 300])[-1]
        self.assertEqual((seen["card"], seen["site"]), (f"north/{DEVICE}", "north"))
        one = of_one.until(lambda event: event.get("changes", {}).get("vlan") == [100, 300])[-1]
        self.assertEqual((one["card"], one["seq"]), (DEVICE, seen["site_seq"]))
        again = room.events(after=f"{of_one.boot['boot']}.{one['seq'] - 1}", query="site=north")
        self.addCleanup(again.close)
        self.assertEqual((again.boot["resumed"], again.read()), (True, one))
        until(lambda: self.same(room), "the new VLAN is in the room")
        sse = room.events(after=f"{of_one.boot['boot']}.{one['seq'] - 1}", query="site=north", accept="text/event-stream")
        self.addCleanup(sse.close)
        self.assertEqual([sse.answer.readline() for _ in range(6)][4:], [f"id: {of_one.boot['boot']}.{one['seq']}\n".encode(), b"event: change\n"])
        # What the room does not know, the site does.
        register = f"/v1/cards/north/{SERVER}/registers/0x1000"
        self.assertEqual(room.send("PUT", register, {"value": 7})["new"], 7)
        self.assertEqual(north.get(f"/v1/cards/{SERVER}/registers/0x1000")["value"], 7)
        self.assertEqual(room.get(f"/v1/cards/{SERVER}/registers/0x1000?site=south")["value"], 0)
        self.assertIn("for uid=0: PUT", north.log())
        self.assertEqual(room.get("/v1/history?site=north&limit=1&newest=true")["events"], north.get("/v1/history?limit=1&newest=true")["events"])
        about = fits(room.get("/v1/status?site=north"), "status")
        for path, name in ((f"/v1/cards/north/{DEVICE}", "card"), (f"/v1/cards/{SERVER}?site=south", "card"), ("/v1/cards", "cards"),
                           ("/v1/cards?site=north", "cards"), ("/v1/topology", "topology"), ("/v1/sites", "sites")):
            fits(room.get(path), name)
        self.assertIn("fxm_port_up", room.request("GET", "/metrics?site=north").decode())
        self.assertEqual((about["role"], about["site_state"], about["cards"]["well"]), ("operate", "live", 5))
        fleet = ("--fleet", room.socket)
        self.assertRegex(room.ctl(*fleet, "sites"), r"north +live .*\nsouth +live ")
        self.assertIn("2 sites: 2 live\n  10 cards: 10 well", room.ctl(*fleet, "status"))
        self.assertIn("5 cards (2 FXSV, 3 FXIO): 5 well", room.ctl(*fleet, "--site", "south", "status"))
        self.assertEqual(len(room.ctl(*fleet, "cards", "class=fxsv").splitlines()), 1 + 4)
        self.assertIn(f"south/{DEVICE}", room.ctl(*fleet, "tree"))
        self.assertEqual(room.ctl(*fleet, "reg", f"north/{SERVER}", "0x1000"), "0x1000 = 0x00000007\n")
        writes = north.counts(SERVER)["writes"]
        self.assertIn("takes --site", room.ctl(*fleet, "-y", "reg", f"north/{SERVER}", "0x1000=9", code=2))
        self.assertIn("of the site north to vlan 700", room.ctl(*fleet, "--site", "north", "vlan", SERVER, "700", code=2))
        self.assertEqual(north.counts(SERVER)["writes"], writes)
        self.assertIn("0x00000009", room.ctl(*fleet, "-y", "--site", "north", "reg", SERVER, "0x1000=9"))
        self.assertEqual(room.ctl(*fleet, "--site", "west", "cards", code=1), "fxmctl: there is no site west; fxmctl sites lists them\n")
        self.assertEqual(room.ctl("__complete", *fleet, "--site", "").splitlines(), ["north", "south"])
        for method, path, status in (("GET", "/v1/ports", 400), ("GET", "/v1/ports?site=west", 404), ("POST", "/v1/reload?site=north", 403),
                                     ("GET", "/v1/cards/nothing", 400), ("GET", "/v1/cards/north/02:00:00:00:99:00", 404),
                                     ("GET", "/v1/nothing?site=north", 404)):
            with self.assertRaises(Refused, msg=path) as refused:
                room.request(method, path)
            self.assertEqual(refused.exception.status, status, path)
        metrics = room.request("GET", "/metrics").decode()
        self.assertIn('fxm_fleet_site_cards{site="south",health="well"} 5', metrics)
        self.assertIn("fxm_fleet_room_connected 1", metrics)
        served = {name: kind for name, kind in re.findall(r"^# TYPE (\w+) (\w+)$", metrics, re.M) if name.startswith(host_test.Metrics.ROOM)}
        self.assertEqual(served, {name: kind for name, (kind, _) in host_test.Metrics.documented(host_test.Metrics, room=True).items()})

    def test_a_silent_site_is_never_called_well(self):
        room = self.build()
        north = self.sites["north"]
        events = room.events()
        self.addCleanup(events.close)
        watch = subprocess.Popen([FXMCTL, "--fleet", room.socket, "--site", "north", "--ndjson", "watch"], stdout=subprocess.PIPE, text=True)
        self.addCleanup(lambda: (watch.kill(), watch.communicate()))
        self.assertEqual(json.loads(watch.stdout.readline())["type"], "boot")
        north.daemon.send_signal(signal.SIGSTOP)
        try:
            events.until(lambda event: event["type"] == "site" and event["state"] == "silent")
            cards = room.get("/v1/cards?site=north")["cards"]
            self.assertEqual({(card["health"], card["last_health"]) for card in cards}, {("silent", "well")})
            self.assertEqual(len(room.get("/v1/cards?state=well")["cards"]), 5)
            self.assertEqual((room.get("/v1/status")["cards"]["well"], room.get("/v1/status")["cards"]["silent"]), (5, 5))
            self.assertIn("silent for", fits(room.get("/v1/status?site=north"), "last_status")["warnings"][-1])
            with self.assertRaises(Refused) as refused:
                room.get(f"/v1/cards/north/{SERVER}/registers/0x1000")
            self.assertEqual((refused.exception.status, refused.exception.document["code"]), (502, "FXM_API_ENOLINK"))
            self.assertIn("has been silent", room.ctl("--fleet", room.socket, "reg", f"north/{SERVER}", "0x1000", code=4))
        finally:
            north.daemon.send_signal(signal.SIGCONT)
        events.until(lambda event: event["type"] == "site" and event["state"] == "live")
        self.assertEqual(room.get("/v1/status")["cards"]["well"], 10)
        self.assertEqual([json.loads(watch.stdout.readline())["state"] for _ in range(2)], ["silent", "live"])

    def test_the_view_is_whole_after_cuts_and_restarts(self):
        room = self.build(servers=3)
        self.servers.cut()
        for f in self.sites.values():
            for card in (SERVER, DEVICE):
                f.cards(f"set {card} vlan=400")
        self.sites["south"].cards(f"remove {SERVER}")
        self.sites["south"].health(SERVER, "lost")
        self.sites["south"].request("DELETE", f"/v1/cards/{SERVER}")
        until(lambda: room.get("/v1/status")["room"]["state"] == "cut-off", "the room knows that it is cut off")
        self.servers.cut(False)
        until(lambda: self.same(room), "the view is whole after the cut", 60)
        until(lambda: room.get("/v1/status")["warnings"] == [], "no warning is left")
        self.servers.signal(self.servers.leader("FXM_EVENTS"), signal.SIGKILL)
        self.sites["north"].cards(f"set {DEVICE} vlan=500")
        until(lambda: self.same(room), "the view is whole after a leader was killed", 60)
        room.stop(signal.SIGKILL)
        self.sites["north"].cards(f"set {DEVICE} vlan=600")
        room.start()
        until(lambda: self.same(room), "a new room has everything", 60)
        # A hole in the middle of the stream: the history of the site has what is missing.
        client = self.servers.client()
        self.addCleanup(client.close)
        batches = [message for message in client.stored("FXM_EVENTS") if message.subject == "fxm.ev.north"]
        gone, last = batches[-2], json.loads(batches[-1].data.splitlines()[-1])["seq"]
        client.api("STREAM.MSG.DELETE.FXM_EVENTS", seq=gone.headers["Nats-Sequence"])
        room.stop()
        room.start()
        until(lambda: room.get("/v1/status")["room"]["filled"] > 0, "the history has filled the hole", 60)
        stream = room.events(after=f"{room.get('/v1/status')['boot']}.0")
        self.addCleanup(stream.close)
        seen = stream.until(lambda event: event.get("site") == "north" and event.get("site_seq") == last)
        numbers = [event["site_seq"] for event in seen if event.get("site") == "north" and event["site_seq"] != 0]
        self.assertLessEqual({json.loads(line)["seq"] for line in gone.data.splitlines()}, set(numbers))
        self.assertEqual(numbers, sorted(numbers))
        self.assertEqual([site["lost"] for site in room.get("/v1/sites")["sites"]], [0, 0])

    def test_holes_and_other_versions_are_shown(self):
        room = self.build()
        client = self.servers.client()
        self.addCleanup(client.close)

        def batch(site, first, previous, *events, schema="fxm/1", loss=""):
            lines = [json.dumps({"schema": "fxm/1", "type": "change", "seq": first + i, "time_ms": 1, "card": DEVICE, "class": "fxio", "vlan": 7,
                                 "health": "well", "kinds": ["update"], "changes": {}, "int_seen": 0, "coalesced": 1, "now": None, **event})
                     for i, event in enumerate(events)]
            client.publish(f"fxm.ev.{site}", "\n".join(lines).encode(), headers={
                "Nats-Msg-Id": f"{site}.0000abcd{loss}.{first}", "Fxm-First": first, "Fxm-Last": first + len(events) - 1, "Fxm-Prev": previous,
                "Fxm-Schema": schema})

        def about(site, **members):
            client.publish(f"$KV.fxm_sites.{site}", json.dumps({"schema": "fxm/1", "site": site, "boot": "0000abcd", "seq": 0} | members).encode())
        # A newer minor version: what is unknown is shown as it is.
        about("east", version="2.1.0", novelty=1, boot='"')
        # What nobody of a fleet sends changes nothing.
        for subject in ("fxm.ev.A", "fxm.beat.B", "$KV.fxm_sites.C", "$KV.fxm_cards_1.D.020000001000", "$KV.fxm_cards_1.east.0", "fxm.ev.east"):
            for text in (b"", b"[]", b"{}", b'{"schema":"fxm/1","down_ports":7}'):
                client.publish(subject, text, headers={"Fxm-First": 1, "Fxm-Last": 1})
        client.publish("$KV.fxm_cards_1.east.020000002000", json.dumps(
            {"schema": "fxm/1", "site": "east", "boot": "0000abcd", "rev": 1, "id": DEVICE, "class": "fxio", "vlan": 7, "health": "dazed",
             "novelty": [1, {"a": None}], 'a"b': 1, "c": "}],"}, indent=1).encode())
        card = until(lambda: self.state(room, "east") and room.get("/v1/cards?site=east")["cards"] and room.get(f"/v1/cards/east/{DEVICE}"), "the card of east")
        self.assertEqual((card['a"b'], card["c"]), (1, "}],"))
        self.assertEqual((card["novelty"], card["vlan"], card["last_health"]), ([1, {"a": None}], 7, "lost"))
        client.publish("$KV.fxm_cards_1.east.020000003000", b'{"schema":"fxm/1","class":"fxsv","down_ports":[7]}')
        until(lambda: len(room.get("/v1/cards?site=east")["cards"]) == 2, "a card that is none")
        self.assertEqual(room.get("/v1/topology?site=east")["unattached"], [DEVICE])
        events = room.events(query="site=east")
        self.addCleanup(events.close)
        batch("east", 10, 9, {"changes": {"novelty": [0, 1]}}, {"novelty": 1})
        batch("east", 10, 9, {"changes": {"novelty": [0, 1]}}, {"novelty": 1}, loss="-1")  # sent again under another id
        batch("east", 20, 15, {"health": "lost"})  # 12 to 15 are missing, and nobody can tell them
        seen = events.until(lambda event: event.get("seq") == 20)
        self.assertEqual([(event["type"], event.get("seq"), event.get("from"), event.get("to")) for event in seen if event["type"] != "site"],
                         [("change", 10, None, None), ("change", 11, None, None), ("gap", None, 12, 15), ("change", 20, None, None)])
        east = next(site for site in room.get("/v1/sites")["sites"] if site["site"] == "east")
        self.assertEqual((east["lost"], east["doubled"], east["version"]), (4, 2, "2.1.0"))
        # Another schema is refused by name.
        about("west", schema="fxm/2", version="3.0.0")
        until(lambda: self.state(room, "west") == "refused", "west is refused")
        fits(room.get("/v1/status"), "room_status")
        fits(room.get("/v1/sites"), "sites")
        batch("west", 1, 0, {}, schema="fxm/2")
        client.publish("$KV.fxm_cards_1.west.020000002000", b'{"schema":"fxm/2","id":"02:00:00:00:20:00"}')
        self.assertEqual(room.get("/v1/cards?site=west")["cards"], [])
        self.assertIn('the site west speaks "fxm/2", and this room "fxm/1"', room.get("/v1/status")["warnings"])


if __name__ == "__main__":
    fabric.enter_namespace()
    fabric.run("ip", "link", "set", "lo", "up")
    unittest.main()
