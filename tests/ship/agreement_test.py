#!/usr/bin/python3
"""Whether the protocol's header, its table for C++, its YAML description, its dissector and the
kernel module agree on names, numbers, types and the attributes of each command."""
import pathlib
import re
import sys
import unittest

try:
    import yaml
except ImportError:
    print("python3-yaml is not here")
    sys.exit(77)

FOLDER = pathlib.Path(__file__).parents[2] / "kernel_interface"
HEADER = (FOLDER / "tavik_wlan.h").read_text()
DISSECTOR = (FOLDER / "wireshark/tavik_wlan.lua").read_text()
TABLE = (FOLDER / "protocol.h").read_text()
MODULE = (FOLDER.parent / "reference_kernel/module/tavik_wlan.c").read_text()
SPEC = yaml.safe_load((FOLDER / "tavik_wlan.yaml").read_text())
CONSTANTS = dict(re.findall(r'TAVIK_WLAN_(\w+)(?: =)? "?([0-9]+|TAVIK_WLAN)\b', HEADER))
# What the description, the table and the module call the types of the header's comments.
TYPES = {"nest": "nested", "string": "string", "u16big-endian": "__be16", "u8": "__u8",
         "Tuples": "nested", "Name": "string", "Address": "string", "Port": "__be16", "U8": "__u8",
         "NLA_POLICY_NESTED": "nested", "NAME_POLICY": "string", "ADDRESS_POLICY": "string",
         "NLA_BE16": "__be16", "NLA_U8": "__u8"}


def upper(name):
    return name.upper().replace("-", "_").removeprefix("TAVIK_WLAN_")


def comments(prefix):
    """What the header's comments list for each constant, up to a semicolon or colon."""
    found = re.findall(rf"TAVIK_WLAN_{prefix}_(\w+) = \d+, +/\* ([^*;:]+)", HEADER)
    return {name: set(re.findall(r"\w+", its.replace("no attribute", ""))) for name, its in found}


class AgreementTest(unittest.TestCase):
    maxDiff = None

    def expect_agreement(self, types, attributes):
        """With the header, of each attribute's type and of each command's attributes."""
        self.assertEqual({(name, *its) for name, its in comments("ATTR").items()},
                         {(name, TYPES[its]) for name, its in types})
        self.assertEqual(comments("CMD"), {name: set(its) for name, its in attributes.items()})

    def test_description(self):
        found = {"FAMILY_NAME": SPEC["name"], "FAMILY_VERSION": SPEC["version"]}
        for definition in SPEC["definitions"]:
            if definition["type"] == "const":
                found[upper(definition["name"])] = definition["value"]
            for entry in definition.get("entries", []):
                found[upper(definition["name-prefix"] + entry["name"])] = entry["value"]
        for group in [*SPEC["attribute-sets"], SPEC["operations"]]:
            for number, entry in enumerate(group.get("attributes") or group["list"], 1):
                found[upper(group["name-prefix"] + entry["name"])] = entry.get("value", number)
        self.assertEqual(CONSTANTS, {name: str(value) for name, value in found.items()})
        self.expect_agreement(
            ((upper(its["name"]), its["type"] + its.get("byte-order", ""))
             for its in SPEC["attribute-sets"][0]["attributes"]),
            {upper(its["name"]): map(upper, its.get("do", {}).get("request", {}).get(
                "attributes", [])) for its in SPEC["operations"]["list"]})

    def test_dissector(self):
        tables = re.findall(r"^local (\w+) = ({[^}]*}|{\n.*?\n})$", DISSECTOR, re.M | re.S)
        found = {name: re.findall(r'\[(\d+)\] = (?:row\(|{ name = )?"(\w+)"', rows)
                 for name, rows in tables}
        for table, prefix in (("COMMANDS", "CMD_"), ("ATTRIBUTES", "ATTR_"),
                              ("IP_PROTOS", "IP_PROTO_"), ("TRANS_PROTOS", "TRANS_PROTO_")):
            self.assertEqual({name: number for name, number in CONSTANTS.items()
                              if name.startswith(prefix)},
                             {prefix + name: number for number, name in found[table]})

    def test_table(self):
        attributes = re.findall(r'TAVIK_WLAN_ATTR_(\w+), "(\w+)", Kind::k(\w+)', TABLE)
        commands = re.findall(r'{TAVIK_WLAN_CMD_(\w+),\s+"(\w+)"(?:,\s+{([^}]*)})?', TABLE)
        for constant, name, _ in attributes + commands:
            self.assertEqual(constant, name)
        self.expect_agreement(((name, kind) for _, name, kind in attributes),
                              {name: re.findall(r"ATTR_(\w+)", its) for _, name, its in commands})

    def test_module(self):
        policies = {name: dict(re.findall(r"TAVIK_WLAN_ATTR_(\w+)\] = (?:{ \.type = )?(\w+)", its))
                    for name, its in re.findall(r"(\w+)\[TAVIK_WLAN_ATTR_MAX \+ 1\] = {(.*?)};",
                                                MODULE, re.DOTALL)}
        commands = re.findall(r"TAVIK_WLAN_CMD_(\w+)\] = { (\w+_policy)", MODULE)
        self.expect_agreement((its for policy in policies.values() for its in policy.items()),
                              {command: policies[policy] for command, policy in commands})


if __name__ == "__main__":
    unittest.main()
