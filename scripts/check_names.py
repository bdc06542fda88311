#!/usr/bin/env python3
"""Fails where two sources of one folder give a name of their own to different things, and where a
member is not called likeThis_.

Builds that unite a folder's sources (ORVANTA_UNITE) show each source the unnamed namespaces of the
others: a function of the same name could be taken silently where its parameters fit better.
Usage: check_names.py [ROOT]
"""
import collections
import pathlib
import re
import sys

FOLDERS = ("cms", "tools/data", "tools/serve", "tools/support", "tools/testcamera")
FUNCTION = re.compile(r"(?:\[\[.*?\]\] )?[A-Za-z_][\w:<>,*& ]*?[ *&](\w+)\(")
TYPE = re.compile(r"(?:struct|class|enum class|enum|using) (\w+)")
CONSTANT = re.compile(r"(?:constexpr|const|std::|static|thread_local).*?[ &*](\w+)(?:\[\w*\])?(?: =|\{|;)")
MEMBER = re.compile(r"\b[a-z][a-z0-9]*(?:_[a-z0-9]+)+_\b")
STRING = re.compile(r'"(?:[^"\\]|\\.)*"')
NOT_NAMES = {"std", "nlohmann", "namespace"}


def names_of(source):
    """The names that the source's unnamed namespaces define, and those of functions outside them."""
    own, outer, unnamed = set(), set(), False
    for line in source.read_text(encoding="utf-8").splitlines():
        if line.startswith("namespace {"):
            unnamed = True
        elif line == "}  // namespace":
            unnamed = False
        elif not line.startswith(("return", "if ", "for ", "while ", "else", "throw", "using ")):
            found = FUNCTION.match(line)
            if found:
                (own if unnamed else outer).add(found[1])
            found = unnamed and (TYPE.match(line) or CONSTANT.match(line))
            if found:
                own.add(found[1])
    return own - NOT_NAMES, outer


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    clashes = 0
    folders = collections.defaultdict(list)
    for folder in FOLDERS:
        for source in sorted((root / folder).rglob("*.cpp")):
            folders[source.parent].append(source)
    for folder, sources in sorted(folders.items()):
        users = collections.defaultdict(list)
        names = {source: names_of(source) for source in sources}
        for source, (own, _) in names.items():
            for name in own:
                users[name].append(source)
        for source, (own, outer) in names.items():
            for name in outer - own:
                if name in users:
                    users[name].append(source)
        for name, where in sorted(users.items()):
            if len(where) > 1:
                clashes += 1
                print(f"{folder}: {name} is several things, in", *(each.name for each in where))
    for folder in ("cms", "tools", "tests", "fuzz", "bench", "examples"):
        for source in sorted((root / folder).rglob("*")):
            if source.suffix in (".h", ".cpp"):
                for name in sorted(set(MEMBER.findall(STRING.sub("", source.read_text(encoding="utf-8"))))):
                    clashes += 1
                    print(f"{source}: a member is called likeThis_: {name}")
    return 1 if clashes else 0


if __name__ == "__main__":
    sys.exit(main())
