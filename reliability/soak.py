#!/usr/bin/env python3
"""Soak: the release zebusrd under the simulator for MINUTES simulated minutes
at 10 cycles a second with flow churn (reliability/gen_soak.py), sampled all
along for open descriptors, resident memory and live heap.

Passes when the daemon never crashed and exits 0 on the closing SIGTERM, did
the cycles the run's length asks for on one connection, kept a constant
descriptor count after start-up, and its live heap grew by no more than the
flow history nodes the design keeps (live flows' nodes plus the chains that
removing a bucket's head orphans) times the node's size, plus a fixed slack.
The kept nodes are counted by replaying every slow-start table the simulator
published through a model of the history table.

Run through reliability/soak.sh, which builds what it needs.
"""
import argparse
import ctypes
import json
import mmap
import os
import re
import signal
import struct
import subprocess
import sys
import time

CYCLES_PER_S = 10
QUIET_FROM = 48   # seconds into each minute after which no flow history changes
WARM_FROM = 3.0   # simulated seconds after which both threads have connected
FIRST_FLOW = 10.0
ENTRIES_READ = 128


class SsflowInfo(ctypes.LittleEndianStructure):
    _pack_ = 1
    _fields_ = [("rx_pps", ctypes.c_uint64), ("avg_pps", ctypes.c_uint64),
                ("rx_bps", ctypes.c_uint64), ("hash", ctypes.c_uint32), ("cpu", ctypes.c_uint16)]


class HtNode(ctypes.Structure):
    # The history node's fields in order, natural alignment.
    _fields_ = [("entry", SsflowInfo), ("is_segmentation_enabled", ctypes.c_uint8),
                ("is_stable", ctypes.c_uint8), ("rx_bps_history", ctypes.c_uint64 * 10),
                ("len", ctypes.c_uint8), ("sum", ctypes.c_uint64), ("avg", ctypes.c_uint64),
                ("idx", ctypes.c_uint8), ("next", ctypes.c_void_p)]


def glibc_usable(n):
    """Usable bytes of a malloc(n) block on 64-bit glibc: what the counter library sees."""
    chunk = max(32, (n + 8 + 15) & ~15)
    return chunk - 8


NODE_SIZE = ctypes.sizeof(HtNode)
NODE_BLOCK = glibc_usable(NODE_SIZE)


class History:
    """The flow history table as the design keeps it: 8 chains by hash & 7;
    removing a chain's head drops the whole chain (its other nodes are never
    freed)."""

    def __init__(self):
        self.buckets = [[] for _ in range(8)]
        self.created = 0
        self.freed = 0
        self.orphaned = 0
        self.head_removals = 0

    def find(self, h):
        for node in self.buckets[h & 7]:
            if node == h:
                return True
        return False

    def remove(self, h):
        chain = self.buckets[h & 7]
        for i, node in enumerate(chain):
            if node == h:
                if i == 0:
                    self.orphaned += len(chain) - 1
                    self.head_removals += 1
                    chain.clear()
                else:
                    del chain[i]
                self.freed += 1
                return

    def cycle(self, entries):
        for rx_bps, h in entries[:ENTRIES_READ]:
            if h == 0:
                continue
            found = self.find(h)
            if not found and rx_bps > 0:
                self.buckets[h & 7].append(h)
                self.created += 1
            elif rx_bps == 0:
                self.remove(h)

    @property
    def kept(self):
        return self.created - self.freed

    @property
    def reachable(self):
        return sum(len(c) for c in self.buckets)


def replay_tables(path, read):
    """Model state after each table the daemon read: list of (t, kept, created,
    reachable), and the distinct slow-start hashes listed with a rate. The
    first line is the table written before any sync; READ says, for each
    line after it, whether the daemon read that table."""
    ht = History()
    states, seen = [], set()
    with open(path) as f:
        for i, line in enumerate(f):
            if i == 0 or i > len(read) or not read[i - 1]:
                continue
            rec = json.loads(line)
            entries = [(e["rx_bps"], int(e["hash"], 16) if isinstance(e["hash"], str) else e["hash"])
                       for e in rec["ss_flows"]]
            ht.cycle(entries)
            seen.update(h for r, h in entries[:ENTRIES_READ] if r > 0 and h)
            states.append((rec["t"], ht.kept, ht.created, ht.reachable))
    return ht, states, seen


def state_at(states, t):
    """Last model state at or before simulated time t (binary search)."""
    lo, hi = 0, len(states)
    while lo < hi:
        mid = (lo + hi) // 2
        if states[mid][0] <= t:
            lo = mid + 1
        else:
            hi = mid
    return states[lo - 1] if lo else (0.0, 0, 0, 0)


class Clock:
    """The simulator's clock page: simulated time as the simulator reads it."""

    def __init__(self, path):
        with open(path, "rb") as f:
            self.m = mmap.mmap(f.fileno(), 4096, access=mmap.ACCESS_READ)

    def now(self):
        start, factor, held, cap = struct.unpack_from("<qdqq", self.m, 0)
        t = (time.monotonic_ns() - start) / 1e9 / factor - held / 1e9
        return t if cap == 2**63 - 1 else min(t, cap / 1e9)


class Counters:
    FMT = "<8Q8iqqQ"  # allocs per thread slot, thread ids, live bytes, live blocks, frees

    def __init__(self, path):
        with open(path, "r+b") as f:
            self.m = mmap.mmap(f.fileno(), 4096, access=mmap.ACCESS_READ)

    def read(self):
        v = struct.unpack_from(self.FMT, self.m, 0)
        return {"allocs": list(v[0:8]), "live_bytes": v[16], "live_blocks": v[17], "frees": v[18]}


def raise_priority():
    # The daemon's receive time-out shrinks with the time factor (150 ms real
    # at 0.05): a little priority keeps other load from starving the pair
    # into a reconnection. Only where allowed.
    try:
        os.nice(-5)
    except OSError:
        pass


def find_child(parent, exe, timeout):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        for d in os.listdir("/proc"):
            if not d.isdigit():
                continue
            try:
                with open("/proc/%s/stat" % d) as f:
                    ppid = int(f.read().rsplit(")", 1)[1].split()[1])
                if ppid == parent and os.path.realpath("/proc/%s/exe" % d) == exe:
                    return int(d)
            except (OSError, IndexError, ValueError):
                continue
        time.sleep(0.01)
    return None


def proc_sample(pid):
    try:
        fds = len(os.listdir("/proc/%d/fd" % pid))
        rss = threads = None
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    rss = int(line.split()[1])
                elif line.startswith("Threads:"):
                    threads = int(line.split()[1])
        # An exiting process has no resident figure any more.
        return (fds, rss, threads) if rss is not None and threads is not None else None
    except OSError:
        return None


def transcript_facts(path):
    """Counts from the transcript, and for each sync reply that wrote tables
    (one line of tables.jsonl each, in order) whether the daemon read them:
    not the first sync of a connection (the connection's own), nor the last
    sync of a connection given up for a newer one (its reply came too late)."""
    syncs, conns, lookups, kinds, ins = {}, set(), 0, {}, {}
    written = []  # (conn, first on its connection)
    with open(path) as f:
        for line in f:
            r = json.loads(line)
            k, d = r.get("kind"), r.get("dir")
            if d == "in":
                ins[r["n"]] = r
                if k == "family_lookup":
                    lookups += 1
                continue
            if d == "event":
                if k == "connect":
                    conns.add(r["conn"])
                continue
            req = ins.pop(r["n"], {})
            if k == "sync" and "bytes" in r:
                written.append((r["conn"], r["conn"] not in syncs))
                syncs[r["conn"]] = syncs.get(r["conn"], 0) + 1
            name = k + (" " + req.get("sugg_type", "") if k == "suggestion" else "")
            kinds[name] = kinds.get(name, 0) + 1
    last_of = {c: i for i, (c, _) in enumerate(written)}
    final_conn = written[-1][0] if written else None
    read = [not first and (c == final_conn or i != last_of[c])
            for i, (c, first) in enumerate(written)]
    return {"syncs_by_conn": syncs, "connections": len(conns), "family_lookups": lookups,
            "answers": kinds, "steering_conns": len(syncs), "tables_read": read}


def run_soak(a, paths):
    """Runs the simulator with the daemon, sampling it until it is gone; writes
    the samples and the run's outcome next to the run directory."""
    run, duration = paths["run"], 60 * a.minutes
    subprocess.run([sys.executable, os.path.join(paths["here"], "gen_soak.py"), "--minutes",
                    str(a.minutes), "-o", paths["scenario"]], check=True)
    subprocess.run(["rm", "-rf", run], check=True)
    os.makedirs(run)
    with open(os.path.join(run, "counters"), "wb") as f:
        f.write(b"\0" * 4096)
    print("soak: %d simulated minutes, tick 100 ms, time factor %g (about %.0f s real)"
          % (a.minutes, a.factor, duration * a.factor), flush=True)
    samples, gone_at = [], None
    with open(paths["sim_out"], "w") as sim_out:
        proc = subprocess.Popen(
            [paths["sim"], paths["scenario"], "-q", "--no-report", "-f", str(a.factor), "-o", run,
             "--preload", paths["preload"] + ":" + paths["count"], "--", paths["daemon"]],
            stdout=sim_out, stderr=subprocess.STDOUT, preexec_fn=raise_priority)
        try:
            pid = find_child(proc.pid, os.path.realpath(paths["daemon"]), 20)
            if pid is None:
                proc.kill()
                proc.wait()
                sys.exit("soak: the daemon did not start; see " + paths["sim_out"])
            clock = Clock(os.path.join(run, "clock"))
            counters = Counters(os.path.join(run, "counters"))
            last_print = 0.0
            while True:
                t = clock.now()
                p = proc_sample(pid)
                c = counters.read()
                if p is None:
                    gone_at = t
                    break
                fds, rss, threads = p
                samples.append((t, fds, rss, threads, c["live_bytes"], c["live_blocks"],
                                c["allocs"][1], sum(c["allocs"]), c["frees"]))
                if t - last_print >= 600:
                    last_print = t
                    print("soak: t=%5.0f s  fds %d  rss %d KiB  heap %d B in %d blocks"
                          % (t, fds, rss, c["live_bytes"], c["live_blocks"]), flush=True)
                time.sleep(a.interval)
            proc.wait(timeout=900)
        except BaseException:
            proc.send_signal(signal.SIGINT)
            proc.wait()
            raise
    with open(paths["samples"], "w") as f:
        f.write("sim_s,fds,rss_kib,threads,live_bytes,live_blocks,allocs_eval,allocs_all,frees\n")
        for s in samples:
            f.write(",".join("%.3f" % v if isinstance(v, float) else str(v) for v in s) + "\n")
    with open(paths["outcome"], "w") as f:
        json.dump({"sim_exit": proc.returncode, "daemon_gone_at": gone_at}, f)


def read_samples(path):
    with open(path) as f:
        next(f)
        return [tuple(float(v) if i == 0 else int(v) for i, v in enumerate(line.split(",")))
                for line in f]



def err_lines_of(tool, log_path):
    """The log's ERR lines as zebusr-log reads them (number, function, message);
    a log it cannot read is one such line."""
    r = subprocess.run([tool, "lines", log_path], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    if r.returncode != 0:
        return ["zebusr-log lines: exit %d: %s" % (r.returncode, r.stderr.decode(errors="replace").strip())]
    out = []
    for rec in r.stdout.decode(errors="replace").splitlines():
        no, _, func, level, _, message = rec.split("\t", 5)
        if level == "ERR":
            out.append("line %s: %s: %s" % (no, func, message))
    return out


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    root = os.path.dirname(here)
    ap = argparse.ArgumentParser(description="zebusrd soak under the simulator")
    ap.add_argument("--minutes", type=int, default=60, help="simulated minutes (default 60)")
    ap.add_argument("--factor", type=float, default=0.05,
                    help="real seconds per simulated second (default 0.05: an hour in 3 minutes)")
    ap.add_argument("--build", default=os.path.join(root, "build/soak"))
    ap.add_argument("--slack", type=int, default=1024,
                    help="bytes of heap growth allowed beyond the kept nodes (default 1024)")
    ap.add_argument("--rss-slack-kib", type=int, default=512,
                    help="resident growth allowed beyond the heap bound, KiB (default 512)")
    ap.add_argument("--interval", type=float, default=0.04, help="real seconds between samples")
    ap.add_argument("--analyse", action="store_true",
                    help="only check the last run of this length again")
    a = ap.parse_args()
    if a.minutes < 1 or a.minutes > 255:
        ap.error("--minutes must be 1 to 255")

    build = os.path.abspath(a.build)
    tag = "%dmin" % a.minutes
    paths = {
        "here": here, "daemon": os.path.join(build, "zebusrd"),
        "sim": os.path.join(build, "sim", "zebusr-sim"),
        "preload": os.path.join(build, "sim", "libzebusr_preload.so"),
        "count": os.path.join(build, "sim", "libzebusr_count.so"),
        "log_tool": os.path.join(build, "logtool", "zebusr-log"),
        "run": os.path.join(build, "run-" + tag),
        "scenario": os.path.join(build, "soak-%s.json" % tag),
        "sim_out": os.path.join(build, "sim-%s.out" % tag),
        "samples": os.path.join(build, "samples-%s.csv" % tag),
        "outcome": os.path.join(build, "outcome-%s.json" % tag),
        "result": os.path.join(build, "result-%s.json" % tag),
    }
    run, duration = paths["run"], 60 * a.minutes
    sim_out_path, samples_path = paths["sim_out"], paths["samples"]
    if not a.analyse:
        run_soak(a, paths)
    print("soak: history node %d bytes (malloc block %d usable)" % (NODE_SIZE, NODE_BLOCK),
          flush=True)
    failures = []
    samples = read_samples(samples_path)
    with open(paths["outcome"]) as f:
        outcome = json.load(f)
    gone_at = outcome["daemon_gone_at"]

    sim_text = open(sim_out_path).read()
    m = re.search(r"daemon exit status: (-?\d+)", sim_text)
    status = int(m.group(1)) if m else None
    if outcome["sim_exit"] != 0:
        failures.append("simulator exited %d" % outcome["sim_exit"])
    if "did not stop within" in sim_text:
        failures.append("the daemon ignored SIGTERM and was killed")
    if status != 0:
        failures.append("daemon exit status %s (0 expected after SIGTERM)" % status)
    if gone_at is not None and gone_at < duration - 0.5:
        failures.append("daemon gone at %.1f s, before the closing SIGTERM at %d s"
                        % (gone_at, duration))
    stderr_text = open(os.path.join(run, "daemon.stderr")).read()
    if stderr_text.strip():
        failures.append("daemon wrote to stderr: " + stderr_text.strip().splitlines()[0])

    # Cycles: syncs answered on the one steering connection; the connection's
    # own sync comes first and is not a cycle.
    tf = transcript_facts(os.path.join(run, "transcript.jsonl"))
    syncs = sum(tf["syncs_by_conn"].values())
    cycles = syncs - tf["steering_conns"]
    want = duration * CYCLES_PER_S
    if tf["steering_conns"] != 1:
        failures.append("%d steering connections: the daemon reconnected (a sync timed out; "
                        "a loaded machine may need a larger --factor)" % tf["steering_conns"])
    if cycles < want * 0.995 - 30 or cycles > want + 10:
        failures.append("%d cycles, about %d expected" % (cycles, want))
    log_path = os.path.join(run, "data/vendor/zebusr/zebusr_log.txt")
    err_lines = err_lines_of(paths["log_tool"], log_path)
    if err_lines:
        failures.append("%d ERR lines in the log, first: %s" % (len(err_lines), err_lines[0]))

    # Replay the slow-start tables the daemon read through the history model.
    ht, states, seen = replay_tables(os.path.join(run, "tables.jsonl"), tf["tables_read"])

    warm = [s for s in samples if s[0] >= WARM_FROM]
    if not warm:
        failures.append("no sample after start-up: the daemon ended within %g simulated s"
                        % WARM_FROM)
        warm = samples or [(0.0, 0, 0, 0, 0, 0, 0, 0, 0)]
    base = [s for s in samples if WARM_FROM <= s[0] < FIRST_FLOW - 0.5]
    last_minute = (duration // 60 - 1) * 60
    final = [s for s in samples if last_minute + QUIET_FROM <= s[0] < duration - 0.5]
    if not base or not final:
        failures.append("no sample in the %s window (machine too slow for the sampling?)"
                        % ("baseline" if not base else "final"))
        base = base or warm[:1]
        final = final or warm[-1:]
    b, z = base[-1], final[-1]
    fd_min = min(s[1] for s in warm)
    fd_max = max(s[1] for s in warm)
    if fd_max != fd_min:
        failures.append("open descriptors varied from %d to %d after start-up" % (fd_min, fd_max))
    threads = sorted({s[3] for s in warm})
    if threads != [3]:
        failures.append("thread counts seen after start-up: %s (3 expected)" % threads)

    # Heap: at every sample in a minute's quiet tail, growth since the
    # baseline against the kept nodes the model holds then.
    kept_final = state_at(states, z[0])
    worst = None
    for s in samples:
        if s[0] < FIRST_FLOW or (s[0] % 60) < QUIET_FROM or s[0] >= duration - 0.5:
            continue
        st = state_at(states, s[0])
        over = (s[4] - b[4]) - (st[1] * NODE_BLOCK + a.slack)
        if over > 0 and (worst is None or over > worst[0]):
            worst = (over, s[0], s[4] - b[4], st[1])
    if worst:
        failures.append("heap grew %d B at %.0f s, %d B over %d kept nodes x %d + %d"
                        % (worst[2], worst[1], worst[0], worst[3], NODE_BLOCK, a.slack))
    growth = z[4] - b[4]
    blocks = z[5] - b[5]
    bound = kept_final[1] * NODE_BLOCK + a.slack
    if growth > bound:
        failures.append("heap growth %d B > bound %d B" % (growth, bound))
    allocs_eval = z[6] - b[6]
    if allocs_eval > kept_final[2]:
        failures.append("the evaluation thread allocated %d blocks for %d history nodes created"
                        % (allocs_eval, kept_final[2]))
    rss_growth = z[2] - b[2]
    if rss_growth * 1024 > bound + a.rss_slack_kib * 1024:
        failures.append("resident memory grew %d KiB" % rss_growth)
    per_flow = growth / len(seen) if seen else 0.0

    result = {
        "minutes": a.minutes, "factor": a.factor, "cycles": cycles, "cycles_expected": want,
        "steering_connections": tf["steering_conns"], "answers": tf["answers"],
        "flows_seen": len(seen), "nodes_created": ht.created, "nodes_freed": ht.freed,
        "nodes_orphaned": ht.orphaned, "head_removals": ht.head_removals,
        "kept_nodes_at_final_sample": kept_final[1], "reachable_at_final_sample": kept_final[3],
        "node_size": NODE_SIZE, "node_block": NODE_BLOCK, "slack": a.slack,
        "heap_growth_bytes": growth, "heap_growth_blocks": blocks, "heap_bound_bytes": bound,
        "eval_thread_allocs": allocs_eval, "bytes_per_flow_seen": round(per_flow, 1),
        "baseline": {"t": b[0], "live_bytes": b[4], "live_blocks": b[5], "rss_kib": b[2]},
        "final": {"t": z[0], "live_bytes": z[4], "live_blocks": z[5], "rss_kib": z[2]},
        "rss_growth_kib": rss_growth, "rss_max_kib": max(s[2] for s in warm),
        "fds_min": fd_min, "fds_max": fd_max, "samples": len(samples),
        "daemon_exit_status": status, "failures": failures,
    }
    with open(paths["result"], "w") as f:
        json.dump(result, f, indent=1)

    print("soak: answers %s" % ", ".join("%s %d" % kv for kv in sorted(tf["answers"].items())))
    print("soak: history nodes: %d created, %d freed, %d orphaned by %d head removals; %d kept "
          "(%d reachable) at %.0f s" % (ht.created, ht.freed, ht.orphaned, ht.head_removals,
                                        kept_final[1], kept_final[3], z[0]))
    print("soak: live heap %d B in %d blocks at %.0f s -> %d B in %d blocks at %.0f s; "
          "evaluation thread allocations %d" % (b[4], b[5], b[0], z[4], z[5], z[0], allocs_eval))
    print("soak: resident %d KiB -> %d KiB (max %d); descriptors %d..%d; %d samples"
          % (b[2], z[2], result["rss_max_kib"], fd_min, fd_max, len(samples)))
    print("soak: run directory %s, samples %s" % (run, samples_path))
    for f in failures:
        print("soak: FAIL: " + f)
    print("soak: cycles %d, flows seen %d, fds min %d max %d, heap growth %d B (bound %d B = %d "
          "kept nodes x %d + %d), %.1f bytes per flow seen, exit %s: %s"
          % (cycles, len(seen), fd_min, fd_max, growth, bound, kept_final[1], NODE_BLOCK,
             a.slack, per_flow, status, "FAIL" if failures else "PASS"))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
