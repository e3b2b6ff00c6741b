#!/usr/bin/env python3
"""Mutation runner for the daemon sources (src/**/*.cpp, src/**/*.h but main.cpp) and the log
tool's (logtool/lib/*.cpp, logtool/tool/*.cpp but main.cpp).

Each mutant is one small change to one line, built and tested in a scratch
copy of the tree (build/mutants/tree, its own build folder inside). A mutant
is killed when a test executable fails or hangs; a survivor shows where the
tests would not notice a fault.

modes (pick one):
  --list               list the mutants and their count per operator, build nothing
  --sample N [--seed S] a reproducible random sample of N mutants (seed 1 by default)
  --full               every mutant
  --counts             only the test/code line counts of the project's rule

options:
  --files PATTERN      only sources matching the glob or substring (repeatable);
                       without it, the daemon's sources only (--files logtool/ for the tool's)
  --ref REV            test the committed tree REV instead of the working tree

operators: rel (< <= > >= shifted), eq (== !=), logic (&& ||), lit (integer
literal +1 and -1, sign included), log (ZLOG level: HIGH->MED, ERR->LOW, MED->HIGH, LOW->ERR, which
moves the line across the verbose gate and changes its level word), call (a
standalone call statement replaced by {}), flow (continue;/break; replaced by
{}), ret (return 0; <-> return -1;). Comments, strings, preprocessor lines and
static_assert are never touched.

Each mutant runs what ctest runs that reaches the mutated code, a gtest executable
once whole rather than test by test. A daemon mutant runs every suite that holds
daemon code or is handed the daemon (the simulator's own tests are left out); a
log tool mutant runs the suites whose executables, or the zebusr-log they run,
hold a symbol defined by the mutated file's object (the reader's and verbs'
suites, the reader's corpus replay, the daemon's suites whose log checks use it).
First the suites that killed mutants of the same file before (remembered in
build/mutants/kills.json), then those named like the file, fastest first; the
whole-process ones (label e2e, and scripts) last, gtest ones in two shards. It
stops at the first failure. A suite still running after 4 times its unmutated
time (15 s at least) is a timeout. The first run builds the copy in full
(a few minutes); one run at a time uses the copy, a second one stops at once.

results: killed, timeout (counts as killed), survived, no-compile, equivalent.
score = killed / (killed + survived); no-compile and equivalent are left out.
The lines go to the terminal and to build/mutants/report.txt, the compiler's
complaints about each no-compile to build/mutants/no-compile.log.

tests/equivalent-mutants.md: one Markdown list item per mutant that no test can
tell from the original, copied from the line printed under each survivor:
  - FILE | OP | ORIGINAL -> MUTATED | why no test can tell them apart
ORIGINAL and MUTATED are the line stripped of indentation and trailing comment
(for a deleted call, the whole statement on one line, and {}). When the same
change recurs in the file, " @ FUNCTION" follows, and " #K" when it recurs
within that function too. No line numbers: entries survive unrelated edits.
Listed mutants still run; a listed survivor is reported 'equivalent'.
"""
import argparse
import fcntl
import fnmatch
import io
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tarfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
OUT = ROOT / "build" / "mutants"
TREE = OUT / "tree"
BUILD = TREE / "build"
EQUIV = "tests/equivalent-mutants.md"
LOG_SWAP = {"HIGH": "MED", "ERR": "LOW", "MED": "HIGH", "LOW": "ERR"}
REL_SWAP = {"<=": "<", ">=": ">", "<": "<=", ">": ">="}
NOT_CALLS = {"if", "while", "for", "switch", "return", "sizeof", "static_assert", "do", "else",
             "case", "new", "delete", "throw", "decltype", "alignof", "catch", "using", "typedef"}


def git(*args, **kw):
    return subprocess.run(["git", *args], cwd=ROOT, check=True, capture_output=True, **kw).stdout


def listed_files():
    return [os.fsdecode(f) for f in git("ls-files", "-co", "--exclude-standard", "-z").split(b"\0")[:-1]]


# ---- the test/code line counts, as the before-stop hook makes them

def line_counts():
    sums = {"tests": b"", "code": b""}
    for f in listed_files():
        if f.startswith("shared/") or not re.search(r"\.(c|cc|cpp|h|hpp)$", f):
            continue
        if (ROOT / f).is_file():  # cat concatenates, so a missing final newline joins lines
            key = "tests" if re.search(r"(^|/)tests/", f) else "code"
            sums[key] += (ROOT / f).read_bytes()
    def count(data):
        lines = data.split(b"\n")
        if lines and lines[-1] == b"":
            lines.pop()
        return sum(1 for ln in lines if not re.match(rb"^\s*($|//)", ln))
    return count(sums["tests"]), count(sums["code"])


def print_counts():
    t, c = line_counts()
    print(f"lines: tests {t}, code {c}, ratio {t / c:.2f} (aim 0.25-0.33, never above a third)")


# ---- masking: comments, literals, preprocessor, static_assert and attributes become blanks

def mask(text):
    out, i, n = list(text), 0, len(text)
    while i < n:
        c, nxt = text[i], text[i + 1:i + 2]
        if c == "/" and nxt in ("/", "*"):
            end = text.find("\n", i) if nxt == "/" else text.find("*/", i + 2) + 2
            end = n if end <= 1 or end == -1 else end
            for k in range(i, end):
                out[k] = out[k] if text[k] == "\n" else " "
            i = end
        elif c in "\"'":
            k = i + 1
            while k < n and text[k] != c and text[k] != "\n":
                k += 2 if text[k] == "\\" else 1
            for j in range(i + 1, min(k, n)):
                out[j] = "_"
            i = k + 1
        else:
            i += 1
    masked = "".join(out)
    lines, cont = masked.split("\n"), False
    for idx, ln in enumerate(lines):  # preprocessor lines with their continuations
        if cont or ln.lstrip().startswith("#"):
            cont = ln.rstrip().endswith("\\")
            lines[idx] = " " * len(ln)
    masked = "\n".join(lines)
    for m in list(re.finditer(r"\bstatic_assert\b[^;]*;|\b__attribute__\s*\(", masked)):
        end = m.end() if m.group().endswith(";") else close_paren(masked, m.end() - 1) + 1
        masked = masked[:m.start()] + re.sub(r"[^\n]", " ", masked[m.start():end]) + masked[end:]
    return masked


def close_paren(masked, i):
    depth = 0
    for k in range(i, len(masked)):
        depth += {"(": 1, ")": -1}.get(masked[k], 0)
        if depth == 0:
            return k
    return len(masked) - 1


def block_kinds(masked):
    """For each line start: the innermost block's kind (file, record, code, other) and the
    function it is in."""
    kinds, stack, prefix = [], [("file", "")], ""
    for ln in masked.split("\n"):
        kinds.append(stack[-1])
        for c in ln + " ":
            if c == "{":
                p, func = prefix.strip(), stack[-1][1]
                if re.search(r"\b(struct|union|class)\b", p) and not re.search(r"[=(]", p):
                    stack.append(("record", func))
                elif re.search(r"(^|\)|\belse|\bdo|\btry|:)(\s*(const|noexcept|override))*$", p):
                    name = re.search(r"([A-Za-z_][\w:~]*)\s*\(", p)
                    stack.append(("code", func or (name.group(1) if name else "")))
                else:
                    stack.append(("other", func))
            elif c == "}" and len(stack) > 1:
                stack.pop()
            prefix = "" if c in "{};" else prefix + c
    return [k for k, _ in kinds], [f for _, f in kinds]


# ---- operators: each yields (start, end, replacement) offsets into the line

def swap(table):
    """Binary operators written with a blank on each side, as clang-format leaves them:
    that keeps template brackets, <<, -> and && in declarations out."""
    pattern = re.compile(r"(?<=\s)(" + "|".join(re.escape(k) for k in table) + r")(?=\s)")
    def op(ln, _):
        for m in pattern.finditer(ln):
            yield m.start(), m.end(), table[m.group()]
    return op


def unary(before):
    """Whether a minus after `before` is a sign rather than a subtraction."""
    return not re.search(r"[\w)\]]\s*$", before) or re.search(r"\b(return|case)\s*$", before)


def op_lit(ln, kind):
    for m in re.finditer(r"(?<![\w.])(0[xX][0-9a-fA-F]+|[0-9]+)([uUlL]*)(?![\w.])", ln):
        digits, start = m.group(1), m.start()
        if len(digits) > 1 and digits[0] == "0" and digits[1] not in "xX":
            continue  # octal
        if kind == "record" and ln[:start].rstrip().endswith("[") and ln[m.end():].lstrip().startswith("]"):
            continue  # a record's array size: only breaks the layout asserts
        hexa = digits[:2].lower() == "0x"
        value = int(digits, 16 if hexa else 10)
        if not hexa and start > 0 and ln[start - 1] == "-" and unary(ln[:start - 1]):
            start, value = start - 1, -value  # unary minus belongs to the literal
        for v in sorted({value + 1, value - 1}, key=abs):
            if hexa:
                if v < 0:
                    continue
                body = format(v, "x").zfill(len(digits) - 2)
                text = digits[:2] + (body.upper() if digits[2:].isupper() else body)
            else:
                text = str(v)
            yield start, m.end(), text + m.group(2)


def op_log(ln, _):
    for m in re.finditer(r"\bZLOG(?:_AT|_AS)?\(\s*(HIGH|ERR|MED|LOW)\b", ln):
        yield m.start(1), m.end(1), LOG_SWAP[m.group(1)]


def op_ret(ln, _):
    for m in re.finditer(r"\breturn\s+(0|-1)\s*;", ln):
        yield m.start(1), m.end(1), "-1" if m.group(1) == "0" else "0"


def op_flow(ln, _):
    for m in re.finditer(r"\b(continue|break)\s*;", ln):
        yield m.start(), m.end(), "{}"


# ret before lit: the two meet on `return 0;` and the first one keeps the mutant.
LINE_OPS = [("rel", swap(REL_SWAP)), ("eq", swap({"==": "!=", "!=": "=="})),
            ("logic", swap({"&&": "||", "||": "&&"})), ("ret", op_ret),
            ("lit", op_lit), ("log", op_log), ("flow", op_flow)]


def call_statements(masked, kinds):
    """Standalone call statements `f(...);`, `a.b(...);`, `p->f(...);` that begin a line."""
    offset = 0
    for idx, ln in enumerate(masked.split("\n")):
        m = re.match(r"(\s*)((?:::)?[A-Za-z_]\w*(?:\s*(?:::|\.|->)\s*[A-Za-z_]\w*)*)\s*\(", ln)
        before = masked[:offset].rstrip()
        if (m and kinds[idx] == "code" and re.split(r"\W", m.group(2))[0] not in NOT_CALLS
                and (before[-1:] in (";", "{", "}", ")", ":") or re.search(r"\b(else|do)$", before))):
            close = close_paren(masked, offset + m.end() - 1)
            semi = re.match(r"\s*;", masked[close + 1:])
            if semi:
                yield idx, offset + m.end(1), close + 1 + semi.end()
        offset += len(ln) + 1


def code_part(line, masked_line):
    """The line stripped, without a trailing comment."""
    end = len(masked_line.rstrip())
    return line[:end].strip()


def mutants_of(path, text):
    masked, found, seen = mask(text), [], set()
    lines, mlines = text.split("\n"), masked.split("\n")
    kinds, funcs = block_kinds(masked)
    offset = 0
    for idx, (ln, mln) in enumerate(zip(lines, mlines)):
        for op, fn in LINE_OPS:
            for s, e, new in fn(mln, kinds[idx]):
                mutated = ln[:s] + new + ln[e:]
                key = (idx, mutated)
                if mutated == ln or key in seen:
                    continue
                seen.add(key)
                mmasked = mln[:s] + new + mln[e:]
                found.append(dict(path=path, line=idx + 1, op=op, start=offset + s, end=offset + e,
                                  new=new, orig=code_part(ln, mln), mut=code_part(mutated, mmasked),
                                  func=funcs[idx]))
        offset += len(ln) + 1
    for idx, s, e in call_statements(masked, kinds):
        found.append(dict(path=path, line=idx + 1, op="call", start=s, end=e, new="{}",
                          orig=" ".join(text[s:e].split()), mut="{}", func=funcs[idx]))
    found.sort(key=lambda m: (m["start"], m["op"]))
    return name_mutants(found)


def name_mutants(found):
    """Identifiers without line numbers: a change that recurs in the file is qualified by
    its function, then numbered within that function."""
    def base(m):
        return f"{m['path']} | {m['op']} | {m['orig']} -> {m['mut']}"
    in_file, in_func = {}, {}
    for m in found:
        in_file[base(m)] = in_file.get(base(m), 0) + 1
    for m in found:
        m["id"] = base(m)
        if in_file[m["id"]] > 1:
            m["id"] += f" @ {m['func'] or 'file scope'}"
            in_func[m["id"]] = in_func.get(m["id"], 0) + 1
    seen = {}
    for m in found:
        if in_func.get(m["id"], 1) > 1:
            seen[m["id"]] = seen.get(m["id"], 0) + 1
            m["id"] += f" #{seen[m['id']]}"
    return found


def is_daemon(path):
    return path.startswith("src/")


def mutable(path):
    if re.match(r"src/.*\.(cpp|h)$", path):
        return path != "src/core/main.cpp"
    return bool(re.match(r"logtool/(lib|tool)/[^/]*\.cpp$", path)) and path != "logtool/tool/main.cpp"


def all_mutants(files, patterns):
    result = []
    for path in sorted(files):
        if not mutable(path):
            continue
        # Without --files only the daemon's: its seeded samples stay the ones they were.
        if not patterns and not is_daemon(path):
            continue
        if patterns and not any(fnmatch.fnmatch(path, p) or p in path for p in patterns):
            continue
        result += mutants_of(path, files[path].decode(errors="surrogateescape"))
    return result


def clip_pair(orig, mut, width=70):
    """Both texts cut to `width` characters around the first place they differ."""
    k = next((i for i, (a, b) in enumerate(zip(orig, mut)) if a != b), min(len(orig), len(mut)))
    start = max(0, k - width // 3) if max(len(orig), len(mut)) > width else 0
    def cut(t):
        return ("…" if start else "") + t[start:start + width] + ("…" if start + width < len(t) else "")
    return cut(orig), cut(mut)


# ---- the scratch tree

def snapshot(ref):
    if ref:
        tar = tarfile.open(fileobj=io.BytesIO(git("archive", ref)))
        return {i.name: tar.extractfile(i).read() for i in tar.getmembers() if i.isfile()}
    return {f: (ROOT / f).read_bytes() for f in listed_files()
            if not f.startswith("build/") and (ROOT / f).is_file()}


def sync_tree(files):
    """Makes the scratch tree hold `files`; only changed files get a new mtime."""
    for path, data in files.items():
        dst = TREE / path
        if not dst.is_file() or dst.read_bytes() != data:
            dst.parent.mkdir(parents=True, exist_ok=True)
            dst.write_bytes(data)
            if (ROOT / path).is_file():
                dst.chmod((ROOT / path).stat().st_mode & 0o777)
    for dirpath, dirnames, names in os.walk(TREE):
        if Path(dirpath) == TREE and "build" in dirnames:
            dirnames.remove("build")
        for name in names:
            rel = os.path.relpath(os.path.join(dirpath, name), TREE)
            if rel not in files:
                os.remove(os.path.join(dirpath, name))


def build(targets):
    if not (BUILD / "CMakeCache.txt").is_file():
        # Ninja checks a built tree faster than make; no -g makes compiling and linking faster;
        # ccache, where there is one, makes putting a header back cost no second full build.
        gen = ["-G", "Ninja"] if shutil.which("ninja") else []
        if shutil.which("ccache"):
            gen += ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_C_COMPILER_LAUNCHER=ccache"]
        subprocess.run(["cmake", "-S", TREE, "-B", BUILD, *gen, "-DCMAKE_BUILD_TYPE=Debug",
                        "-DZEBUSR_BUILD_BENCH=OFF", "-DCMAKE_CXX_FLAGS_DEBUG=-O0"],
                       check=True, capture_output=True)
    proc = subprocess.Popen(["cmake", "--build", BUILD, "-j2", *(["--target", *targets] if targets else [])],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            start_new_session=True)
    try:
        log = proc.communicate()[0]
    finally:
        kill_group(proc)  # an interrupted build must not go on compiling behind us
    return proc.returncode == 0, log


def kill_group(proc):
    """Kills the process and whatever it started and left behind (a mutated daemon, say)."""
    try:
        os.killpg(proc.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    proc.wait()


def run_suite(suite, timeout):
    """Runs one suite, a gtest executable in two shards when it is slow; 'pass', 'fail' or
    'timeout'."""
    shards = 2 if suite["gtest"] and suite["e2e"] else 1
    procs = []
    for i in range(shards):
        env = dict(os.environ, GTEST_TOTAL_SHARDS=str(shards), GTEST_SHARD_INDEX=str(i))
        procs.append(subprocess.Popen(suite["cmd"], cwd=suite["cwd"], env=env,
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                      start_new_session=True))
    deadline, verdict = time.monotonic() + timeout, "pass"
    try:
        while verdict == "pass" and any(p.poll() is None for p in procs):
            if any(p.poll() not in (None, 0) for p in procs):
                verdict = "fail"
            elif time.monotonic() > deadline:
                verdict = "timeout"
            time.sleep(0.05)
        if verdict == "pass" and any(p.returncode != 0 for p in procs):
            verdict = "fail"
    finally:
        for p in procs:
            kill_group(p)
    return verdict


def runs_daemon_code(cmd):
    """A test matters when its executable holds daemon code or the daemon's path, or when it
    is handed the daemon: the simulator's own tests are left out."""
    daemon = str(BUILD / "zebusrd")
    if daemon in cmd[1:]:
        return True
    data = Path(cmd[0]).read_bytes()
    return b"zebusr_log_write" in data or daemon.encode() in data


def defined_symbols(binary):
    """The functions and data an object or executable defines. Left out: weak ones, which
    every user of an inline function defines too, and the compiler's own per-file ones
    (static initialisation, <iostream>'s init object), alike in every file."""
    out = subprocess.run(["nm", "--defined-only", str(binary)], capture_output=True, text=True).stdout
    return {f[2] for f in (ln.split() for ln in out.splitlines())
            if len(f) == 3 and f[1] in "TtDdRrBb" and not re.search(r"^_ZSt|__static_init|^_GLOBAL__", f[2])}


def object_of(path):
    """The log tool source's object file in the build: logtool/lib/x.cpp is built into
    logtool/CMakeFiles/<library>.dir/lib/x.cpp.o."""
    found = list((BUILD / "logtool" / "CMakeFiles").glob(f"*.dir/{path.split('/', 1)[1]}.o"))
    return found[0] if found else None


def reached_files(cmd, tool_paths):
    """The log tool sources a test reaches: those defining a symbol its executable holds,
    or the zebusr-log it is handed or names, holds."""
    if not tool_paths:
        return set()
    exe, tool = Path(cmd[0]), BUILD / "logtool" / "zebusr-log"
    binaries = [exe] if exe.is_file() and exe.read_bytes()[:4] == b"\x7fELF" else []
    if tool.is_file() and (str(tool) in cmd[1:] or any(str(tool).encode() in b.read_bytes() for b in binaries)):
        binaries.append(tool)
    held = set().union(*(defined_symbols(b) for b in binaries)) if binaries else set()
    return {p for p, syms in tool_paths.items() if syms & held}


def discover_suites(paths):
    """What ctest would run that reaches `paths`, grouped: a gtest executable runs once whole,
    any other test command as it is. Built targets are named after their executables; a
    script's suite builds everything."""
    daemon_wanted = any(is_daemon(p) for p in paths)
    tool_paths = {}
    for p in paths:
        obj = None if is_daemon(p) else object_of(p)
        if obj:
            tool_paths[p] = defined_symbols(obj)
    out = subprocess.run(["ctest", "--test-dir", BUILD, "--show-only=json-v1"],
                         capture_output=True, text=True, check=True).stdout
    suites = {}
    for t in json.loads(out)["tests"]:
        cmd = t.get("command")
        props = {p["name"]: p["value"] for p in t.get("properties", [])}
        gtest = bool(cmd) and any(a.startswith("--gtest_filter") for a in cmd[1:])
        key = (cmd[0], "--gtest_brief=1") if gtest else tuple(cmd or ())
        if not cmd or key in suites:
            continue
        daemon, reaches = daemon_wanted and runs_daemon_code(cmd), reached_files(cmd, tool_paths)
        if not daemon and not reaches:
            continue
        exe = Path(cmd[0])
        suites[key] = dict(name=exe.name if gtest else t["name"], cmd=list(key),
                           daemon=daemon, reaches=reaches,
                           cwd=props.get("WORKING_DIRECTORY", str(exe.parent)), gtest=gtest,
                           e2e="e2e" in props.get("LABELS", []),
                           target=[exe.name] if BUILD in exe.parents else [])
    return list(suites.values())


def baseline(say, paths):
    """Builds everything and runs every suite that reaches `paths` unmutated, timing each."""
    ok, log = build([])
    if not ok:
        sys.exit(log[-3000:] + "\nthe unmutated tree does not build (--ref HEAD tests the last commit)")
    suites = []
    for suite in discover_suites(paths):
        if suite["target"] and not build(suite["target"])[0]:
            suite["target"] = []
        t0 = time.monotonic()
        if run_suite(suite, 600) != "pass":
            say(f"warning: {suite['name']} fails unmutated and is left out")
            continue
        suite["took"] = time.monotonic() - t0
        suites.append(suite)
    return suites


def order_suites(path, suites, history):
    """Whole-process suites last; first those that killed this file's mutants before, then
    those named like it, fastest first."""
    words = set(re.split(r"[/_.]", path)) - {"src", "cpp", "h", "lib", "tool"}
    def related(name):
        return any(w[:5] == t[:5] for w in words for t in re.split(r"[/_.]", name) if len(w) > 3)
    suites = [s for s in suites if (is_daemon(path) and s["daemon"]) or path in s["reaches"]]
    kills = history.get(path, {})
    # A script builds everything and runs the daemon: it goes with the whole-process suites.
    return sorted(suites, key=lambda s: (s["e2e"] or not s["target"], -kills.get(s["name"], 0),
                                         not related(s["name"]), s["took"]))


def try_mutant(m, files, suites, history):
    """Applies, builds and tests one mutant in the tree; always restores the file."""
    dst, data = TREE / m["path"], files[m["path"]]
    text = data.decode(errors="surrogateescape")
    timing = {"build": 0.0, "test": 0.0}
    try:
        dst.write_bytes((text[:m["start"]] + m["new"] + text[m["end"]:]).encode(errors="surrogateescape"))
        for suite in order_suites(m["path"], suites, history):
            t0 = time.monotonic()
            ok, log = build(suite["target"])
            timing["build"] += time.monotonic() - t0
            if not ok:
                with open(OUT / "no-compile.log", "a") as f:
                    f.write(f"== {m['id']}\n" + "\n".join(log.splitlines()[-30:]) + "\n")
                return "no-compile", suite["name"], timing
            t0 = time.monotonic()
            verdict = run_suite(suite, max(15.0, 4 * suite["took"]))
            timing["test"] += time.monotonic() - t0
            if verdict != "pass":
                kills = history.setdefault(m["path"], {})
                kills[suite["name"]] = kills.get(suite["name"], 0) + 1
                return ("killed" if verdict == "fail" else "timeout"), suite["name"], timing
        return "survived", "", timing
    finally:
        dst.write_bytes(data)
        os.utime(dst)


def equivalents():
    f = ROOT / EQUIV
    if not f.is_file():
        return []
    return [ln[2:].strip() for ln in f.read_text().splitlines() if ln.startswith("- ")]


def is_listed(mid, listed):
    return any(entry == mid or entry.startswith(mid + " | ") for entry in listed)


def take_tree():
    """One run at a time owns the scratch tree; the lock goes with the process, however it ends."""
    OUT.mkdir(parents=True, exist_ok=True)
    lock = open(OUT / "lock", "a+")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        lock.seek(0)
        sys.exit(f"{OUT.relative_to(ROOT)} is in use by another run ({lock.read().strip()}); "
                 "try again when it ends")
    lock.truncate(0)
    lock.write(f"pid {os.getpid()}, {' '.join(sys.argv[1:])}, since {time.strftime('%H:%M:%S')}\n")
    lock.flush()
    return lock


def run(mutants, files):
    lock = take_tree()  # held until the run ends
    report = open(OUT / "report.txt", "w")
    (OUT / "no-compile.log").write_text("")
    def say(line):
        print(line, flush=True)
        report.write(line + "\n")
    started = time.monotonic()
    say(f"building and running the unmutated tree in {TREE.relative_to(ROOT)}")
    sync_tree(files)
    suites = baseline(say, sorted({m["path"] for m in mutants}))
    say("suites: " + " ".join(s["name"] for s in suites))
    say(f"baseline: {len(suites)} suites pass in {sum(s['took'] for s in suites):.1f}s; "
        f"{len(mutants)} mutants, set-up {time.monotonic() - started:.0f}s")
    hist_file = OUT / "kills.json"
    history = json.loads(hist_file.read_text()) if hist_file.is_file() else {}
    listed, tally = equivalents(), {}
    totals = {"build": 0.0, "test": 0.0}
    for m in mutants:
        result, by, timing = try_mutant(m, files, suites, history)
        for k in totals:
            totals[k] += timing[k]
        note = ""
        if is_listed(m["id"], listed):
            result, note = ("equivalent", "") if result == "survived" else (result, " (listed as equivalent)")
        tally[result] = tally.get(result, 0) + 1
        where = f"{m['path']}:{m['line']}"
        orig, mut = clip_pair(m["orig"], m["mut"])
        say(f"{result:<10} {where:<34} {m['op']:<5} {orig} -> {mut}"
            + (f"  [{by}]" if by and result != "no-compile" else "")
            + f"  ({timing['build']:.0f}s+{timing['test']:.0f}s){note}")
        if result == "survived":
            say(f"    - {m['id']} | <why it is equivalent>")
        hist_file.write_text(json.dumps(history, indent=1, sort_keys=True))
    killed = tally.get("killed", 0) + tally.get("timeout", 0)
    scored = killed + tally.get("survived", 0)
    elapsed = time.monotonic() - started
    say(f"score: {killed}/{scored} = {100 * killed / scored if scored else 0:.1f}% killed "
        f"(timeouts {tally.get('timeout', 0)}), survived {tally.get('survived', 0)}, "
        f"no-compile {tally.get('no-compile', 0)}, equivalent {tally.get('equivalent', 0)}")
    per = len(mutants) or 1
    say(f"elapsed {elapsed:.0f}s; per mutant {(totals['build'] + totals['test']) / per:.1f}s "
        f"(build {totals['build'] / per:.1f}s, tests {totals['test'] / per:.1f}s)")
    t, c = line_counts()
    say(f"lines: tests {t}, code {c}, ratio {t / c:.2f}")
    report.close()
    return 0


def main():
    ap = argparse.ArgumentParser(prog="scripts/mutants.sh", description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter,
                                 usage="%(prog)s (--list | --sample N [--seed S] | --full | --counts) "
                                       "[--files PATTERN] [--ref REV]")
    mode = ap.add_mutually_exclusive_group(required=True)
    mode.add_argument("--list", action="store_true", help=argparse.SUPPRESS)
    mode.add_argument("--sample", type=int, metavar="N", help=argparse.SUPPRESS)
    mode.add_argument("--full", action="store_true", help=argparse.SUPPRESS)
    mode.add_argument("--counts", action="store_true", help=argparse.SUPPRESS)
    ap.add_argument("--seed", type=int, default=1, help=argparse.SUPPRESS)
    ap.add_argument("--files", action="append", default=[], help=argparse.SUPPRESS)
    ap.add_argument("--ref", help=argparse.SUPPRESS)
    args = ap.parse_args()
    if args.counts:
        print_counts()
        return 0
    files = snapshot(args.ref)
    mutants = all_mutants(files, args.files)
    if args.list:
        per_op = {}
        for m in mutants:
            per_op[m["op"]] = per_op.get(m["op"], 0) + 1
            print(f"{m['path']}:{m['line']}  {m['op']:<5} {m['id'].split(' | ', 2)[2]}")
        print(f"{len(mutants)} mutants: " + ", ".join(f"{k} {v}" for k, v in sorted(per_op.items())))
        print_counts()
        return 0
    if args.sample is not None:
        pool = sorted(mutants, key=lambda m: m["id"])
        mutants = random.Random(args.seed).sample(pool, min(args.sample, len(pool)))
    # Any of these ends the run through the `finally` that puts the mutated file back.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    signal.signal(signal.SIGHUP, lambda *_: sys.exit(129))
    return run(mutants, files)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
