"""Writes docs/performance.md from what the benchmarks have measured: report.py ROWS. ROWS is the file that FXM_BENCH_ROWS
named while they ran. docs/performance.tsv keeps the last value of every row, for those that were not measured now."""
import datetime
import os
import re
import subprocess
import sys
from pathlib import Path
from typing import NamedTuple

TOP = Path(__file__).resolve().parent.parent
STATE = TOP / "docs/performance.tsv"
REPORT = TOP / "docs/performance.md"
TEXT_BEHIND = TOP / "bench/performance.md.in"


class Words(NamedTuple):
    row: str
    limit: str
    change: str = ""  # what was changed in the library to get there


BARE_READS = "the bare program with as many threads"
LEAST_REGISTRY = "the least registry on the same frames"
TWO_EVENTS = "two allocations in a list"
STOP_ALLOWED = "what a stop may take: one interval of the flag check and 1000 ms"
BARE_IN_FLOOD = "the bare program beside a bare capture loop in the same flood"
HEADER = "what `fxm.h` says"

# Changes that serve several rows.
DISPATCH = "a wake takes all frames that the capture holds, without a system call for each look at an empty capture"
NO_SEND_LOCK = "frames are sent without a lock; a lock is tried a few times before a thread sleeps"
ROSTER = "a roster beside each map finds a card in one step"
REFRESH = "a frame without news is compared where the record lies, and writes its time alone; frames of a wake are counted at once"
SEATS = "16 bytes for each card say which of them a pass must look at; it asks for the memory of those ahead"
BATCH = "the events of a pass are one batch, in chunks of 4 KiB"

# All rows, in the order of the table.
WORDS = {
    "read_median": Words("A register read: median, one thread", "the bare program", DISPATCH),
    "read_p99": Words("A register read: 99th percentile, one thread", "the bare program", DISPATCH),
    "read_info": Words("A register read at log level INFO: median, one thread", "the bare program that logs two lines", DISPATCH),
    "reads_8": Words("Register reads by 8 threads on 8 cards", BARE_READS, NO_SEND_LOCK),
    "reads_16": Words("Register reads by 16 threads on 16 cards", BARE_READS, NO_SEND_LOCK),
    "reads_64": Words("Register reads by 64 threads on 64 cards", BARE_READS, NO_SEND_LOCK),
    "frame_known": Words("CPU time of an announcement without news, 10,000 cards in bursts", LEAST_REGISTRY, f"{ROSTER}; {REFRESH}"),
    "flood_1000": Words("CPU time of an announcement in a flood from 1,000 cards", LEAST_REGISTRY, DISPATCH),
    "flood_10000": Words("CPU time of an announcement in a flood from 10,000 cards", LEAST_REGISTRY, DISPATCH),
    "flood_65536": Words("CPU time of an announcement in a flood from 65,536 cards", LEAST_REGISTRY, DISPATCH),
    "flood_lost": Words("Frames lost in the floods", "none"),
    "two_ports": Words("Frames taken in on two ports at once", "one port alone", f"{ROSTER}, so the lock is held a third as long; {NO_SEND_LOCK.split('; ')[1]}"),
    "pass_idle": Words("A pass over 65,536 cards of which none is silent", "a walk through the map from node to node", SEATS),
    "query_wait": Words("Longest wait of a query beside passes and falls of a link without cards", "the longest pass", SEATS),
    "query_wait_expire": Words("Longest wait of a query while all cards expire", "the pass", BATCH),
    "link_lost": Words("A lost link with 65,536 cards behind it", TWO_EVENTS, f"{BATCH}; {SEATS}"),
    "all_expired": Words("A pass in which all 65,536 cards expire", TWO_EVENTS, f"{BATCH}; {SEATS}"),
    "list_ids": Words("A list of 65,536 ids", "the copy of a list that stands ready", "the roster keeps the ids in order, packed"),
    "get_fxsv": Words("`fxm_get_fxsv`, 1,000 cards in random order", "a look-up and a copy under a lock, two counters", f"{ROSTER}; two counters under one lock"),
    "dump_lock": Words("Longest wait of `fxm_get_fxsv` during a status dump of 65,536 cards", "the writing of the same lines"),
    "start": Words("From the call of `fxm_init_manager` to the first call that succeeds", "the opening of the capture with its ring"),
    "stop": Words("From `fxm_fini_manager` to the end, idle", STOP_ALLOWED),
    "stop_65536": Words("From `fxm_fini_manager` to the end, with 65,536 cards", STOP_ALLOWED),
    "memory": Words("Resident memory of an FXSV card", "what the heap takes for its two nodes", "the roster has cost 44 bytes"),
    "announcement": Words("CPU time of an announcement without news, 1,000 a second", LEAST_REGISTRY, DISPATCH),
    "flood_foreign_p99": Words("A register read beside a flood of foreign frames on the other port: 99th percentile", BARE_IN_FLOOD),
    "flood_foreign_median": Words("The same: median", BARE_IN_FLOOD),
    "flood_announce_p99": Words("A register read beside a flood of announcements on the other port: 99th percentile", BARE_IN_FLOOD),
    "flood_announce_median": Words("The same: median", BARE_IN_FLOOD),
    "flood_comp_p99": Words("A register read beside a flood of Completions on the other port: 99th percentile", BARE_IN_FLOOD),
    "flood_comp_median": Words("The same: median", BARE_IN_FLOOD),
    "channels_lost": Words("Changes of channels in the floods on the other port", "none"),
    "flood_memory": Words("Growth of resident memory over a flood of foreign frames", "none"),
    "new_cards_time": Words("100,000 new cards at full speed, until all are known", "the sending"),
    "new_cards_wait": Words("Longest wait of a query meanwhile", "none"),
    "new_card_heap": Words("Heap of a card, half of them FXSV and half FXIO", HEADER),
    "card_heap_kept": Words("Heap of a card that stays after a stop", HEADER),
    "event_heap": Words("Heap of an event that waits", HEADER),
    "backlog_read": Words("A register read beside 10,000 changes a second and a callback of 20 ms: median", "a read without them"),
    "backlog_register": Words("The longest registration for that kind of event, or its end", "two callbacks"),
    "backlog_register_other": Words("The same for another kind of event", "none"),
    "stop_backlog": Words("A stop with 200 events of 20 ms in the queue", "their callbacks and 1100 ms"),
}

GOALS = {
    "ratio_at_most": "ratio at most {:g}",
    "ratio_at_least": "ratio at least {:g}",
    "figure_at_most": "at most {:g} {}",
    "told": "told",
}


class Row(NamedTuple):
    figure: float
    limit: float  # 0: there is none
    unit: str
    kind: str
    goal: float
    date: str

    def ratio(self):
        return self.figure / self.limit if self.limit else None

    def holds(self):
        value = self.figure if self.kind == "figure_at_most" else self.ratio()
        if self.kind == "told":
            return ""
        good = value is not None and (value >= self.goal if self.kind == "ratio_at_least" else value <= self.goal)
        return "holds" if good else "**MISSED**"


def read_rows(path, date=None):
    """Rows by name; the last of a name counts. Lines that the benchmarks write have no date yet."""
    rows = {}
    for line in path.read_text().splitlines() if path.exists() else []:
        name, figure, limit, unit, kind, goal, *measured = line.split("\t")
        rows[name] = Row(float(figure), float(limit), unit, kind, float(goal), date or measured[0])
    return rows


def write_state(rows):
    order = [*WORDS, *sorted(set(rows) - set(WORDS))]
    lines = ["\t".join([name, *(f"{x:g}" if isinstance(x, float) else x for x in rows[name])]) for name in order if name in rows]
    STATE.write_text("\n".join(lines) + "\n")


def number(value, unit=""):
    """Three digits, or all that stand before the point."""
    return f"{value:,.0f} {unit}".strip() if abs(value) >= 100 else f"{value:.3g} {unit}".strip()


def table_line(name, words, row):
    if row is None:
        return f"| {words.row} | not measured | {words.limit} | | | | | {words.change} |"
    limit = f"{number(row.limit, row.unit)}: {words.limit}" if row.limit else words.limit
    ratio = f"{row.ratio():.2f}" if row.limit else ""
    goal = GOALS[row.kind].format(row.goal, row.unit)
    return f"| {words.row} | {number(row.figure, row.unit)} | {limit} | {ratio} | {goal} | {row.holds()} | {row.date} | {words.change} |"


def first_match(path, pattern, default="unknown"):
    found = re.search(pattern, path.read_text(), re.MULTILINE) if path.exists() else None
    return found[1] if found else default


def machine():
    cpu = first_match(Path("/proc/cpuinfo"), r"^model name\s*: (.*)$")
    compiler = first_match(TOP / "build/release/CMakeCache.txt", r"^CMAKE_CXX_COMPILER:\w+=(.*)$", "c++")
    version = subprocess.run([compiler, "--version"], capture_output=True, text=True, check=True).stdout.splitlines()[0]
    build = first_match(TOP / "build/release/CMakeCache.txt", r"^CMAKE_BUILD_TYPE:\w+=(.*)$")
    return f"{cpu}, {os.cpu_count()} CPUs, Linux {os.uname().release}, {version.replace(compiler, Path(compiler).name)}, {build}"


def report(rows, date):
    return "\n".join([
        "# Performance",
        "",
        "`scripts/bench --report` writes this file. Each figure stands beside a limit that the same run has measured: the",
        "least that any program would have to do for the same job. [bench/README.md](../bench/README.md) describes the",
        "programs.",
        "",
        f"{machine()}. Written on {date}.",
        "",
        "| | Figure | Limit | Ratio | Goal | | Measured | What was changed to get there |",
        "|---|---|---|---|---|---|---|---|",
        *(table_line(name, words, rows.get(name)) for name, words in WORDS.items()),
        "",
        *([TEXT_BEHIND.read_text()] if TEXT_BEHIND.exists() else []),
    ])


def main():
    if len(sys.argv) != 2:
        sys.exit("Usage: report.py ROWS")
    date = datetime.date.today().isoformat()
    measured = read_rows(Path(sys.argv[1]), date)
    rows = read_rows(STATE) | measured
    for name in sorted(set(rows) - set(WORDS)):
        print(f"report.py: the row {name} is not in its table", file=sys.stderr)
    for name in WORDS:
        if name not in rows:
            print(f"report.py: {name} was not measured", file=sys.stderr)
    write_state(rows)
    REPORT.write_text(report(rows, date))
    print(f"{REPORT.relative_to(TOP)}: {len(measured)} rows measured, {len(rows) - len(measured)} kept")


main()
