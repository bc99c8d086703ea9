#!/usr/bin/env python3
"""Makes the manual pages below a directory: those written by hand, with what they include, and those of include/fxm.h.

Each section of the header that declares functions belongs to a family: the first word of its title. A family is one page,
and each of its functions a page that refers to it. What declares types and constants alone is the page fxm_types.

A line of a page written by hand may include text that has its place elsewhere:

    @header TITLE    the text under this title in the first comment of the header
    @families        the pages of the families
    @head FILE       the first comment of a configuration file
    @keys FILE       its keys
    @file FILE       a file as it is

@VERSION@ is the version. In comments, a line of the form "term  text", with two blanks, begins an entry of a list, and
"- text" an item; deeper lines go on with it.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys

TREE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def read(name):
    with open(os.path.join(TREE, name), encoding="utf-8") as file:
        return file.read()


HEADER = read("include/fxm.h")
VERSION = ".".join(re.findall(r"^#define FXM_VERSION_[MP]\w+ +(\d+)$", HEADER, re.M))


class Fault(Exception):
    """What keeps a page from being made."""


# ---------------------------------------------------------------------------------------------------- text for scdoc
def literal(text):
    return re.sub(r"([\\*_])", r"\\\1", text)


def words(text):
    """A line of text: keys and arguments are underlined, the names of the interface are bold."""
    def mark(match):
        if match[1]:
            return f"_{literal(match[1])}_"
        return f"*{literal(match[2])}*" if match[2] else literal(match[0])
    made = re.sub(r"`([^`]+)`|\b(fxm_[a-z_]+|FXM_[A-Z0-9_]+)\b|[\\*_]", mark, " ".join(text.split()))
    return "\\" + made if made[:1] in "#-.[]|`" and made else made


def code(text):
    return f"```\n{text.strip()}\n```\n\n"


def comment_lines(comment):
    return [re.sub(r"^(/\*| \*/| \*(?= |$)) ?", "", line).removesuffix(" */").rstrip() for line in comment.splitlines()]


def paragraphs(lines):
    made = [[]]
    for line in lines:
        if line.strip():
            made[-1].append(line)
        elif made[-1]:
            made.append([])
    return [paragraph for paragraph in made if paragraph]


def parts(paragraph):
    """The paragraph as (term, text): a term of None is plain text, and "-" an item."""
    made, deep = [], -1
    for line in paragraph:
        indent = len(line) - len(line.lstrip())
        item = re.match(r"\s*(-) (.*)", line) or re.match(r"\s*(\S+(?: \S+)*) {2,}(\S.*)", line)
        if item:
            made.append([item[1], item[2]])
            deep = indent
        elif made and (made[-1][0] is None or indent > deep):
            made[-1][1] += " " + line.strip()
        else:
            made.append([None, line.strip()])
    return made


def entries(pairs):
    made = ""
    for term, text in pairs:
        if term is None:
            made += words(text) + "\n\n"
        elif term == "-":
            made += f"- {words(text)}\n"
        else:
            bold = words(term) if re.search("fxm_|FXM_", term) else f"*{literal(term)}*"
            made += f"{bold}\n\t{words(text)}\n\n"
    return made + ("\n" if pairs and pairs[-1][0] == "-" else "")


def text_of(lines):
    return "".join(entries(parts(paragraph)) for paragraph in paragraphs(lines))


# -------------------------------------------------------------------------------------------------------- the header
def sections():
    """(title, [(comment, code, belongs)]) for each section; `belongs` says that the code is what the comment is about."""
    pieces = re.split(r"^/\* -{5,} (.+) \*/$", HEADER.split("#ifdef __cplusplus\n}")[0], flags=re.M)
    for title, body in zip(pieces[1::2], pieces[2::2]):
        blocks = re.split(r"^(/\*.*?\*/)$", body, flags=re.M | re.S)
        found = [("", blocks[0], True)] if blocks[0].strip() else []
        for comment, following in zip(blocks[1::2], blocks[2::2]):
            found.append((comment, following.strip("\n"), not following.startswith("\n\n")))
        yield title, found


def functions(text):
    return re.findall(r"^FXM_EXPORT int (fxm_\w+)\(", text, re.M)


def families():
    """The blocks of each family by the name of its page, in the order of the header."""
    made = {}
    for title, blocks in sections():
        if any(functions(text) for _, text, _ in blocks):
            made.setdefault("fxm_" + re.match(r"\w+", title)[0].lower(), []).extend(blocks)
    return made


def header_text(title):
    """The text under a title of the first comment."""
    lines = comment_lines(HEADER.split("*/", 1)[0])
    heads = [at for at, line in enumerate(lines) if re.fullmatch("[-=]{3,}", line)]
    for at, end in zip(heads, heads[1:] + [len(lines) + 1]):
        if lines[at - 1] == title:
            return text_of(lines[at + 1:end - 1])
    raise Fault(f'include/fxm.h has no title "{title}"')


def result_list(text):
    """A list such as "FXM_API_SUCCESS; FXM_API_EINVAL `x` is NULL." as entries."""
    pairs = []
    for entry in re.split(r"; (?=FXM_API_)", text):
        result, rest = re.match(r"(FXM_API_\w+)[, ]*(.*)", entry).groups()
        if rest in ("", "."):
            rest = re.search(rf"^    {result} = \d+,? +/\* (.*) \*/$", HEADER, re.M)[1]
        pairs.append((result, rest))
    return entries(pairs)


def split_results(comment):
    """What a comment says of the results, apart from everything else."""
    description = results = ""
    for paragraph in paragraphs(comment_lines(comment)):
        joined = " ".join(line.strip() for line in paragraph)
        listed = re.search(r"(?:^|(?<=\. ))FXM_API_SUCCESS\b.*", joined)
        if joined.startswith("Results of") or re.match(r" *FXM_API_\w+ {2,}", paragraph[0]):
            results += entries(parts(paragraph))
        elif listed:
            description += entries(parts([joined[:listed.start()]])) if listed.start() else ""
            results += result_list(listed[0])
        else:
            description += entries(parts(paragraph))
    return description, results


def title_line(name):
    return f'{name}(3) "fxm {VERSION}" "libfxm"\n\n'


def see_also(name):
    others = [other for other in [*families(), "fxm_types"] if other != name]
    return "# SEE ALSO\n\n" + ", ".join(f"*{literal(page)}*({number})" for page, number in
                                        [("libfxm", 3), *((other, 3) for other in others), ("fxm.conf", 5)]) + "\n"


def family_page(name, blocks):
    names, synopsis, description, returned = [], "", "", ""
    for comment, text, belongs in blocks:
        here = functions(text)
        what, results = split_results(comment)
        heading = ", ".join(here) or ", ".join(re.findall(r"^typedef .*\(\*(\w+)\)", text, re.M))
        if belongs and heading:
            description += f"## {literal(heading)}\n\n"
            synopsis += re.sub(r",\n +", ",\n        ", text.strip().replace("FXM_EXPORT ", "")) + "\n\n"
        if results and belongs:
            returned += f"## {literal(heading)}\n\n"
        description += what
        returned += results
        names += here
    subject = name.removeprefix("fxm_")
    return (f"{title_line(name)}# NAME\n\n{literal(', '.join([name, *names]))} - the functions of libfxm for {subject}\n\n"
            f"# SYNOPSIS\n\n{code('#include <fxm.h>' + chr(10) * 2 + synopsis)}Link with _-lfxm_.\n\n"
            f"# DESCRIPTION\n\n{description}# RETURN VALUE\n\n{header_text('Results')}{returned}{see_also(name)}")


def types_page():
    made = (f"{title_line('fxm_types')}# NAME\n\nfxm\\_types - the types and constants of libfxm\n\n"
            f"# SYNOPSIS\n\n{code('#include <fxm.h>')}# DESCRIPTION\n\n{header_text('Units')}")
    for title, blocks in sections():
        if any(functions(text) for _, text, _ in blocks):
            continue
        made += f"## {literal(title)}\n\n"
        for comment, text, _ in blocks:
            made += text_of(comment_lines(comment)) + (code(text) if text.strip() else "")
    return made + see_also("fxm_types")


# --------------------------------------------------------------------------------------------- configuration files
def head_text(file):
    return text_of(line[2:] for line in re.match(r"(?:#( (?!---).*)?\n)+", read(file))[0].splitlines())


def keys_text(file):
    """Its keys, under the titles that the file has: "# ---- title" or "[title]"."""
    made, about, terms = "", [], []

    def end():
        nonlocal made, about, terms
        text = " ".join(about)
        if terms:
            made += "++\n".join(terms) + f"\n\t{words(text)}\n\n"
        elif text:
            made += words(text) + "\n\n"
        about, terms = [], []

    # Behind the head, which ends at an empty line or at a title.
    for line in re.sub(r"\A(?:#( (?!---).*)?\n)+", "", read(file)).splitlines():
        title = re.fullmatch(r"# -{5,} (.+)|\[(\w+)\]", line)
        key = re.fullmatch(r"(#?)(\w+) = (.*)", line)
        if title:
            end()
            made += f"## {literal(title[1] or line)}\n\n"
        elif key:
            given = " = " if key[1] else ", for example "
            terms.append(f"*{literal(key[2])}*{given}{literal(key[3])}")
        elif line.startswith("# "):
            about.append(line[2:])
        else:
            end()
    end()
    return made


# ------------------------------------------------------------------------------------------------------------- pages
def hand_page(text):
    """A page written by hand, with what it includes."""
    includes = {"header": header_text, "head": head_text, "keys": keys_text, "file": lambda name: code(read(name)),
                "families": lambda _: "\n".join(
                    f"*{literal(name)}*(3)\n\t" + ", ".join(literal(f) for b in blocks for f in functions(b[1])) + "\n"
                    for name, blocks in families().items())}
    made = re.sub(rf"^@({'|'.join(includes)})(?: (.+))?$", lambda m: includes[m[1]](m[2]).rstrip(), text, flags=re.M)
    return made.replace("@VERSION@", VERSION)


def write(out, name, text):
    folder = os.path.join(out, "man" + name.rsplit(".", 1)[1])
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
        file.write(text)


def tidy(page):
    """Moves the paragraphs that scdoc begins at the end of a block behind it, and leaves out empty ones."""
    page = page.replace(".P\n.RE\n", ".RE\n.P\n")
    page = re.sub(r"^(\.(?:TH|SH|SS) .*\n)(?:\.P\n)+", r"\1", page, flags=re.M)
    return re.sub(r"^\.P\n(?=(?:\.P\n)*(?:\.(?:SH|SS) |\.P\n|\.RE\n|\Z))", "", page, flags=re.M)


def make(scdoc, out, name, source):
    done = subprocess.run([scdoc], input=source, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise Fault(f"scdoc refuses the source of {name}: {done.stderr.strip()}")
    write(out, name, tidy(done.stdout))


def main():
    first, rest = __doc__.split("\n", 1)
    parser = argparse.ArgumentParser(prog="from_header.py", description=first, epilog=rest + "\nExit code: 0 done, "
                                     "1 a page cannot be made, 2 wrong usage.",
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", action="version", version=f"from_header.py (fxm) {VERSION}")
    parser.add_argument("--scdoc", default="scdoc", help="the program scdoc")
    parser.add_argument("--out", required=True, help="the directory; its man1, man3, man5 and man8 are made anew")
    parser.add_argument("page", nargs="*", help="a page written by hand, NAME.SECTION.scd")
    given = parser.parse_args()
    try:
        for number in "1358":
            shutil.rmtree(os.path.join(given.out, "man" + number), ignore_errors=True)
        for page in given.page:
            make(given.scdoc, given.out, os.path.basename(page).removesuffix(".scd"), hand_page(read(page)))
        for name, blocks in families().items():
            make(given.scdoc, given.out, f"{name}.3", family_page(name, blocks))
            for function in [f for block in blocks for f in functions(block[1])]:
                write(given.out, f"{function}.3", f".so man3/{name}.3\n")
        make(given.scdoc, given.out, "fxm_types.3", types_page())
    except (Fault, OSError) as failure:
        print(f"from_header.py: {failure}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
