#!/usr/bin/env python3
"""Mutation sampler: how many seeded faults in the product's sources does the native test suite catch?

A tool for people, not part of the test command (a run takes about an hour on two cores).

    scripts/mutants.py                      # 60 mutants, seed 1, over src/ports src/connections src/settings src/components
    scripts/mutants.py --list               # only print the selection
    scripts/mutants.py --mutant 3fa2c1d0    # run one mutant again (by id or by #number) and say what killed it
    scripts/mutants.py --diff 3fa2c1d0      # print one mutant as a patch
    nohup scripts/mutants.py > mutants.log 2>&1 &   # the usual way: in the background, then read mutants.log

How it works. The committed tree (--rev, default HEAD) of the repository is exported with `git archive` into a
scratch folder of its own (--scratch, default /tmp/orlenda-mutants): <scratch>/tree is the copy, <scratch>/build
its native build (cmake --preset native), so the checkout is never touched and other people's files never matter.
Every .cpp and .h in the folders (tests and test support excepted) is read; comments, string and character
literals, preprocessor lines, static_assert and lines that only trace (Log, LogData, LogDataFormat calls, the
`if` that only guards one, a constant only they use) are left out, and every mutation site found in what is left is listed:

    flip-cmp       == != < <= > >= replaced by the opposite comparison
    boundary       < <= > >= replaced by the same comparison with or without equality
    const          an integer constant plus or minus one
    and-or         && and || swapped
    negate         a ! dropped
    drop-check     the condition of an `if` that calls something made false, the call still made: if ((c) && false)
    return-early   `return;` (or `return {};` in a function with a value) put before a statement of a function

Each site gets a key, the SHA-256 of the seed, the file's path, the operator, the text and column of the line
and the replacement (not the line number: a site keeps its key when lines above it move), and is named by the
key's first 8 hex digits. The sample takes the kinds in turn, each kind's smallest keys first (round r takes
every kind's site of r-th smallest key), so that every kind is represented however many sites it has; the
selection depends only on the seed and the files' contents, and two runs on the same tree pick the same mutants.
Each mutant is applied alone to the copy, the build is brought up to date (ninja, incremental; mutants run in
file order so one file's mutants share rebuilds), the suite runs (ctest -j2 --stop-on-failure, with a time limit
for each run of the suite), and the file is restored before the next mutant. Outcomes:

    killed      a test failed or crashed and did again when run alone, or the suite passed its time limit
                (or a test binary crashed while the build listed its tests)
    survived    the whole suite passed: no test notices this fault. A test that fails and then passes alone
                (timing on a loaded machine) does not kill: it is noted, and the suite runs once more
    discarded   the mutant does not build; listed, and not counted in the score

Score = killed / (killed + survived). Before the mutants the unmutated copy is built and its suite run once
(per commit); it must pass, or the run stops and names the failing tests (--exclude leaves tests out).

Resuming and interrupting: every outcome is appended to <scratch>/results.jsonl, and a rerun with the same
commit, seed, tests and time limit only runs the mutants not yet done (--fresh runs them all again). Ctrl+C or
SIGTERM restores the mutated file; a run killed harder leaves it behind in the copy, and the next start puts
every file of the copy back to the commit's content anyway. One run at a time per scratch folder.

Choosing tests: by default every test of the native suite runs for every mutant. --folder-tests runs only the
tests whose binaries are built in the mutated file's folder (all tests when it has none), and --tests-regex
passes a ctest -R filter. Both make a run several times faster, but a mutant that only a test elsewhere would
catch (the integration tests under tests/, the tools' and the other folders' tests that use this code) then
survives: such a score is a lower bound, comparable only with runs that filter the same way.
"""
import argparse
import fcntl
import json
import math
import os
import re
import shutil
import signal
import subprocess
import sys
import time

sys.dont_write_bytecode = True  # no __pycache__ beside the scripts in the checkout
from mutants_sites import DEFAULT_FOLDERS, all_mutants, read_text, sample


# ---------------------------------------------------------------------------------------------------------------
# The copy, the build and the suite


class Interrupted(Exception):
    pass


def on_signal(signum, frame):
    raise Interrupted("signal %d" % signum)


def run(cmd, cwd, log_path, limit=None):
    """Runs cmd in a process group of its own, output to log_path. (exit code or None on time-out, seconds)."""
    began = time.monotonic()
    with open(log_path, "ab") as log:
        log.write(("$ %s\n" % " ".join(cmd)).encode())
        log.flush()
        proc = subprocess.Popen(cmd, cwd=cwd, stdout=log, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                start_new_session=True)
        try:
            code = proc.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            code = None
        finally:
            if proc.poll() is None or code is None:
                try:
                    os.killpg(proc.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
                proc.wait()
    return code, time.monotonic() - began


def git(repo, *args):
    return subprocess.run(["git", "-C", repo] + list(args), check=True, stdout=subprocess.PIPE).stdout


def sync_copy(repo, rev, scratch):
    """Makes <scratch>/tree hold exactly the files of rev. Only files that differ are written (with a new time,
    so that ninja rebuilds what they feed), so the build stays incremental. Returns the commit."""
    commit = git(repo, "rev-parse", rev + "^{commit}").decode().strip()
    tree, export = os.path.join(scratch, "tree"), os.path.join(scratch, "export")
    shutil.rmtree(export, ignore_errors=True)
    os.makedirs(export)
    archive = subprocess.Popen(["git", "-C", repo, "archive", commit], stdout=subprocess.PIPE)
    subprocess.run(["tar", "-x", "-C", export], stdin=archive.stdout, check=True)
    if archive.wait() != 0:
        sys.exit("git archive %s failed" % commit)
    wanted = set()
    for root, _, names in os.walk(export):
        for name in names:
            rel = os.path.relpath(os.path.join(root, name), export)
            wanted.add(rel)
            src, dst = os.path.join(export, rel), os.path.join(tree, rel)
            if os.path.islink(src) or os.path.islink(dst):
                if not (os.path.islink(dst) and os.readlink(dst) == os.readlink(src)):
                    os.makedirs(os.path.dirname(dst), exist_ok=True)
                    if os.path.lexists(dst):
                        os.remove(dst)
                    os.symlink(os.readlink(src), dst)
                continue
            with open(src, "rb") as f:
                content = f.read()
            if os.path.isfile(dst):
                with open(dst, "rb") as f:
                    if f.read() == content:
                        continue
            os.makedirs(os.path.dirname(dst), exist_ok=True)
            with open(dst, "wb") as f:
                f.write(content)
            shutil.copymode(src, dst)
    for root, _, names in os.walk(tree):
        for name in names:
            if os.path.relpath(os.path.join(root, name), tree) not in wanted:
                os.remove(os.path.join(root, name))
    shutil.rmtree(export)
    return commit


def build(ctx, log):
    """(ok, why): brings the copy's native build up to date."""
    if not os.path.exists(os.path.join(ctx.build, "CMakeCache.txt")):
        code, _ = run(["cmake", "--preset", "native", "-B", ctx.build], ctx.tree, log, 1800)
        if code != 0:
            return False, "configure failed"
    code, _ = run(["cmake", "--build", ctx.build, "-j", str(ctx.jobs)], ctx.tree, log, 3600)
    if code == 0:
        return True, ""
    output = read_text(log)
    if "Error running test executable" in output:  # gtest_discover_tests ran the binary and it failed
        return False, "test binary failed while its tests were listed"
    return False, "build timed out" if code is None else "does not build"


def folder_tests(ctx, folder):
    """A ctest -R pattern that selects the tests whose binaries are built in folder, or None."""
    out = subprocess.run(["ctest", "--test-dir", ctx.build, "--show-only=json-v1"], stdout=subprocess.PIPE,
                         stderr=subprocess.DEVNULL).stdout
    target = os.path.join(ctx.build, folder) + os.sep
    names = [t["name"] for t in json.loads(out or b"{}").get("tests", [])
             if t.get("command") and os.path.realpath(t["command"][0]).startswith(target)]
    return "^(%s)$" % "|".join(re.sub(r"([.+*?()\[\]^$|\\])", r"\\\1", n) for n in names) if names else None


def failed_tests(log):
    """The tests that the last ctest of log saw fail, and how: "Name (Failed)"."""
    output = read_text(log).split("\n$ ctest")[-1]
    return ["%s (%s)" % seen for seen in re.findall(r"Test\s+#\d+: (\S+).*?\*\*\*(\w[\w: ]*?)\s+[\d.]+ sec", output)]


def run_suite(ctx, log, limit, regex=None, confirm=True):
    """('killed' | 'survived', why, seconds): runs the suite on the copy's build. With confirm, it stops at the
    first failure, and the failure counts only when the failed tests fail again run alone: tests that depend on
    timing can fail once on a loaded machine. A failure that does not repeat gives the suite one more run."""
    cmd = ["ctest", "--test-dir", ctx.build, "-j", str(ctx.jobs), "--timeout", str(limit)]
    cmd += ["-R", regex] if regex else []
    cmd += ["-E", ctx.exclude] if ctx.exclude else []
    notes, seconds = [], 0.0
    for _ in range(2 if confirm else 1):
        code, spent = run(cmd + (["--stop-on-failure"] if confirm else []), ctx.tree, log, limit)
        seconds += spent
        failed = failed_tests(log)
        if code is None:
            return "killed", ", ".join(failed[:3] + ["then the suite passed its %d s limit" % limit]), seconds
        if code == 0:
            return "survived", "; ".join(notes), seconds
        if not confirm:
            return "killed", ", ".join(failed[:4]) or "ctest exit %d" % code, seconds
        again, spent = run(["ctest", "--test-dir", ctx.build, "--rerun-failed", "--timeout", str(limit)], ctx.tree,
                           log, limit)
        seconds += spent
        if again != 0:
            alone = ", ".join(failed_tests(log)[:4]) or "ctest exit %s" % again
            return "killed", alone + (" (again alone)" if again is not None else " (passed the limit alone)"), seconds
        notes.append("%s failed, then passed alone" % ", ".join(failed[:3]))
    return "survived", "; ".join(notes), seconds


def write_checked(ctx, path, content):
    full = os.path.realpath(os.path.join(ctx.tree, path))
    if not full.startswith(os.path.realpath(ctx.tree) + os.sep):
        raise RuntimeError("refusing to write outside the copy: " + full)
    with open(full, "wb") as f:
        f.write(content.encode("utf-8", "surrogateescape"))


def try_mutant(ctx, m, limit):
    """Applies m to the copy, builds, runs the suite, restores the file. Returns the result record."""
    original = read_text(os.path.join(ctx.tree, m.path))
    mutated = original[:m.start] + m.new + original[m.end:]
    log = os.path.join(ctx.scratch, "logs", m.id + ".log")
    if os.path.exists(log):
        os.remove(log)
    began = time.monotonic()
    try:
        write_checked(ctx, m.path, mutated)
        built, why = build(ctx, log)
        if built:
            regex = ctx.regex
            if ctx.folder_tests:
                regex = folder_tests(ctx, os.path.dirname(m.path))
            outcome, why, _ = run_suite(ctx, log, limit, regex)
        else:
            outcome = "killed" if why.startswith("test binary") else "discarded"
    finally:
        blocked = signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT, signal.SIGTERM})
        write_checked(ctx, m.path, original)
        signal.pthread_sigmask(signal.SIG_SETMASK, blocked)
    return {"outcome": outcome, "why": why, "seconds": round(time.monotonic() - began, 1)}


# ---------------------------------------------------------------------------------------------------------------
# The run


def parse_args():
    p = argparse.ArgumentParser(description="Mutation sampler: how many seeded faults does the native suite catch?",
                                epilog="See the comment at the top of this script.")
    p.add_argument("--seed", type=int, default=1, help="selects the mutants (default 1)")
    p.add_argument("--sample", type=int, default=60, help="how many mutants (default 60)")
    p.add_argument("--folders", nargs="+", default=DEFAULT_FOLDERS, metavar="DIR", help="where to mutate")
    p.add_argument("--timeout", type=int, default=0, metavar="SECONDS",
                   help="time limit of the suite per mutant (default: 3 x the unmutated suite's time, at least 120)")
    p.add_argument("--tests-regex", metavar="REGEX", help="run only the tests that match (ctest -R)")
    p.add_argument("--folder-tests", action="store_true", help="run only the tests built in the mutated folder")
    p.add_argument("--exclude", metavar="REGEX", help="leave these tests out (ctest -E)")
    p.add_argument("--mutant", metavar="ID", help="run only this mutant (its id or #number), even if done before")
    p.add_argument("--list", action="store_true", help="print the selection and stop")
    p.add_argument("--diff", metavar="ID", help="print this mutant as a patch and stop")
    p.add_argument("--fresh", action="store_true", help="run every mutant again, ignoring stored outcomes")
    p.add_argument("--scratch", default="/tmp/orlenda-mutants", help="copy, build and outcomes (default %(default)s)")
    p.add_argument("--repo", default=os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
    p.add_argument("--rev", default="HEAD", help="the commit to copy (default HEAD)")
    p.add_argument("--jobs", type=int, default=2, help="build and ctest jobs (default 2)")
    return p.parse_args()


def find_mutant(chosen, everything, wanted):
    if wanted.startswith("#") and wanted[1:].isdigit() and 0 < int(wanted[1:]) <= len(chosen):
        return chosen[int(wanted[1:]) - 1]
    found = [m for m in everything if m.id.startswith(wanted.lower())]
    if len(found) != 1:
        sys.exit("no single mutant matches %s (%d do)" % (wanted, len(found)))
    return found[0]


def print_diff(m):
    print("--- a/%s\n+++ b/%s\n@@ -%d,%d +%d,%d @@" % (m.path, m.path, m.line, len(m.before), m.line, len(m.after)))
    print("\n".join(["-" + t for t in m.before] + ["+" + t for t in m.after]))


def load_results(path):
    results = {}
    if os.path.exists(path):
        for line in open(path, encoding="utf-8"):
            try:
                r = json.loads(line)
                results[r["key"]] = r
            except (ValueError, KeyError):
                pass  # a line cut short by an interrupted run
    return results


def report(chosen, results, key_of, began):
    done = [(m, results[key_of(m)]) for m in chosen if key_of(m) in results]
    count = {o: sum(1 for _, r in done if r["outcome"] == o) for o in ("killed", "survived", "discarded")}
    scored = count["killed"] + count["survived"]
    print("\n=== score: %d killed of %d mutants that build (%.1f%%); %d survived, %d discarded (do not build)%s"
          % (count["killed"], scored, 100.0 * count["killed"] / scored if scored else 0, count["survived"],
             count["discarded"], "" if len(done) == len(chosen) else "; %d not run yet" % (len(chosen) - len(done))))
    print("=== time: %ds for this run; %ds of build and test over all %d outcomes"
          % (time.monotonic() - began, sum(r["seconds"] for _, r in done), len(done)))
    for title, outcome in (("survivors", "survived"), ("discarded (do not build)", "discarded")):
        rows = [(m, r) for m, r in done if r["outcome"] == outcome]
        if rows:
            print("\n%s:" % title)
        for m, r in sorted(rows, key=lambda mr: (mr[0].path, mr[0].line)):
            print("  #%-3d %s  %s" % (m.number, m.id, m.describe()))
            if outcome == "survived":
                print("\n".join(["        - " + t.strip() for t in m.before] + ["        + " + t.strip() for t in m.after]))


def main():
    args = parse_args()
    ctx = args
    ctx.scratch = os.path.realpath(args.scratch)
    repo = os.path.realpath(args.repo)
    if ctx.scratch == repo or ctx.scratch.startswith(repo + os.sep) or repo.startswith(ctx.scratch + os.sep):
        sys.exit("the scratch folder must be outside the repository: " + ctx.scratch)
    ctx.tree, ctx.build = os.path.join(ctx.scratch, "tree"), os.path.join(ctx.scratch, "build")
    ctx.regex = args.tests_regex
    os.makedirs(os.path.join(ctx.scratch, "logs"), exist_ok=True)
    lock = open(os.path.join(ctx.scratch, "lock"), "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        sys.exit("another run uses %s" % ctx.scratch)
    for sig in (signal.SIGTERM, signal.SIGINT):
        signal.signal(sig, on_signal)
    began = time.monotonic()
    commit = sync_copy(repo, args.rev, ctx.scratch)
    everything = all_mutants(ctx.tree, args.folders, args.seed)
    chosen = sample(everything, args.sample)
    if args.diff:
        return print_diff(find_mutant(chosen, everything, args.diff))
    print("mutants: commit %s, seed %d, %d of %d sites in %s" % (commit[:12], args.seed, len(chosen),
                                                                len(everything), " ".join(args.folders)))
    ops = sorted(set(m.op for m in everything))
    print("sites by kind: " + ", ".join("%s %d" % (o, sum(1 for m in everything if m.op == o)) for o in ops))
    print("selection (depends only on the seed and the files' contents):")
    for m in chosen:
        print("  #%-3d %s  %s" % (m.number, m.id, m.describe()))
    sys.stdout.flush()
    if args.list:
        return
    results_path = os.path.join(ctx.scratch, "results.jsonl")
    results = {} if args.fresh else load_results(results_path)
    tests = "R=%s E=%s folder=%s" % (ctx.regex, args.exclude, args.folder_tests)
    base_key = "baseline %s %s" % (commit, args.exclude)
    if base_key not in results:
        print("\nbuilding the unmutated copy and running its suite once...")
        sys.stdout.flush()
        log = os.path.join(ctx.scratch, "logs", "baseline.log")
        if os.path.exists(log):
            os.remove(log)
        built, why = build(ctx, log)
        if not built:
            sys.exit("the unmutated copy %s: see %s" % (why, log))
        outcome, why, seconds = run_suite(ctx, log, 1800, confirm=False)
        if outcome != "survived":
            sys.exit("the unmutated suite fails (%s); see %s, or leave those tests out with --exclude" % (why, log))
        results[base_key] = {"key": base_key, "outcome": "passed", "seconds": round(seconds, 1)}
        with open(results_path, "a", encoding="utf-8") as f:
            f.write(json.dumps(results[base_key]) + "\n")
    limit = args.timeout or max(120, int(math.ceil(3 * results[base_key]["seconds"])))
    print("unmutated suite: %.0f s; limit per mutant: %d s; tests: %s" % (results[base_key]["seconds"], limit,
                                                                      "all" if tests == "R=None E=None folder=False"
                                                                      else tests))

    def key_of(m):
        return "%s %s %s %d" % (commit, m.key, tests, limit)

    todo = [find_mutant(chosen, everything, args.mutant)] if args.mutant else [
        m for m in chosen if key_of(m) not in results]
    try:
        for done, m in enumerate(sorted(todo, key=lambda m: (m.path, m.line, m.col)), 1):
            print("[%d/%d] #%d %s %s ... " % (done, len(todo), m.number, m.id, m.describe()), end="")
            sys.stdout.flush()
            r = dict(try_mutant(ctx, m, limit), key=key_of(m), id=m.id, at="%s:%d" % (m.path, m.line), op=m.op)
            print("%s%s (%ds)" % (r["outcome"], ": " + r["why"] if r["why"] else "", r["seconds"]))
            sys.stdout.flush()
            results[r["key"]] = r
            with open(results_path, "a", encoding="utf-8") as f:
                f.write(json.dumps(r) + "\n")
    except Interrupted as e:
        print("\ninterrupted (%s): the copy is restored; the same command resumes" % e)
        report(chosen, results, key_of, began)
        return 130
    if args.mutant:
        print("log: %s" % os.path.join(ctx.scratch, "logs", todo[0].id + ".log"))
        return print_diff(todo[0])
    report(chosen, results, key_of, began)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Interrupted as e:
        sys.exit("interrupted (%s); the copy is restored, and the same command resumes" % e)
