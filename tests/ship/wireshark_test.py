#!/usr/bin/python3
"""Captures by tshark with the dissector: wireshark_test.py DATAPATHCTL CONFORMANCE_TEST"""
import os
import pathlib
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "kernel_interface/wireshark/tavik_wlan.lua"
SENT, RECEIVED = 4, 0
FIELDS = """command selector device forward_from forward_to encap_port ll_src_addr ll_dst_addr
    ll_src_port ll_dst_port tuple.ip_version tuple.protocol tuple.port tuple.spi""".split()
BATCH = """\
proxy up wlan0 --from wwan0 --to wlan1 --selector 7 tcp/443 udp6/4500
ports
proxy down wlan0 --from wwan0 --to wlan1 --selector 7 tcp/443
ipsec add 0x89abcdef 2001:db8::1
encap set 65535
encap drop 65535
encap pass-through 65535
encap unset 65535
lowlat add 10.0.0.1 1 10.0.0.2 256
lowlat flush
reset
"""
MESSAGES = """\
command=1 tuple.ip_version=4,6 tuple.protocol=6,17 tuple.port=443,4500
command=5 selector=7 forward_from=wwan0 forward_to=wlan1
command=3 selector=7 device=wlan0
command=14
command=14 tuple.ip_version=4,6 tuple.protocol=6,17 tuple.port=443,4500
command=4 selector=7 device=wlan0
command=6 selector=7 forward_from=wwan0 forward_to=wlan1
command=2 tuple.ip_version=4 tuple.protocol=6 tuple.port=443
command=1 tuple.ip_version=6 tuple.protocol=50 tuple.spi=0x89abcdef
command=7 encap_port=65535
command=11 encap_port=65535
command=10 encap_port=65535
command=8 encap_port=65535
command=12 ll_src_addr=10.0.0.1 ll_dst_addr=10.0.0.2 ll_src_port=1 ll_dst_port=256
command=13
command=9
"""


def packets(capture):
    """The packet type and the messages of each packet, after a check of all headers."""
    data = pathlib.Path(capture).read_bytes()
    assert struct.unpack_from("=IHHIIII", data) == (0xa1b23c4d, 2, 4, 0, 0, 262144, 253)
    at = 24
    while at < len(data):
        seconds, nanoseconds, length, original, packet_type, rest = struct.unpack_from(
            "=4I2s14s", data, at)
        assert length == original and rest == b"\x03\x38" + bytes(10) + b"\x00\x10"
        assert 0 <= time.time() - (seconds + nanoseconds / 1e9) < 60 and nanoseconds < 1e9
        messages = data[at + 32:at + 16 + length]
        assert struct.unpack_from("=I", messages)[0] <= len(messages) == length - 16
        assert packet_type == (b"\0\4" if messages[6] & 1 else b"\0\0")  # Only requests are sent.
        yield int.from_bytes(packet_type, "big"), messages
        at += 16 + length


class WiresharkTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        os.chdir(folder.name)
        self.capture = "c"
        pathlib.Path(self.capture).write_bytes(bytes(100000))
        self.command = [DATAPATHCTL, "--emulate", "--pcap", self.capture, "batch", "-"]

    def tshark(self, *fields, show="tavik_wlan"):
        """The values of fields in the packets that a filter shows, a list a packet."""
        columns = [word for field in fields for word in ("-e", field)]
        done = subprocess.run(["tshark", "-r", self.capture, "-X", f"lua_script:{SCRIPT}", "-Y",
                               show, "-T", "fields", *columns], text=True, capture_output=True,
                              check=True)
        self.assertNotRegex(done.stdout + done.stderr, "(?i)lua:|lua error")
        return [line.split("\t") for line in done.stdout.splitlines()]

    def test_every_field_is_what_went_in(self):
        os.unlink(self.capture)
        subprocess.run(self.command, input=BATCH, text=True, check=True, stdout=subprocess.DEVNULL,
                       umask=0o22)
        self.assertEqual(MESSAGES.splitlines(), [
            " ".join(f"{field}={value}" for field, value in zip(FIELDS, row) if value)
            for row in self.tshark(*(f"tavik_wlan.{field}" for field in FIELDS))])
        self.assertEqual(self.tshark("_ws.col.Info", show="tavik_wlan.tuple.port == 443")[0],
                         ["ADD_TUPLES TUPLES ipv4 tcp 443, ipv6 udp 4500"])
        self.assertEqual(self.tshark("frame.number", show="_ws.expert"), [])
        self.assertEqual(os.stat(self.capture).st_mode & 0o777, 0o600)

    def test_a_capture_reads_while_it_grows(self):
        with subprocess.Popen(self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as tool:
            tool.stdin.write(b"proxy update --new tcp/1\nports\n")
            tool.stdin.flush()
            tool.stdout.readline()
            self.assertEqual(len(self.tshark("frame.number")), 3)

    def test_packets_of_threads_do_not_mix(self):
        subprocess.run([CONFORMANCE_TEST, "--target=emulator", "--gtest_filter=*EightThreads*"],
                       env=os.environ | {"CORVIL_NETLINK_PCAP": self.capture},
                       stdout=subprocess.DEVNULL, check=True)
        types = [packet_type for packet_type, _ in packets(self.capture)]
        self.assertGreater(types.count(SENT), 8 * 20 * 10 * 2)
        self.assertGreaterEqual(types.count(RECEIVED), types.count(SENT))

    def test_mutated_messages_are_told_without_an_error_in_lua(self):
        subprocess.run(self.command, input=BATCH, text=True, check=True, stdout=subprocess.DEVNULL)
        sent = [data for _, data in packets(self.capture)]
        # Without their numbers, which are others each time.
        messages = sorted({data[:8] + bytes(8) + data[16:] for data in sent
                           if data[4:6] == sent[2][4:6]})
        forged, must_be_malformed = [sent[1]], []  # The controller's answer comes first.
        chance = random.Random(1)
        while len(forged) <= 3000:
            data = bytearray(chance.choice(messages))
            whole, end = len(data), chance.randrange(16, len(data) + 1)
            changes, empty, kind = chance.randrange(4), chance.randrange(2), chance.randrange(4)
            for _ in range(changes):
                data[chance.randrange(16, whole)] = chance.choice(b"\0\1\3\4\5\x40\x7f\x80\xff")
            data[end:] = struct.pack("=HH", 4, chance.randrange(12)) * empty  # It has no payload.
            if kind > 0:  # Else the message claims more, or less, than there is.
                data[:4] = struct.pack("=I", len(data))
            if kind == 1 and len(data) > 22:  # The first attribute goes up to the end.
                data[20:22] = struct.pack("=H", len(data) - 20)
            if kind == 2:
                data += chance.choice(messages)
            forged.append(bytes(data))
            # TUPLES is the one attribute of commands 1 and 2, and ends nowhere before.
            if kind > 1 and not changes + empty and 20 < end < whole and data[16] <= 2:
                must_be_malformed.append([str(len(forged))])
        with open(self.capture, "r+b") as file:
            file.truncate(24)
            file.seek(24)
            for data in forged:
                file.write(struct.pack("=8x2I", len(data) + 16, len(data) + 16) +
                           struct.pack(">HH10xH", RECEIVED, 824, 16) + data)
        self.assertEqual(self.tshark("frame.number", show="_ws.lua.error"), [])
        malformed = self.tshark("frame.number", show="tavik_wlan.malformed")
        self.assertGreater(len(must_be_malformed), 20)
        self.assertEqual([number for number in must_be_malformed if number not in malformed], [])


if __name__ == "__main__":
    if not shutil.which("tshark"):
        sys.exit(77)
    CONFORMANCE_TEST, DATAPATHCTL = map(os.path.abspath, (sys.argv.pop(), sys.argv.pop()))
    unittest.main()
