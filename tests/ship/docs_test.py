#!/usr/bin/python3
"""Runs the commands of README.md, docs/*.md and the manuals, which stand there behind "$ ", and
compares what they print with what is shown below them; "…" there stands for anything. A command
with nothing below it has to succeed. Each page has a shell, all have a fresh copy of the tree.

    docs_test.py BUILD        all but the blocks below <!-- run by …: why -->; build/release is BUILD
    docs_test.py BUILD docs   those below <!-- run by docs: why -->, too; build/ is not there at first
"""
import difflib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv[1]).resolve()
STAGES = ["", *sys.argv[2:]]
# What differs from run to run.
RULES = [(r"\bseq \d+", "seq N"), (r"\b\d\d:\d\d:\d\d\.\d+", "TIME"),
         (r"\b(port|pid|client) \d+", r"\1 N"), (r"\b6\.12\.\S+-cloud-amd64", "KERNEL")]


def blocks(page):
    text = page.read_text()
    if page.suffix == ".md":
        pattern = r"(?:<!-- run by (\w+): .* -->\n+)?((?:^    .*\n|^\n(?=    ))+)"
        return [re.sub("^    ", "", block, flags=re.M)
                for stage, block in re.findall(pattern, text, re.M) if stage in STAGES]
    return [block.replace("\\\n", "").replace("\\e", "\\").replace("\\-", "-")
            for block in re.findall(r"^\.EX\n(.*?)^\.EE", text, re.M | re.S)]


def is_complete(command):
    check = subprocess.run(["bash", "-n"], input=command, capture_output=True, text=True)
    return not command.endswith("\\") and not re.search("EOF|end.of.file", check.stderr)


def commands(block):
    """Pairs of a command and what is shown below it."""
    found = []
    for line in block.splitlines():
        if found and not is_complete(found[-1][0]):
            found[-1][0] += "\n" + line
        elif line.startswith("$ "):
            found.append([line[2:], ""])
        elif found:
            found[-1][1] += line + "\n"
    return found


def check(command, shown, actual, status):
    """Whether a command does what its page shows."""
    for rule in RULES:
        actual, shown = re.sub(*rule, actual).rstrip(), re.sub(*rule, shown).rstrip()
    if re.fullmatch(re.escape(shown).replace("…", r"[\s\S]*"), actual) if shown else status == 0:
        return True
    print(f"$ {command}", f"exit status {status}", *difflib.unified_diff(
        shown.splitlines(), actual.splitlines(), "shown", "actual", lineterm=""), sep="\n")
    return False


def run(page, folder):
    """How many commands of a page do something else than it shows."""
    cases = [case for block in blocks(page) for case in commands(block)]
    print(f"{page.name}: {len(cases)} commands")
    out = pathlib.Path(tempfile.mkdtemp(dir=folder))
    script = "trap 'kill $(jobs -p) 2>/dev/null' EXIT\n"
    for i, (command, shown) in enumerate(cases):  # each finds the exit status of the one before it
        script += (f"exec >{out}/{i} 2>&1; (exit $status)\n{command}\n"
                   f"status=$?; echo $status >{out}/{i}.status\n")
        if command.endswith("&") and shown:
            script += f"until [ -s {out}/{i} ]; do sleep 0.1; done\n"
    environment = {**os.environ, "PATH": f"{BUILD}/bin:{os.environ['PATH']}", "HOME": str(folder)}
    subprocess.run(["bash", "-c", script], cwd=folder / "tree", env=environment, timeout=1800,
                   stdin=subprocess.DEVNULL, check=False)
    return sum(not check(*case, (out / str(i)).read_text(), int((out / f"{i}.status").read_text()))
               for i, case in enumerate(cases))


with tempfile.TemporaryDirectory() as scratch:
    tree = pathlib.Path(scratch) / "tree"
    shutil.copytree(ROOT, tree, ignore=shutil.ignore_patterns("build", ".git"))
    if "docs" not in STAGES:
        (tree / "build").mkdir()
        (tree / "build/release").symlink_to(BUILD)
    pages = [ROOT / "README.md", *sorted(ROOT.glob("docs/*.md")), *sorted(ROOT.glob("docs/man/*"))]
    sys.exit(1 if sum([run(page, tree.parent) for page in pages]) else 0)
