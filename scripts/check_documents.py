#!/usr/bin/env python3
"""Holds the Markdown files of the tree against the tree. Prints what is wrong, one line each, and exits with 1 then.

- A link leads to a file or a heading that is there.
- A path, a class, a function or an option that is named in `code`, and a class in a drawing, is in the tree.
- CONTRIBUTING.md lists each part of ./check.
- The drawing of the floors in docs/architecture.md, and the table beside it, name each room of src/floors.txt on its
  floor, and no other.
"""

import re
import subprocess
import sys
from pathlib import Path

LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)|<img[^>]*src=\"([^\"]+)\"")
CODE = re.compile(r"`([^`\n]+)`")
NAME = re.compile(r"[A-Za-z_]\w*(?:(?:::|\.)~?\w+)+(?:\(\))?|[a-z_]\w*\(\)|[A-Za-z][a-z]+(?:[A-Z][A-Za-z]*)+(?:\(\))?")
OPTION = re.compile(r"(?<![\w-])--[a-z][a-z-]+")
ENDINGS = {".h", ".cpp", ".c", ".md", ".json", ".sh", ".py", ".txt", ".cmake", ".js", ".mjs", ".ts", ".in", ".gz"}
ROOM_OF_TABLE = re.compile(r"^\| (\d+) \| (`[^|]+`) \|", re.M)
# What documents quote and the tree does not have: what is made, paths of addresses, options of other programs.
FOREIGN = {"bridge/native.js", "docs/api/", "--signal", "--joblog", "--resume", "--shuf"}


def slug(heading):
    """The anchor that a heading gets."""
    return re.sub(r"[^\w\- ]", "", heading.replace("`", "").lower()).strip().replace(" ", "-")


class Tree:
    def __init__(self):
        listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                                capture_output=True, check=True).stdout
        self.files = [Path(name) for name in listed.decode().split("\0") if name and Path(name).is_file()]
        self.documents = [file for file in self.files if file.suffix == ".md"]
        self.folders = {parent for file in self.files for parent in file.parents}
        self.ways = {str(place) for place in [*self.files, *self.folders]}
        text = "\n".join(file.read_text(errors="ignore") for file in self.files
                         if file.suffix not in (".md", ".png") and file.name != "package-lock.json")
        self.words = set(re.findall(r"\w+", text)) | {file.stem for file in self.files}
        self.options = set(OPTION.findall(text)) | {"--" + name for name in re.findall(r'"(?:-\w,)?--([a-z-]+)', text)}

    def has(self, path, document):
        """Whether a path is there as it is written: seen from the top, from the document, or from a room."""
        path = str(Path(path))
        if "*" in path:
            return any(file.match(path) for file in self.files)
        near = str(document.parent / path)
        ends = tuple("/" + path + made for made in ("", ".in"))
        return path in self.ways or near in self.ways or any(way.endswith(ends) for way in self.ways)


def faults_of_links(tree, document, text):
    for match in LINK.finditer(text):
        target = match.group(1) or match.group(2)
        if re.match(r"[a-z]+:", target):
            continue
        path, _, anchor = target.partition("#")
        file = document if not path else Path(document.parent, path)
        if not file.exists():
            yield f"there is no {target}"
        elif anchor and file.suffix == ".md":
            headings = re.findall(r"^#+ (.*)$", re.sub(r"^```.*?^```", "", file.read_text(), flags=re.M | re.S), re.M)
            if anchor not in map(slug, headings):
                yield f"{path or document} has no heading #{anchor}"


def is_path(code):
    return re.fullmatch(r"[\w.*-]+(/[\w.*-]+)*/?", code) and ("/" in code or Path(code).suffix in ENDINGS)


def faults_of_code(tree, document, text):
    for code in CODE.findall(text):
        for option in OPTION.findall(code):
            if option not in tree.options | FOREIGN:
                yield f"there is no option {option}"
        top = code.split("/")[0]
        if is_path(code) and (Path(top).exists() or Path("src", top).exists() or Path(code).suffix in ENDINGS):
            if not tree.has(code, document) and top not in ("build", "dist", "..") and code not in FOREIGN:
                yield f"there is no {code}"
        elif NAME.fullmatch(code):
            for part in re.findall(r"\w+", code):
                if part not in tree.words:
                    yield f"nothing is called {code}"
                    break


def faults_of_drawings(tree, text):
    for drawing in re.findall(r"^```mermaid$(.*?)^```$", text, re.M | re.S):
        for label in re.findall(r'"([^"]*)"', drawing):
            for name in re.findall(r"\b[A-Z]\w*[a-z]\w*[A-Z]\w*", label):
                if name not in tree.words:
                    yield f"nothing is called {name}, which a drawing names"


def faults_of_parts(text):
    for parts in re.findall(r"^    ([a-z| ]+)\) ", Path("check").read_text(), re.M):
        for part in parts.split(" | "):
            if f"`./check {part}`" not in text:
                yield f"lacks `./check {part}`"


def faults_of_floors(document):
    floors = {}
    for line in Path("src/floors.txt").read_text().splitlines():
        if not line.startswith("#"):
            floor, room = line.split()
            floors[room] = floor
    drawn, told = {}, {}
    text = document.read_text()
    drawing = (text + "```mermaid").split("```mermaid", 1)[1].split("```", 1)[0]
    for floor, rooms in re.findall(r'subgraph \w+\["Floor (\d+)"\](.*?)\n\s*end', drawing, re.S):
        drawn |= {room: floor for room in re.findall(r'\["([a-z\d/]+)"\]', rooms)}
    for floor, rooms in ROOM_OF_TABLE.findall(text):
        told |= {room: floor for room in CODE.findall(rooms)}
    for what, named in ("drawing", drawn), ("table", told):
        for room in sorted(floors.keys() | named.keys()):
            if floors.get(room) != named.get(room):
                yield f"the {what} has {room} on floor {named.get(room)}, src/floors.txt on floor {floors.get(room)}"


def main():
    tree = Tree()
    faults = []
    for document in tree.documents:
        text = document.read_text()
        prose = re.sub(r"^```.*?^```", "", text, flags=re.M | re.S)
        found = [*faults_of_links(tree, document, prose), *faults_of_code(tree, document, prose),
                 *faults_of_drawings(tree, text)]
        if document.name == "architecture.md":
            found += faults_of_floors(document)
        if document.name == "CONTRIBUTING.md":
            found += faults_of_parts(text)
        faults += [f"{document}: {fault}" for fault in found]
    print("\n".join(faults) if faults else f"{len(tree.documents)} documents agree with the tree", file=sys.stderr)
    return bool(faults)


sys.exit(main())
