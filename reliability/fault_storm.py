#!/usr/bin/env python3
"""Fault storms: zebusrd under the device simulator, one storm per kind of
fault, every run held to what the daemon must do. Run through
reliability/fault-storm.sh, which builds what this needs.

Storms (simulated seconds; the simulator's clock, see sim/README.md):
  a  DULOX_ZEB absent for minutes, then present
  b  the steering module restarting with new family ids
  c  the steering module silent for 10 s
  d  every malformed reply kind at seeded random cycles
  e  every suggestion refused for a minute
  f  each of the three tables unmappable
  g  the core driver absent
  h  1,000 SIGUSR1/SIGUSR2 toggles while cycling
  i  SIGTERM at 200 random points

Every run, whatever its storm, must also leave a log whose every line is
whole and one of the daemon's known lines (zebusr-log check),
whole CSV rows, and no sanitizer report.

Python 3 standard library only.
"""

import argparse
import json
import math
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

# What the daemon's clean-up writes, in this order, after a stop signal.
CLEANUP = [("zebusr_sig_handler", "Signal Handler Invoked!"),
           ("zebusr_cleanup", "Attempting to clean up"),
           ("zebusr_deinit_cap_file", "closing cap file"),
           ("zebusr_deinit_gflow_file", "closing gflow file"),
           ("zebusr_deinit_ssflow_file", "closing ssflow file"),
           ("zebusr_cleanup", "Cleanup Complete")]
SANITIZER = re.compile(r"ERROR: (Address|Leak)Sanitizer|runtime error:|AddressSanitizer:DEADLYSIGNAL")
FORMS = ["short", "len_beyond", "nlmsg_error", "oversize"]
# The receive failure each malformed form makes the daemon log.
FORM_LINE = {"short": "netlink invalid family reply message",
             "len_beyond": "netlink invalid family reply message",
             "oversize": "netlink invalid family reply message",
             "nlmsg_error": "netlink received msg error for family resp",
             "wrong_second_attr": "unable to set family id, response is not correct type"}
PAUSE = 3.0  # the daemon's pause between failed connection attempts, and its receive time-out
SLACK = 1.0  # simulated seconds (0.1 s real) a step may take beyond its design on two busy cores


# ---------------------------------------------------------------- log lines

def tool_out(cmd):
    r = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    return r.returncode, r.stdout.decode(errors="replace"), r.stderr.decode(errors="replace")


class Log:
    """The daemon's log as zebusr-log reads it: (function, level, message) of
    every line that is one of the daemon's, and the problems its check names."""

    def __init__(self, path, tool):
        self.lines = []
        self.problems = []
        if not path.exists():
            return
        rc, out, err = tool_out([tool, "lines", str(path), "--json"])
        if rc != 0:
            self.problems.append("zebusr-log lines: exit %d: %s" % (rc, err.strip()[:200]))
        for rec in map(json.loads, out.splitlines()):
            if rec["key"] is not None:
                self.lines.append((rec["func"], rec["level"], rec["message"]))
        rc, out, err = tool_out([tool, "check", str(path)])
        if rc != 0:
            said = [l.strip() for l in (out + err).splitlines() if l.strip()]
            self.problems += said or ["zebusr-log check: exit %d" % rc]

    def count(self, needle, func=None):
        return sum(1 for f, _, m in self.lines if needle in m and (func is None or f == func))

    def index(self, needle, start=0, func=None):
        for i in range(start, len(self.lines)):
            f, _, m = self.lines[i]
            if needle in m and (func is None or f == func):
                return i
        return -1

    def before_stop(self):
        """The lines before the stop signal's handler (a stop closes the sockets under the threads)."""
        i = self.index("Signal Handler Invoked!")
        return self.lines if i < 0 else self.lines[:i]

    def count_before_stop(self, needle):
        return sum(1 for f, _, m in self.before_stop() if needle in m)

    def missing_in_order(self, wanted):
        at = 0
        for func, msg in wanted:
            at = self.index(msg, at, func)
            if at < 0:
                return msg
            at += 1
        return None


CSV_HEADER = "time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7"
CSV_ROW = re.compile(r"\d\d:\d\d:\d\d\.\d{6},\d+(,\d+){8}")


def csv_problems(text):
    if not text:
        return []
    if not text.endswith("\n"):
        return ["the CSV's last row is not whole: %r" % text[-80:]]
    bad = [r for r in text.split("\n")[:-1] if r != CSV_HEADER and not CSV_ROW.fullmatch(r)]
    return ["CSV line not whole: %r" % bad[0]] if bad else []


# ---------------------------------------------------------------- runs

class Transcript:
    def __init__(self, path):
        self.records = []
        if path.exists():
            for line in path.read_text().splitlines():
                try:
                    self.records.append(json.loads(line))
                except ValueError:
                    pass  # a line still being written
        asked = {}
        self.pairs = []  # (request, answer) in the order answered
        for r in self.records:
            if r.get("dir") == "in":
                asked[r["n"]] = r
            elif r.get("dir") == "out" and r["n"] in asked:
                self.pairs.append((asked[r["n"]], r))
        self.pairs.sort(key=lambda p: p[0]["n"])

    def of(self, kind, family=None):
        return [(i, o) for i, o in self.pairs
                if i["kind"] == kind and (family is None or i.get("family") == family)]

    def answered_syncs(self):
        return [o["t"] for i, o in self.of("sync") if o.get("reply") == "code"]

    def events(self, kind):
        return [r for r in self.records if r.get("dir") == "event" and r.get("kind") == kind]


class Run:
    """One simulator run with the daemon under it, in its own directory."""

    def __init__(self, ctx, storm, label, scenario, factor, verbose, duration=None, tick_ms=None):
        self.ctx = ctx
        self.label = label
        self.dir = ctx.out / storm / label
        shutil.rmtree(self.dir, ignore_errors=True)
        self.dir.mkdir(parents=True)
        self.scenario = scenario
        path = self.dir / "scenario.json"
        path.write_text(json.dumps(scenario, indent=1) + "\n")
        cmd = [ctx.sim, str(path), "-o", str(self.dir), "-f", str(factor), "-q", "--no-report"]
        if duration is not None:
            cmd += ["--duration", str(duration)]
        if tick_ms is not None:
            cmd += ["--tick-ms", str(tick_ms)]
        cmd += ["--", ctx.daemon] + (["verbose"] if verbose else [])
        self.failures = []
        self.status = None
        self.started = time.monotonic()
        self.out = open(self.dir / "sim.out", "w")
        self.proc = subprocess.Popen(cmd, stdout=self.out, stderr=subprocess.STDOUT, env=ctx.env)

    @property
    def log_path(self):
        return self.dir / "data/vendor/zebusr/zebusr_log.txt"

    def log_text(self):
        try:
            return self.log_path.read_text(errors="replace")
        except OSError:
            return ""

    def daemon_pid(self, bound=20):
        end = time.monotonic() + bound
        while time.monotonic() < end:
            try:
                for task in os.listdir("/proc/%d/task" % self.proc.pid):
                    kids = Path("/proc/%d/task/%s/children" % (self.proc.pid, task)).read_text().split()
                    if kids:
                        return int(kids[0])
            except OSError:
                pass
            time.sleep(0.002)
        return None

    def wait_log(self, needle, bound=30):
        end = time.monotonic() + bound
        while time.monotonic() < end:
            if needle in self.log_text():
                return True
            if self.proc.poll() is not None:
                return False
            time.sleep(0.002)
        return False

    def finish(self, bound):
        """Waits for the simulator; the daemon's exit status, or None."""
        try:
            self.proc.wait(bound)
        except subprocess.TimeoutExpired:
            self.fail("the run did not end within %d s: stopped" % bound)
            self.proc.send_signal(signal.SIGINT)
            try:
                self.proc.wait(15)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.out.close()
        self.seconds = time.monotonic() - self.started
        text = (self.dir / "sim.out").read_text(errors="replace")
        m = re.search(r"daemon exit status: (-?\d+)", text)
        self.status = int(m.group(1)) if m else None
        self.trans = Transcript(self.dir / "transcript.jsonl")
        self.log = Log(self.log_path, self.ctx.log_tool)
        for p in self.log.problems[:3]:
            self.fail("log: " + p)
        csv = self.dir / "data/vendor/zebusr/zebusr_caps.csv"
        for p in csv_problems(csv.read_text(errors="replace") if csv.exists() else ""):
            self.fail(p)
        err = (self.dir / "daemon.stderr").read_text(errors="replace") if (self.dir / "daemon.stderr").exists() else ""
        m = SANITIZER.search(err)
        if m:
            self.fail("sanitizer report in daemon.stderr: " + err[m.start():m.start() + 200].replace("\n", " | "))
        return self.status

    def fail(self, why):
        self.failures.append(why)

    def check(self, ok, why):
        if not ok:
            self.fail(why)
        return ok

    def expect_exit(self, status):
        self.check(self.status == status, "exit status %s, expected %d" % (self.status, status))

    def expect_cleanup(self):
        missing = self.log.missing_in_order(CLEANUP)
        self.check(missing is None, "clean-up line missing or out of order: %r" % missing)
        self.check(self.log.count("Signal Handler Invoked!") == 1, "not exactly one \"Signal Handler Invoked!\"")

    def preload(self):
        path = self.dir / "preload.jsonl"
        out = []
        if path.exists():
            for line in path.read_text().splitlines():
                try:
                    out.append(json.loads(line))
                except ValueError:
                    pass
        return out

    def sleeps_by_thread(self, seconds):
        per = {}
        for r in self.preload():
            if r.get("call") == "sleep" and r.get("seconds") == seconds:
                per[r["tid"]] = per.get(r["tid"], 0) + 1
        return per

    def expect_receive_timeouts(self):
        asked = {r.get("seconds") for r in self.preload() if r.get("call") == "SO_RCVTIMEO"}
        self.check(asked == {PAUSE}, "receive time-outs asked: %s, expected only 3 s" % sorted(asked))


def gaps(times):
    return [b - a for a, b in zip(times, times[1:])]


def fmt_gaps(g):
    return "%.2f-%.2f s (mean %.2f)" % (min(g), max(g), sum(g) / len(g)) if g else "none"


def expect_pauses(run, times, what, early=0.01):
    """Consecutive attempts one designed pause apart, never sooner. A pause is
    a sleep on the simulated clock; a receive time-out is kernel time, which
    may end a clock tick (up to 10 ms, so `early` of 0.1 at factor 0.1) early."""
    g = gaps(times)
    ok = [PAUSE - early <= x <= PAUSE + SLACK for x in g]
    # Never sooner; later only now and then, when the machine stalls (a
    # longer pause in the daemon makes them all late, and the median with them).
    stalls = sum(1 for x in g if x > PAUSE + SLACK)
    fine = all(x >= PAUSE - early for x in g) and stalls <= max(1, len(g) // 10) and \
        (not g or sorted(g)[len(g) // 2] <= PAUSE + SLACK)
    run.check(fine, "%s not %.0f s apart: %s" % (what, PAUSE, ["%.2f" % x for x, good in zip(g, ok) if not good][:5]))
    return g


# ---------------------------------------------------------------- scenarios

def quiet_device(name, **extra):
    s = {"name": name, "description": "fault storm " + name}
    s.update(extra)
    return s


def busy_device(name, **extra):
    """The default scenario's phone: every kind of decision happens."""
    s = json.loads((ROOT / "scenarios/default.json").read_text())
    s["name"] = name
    s.update(extra)
    return s


# ---------------------------------------------------------------- storms

class Storm:
    def __init__(self, key, title, asserted):
        self.key, self.title, self.asserted = key, title, asserted
        self.runs = []
        self.figures = []
        self.gaps, self.values = [], []

    def add(self, run):
        self.runs.append(run)
        return run


def storm_a(ctx, rng):
    """DULOX_ZEB absent for minutes: a lookup every 3 s, then cycling."""
    st = Storm("a", "steering family absent for minutes",
               "lookups 3 s apart while absent, one 3-s pause per failure, attempts counted 0..n-1, "
               "COMPLETE on attempt n, cycling at once after, boosts meanwhile, exit 0")
    for k in range(1 if ctx.quick else 3):
        absent = round(rng.uniform(45, 75) if ctx.quick else rng.uniform(120, 600), 1)
        sc = quiet_device("absent-%d" % k, duration_s=absent + 20,
                          processes=[{"pid": 4242, "name": "upload", "tx_bps": 800000000}],
                          faults=[{"kind": "family_absent", "family": "DULOX_ZEB", "to_s": absent}])
        run = st.add(Run(ctx, "a", "absent-%gs" % absent, sc, 0.1, True))
        run.finish(absent * 0.1 + 60)
        run.expect_exit(0)
        run.expect_cleanup()
        looks = run.trans.of("family_lookup", "DULOX_ZEB")
        failed = [i["t"] for i, o in looks if o.get("reply") == "error"]
        found = [i["t"] for i, o in looks if o.get("reply") == "family"]
        run.check(failed and all(t < absent for t in failed), "failed lookups outside the absence")
        g = expect_pauses(run, failed + found[:1], "lookups while absent")
        n = len(failed)
        run.check(math.floor(absent / (PAUSE + SLACK)) <= n <= math.ceil(absent / PAUSE),
                  "%d failed lookups in %g s" % (n, absent))
        run.check(bool(found) and absent <= found[0] <= absent + PAUSE + SLACK,
                  "family found at %s, absence ended at %g" % (found[:1], absent))
        pauses = run.sleeps_by_thread(3)
        run.check(sorted(pauses.values()) == [n], "3-s pauses per thread %s, expected one thread with %d" % (pauses, n))
        attempts = [int(m.rsplit(" ", 1)[1]) for f, _, m in run.log.lines if "zebusr_connect_to_dulox_zeb failed on attempt" in m]
        run.check(attempts == list(range(n)), "failed attempts logged %s..., expected 0..%d" % (attempts[:3], n - 1))
        run.check(run.log.count("zebusr_connect_to_dulox_zeb COMPLETE on attempt %d" % n) == 1,
                  "no \"COMPLETE on attempt %d\"" % n)
        syncs = run.trans.answered_syncs()
        run.check(bool(found) and all(t >= found[0] for t in syncs), "a sync before the family was found")
        run.check(bool(syncs) and syncs[0] - found[0] < 1, "cycling did not start at once")
        run.check(len(syncs) >= 0.5 * (sc["duration_s"] - absent) / 0.1, "only %d cycles after" % len(syncs))
        queries = [o["t"] for i, o in run.trans.of("pid_bps_query") if o.get("reply") == "pid_bps" and o["t"] < absent]
        run.check(len(queries) >= absent * 0.8, "boost thread: %d queries during the absence" % len(queries))
        st.gaps += g
        st.values.append((absent, n))
    st.figures.append("absences of %s s, %s failed lookups, gaps %s" % (
        "/".join("%.0f" % v[0] for v in st.values), "/".join("%d" % v[1] for v in st.values), fmt_gaps(st.gaps)))
    return st


def storm_b(ctx, rng):
    """Module restarts: the daemon reconnects and uses the new id."""
    st = Storm("b", "steering module restarts with new family ids",
               "one reconnection per restart, old id answered ENOENT, new id looked up within "
               "time-out + pause, every later request on the new id, cycling after; a restarted "
               "core driver is not reconnected (its queries fail each second); exit 0")
    n_runs = 1 if ctx.quick else 9
    for k in range(n_runs):
        tick = [100, 10, 2][k % 3]
        core_too = k % 3 == 2 or n_runs == 1
        # Steering ids below 200, core ids from 200: a request's id tells its family.
        restarts, t, zeb = [], rng.uniform(4, 8), 30
        for j in range(2 if ctx.quick else 3):
            down = rng.choice([0, 0, round(rng.uniform(0.5, 7), 1)])
            new = rng.choice([x for x in range(40, 200) if x != zeb])
            ids = {"DULOX_ZEB": new}
            if core_too and j == 0:
                ids["DULOX_CORE"] = rng.randrange(200, 400)
            restarts.append({"kind": "restart", "at_s": round(t, 2), "down_s": down, "family_ids": ids})
            zeb = new
            t += down + rng.uniform(12, 18)
        sc = quiet_device("restart-%d" % k, duration_s=round(t, 1),
                          processes=[{"pid": 4242, "name": "upload", "tx_bps": 800000000}],
                          faults=restarts)
        run = st.add(Run(ctx, "b", "restart-%d-tick%d" % (k, tick), sc, 0.1, True, tick_ms=tick))
        run.finish(t * 0.1 + 60)
        run.expect_exit(0)
        run.expect_cleanup()
        steering = [(i, o) for i, o in run.trans.pairs if i["kind"] in ("sync", "suggestion", "segmentation", "malformed")
                    and i.get("type", 0) not in (16, 31) and i.get("type", 0) < 200]
        looks = run.trans.of("family_lookup", "DULOX_ZEB")
        reconnects = run.log.count_before_stop("sync failed, attempting to reconnect")
        run.check(reconnects == len(restarts), "%d reconnections for %d restarts" % (reconnects, len(restarts)))
        old, bounds = 30, [r["at_s"] for r in restarts] + [sc["duration_s"] + 1]
        for j, r in enumerate(restarts):
            new, at, back = r["family_ids"]["DULOX_ZEB"], r["at_s"], r["at_s"] + r["down_s"]
            era = [(i, o) for i, o in steering if at <= i["t"] < bounds[j + 1]]
            stale = [(i, o) for i, o in era if i.get("type") == old]
            run.check(all(o.get("reply") == "error" and o.get("error") == -2 for i, o in stale),
                      "restart %d: a request with old id %d was answered" % (j, old))
            first_new = next((i["t"] for i, o in era if i.get("type") == new), None)
            run.check(first_new is not None and all(i["t"] < first_new for i, o in stale),
                      "restart %d: old id %d used after the new one" % (j, old))
            run.check(all(i.get("type") in (old, new) for i, o in era), "restart %d: a request with an unknown id" % j)
            ok = [i["t"] for i, o in looks if o.get("reply") == "family" and o.get("id") == new]
            run.check(bool(ok) and back <= ok[0] <= max(at, back) + PAUSE + 2 * SLACK,
                      "restart %d at %g (back %g): id %d looked up at %s" % (j, at, back, new, ok[:1]))
            away = [i["t"] for i, o in looks if at <= i["t"] < back]
            run.check(all(o.get("reply") == "error" for i, o in looks if at <= i["t"] < back), "restart %d: a lookup answered while away" % j)
            if away:
                expect_pauses(run, away + ok[:1], "restart %d: lookups while away" % j)
            cycles = [t for t in run.trans.answered_syncs() if ok and ok[0] <= t < bounds[j + 1]]
            run.check(len(cycles) >= 20, "restart %d: only %d cycles after reconnecting" % (j, len(cycles)))
            run.check(run.log.count("ZEB Family id = %d seq_num" % new) >= 1, "restart %d: no \"ZEB Family id = %d\"" % (j, new))
            old = new
        core_looks = run.trans.of("family_lookup", "DULOX_CORE")
        run.check(len(core_looks) == 1, "%d core lookups, expected the first only" % len(core_looks))
        if core_too:
            at = restarts[0]["at_s"]
            after = [(i, o) for i, o in run.trans.pairs if i["t"] > at + 0.01 and (i.get("type") == 31 or i.get("type", 0) >= 200)]
            run.check(len(after) >= (sc["duration_s"] - at) * 0.7 and all(i.get("type") == 31 and o.get("error") == -2 for i, o in after),
                      "restarted core driver: queries after it %d, not all old id 31 refused" % len(after))
            fails = run.log.count("netlink failed to send to fd", "zebusr_genl_recv_pid_byte_info_from_kernel")
            run.check(fails >= len(after) - 2, "%d failed throughput answers logged for %d queries" % (fails, len(after)))
        st.values += [(r["down_s"], core_too and j == 0, tick) for j, r in enumerate(restarts)]
    downs = [v[0] for v in st.values if v[0]]
    st.figures.append("%d restarts at ticks of %s ms, %d with the family away %s s, %d of the core driver too" % (
        len(st.values), "/".join(str(t) for t in sorted({v[2] for v in st.values}, reverse=True)), len(downs),
        "%.1f-%.1f" % (min(downs), max(downs)) if downs else "0", sum(1 for v in st.values if v[1])))
    return st


def storm_c(ctx, rng):
    """Silent for 10 s: time-outs, fresh sockets, no pauses, then cycling."""
    st = Storm("c", "steering module silent for 10 s",
               "one reconnection, syncs retried every 3 s (time-out, no pause), a fresh socket "
               "and lookup per attempt, tables reopened only after, boosts go on, cycling after, exit 0")
    for k in range(1 if ctx.quick else 8):
        x = round(rng.uniform(3, 10), 2)
        sc = quiet_device("silent-%d" % k, duration_s=round(x + 18, 1),
                          processes=[{"pid": 4242, "name": "upload", "tx_bps": 800000000}],
                          faults=[{"kind": "silent", "on": "steering", "from_s": x, "to_s": x + 10}])
        run = st.add(Run(ctx, "c", "silent-at-%gs" % x, sc, 0.1, True))
        run.finish(sc["duration_s"] * 0.1 + 60)
        run.expect_exit(0)
        run.expect_cleanup()
        run.expect_receive_timeouts()
        syncs = run.trans.of("sync")
        lost = [i["t"] for i, o in syncs if o.get("reply") == "none"]
        run.check(bool(lost) and x <= lost[0] <= x + 0.1 + SLACK and lost[-1] < x + 10, "unanswered syncs at %s" % lost[:6])
        g = expect_pauses(run, lost, "unanswered syncs", early=0.1)
        back = [o["t"] for i, o in syncs if o.get("reply") == "code" and i["t"] >= x + 10]
        run.check(bool(back) and bool(lost) and back[0] - lost[-1] <= PAUSE + SLACK, "cycling resumed at %s" % back[:1])
        n = len(lost)
        run.check(run.log.count_before_stop("sync failed, attempting to reconnect") == 1,
                  "not exactly one reconnection")
        failed = run.log.count_before_stop("zebusr_sync failed")
        run.check(failed == n - 1, "%d failed connection syncs for %d unanswered" % (failed, n))
        run.check(run.log.count("zebusr_connect_to_dulox_zeb COMPLETE on attempt %d" % (n - 1)) == 1, "no COMPLETE on attempt %d" % (n - 1))
        if lost and back:
            conns = [e for e in run.trans.events("connect") if lost[0] < e["t"] <= back[0]]
            looks = [i for i, o in run.trans.of("family_lookup", "DULOX_ZEB") if lost[0] < i["t"] <= back[0]]
            run.check(len(conns) == n and len(looks) == n, "%d sockets and %d lookups for %d attempts" % (len(conns), len(looks), n))
        run.check(sum(run.sleeps_by_thread(3).values()) == 0, "a 3-s pause after a failed sync")
        run.check(run.log.count("open pathname = /proc/zeb/dulox_zeb_caps") == 2, "tables opened other than once per connection")
        queries = [o["t"] for i, o in run.trans.of("pid_bps_query") if x <= o["t"] < x + 10 and o.get("reply") == "pid_bps"]
        run.check(len(queries) >= 8, "boost thread: %d answered queries while silent" % len(queries))
        run.check(len(back) >= 40, "only %d cycles after" % len(back))
        st.gaps += g
        st.values.append(n)
    st.figures.append("%d silences, %s syncs lost in each, lost syncs %s apart" % (
        len(st.runs), "/".join(str(v) for v in st.values), fmt_gaps(st.gaps)))
    return st


def storm_d(ctx, rng):
    """Every malformed reply kind at seeded random cycles."""
    st = Storm("d", "every malformed reply kind at random cycles",
               "each fault applied once; a malformed sync reconnects at once; a malformed suggestion "
               "answer makes the policy offer the next gold CPU in the same cycle; a malformed "
               "segmentation answer is asked again next cycle; a malformed lookup pauses 3 s; a "
               "malformed throughput answer skips that second's boost; the core driver's lookups "
               "fail 5 times and attempt 5 connects; the log names each receive failure; exit 0")
    for k in range(1 if ctx.quick else 6):
        steering_run(ctx, st, rng, k)
    for k in range(1 if ctx.quick else 2):
        core_lookup_run(ctx, st, rng, k)
    st.figures.append("%d runs of %d faults each over %.0f s, %d runs of 5 malformed core lookups" % (
        len(st.values), st.values[0], st.runs[0].scenario["duration_s"], len(st.runs) - len(st.values)))
    return st


def steering_run(ctx, st, rng, k):
    slots = [("sync", f) for f in FORMS] + [("suggestion", f) for f in FORMS] + \
            [("segmentation", f) for f in FORMS] + [("lookup", f) for f in FORMS + ["wrong_second_attr"]]
    rng.shuffle(slots)
    faults, flows, width, t0 = [], [], 6.0, 3.0
    for j, (on, form) in enumerate(slots):
        start = t0 + j * width
        at = round(start + rng.uniform(0, 1.5), 2)
        f = {"kind": "malformed_reply", "on": on, "form": form, "from_s": at, "to_s": start + 5, "times": 1}
        if on == "lookup":
            f["family"] = "DULOX_ZEB"
            f["from_s"] = start
            faults.append({"kind": "reply_code", "on": "sync", "code": -1, "from_s": at, "to_s": start + 5, "times": 1,
                           "comment": "a reconnection, so that a lookup follows"})
        if on == "segmentation":
            flows.append({"hash": "0x5e%02x" % j, "name": "fast-%d" % j, "cpu": 3, "slow_start": True,
                          "pps": 3000, "bps": 500000000, "start_s": at, "end_s": start + 5.5})
        faults.append(f)
    end = t0 + len(slots) * width + 3
    pid_faults = [{"kind": "malformed_reply", "on": "pid_bps_query", "form": f} for f in FORMS] + \
                 [{"kind": "pid_record", "valid": 0}, {"kind": "pid_record", "list_len": 33}]
    starts = sorted(rng.sample(range(1, int((end - 5) / 4)), len(pid_faults)))
    rng.shuffle(pid_faults)
    for f, s in zip(pid_faults, starts):
        f.update({"from_s": s * 4 + round(rng.uniform(0, 1), 2), "to_s": s * 4 + 3.5, "times": 1})
        faults.append(f)
    sc = quiet_device("malformed-%d" % k, duration_s=round(end, 1), flows=flows,
                      cpus=[{"cpu": 2, "load_pps": 95000, "comment": "loaded: an UP suggestion every cycle"}],
                      processes=[{"pid": 4242, "name": "upload", "tx_bps": 800000000}], faults=faults)
    run = st.add(Run(ctx, "d", "malformed-%d" % k, sc, 0.1, True))
    run.finish(end * 0.1 + 60)
    run.expect_exit(0)
    run.expect_cleanup()
    pairs = run.trans.pairs
    applied = {}
    for idx, (i, o) in enumerate(pairs):
        m = re.search(r"\(faults/(\d+)\)", o.get("fault", ""))
        if m:
            applied.setdefault(int(m.group(1)), []).append(idx)
    for n, f in enumerate(faults):
        run.check(len(applied.get(n, [])) == 1, "fault %d (%s %s) applied %d times" % (
            n, f["kind"], f.get("on", ""), len(applied.get(n, []))))
    expect_lines = {}
    syncs_failed = 0
    for n, f in enumerate(faults):
        if len(applied.get(n, [])) != 1:
            continue
        idx = applied[n][0]
        i, o = pairs[idx]
        later = [p for p in pairs[idx + 1:] if p[0].get("conn") == i["conn"] or p[0]["kind"] == "family_lookup"]
        later_steer = [p for p in pairs[idx + 1:] if p[0]["kind"] in ("sync", "suggestion", "segmentation", "family_lookup")
                       and p[0].get("family") != "DULOX_CORE"]
        form = f.get("form")
        if form:
            expect_lines[FORM_LINE[form]] = expect_lines.get(FORM_LINE[form], 0) + 1
        what = "%s %s at %.1f" % (f.get("on", f["kind"]), form or "", i["t"])
        if f["kind"] == "reply_code" or f.get("on") == "sync":
            syncs_failed += 1
            nxt = later_steer[0] if later_steer else None
            run.check(nxt is not None and nxt[0]["kind"] == "family_lookup" and nxt[0]["t"] - i["t"] < 0.5,
                      "%s: no reconnection at once" % what)
        elif f.get("on") == "suggestion":
            nxt = later_steer[0] if later_steer else None
            run.check(nxt is not None and nxt[0]["kind"] == "suggestion" and nxt[0]["sugg_type"] == "UP"
                      and nxt[0]["dest_cpu"] == i["dest_cpu"] + 1 and nxt[0]["conn"] == i["conn"],
                      "%s: the next gold CPU was not offered in the same cycle" % what)
        elif f.get("on") == "segmentation":
            again = [p for p in later_steer if p[0]["kind"] == "segmentation" and p[0]["hash"] == i["hash"]]
            between = [p[0]["kind"] for p in later_steer if again and p[0]["n"] < again[0][0]["n"]]
            run.check(len(again) == 1 and again[0][1].get("result") == "accepted" and between.count("sync") == 1
                      and "family_lookup" not in between,
                      "%s: not asked again (and only again) in the next cycle" % what)
        elif f.get("on") == "lookup":
            nxt = [p for p in later if p[0]["kind"] == "family_lookup" and p[0].get("family") == "DULOX_ZEB"]
            run.check(bool(nxt) and PAUSE - 0.01 <= nxt[0][0]["t"] - i["t"] <= PAUSE + SLACK and nxt[0][1].get("reply") == "family",
                      "%s: next lookup not one 3-s pause later" % what)
        else:  # the throughput query
            nxt = [p for p in pairs[idx + 1:] if p[0]["kind"] in ("pid_bps_query", "boost")]
            run.check(bool(nxt) and nxt[0][0]["kind"] == "pid_bps_query" and 0.9 <= nxt[0][0]["t"] - i["t"] <= 1 + SLACK,
                      "%s: a boost followed, or the next query was not a second later" % what)
    for line, n in expect_lines.items():
        run.check(run.log.count(line) == n, "%d \"%s\" lines, expected %d" % (run.log.count(line), line, n))
    run.check(run.log.count("error: info is not valid") == 2 and run.log.count("Invalid list len") == 2,
              "invalid throughput records not each reported twice")
    got = run.log.count_before_stop("sync failed, attempting to reconnect")
    run.check(got == syncs_failed, "%d reconnections for %d failed syncs" % (got, syncs_failed))
    st.values.append(len(faults))


def core_lookup_run(ctx, st, rng, k):
    forms = FORMS + ["wrong_second_attr"]
    rng.shuffle(forms)
    faults = [{"kind": "malformed_reply", "on": "lookup", "family": "DULOX_CORE", "form": f, "times": 1} for f in forms]
    sc = quiet_device("malformed-core-lookup-%d" % k, duration_s=30,
                      processes=[{"pid": 4242, "name": "upload", "tx_bps": 800000000}], faults=faults)
    run = st.add(Run(ctx, "d", "core-lookups-%d" % k, sc, 0.1, True))
    run.finish(30 * 0.1 + 60)
    run.expect_exit(0)
    run.expect_cleanup()
    looks = run.trans.of("family_lookup", "DULOX_CORE")
    run.check([o.get("form") for i, o in looks[:5]] == forms and looks[5:6] and looks[5][1].get("reply") == "family",
              "core lookups answered %s" % [o.get("form", o.get("reply")) for i, o in looks])
    expect_pauses(run, [i["t"] for i, o in looks], "core lookups")
    run.check(run.log.count("duloxusr_connect_to_dulox_core COMPLETE on attempt 5") == 1, "no COMPLETE on attempt 5")
    for form in set(forms):
        want = sum(1 for f in forms if FORM_LINE[f] == FORM_LINE[form])
        run.check(run.log.count(FORM_LINE[form]) >= want, "\"%s\" logged fewer than %d times" % (FORM_LINE[form], want))
    answered = [o["t"] for i, o in run.trans.of("pid_bps_query") if o.get("reply") == "pid_bps"]
    run.check(len(answered) >= 8, "only %d throughput answers after connecting" % len(answered))
    run.check(len([t for t in run.trans.answered_syncs() if t > 25]) >= 20, "not cycling at the end")


def storm_e(ctx, rng):
    """Every suggestion refused for a minute."""
    st = Storm("e", "every suggestion refused for a minute",
               "each cycle offers UP to every gold CPU in table order, then DOWN, then BAL, all "
               "refused; no reconnection, cycles keep their pace; after the minute an UP is the "
               "first move accepted, and nothing follows an accepted move in its cycle; exit 0")
    codes = rng.sample([-16, -22, -2, -1, 5], 5)
    for k in range(1 if ctx.quick else 3):
        code = codes[k]
        r0 = round(rng.uniform(2, 5), 2)
        sc = quiet_device("refused-%d" % k, duration_s=round(r0 + 70, 1),
                          cpus=[{"cpu": 0, "load_pps": 10000}, {"cpu": 1, "load_pps": 10000},
                                {"cpu": 2, "load_pps": 45000}, {"cpu": 3, "load_pps": 10000},
                                {"cpu": 6, "load_pps": 60000}],
                          flows=[{"hash": "0x2222", "name": "heavy", "cpu": 2, "pps": 52000, "start_s": r0 + 0.2},
                                 {"hash": "0xd0d0", "name": "down", "cpu": 5, "pps": 40000, "start_s": r0 + 0.2},
                                 {"hash": "0xc0c0", "name": "first", "cpu": 6, "pps": 60000, "start_s": r0 + 0.2},
                                 {"hash": "0xd00d", "name": "second", "cpu": 6, "pps": 60000, "start_s": r0 + 0.2}],
                          faults=[{"kind": "reply_code", "on": "suggestion", "code": code,
                                   "from_s": r0, "to_s": r0 + 60}])
        run = st.add(Run(ctx, "e", "refused-%d-code%d" % (k, code), sc, 0.1, False))
        run.finish(sc["duration_s"] * 0.1 + 60)
        run.expect_exit(0)
        run.expect_cleanup()
        cycles, cur = [], None
        for i, o in run.trans.pairs:
            if i["kind"] == "sync":
                cur = {"t": o["t"], "moves": []}
                cycles.append(cur)
            elif i["kind"] == "suggestion" and cur is not None:
                cur["moves"].append((i["sugg_type"], i["dest_cpu"], o.get("result"), bool(o.get("fault"))))
        # Once a second of samples has filled the averages.
        inside = [c for c in cycles if r0 + 1.5 <= c["t"] < r0 + 59.5]
        shapes = {tuple((m[0], m[1]) for m in c["moves"]) for c in inside}
        shape = next(iter(shapes)) if len(shapes) == 1 else ()
        types = [m[0] for m in shape]
        run.check(len(shapes) == 1 and [m[1] for m in shape[:4]] == [4, 5, 6, 7] and types[:4] == ["UP"] * 4
                  and "DOWN" in types and "BAL" in types and types == sorted(types, key=["UP", "DOWN", "BAL"].index),
                  "refused cycles tried %s" % sorted(shapes)[:2])
        run.check(all(m[2] == "refused" and m[3] for c in inside for m in c["moves"]), "a suggestion not refused in the minute")
        run.check(len(inside) >= 0.9 * 58 / 0.1, "only %d cycles in the minute" % len(inside))
        run.check(not any(m for c in cycles if c["t"] < r0 for m in c["moves"]), "a suggestion before the flows")
        run.check(run.log.count_before_stop("sync failed, attempting to reconnect") == 0, "a reconnection")
        # A cycle that straddles the window's end may have a later move accepted.
        accepted = [m for c in cycles if c["t"] >= r0 + 60 for m in c["moves"] if m[2] == "accepted"]
        run.check(accepted[:1] == [("UP", accepted[0][1] if accepted else 4, "accepted", False)],
                  "first move accepted after the minute: %s" % accepted[:1])
        # An accepted move ends the cycle's steering.
        run.check(all(m[2] != "accepted" for c in cycles for m in c["moves"][:-1]), "a suggestion after an accepted move")
        st.values.append((code, len(inside), len(shape)))
    st.figures.append("codes %s: %s cycles in the minute, %s refused suggestions in each" % tuple(
        "/".join(str(v[i]) for v in st.values) for i in range(3)))
    return st


def storm_f(ctx, rng):
    """A table that cannot be mapped: an exit of status 0 in the first cycle."""
    st = Storm("f", "each table unmappable",
               "the mmap error line, its table closed twice, clean-up, exit 0 by itself in the "
               "first cycle (two syncs), no signal")
    lines = {"caps": ("zebusr_read_capacities", "mmap failure: No such device", "closing cap file"),
             "flows": ("zebusr_read_gold_flows", "mmap: No such device", "closing gflow file"),
             "ss_flows": ("zebusr_read_ss_flows", "mmap: No such device", "closing ssflow file")}
    for k in range(1 if ctx.quick else 5):
        for table, (func, error, closing) in lines.items():
            verbose = rng.random() < 0.5
            sc = quiet_device("unmappable-%s" % table, duration_s=60,
                              faults=[{"kind": "table_unmappable", "table": table}])
            run = st.add(Run(ctx, "f", "%s-%d" % (table, k), sc, 0.1, verbose, tick_ms=rng.choice([100, 10])))
            run.finish(60)
            run.expect_exit(0)
            miss = run.log.missing_in_order([("zebusr_connect_to_dulox_zeb", "CONNECTED to dulox_zeb.ko"), (func, error)] +
                                            CLEANUP[1:])
            run.check(miss is None, "line missing or out of order: %r" % miss)
            run.check(run.log.count(closing) == 2, "\"%s\" %d times" % (closing, run.log.count(closing)))
            run.check(run.log.count("Signal Handler Invoked!") == 0, "ended by a signal")
            run.check(len(run.trans.answered_syncs()) == 2, "%d syncs answered" % len(run.trans.answered_syncs()))
            run.check(run.seconds < 30, "took %.0f s" % run.seconds)
    st.figures.append("%d runs, each over in %.2f s on average" % (len(st.runs), sum(r.seconds for r in st.runs) / len(st.runs)))
    return st


def storm_g(ctx, rng):
    """The core driver absent: 30 attempts, then steering alone."""
    st = Storm("g", "core driver absent",
               "30 lookups 3 s apart, 29 pauses, attempts 0..29, the give-up lines, no throughput "
               "query ever, main never exits, steering cycles on after, exit 0")
    for k in range(1 if ctx.quick else 3):
        # 90 s of lookups, with room for a stall of the machine.
        dur = round(130 + rng.uniform(0, 10), 1)
        sc = quiet_device("core-absent-%d" % k, duration_s=dur,
                          processes=[{"pid": 4242, "name": "upload", "tx_bps": 800000000}],
                          faults=[{"kind": "family_absent", "family": "DULOX_CORE"}])
        verbose = k % 2 == 0
        run = st.add(Run(ctx, "g", "core-absent-%d%s" % (k, "-verbose" if verbose else ""), sc, 0.1, verbose))
        run.finish(dur * 0.1 + 60)
        run.expect_exit(0)
        run.expect_cleanup()
        looks = [i["t"] for i, o in run.trans.of("family_lookup", "DULOX_CORE") if o.get("reply") == "error"]
        run.check(len(looks) == 30 and len(run.trans.of("family_lookup", "DULOX_CORE")) == 30, "%d core lookups" % len(looks))
        g = expect_pauses(run, looks, "core lookups")
        run.check(29 in run.sleeps_by_thread(3).values(), "no thread paused 29 times: %s" % run.sleeps_by_thread(3))
        attempts = [int(m.rsplit(" ", 1)[1]) for f, _, m in run.log.lines if "duloxusr_connect_to_dulox_core failed on attempt" in m]
        run.check(attempts == (list(range(30)) if verbose else []), "core attempts logged %s" % attempts[:3])
        miss = run.log.missing_in_order([("duloxusr_connect_loop", "Core Driver not accepting connections -30 attempts made"),
                                         ("dulox_freq_boost_monitor", "Dulox Core Driver Thread Exited -dulox_core driver did not respond")])
        run.check(miss is None, "missing: %r" % miss)
        run.check(run.log.count("CONNECTED to dulox core driver") == 0 and run.log.count("Exiting main") == 0, "core connected, or main exited")
        run.check(not run.trans.of("pid_bps_query") and not run.trans.of("boost"), "a throughput query or boost was sent")
        tail = [t for t in run.trans.answered_syncs() if t > looks[-1] + 1] if looks else []
        run.check(len(tail) >= 0.5 * (dur - 90) / 0.1, "only %d cycles after the boost thread ended" % len(tail))
        st.gaps += g
    st.figures.append("%d runs of 30 core lookups, %s apart" % (len(st.runs), fmt_gaps(st.gaps)))
    return st


class LogTail:
    """Counts lines of a growing log that contain a needle, reading only what is new."""

    def __init__(self, path, needles):
        self.path, self.offset, self.carry = path, 0, b""
        self.counts = {n: 0 for n in needles}

    def poll(self):
        try:
            with open(self.path, "rb") as f:
                f.seek(self.offset)
                data = f.read()
        except OSError:
            return self.counts
        self.offset += len(data)
        data = self.carry + data
        cut = data.rfind(b"\n") + 1
        self.carry = data[cut:]
        for n in self.counts:
            self.counts[n] += data[:cut].count(n.encode())
        return self.counts


def answered_syncs_so_far(run):
    try:
        return (run.dir / "transcript.jsonl").read_bytes().count(b'"kind":"sync","reply":"code"')
    except OSError:
        return 0


def storm_h(ctx, rng):
    """SIGUSR1/SIGUSR2 toggles while cycling."""
    toggles = 200 if ctx.quick else 1000
    st = Storm("h", "%d SIGUSR1/SIGUSR2 toggles while cycling" % toggles,
               "every toggle handled (its HIGH line) within 5 s, a quarter of them as USR1+USR2 "
               "back to back, still cycling after (no deadlock), exit 0 on SIGTERM, every log line "
               "whole and known, every CSV row whole")
    on_line, off_line = "(HIGH): Starting verbose logging", "(HIGH): Stopping verbose logging"
    for k in range(1 if ctx.quick else 3):
        verbose, tick = k % 2 == 1, [20, 5, 2][k]
        sc = busy_device("toggles-%d" % k, duration_s=1500)
        run = st.add(Run(ctx, "h", "toggles-%d-tick%d%s" % (k, tick, "-verbose" if verbose else ""), sc, 0.1,
                         verbose, tick_ms=tick))
        pid = run.daemon_pid()
        sent = {signal.SIGUSR1: 0, signal.SIGUSR2: 0}
        tail = LogTail(run.log_path, [on_line, off_line])
        if run.check(pid is not None and run.wait_log("CONNECTED to dulox_zeb.ko"), "daemon did not connect"):
            n = 0
            while n < toggles and not run.failures:
                # The same signal twice pending would merge into one: each round
                # waits for its toggles to be handled before the next.
                burst = n % 2 == 0 and n + 1 < toggles and rng.random() < 0.25
                sigs = [signal.SIGUSR1, signal.SIGUSR2] if burst else [signal.SIGUSR1 if n % 2 == 0 else signal.SIGUSR2]
                for sig in sigs:
                    try:
                        os.kill(pid, sig)
                        sent[sig] += 1
                    except ProcessLookupError:
                        run.fail("daemon gone after %d toggles" % n)
                n += len(sigs)
                end = time.monotonic() + 5
                while (tail.poll()[on_line], tail.counts[off_line]) != (sent[signal.SIGUSR1], sent[signal.SIGUSR2]):
                    if time.monotonic() > end:
                        run.fail("toggle %d not handled within 5 s (deadlock or lost signal)" % n)
                        break
                    time.sleep(0.0005)
                time.sleep(rng.uniform(0, 0.01))
            before = answered_syncs_so_far(run)
            time.sleep(1.0)
            after = answered_syncs_so_far(run)
            run.check(after - before >= 10, "deadlock? %d cycles in the second after the toggles" % (after - before))
            try:
                os.kill(pid, signal.SIGTERM)
            except ProcessLookupError:
                pass
        run.finish(60)
        run.expect_exit(0)
        run.expect_cleanup()
        on, off = run.log.count("Starting verbose logging"), run.log.count("Stopping verbose logging")
        run.check(on == sent[signal.SIGUSR1] and off == sent[signal.SIGUSR2],
                  "handled %d/%d SIGUSR1 and %d/%d SIGUSR2" % (on, sent[signal.SIGUSR1], off, sent[signal.SIGUSR2]))
        run.check(run.log.count("CSV File opened") == on, "CSV not opened at every SIGUSR1")
        st.figures.append("tick %d ms: %d toggles, %d log lines, %d cycles, %.0f s" % (
            tick, sum(sent.values()), len(run.log.lines), len(run.trans.answered_syncs()), run.seconds))
    return st


def storm_i(ctx, rng):
    """SIGTERM at random points."""
    points = 20 if ctx.quick else 200
    st = Storm("i", "SIGTERM at %d random points" % points,
               "exit status 0 every time, the handler and clean-up lines in order, log whole")
    kinds = ["busy", "silent", "absent", "core-absent"]
    for k in range(points):
        kind = rng.choice(kinds)
        extra = {"duration_s": 60}
        if kind == "silent":
            a = round(rng.uniform(0.5, 4), 2)
            extra["faults"] = [{"kind": "silent", "on": "steering", "from_s": a, "to_s": a + rng.uniform(1, 8)}]
        elif kind == "absent":
            extra["faults"] = [{"kind": "family_absent", "family": "DULOX_ZEB", "to_s": rng.uniform(1, 10)}]
        elif kind == "core-absent":
            extra["faults"] = [{"kind": "family_absent", "family": "DULOX_CORE"}]
        delay = rng.uniform(0, 0.05) if rng.random() < 0.25 else rng.uniform(0.05, 1.6)
        run = st.add(Run(ctx, "i", "%03d-%s-%.3fs" % (k, kind, delay), busy_device("term-%d" % k, **extra), 0.1,
                         rng.random() < 0.5))
        run.kind = kind
        pid = run.daemon_pid()
        if run.check(pid is not None and run.wait_log("Starting zeb_eval_thread..."), "daemon did not start"):
            time.sleep(delay)
            try:
                os.kill(pid, signal.SIGTERM)
            except ProcessLookupError:
                run.fail("daemon gone before its SIGTERM")
        run.finish(60)
        run.expect_exit(0)
        run.expect_cleanup()
    st.figures.append("%d points (%s), %.1f s a run" % (
        points, ", ".join("%d %s" % (sum(1 for r in st.runs if r.kind == k), k) for k in kinds),
        sum(r.seconds for r in st.runs) / max(1, len(st.runs))))
    return st


STORMS = {"a": storm_a, "b": storm_b, "c": storm_c, "d": storm_d, "e": storm_e,
          "f": storm_f, "g": storm_g, "h": storm_h, "i": storm_i}


# ---------------------------------------------------------------- main

class Context:
    pass


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--daemon", required=True)
    ap.add_argument("--sim", required=True)
    ap.add_argument("--log-tool", required=True, help="zebusr-log, which reads every run's log")
    ap.add_argument("--quick", action="store_true", help="fewer and shorter runs (a few minutes)")
    ap.add_argument("--seed", type=int, help="seed of every random choice (default: new each time)")
    ap.add_argument("--only", default="".join(STORMS), help="storms to run, e.g. a,c,h")
    ap.add_argument("--keep", action="store_true", help="keep the directories of passed runs too")
    ap.add_argument("--out", help="where the run directories go (default out/storm/<time>)")
    a = ap.parse_args()

    ctx = Context()
    ctx.quick = a.quick
    ctx.seed = a.seed if a.seed is not None else random.SystemRandom().randrange(1, 1 << 31)
    ctx.daemon, ctx.sim = a.daemon, a.sim
    ctx.log_tool = a.log_tool
    ctx.out = Path(a.out) if a.out else ROOT / "out/storm" / time.strftime("%Y%m%d-%H%M%S")
    ctx.env = dict(os.environ, UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1",
                   ASAN_OPTIONS="detect_leaks=1:abort_on_error=0")
    keys = [k for k in a.only.replace(",", "") if k in STORMS]
    print("fault storm%s, seed %d (again: --seed %d), runs in %s" % (
        " (quick)" if a.quick else "", ctx.seed, ctx.seed, ctx.out), flush=True)

    began = time.monotonic()
    total_runs = failed_runs = failed_storms = 0
    done = []
    for key in keys:
        t = time.monotonic()
        st = STORMS[key](ctx, random.Random("%d-%s" % (ctx.seed, key)))
        st.seconds = time.monotonic() - t
        bad = [r for r in st.runs if r.failures]
        total_runs += len(st.runs)
        failed_runs += len(bad)
        failed_storms += bool(bad)
        done.append(st)
        print("%s  %s  runs %3d  %4.0f s  %s; asserted: %s" % (
            key, "FAIL" if bad else "PASS", len(st.runs), st.seconds, st.title, st.asserted), flush=True)
        for r in bad:
            print("     failed run %s, kept in %s:" % (r.label, r.dir))
            for why in r.failures[:6]:
                print("       - " + why)
        for r in st.runs:
            if not r.failures and not a.keep:
                shutil.rmtree(r.dir, ignore_errors=True)
    took = time.monotonic() - began
    print("\nmeasured:")
    for st in done:
        print("%s  %s" % (st.key, "; ".join(st.figures) or "-"))
    print("\nfaults survived: %d of %d runs in %d of %d storms, %.0f s (%.1f min), seed %d: %s" % (
        total_runs - failed_runs, total_runs, len(keys) - failed_storms, len(keys), took, took / 60, ctx.seed,
        "ALL PASSED" if failed_runs == 0 else "%d RUNS FAILED" % failed_runs))
    if failed_runs == 0 and not a.keep:
        shutil.rmtree(ctx.out, ignore_errors=True)
    return 1 if failed_runs else 0


if __name__ == "__main__":
    sys.exit(main())
