#!/usr/bin/env python3
"""Writes the seed corpora under fuzz/corpus/<harness>/ from the documented
wire and table layouts: valid replies and tables, and the edges of each, as
seed_* files; for the log reader, pieces of a real log and every messy case
a phone's log can hold. The found_* files beside them come from fuzzing (a merge with
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
    c["logread"] = logread_corpus()
    return c


# ---------------------------------------------------------------- logread
# Pieces of a real verbose log of the default scenario, as (source line,
# function, level, message[, 1 when an empty line follows]); the stamps are
# laid anew by log_text().
START = [
    (63, 'main', 'HIGH', 'Initializing zebusrd'),
    (65, 'main', 'HIGH', 'Enabling verbose logging at bootup'),
    (71, 'main', 'HIGH', 'Starting zeb_eval_thread...'),
    (78, 'main', 'HIGH', 'Starting dulox_freq_boost_thread...'),
    (134, 'zebusr_evaluate', 'HIGH', 'ZEB Evaluation Thread Started'),
    (53, 'dulox_freq_boost_monitor', 'HIGH', 'Dulox Core Driver Thread Started'),
    (40, 'zebusr_genl_open_sock', 'MED', 'nl_open_sock: skfd = 7'),
    (46, 'zebusr_genl_open_sock', 'MED', 'nl_open_sock: recv socket option for timeout set to 3 seconds'),
    (20, 'duloxusr_connect_to_dulox_core', 'MED', 'zebusr_genl_open_sock complete: duloxusr_genl_sk_fd = 7'),
    (119, 'zebusr_genl_init_sock', 'MED', 'DULOX Family id = 31'),
    (29, 'duloxusr_connect_to_dulox_core', 'HIGH', 'zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_DULOX'),
    (30, 'duloxusr_connect_to_dulox_core', 'HIGH', 'CONNECTED to dulox core driver'),
    (39, 'duloxusr_connect_loop', 'HIGH', 'duloxusr_connect_to_dulox_core COMPLETE on attempt 0'),
    (60, 'dulox_freq_boost_monitor', 'LOW', 'Evaluating PID/bps list from dulox kernel driver'),
    (14, 'duloxusr_send_pid_bps_req', 'LOW', '########## PID - BPS REQUESTED ############', 1),
    (23, 'zebusr_genl_recv_pid_byte_info_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (20, 'duloxusr_send_pid_bps_req', 'LOW', '########## PID - BYTE RESPONSE SUCCESS ############', 1),
    (26, 'duloxusr_print_pid_bps_resp', 'LOW', '------------ PID / BPS RESPONSE -------------'),
    (35, 'duloxusr_print_pid_bps_resp', 'LOW', 'list_len = 3 | timestamp = 4'),
    (45, 'duloxusr_print_pid_bps_resp', 'LOW', 'pid[0] = 4242\t| tx_bps[0] = 100000000 | boost_remaining_ms[0] = 0'),
    (45, 'duloxusr_print_pid_bps_resp', 'LOW', 'pid[1] = 777\t| tx_bps[1] = 2000000 | boost_remaining_ms[1] = 0'),
    (45, 'duloxusr_print_pid_bps_resp', 'LOW', 'pid[2] = 999\t| tx_bps[2] = 900000000 | boost_remaining_ms[2] = 5995'),
    (30, 'duloxusr_evalute_pid_bps_info', 'HIGH', 'pid 999 with bps 900000000 has 5995 ms of boost remaining'),
    (40, 'zebusr_genl_open_sock', 'MED', 'nl_open_sock: skfd = 6'),
    (46, 'zebusr_genl_open_sock', 'MED', 'nl_open_sock: recv socket option for timeout set to 3 seconds'),
    (66, 'zebusr_connect_to_dulox_zeb', 'MED', 'zebusr_genl_open_sock complete: sk_fd = 6'),
    (116, 'zebusr_genl_init_sock', 'MED', 'ZEB Family id = 30 seq_num = 3'),
    (115, 'zebusr_sync', 'LOW', '########## SYNC START - seq_num 3 #############', 1),
    (151, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (160, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  kernel seq_num 4 return code: 0'),
    (79, 'zebusr_connect_to_dulox_zeb', 'HIGH', 'zebusr_genl_init_sock complete for ZEBUSR_GENL_FAMILY_ZEB'),
    (40, 'zebusr_init_cap_file', 'HIGH', 'open pathname = /proc/zeb/dulox_zeb_caps'),
    (44, 'zebusr_init_cap_file', 'HIGH', 'cap_fd = 8 page size = 4096'),
    (51, 'zebusr_connect_to_dulox_zeb', 'MED', 'zebusr_init_cap_file complete'),
    (40, 'zebusr_init_gflow_file', 'HIGH', 'open pathname = /proc/zeb/dulox_zeb_flows'),
    (44, 'zebusr_init_gflow_file', 'HIGH', 'gflow_fd = 9 page size = 4096'),
    (51, 'zebusr_connect_to_dulox_zeb', 'MED', 'zebusr_init_gflow_file complete'),
    (40, 'zebusr_init_ssflow_file', 'HIGH', 'open pathname = /proc/zeb/dulox_zeb_ss_flows'),
    (44, 'zebusr_init_ssflow_file', 'HIGH', 'ssflow_fd = 11 page size = 4096'),
    (51, 'zebusr_connect_to_dulox_zeb', 'MED', 'zebusr_init_ssflow_file complete'),
    (84, 'zebusr_connect_to_dulox_zeb', 'HIGH', 'CONNECTED to dulox_zeb.ko'),
    (94, 'zebusr_connect_loop', 'HIGH', 'zebusr_connect_to_dulox_zeb COMPLETE on attempt 0'),
    (115, 'zebusr_sync', 'LOW', '########## SYNC START - seq_num 4 #############', 1),
]
UP = [
    (115, 'zebusr_sync', 'LOW', '########## SYNC START - seq_num 29 #############', 1),
    (151, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (160, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  kernel seq_num 30 return code: 0'),
    (99, 'zebusr_read_ss_flows', 'LOW', '################## SS FLOW FILE CONTENTS #################'),
    (100, 'zebusr_read_ss_flows', 'LOW', '  num ss flows = 0'),
    (107, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: =========== HASH TABLE CONTENTS =============='),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 0 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[0]: empty'),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 1 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[1]: empty'),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 2 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[2]: empty'),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 3 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[3]: empty'),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 4 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[4]: empty'),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 5 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[5]: empty'),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 6 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[6]: empty'),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 7 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[7]: empty'),
    (128, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: ================== END =================='),
    (44, 'zebusr_read_capacities', 'LOW', '################## CAP FILE CONTENTS #################'),
    (47, 'zebusr_read_capacities', 'LOW', '  ZEB_CAPS: > cpu[0] with pps capacity = 25000 | avg pps cap = 25000 bps = 0'),
    (47, 'zebusr_read_capacities', 'LOW', '  ZEB_CAPS: > cpu[1] with pps capacity = 30000 | avg pps cap = 30000 bps = 0'),
    (47, 'zebusr_read_capacities', 'LOW', '  ZEB_CAPS: > cpu[2] with pps capacity = 7400 | avg pps cap = 14000 bps = 400000000'),
    (47, 'zebusr_read_capacities', 'LOW', '  ZEB_CAPS: > cpu[3] with pps capacity = 25000 | avg pps cap = 25000 bps = 0'),
    (47, 'zebusr_read_capacities', 'LOW', '  ZEB_CAPS: > cpu[4] with pps capacity = 180000 | avg pps cap = 180000 bps = 0'),
    (47, 'zebusr_read_capacities', 'LOW', '  ZEB_CAPS: > cpu[5] with pps capacity = 140000 | avg pps cap = 140000 bps = 250000000'),
    (47, 'zebusr_read_capacities', 'LOW', '  ZEB_CAPS: > cpu[6] with pps capacity = 110000 | avg pps cap = 110000 bps = 600000000'),
    (47, 'zebusr_read_capacities', 'LOW', '  ZEB_CAPS: > cpu[7] with pps capacity = 180000 | avg pps cap = 180000 bps = 0'),
    (41, 'zebusr_move_loaded_silver_cpu_to_gold', 'LOW', '################## SILVER TO GOLD ##################'),
    (52, 'zebusr_move_loaded_silver_cpu_to_gold', 'MED', '  Move all flows on cpu 2 at index 2', 1),
    (28, 'zebusr_move_loaded_silver_cpu_to_gold', 'HIGH', '  ZEB_SUGG_UP: Sending msg to kernel to request that all flows on cpu 2 be moved to gold cpu 4'),
    (16, 'zebusr_try_to_move_flow', 'LOW', 'Sending sugg info to kernel'),
    (30, 'zebusr_try_to_move_flow', 'MED', 'Sent suggestion msg with seq_num 30'),
    (151, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (160, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  kernel seq_num 31 return code: 0'),
    (33, 'zebusr_move_loaded_silver_cpu_to_gold', 'HIGH', '  ZEB_SUGG_UP: Move successful'),
    (87, 'zebusr_read_capacities', 'MED', 'dulox_zeb_wq_move_loaded_silver_cpu_to_gold done!'),
]
SEG = [
    (115, 'zebusr_sync', 'LOW', '########## SYNC START - seq_num 38 #############', 1),
    (151, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (160, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  kernel seq_num 39 return code: 0'),
    (99, 'zebusr_read_ss_flows', 'LOW', '################## SS FLOW FILE CONTENTS #################'),
    (100, 'zebusr_read_ss_flows', 'LOW', '  num ss flows = 1'),
    (70, 'zebusr_read_ss_flows', 'LOW', '  ZEB_SLOW: > ss flow 0xf457 on cpu[3] with rx_pps = 2500 | avg pps = 1750 | rx_bps = 325000000'),
    (16, 'zebusr_ht_find_node', 'LOW', 'zebusr_ht_find_node: searching for hash 0xf457 in bkt 7'),
    (25, 'zebusr_ht_find_node', 'MED', 'zebusr_ht_find_node: match found in ht bkt 7: hash 0xf457'),
    (54, 'zebusr_read_ss_flows', 'LOW', 'Disabling segmentation for hash 0xf457'),
    (11, 'zebusr_set_flow_segmentation', 'LOW', 'Sending flow segmentation req to kernel'),
    (25, 'zebusr_set_flow_segmentation', 'MED', 'Sent segmentation setting req with seq_num 39'),
    (151, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (160, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  kernel seq_num 40 return code: 0'),
]
BOOST = [
    (151, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (60, 'dulox_freq_boost_monitor', 'LOW', 'Evaluating PID/bps list from dulox kernel driver'),
    (14, 'duloxusr_send_pid_bps_req', 'LOW', '########## PID - BPS REQUESTED ############', 1),
    (23, 'zebusr_genl_recv_pid_byte_info_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (20, 'duloxusr_send_pid_bps_req', 'LOW', '########## PID - BYTE RESPONSE SUCCESS ############', 1),
    (26, 'duloxusr_print_pid_bps_resp', 'LOW', '------------ PID / BPS RESPONSE -------------'),
    (35, 'duloxusr_print_pid_bps_resp', 'LOW', 'list_len = 3 | timestamp = 5008'),
    (45, 'duloxusr_print_pid_bps_resp', 'LOW', 'pid[0] = 4242\t| tx_bps[0] = 800000000 | boost_remaining_ms[0] = 0'),
    (45, 'duloxusr_print_pid_bps_resp', 'LOW', 'pid[1] = 777\t| tx_bps[1] = 2000000 | boost_remaining_ms[1] = 0'),
    (45, 'duloxusr_print_pid_bps_resp', 'LOW', 'pid[2] = 999\t| tx_bps[2] = 900000000 | boost_remaining_ms[2] = 992'),
    (33, 'duloxusr_evalute_pid_bps_info', 'HIGH', 'Boosting pid 4242 with bps 800000000'),
    (33, 'duloxusr_evalute_pid_bps_info', 'HIGH', 'Boosting pid 999 with bps 900000000'),
    (74, 'duloxusr_send_pid_boost_req', 'LOW', '########## PID - BOOST REQUESTED ############', 1),
    (80, 'duloxusr_print_pid_boost_req', 'LOW', '------------ PID BOOST REQUEST -------------'),
    (89, 'duloxusr_print_pid_boost_req', 'LOW', 'list_len = 2'),
    (97, 'duloxusr_print_pid_boost_req', 'LOW', 'pid[0] = 4242\t| boost_en[0] = 1 | boost_period[0] = 10000'),
    (97, 'duloxusr_print_pid_boost_req', 'LOW', 'pid[1] = 999\t| boost_en[1] = 1 | boost_period[1] = 10000'),
    (160, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  kernel seq_num 56 return code: 0'),
    (99, 'zebusr_read_ss_flows', 'LOW', '################## SS FLOW FILE CONTENTS #################'),
    (100, 'zebusr_read_ss_flows', 'LOW', '  num ss flows = 1'),
    (70, 'zebusr_read_ss_flows', 'LOW', '  ZEB_SLOW: > ss flow 0xf457 on cpu[3] with rx_pps = 4000 | avg pps = 4000 | rx_bps = 600000000'),
    (16, 'zebusr_ht_find_node', 'LOW', 'zebusr_ht_find_node: searching for hash 0xf457 in bkt 7'),
    (25, 'zebusr_ht_find_node', 'MED', 'zebusr_ht_find_node: match found in ht bkt 7: hash 0xf457'),
    (40, 'zebusr_read_ss_flows', 'LOW', 'Flow w/ hash 0xf457 is stable'),
    (107, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: =========== HASH TABLE CONTENTS =============='),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 0 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[0]: empty'),
    (109, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: bkt 1 of 7'),
    (111, 'zebusr_ht_debug_print', 'LOW', 'zebusr_ht_debug_print: \tbkt[1]: empty'),
]
DOWN = [
    (44, 'zebusr_read_gold_flows', 'LOW', '################## GOLD FLOW FILE CONTENTS #################'),
    (45, 'zebusr_read_gold_flows', 'LOW', '  num gold flows = 3'),
    (50, 'zebusr_read_gold_flows', 'LOW', '  ZEB_MMAP: > flow 0xb0b0 on cpu[5] with rx_pps = 40000 | avg pps = 40000'),
    (50, 'zebusr_read_gold_flows', 'LOW', '  ZEB_MMAP: > flow 0xa11ce on cpu[4] with rx_pps = 52000 | avg pps = 52000'),
    (50, 'zebusr_read_gold_flows', 'LOW', '  ZEB_MMAP: > flow 0xc0c0 on cpu[6] with rx_pps = 70000 | avg pps = 70000'),
    (58, 'zebusr_move_gold_flow_down_to_silver', 'LOW', '################## GOLD TO SILVER #################'),
    (63, 'zebusr_move_gold_flow_down_to_silver', 'MED', '  num gold flows = 3'),
    (24, 'zebusr_move_gold_flow_down_to_silver', 'MED', '  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xb0b0 with pps 40000 avg pps 40000 on cpu[5] can move to silver cpu[0] with avg capacity 25000 cap_w_head 5000'),
    (24, 'zebusr_move_gold_flow_down_to_silver', 'MED', '  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xb0b0 with pps 40000 avg pps 40000 on cpu[5] can move to silver cpu[1] with avg capacity 65000 cap_w_head 45000'),
    (31, 'zebusr_move_gold_flow_down_to_silver', 'HIGH', '  ZEB_SUGG_DOWN: > Sending msg to kernel to request that gold flow 0xb0b0 with pps 40000 avg pps 40000 on cpu[5] can move to silver cpu[1] with avg capacity 65000 cap_w_head 45000'),
    (16, 'zebusr_try_to_move_flow', 'LOW', 'Sending sugg info to kernel'),
    (30, 'zebusr_try_to_move_flow', 'MED', 'Sent suggestion msg with seq_num 74'),
    (151, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (160, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  kernel seq_num 75 return code: 0'),
    (38, 'zebusr_move_gold_flow_down_to_silver', 'HIGH', '  ZEB_SUGG_DOWN: Move successful'),
    (61, 'zebusr_read_gold_flows', 'MED', 'dulox_zeb_wq_move_gold_flow_down_to_silver done!'),
]
BAL = [
    (24, 'zebusr_move_gold_flow_down_to_silver', 'MED', '  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xd00d with pps 70000 avg pps 70000 on cpu[6] can move to silver cpu[1] with avg capacity 40000 cap_w_head 20000'),
    (24, 'zebusr_move_gold_flow_down_to_silver', 'MED', '  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xd00d with pps 70000 avg pps 70000 on cpu[6] can move to silver cpu[2] with avg capacity 55000 cap_w_head 35000'),
    (24, 'zebusr_move_gold_flow_down_to_silver', 'MED', '  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xd00d with pps 70000 avg pps 70000 on cpu[6] can move to silver cpu[3] with avg capacity 21000 cap_w_head 1000'),
    (77, 'zebusr_balance_gold_flows', 'LOW', '################## GOLD BALANCE #################'),
    (85, 'zebusr_balance_gold_flows', 'LOW', '  num gold flows = 3'),
    (51, 'zebusr_balance_gold_flows', 'MED', '  ZEB_SUGG_CHECK_BAL: Checking gold flow balance gold flow 0xd00d with pps 70000 avg pps 70000 on cpu[6] can balance to gold cpu[4] with avg capacity 128000 cap_w_head 108000'),
    (30, 'zebusr_balance_gold_flows', 'MED', 'other cpu is about equally loaded, not movingdest_cpu_avg_pps-headroom-gflow_avg_pps = 38000 src_cpu_avg_pps = 89000'),
    (51, 'zebusr_balance_gold_flows', 'MED', '  ZEB_SUGG_CHECK_BAL: Checking gold flow balance gold flow 0xd00d with pps 70000 avg pps 70000 on cpu[6] can balance to gold cpu[5] with avg capacity 180000 cap_w_head 160000'),
    (59, 'zebusr_balance_gold_flows', 'HIGH', '  ZEB_SUGG_BAL: > Sending msg to kernel to request that gold flow 0xd00d with pps 70000 avg pps 70000 on cpu[6] can balance to gold cpu[5] with avg capacity 180000 cap_w_head 160000'),
    (16, 'zebusr_try_to_move_flow', 'LOW', 'Sending sugg info to kernel'),
    (30, 'zebusr_try_to_move_flow', 'MED', 'Sent suggestion msg with seq_num 108'),
    (151, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (160, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  kernel seq_num 109 return code: 0'),
    (66, 'zebusr_balance_gold_flows', 'HIGH', '  ZEB_SUGG_BAL: Move successful'),
    (65, 'zebusr_read_gold_flows', 'MED', 'dulox_zeb_wq_balance_gold_flows done!'),
]
END = [
    (24, 'zebusr_move_gold_flow_down_to_silver', 'MED', '  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xd00d with pps 70000 avg pps 70000 on cpu[5] can move to silver cpu[2] with avg capacity 55000 cap_w_head 35000'),
    (24, 'zebusr_move_gold_flow_down_to_silver', 'MED', '  ZEB_SUGG_DOWN_CHECK: > Checking that gold flow 0xd00d with pps 70000 avg pps 70000 on cpu[5] can move to silver cpu[3] with avg capacity 21000 cap_w_head 1000'),
    (77, 'zebusr_balance_gold_flows', 'LOW', '################## GOLD BALANCE #################'),
    (85, 'zebusr_balance_gold_flows', 'LOW', '  num gold flows = 3'),
    (67, 'zebusr_read_gold_flows', 'MED', 'No gold flows were moved'),
    (115, 'zebusr_sync', 'LOW', '########## SYNC START - seq_num 208 #############', 1),
    (151, 'zebusr_genl_recv_int_from_kernel', 'LOW', '  Waiting for kernel to send a msg'),
    (99, 'zebusr_sig_handler', 'HIGH', 'Signal Handler Invoked!'),
    (104, 'zebusr_cleanup', 'HIGH', 'Attempting to clean up'),
    (52, 'zebusr_deinit_cap_file', 'HIGH', 'closing cap file'),
    (52, 'zebusr_deinit_gflow_file', 'HIGH', 'closing gflow file'),
    (52, 'zebusr_deinit_ssflow_file', 'HIGH', 'closing ssflow file'),
    (110, 'zebusr_cleanup', 'HIGH', 'Cleanup Complete'),
]


DAY_US = 86400 * 1000000


def log_text(pieces, start_us=9 * 3600 * 1000000, step_us=7, crlf=False):
    """The lines as the daemon's writer puts them: stamp, function right-aligned
    in 40 columns, source line in at least 3, level, message."""
    out, t = [], start_us
    end = "\r\n" if crlf else "\n"
    for p in pieces:
        src, func, level, text = p[:4]
        tod = t % DAY_US
        out.append(" %02d:%02d:%02d.%06d %40s():%3d (%s): %s%s" % (
            tod // 3600000000, tod // 60000000 % 60, tod // 1000000 % 60, tod % 1000000,
            func, src, level, text, end))
        if len(p) > 4:
            out.append(end)
        t += step_us
    return "".join(out).encode()


def gold_table(entries, count=None):
    rows = [(44, "zebusr_read_gold_flows", "LOW", "################## GOLD FLOW FILE CONTENTS #################"),
            (45, "zebusr_read_gold_flows", "LOW", "  num gold flows = %d" % (len(entries) if count is None else count))]
    for h, cpu in entries:
        rows.append((50, "zebusr_read_gold_flows", "LOW",
                     "  ZEB_MMAP: > flow 0x%x on cpu[%d] with rx_pps = 40000 | avg pps = 40000" % (h, cpu)))
    return rows


def logread_corpus():
    full = START + UP + SEG + DOWN + BAL + BOOST + END
    up = log_text(START + UP)
    caps = [p for p in UP if "ZEB_CAPS" in p[3]]
    cpu8 = caps[:7] + [(47, "zebusr_read_capacities", "LOW",
                        "  ZEB_CAPS: > cpu[8] with pps capacity = 1 | avg pps cap = 1 bps = 0"),
                       (50, "zebusr_read_capacities", "ERR", "invalid cpu number, check contents of shared memory")]
    sync = UP[:3]
    blank_missing = log_text(UP[:1]) .rstrip(b"\n") + b"\n" + log_text(UP[2:6])
    # Two threads' lines without a lock: a prefix, the other thread's whole
    # line, then the first line's text and the empty line it asks for.
    at = [9 * 3600 * 1000000 + k * 100 for k in range(4)]
    interleaved = log_text(BOOST[:2], at[0]) + log_text([BOOST[2][:3] + ("",)], at[1]).rstrip(b"\n") + \
        log_text(UP[4:5], at[2]) + BOOST[2][3].encode() + b"\n\n" + log_text(BOOST[3:], at[3])
    return {
        "real_run": log_text(full), "real_start_up": up, "real_seg": log_text(SEG),
        "real_boost": log_text(BOOST), "real_down": log_text(DOWN), "real_bal": log_text(BAL),
        "empty": b"", "cut_line": up[:len(up) - 40], "cut_prefix": up[:3000] + b" 09:41",
        "crlf": log_text(START[:6] + UP, crlf=True),
        "nul": log_text(DOWN).replace(b"gold flow 0xb0b0", b"gold flow 0x\0b0", 1),
        "not_utf8": log_text(BAL).replace(b"balance", b"bal\xff\xfence", 1),
        "long_line": log_text(UP[:2]) + b" 09:41:10.000000 " + b"x" * (1 << 20) + b"\n" + log_text(UP[2:]),
        "restart": log_text(START + UP[:20]) + log_text(START + UP + END, start_us=9 * 3600 * 1000000 + 5000),
        "midnight": log_text(START + UP + SEG, start_us=DAY_US - 300, step_us=3),
        "interleaved": interleaved,
        "blank_missing": blank_missing, "blank_extra": log_text(UP[3:8]) + b"\n\n" + log_text(UP[8:12]),
        "verbose_off_on": log_text(START + UP[:10] + [(261, "zebusr_stop_logging", "HIGH", "Stopping verbose logging")]
                                   + UP[-3:] + [(257, "zebusr_start_logging", "HIGH", "Starting verbose logging"),
                                                (262, "zebusr_start_logging", "HIGH", "CSV File opened")] + DOWN),
        # The daemon logs no entry for a zero hash, and none past the 128th.
        "hash_0": log_text(sync + gold_table([(0xb0b0, 5)], count=2) + [
            (48, "zebusr_read_gold_flows", "ERR", "Invalid hash, breaking")] + DOWN[5:]),
        "cpu_8": log_text(sync + caps[:1] + [UP[0]] + cpu8),
        "flows_200": log_text(sync + gold_table([(0x1000 + i, 4 + i % 4) for i in range(128)], count=200) + [
            (47, "zebusr_read_gold_flows", "ERR", "Max user flows reached")] + DOWN[5:]),
        "columns": log_text(UP[:8]).replace(b"       zebusr_sync():", b"zebusr_sync():       ", 1),
        "wrong_level": log_text(UP[:8]).replace(b"(LOW): ####", b"(ERR): ####", 1),
        "not_a_log": b"Hello, phone\nkernel: oops\n\x00\x01\x02\n",
        # The same harness reads the CSV capture.
        "csv": csv_rows(14, 6), "csv_no_header": csv_rows(14, 3)[len(CSV_HEADER) + 1:],
        "csv_short_rows": csv_rows(14, 2) + b"09:41:09.677791,16,25000,30000\n,,\n" + CSV_HEADER + b"\r\n"
        + csv_rows(3, 1)[len(CSV_HEADER) + 1:],
    }


CSV_HEADER = b"time,seq_num,CPU0,CPU1,CPU2,CPU3,CPU4,CPU5,CPU6,CPU7"


def csv_rows(seq, n):
    """A capture as the daemon writes it: its header, then a row per cycle."""
    rows = [CSV_HEADER]
    for k in range(n):
        rows.append(b"09:41:%02d.%06d,%d,25000,30000,25000,25000,180000,140000,110000,180000"
                    % (9 + k // 20, 527671 + 50000 * (k % 20), seq + k))
    return b"\n".join(rows) + b"\n"


def main():
    for harness, files in corpus().items():
        folder = os.path.join(ROOT, harness)
        os.makedirs(folder, exist_ok=True)
        for name, data in files.items():
            # The log reader's long line must pass its megabyte.
            assert len(data) <= (1 << 21 if harness == "logread" else 8192), (harness, name)
            with open(os.path.join(folder, "seed_" + name), "wb") as f:
                f.write(data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
