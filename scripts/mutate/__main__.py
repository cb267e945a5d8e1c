"""Changes one thing at a time in the rules that matter, and runs the tests that could know.

    python3 scripts/mutate [--rooms sync,audio] [--count 200] [--seed 1] [STEP...]

STEP is build, trace, run or report; without one, all four. Needs the plain build. Mutants are compiled into copies below
build/mutate and chosen by the environment, so that one build serves them all. build/mutate/results.jsonl keeps what was
found: the next call tries `count` of those that are not judged yet, and `run` goes on where it was cut off.
"""

import argparse
import hashlib
import json
import re
import sys
from collections import Counter
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

from building import HERE, OUT, ROOT, Build  # noqa: E402
from running import TRACED, judge, trace, traced  # noqa: E402
from sites import Mutant, Site, plain  # noqa: E402

ROOMS = "sync,audio,remux,parameters,movie,presentation,download,pipeline"
RESULTS = OUT / "results.jsonl"
BUILT = OUT / "build.json"
ROUNDS = (0.5, 1.5, 4, 20)  # seconds that a test may take


def tell(text):
    print(text, file=sys.stderr, flush=True)


def results():
    """The last result for each mutant. A kill may have left a half line."""
    found = {}
    for line in RESULTS.read_text().splitlines() if RESULTS.exists() else []:
        try:
            result = json.loads(line)
        except json.JSONDecodeError:
            continue
        found[result["key"]] = result
    return found


def built():
    """The programs and the mutants of the last build."""
    if not BUILT.exists():
        sys.exit("No build of mutants is complete: begin with the step build.")
    made = json.loads(BUILT.read_text())
    return made["programs"], [Mutant(**mutant) for mutant in made["mutants"]]


def note_open(mutants):
    """They are to be held against all tests."""
    with RESULTS.open("a") as file:
        for mutant in mutants:
            file.write(json.dumps({**vars(mutant), "status": "open", "killers": [], "asked": 0}) + "\n")


def equivalent():
    """(file, line, before, after) -> reason, of equivalent.txt."""
    named, place = {}, None
    for line in (HERE / "equivalent.txt").read_text().splitlines():
        if line.startswith("#") or not line.strip():
            continue
        if not line.startswith(" "):
            place = tuple(line.split(": ", 1))
            continue
        change, reason = line.strip().split("  # ", 1)
        before, after = change.split(" => ", 1)
        named[(*place, before, after)] = reason
    return named


def name_of(mutant):
    return mutant["file"], mutant["source"], mutant["before"], mutant["after"]


def planted(path):
    """Changes that somebody chose: a file, what stands there once ("2. x": the second x of several), and what is to
    stand there ("nothing": dropped)."""
    found = {}
    lines = [line for line in Path(path).read_text().splitlines() if line.strip() and not line.startswith("#")]
    if len(lines) % 3 != 0:
        sys.exit(f"{path}: three lines for each change")
    for file, before, after in zip(lines[::3], lines[1::3], lines[2::3]):
        number, before = re.fullmatch(r"(?:(\d)\. )?(.*)", before.strip()).groups()
        after = after.strip()
        text = (ROOT / file).read_text()
        places = [found.start() for found in re.finditer(re.escape(before), text)]
        if len(places) != 1 and not number or len(places) < int(number or 1):
            sys.exit(f"{file} holds {len(places)} times: {before}")
        at = places[int(number or 1) - 1]
        line = text.count("\n", 0, at)
        drops = after == "nothing"
        mutant = Mutant(file, line + 1, text.split("\n")[line].strip(), plain(before), after, "planted")
        mutant.key = hashlib.sha1(f"planted|{file}|{number or ''}{before}|{after}".encode()).hexdigest()[:16]
        start = len(text[:at].encode())
        site = Site(start, start + len(before.encode()), drops, [(mutant, "(void)0" if drops else after)])
        found.setdefault(str(ROOT / file), []).append(site)
    return found


def chosen(by_file, seed, count, known):
    """The sites with only those mutants that are tried now."""
    named = equivalent()
    mutants = [mutant for sites in by_file.values() for site in sites for mutant, _ in site.changes]
    mutants = [mutant for mutant in mutants if mutant.key not in known
               or known[mutant.key]["status"] == "open" and name_of(vars(mutant)) not in named]
    mutants.sort(key=lambda mutant: hashlib.sha1(f"{seed}|{mutant.key}".encode()).digest())
    keys = {mutant.key for mutant in mutants[:count]}
    return only(by_file, keys), len(mutants)


def only(by_file, keys):
    kept = {}
    for file, sites in by_file.items():
        for site in sites:
            site.changes = [(mutant, text) for mutant, text in site.changes if mutant.key in keys]
        sites = [site for site in sites if site.changes]
        if sites:
            kept[file] = sites
    return kept


def sample(options, made):
    """What is to be built: file -> sites."""
    known = results()
    if options.planted and not options.count:
        return planted(options.planted)
    tell(f"Looking through {options.rooms} ...")
    by_file = made.candidates(options.rooms.split(","))
    if options.survivors:
        named = equivalent()
        return only(by_file, {key for key, found in known.items()
                              if found["status"] in ("survived", "unreached") and name_of(found) not in named})
    by_file, left = chosen(by_file, options.seed, options.count, known)
    tell(f"{left} changes are left to try; {min(options.count, left)} now.")
    if options.planted:
        for file, sites in planted(options.planted).items():
            by_file.setdefault(file, []).extend(sites)
    return by_file


def build(options):
    made = Build(options.jobs)
    for old in (BUILT, TRACED):  # which tell of other numbers
        old.unlink(missing_ok=True)
    by_file = sample(options, made)
    mutants = [mutant for sites in by_file.values() for site in sites for mutant, _ in site.changes]
    for number, mutant in enumerate(mutants, 1):
        mutant.number = number
    tell(f"Building {len(mutants)} mutants in {len(by_file)} files ...")
    kept = made.compile_all(by_file)
    note_open(mutant for mutant in mutants if mutant.key in kept)
    with RESULTS.open("a") as file:
        for mutant in mutants:
            if mutant.key not in kept:
                file.write(json.dumps({**vars(mutant), "status": "uncompiled", "killers": [], "asked": 0}) + "\n")
    programs = made.link_all()
    mutants = [vars(mutant) for mutant in mutants if mutant.key in kept]
    BUILT.write_text(json.dumps({"programs": programs, "mutants": mutants}))
    tell(f"{len(mutants)} mutants are built, {len(made.uncompiled)} do not compile.")


def trace_all(options):
    programs, mutants = built()
    asked = options.tests.split(",") if options.tests else []
    tell("Running the tests once, unmutated ...")
    trace([program for program in programs if not asked or Path(program).name in asked], options.slowest, tell)
    known = results()  # other tests, or other times of them: who is not caught is asked about anew
    note_open(mutant for mutant in mutants if known.get(mutant.key, {}).get("status") != "caught")


def run(options):
    """Quick tests for all mutants first, since most are caught by one; then slower ones for those that are left."""
    _, mutants = built()
    if not TRACED.exists():
        sys.exit("The tests were not traced yet: begin with the step trace.")
    tests, _ = traced()
    mutants = [mutant for mutant in mutants if name_of(vars(mutant)) not in equivalent()]
    mutants.sort(key=lambda mutant: (mutant.kind != "planted", mutant.key))
    with RESULTS.open("a") as file:
        for limit in [limit for limit in ROUNDS if limit < options.slowest] + [options.slowest]:
            known = results()
            left = [mutant for mutant in mutants if known.get(mutant.key, {"status": "open"})["status"] == "open"]
            tell(f"{len(left)} mutants against tests of up to {limit} s ...")
            for mutant in left:
                result = known.get(mutant.key, {"asked": 0, "killers": []})
                result = ask(mutant, tests, result, limit, 2 if options.alone else 1)
                file.write(json.dumps(result) + "\n")
                file.flush()
                tell(f"{result['status']}: {mutant.file}:{mutant.line}: {mutant.before[:60]} => {mutant.after[:60]}")


def ask(mutant, tests, result, limit, enough):
    """The result of tests that were not asked yet and take no longer than the limit."""
    reaching = [test for test in tests if mutant.number in test.reaches]
    due = [test for test in reaching if result["asked"] < test.seconds <= limit]
    killers = result["killers"] + judge(mutant, due, enough - len(result["killers"]))
    is_over = len(killers) >= enough or all(test.seconds <= limit for test in reaching)
    status = "open" if not is_over else "caught" if killers else "survived" if reaching else "unreached"
    return {**vars(mutant), "status": status, "killers": killers, "asked": limit, "alone": len(killers) == 1 < enough}


def report():
    tests, unfit = traced()
    named = equivalent()
    found = [result for result in results().values()
             if result["status"] not in ("open", "uncompiled") or name_of(result) in named]
    rows = {}
    for result in found:
        room = "planted" if result["kind"] == "planted" else result["file"].split("/")[1]
        is_named = result["status"] != "caught" and name_of(result) in named
        rows.setdefault(room, Counter())["equivalent" if is_named else result["status"]] += 1
    print(f"{'room':14}{'tried':>8}{'caught':>8}{'equivalent':>12}{'survived':>10}{'unreached':>11}")
    rows["all"] = sum(rows.values(), Counter())
    for room, row in rows.items():
        print(f"{room:14}{sum(row.values()):8}{row['caught']:8}{row['equivalent']:12}{row['survived']:10}{row['unreached']:11}")
    left = [result for result in found if result["status"] != "caught" and name_of(result) not in named]
    left += [result for result in results().values()
             if result["kind"] == "planted" and result["status"] == "uncompiled"]
    for result in sorted(left, key=lambda result: (result["file"], result["line"])):
        print(f"{result['status']}: {result['file']}:{result['line']}: {result['before']} => {result['after']}")
    unasked = sum(result["status"] == "open" and name_of(result) not in named for result in results().values())
    print(f"{unasked} mutants were not held against all tests yet.")
    if unfit:
        print("Tests that were not asked: " + ", ".join(unfit))
    write_tally(found, tests)
    return 1 if left else 0


def write_tally(found, tests):
    """build/mutate/tests.txt: how many mutants each test catches, and how many it alone (known with --alone)."""
    caught = Counter(killer.split(" (")[0] for result in found for killer in result["killers"])
    alone = Counter(result["killers"][0].split(" (")[0] for result in found if result.get("alone"))
    every = {str(test) for test in tests}
    lines = [f"{alone[test]:6} {caught[test]:6}  {test}" for test in sorted(every | set(caught))]
    (OUT / "tests.txt").write_text("\n".join([" alone caught  test", *lines, ""]))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rooms", default=ROOMS)
    parser.add_argument("--count", type=int, default=200)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=2, help="compilers at a time")
    parser.add_argument("--slowest", type=float, default=ROUNDS[-1], help="seconds; slower tests are not asked")
    parser.add_argument("--tests", default="", help="only these programs: sync_tests,app_tests")
    parser.add_argument("--alone", action="store_true", help="go on to a second failure: which test alone catches it")
    parser.add_argument("--survivors", action="store_true", help="those that survived, instead of new ones")
    parser.add_argument("--planted", help="a file with changes of your own, beside the new ones")
    parser.add_argument("steps", nargs="*", default=["build", "trace", "run", "report"])
    options = parser.parse_args()
    OUT.mkdir(parents=True, exist_ok=True)
    for step in options.steps:
        if step == "build":
            build(options)
        elif step == "trace":
            trace_all(options)
        elif step == "run":
            run(options)
        elif step == "report":
            sys.exit(report())
        else:
            parser.error(f"there is no step {step}")


main()
