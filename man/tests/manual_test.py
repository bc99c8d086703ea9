"""The manual pages and the completion, held to the programs, the header and the configuration files."""
import functools
import glob
import os
import re
import shutil
import signal
import subprocess
import sys
import unittest

TREE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
sys.path.insert(0, os.path.join(TREE, "host/tests"))
import fabric  # pylint: disable=wrong-import-position

MAN = os.environ["FXM_MAN"]
OPTION = re.compile(r"(?<![\w-])(?:--[a-z][\w-]*|-[a-zA-Z]\b)")


def read(*path):
    with open(os.path.join(TREE, *path), encoding="utf-8") as file:
        return file.read()


def page(name):
    """The text of a built page without its formats."""
    text = read(MAN, "man" + name[-1], name)
    return re.sub(r"\\f[A-Z]|\\&", "", text).replace("\\-", "-").replace("\\_", "_")


def section(text, title):
    return text.partition(f".SH {title}\n")[2].partition("\n.SH ")[0]


def output(*words, **more):
    return subprocess.run(words, capture_output=True, text=True, timeout=60, check=True, **more).stdout


def options_of(text):
    return {option for line in re.findall(r"^ {2}(-.*?)(?: {3}|\n|$)", text, re.M) for option in OPTION.findall(line)}


def commands(*words):
    """The help of this command of fxmctl and of those below it, by their words."""
    shown = output(fabric.FXMCTL, *words, "--help")
    listed = re.findall(r"^  ([a-z][\w-]*)", shown.partition("\nSubcommands:\n")[2].partition("\n\n")[0], re.M)
    return functools.reduce(lambda all, name: all | commands(*words, name), listed, {words: shown})


def complete(*words):
    return set(output(fabric.FXMCTL, "__complete", *words, env={"FXM_SOCKET": "/nowhere"}).splitlines())


class Manual(unittest.TestCase):
    def test_pages_are_there_and_well_formed(self):
        for package in ("scdoc", "mandoc"):
            self.assertTrue(shutil.which(package), f"the package {package} is missing: apt-get install {package}")
        pages = glob.glob("man?/*", root_dir=MAN)
        self.assertTrue(pages, "no page has been built: configure again, now that scdoc is there")
        for name in pages:
            text = read(MAN, name)
            if text.startswith(".so "):
                self.assertIn(text[4:].strip(), pages)
            else:
                lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", f"{MAN}/{name}"], capture_output=True, check=False)
                self.assertEqual(lint.stdout + lint.stderr, b"", name)
                for other, number in re.findall(r"\b((?:lib)?fxm[\w.-]*)\((\d)\)", page(os.path.basename(name))):
                    self.assertIn(f"man{number}/{other}.{number}", pages, f"{name} refers to it")

    def test_options_of_programs_are_in_page_and_completion_and_no_others(self):
        shells = "".join(read("packaging/completion", name) for name in ("programs.bash", "_fxmd", "_fxmsim"))
        for name, program in (("fxmd.8", fabric.FXMD), ("fxmsim.1", fabric.FXMSIM), ("fxm-monitor.1", fabric.MONITOR)):
            options, word = options_of(output(program, "--help")), os.path.basename(program)
            for text in (section(page(name), "OPTIONS"), re.search(rf"-W '(.*)' {word}$", shells, re.M)[1],
                         re.search(rf"^{word}\) options=\((.*)\)", shells, re.M)[1]):
                self.assertEqual(set(OPTION.findall(text)), options, f"{program}: {text}")

    def test_commands_of_fxmctl_are_in_page_and_completion_and_no_others(self):
        found, text = commands(), re.sub(r"\.nf\n.*?\.fi\n", "", page("fxmctl.1"), flags=re.S)  # without examples
        everywhere = options_of(found[()])
        self.assertEqual(set(OPTION.findall(section(text, "OPTIONS"))), everywhere)
        sections = dict(re.findall(r"^\.SS (\S+)\n(.*?)(?=^\.S[SH] |\Z)", text, re.M | re.S))
        self.assertEqual(set(sections), {words[0] for words in found if words})
        known = {name: set() for name in sections}
        for words, shown in found.items():
            if words:
                known[words[0]] |= options_of(shown) - everywhere
                self.assertIn(" ".join(("fxmctl", *words)), sections[words[0]])
            self.assertEqual(complete(*words, "-"), options_of(shown) | everywhere, words)
            self.assertLessEqual({more[-1] for more in found if more and more[:-1] == words}, complete(*words, ""))
        for name, text in sections.items():
            self.assertEqual(set(OPTION.findall(text)) - everywhere, known[name], name)

    def test_keys_are_in_their_page(self):
        for name in ("fxmd.toml", "fxm.conf"):
            terms = re.findall(r"^\\fB(\w+)\\fR(?: = |, for)", read(MAN, "man5", name + ".5").replace("\\_", "_"), re.M)
            self.assertEqual(terms, re.findall(r"^#?(\w+) = ", read("conf", name), re.M), name)

    def test_functions_are_in_one_page_with_their_results(self):
        header = read("include/fxm.h")
        texts = {os.path.basename(name)[:-2]: page(os.path.basename(name)) for name in glob.glob(f"{MAN}/man3/*.3")}
        for function in re.findall(r"^ +(fxm_\w+);", read("src/main/fxm.map"), re.M):
            made = [name for name, text in texts.items() if re.search(rf"^int {function}\(", text, re.M)]
            self.assertEqual(len(made), 1, function)
            self.assertEqual(texts[function], f".so man3/{made[0]}.3\n")
            shared, *own = section(texts[made[0]], "RETURN VALUE").split(".SS ")
            own = "".join(part for part in own if function in part.partition("\n")[0].split(", "))
            # A list of results begins a sentence. Where a function has none, its section has one for all.
            above = header[:header.index(f"FXM_EXPORT int {function}(")]
            about = re.sub(r"\n \* *", " ", above[above.rindex("/*"):])
            wanted = re.findall(r"[.;] +(FXM_API_[A-Z]+)", about)
            if not wanted:
                own = shared
                wanted = re.findall(r"^ \*   (FXM_API_[A-Z]+)", above[above.rindex("/* -----"):], re.M)
            self.assertEqual(re.findall(r"^(FXM_API_[A-Z]+)$", own, re.M), wanted, function)

    def test_completion_in_a_real_bash(self):
        f = fabric.Fabric(fabric.CARDS)
        self.addCleanup(f.close)
        f.start()
        f.well(len(fabric.CARDS))
        path = f"{os.path.dirname(fabric.FXMCTL)}:{os.environ['PATH']}"

        def reply(line, server=f.socket):
            return output("bash", "-c", """source "$1" && complete -p fxmctl >/dev/null || exit 9
                read -ra COMP_WORDS <<<"$2"; COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_LINE=$2 COMP_POINT=${#2}
                _fxmctl; printf '%s\\n' "${COMPREPLY[@]}" """, "bash", f"{TREE}/packaging/completion/fxmctl.bash", line,
                          env=os.environ | {"PATH": path, "FXM_SOCKET": server}).split()
        for line, wanted in (("fxmctl eep", ["eeprom"]), ("fxmctl eeprom re", ["read", "restore"]),
                             ("fxmctl reg --ver", ["--verify", "--version"]), ("fxmctl --socket", ["--socket"]),
                             (f"fxmctl reg {fabric.SERVER} eeprom.lock", ["eeprom.lock", "eeprom.locktype"]),
                             # What stands in front of the last colon or equals sign stays.
                             (f"fxmctl show {fabric.SERVER[:-3]}", ["10:00"]),
                             (f"fxmctl history --card {fabric.SERVER[:-2]}", ["00"]),
                             (f"fxmctl cards id={fabric.SERVER[:-1]}", ["00"]), ("fxmctl cards state=e", ["error"]),
                             ("fxmctl cards state!=well,l", ["well,lost"]), ("fxmctl loglevel t", ["trace"]),
                             ("fxmctl history --type ga", ["gap"]), ("fxmctl --bogus ca", ["capture", "cards"])):
            self.assertEqual(sorted(reply(line)), wanted, line)
        # Without fxmd, and beside one that says nothing, only the cards are missing, and nobody complains.
        os.kill(f.daemon.pid, signal.SIGSTOP)
        self.addCleanup(os.kill, f.daemon.pid, signal.SIGCONT)
        for where in (f.socket, "/nowhere"):
            self.assertEqual((reply("fxmctl show 02", where), reply("fxmctl cards st", where)), ([], ["state="]))
            self.assertEqual(subprocess.run([fabric.FXMCTL, "__complete", "--socket", where, "--url=x", "show", ""],
                                            capture_output=True, check=True).stderr, b"")


if __name__ == "__main__":
    fabric.enter_namespace()
    unittest.main()
