#!/usr/bin/env python3
"""Mutation testing for quarry: applies each fault of mutants.txt to a scratch copy of the tree,
rebuilds it incrementally and runs the test suite, reporting which faults the suite kills.

The working tree is never modified: tracked files are copied to a scratch directory (default
/tmp/quarry-mutate) that keeps its own build, so runs are incremental and the repository stays
free to edit meanwhile. The scratch copy is restored after every mutant, also on Ctrl-C.
See tools/mutate/README.md.
"""
import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.abspath(os.path.join(HERE, "..", ".."))


def parse_mutants(path):
    mutants, current = [], None
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.startswith("#"):
                continue
            if line.startswith("@ "):
                file, _, reason = line[2:].partition("|")
                current = {"id": len(mutants) + 1, "file": file.strip(), "reason": reason.strip(),
                           "line": number}
                mutants.append(current)
            elif line.startswith("- ") and current is not None and "old" not in current:
                current["old"] = line[2:].strip()
            elif line.startswith("+ ") and current is not None and "new" not in current:
                current["new"] = line[2:].strip()
            else:
                sys.exit(f"{path}:{number}: cannot parse: {line}")
    for m in mutants:
        if "old" not in m or "new" not in m or m["old"] == m["new"]:
            sys.exit(f"{path}:{m['line']}: mutant {m['id']} needs distinct - and + lines")
    return mutants


def parse_ids(text, count):
    ids = set()
    for part in text.split(","):
        first, _, last = part.partition("-")
        ids.update(range(int(first), int(last or first) + 1))
    return sorted(i for i in ids if 1 <= i <= count)


def sync_tree(work):
    """Copies the tracked files of the repository (as they are on disk) into work/src."""
    files = subprocess.run(["git", "ls-files", "-z"], cwd=REPO, check=True,
                           capture_output=True).stdout.decode().split("\0")
    dst_root = os.path.join(work, "src")
    for rel in filter(None, files):
        src, dst = os.path.join(REPO, rel), os.path.join(dst_root, rel)
        if not os.path.isfile(src) or os.path.islink(src):
            continue
        with open(src, "rb") as f:
            data = f.read()
        if os.path.exists(dst):
            with open(dst, "rb") as f:
                if f.read() == data:
                    continue  # unchanged: keep its time stamp so the build stays incremental
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        with open(dst, "wb") as f:
            f.write(data)
    return dst_root


def run(cmd, log, timeout=None):
    with open(log, "ab") as out:
        out.write(("\n$ " + " ".join(cmd) + "\n").encode())
        out.flush()
        # A session of its own, so that an interruption also ends the tests it started.
        proc = subprocess.Popen(cmd, stdout=out, stderr=subprocess.STDOUT, start_new_session=True)
        try:
            return proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
            return 124
        except BaseException:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
            raise


def run_tests(cmd, build, log):
    """Runs ctest and returns the names of the tests that failed. ctest leaves the list of an
    earlier run in place when every test passes, so it is removed first and read only after a
    failing run."""
    path = os.path.join(build, "Testing", "Temporary", "LastTestsFailed.log")
    if os.path.exists(path):
        os.remove(path)
    if run(cmd, log) == 0:
        return set()
    if not os.path.exists(path):
        return {"(ctest failed without a test list, see the log)"}
    with open(path) as f:
        return {line.strip().split(":", 1)[1] for line in f if ":" in line}


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--only", help="mutant ids to run, e.g. 3 or 1,5,10-20")
    ap.add_argument("--mutants", default=os.path.join(HERE, "mutants.txt"))
    ap.add_argument("--work", default="/tmp/quarry-mutate", help="scratch directory")
    ap.add_argument("--jobs", default="2")
    ap.add_argument("--timeout", default="60", help="per-test timeout in seconds")
    ap.add_argument("--exclude", default="^(compile_fail|consumer|public_header_strict|abi_)",
                    help="ctest -E regex of tests not run per mutant (slow, no logic under test)")
    ap.add_argument("--results", help="append one tab-separated line per mutant to this file")
    ap.add_argument("--check", action="store_true", help="only check that every mutant applies")
    ap.add_argument("--first-failure", action="store_true",
                    help="stop the tests at the first failure: faster, names one killing test")
    args = ap.parse_args()

    mutants = parse_mutants(args.mutants)
    selected = parse_ids(args.only, len(mutants)) if args.only else [m["id"] for m in mutants]

    bad = []
    for m in mutants:
        with open(os.path.join(REPO, m["file"]), encoding="utf-8") as f:
            hits = f.read().count(m["old"])
        if hits != 1:
            bad.append(f"mutant {m['id']} ({m['file']}): original found {hits} times")
    if bad or args.check:
        print("\n".join(bad) or f"all {len(mutants)} mutants apply")
        return 1 if bad else 0

    os.makedirs(args.work, exist_ok=True)
    src = sync_tree(args.work)
    build = os.path.join(args.work, "build")
    log = os.path.join(args.work, "mutate.log")
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        if run(["cmake", "-S", src, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                "-DCMAKE_C_COMPILER_LAUNCHER=ccache", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache",
                "-DQUARRY_BUILD_BENCH=OFF"], log) != 0:
            sys.exit(f"configure failed, see {log}")
    build_cmd = ["nice", "-n", "19", "cmake", "--build", build, "-j", args.jobs]
    test_cmd = ["nice", "-n", "19", "ctest", "--test-dir", build, "-j", args.jobs,
                "--timeout", args.timeout, "-E", args.exclude]
    if args.first_failure:
        test_cmd.append("--stop-on-failure")

    # The unmutated tree must build; tests that already fail on it cannot kill anything.
    if run(build_cmd, log) != 0:
        sys.exit(f"the unmutated tree does not build, see {log}")
    broken = run_tests([c for c in test_cmd if c != "--stop-on-failure"], build, log)
    if broken:
        print(f"ignoring {len(broken)} tests failing without any mutant: " + ", ".join(sorted(broken)))
        if args.first_failure:  # they must not end the run before a real failure
            names = "|".join("^" + re.escape(name) + "$" for name in sorted(broken))
            test_cmd[test_cmd.index("-E") + 1] = args.exclude + "|" + names

    # Restore on every exit path: a signal turns into an exception that unwinds through finally.
    def interrupted(signum, frame):
        raise KeyboardInterrupt
    signal.signal(signal.SIGTERM, interrupted)

    results = []
    try:
        for mid in selected:
            m = mutants[mid - 1]
            path = os.path.join(src, m["file"])
            with open(path, encoding="utf-8") as f:
                original = f.read()
            started = time.time()
            try:
                with open(path, "w", encoding="utf-8") as f:
                    f.write(original.replace(m["old"], m["new"], 1))
                if run(build_cmd, log) != 0:
                    status, killers = "build-failed", set()
                else:
                    killers = run_tests(test_cmd, build, log) - broken
                    status = "killed" if killers else "survived"
            finally:
                with open(path, "w", encoding="utf-8") as f:
                    f.write(original)
            results.append((m, status, len(killers)))
            line = (f"{mid}\t{status}\t{len(killers)}\t{m['file']}\t{m['reason']}\t" +
                    " ".join(sorted(killers)))
            print(f"{line}\t({time.time() - started:.0f}s)", flush=True)
            if args.results:
                with open(args.results, "a") as out:
                    out.write(line + "\n")
    except KeyboardInterrupt:
        print("interrupted; the scratch tree is restored", file=sys.stderr)
    finally:
        run(build_cmd, log)  # leave the scratch build matching the unmutated sources

    print("\n  id  status        tests  file / reason")
    for m, status, kills in results:
        print(f"{m['id']:4}  {status:12}  {kills:5}  {m['file']}: {m['reason']}")
    killed = sum(1 for _, s, _ in results if s == "killed")
    survived = sum(1 for _, s, _ in results if s == "survived")
    failed = sum(1 for _, s, _ in results if s == "build-failed")
    score = 100.0 * killed / (killed + survived) if killed + survived else 0.0
    print(f"\nscore: {killed} killed / {killed + survived} built = {score:.1f}%"
          f" ({survived} survived, {failed} failed to build, {len(results)} run)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
