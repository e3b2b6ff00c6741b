#!/usr/bin/env python3
"""Writes the soak scenario: MINUTES simulated minutes of flow churn at 10
cycles a second.

Every minute m (base T = 60 m) brings fresh hashes, all of them ending later:

  slow-start flows (hash 0x5a000000 | m << 8 | k << 3 | bucket)
    k0, k1, k2  one bucket, m % 8, created in that order, so k0 heads the
                chain. k0 ends at T+40: removing the head orphans k1 and k2,
                which come back as new nodes. k1 drops to 0 bps at T+70 for
                2 s (removed while live, created again) and ends at T+100;
                k2 ends at T+130.
    k3, k5      bucket (m + 3) % 8: k3 heads, k5 is its tail and ends first
                (T+45), so the chain is relinked; k3 runs at 400 Mbps (fast)
                until T+150.
    k4          bucket (m + 1) % 8, a rate that jumps every half second (never
                stable), 0 bps at T+30 for 2 s, ends at T+95: it heads the
                bucket that minute m+1's k0..k2 join at T+70, so its end
                orphans them.
  gold flows (hash 0x6b000000 | m << 8 | k), on CPUs 4-7, T+15 to T+140.

Every start, end and dip (and the 1 s that an ended flow stays listed at
0 bps) falls 10 to 46 s into some minute, so from 47 s on no minute (and
not the end of the run) changes the flow history.
"""
import argparse
import json
import sys

SS_BASE = 0x5A000000
GOLD_BASE = 0x6B000000


def ss_hash(m, k, bucket):
    return SS_BASE | (m << 8) | (k << 3) | bucket


def steady(t0, t1, value):
    return [[t0, value], [t1, value]]


def dip(points, at, length):
    """A rate that is 0 for LENGTH seconds from AT, as steps."""
    before = [p for p in points if p[0] < at]
    after = [p for p in points if p[0] > at + length]
    v_at = before[-1][1] if before else points[0][1]
    v_back = after[0][1] if after else points[-1][1]
    return before + [[at, v_at], [at, 0], [at + length, 0], [at + length, v_back]] + after


def jumpy(t0, t1, low, high):
    """Alternates LOW and HIGH every half second: never within a quarter of its average."""
    pts, t, hi = [], t0, False
    while t < t1:
        v = high if hi else low
        pts += [[round(t, 3), v], [round(min(t + 0.5, t1), 3), v]]
        t += 0.5
        hi = not hi
    return pts


def flows_of_minute(m):
    T = 60.0 * m
    b = m % 8
    out = []

    def ss(k, bucket, cpu, start, end, bps, pps, name):
        out.append({
            "hash": "0x%08x" % ss_hash(m, k, bucket), "name": "m%02d-ss%d" % (m, k),
            "cpu": cpu, "slow_start": True, "start_s": T + start, "end_s": T + end,
            "pps": pps, "bps": bps, "comment": name})

    ss(0, b, 4 + m % 4, 10.0, 40.0, 80_000_000, 3000, "chain head, ends first")
    ss(1, b, 1, 10.5, 100.0, dip(steady(T + 10.5, T + 100, 120_000_000), T + 70, 2.0), 2000,
       "chain middle, 0 bps for 2 s while live")
    ss(2, b, 5, 11.0, 130.0, 90_000_000, 2500, "chain tail")
    ss(3, (m + 3) % 8, 6, 12.0, 150.0, 400_000_000, 6000, "fast: segmentation off at once")
    ss(4, (m + 1) % 8, 2, 13.0, 95.0,
       dip(jumpy(T + 13, T + 95, 20_000_000, 200_000_000), T + 30, 2.0), 1500,
       "never stable; heads the next minute's shared bucket")
    ss(5, (m + 3) % 8, 0, 14.0, 45.0, 60_000_000, 1000, "tail of k3's chain, ends first")
    for k in range(2):
        out.append({
            "hash": "0x%08x" % (GOLD_BASE | (m << 8) | k), "name": "m%02d-gold%d" % (m, k),
            "cpu": 4 + (m + 2 * k) % 4, "start_s": T + 15, "end_s": T + 140,
            "pps": 12000 + 9000 * k, "bps": 300_000_000})
    return out


def scenario(minutes):
    flows = []
    for m in range(minutes):
        flows += flows_of_minute(m)
    # Silver CPUs leave 30000-40000 pps spare, so some gold flows move down
    # and none of them pushes a silver CPU under the 8000 pps mark.
    cpus = [{"cpu": c, "max_pps": 100000, "load_pps": 60000 + 2000 * c} for c in range(4)]
    cpus += [{"cpu": c, "max_pps": 200000, "load_pps": 30000} for c in range(4, 8)]
    return {
        "name": "soak-%dmin" % minutes,
        "description": "%d simulated minutes of slow-start and gold flow churn, new hashes every "
                       "minute, three per minute sharing one history bucket" % minutes,
        "duration_s": 60 * minutes,
        "tick_ms": 100,
        "avg_samples": 10,
        "cpus": cpus,
        "flows": flows,
        "processes": [{"pid": 4242, "name": "uploader", "tx_bps": 600_000_000}],
    }


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--minutes", type=int, default=60)
    ap.add_argument("-o", "--out", default="-")
    a = ap.parse_args()
    if a.minutes < 1 or a.minutes > 255:
        ap.error("--minutes must be 1 to 255 (the hash keeps the minute in 8 bits)")
    text = json.dumps(scenario(a.minutes), indent=1) + "\n"
    if a.out == "-":
        sys.stdout.write(text)
    else:
        with open(a.out, "w") as f:
            f.write(text)


if __name__ == "__main__":
    main()
