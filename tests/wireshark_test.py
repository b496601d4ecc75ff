#!/usr/bin/env python3
"""Captures, and what Wireshark makes of them with the dissector.

wireshark_test.py TSHARK DATAPATHCTL CONFORMANCE_TEST
"""
import json
import os
import pathlib
import resource
import signal
import struct
import subprocess
import sys
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).parents[1] / "kernel_interface/wireshark/tavik_wlan.lua"
SENT, RECEIVED = 4, 0
FIELDS = """command selector device forward_from forward_to encap_port ll_src_addr ll_dst_addr
    ll_src_port ll_dst_port tuple.ip_version tuple.protocol tuple.port tuple.spi""".split()

# Each line of a batch, and the fields of the messages to and from the family that it gives rise to.
ALL_COMMANDS = {
    "proxy up wlan0 --from wwan0 --to wlan1 --selector 7 tcp/443 udp6/4500": [
        "command=1 tuple.ip_version=4,6 tuple.protocol=6,17 tuple.port=443,4500",
        "command=5 selector=7 forward_from=wwan0 forward_to=wlan1",
        "command=3 selector=7 device=wlan0"],
    "ports": [
        "command=14",
        "command=14 tuple.ip_version=4,6 tuple.protocol=6,17 tuple.port=443,4500"],
    "proxy down wlan0 --from wwan0 --to wlan1 --selector 7 tcp/443": [
        "command=4 selector=7 device=wlan0",
        "command=6 selector=7 forward_from=wwan0 forward_to=wlan1",
        "command=2 tuple.ip_version=4 tuple.protocol=6 tuple.port=443"],
    "ipsec add 0x89abcdef 2001:db8::1": [
        "command=1 tuple.ip_version=6 tuple.protocol=50 tuple.spi=0x89abcdef"],
    "encap set 65535": ["command=7 encap_port=65535"],
    "encap drop 65535": ["command=11 encap_port=65535"],
    "encap pass-through 65535": ["command=10 encap_port=65535"],
    "encap unset 65535": ["command=8 encap_port=65535"],
    "lowlat add 10.0.0.1 1 10.0.0.2 256": [
        "command=12 ll_src_addr=10.0.0.1 ll_dst_addr=10.0.0.2 ll_src_port=1 ll_dst_port=256"],
    "lowlat flush": ["command=13"],
    "reset": ["command=9"],
}


def packets(capture):
    """The packet type and the messages of each packet, after a check of all headers."""
    data = pathlib.Path(capture).read_bytes()
    assert struct.unpack_from("=IHHIIII", data) == (0xa1b23c4d, 2, 4, 0, 0, 262144, 253)
    found, at = [], 24
    while at < len(data):
        length, original, packet_type, rest = struct.unpack_from("=8x2I2s14s", data, at)
        assert length == original and rest == b"\x03\x38" + bytes(10) + b"\x00\x10", data[at:at+32]
        messages = data[at + 32:at + 16 + length]
        assert struct.unpack_from("=I", messages)[0] <= len(messages) == length - 16
        found.append((int.from_bytes(packet_type, "big"), messages))
        at += 16 + length
    return found


class WiresharkTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.capture = self.folder.name + "/capture.pcap"

    def datapathctl(self, *arguments, commands, status=0, **options):
        done = subprocess.run([DATAPATHCTL, "--emulate", "--pcap", self.capture, *arguments,
                               "batch", "-"], input="\n".join(commands), text=True,
                              capture_output=True, check=False, **options)
        self.assertEqual(done.returncode, status, done.stderr)
        return done

    def tshark(self, *fields, show="tavik_wlan"):
        """The values of fields in the packets that a filter shows, a line a packet."""
        columns = [word for field in fields for word in ("-e", field)]
        done = subprocess.run([TSHARK, "-r", self.capture, "-X", f"lua_script:{SCRIPT}", "-Y", show,
                               "-T", "fields", *columns], text=True, capture_output=True, check=True)
        self.assertNotRegex(done.stdout + done.stderr, "(?i)lua:|lua error")
        return [line.split("\t") for line in done.stdout.splitlines()]

    def test_every_field_is_what_went_in(self):
        self.datapathctl(commands=ALL_COMMANDS)
        rows = self.tshark(*(f"tavik_wlan.{field}" for field in FIELDS))
        self.assertEqual([" ".join(f"{field}={value}" for field, value in zip(FIELDS, row) if value)
                          for row in rows], sum(ALL_COMMANDS.values(), []))
        self.assertEqual(self.tshark("_ws.col.Info", show="tavik_wlan.tuple.port == 443")[0],
                         ["ADD_TUPLES TUPLES ipv4 tcp 443, ipv6 udp 4500"])
        self.assertEqual(self.tshark("frame.number", show="_ws.expert"), [])

    def test_a_capture_holds_every_message(self):
        traced = self.datapathctl("--trace", "--hex", "--json", commands=ALL_COMMANDS).stdout
        expected, direction = [], None
        for line in map(json.loads, traced.splitlines()):
            direction = line.get("direction", direction)
            if "bytes" in line:
                expected.append((SENT if direction == "sent" else RECEIVED,
                                 bytes.fromhex(line["bytes"])))
        self.assertEqual(packets(self.capture), expected)

    def test_a_capture_reads_while_it_grows(self):
        with subprocess.Popen([DATAPATHCTL, "--emulate", "--json", "--pcap", self.capture, "batch",
                               "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as process:
            for count in range(1, 4):
                process.stdin.write(b"reset\n")
                process.stdin.flush()
                process.stdout.readline()
                self.assertEqual(len(self.tshark("frame.number")), count)

    def test_packets_of_threads_do_not_mix(self):
        subprocess.run([CONFORMANCE_TEST, "--target=emulator", "--gtest_filter=*EightThreads*"],
                       check=True, stdout=subprocess.DEVNULL,
                       env=os.environ | {"CORVIL_NETLINK_PCAP": self.capture})
        types = [packet_type for packet_type, _ in packets(self.capture)]
        self.assertGreater(types.count(SENT), 8 * 20 * 10 * 2)
        self.assertGreater(types.count(RECEIVED), types.count(SENT))

    def test_a_full_disk_ends_the_capture_only(self):
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (2000, 2000))
        failed = self.datapathctl(commands=["reset"] * 4, status=2, preexec_fn=limit)
        self.assertRegex(failed.stderr, r"^datapathctl: standard input:\d: reset: "
                                        f"cannot write the capture {self.capture}: .*\n$")
        subprocess.run([CONFORMANCE_TEST, "--target=emulator", "--gtest_filter=*ByTheLibrary"],
                       check=True, stdout=subprocess.DEVNULL, preexec_fn=limit,
                       env=os.environ | {"CORVIL_NETLINK_PCAP": self.capture})

    def test_malformed_messages_are_told_without_an_error_in_lua(self):
        self.datapathctl(commands=ALL_COMMANDS)
        whole = packets(self.capture)
        family = struct.unpack_from("=H", whole[3][1], 4)[0]
        messages = {data for _, data in whole if struct.unpack_from("=H", data, 4)[0] == family}
        forged = [whole[1][1]]  # The controller's answer.
        must_be_malformed = []
        for data in sorted(messages):
            for length in range(16, len(data)):
                cut = struct.pack("=I", length) + data[4:length]
                if data[16] == 1 and length > 20:  # One attribute, which ends nowhere before.
                    must_be_malformed.append([str(len(forged) + 1)])
                forged += [cut, cut + data, data[:length]]
            for at in range(16, len(data)):
                forged += [data[:at] + bytes([value]) + data[at + 1:] for value in
                           {0, 1, 3, 4, 5, 0x40, 0x7f, 0x80, 0xff, data[at] ^ 1} - {data[at]}]
        with open(self.capture, "r+b") as file:
            file.truncate(24)
            file.seek(24)
            for data in forged:
                size = 16 + len(data)
                file.write(struct.pack("=4I", 0, 0, size, size) +
                           struct.pack(">HH10xH", RECEIVED, 824, 16) + data)
        self.assertEqual(self.tshark("frame.number", show="_ws.lua.error"), [])
        malformed = self.tshark("frame.number", show="tavik_wlan.malformed")
        self.assertEqual([number for number in must_be_malformed if number not in malformed], [])
        self.assertGreater(len(must_be_malformed), 50)


if __name__ == "__main__":
    TSHARK, DATAPATHCTL, CONFORMANCE_TEST = sys.argv[1:4]
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
