#!/usr/bin/python3
"""Captures by tshark with the dissector: wireshark_test.py DATAPATHCTL CONFORMANCE_TEST"""
import os
import pathlib
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPT = ROOT / "kernel_interface/wireshark/tavik_wlan.lua"
CAPTURE = "capture"
FIELDS = """command selector device forward_from forward_to encap_port ll_src_addr ll_dst_addr
    ll_src_port ll_dst_port tuple.ip_proto tuple.trans_proto tuple.port tuple.spi""".split()
BATCH = (ROOT / "scripts/demo.batch").read_text() + """
reset
encap drop 65534
proxy update --old tcp/4
"""
MESSAGES = """\
command=1 tuple.ip_proto=4,6 tuple.trans_proto=6,17 tuple.port=443,4500
command=5 selector=1 forward_from=wwan0 forward_to=wlan0
command=3 selector=1 device=wlan0
command=14
command=1 tuple.ip_proto=6 tuple.trans_proto=50 tuple.spi=0x00001001
command=12 ll_src_addr=10.0.0.1 ll_dst_addr=10.0.0.2 ll_src_port=5000 ll_dst_port=5001
command=11 encap_port=65534
"""
# What the lines on answers say after their requests' own.
OUTCOMES = """\
: acknowledged
: done
: ENOENT: the encapsulation port is not set: ENCAP_PORT
: ENOENT: no such tuple: TUPLES[0].TUPLE
"""


def packets():
    """The packets of the capture, each a header of the link layer, 16 bytes, and a message."""
    data = pathlib.Path(CAPTURE).read_bytes()
    at = 24
    while at < len(data):
        length, = struct.unpack_from("=I", data, at + 8)
        yield data[at + 16:at + 16 + length]
        at += 16 + length


class WiresharkTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)

    def run_batch(self):
        command = [DATAPATHCTL, "--emulate", "--pcap", CAPTURE, "batch", "--force", "-"]
        done = subprocess.run(command, input=BATCH, text=True, capture_output=True, umask=0o22)
        self.assertEqual(done.stderr.count("ENOENT"), 2)  # of the last commands

    def tshark(self, *fields, show="tavik_wlan.command"):
        """The values of fields in the packets that a filter shows, a list a packet."""
        columns = [word for field in fields for word in ("-e", field)]
        done = subprocess.run(["tshark", "-r", CAPTURE, "-X", f"lua_script:{SCRIPT}", "-Y",
                               show, "-T", "fields", *columns], text=True, capture_output=True,
                              check=True)
        self.assertNotRegex(done.stdout + done.stderr, "(?i)lua:|lua error")
        return [line.split("\t") for line in done.stdout.splitlines()]

    def test_every_field_is_what_went_in(self):
        self.run_batch()
        self.assertLessEqual(set(MESSAGES.splitlines()), {
            " ".join(f"{field}={value}" for field, value in zip(FIELDS, row) if value)
            for row in self.tshark(*(f"tavik_wlan.{field}" for field in FIELDS))})
        requests = dict(self.tshark("frame.number", "_ws.col.Info", show="tavik_wlan and "
                                    "netlink.hdr_flags.request == 1 and not tavik_wlan.outcome"))
        decoded = subprocess.run([DATAPATHCTL, "decode", CAPTURE], text=True, capture_output=True,
                                 check=True).stdout
        self.assertEqual([re.sub(", *", ", ", re.sub(r'["[\]]', "", line))
                          for line in re.findall(" > (.*)", decoded)], list(requests.values()))
        answers = self.tshark("tavik_wlan.request", "_ws.col.Info", show="tavik_wlan.outcome")
        self.assertEqual([request for request, _ in answers], list(requests))
        self.assertEqual({line.removeprefix(requests[request]) for request, line in answers},
                         set(OUTCOMES.splitlines()))
        self.assertEqual(self.tshark("tavik_wlan.extack.message", "tavik_wlan.bad_attribute",
                                     show='tavik_wlan.outcome == "ENOENT"'),
                         [["the encapsulation port is not set", "ENCAP_PORT"],
                          ["no such tuple", "TUPLES[0].TUPLE"]])
        self.assertEqual(self.tshark("frame.number", show="_ws.expert"), [])
        for packet in packets():
            direction = 4 if packet[22] & 1 else 0  # Only requests are sent.
            self.assertEqual(packet[:16], struct.pack(">HH10xH", direction, 824, 16))
        times = [float(row[0]) for row in self.tshark("frame.time_epoch", show="netlink")]
        self.assertTrue(0 <= time.time() - min(times) < 60 and times == sorted(times))
        self.assertEqual(os.stat(CAPTURE).st_mode & 0o777, 0o600)

    def test_packets_of_threads_do_not_mix(self):
        pathlib.Path(CAPTURE).write_bytes(bytes(100000))
        subprocess.run([CONFORMANCE_TEST, "--target=emulator", "--gtest_filter=*EightThreads*"],
                       env=os.environ | {"CORVIL_NETLINK_PCAP": CAPTURE},
                       stdout=subprocess.DEVNULL, check=True)
        complaints = self.tshark("_ws.expert", show="tavik_wlan")
        self.assertGreater(len(complaints), 8 * 20 * 9 * 2)  # requests and their answers
        self.assertEqual([row for row in complaints if row[0]], [])

    def test_mutated_messages_are_told_without_an_error_in_lua(self):
        self.run_batch()
        _, family, add_tuples, *others = packets()  # first the controller and its answer
        forged = [family, *(add_tuples[:16] + struct.pack("=I", end) + add_tuples[20:16 + end]
                            for end in range(21, len(add_tuples) - 16))]
        cut = [str(number) for number in range(2, len(forged) + 1)]
        chance = random.Random(1)
        for _ in range(3000):
            data = bytearray(chance.choice(others))
            for _ in range(chance.randrange(4)):
                data[chance.randrange(22, len(data))] = chance.choice(b"\0\1\2\3\5\x40\x7f\x80\xff")
            del data[chance.randrange(32, len(data) + 1):]
            data += chance.choice((b"", b"\4\0\1\0"))  # an empty attribute
            data[16:20] = struct.pack("=I", len(data) - 16 + chance.choice((0, 0, 0, 0, -4, 400)))
            forged.append(data)
        pathlib.Path(CAPTURE).write_bytes(pathlib.Path(CAPTURE).read_bytes()[:24] + b"".join(
            struct.pack("=8x2I", len(data), len(data)) + data for data in forged))
        self.assertEqual(self.tshark("frame.number", show="_ws.lua.error"), [])
        malformed = self.tshark("frame.number", "_ws.col.Info", show="tavik_wlan.malformed")
        self.assertEqual([row[0] for row in malformed[:len(cut)]], cut)
        self.assertEqual([row for row in malformed if "[malformed] " not in row[1]], [])


if __name__ == "__main__":
    if not shutil.which("tshark"):
        sys.exit(77)
    CONFORMANCE_TEST, DATAPATHCTL = map(os.path.abspath, (sys.argv.pop(), sys.argv.pop()))
    unittest.main()
