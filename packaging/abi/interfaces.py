#!/usr/bin/env python3
"""Keeps the interfaces of the programs stable.

api-1.json lists what clients and operators rely on, one fact a line: the routes, documents and request members of the
API, metrics, configuration keys, and the command lines. This program collects the same facts from the sources and from
the programs, and names each difference.
"""
import argparse
import glob
import json
import os
import re
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
# Variable of the environment, and where the release build has the program.
PROGRAMS = {"FXMD": "host/daemon/fxmd", "FXMCTL": "host/ctl/fxmctl", "FXMSIM": "sim/fxmsim",
            "FXM_MONITOR": "examples/fxm-monitor"}
# Facts that stand in the sources and documents: files, pattern, and what its groups mean. A test of fxmd keeps the table
# of docs/monitoring.md true.
SOURCES = [
    ("host/daemon/api_*.cpp", r'\{"([A-Z]+)", "(/[^"]*)", role::(\w+), \w+\}', "route {0} {1}", "{2}"),
    ("host/daemon/api*.cpp", r'\b(?:optional_)?(number|flag|text|words)\("(\w+)"', "request member {1}", "{0}"),
    ("host/daemon/api_*.cpp", r'\bkey == "(\w+)"', "request query {0}", ""),
    ("host/daemon/api.cpp", r'\{"(FX\w+)", (\d+)\}', "error {0}", "{1}"),
    ("host/common/filter.cpp", r'^    \{"(\w+)", "[^"]*"\},$', "filter {0}", ""),
    ("docs/monitoring.md", r"^\| `([a-z_]+)` \| (\w+) \| ([^|]*?) ?\|", "metric {0}", "{1} {2}"),
    ("conf/fxm.conf", r"^#?(\w+) = (.+)$", "fxm.conf {0}", "{1}"),
]


class Trouble(Exception):
    """The facts cannot be collected."""


def read(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return file.read()


def fact(facts, name, value):
    """The same name may come from several places; it then has all of their values."""
    known = facts.setdefault(name, value)
    if known != value:
        facts[name] = " or ".join(sorted({*known.split(" or "), value}))


def read_sources(facts):
    for pattern, line, name, value in SOURCES:
        found = [match.groups() for path in sorted(glob.glob(os.path.join(ROOT, pattern)))
                 for match in re.finditer(line, read(path), re.M)]
        if not found:
            raise Trouble(f"nothing in {pattern} looks like {line}; write its pattern in {__file__} anew")
        for groups in found:
            fact(facts, name.format(*groups), value.format(*groups).strip())


# ---------------------------------------------------------------------------------------------------------- documents

# What a document allows at one place, and what lies below it. Ranges are not kept: a client takes any number.
IGNORED = {"description", "minimum", "maximum", "minItems", "maxItems", "pattern"}


def read_document(facts, path, node, required=None):
    kinds = []
    for choice in node.get("anyOf") or node.get("oneOf") or [node]:
        if unknown := set(choice) - IGNORED - {"anyOf", "oneOf", "$ref", "const", "enum", "type", "properties",
                                               "required", "items", "additionalProperties"}:
            raise Trouble(f"host/common/schema.json uses {unknown} at {path}, which {__file__} does not read")
        if "$ref" in choice:
            kinds.append(choice["$ref"].rpartition("/")[2])
        elif "const" in choice:
            kinds.append(json.dumps(choice["const"]))
        elif "enum" in choice:
            kinds.append("word")
            for word in choice["enum"]:
                fact(facts, f"document {path} = {json.dumps(word)}", "")
        else:
            kinds += choice["type"] if isinstance(choice["type"], list) else [choice["type"]]
        for name, member in choice.get("properties", {}).items():
            read_document(facts, f"{path}.{name}", member, name in choice.get("required", []))
        for key, mark in ("items", "[]"), ("additionalProperties", ".*"):
            if isinstance(choice.get(key), dict):
                read_document(facts, path + mark, choice[key])
    presence = {None: "", True: "always ", False: "optional "}[required]
    fact(facts, f"document {path}", presence + "|".join(sorted(kinds)))


# ----------------------------------------------------------------------------------------------------------- programs

def ask(program, *words):
    done = subprocess.run([program, *words], capture_output=True, text=True, timeout=60, check=False)
    if done.returncode:
        raise Trouble(f"{program} {' '.join(words)} ended with {done.returncode}: {done.stderr.strip()}")
    return done.stdout


def read_daemon_keys(facts, program):
    """Each key is a paragraph: purpose, what is expected, and the key with its default. The words of a choice and the
    range of a number are kept, but no other sentence of what is expected."""
    section = ""
    for paragraph in ask(program, "--print-config").split("\n\n"):
        text = paragraph.replace("\n# ", " ")
        if head := re.search(r"^\[(\w+)\]", text, re.M):
            section = head[1] + "."
        if key := re.search(r"Expected: (.*)\n#?(\w+) = (.*)", text):
            expected, name, default = key.groups()
            limits = re.match(r"a number from \d+ to \d+|(?:\w+, )*\w+ or \w+(?=\.)", expected)
            kind = "text" if default.startswith('"') else "list"
            fact(facts, f"fxmd.toml {section}{name}", limits[0] if limits else kind)
            fact(facts, f"fxmd.toml {section}{name}: default", default)
            if expected.endswith("(reload)"):
                fact(facts, f"fxmd.toml {section}{name}: reload", "")
    if not section:
        raise Trouble(f"{program} --print-config does not print what {__file__} reads")


def read_value(facts, name, value):
    """A choice such as TEXT:{bash,zsh} may get further words, so each one is a fact."""
    choice = re.search(r":\{(.*)\}", value)
    for word in choice[1].split(",") if choice else []:
        fact(facts, f"{name} = {word}", "")
    fact(facts, name, value.replace(choice[0], "") if choice else value)


def read_command(facts, name, program, words=()):
    """Options, arguments, exit codes and commands, from what --help says."""
    text = ask(program, *words, "--help")
    section, place = "", 0
    for line in text.splitlines():
        if head := re.fullmatch(r"([A-Z]\w+):", line):
            section = head[1]
        elif entry := re.match(r"  (\S.*?)(?:  .*)?$", line):
            if entry[1].startswith("-"):
                for option in re.split(r", ?(?=-)", entry[1]):
                    option, _, value = option.partition(" ")
                    if option not in ("-h", "--help"):  # asked for already
                        read_value(facts, f"option {name} {option}", value)
            elif section == "Positionals":
                place += 1
                read_value(facts, f"argument {name} {place}", entry[1].partition(" ")[2])
            elif section == "Subcommands":
                fact(facts, f"command {name} {entry[1]}", "")
                read_command(facts, f"{name} {entry[1]}", program, (*words, entry[1]))
    for code in re.findall(r"[:,]\s(\d) [a-z]", text[text.find("Exit code:"):].replace("\n", " ")):
        fact(facts, f"exit {name} {code}", "")


def collect():
    facts = {}
    read_sources(facts)
    for name, node in json.loads(read("host/common/schema.json"))["$defs"].items():
        read_document(facts, name, node)
    for variable, place in PROGRAMS.items():
        program = os.environ.get(variable) or os.path.join(ROOT, "build/release", place)
        if not os.access(program, os.X_OK):
            raise Trouble(f"there is no program {program}; make the release build, or set {variable} to its path")
        if variable == "FXMD":
            read_daemon_keys(facts, program)
        read_command(facts, os.path.basename(place), program)
    return facts


# ---------------------------------------------------------------------------------------------------------- comparing

def is_wider(old, new):
    """Whether users of the old value can rely on the new one: a member that is now always there, or a range that includes
    the old one."""
    if old.startswith("optional ") and new == old.replace("optional", "always", 1):
        return True
    was, now = (re.fullmatch(r"(.*?)(\d+)( to | - )(\d+)(.*)", value) for value in (old, new))
    return (bool(was and now) and was.group(1, 3, 5) == now.group(1, 3, 5) and
            int(now[2]) <= int(was[2]) and int(now[4]) >= int(was[4]))


def compare(old, new):
    """Prints each difference; returns whether something is gone or different, and whether something is new."""
    gone, added = [], []
    for name in sorted({*old, *new}):
        if name not in new:
            gone.append(f"removed: {name} {old[name]}".rstrip())
        elif name not in old:
            added.append(f"added: {name} {new[name]}".rstrip())
        elif old[name] != new[name]:
            was_is = f"{name}: was {old[name] or 'nothing'}, is {new[name] or 'nothing'}"
            if is_wider(old[name], new[name]):
                added.append(f"added: {was_is}")
            else:
                gone.append(f"changed: {was_is}")
    for line in gone + added:
        print(line)
    return bool(gone), bool(added)


def load(path):
    try:
        with open(path, encoding="utf-8") as file:
            return json.load(file)
    except (OSError, ValueError) as failure:
        raise Trouble(f"cannot read {path}: {failure}") from failure


def main():
    number = json.loads(read("host/common/schema.json"))["$id"].rpartition("/")[2]
    stored = os.path.join(HERE, f"api-{number}.json")
    name = os.path.relpath(stored, ROOT)
    version = ".".join(re.findall(r"^#define FXM_VERSION_M?[A-Z]+ +(\d+)$", read("include/fxm.h"), re.M))
    parser = argparse.ArgumentParser(
        description=f"Compares the interfaces of fxmd, fxmctl, fxmsim and fxm-monitor with {name}.",
        epilog="The programs are those of build/release, or of the environment: " + ", ".join(PROGRAMS) + ". "
               "Exit code: 0 no difference, 1 something was removed, changed or added, 2 wrong usage, or a source or "
               "program that cannot be read.")
    parser.add_argument("--version", action="version", version=f"%(prog)s (fxm) {version}")
    parser.add_argument("--update", action="store_true", help="write the file anew, if things were only added")
    parser.add_argument("--force", action="store_true", help="with --update: also if something was removed or changed")
    parser.add_argument("--against", metavar="FILE",
                        help="compare the stored file with an older one instead; what was added is no finding")
    options = parser.parse_args()
    if options.force and not options.update or options.against and options.update:
        parser.error("--force goes with --update, and --against goes alone")
    if options.against:
        return int(compare(load(options.against), load(stored))[0])

    facts = collect()
    is_new = options.update and not os.path.exists(stored)
    gone, added = compare({} if is_new else load(stored), facts)
    if options.update:
        if gone and not options.force:
            print(f"Not written. Within fxm/{number} things are only added: put back what is named above, or accept the "
                  "break, which needs a new major version, with --update --force.")
            return 1
        with open(stored, "w", encoding="utf-8") as file:
            file.write(json.dumps(facts, indent=0, sort_keys=True, ensure_ascii=False) + "\n")
        print(f"{name} has {len(facts)} facts.")
        return 0
    if gone:
        print(f"{name}: clients rely on what was removed or changed. Put it back; a break needs a new major version, and "
              "packaging/abi/interfaces.py --update --force.")
    elif added:
        print(f"{name} does not have what was added: run packaging/abi/interfaces.py --update, and commit the file.")
    return int(gone or added)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Trouble as trouble:
        print(f"interfaces.py: {trouble}", file=sys.stderr)
        sys.exit(2)
