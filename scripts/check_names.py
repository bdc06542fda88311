#!/usr/bin/env python3
"""Fails where two sources of one folder give a name of their own to different things, and where a
member is not called likeThis_, or a local or field likeThis.

Builds that unite a folder's sources (ORVANTA_UNITE) show each source the unnamed namespaces of the
others: a function of the same name could be taken silently where its parameters fit better, and a
function's own constant would hide theirs, which clang refuses.
Usage: check_names.py [ROOT]
"""
import collections
import pathlib
import re
import sys

FOLDERS = ("cms", "fleet", "tools")
TESTS = "tests"  # of a folder and all below it one program is made, a few sources at a time
FUNCTION = re.compile(r"(?:\[\[.*?\]\] )?[A-Za-z_][\w:<>,*& ]*?[ *&](\w+)\(")
TYPE = re.compile(r"(?:struct|class|enum class|enum|using) (\w+)")
CONSTANT = re.compile(r"(?:constexpr|const|std::|static|thread_local).*?[ &*](\w+)(?:\[\w*\])?(?: =|\{|;)")
LOCAL_CONSTANT = re.compile(r"\s+(?:static )?(?:constexpr|const) .*?[ &*](k[A-Z]\w*)(?:\[\w*\])?(?: =|\{)")
MEMBER = re.compile(r"\b[a-z][a-z0-9]*(?:_[a-z0-9]+)+_\b")
# A local, a parameter or a field behind its type.
DECLARED = re.compile(
    r"(?:\b(?:auto|bool|int|char|double|unsigned|long|float|[A-Z]\w+|std::\w+|\w+_t)(?:<[^;()]*>)?"
    r"(?:\s*[&*]+\s*|\s+)(?:const\s+)?)([a-z][a-z0-9]*(?:_[a-z0-9]+)+)\s*(?=[=;,){\[:])"
)
COMMENT = re.compile(r"//.*")
STRING = re.compile(r'"(?:[^"\\]|\\.)*"')
NOT_NAMES = {"std", "nlohmann", "namespace", "PrintTo"}  # the last is overloaded


def names_of(source):
    """The names that the source's unnamed namespaces define, and those of functions outside them and
    of functions' constants."""
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
        found = LOCAL_CONSTANT.match(line)
        if found:
            outer.add(found[1])
    return own - NOT_NAMES, outer


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    clashes = 0
    folders = collections.defaultdict(list)
    for folder in FOLDERS:
        for source in sorted((root / folder).rglob("*.cpp")):
            folders[source.parent].append(source)
    for source in sorted((root / TESTS).rglob("*_test.cpp")):
        folders[root / TESTS / source.relative_to(root / TESTS).parts[0]].append(source)
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
                text = COMMENT.sub("", STRING.sub("", source.read_text(encoding="utf-8")))
                for name in sorted({*MEMBER.findall(text), *DECLARED.findall(text)}):
                    clashes += 1
                    print(f"{source}: a local or field is called likeThis, a member likeThis_: {name}")
    return 1 if clashes else 0


if __name__ == "__main__":
    sys.exit(main())
