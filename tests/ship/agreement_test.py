#!/usr/bin/python3
"""Whether the protocol's header, its table for C++, its YAML description, its dissector and the
kernel module agree on names, numbers, types and the attributes of each command."""
import pathlib
import re
import shutil
import subprocess
import unittest

try:
    import yaml
except ImportError:
    print("python3-yaml is not here")
    sys.exit(77)

FOLDER = pathlib.Path(__file__).parents[2] / "kernel_interface"
HEADER = (FOLDER / "tavik_wlan.h").read_text()
TABLE = (FOLDER / "protocol.h").read_text()
MODULE = (FOLDER.parent / "reference_kernel/module/tavik_wlan.c").read_text()
SPEC = yaml.safe_load((FOLDER / "tavik_wlan.yaml").read_text())
CONSTANTS = dict(re.findall(r'TAVIK_WLAN_(\w+)(?: =)? "?([0-9]+|TAVIK_WLAN)\b', HEADER))
# Of the constants that are the values of a field of the dissector.
PREFIXES = {"command": "CMD_", "attribute.type": "ATTR_", "tuples.type": "", "element.type": "",
            "tuple.ip_version": "IP_PROTO_", "tuple.protocol": "TRANS_PROTO_"}
# What the description, the table and the module call the types of the header's comments.
TYPES = {"nest": "nested", "string": "string", "u16big-endian": "__be16", "u8": "__u8",
         "Tuples": "nested", "Name": "string", "Address": "string", "Port": "__be16", "U8": "__u8",
         "NLA_POLICY_NESTED": "nested", "NAME_POLICY": "string", "ADDRESS_POLICY": "string",
         "NLA_BE16": "__be16", "NLA_U8": "__u8"}


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

    @unittest.skipUnless(shutil.which("tshark"), "takes tshark")
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
            upper(its["name"]): TYPES[its["type"] + its.get("byte-order", "")]
            for its in SPEC["attribute-sets"][0]["attributes"]})
        self.assertEqual(comments("CMD"), {
            upper(its["name"]): ", ".join(
                map(upper, its.get("do", {}).get("request", {}).get("attributes", [])))
            for its in SPEC["operations"]["list"]})

    def test_types_and_attributes_of_the_table(self):
        attributes = re.findall(r'TAVIK_WLAN_ATTR_(\w+), "(\w+)", Kind::k(\w+)', TABLE)
        commands = re.findall(r'{TAVIK_WLAN_CMD_(\w+),\s+"(\w+)"(?:,\s+{([^}]*)})?', TABLE)
        self.assertEqual([row[0] for row in attributes + commands],
                         [row[1] for row in attributes + commands])
        self.assertEqual(comments("ATTR"), {name: TYPES[kind] for name, _, kind in attributes})
        self.assertEqual(comments("CMD"), {
            name: ", ".join(re.findall(r"ATTR_(\w+)", its)) for name, _, its in commands})

    def test_types_and_attributes_of_the_module(self):
        types, commands = comments("ATTR"), comments("CMD")
        policies = {name: dict(re.findall(r"TAVIK_WLAN_ATTR_(\w+)\] = (?:{ \.type = )?(\w+)", its))
                    for name, its in re.findall(r"(\w+)\[TAVIK_WLAN_ATTR_MAX \+ 1\] = {(.*?)};",
                                                MODULE, re.DOTALL)}
        self.assertEqual(
            {command: {name: types[name] for name in filter(None, its.split(", "))}
             for command, its in commands.items()},
            {command: {name: TYPES[kind] for name, kind in policies[policy].items()}
             for command, policy in re.findall(r"TAVIK_WLAN_CMD_(\w+),[^;]*?(\w+_policy)", MODULE)})


if __name__ == "__main__":
    unittest.main()
