#!/usr/bin/env python3
"""kill-matrix.py WORK DRAW... : which tests catch which planted faults.

A DRAW is GLOB@SEED or GLOB@SEED@N (N faults, 60 by default), for example
'src/*.cc,src/*.h@11'. The faults are those ../shared/tools/mutate draws for the
same glob and seed (its candidates, its shuffle, and a fault that does not
compile dropped and another drawn), but every fault runs the whole suite
(`ctest -LE valgrind`), not up to the first failure, and the failing tests are
recorded. WORK receives a clone of this repository's committed HEAD and its
build. One line per fault on stdout:

    <area>@<seed> <n> <K|S> <file>:<line> <operator> | <failing tests>

The mutate tool is found at $KOVA_MUTATE, else ../shared/tools/mutate.

kill-matrix.py WORK --by-file LOG : the table of docs/testing.md from such
output: per test file (as WORK's build names each test's executable or
script), the faults of each area it catches and those no other file catches.
"""
import glob, importlib.machinery, importlib.util, os, random, re, subprocess, sys

root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
tool = os.environ.get("KOVA_MUTATE", os.path.join(root, "..", "shared", "tools", "mutate"))
loader = importlib.machinery.SourceFileLoader("mutate", tool)
mutate = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutate", loader))
loader.exec_module(mutate)

if len(sys.argv) < 3:
    sys.exit(__doc__)
work = os.path.abspath(sys.argv[1])
src, build = os.path.join(work, "src"), os.path.join(work, "build")

if sys.argv[2] == "--by-file":
    import collections, json
    tests = json.loads(subprocess.check_output(["ctest", "--show-only=json-v1"], cwd=build))["tests"]
    file_of = {t["name"]: "fuzz/" if t["name"].startswith("fuzz_replay") else os.path.basename(t["command"][0])
               for t in tests}
    caught = collections.defaultdict(set)
    for line in open(sys.argv[3]):
        if " | " in line:
            head, failed = line.rstrip("\n").split(" | ", 1)
            fault = tuple(head.split()[:2])
            for t in failed.split():
                caught[file_of.get(t, t)].add(fault)
    areas = ["src", "tools", "platform"]
    for f in sorted(caught, key=lambda f: -len(caught[f])):
        alone = caught[f] - set().union(*(v for g, v in caught.items() if g != f))
        per = [sum(a.startswith(x + "@") for a, _ in caught[f]) for x in areas]
        print(f"| `{f}` | " + " | ".join(map(str, per)) + f" | {len(alone)} |")
    sys.exit(0)
if not os.path.isdir(os.path.join(build, "src")):
    os.makedirs(work, exist_ok=True)
    subprocess.check_call(["git", "clone", "-q", root, src])
    subprocess.check_call(f"cmake -S {src} -B {build} -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOVA_BUILD_BENCH=OFF "
                          f"-DKOVA_BUILD_EXAMPLES=OFF >/dev/null && cmake --build {build} -j2 >/dev/null", shell=True)
suite = f"cd {build} && ctest -LE valgrind -j2 --timeout 60"
if mutate.sh(suite, work, 1200)[0] != 0:
    sys.exit("the unmutated suite fails: fix that first")

for draw in sys.argv[2:]:
    files_glob, seed, *count = draw.split("@")
    count = int(count[0]) if count else 60
    files = sorted(set(sum((glob.glob(os.path.join(src, g)) for g in files_glob.split(",")), [])))
    faults = mutate.candidates(src, files)
    random.Random(int(seed)).shuffle(faults)
    done = 0
    for rel, i, name, _, new in faults:
        if done >= count:
            break
        path = os.path.join(src, rel)
        text = open(path).read().split("\n")
        orig = list(text)
        text[i] = new
        open(path, "w").write("\n".join(text))
        try:
            if mutate.sh(f"cmake --build {build} -j2", work, 900)[0] != 0:
                continue
            done += 1
            rc, out = mutate.sh(suite, work, 1200)
            failed = re.findall(r"^\s*\d+ - (\S+) \(", out, re.M)
            area = files_glob.split("/")[0]
            print(f"{area}@{seed} {done} {'K' if rc else 'S'} {rel}:{i + 1} {name} | {' '.join(failed)}", flush=True)
        finally:
            open(path, "w").write("\n".join(orig))
    mutate.sh(f"cmake --build {build} -j2", work, 900)
