"""fxm.lua on frames of the simulator and fxmd, taken with fxmctl capture, and on frames that nobody should send."""
import json
import os
import random
import re
import signal
import struct
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "../../tests"))

import fabric  # noqa: E402
from fabric import DEVICE, FXMCTL, LOOSE, MULTI, SERVER, SMALL, Fabric, until  # noqa: E402

LUA = os.path.join(HERE, "../fxm.lua")
LUA_FAULT = re.compile(r"lua error|error during (loading|execution)|dissector bug|malformed packet: fxm", re.IGNORECASE)


# ------------------------------------------------------------------------------------------------------------- tshark

def tshark(file, *words):
    """What tshark prints with the dissector. A fault in it fails the test."""
    done = subprocess.run(["tshark", "-n", "-X", f"lua_script:{LUA}", "-r", file, *words], capture_output=True,
                          text=True, timeout=300, check=False, errors="replace")
    fault = LUA_FAULT.search(done.stderr) or LUA_FAULT.search(done.stdout)
    assert done.returncode == 0 and not fault, f"{done.returncode}: {fault}: {done.stderr}"
    return done.stdout


def flatten(tree, into):
    for name, value in tree:
        if isinstance(value, list) and value and isinstance(value[0], tuple):
            flatten(value, into)
        elif name.startswith(("fxm.", "_ws.expert", "frame.number", "frame.interface_id")):
            into.setdefault(name, []).append(value)


def dissect(file, *words):
    """The fields of each frame: their names, and the list of their values as text."""
    frames = []
    # Names repeat in a tree, so its members stay pairs.
    for packet in json.loads(tshark(file, "-T", "json", *words), object_pairs_hook=list):
        frames.append({})
        flatten(packet, frames[-1])
    return frames


def of_kind(frames, kind):
    return [frame for frame in frames if frame.get("fxm.kind") == [f"{kind:#04x}"]]


def write_pcap(path, frames):
    """Frames of (bytes, length on the wire), a millisecond apart."""
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHIIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for i, (data, length) in enumerate(frames):
            file.write(struct.pack("<IIII", 1700000000 + i // 1000, i % 1000 * 1000, len(data), length) + data)


class Capture:
    """fxmctl capture, from its first frame to SIGINT."""

    def __init__(self, f, name, *words):
        self.path = f"{f.dir}/{name}"
        self.process = subprocess.Popen([FXMCTL, "--socket", f.socket, "capture", "-w", self.path, *words],
                                        stdout=subprocess.PIPE, text=True)
        until(lambda: os.path.exists(self.path) and os.path.getsize(self.path) > 0, "the capture runs")

    def end(self, number=signal.SIGINT):
        self.process.send_signal(number)
        said = self.process.communicate(timeout=60)[0]
        assert self.process.returncode == 0, said
        return int(said.split()[0].replace(",", ""))


# ------------------------------------------------------------------------------------------------------------- frames

CARD, PORT, GROUP = "020000001000", "0200000000fe", "0300ffffffff"
READ = bytes.fromhex(
    CARD + PORT
    + "8100" "8064" "88b6"  # VLAN tag: priority 4, VLAN 100; EtherType
    "91"                    # Register Read
    "ffff" "0000"
    "11"                    # tag 17
    "00010234"              # address 0x1234
    + "00" * 32)
ANSWER = bytes.fromhex(
    PORT + CARD
    + "8100" "8064" "88b6"
    "20"                    # Completion
    "a5a5a5a5"
    "11"                    # tag 17
    "78563412"              # value 0x12345678
    + "00" * 32)
WRITE = bytes.fromhex(
    CARD + PORT
    + "88b6" "8100" "8064"  # EtherType in front of the VLAN tag
    "90"                    # Register Write
    "ffff" "000000"
    "00000040"              # address 0x0040
    "03000080"              # value 0x80000003
    + "00" * 28)
NOTIFY = bytes.fromhex(
    GROUP + "020000002001"
    + "8100" "8065" "88b6"  # VLAN 101
    "19"                    # 40G NOTIFY
    "a5" "07" "01"          # flow 7, ver 1
    "0e"                    # fault of the second flag, UID switch, power
    "01"                    # FXIO
    "55"                    # link status
    "66" "a1" "08"          # status bytes: version 1, port 0 up, PCIe present; interrupt vector
    "0002"                  # sub-state: connected
    + CARD
    + "7215" "8680"         # device 0x1572, vendor 0x8086
    "a5" "000002"           # class 0x020000
    "0003"                  # resource number 3
    + "00" * 14)
DEVINFO_1G = bytes.fromhex(
    GROUP + "020000003001"  # an odd MAC, which is the id of a 1G card
    + "8100" "8064" "88b6"
    "10"                    # 1G/10G DEVINFO
    "a5" "00" "00"
    "08" "01" "00" "000000" # power, FXIO
    + "0000" + "00" * 6
    + "7215" "8680" "a5" "000002"
    + "00" * 16)


def changed(frame, at, text):
    data = bytes.fromhex(text)
    return frame[:at] + data + frame[at + len(data):]


def whole(*frames):
    return [(frame, len(frame)) for frame in frames]


def lua_registers():
    """The registers as fxm.lua has them, from those that fxmctl knows. Fields that several registers have stand once."""
    done = subprocess.run([FXMCTL, "-j", "reg", "--names"], capture_output=True, text=True, check=True)
    registers = json.loads(done.stdout)["registers"]
    shared = []
    for register in registers:
        if register["fields"] not in shared:
            shared.append(register["fields"])
    lines = ["local fields = {"]
    for fields in shared:
        lines.append("    {" + ("" if fields else "},"))
        for field in fields:
            words = ", ".join(f'[{word["value"]}] = "{word["text"]}"' for word in field["words"])
            lines.append(f'        {{ name = "{field["name"]}", first = {field["first_bit"]}, bits = {field["bits"]}, '
                         f'words = {{ {words} }} }},'.replace("{  }", "{}"))
        lines += ["    },"] if fields else []
    lines += ["}", "local registers = {"]
    for register in registers:
        lines.append(f'    {{ address = 0x{register["address"]:04x}, cards = "{register["generation"] or "all"}", '
                     f'name = "{register["name"]}", fields = fields[{shared.index(register["fields"]) + 1}] }},')
    return "\n".join(lines + ["}"]) + "\n"


class Frames(unittest.TestCase):
    """Frames of this file, without a network."""
    maxDiff = None

    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="fxm-dissector-")
        self.addCleanup(directory.cleanup)
        self.path = os.path.join(directory.name, "frames.pcap")

    def dissect(self, frames, *words):
        write_pcap(self.path, frames)
        return dissect(self.path, "-2", *words)

    def test_registers_are_those_of_the_table(self):
        with open(LUA, encoding="utf-8") as file:
            before, found, after = re.fullmatch(r"(.*\{\{\{ registers\n)(.*)(-- \}\}\} registers.*)", file.read(),
                                                re.DOTALL).groups()
        wanted = lua_registers()
        if os.environ.get("FXM_WRITE_GOLDEN"):
            with open(LUA, "w", encoding="utf-8") as file:
                file.write(before + wanted + after)
            found = wanted
        self.assertEqual(found, wanted)

    def test_each_fault_of_a_frame_is_named(self):
        short_page = changed(changed(READ, 18, "92"), 24, "00000000")
        long = changed(changed(NOTIFY, 23, "00"), 18, "18")
        cases = [
            ("good", whole(READ, ANSWER, NOTIFY, DEVINFO_1G), []),
            ("length", whole(READ[:59]), ["length", "unanswered"]), ("length", whole(READ[:20]), ["length"]),
            ("length", whole(short_page), ["length"]), ("length", whole(ANSWER[:27]), ["length"]),
            ("length", whole(long + bytes(435)), ["length"]), ("length", whole(long + bytes(436)), []),
            ("length", whole(NOTIFY[:45]), ["length"]), ("length", whole(NOTIFY[:46]), []),
            ("length", whole(changed(NOTIFY, 26, "a0")[:44]), []), ("length", whole(DEVINFO_1G[:43]), ["length"]),
            ("truncated", [(NOTIFY[:40], 60)], ["truncated"]), ("truncated", [(NOTIFY[:18], 60)], ["truncated"]),
            ("header", whole(WRITE[:14] + WRITE[18:] + bytes(4)), ["header"]),
            ("header", whole(NOTIFY[:12] + bytes.fromhex("81008064") + NOTIFY[12:]), ["header"]),
            ("priority", whole(changed(NOTIFY, 14, "6065")), ["priority"]),
            ("priority", whole(changed(WRITE, 16, "0064")), ["priority"]),
            ("kind", whole(changed(NOTIFY, 18, "12")), ["kind"]),
            ("ver", whole(changed(DEVINFO_1G, 21, "01")), ["ver"]),
            ("class", whole(changed(NOTIFY, 23, "02")), ["class"]),
            ("range", whole(changed(WRITE, 24, "00001040")), ["range"]),
            ("range", whole(changed(WRITE, 24, "00000041")), ["range"]),
            ("range", whole(changed(short_page + bytes(96), 24, "00000400")), ["range"]),
            ("range", whole(changed(changed(READ, 18, "80"), 24, "1000")), ["range"]),
            ("retry", whole(READ, READ, ANSWER), ["unanswered", "retry"]),
            ("unanswered", whole(READ, changed(READ, 24, "00000000"), ANSWER), ["unanswered"]),
            ("unasked", whole(READ, ANSWER, ANSWER), ["unasked"]),
            ("unasked", whole(READ, changed(ANSWER, 11, "01")), ["unanswered", "unasked"]),
            ("refused", whole(changed(READ, 24, "00000040"), changed(ANSWER, 24, "00000070")), ["refused"]),
        ]
        # One capture, in which each case has MACs of its own.
        shown = iter(self.dissect([(changed(changed(data, 3, f"{i:02x}"), 9, f"{i:02x}"), length)
                                   for i, (_, frames, _) in enumerate(cases) for data, length in frames]))
        for what, frames, wanted in cases:
            with self.subTest(what, frames=frames):
                found = [name.removeprefix("fxm.expert.") for _ in frames for name in next(shown)
                         if name.startswith("fxm.expert.")]
                self.assertEqual(sorted(found), sorted(wanted))

    def test_fields_of_frames_written_by_hand(self):
        of_1g = changed(changed(READ, 0, "020000003001"), 24, "00000040")
        of_40g = changed(changed(READ, 0, "020000002000"), 24, "00050010")
        write_pcap(self.path, whole(NOTIFY, DEVINFO_1G, READ, ANSWER, WRITE, of_1g, of_40g))
        notify, devinfo, read, answer, write, *others = dissect(self.path, "-2")
        self.assertLessEqual({
            "fxm.card": ["02:00:00:00:20:00"], "fxm.mac_index": ["1"], "fxm.layout": ["0"], "fxm.vlan": ["101"],
            "fxm.flow": ["0x07"], "fxm.generation": ["40G"], "fxm.fault0": ["1"], "fxm.fault1": ["0"],
            "fxm.uidsw": ["1"], "fxm.power": ["1"], "fxm.link_status": ["0x55"], "fxm.version": ["1"],
            "fxm.port0_link": ["1"], "fxm.port1_link": ["0"], "fxm.presence": ["1"], "fxm.int_vector": ["0x08"],
            "fxm.connected": ["1"], "fxm.server": ["02:00:00:00:10:00"], "fxm.vendor": ["0x8086"],
            "fxm.device": ["0x1572"], "fxm.pci_class": ["0x020000"], "fxm.resource": ["3"]}.items(), notify.items())
        self.assertEqual(devinfo["fxm.card"], ["02:00:00:00:30:01"])
        # At these addresses, cards of the other generation have registers with names.
        self.assertEqual([(other["fxm.card"], other["fxm.register"]) for other in others],
                         [(devinfo["fxm.card"], ["0x0040"]), (notify["fxm.card"], ["0x5010"])])
        self.assertLessEqual({"fxm.response_in": ["4"], "fxm.register.address": ["0x00001234"]}.items(), read.items())
        self.assertLessEqual({"fxm.response_to": ["3"], "fxm.response_time": ["0.001000000"],
                              "fxm.register.value": ["0x12345678"]}.items(), answer.items())
        self.assertLessEqual({"fxm.layout": ["1"], "fxm.vlan": ["100"], "fxm.register": ["eeprom.control"],
                              "fxm.eeprom.control.command": ["0x00000003"]}.items(), write.items())
        # One pass has only seen what came before.
        self.assertNotIn("fxm.response_in", dissect(self.path)[2])
        self.assertEqual(tshark(self.path, "-T", "fields", "-e", "_ws.col.Info").splitlines(), [
            "FXIO 40G vlan 101 notifies, int=08, 8086:1572, multi-root 3, server 02:00:00:00:10:00",
            "FXIO 1/10G vlan 100 announces, int=00, 8086:1572",
            "read 0x1234 tag 17",
            "answer tag 17: 0x1234 = 0x12345678, 1000 us",
            "write eeprom.control (0x0040) = 0x80000003, starts a write",
            "read 0x0040 tag 17",
            "read 0x5010 tag 17"])

    def test_the_ethertype_is_a_preference(self):
        other = changed(NOTIFY, 16, "1234")
        for words, wanted in ((), 1), (("-o", "fxm.ether_type:0x1234"), 2), (("-o", "fxm.ether_type:no number"), 1):
            found = [frame["frame.number"] for frame in self.dissect(whole(NOTIFY, other), *words) if "fxm.card" in frame]
            self.assertEqual(found, [[str(wanted)]], words)

    def test_no_bytes_make_it_fail(self):
        dice = random.Random(20)
        seeds = [READ, ANSWER, WRITE, NOTIFY, DEVINFO_1G, NOTIFY[:23] + bytes(500)]
        frames = []
        for _ in range(10000):
            data = bytearray(dice.choice(seeds))
            for _ in range(dice.randrange(4)):
                data[dice.randrange(12, len(data))] = dice.randrange(256)
            if dice.random() < 0.5:
                data[18] = dice.choice((0x10, 0x11, 0x18, 0x19, 0x20, 0x30, 0x80, 0x90, 0x91, 0x92))
            data = data[:dice.randrange(12, len(data) + 1)] if dice.random() < 0.4 else data
            frames.append((bytes(data), len(data) + dice.choice((0, 0, 0, 1, 100))))
        write_pcap(self.path, frames)
        shown = tshark(self.path, "-2", "-V")
        self.assertGreater(shown.count("Fenxar Management"), 8000)


class Captures(unittest.TestCase):
    """Frames between fxmd and the simulator, as fxmctl capture writes them."""
    maxDiff = None
    CARDS = [
        f"fxsv {SERVER} gen=40g vlan=100 bus=2,5,21 flow=11 link=22 sw=336000 int=04 locktype=id "
        f"down0={DEVICE} down3={MULTI} status5=0100",
        f"fxsv {SMALL} gen=1g vlan=200 layout=change down1={LOOSE} power=no uidsw=yes port1link=no",
        f"fxio {DEVICE} gen=40g vlan=100 server={SERVER} connected=yes fault0=yes presence=no",
        f"fxio {MULTI} gen=40g vlan=100 ver=1 mr=515 server={SERVER} connected=yes fault0=yes",
        f"fxio {LOOSE} gen=1g vlan=200 layout=change vendor=144d device=a808 class=010802",
    ]
    # What the commands above have set.
    ANNOUNCED = {
        SERVER: {"generation": "40G", "class": "0", "vlan": "100", "layout": "0", "flow": "0x11", "link_status": "0x22",
                 "sw_status": "33:60:04", "int_vector": "0x04", "down.connected": "1 0 0 1" + " 0" * 12,
                 "down.status": "0x0002 0x0000 0x0000 0x0002 0x0000 0x0100" + " 0x0000" * 10, "power": "1",
                 "bridge.primary": "2 5 5", "bridge.secondary": "5 6 9", "bridge.subordinate": "21 6 9",
                 "bridge.mem_base": "0xc000 0xc000 0xc300", "bridge.mem_limit": "0xcff0 0xc0f0 0xc3f0",
                 "bridge.pre_base_upper": "0x00000020 0x00000020 0x00000023"},
        SMALL: {"generation": "1/10G", "class": "0", "vlan": "200", "layout": "1", "power": "0", "uidsw": "1",
                "port0_link": "1", "port1_link": "0", "down.connected": "0 1" + " 0" * 6},
        DEVICE: {"generation": "40G", "class": "1", "multi_root": "0", "fault0": "1", "fault1": "0", "presence": "0",
                 "server": SERVER, "connected": "1", "vendor": "0x8086", "device": "0x1572"},
        MULTI: {"multi_root": "1", "fault0": "1", "fault1": "0", "presence": "1", "resource": "515", "version": "1"},
        LOOSE: {"generation": "1/10G", "layout": "1", "vendor": "0x144d", "device": "0xa808", "pci_class": "0x010802",
                "connected": "0", "server": "00:00:00:00:00:00"},
    }

    def fabric(self, cards, **more):
        f = Fabric(cards, **more)
        self.addCleanup(f.close)
        return f.start()

    @staticmethod
    def accesses(frames, card):
        """The accesses to a card's registers, in the words of the simulator."""
        return " ".join(f'{"w" if frame["fxm.kind"] == ["0x90"] else "r"}{int(frame["fxm.register.address"][0], 16):x}='
                        f'{int(frame["fxm.register.value"][0], 16):08x}'
                        for frame in frames if frame.get("fxm.card") == [card] and "fxm.register.value" in frame)

    def test_a_capture_shows_what_the_simulator_did(self):
        f = self.fabric(self.CARDS)
        until(lambda: f.get("/v1/status")["cards"]["total"] == len(self.CARDS), "all cards have been seen")
        with open(f"{f.dir}/page.bin", "wb") as file:
            file.write(bytes(range(128)))
        every, one = Capture(f, "all.pcapng"), Capture(f, "one.pcapng", SMALL)
        before = f.counts("all")
        for card in (SERVER, SMALL):
            f.cards(f"watch {card}")
            f.cards(f"eeprom-fill {card} 7")
            f.ctl("reg", card, "0x1234=0xcafe", "--verify", "--yes")
            f.ctl("eeprom", "write", card, "0x124", "0x01020304", "--yes")
            f.ctl("eeprom", "read", card, "0x7f8..0x800")
            f.cards(f"announce {card}")
            f.cards(f"notify {card}")
        f.cards(f"notify {LOOSE}")
        f.ctl("page", MULTI, "515", "page.bin", "--yes")
        f.ctl("reset", LOOSE, "--status", "0x5a", "--yes")
        f.ctl("vlan", DEVICE, "300", "--verify", "--yes")
        f.cards(f"notify {DEVICE}")
        watched = {card: f.cards(f"watched {card}") for card in (SERVER, SMALL)}
        after = f.counts("all")
        count = every.end()
        one.end(signal.SIGTERM)

        frames = dissect(every.path, "-2")
        times = tshark(every.path, "-T", "fields", "-e", "frame.time_epoch").split()
        self.assertEqual(times, sorted(times))
        self.assertEqual((len(frames), {kind for frame in frames for kind in frame["fxm.kind"]}), (count, {
            "0x10", "0x11", "0x18", "0x19", "0x20", "0x30", "0x80", "0x90", "0x91", "0x92"}))
        self.assertEqual([name for frame in frames for name in frame if "expert." in name or "malformed" in name], [])
        for card, fields in self.ANNOUNCED.items():
            shown = [frame for frame in frames if frame.get("fxm.card") == [card] and "fxm.ver" in frame][0]
            self.assertEqual({name: " ".join(shown.get(f"fxm.{name}", [])) for name in fields}, fields, card)
        # Each frame of fxmd once, and each answer belongs to a request.
        for kind, counter in ((0x91, "reads"), (0x90, "writes"), (0x80, "vlansets"), (0x92, "pages")):
            self.assertEqual(len(of_kind(frames, kind)), after[counter] - before[counter], counter)
        reads = of_kind(frames, 0x91)
        self.assertEqual([frame["fxm.response_in"] for frame in reads],
                         [frame["frame.number"] for frame in of_kind(frames, 0x20)])
        for card, wanted in watched.items():
            self.assertEqual(self.accesses(frames, card), wanted)
        self.assertEqual(of_kind(frames, 0x92)[0]["fxm.page"] + of_kind(frames, 0x92)[0]["fxm.page.data"],
                         ["515", ":".join(f"{byte:02x}" for byte in range(128))])
        self.assertEqual(of_kind(frames, 0x30)[0]["fxm.reset.status"], ["0x5a"])
        self.assertEqual((of_kind(frames, 0x80)[0]["fxm.vlan"], of_kind(frames, 0x80)[0]["fxm.new_vlan"]),
                         (["100"], ["300"]))
        # The words of the EEPROM, with the address at which the simulator has them. A later one replaces an earlier one.
        contents = {(frame["fxm.card"][0], int(frame["fxm.eeprom.word"][0], 16)): int(frame["fxm.register.value"][0], 16)
                    for frame in of_kind(frames, 0x20) if frame["fxm.register"] == ["eeprom.read"]}
        self.assertEqual(contents, {(card, word): int(f.cards(f"eeprom {card} {word:#x}"), 16)
                                    for card in (SERVER, SMALL) for word in (0x124, 0x7f8, 0x7fc)})
        engine = ["the engine is ready", "names word 0x7fc", "starts a read of word 0x7fc", "the access has finished",
                  "the content of word 0x7fc", "clears the engine", "the engine is ready"]
        for card, wanted in (
                (SERVER, ["an ID lock", "requests the ID lock for fxm", "the ID lock is requested by fxm",
                          "the ID lock is held by fxm", *engine, "removes fxm from the ID lock",
                          "the ID lock is requested by nobody"]),
                (SMALL, ["a bit lock", "the bit lock is held by nobody", "takes the bit lock",
                         "the bit lock is held by fxm", *engine, "the bit lock is held by fxm",
                         "releases the bit lock", "the bit lock is held by nobody"])):
            steps = [frame["fxm.eeprom.step"][0] for frame in frames
                     if frame.get("fxm.card") == [card] and "fxm.eeprom.step" in frame]
            self.assertEqual([step for i, step in enumerate(steps) if steps[i - 1] != step][-len(wanted):], wanted)

        # The other file has the same frames of its card, and nothing of other cards but the Reset.
        alone = dissect(one.path, "-2")
        self.assertEqual(self.accesses(alone, SMALL), watched[SMALL])
        self.assertEqual([frame.get("fxm.card", ["reset"])[0] for frame in alone if frame.get("fxm.card") != [SMALL]],
                         ["reset"])
        self.assertEqual(set(tshark(every.path, "-T", "fields", "-e", "frame.interface_name", "-e",
                                    "frame.packet_flags_direction", "-e", "fxm.kind").splitlines())
                         - {"fxm1\t0x00000001\t0x" + kind for kind in ("10", "11", "18", "19")},
                         {"fxm0\t0x00000001\t0x" + kind for kind in ("10", "11", "18", "19", "20")} |
                         {"fxm0\t0x00000002\t0x" + kind for kind in ("30", "80", "90", "91", "92")})

    def test_answers_that_fail_are_marked(self):
        f = self.fabric([f"fxsv {SERVER} gen=40g", f"fxio {LOOSE} gen=1g"],
                        library=fabric.QUICK_EEPROM + "eeprom_retry_count = 1\n")
        f.well(2)
        capture = Capture(f, "faults.pcapng")
        quick = ("--retries", "1", "--interval", "1000")
        f.cards(f"fault {SERVER} drop addr=0x2000 count=1")
        f.cards(f"reg {SERVER} 0x2000 5")
        f.ctl("reg", SERVER, "0x2000", *quick)
        f.cards(f"fault {SERVER} twice addr=0x2004 count=1")
        f.ctl("reg", SERVER, "0x2004", *quick)
        f.cards(f"fault {SERVER} other-mac addr=0x2008 count=1")
        f.ctl("reg", SERVER, "0x2008", *quick)
        f.cards(f"set {SERVER} engine=refuse")
        f.ctl("eeprom", "read", SERVER, "0x10", *quick, code=1)
        f.cards(f"holder {SERVER} take")
        f.ctl("eeprom", "read", SERVER, "0x10", *quick, code=5)
        f.cards(f"deaf {LOOSE}")
        f.ctl("reg", LOOSE, "0x200c", "--retries", "2", "--interval", "50", code=4)
        capture.end()
        frames = dissect(capture.path, "-2")
        marks = {}
        for frame in frames:
            names = [name.removeprefix("fxm.expert.") for name in frame if name.startswith("fxm.expert.")]
            if names:
                marks.setdefault(frame["fxm.register"][0] if "fxm.register" in frame else "unknown", []).append(names)
        self.assertEqual(marks, {
            "0x2000": [["unanswered"], ["retry"]], "0x2004": [["unasked"]],
            "0x2008": [["unanswered"], ["retry"]], "unknown": [["unasked"]], "eeprom.control": [["refused"]],
            "0x200c": [["unanswered"], ["retry", "unanswered"], ["retry", "unanswered"]]})
        self.assertIn("the bit lock is held by another holder",
                      {step for frame in frames for step in frame.get("fxm.eeprom.step", [])})
        self.assertIn("answer tag 3: 0x00000000, from the other MAC", tshark(capture.path, "-2"))
        first, second, third = [frame for frame in of_kind(frames, 0x91) if frame["fxm.register"] == ["0x200c"]]
        self.assertEqual((first["fxm.retried_in"], third["fxm.retry_of"], third["fxm.retry"]),
                         (second["frame.number"], first["frame.number"], ["2"]))

    def test_a_capture_ends_when_it_should_and_says_why_it_cannot_begin(self):
        f = self.fabric([f"fxio {LOOSE} gen=1g"], library="ether_type = 0x1234", sim=("--ethertype", "0x1234"))
        f.well(1)
        self.assertIn("5 frames", f.ctl("capture", "-w", "five", "--count", "5"))
        self.assertEqual(len(dissect(f"{f.dir}/five", "-o", "fxm.ether_type:0x1234", "-Y", f"fxm.card == {LOOSE}")), 5)
        f.ctl("capture", LOOSE, "-w", "five", "--seconds", "1", "--force")
        with open(f"{f.dir}/pipe", "wb") as file:
            subprocess.run([FXMCTL, "--socket", f.socket, "capture", "-w", "-", "--count", "3"], stdout=file, check=True)
        self.assertEqual(len(dissect(f"{f.dir}/pipe")), 3)
        for code, words, said in (
                (2, ["-w", "five"], "five exists already; give another"), (1, ["-w", "/nowhere/file"], "/nowhere/file: No such"),
                (2, [], "--write is required"), (2, ["-w", "x", "--seconds", "0"], "--seconds"),
                (3, [SERVER, "-w", "x"], SERVER), (7, ["--socket", "/nowhere", "-w", "x"], "not running")):
            self.assertIn(said, f.ctl("capture", *words, code=code))
        done = subprocess.run(["setpriv", "--bounding-set=-net_raw", FXMCTL, "--socket", f.socket, "capture", "-w",
                               f"{f.dir}/x"], capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, "CAP_NET_RAW" in done.stderr), (6, True), done.stderr)
        self.assertFalse(os.path.exists(f"{f.dir}/x"))
        last = Capture(f, "last", LOOSE)
        for port in (0, 1):
            fabric.run("ip", "link", "del", f"fxm{port}")
        last.process.communicate(timeout=60)
        self.assertEqual(last.process.returncode, 1)
        dissect(last.path)
        for port in (0, 1):
            f.cable(port)
        until(lambda: f.get("/v1/status")["library"]["restarts"] == 1, "fxmd has its ports back")


if __name__ == "__main__":
    fabric.enter_namespace()
    unittest.main(verbosity=2)
