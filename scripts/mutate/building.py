"""Builds the programs with the mutants in them: mutated copies of the sources are compiled by the plain build's commands,
and linked with the rest of the plain build. All is kept below build/mutate."""

import json
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from sites import find_sites, place_of

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
PLAIN = ROOT / "build" / "release"
OUT = ROOT / "build" / "mutate"
MOST_ROUNDS = 12
TRUTHS = ("condition", "branch", "return")  # kinds of mutants whose site is true or false


class Commands:
    """The plain build's commands."""

    def __init__(self):
        entries = json.loads((PLAIN / "compile_commands.json").read_text())
        self.compile = {entry["file"]: shlex.split(entry["command"]) for entry in entries}
        lines = subprocess.run(["ninja", "-t", "commands", "tests/all", "tarn"], cwd=PLAIN, check=True, text=True,
                               stdout=subprocess.PIPE).stdout.splitlines()
        self.archives, self.programs = {}, {}
        for line in lines:
            for part in line.split(" && "):
                words = part.split()
                if words[1:2] == ["qc"]:
                    self.archives[words[2]] = words
                elif line.startswith(": && ") and "-o" in words and "-shared" not in words and "-c" not in words:
                    self.programs[words[words.index("-o") + 1]] = shlex.split(part)

    def object_of(self, source):
        words = self.compile[source]
        return words[words.index("-o") + 1]

    def arguments(self, source):
        """What the compiler is told, without the files."""
        words = [word for word in self.compile[source] if word != source]
        at = words.index("-o")
        del words[at:at + 2]
        first = next(i for i, word in enumerate(words) if word.endswith("++"))
        return [word for word in words[first + 1:] if word != "-c"]


# --- the text of a mutated file ---

def nested(sites):
    """Sites with those within them; those that overlap another in part are left out."""
    tree, open_sites = [], []
    for site in sorted(sites, key=lambda s: (s.start, -s.end, not s.drops)):
        while open_sites and open_sites[-1][0].end <= site.start:
            open_sites.pop()
        if open_sites and site.end > open_sites[-1][0].end:
            continue
        node = (site, [])
        (open_sites[-1][1] if open_sites else tree).append(node)
        open_sites.append(node)
    return tree


def render(text, start, end, nodes, places, offset):
    """text[start:end] with the mutants; `places` gets (from, to, mutants) in the new text, outer ranges first."""
    out = b""
    at = start
    for site, within in nodes:
        out += text[at:site.start]
        begin = offset + len(out)
        place = [begin, begin, [mutant for mutant, _ in site.changes]]
        places.append(place)
        head = b"(" + b"".join(f"tarn_mutant({mutant.number}) ? ({changed}) : ".encode()
                               for mutant, changed in site.changes)
        is_truth = any(mutant.kind in TRUTHS for mutant, _ in site.changes)
        head += b"(void)(" if site.drops else b"static_cast<bool>(" if is_truth else b"("
        body = render(text, site.start, site.end, within, places, begin + len(head))
        out += head + body + b"))"
        place[1] = offset + len(out)
        at = site.end
    return out + text[at:end]


def blamed(complaint, file, text, places):
    """The mutants that the compiler's complaint is about."""
    starts = [0]
    for line in text.split(b"\n"):
        starts.append(starts[-1] + len(line) + 1)
    name = re.escape(str(file.relative_to(OUT)))  # the compiler may be told of it by another way
    found = re.findall(name + r":(\d+):(\d+): (?:fatal )?error", complaint)
    found = found or re.findall(name + r":(\d+):(\d+):", complaint)
    guilty = []
    for line, column in found:
        at = starts[int(line) - 1] + int(column) - 1
        around = [place for place in places if place[0] <= at < place[1]]
        if not around:
            first, last = starts[int(line) - 1], starts[int(line)]
            around = [place for place in places if first <= place[0] < last]
        if around:
            guilty += min(around, key=lambda place: place[1] - place[0])[2]
    return {mutant.key for mutant in guilty}


# --- the build ---

class Build:
    def __init__(self, jobs):
        self.commands = Commands()
        self.jobs = jobs
        self.objects = {}  # of the plain build -> of this one
        self.uncompiled = set()

    def candidates(self, rooms):
        """All sites of these rooms, by file."""
        files = sorted(str(path) for room in rooms for path in (ROOT / "src" / room).rglob("*.cpp"))
        files = [file for file in files if file in self.commands.compile]

        def look(file):
            name = str(Path(file).relative_to(ROOT))
            code = ("import sys, json; sys.path.insert(0, sys.argv[1]); from sites import find_sites; "
                    "find_sites(*sys.argv[2:4], json.loads(sys.argv[4]), sys.argv[5])")
            arguments = self.commands.arguments(file)
            if not place_of(file, name, OUT / "sites").exists():  # in a process of its own, beside the others
                subprocess.run([sys.executable, "-c", code, str(HERE), file, name, json.dumps(arguments),
                                str(OUT / "sites")], check=True)
            return file, find_sites(file, name, arguments, OUT / "sites")

        with ThreadPoolExecutor(self.jobs) as pool:
            return dict(pool.map(look, files))

    def compile_file(self, file, sites):
        """Compiles the file with its mutants, without those that the compiler does not take."""
        text = Path(file).read_bytes()
        copy = OUT / Path(file).relative_to(ROOT)
        target = OUT / "objects" / self.commands.object_of(file)
        for path in (copy, target):
            path.parent.mkdir(parents=True, exist_ok=True)
        dropped = set()
        for _ in range(MOST_ROUNDS):
            for site in sites:
                site.changes = [(mutant, changed) for mutant, changed in site.changes if mutant.key not in dropped]
            places = []
            mutated = render(text, 0, len(text), nested([site for site in sites if site.changes]), places, 0)
            copy.write_bytes(mutated)
            done = self.compile(file, copy, target)
            if done.returncode == 0:
                break
            guilty = blamed(done.stderr, copy, mutated, places)
            if not guilty:
                guilty = {mutant.key for site in sites for mutant, _ in site.changes}
                if not guilty:
                    sys.exit(f"{file} does not compile:\n{done.stderr[:2000]}")
            dropped |= guilty
        else:
            sys.exit(f"{file} does not compile after {MOST_ROUNDS} rounds:\n{done.stderr[:2000]}")
        kept = {mutant.key for place in places for mutant in place[2]}
        self.objects[self.commands.object_of(file)] = str(target)
        return dropped, kept

    def compile(self, file, copy, target, replaced=()):
        words = [word.replace("-O2", "-O1").replace("-g1", "-g0") for word in self.commands.arguments(file)]
        for old, new in replaced:
            words = [word.replace(old, new) for word in words]
        ccache = ["ccache"] if subprocess.run(["which", "ccache"], stdout=subprocess.DEVNULL).returncode == 0 else []
        return subprocess.run([*ccache, "c++", *words, "-w", "-Wno-narrowing", "-fdiagnostics-color=never", "-fmax-errors=50",
                               "-include", str(HERE / "mutant.h"), "-c", str(copy), "-o", str(target)],
                              cwd=PLAIN, text=True, stderr=subprocess.PIPE, check=False)

    def compile_all(self, by_file):
        """by_file: file -> sites to be compiled in. Returns the keys of mutants that are in."""
        kept = set()
        with ThreadPoolExecutor(self.jobs) as pool:
            for dropped, has in pool.map(lambda item: self.compile_file(*item), by_file.items()):
                self.uncompiled |= dropped
                kept |= has
        return kept

    def redirect(self):
        """Test sources that name a program of the plain build name ours."""
        programs = {str(PLAIN / program): str(OUT / program) for program in self.commands.programs}
        for file, words in self.commands.compile.items():
            for word in words:
                named = re.match(r'-D(\w+_BINARY)="?(.*?)"?$', word.replace('\\"', '"'))
                if not named or named[2].strip('"') not in programs or named[1] not in Path(file).read_text():
                    continue
                old = named[2].strip('"')
                target = OUT / "objects" / self.commands.object_of(file)
                target.parent.mkdir(parents=True, exist_ok=True)
                done = self.compile(file, file, target, [(old, programs[old])])
                if done.returncode != 0:
                    sys.exit(done.stderr[:2000])
                self.objects[self.commands.object_of(file)] = str(target)

    def link_all(self):
        self.redirect()
        helper = OUT / "objects" / "mutant.o"
        subprocess.run(["c++", "-O1", "-c", str(HERE / "mutant.cpp"), "-o", str(helper)], check=True)
        archives = {}
        for name, words in self.commands.archives.items():
            if not any(word in self.objects for word in words):
                continue
            archives[name] = str(OUT / "archives" / Path(name).name)
            Path(archives[name]).parent.mkdir(parents=True, exist_ok=True)
            Path(archives[name]).unlink(missing_ok=True)
            members = [self.objects.get(word, word) for word in words[3:]]
            subprocess.run([words[0], "qc", archives[name], *members], cwd=PLAIN, check=True)

        def link(item):
            program, words = item
            target = OUT / program
            target.parent.mkdir(parents=True, exist_ok=True)
            words = [archives.get(word, self.objects.get(word, word)) for word in words]
            words[words.index("-o") + 1] = str(target)
            subprocess.run([*words, str(helper)], cwd=PLAIN, check=True)

        with ThreadPoolExecutor(self.jobs) as pool:
            list(pool.map(link, self.commands.programs.items()))
        return [program for program in self.commands.programs if Path(program).name.endswith("_tests")]
