#!/usr/bin/python3
"""Whether the header, the YAML description and the dissector agree on names, numbers and types."""
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

try:
    import yaml
except ImportError:
    print("python3-yaml is not here")
    sys.exit(77)

FOLDER = pathlib.Path(__file__).parents[2] / "kernel_interface"
HEADER = (FOLDER / "tavik_wlan.h").read_text()
SPEC = yaml.safe_load((FOLDER / "tavik_wlan.yaml").read_text())
CONSTANTS = dict(re.findall(r'TAVIK_WLAN_(\w+)(?: =)? "?([0-9]+|TAVIK_WLAN)\b', HEADER))
# Of the constants that are the values of a field of the dissector.
PREFIXES = {"command": "CMD_", "attribute.type": "ATTR_", "tuples.type": "", "element.type": "",
            "tuple.ip_version": "IP_PROTO_", "tuple.protocol": "TRANS_PROTO_"}
TYPES = {"nest": "nested", "string": "string", "u16 big-endian": "__be16", "u8": "__u8"}


def upper(name):
    return name.upper().replace("-", "_").removeprefix("TAVIK_WLAN_")


def comments(prefix):
    """What the header's comments say of each constant, up to a colon."""
    found = re.findall(rf"TAVIK_WLAN_{prefix}_(\w+) = \d+, +/\* ([^*;:]+)", HEADER)
    return {name: comment.strip().replace("no attribute", "") for name, comment in found}


class AgreementTest(unittest.TestCase):
    maxDiff = None

    def test_constants_of_the_description(self):
        found = {"FAMILY_NAME": SPEC["name"], "FAMILY_VERSION": SPEC["version"]}
        for definition in SPEC["definitions"]:
            if definition["type"] == "const":
                found[upper(definition["name"])] = definition["value"]
            for entry in definition.get("entries", []):
                found[upper(definition["name-prefix"] + entry["name"])] = entry["value"]
        for group in [*SPEC["attribute-sets"], SPEC["operations"]]:
            for entry in group.get("attributes") or group["list"]:
                found[upper(group["name-prefix"] + entry["name"])] = entry["value"]
        self.assertEqual(CONSTANTS, {name: str(value) for name, value in found.items()})

    def test_constants_of_the_dissector(self):
        script = f"lua_script:{FOLDER}/wireshark/tavik_wlan.lua"
        values = subprocess.run(["tshark", "-G", "values", "-X", script], check=True, text=True,
                                capture_output=True).stdout
        found = re.findall(r"^V\ttavik_wlan\.(\S+)\t(\d+)\t(\S+)$", values, re.MULTILINE)
        self.assertEqual({name: value for name, value in CONSTANTS.items()
                          if not re.match("FAMILY_|TUPLES_PER_MESSAGE", name)},
                         {PREFIXES[field] + name: value for field, value, name in found})

    def test_types_and_attributes_of_the_description(self):
        self.assertEqual(comments("ATTR"), {
            upper(its["name"]): TYPES[f"{its['type']} {its.get('byte-order', '')}".strip()]
            for its in SPEC["attribute-sets"][0]["attributes"]})
        self.assertEqual(comments("CMD"), {
            upper(its["name"]): ", ".join(
                map(upper, its.get("do", {}).get("request", {}).get("attributes", [])))
            for its in SPEC["operations"]["list"]})


if __name__ == "__main__":
    sys.exit(unittest.main() if shutil.which("tshark") else 77)
