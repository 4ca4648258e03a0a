#!/usr/bin/env python3
"""Writes the corpus of media_packet_sequence_fuzz: one small file for each behaviour, named after it.

Run by hand after a change of the commands in media_packet_sequence_fuzz.cpp. Files that a search has added to
the corpus bear other names and are left alone.
"""
import pathlib
import struct

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus"

START, DATA, TERM = 0, 1, 2
WRITER, MEDIA = 0x80, 0x40
TYPE = {START: 0x81, DATA: 0x83, TERM: 0x82}
MARKER = b"\xff\x00\xff\x00"
MARKER_DAMAGE, VERSION, OTHER_TYPE, LENGTH, CUT, EXTEND, ANY_BYTE, ZERO = range(8)
LONGEST_LESS_1, LONGEST, LONGEST_PLUS_1 = 0xF0, 0xF1, 0xF2
SYSTEM, ERROR, WARNING, INFO, DEBUG, TRACE, EXHAUST_HEAP, REFUSE = range(8)
WHOLE, HALF, REFUSED = 0, 1, 2
TAKE_POOL, GIVE_POOL, REPEAT, REPEAT_NEW_IDS = range(4)


def packet(kind, sender=0, flags=0, seq=1, mt=0, length=0, damage=None, now=True, exact=None):
    """A shaped packet. `seq` and `mt` (in 10 s) are steps from the last ones, `exact` is (seq, mt)."""
    shape = kind | sender << 2 | (0x20 if damage else 0) | (0x40 if exact else 0) | (0x80 if now else 0)
    text = struct.pack("<BBB", 0, shape, flags)
    text += struct.pack("<QQ", *exact) if exact else struct.pack("<bb", seq, mt)
    if kind != TERM:
        text += bytes([length])
    if damage:
        text += struct.pack("<BH", *damage)
    return text


def start(**fields):
    return packet(START, **fields)


def data(**fields):
    return packet(DATA, **fields)


def term(**fields):
    return packet(TERM, **fields)


def raw(datagram):
    return struct.pack("<BH", 3, len(datagram)) + datagram


def header(kind, marker=MARKER, version=0, identifier=7):
    return marker + struct.pack("<BBBBQ16sQQ", kind, version, 0, 0, identifier, b"0123456789abcdef", 1, 1000)


def zombies(count):
    """Data packets without payload, each of a session that nobody knows."""
    return b"".join(raw(header(0x83, identifier=100 + i) + b"\0" * 8) for i in range(count))


def rounds(count):
    return bytes([4, count - 1])


DRAIN = b"\x05"
IDLE = b"\x07"
STEP_1_US, STEP_1_S, STEP_299999999_US, STEP_300_S = (bytes([6, kind]) for kind in range(4))
# To a microsecond before, to, and to a microsecond behind the moment when the first session expires. The low
# bits are taken modulo 3.
BEFORE_EXPIRY, AT_EXPIRY, BEHIND_EXPIRY = bytes([6, 129]), bytes([6, 130]), bytes([6, 128])


def writers(count):
    return bytes([8, next(choice for choice in range(0x80, 0x100) if choice % 5 == count)])


def media_nodes(count):
    return bytes([8, count])


def sends(*results):
    return bytes([9, sum(result << (2 * index) for index, result in enumerate(results))])


def world(choice):
    return bytes([10, choice])


def flood(choice, count=0):
    return struct.pack("<BBH", 11, choice, count // 4)


LIGHT = {
    "whole_call": writers(1) + start(flags=WRITER, length=20) + data(length=100) + data(length=100) + term(),
    "call_with_both_nodes": writers(3) + media_nodes(2) + start(flags=WRITER | MEDIA, length=5)
        + data(length=1) + term(),
    "call_without_nodes": start() + data() + term(),
    "rotation_of_nodes": writers(3) + b"".join(start(sender=i, flags=WRITER) for i in range(6)),
    "rotation_across_a_longer_list": writers(2) + start(flags=WRITER) + start(sender=1, flags=WRITER)
        + writers(3) + start(sender=2, flags=WRITER) + start(sender=3, flags=WRITER),
    "rotation_across_a_shorter_list": media_nodes(3)
        + b"".join(start(sender=i, flags=MEDIA) for i in range(3))
        + media_nodes(1) + start(sender=3, flags=MEDIA) + start(sender=4, flags=MEDIA),
    "writer_list_empty": media_nodes(2) + start(flags=WRITER | MEDIA) + start(sender=1, flags=WRITER | MEDIA),
    "list_emptied_while_running": writers(2) + start(flags=WRITER) + writers(0) + data()
        + start(sender=1, flags=WRITER),
    "empty_call_id": start(length=0),
    "longest_call_id": start(length=LONGEST),
    "call_id_one_below_the_longest": start(length=LONGEST_LESS_1),
    "call_id_one_above_the_longest": start(length=LONGEST_PLUS_1),
    "call_id_with_a_zero_byte": writers(1) + start(flags=WRITER, length=6, damage=(ZERO, 2)),
    "data_without_payload": writers(1) + start(flags=WRITER) + data(length=0),
    "longest_data": writers(1) + start(flags=WRITER) + data(length=LONGEST) + data(length=LONGEST_PLUS_1),
    "length_0": raw(b""),
    "length_47": raw(header(0x82)[:47]) + DRAIN,
    "length_48_bad_marker": raw(header(0x82, marker=b"\xff\x00\xff\x01")) + DRAIN,
    "length_1376": raw(b"\x55" * 1376) + DRAIN,
    "length_1377": raw(b"\x55" * 1377) + DRAIN,
    "data_of_48_bytes": raw(header(0x83)) + DRAIN,
    "start_of_48_bytes": raw(header(0x81)) + DRAIN,
    "terminate_of_49_bytes": raw(header(0x82) + b"\0") + DRAIN,
    "bad_version_and_unknown_type": raw(header(0x84, version=1)) + DRAIN,
    "bad_marker_and_bad_version": raw(header(0x81, marker=b"\xfe\x00\xff\x00", version=1)) + DRAIN,
    "unknown_types": b"".join(raw(header(kind)) for kind in (0x00, 0x80, 0x84, 0xFF)) + DRAIN,
    "bad_version_alone": start(damage=(VERSION, 1)) + start(damage=(VERSION, 255)),
    "length_field_too_small": start(length=10, damage=(LENGTH, 9)) + data(length=10, damage=(LENGTH, 9)),
    "length_field_too_great": start(length=10, damage=(LENGTH, 0xFFFF))
        + data(length=10, damage=(LENGTH, 0xFFFF)),
    "datagram_cut_off": start(length=10, damage=(CUT, 90)) + data(length=10, damage=(CUT, 50)),
    "datagram_extended": start(length=10, damage=(EXTEND, 1)) + data(length=10, damage=(EXTEND, 1300)),
    "no_gap": start(exact=(10, 1)) + data() + data(),
    "gap_and_late_packet": writers(1) + start(flags=WRITER, exact=(10, 1)) + data(seq=3) + data(seq=-1),
    "repeated_packet": writers(1) + start(flags=WRITER) + data() + data(seq=0),
    "terminate_below_the_sequence": writers(1) + start(flags=WRITER, exact=(10, 1)) + data() + term(seq=-5),
    "terminate_behind_a_gap": start() + term(seq=5),
    "sequence_at_its_end": start(exact=(0, 0)) + data(exact=(2**64 - 1, 0)) + data(exact=(0, 0)),
    "second_start": writers(2) + start(flags=WRITER) + start(flags=WRITER) + data(),
    "terminate_of_an_unknown_session": term(),
    "zombie_is_silent": data() + data() + data(seq=-3),
    "start_behind_a_zombie": data() + start() + data(),
    "terminate_of_a_zombie": data() + term() + term(),
    "late_data_behind_the_end": start() + term() + data() + data() + STEP_300_S + IDLE,
    "same_id_again": start(length=3) + term() + start(length=4) + data() + term(),
    "activity_that_wraps": start(exact=(1, 2**63)) + data(exact=(2, 0)) + IDLE + STEP_300_S + IDLE,
    "activity_in_the_future": start(exact=(1, 0)) + data(exact=(2, 10**12)) + STEP_300_S + IDLE,
    "activity_just_above_the_end": start(exact=(1, 1)) + data(exact=(2, 2**64 - 10**12)) + IDLE,
    "one_microsecond_before_expiry": start() + BEFORE_EXPIRY + IDLE,
    "at_expiry": start() + AT_EXPIRY + IDLE,
    "behind_expiry": start() + BEHIND_EXPIRY + IDLE,
    "expiry_of_a_zombie": data() + AT_EXPIRY + IDLE,
    "ten_expired": zombies(10) + DRAIN + STEP_300_S + IDLE + IDLE,
    "twenty_five_expired": zombies(25) + DRAIN + STEP_300_S + IDLE * 4,
    "front_alive_second_expired": start(exact=(1, 10**10)) + start(sender=1, exact=(1, 10**10)) + STEP_1_S
        + data(exact=(2, 10**10)) + data(sender=1, exact=(2, 0)) + IDLE + STEP_299999999_US + IDLE + IDLE,
    "activity_moves_to_the_back": start() + start(sender=1) + data(mt=10) + STEP_300_S + IDLE + data(mt=10)
        + IDLE,
    "empty_table": IDLE,
    "timed_out_session_resumes": writers(1) + start(flags=WRITER) + AT_EXPIRY + IDLE + data() + data()
        + start(),
    "sends_that_are_refused": writers(1) + media_nodes(1) + sends(REFUSED, WHOLE, WHOLE, REFUSED)
        + start(flags=WRITER | MEDIA) + data() + term(),
    "sends_in_parts": writers(1) + media_nodes(1) + sends(HALF, HALF, WHOLE, HALF) + sends(REFUSED, HALF)
        + start(flags=WRITER | MEDIA, length=50) + data(length=50) + term(),
    "heap_exhausted_for_a_session": writers(3) + world(EXHAUST_HEAP) + start(flags=WRITER)
        + start(sender=1, flags=WRITER) + data(),
    "heap_exhausted_for_a_zombie": world(EXHAUST_HEAP) + data() + data(),
    "session_refused": writers(2) + world(REFUSE) + start(flags=WRITER) + data() + term(),
    "session_refused_and_heap_exhausted": world(REFUSE) + world(EXHAUST_HEAP) + start() + start(),
    "threshold_trace": world(TRACE) + writers(2) + start(flags=WRITER | MEDIA, length=9)
        + data(flags=1, length=3) + term() + data() + term(sender=1) + AT_EXPIRY + IDLE,
    "threshold_debug": world(DEBUG) + writers(2) + writers(0) + start() + data() + term(),
    "threshold_error": world(ERROR) + data() + term(sender=1) + AT_EXPIRY + IDLE,
    "threshold_system": world(SYSTEM) + start() + data(sender=1) + AT_EXPIRY + IDLE,
    "ring_taken_in_parts": b"".join(start(sender=i, now=False) + data(sender=i, now=False) for i in range(8))
        + rounds(3) + rounds(16) + term(now=False),
    "many_ids": b"".join(start(sender=i, flags=0xFF) for i in range(8))
        + b"".join(data(sender=i) for i in range(8)) + b"".join(term(sender=i) for i in range(8)),
}

LONG = {
    "ring_full": start(now=False, damage=(MARKER_DAMAGE, 0x0100)) + flood(REPEAT, 100_010) + DRAIN + start(),
    "ring_left_full": start(now=False) + flood(REPEAT, 100_004),
    "pool_used_up": start(now=False) + data(now=False) + flood(TAKE_POOL) + data() + data(now=False)
        + data(now=False) + data(now=False) + flood(GIVE_POOL) + data(),
    "table_above_the_audit_threshold": data(now=False) + flood(REPEAT_NEW_IDS, 10_004) + DRAIN + data()
        + STEP_300_S + data() + IDLE + IDLE + data(now=False) * 8 + DRAIN,
}


def write(folder, seeds, prefix=b""):
    directory = CORPUS / folder
    directory.mkdir(parents=True, exist_ok=True)
    for name, commands in seeds.items():
        (directory / f"{name}.bin").write_bytes(prefix + commands)


write("media_packet_sequence", LIGHT)
write("media_packet_sequence_long", LONG, b"LONG\n")
