"""Runs tests against mutants: only those that reach the mutant, quickest first."""

import json
import os
import resource
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

from building import OUT, PLAIN

TRACED = OUT / "trace.json"
TRACE_SIZE = 1 << 20  # as mostMutants in mutant.cpp
MOST_MEMORY = 6 << 30
MOST_FILE = 8 << 30
# The long sweeps as the sanitizers run them; a test that takes longer than this is said not to have been asked.
STRIDES = {"TARN_KILL_STRIDE": "12", "TARN_CORPUS_STRIDE": "8", "TARN_CUT_STRIDE": "250"}


class Test:
    def __init__(self, program, name):
        self.program, self.name = program, name
        self.seconds = 0.0
        self.reaches = set()  # numbers of mutants

    def __str__(self):
        return f"{Path(self.program).name}:{self.name}"


def bounded():
    resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (MOST_FILE, MOST_FILE))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    os.nice(10)


def run(test, limit, **variables):
    """Whether the test passes, and its seconds; None when it takes longer than the limit."""
    place = tempfile.mkdtemp(prefix="mutant-")
    environment = {**os.environ, **STRIDES, **variables, "TMPDIR": place}
    started = time.monotonic()
    child = subprocess.Popen([str(OUT / test.program), f"--gtest_filter={test.name}", "--gtest_brief=1"],
                             cwd=PLAIN / Path(test.program).parent, env=environment, stdin=subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
                             preexec_fn=bounded)
    try:
        passed = child.wait(timeout=limit) == 0
    except subprocess.TimeoutExpired:
        passed = None
    finally:
        try:
            os.killpg(child.pid, signal.SIGKILL)  # and whatever it has started and left behind
        except ProcessLookupError:
            pass
        child.wait()
        shutil.rmtree(place, ignore_errors=True)
    return passed, time.monotonic() - started


def tests_of(program):
    listed = subprocess.run([str(OUT / program), "--gtest_list_tests"], check=True, text=True, stdout=subprocess.PIPE).stdout
    suite = ""
    for line in listed.splitlines():
        name = line.split("#")[0].strip()
        if not line.startswith(" "):
            suite = name if name.endswith(".") else suite
        elif "DISABLED_" not in suite + name:
            yield Test(program, suite + name)


def trace(programs, slowest, tell):
    """Each test once, unmutated: how long it takes and what it reaches. Those that fail here cannot judge. What earlier
    calls found of other programs of this build stays."""
    tests, unfit = traced()
    tests = [test for test in tests if test.program not in programs]
    unfit = [line for line in unfit if not any(line.startswith(Path(program).name + ":") for program in programs)]
    bitmap = OUT / "trace"
    for program in programs:
        began = time.monotonic()
        some = list(tests_of(program))
        for test in some:
            bitmap.write_bytes(b"")
            os.truncate(bitmap, TRACE_SIZE)
            passed, test.seconds = run(test, 300, TARN_MUTANT_TRACE=str(bitmap))
            if not passed:
                unfit.append(f"{test} (fails here unmutated)")
            elif test.seconds > slowest:
                unfit.append(f"{test} ({test.seconds:.1f} s)")
            else:
                reached = bitmap.read_bytes()
                test.reaches = {at for at in range(reached.rfind(1) + 1) if reached[at]}
                tests.append(test)
        tell(f"  {Path(program).name}: {len(some)} tests in {time.monotonic() - began:.0f} s")
    kept = [{**vars(test), "reaches": sorted(test.reaches)} for test in tests]
    TRACED.write_text(json.dumps({"tests": kept, "unfit": unfit}))


def traced():
    """What trace() has found of this build."""
    if not TRACED.exists():
        return [], []
    kept, tests = json.loads(TRACED.read_text()), []
    for found in kept["tests"]:
        test = Test(found["program"], found["name"])
        test.seconds, test.reaches = found["seconds"], set(found["reaches"])
        tests.append(test)
    return tests, kept["unfit"]


def judge(mutant, tests, enough):
    """Runs these tests, quickest first, until `enough` of them have failed: which did."""
    killers = []
    for test in sorted(tests, key=lambda test: test.seconds):
        if len(killers) >= enough:
            break
        if (how := failure(test, mutant)) is not None:
            killers.append(str(test) + how)
    return killers


def failure(test, mutant):
    """What is to be said of the mutant's failure in the test; None if the test passes, or fails now without the mutant
    too (a full disk, a busy machine). A failure counts when it comes twice, a timeout at once."""
    limit = test.seconds * 5 + 10
    passed, _ = run(test, limit, TARN_MUTANT=str(mutant.number))
    if passed or not run(test, limit)[0]:
        return None
    if passed is False:
        passed, _ = run(test, limit, TARN_MUTANT=str(mutant.number))
    return None if passed else " (timeout)" if passed is None else ""
