#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/<harness>/ from the documented
wire and table layouts: valid replies and tables, and the edges of each, as
seed_* files. The found_* files beside them come from fuzzing (a merge with
-use_counters=0 that kept only inputs reaching new code); after a change of
an input format they must be dropped or rewritten too."""
import os
import struct
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")
ZEB, CORE = 0x1D, 0x1E


def pad4(b):
    return b + b"\0" * (-len(b) % 4)


def attr(typ, payload):
    return pad4(struct.pack("<HH", 4 + len(payload), typ) + payload)


def msg(attrs, seq=41, typ=0x20, cmd=1):
    body = struct.pack("<BBH", cmd, 1, 0) + attrs
    return struct.pack("<IHHII", 16 + len(body), typ, 0, seq, 0) + body


def with_len(m, n):
    return struct.pack("<I", n) + m[4:]


def int_reply(code, seq=41):
    return msg(attr(1, struct.pack("<i", code)), seq)


def error_msg():  # NLMSG_ERROR: an errno and the failed request's header, no generic header
    return struct.pack("<IHHIIi", 36, 2, 0, 41, 0, -2) + b"\0" * 16


def family_reply(name, fid, id_type=1):
    return msg(attr(2, name + b"\0") + attr(id_type, struct.pack("<H", fid)) + attr(3, struct.pack("<I", 1)),
               typ=0x10, cmd=1)


def bps_answer(procs, list_len=None, valid=1):
    rec = b"".join(struct.pack("<QII", *p) for p in procs)
    rec = rec.ljust(512, b"\0") + struct.pack("<QHB", 1234, len(procs) if list_len is None else list_len, valid)
    return msg(attr(3, rec.ljust(528, b"\0")))


def caps(entries):  # (cpu, pps, avg, bps); 8 entries, 26 bytes each
    return b"".join(struct.pack("<QQQH", p, a, b, c) for c, p, a, b in entries).ljust(208, b"\0")


def default_caps(**over):
    e = [(c, 100000, 100000, 0) for c in range(8)]
    for c, (p, a) in over.items():
        e[int(c[3:])] = (int(c[3:]), p, a, 0)
    return e


def flows(entries, list_len=None):  # (hash, cpu, avg_pps, rx_pps, rx_bps)
    body = b"".join(struct.pack("<QQQIH", r, a, b, h, c) for h, c, a, r, b in entries)
    return struct.pack("<H", len(entries) if list_len is None else list_len) + body


def answers(*items):  # ("ok"|"err"|"short", code)
    kinds = {"ok": 0, "err": 1, "short": 2}
    return b"".join(struct.pack("<Bi", kinds[k], c) for k, c in items)


def sized(table):
    return struct.pack("<H", len(table)) + table


def corpus():
    yes, no = ("ok", 0), ("ok", 5)
    c = {}
    c["netlink_recv"] = {
        "int_reply": int_reply(0), "seq_41": int_reply(7, seq=41), "error": error_msg(),
        "family": family_reply(b"DULOX_ZEB", ZEB), "header_only": with_len(b"\0" * 16, 16),
        "short_15": int_reply(0)[:15], "len_past_end": with_len(int_reply(0), 40),
        "len_15": with_len(int_reply(0), 15),
        "cut_at_1044": msg(attr(1, b"\xab" * 1200)),
        "exact_1044": msg(attr(1, b"\xcd" * 1020)),
        "pid_bps": bps_answer([(600000000, 42, 0)]),
    }
    c["int_reply"] = {
        "accept": int_reply(0), "refuse_minus1": int_reply(-1), "refuse_5": int_reply(5),
        "len_27": with_len(int_reply(0) + b"\0", 27), "len_28": int_reply(3),
        "error": error_msg(), "long": msg(attr(1, struct.pack("<i", 9) + b"\xee" * 1100)),
        "empty": b"",
    }
    c["family_id"] = {
        "zeb": b"\0" + family_reply(b"DULOX_ZEB", ZEB),
        "core": b"\1" + family_reply(b"DULOX_CORE", CORE),
        "bad_type": b"\2" + family_reply(b"DULOX_ZEB", ZEB),
        "second_not_id": b"\0" + family_reply(b"DULOX_ZEB", ZEB, id_type=2),
        "first_len_ffff": b"\1" + with_len(family_reply(b"DULOX_CORE", CORE), 44)[:20] + b"\xff\xff\x02\x00" + b"\0" * 20,
        "first_len_0": b"\0" + msg(b"\0\0\1\0" + attr(1, b"\x1d\x00")),
        "cut_before_id": b"\0" + family_reply(b"DULOX_ZEB", ZEB)[:36],
        "error": b"\1" + error_msg(),
    }
    c["boost"] = {
        "mixed": bps_answer([(600000000, 101, 0), (400000000, 102, 0), (900000000, 103, 5000)]),
        "edges": bps_answer([(500000000, 1, 0), (500000001, 2, 0), (600000000, 3, 1000), (600000000, 4, 1001)]),
        "all_32": bps_answer([(700000000 + i, 1000 + i, i) for i in range(32)]),
        "len_33": bps_answer([(700000000, 7, 0)] * 32, list_len=33),
        "len_0": bps_answer([]), "invalid": bps_answer([(700000000, 7, 0)], valid=0),
        "short": with_len(bps_answer([(700000000, 7, 0)]), 551)[:551], "error": error_msg(),
    }
    silver2 = default_caps(cpu2=(7999, 100000))
    c["capacities"] = {
        "loaded_accept": b"\1" + caps(silver2) + answers(yes),
        "loaded_refused_then_accept": b"\1" + caps(silver2) + answers(no, ("err", 0), ("short", 0), yes),
        "loaded_all_refused": b"\0" + caps(silver2) + answers(*[no] * 4),
        "exactly_8000": b"\1" + caps(default_caps(cpu1=(8000, 0))) + answers(yes),
        "two_loaded": b"\3" + caps(default_caps(cpu0=(0, 0), cpu3=(10, 0))) + answers(no, yes),
        "all_silver": b"\1" + caps([(i % 4, 0, 0, 0) for i in range(8)]) + answers(yes),
        "cpu_8_verbose": b"\3" + caps(default_caps()[:7] + [(8, 0, 0, 0)]),
        "cpu_8_quiet": b"\0" + caps([(2, 0, 0, 0)] + default_caps()[1:7] + [(8, 0, 0, 0)]) + answers(yes),
        "duplicate_cpu": b"\3" + caps([(3, 1, 1, 1), (3, 2, 2, 2)] + default_caps()[2:]),
        "no_answers": b"\1" + caps(silver2),
    }
    road = caps(default_caps(cpu2=(90000, 90000)))
    bal_caps = caps([(i, 100000, 10000 if i < 4 else (30000 if i == 4 else 200000), 0) for i in range(8)])
    c["gold_flows"] = {
        "down_accept": b"\1" + road + sized(flows([(0xABC, 5, 30000, 30000, 0)])) + answers(yes),
        "down_refused": b"\1" + road + sized(flows([(0xABC, 5, 30000, 30000, 0), (0xDEF, 6, 1000, 1000, 0)]))
        + answers(no, ("err", 0), no, ("short", 0), yes),
        "empty": b"\1" + road + sized(flows([])),
        "len_200": b"\1" + bal_caps + sized(flows([(i + 1, 4 + i % 4, 5000, 1, 0) for i in range(128)], 200))
        + answers(*[no] * 40),
        "hash0_at_5": b"\1" + road + sized(flows([(i if i != 5 else 0, 6, 0, 0, 0) for i in range(1, 11)])),
        "balance": b"\1" + bal_caps + sized(flows([(0x10, 4, 5000, 1, 0), (0x11, 4, 20000, 1, 0)])) + answers(no, yes),
        "balance_2p31": b"\1" + caps([(i, 0, 2**31 if i == 6 else 2**32 + 50000, 0) for i in range(8)])
        + sized(flows([(0x10, 4, 1, 1, 0), (0x11, 4, 2**31, 1, 0), (0x12, 4, 100, 1, 0)])) + answers(no, no, yes),
        "flow_cpu_9": b"\1" + bal_caps + sized(flows([(0x10, 9, 1, 1, 0), (0x11, 9, 1, 1, 0)])),
        "caps_cpu_8": b"\1" + caps(default_caps()[:7] + [(8, 0, 0, 0)]) + sized(flows([(0x10, 4, 1, 1, 0)])),
        "no_caps": b"\3" + road + sized(flows([(0xABC, 5, 30000, 30000, 0)])) + answers(yes),
        "quiet": b"\0" + bal_caps + sized(flows([(0x10, 4, 5000, 1, 0), (0x11, 4, 20000, 1, 0)])) + answers(yes),
        "whole_page": b"\1" + road + sized(flows([(i + 1, 5, 1, 1, 0) for i in range(136)], 0xFFFF)[:4096]),
    }

    def ss(cycles, tables, ans=b"", verbose=True):
        flags = (cycles - 1) | ((len(tables) - 1) << 4) | (0x80 if verbose else 0)
        return bytes([flags]) + b"".join(sized(t) for t in tables) + ans

    fast = flows([(0xF1, 2, 0, 0, 400000000)])
    steady = flows([(0x51, 1, 0, 0, 100000000)])
    c["ss_flows"] = {
        "fast_accept": ss(2, [fast], answers(yes)),
        "fast_refused": ss(4, [fast], answers(no, ("err", 0), yes)),
        "steady_ten": ss(11, [steady], answers(yes)),
        "band_edges": ss(16, [flows([(0x61, 0, 0, 0, 1000), (0x62, 0, 0, 0, 3)])] * 9
                         + [flows([(0x61, 0, 0, 0, 750), (0x62, 0, 0, 0, 4)])], answers(no, yes)),
        "unstable_then_steady": ss(16, [flows([(0x71, 0, 0, 0, 1000 * (i % 3 + 1))]) for i in range(8)], answers(yes)),
        "len_200": ss(1, [flows([(i + 1, i % 4, 0, 0, 1000) for i in range(128)], 200)]),
        "hash0_middle": ss(2, [flows([(1, 0, 0, 0, 5), (0, 0, 0, 0, 5), (2, 0, 0, 0, 5)])]),
        "zero_rate_removes": ss(3, [steady, flows([(0x51, 1, 0, 0, 0), (0x99, 1, 0, 0, 0)])]),
        "orphaned_chain": ss(3, [flows([(0x1, 0, 0, 0, 9), (0x9, 0, 0, 0, 9), (0x11, 0, 0, 0, 9)]),
                                 flows([(0x1, 0, 0, 0, 0)]), flows([(0x9, 0, 0, 0, 7)])]),
        "twice_listed": ss(12, [flows([(0x33, 3, 0, 0, 500000000), (0x33, 3, 0, 0, 500000000)])],
                           answers(("short", 0), no, ("err", 0))),
        "empty": ss(1, [flows([])]), "quiet": ss(12, [steady, fast], answers(no, yes), verbose=False),
    }
    return c


def main():
    for harness, files in corpus().items():
        folder = os.path.join(ROOT, harness)
        os.makedirs(folder, exist_ok=True)
        for name, data in files.items():
            assert len(data) <= 8192, (harness, name)
            with open(os.path.join(folder, "seed_" + name), "wb") as f:
                f.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
