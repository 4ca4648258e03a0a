"""The dissector on what the media sender sends, and on datagrams that are no packets."""

import os
import socket
import struct
import tempfile
import unittest

from support import main, run, unpacked_package

LINKTYPE_RAW = 101
SENDER_PORT = 40000
ROUTER_PORT = 5000
FIELDS = ["frame.protocols", "corvalin.type", "corvalin.id", "corvalin.seq", "corvalin.lost", "corvalin.call_id",
          "corvalin.m_num", "_ws.expert.message"]


def capture_file(datagrams):
    """A classic pcap file of UDP datagrams between two fixed end points, without checksums."""
    content = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, LINKTYPE_RAW)
    for number, payload in enumerate(datagrams):
        udp = struct.pack(">HHHH", SENDER_PORT, ROUTER_PORT, 8 + len(payload), 0) + payload
        addresses = socket.inet_aton("127.0.0.1") + socket.inet_aton("127.0.0.2")
        frame = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(udp), number, 0, 64, 17, 0) + addresses + udp
        content += struct.pack("<IIII", number // 1000, number % 1000 * 1000, len(frame), len(frame)) + frame
    return content


def sort_key(packet):
    return struct.unpack_from("<Q", packet, 8)[0], struct.unpack_from("<Q", packet, 32)[0]


class DissectorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = unpacked_package()
        cls.addClassCleanup(folder.cleanup)
        cls.root = folder.name

    def sent_packets(self, *options):
        """What the sender sends, by session and sequence."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver:
            receiver.bind(("127.0.0.1", 0))
            receiver.settimeout(5)
            run(f"{self.root}/usr/bin/corvalin_media_sender", "--rate", "1000", *options, receiver.getsockname()[1])
            receiver.setblocking(False)
            packets = []
            try:
                while True:
                    packets.append(receiver.recv(65536))
            except BlockingIOError:
                return sorted(packets, key=sort_key)

    def dissect(self, datagrams, *options):
        """One list of field values for each datagram."""
        with tempfile.NamedTemporaryFile(suffix=".pcap") as file:
            file.write(capture_file(datagrams))
            file.flush()
            command = ["tshark", "-n", "-r", file.name, *options, "-X",
                       f"lua_script:{self.root}/usr/share/corvalin_router/wireshark/corvalin_media.lua",
                       "-T", "fields", "-E", "separator=|"]
            for field in FIELDS:
                command += ["-e", field]
            # No preferences and plugins of whoever runs the test.
            with tempfile.TemporaryDirectory() as home:
                result = run(*command, env={**os.environ, "HOME": home})
        self.assertNotIn("Lua", result.stderr)
        return [line.split("|") for line in result.stdout.splitlines()]

    def check(self, rows, expected):
        self.assertEqual(len(rows), len(expected), rows)
        for row, fields in zip(rows, expected):
            self.assertEqual(row, fields)

    def test_packets_of_two_calls_with_a_gap_and_a_repeat(self):
        packets = self.sent_packets("--sessions", "2", "--packets", "4", "--payload-bytes", "10")
        self.assertEqual(len(packets), 12)
        first, second = packets[:6], packets[6:]
        seen = "raw:ip:udp:corvalin"
        repeated = "Not above 3"
        self.check(self.dissect([*first[:2], *first[4:], *second[:3], second[2], *second[3:]]), [
            [seen, "0x81", "1", "1", "", "call-1", "", ""],
            [seen, "0x83", "1", "2", "", "", "5", ""],
            [seen, "0x83", "1", "5", "2", "", "5", "2 packets missing before this one"],
            [seen, "0x82", "1", "6", "", "", "", ""],
            [seen, "0x81", "2", "1", "", "call-2", "", ""],
            [seen, "0x83", "2", "2", "", "", "5", ""],
            [seen, "0x83", "2", "3", "", "", "5", ""],
            [seen, "0x83", "2", "3", "", "", "5", repeated],
            [seen, "0x83", "2", "4", "", "", "5", ""],
            [seen, "0x83", "2", "5", "", "", "5", ""],
            [seen, "0x82", "2", "6", "", "", "", ""],
        ])

    def test_an_id_that_comes_again_begins_anew(self):
        packets = self.sent_packets("--sessions", "1", "--packets", "1")
        rows = self.dissect(packets + packets)
        self.assertEqual([row[3:5] + row[7:] for row in rows], [[str(seq), "", ""] for seq in (1, 2, 3, 1, 2, 3)])
        # Also where the capture has lost the start packet.
        rows = self.dissect(packets + packets[1:])
        self.assertEqual([row[3:5] + row[7:] for row in rows], [[str(seq), "", ""] for seq in (1, 2, 3, 2, 3)])

    def test_a_gap_of_one_packet_is_told(self):
        packets = self.sent_packets("--sessions", "1", "--packets", "2")
        rows = self.dissect(packets[:1] + packets[2:])
        self.assertEqual([row[4] for row in rows], ["", "1", ""])

    def test_the_second_pass_over_the_capture_says_the_same(self):
        packets = self.sent_packets("--sessions", "1", "--packets", "4")
        damaged = packets[1:2] + packets[4:5]  # neither a start nor an end that would set the sequence anew
        once, twice = self.dissect(damaged), self.dissect(damaged, "-2")
        self.assertIn("2", [row[4] for row in once])
        self.assertEqual(once, twice)

    def test_lengths_that_do_not_fit_are_told_and_move_no_sequence(self):
        start, data, terminate = self.sent_packets("--sessions", "1", "--packets", "1", "--payload-bytes", "10")
        longest = bytearray(data + bytes(1377 - len(data)))
        longest[50:52] = struct.pack("<H", 661)  # its own fields agree with a length that is too great
        cases = [
            ("start cut off", start[:-1], f"{len(start) - 1} bytes, where its fields ask for {len(start)}"),
            ("start cut in its fields", start[:87], "87 bytes, where its fields ask for more"),
            ("data with a byte too many", data + b"\0", "67 bytes, where its fields ask for 66"),
            ("data of a header", data[:48], "48 bytes, where its fields ask for more"),
            ("terminate with a byte too many", terminate + b"\0", "49 bytes, where its fields ask for 48"),
            ("shorter than a header", terminate[:47], "Shorter than the header of 48 bytes"),
            ("the marker and little more", terminate[:20], "Shorter than the header of 48 bytes"),
            ("longer than the router takes", bytes(longest), "1377 bytes, more than the 1376 that are taken"),
        ]
        rows = self.dissect([datagram for _, datagram, _ in cases] + [start, data, terminate])
        self.assertEqual(len(rows), len(cases) + 3)
        for (name, _, text), row in zip(cases, rows):
            self.assertEqual((row[0], row[4], row[7]), ("raw:ip:udp:corvalin", "", text), name)
        for row in rows[len(cases):]:
            self.assertEqual((row[4], row[7]), ("", ""))

    def test_unknown_type_and_version_are_told(self):
        _, _, terminate = self.sent_packets("--sessions", "1", "--packets", "1")
        unknown_type = terminate[:4] + b"\x84" + terminate[5:]
        unknown_version = terminate[:5] + b"\x01" + terminate[6:]
        rows = self.dissect([unknown_type, unknown_version])
        self.assertEqual([row[7] for row in rows], ["Unknown type", "Unknown version"])

    def test_a_datagram_without_the_marker_is_left_alone(self):
        rows = self.dissect([b"\xff\x00\xff", b"\x00\xff\x00\xff" + bytes(60), b"hello"])
        for row in rows:
            self.assertNotIn("corvalin", row[0])
        self.assertEqual(len(rows), 3)


if __name__ == "__main__":
    main()
