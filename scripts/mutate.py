#!/usr/bin/env python3
"""Breaks the library's unit and the reference netlink library in many ways, one at a time, and has
their tests find out. scripts/mutate.sh builds what it needs.

A mutant that doesn't compile is invalid, one that compiles to the same object is equivalent;
neither counts. The others are to be killed: by a test that fails, or that doesn't end in time.

    mutate.py BUILD [--only FILE] [--sample N] [--jobs N]
"""
import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import queue
import re
import resource
import shlex
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
GOAL = 95  # per cent, of those that are not explained
SECONDS = 40  # that a test may take; a third of them computing

# Mutants.

Mutant = collections.namedtuple("Mutant", "file line operator start end text old new")

TOKEN = re.compile(r"""
    //[^\n]* | /\*.*?\*/ | \\\n | "(?:\\.|[^"\\])*" | '(?:\\.|[^'\\])*' | [A-Za-z_]\w* | \d[\w']*
    | -> | :: | \+\+ | -- | <= | >= | == | != | && | \|\| | [-+*/%&|^]= | \S""", re.X | re.S)

# No code that runs: directives, a macro's head, checks by the compiler, types.
IDLE = re.compile(r"""
    ^\#(?!define\ \w+\() [^\n]* | ^\#define\ \w+\([^)]*\) | \bstatic_assert\(.*?\);
    | \bstd::array<[^;{}()]*> | (?<=\w)\[[^\]\n]*\](?=[;{]|\ =\ \{)
    | \[\[[\w:,()\s]*\]\] | __attribute__\(\(.*?\)\);""", re.X | re.S | re.M)

# An operator of two operands, which has blanks around it, for others.
BINARY = {
    "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "&&": "||", "||": "&&",
    "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "&": "|", "|": "&", "|=": "=", "+=": "-=",
    "-=": "+=",
}

WORDS = {
    "true": "false", "false": "true", "__func__": '"other"', "min": "max", "max": "min",
    "htons": "", "ntohs": "", "ntohl": "", "MNL_ALIGN": "", "checked_align": "",
}
LEVELS = {"LOW": "MED", "MED": "HIGH", "HIGH": "ERR", "ERR": "LOW"}

# Constants, each for the next one.
NEIGHBOURS = """
NLM_F_REQUEST NLM_F_ACK NLM_F_DUMP NLM_F_DUMP_INTR NLM_F_CAPPED NLM_F_ACK_TLVS
NLMSG_ERROR NLMSG_DONE
NLMSG_HDRLEN GENL_HDRLEN NLA_HDRLEN
NLMSGERR_ATTR_MSG NLMSGERR_ATTR_OFFS NLMSGERR_ATTR_MISS_TYPE NLMSGERR_ATTR_MISS_NEST
CTRL_ATTR_FAMILY_ID CTRL_ATTR_FAMILY_NAME CTRL_ATTR_VERSION
EAGAIN EINTR EPIPE ECONNRESET ETIMEDOUT ENOBUFS EBADMSG EMSGSIZE EINVAL EBUSY ENOMEM ENOSPC
EPROTONOSUPPORT ENAMETOOLONG EEXIST
NETLINK_EXT_ACK NETLINK_CAP_ACK
POLLIN POLLOUT
kPending kDone kInterrupted kFailed
kBeforeHeaders kAfterHeaders
ANDROID_LOG_DEBUG ANDROID_LOG_INFO ANDROID_LOG_ERROR
ZU_LOG_MASK_DIAGNOSTIC ZU_LOG_MASK_ANDROID
PACKET_OUTGOING PACKET_HOST
CORVIL_NETLINK_SENT CORVIL_NETLINK_RECEIVED
corvil_datapath_proxy_add_tuple corvil_datapath_proxy_del_tuple
corvil_datapath_proxy_add_ports corvil_datapath_proxy_del_ports
corvil_datapath_proxy_set_wlan_device corvil_datapath_proxy_unset_wlan_device
ip_proto trans_proto
MSG_DONTWAIT MSG_TRUNC MSG_NOSIGNAL
O_CREAT O_TRUNC O_APPEND O_CLOEXEC
"""


def neighbours():
    protocol = (ROOT / "kernel_interface/tavik_wlan.h").read_text(encoding="utf-8")
    groups = [line.split() for line in NEIGHBOURS.split("\n") if line]
    for group in ("CMD", "ATTR", "IP_PROTO", "TRANS_PROTO"):
        groups.append(re.findall(rf"^\s*(?:#define )?(TAVIK_WLAN_{group}_(?!MAX)\w+) (?:= )?\d",
                                 protocol, re.M))
    return {name: after for group in groups for name, after in zip(group, group[1:] + group[:1])}


class Source:
    """A file as tokens, each (text, start, end)."""

    def __init__(self, path):
        self.path = path
        self.text = (ROOT / path).read_text(encoding="utf-8")
        code = IDLE.sub(lambda idle: re.sub(r"[^\n]", " ", idle[0]), self.text)
        self.tokens = [(found[0], found.start(), found.end()) for found in TOKEN.finditer(code)
                       if not found[0].startswith(("//", "/*", "\\"))]
        self.partner = {}  # of a bracket: the index of the other one
        self.level = []  # the index of the innermost open bracket
        opened = [-1]
        for i, (token, _, _) in enumerate(self.tokens):
            if token in ("(", "[", "{"):
                opened.append(i)
            elif token in (")", "]", "}"):
                self.partner[i] = opened.pop()
                self.partner[self.partner[i]] = i
            self.level.append(opened[-1])

    def statements(self):
        """The statements that end with ';', each (index of its first token, of its ';')."""
        start = 0
        for i, (token, _, _) in enumerate(self.tokens):
            around = self.level[i]
            if around >= 0 and self.tokens[around][0] != "{":
                continue
            if token == ";" and start < i and self.level[start] in (around, start):
                yield start, i
            labels = token == ":" and "case" in (self.tokens[i - 2][0], self.tokens[i - 4][0])
            if token in (";", "{", "}") or labels or self.tokens[i - 1][0] == "default":
                start = i + 1

    def mutants(self):
        seen = set()
        for operator, start, end, text in self.edits():
            removed = self.text[start:end]
            missing = removed.count("\n") - text.count("\n")
            text += ("\\\n" if "\\\n" in removed else "\n") * missing  # Lines keep their numbers.
            if text == removed or (start, end, text) in seen:
                continue
            seen.add((start, end, text))
            first = self.text.rfind("\n", 0, start) + 1
            last = self.text.find("\n", end)
            old, new = (" ".join((self.text[first:start] + middle + self.text[end:last]).split())
                        for middle in (removed, text))
            yield Mutant(self.path, self.text.count("\n", 0, start) + 1, operator, start, end, text,
                         old, new)

    def edits(self):
        """Every change as (operator, start, end, new text)."""
        yield from self.token_edits()
        yield from self.condition_edits()
        yield from self.statement_edits()

    def token_edits(self):
        constants = neighbours()
        for i, (token, start, end) in enumerate(self.tokens):
            is_binary = self.text[start - 1] == " " and self.text[end] in " \n"
            if is_binary and token in BINARY:
                yield "operator", start, end, BINARY[token]
            elif token == "!":
                yield "operator", start, end, ""
            elif token in ("++", "--"):
                yield "operator", start, end, "--" if token == "++" else "++"
            elif token == "?":
                yield "condition", start, start, "|| true "
                yield "condition", start, start, "&& false "
            elif token[0].isdigit():
                is_negative = self.tokens[i - 1][0] == "-" and self.tokens[i - 1][2] == start
                yield "constant", start, end, "0" if is_negative else f"{token} + 1"
            elif token in constants:
                yield "constant", start, end, constants[token]
            elif token in LEVELS and self.tokens[i - 2][0].startswith("DATAPATH_LOG"):
                yield "level", start, end, LEVELS[token]
            elif token in WORDS and self.tokens[i - 1][0] != "datapath":
                yield "word", start, end, WORDS[token]
            elif token[0] == '"':
                yield "text", start, end, re.sub(r'((\\n)?")$', r"~\1", token)
            elif token in ("break", "continue"):
                yield "jump", start, end, "continue" if token == "break" else "break"
                yield "jump", start, end, ""
            elif token in "(," and re.match(r"\W\s*[a-z]\w+,\s*[a-z]\w+[,)]",
                                            self.text[start:end + 100]):
                a, b = self.tokens[i + 1], self.tokens[i + 3]
                yield "arguments", a[1], b[2], b[0] + self.text[a[2]:b[1]] + a[0]

    def condition_edits(self):
        for i, (token, _, _) in enumerate(self.tokens[:-1]):
            if token not in ("if", "while", "for") or self.tokens[i + 1][0] != "(":
                continue
            start, end = self.tokens[i + 1][2], self.tokens[self.partner[i + 1]][1]
            condition = self.text[start:end]
            if token == "for":
                parts = condition.split(";")
                if len(parts) == 3 and parts[1]:
                    yield "condition", start + len(parts[0]) + 1, end - len(parts[2]) - 1, " false"
                continue
            declares = condition + "; " if re.match(r"const \S+ \w+ = ", condition) else ""
            yield "condition", start, end, declares + "false"
            if token == "if":
                yield "condition", start, end, declares + "true"

    def statement_edits(self):
        before = None
        for first, last in self.statements():
            start, end = self.tokens[first][1], self.tokens[last][2]
            text = self.text[start:end]
            if text.startswith("return"):
                value = text[len("return"):-1].strip()
                if value not in ("", "-1"):  # -1 is a constant, too
                    yield "return", start, end, "return -1;" if value == "0" else "return {};"
            jumps = re.match(r"(return|break|continue|using|case|default|namespace)\b", text)
            runs = re.match(r"[*+-]|[\w:.>-]+(<.*>)?(\[.*\])?\s*(\(|=|[-+|]=|\+\+|\.|->)", text)
            if runs and not jumps:
                dropped = re.search(r"\b(free|release|reset|close|mnl_socket_close)\(", text)
                yield "drop" if dropped else "deletion", start, end, ";"
            if not runs or jumps:
                before = None
                continue
            if before and self.level[before[2]] == self.level[last]:
                between, earlier = self.text[before[1]:start], self.text[before[0]:before[1]]
                # What has nothing in common may come in any order, and so may assignments.
                common = set(re.findall(r"[a-z]\w+", earlier)) & set(re.findall(r"[a-z]\w+", text))
                assigned = re.match(r"\S+ = ", earlier) and re.match(r"\S+ = ", text)
                if common and not assigned and not between.strip():
                    yield "order", before[0], end, text + between + earlier
            before = (start, end, last)


# Trials.


class Group:
    """The sources of one program or library, how to build it, and its tests, the quickest first."""

    def __init__(self, build, sources, objects, target, tests):
        self.build, self.target, self.tests = build, target, tests
        self.sources = sorted(str(path.relative_to(ROOT)) for pattern in ("*.cpp", "*.h")
                              for path in (ROOT / sources).glob(pattern))
        commands = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
        self.compilations = {}  # by object
        for entry in commands:
            arguments = shlex.split(entry["command"])
            path = arguments[arguments.index("-o") + 1]
            if re.search(objects, path):
                # No warning shall judge in the tests' place, nor a test be made fast.
                extra = ["-w", "-g0", "-D_GLIBCXX_ASSERTIONS"]
                extra += ["-O0"] if path.startswith("tests/") else []
                self.compilations[path] = arguments + extra
        links = self.ninja("commands", target).splitlines()
        link = next(line for line in reversed(links) if f" -o {target} " in line)
        self.link = shlex.split(link.split(" && ")[1])
        self.dependencies = {path: set(self.ninja("deps", path).split())
                             for path in self.compilations}
        self.baseline = {}  # by object: the bytes without a mutation

    def ninja(self, tool, argument):
        return subprocess.run(["ninja", "-C", self.build, "-t", tool, argument], check=True,
                              capture_output=True, text=True).stdout

    def compile(self, folder, file, text):
        """Compiles what depends on a file with another text. Returns the objects, or None."""
        overlay = folder / "source"
        changed = overlay / file
        changed.parent.mkdir(parents=True, exist_ok=True)
        changed.write_text(text, encoding="utf-8")
        objects = {}
        for path, arguments in self.compilations.items():
            if str(ROOT / file) not in self.dependencies[path]:
                continue
            objects[path] = folder / pathlib.Path(path).name
            where = {str(ROOT / file): str(changed), path: str(objects[path])}
            command = [where.get(argument, argument) for argument in arguments]
            if run(command[:1] + [f"-I{overlay}"] + command[1:], self.build, {}, 120)[0] != 0:
                objects = None
                break
        changed.unlink()  # or others' objects would include it
        return objects

    def try_mutant(self, folder, mutant):
        """Returns (what became of it, by which test)."""
        text = (ROOT / mutant.file).read_text(encoding="utf-8")
        objects = self.compile(folder, mutant.file,
                               text[:mutant.start] + mutant.text + text[mutant.end:])
        if objects is None:
            return "invalid", ""
        if all(output.read_bytes() == self.baseline[path] for path, output in objects.items()):
            return "equivalent", ""
        return self.test(folder, objects, mutant.file)

    def test(self, folder, objects, file=""):
        """Links objects in the place of their own kind, and runs the tests. Returns as above."""
        program = folder / pathlib.Path(self.target).name
        replaced = {path: str(output) for path, output in objects.items()}
        replaced[self.target] = str(program)
        if run([replaced.get(a, a) for a in self.link], self.build, {}, 120)[0] != 0:
            return "invalid", ""
        for name, files, command, environment, tries in self.tests:
            if re.search(files, file) and self.fails(folder, command, environment, tries):
                return "killed", name
        return "survived", ""

    def fails(self, folder, command, environment, tries):
        program = str(folder / pathlib.Path(self.target).name)
        arguments = [program if part == self.target else part for part in command]
        scratch = {**environment, "LD_LIBRARY_PATH": str(folder), "GTEST_BREAK_ON_FAILURE": "1",
                   "TMPDIR": str(folder / "tmp"), "TEST_TMPDIR": str(folder / "tmp") + "/"}
        for _ in range(tries):
            status, timed_out = run(arguments, self.build, scratch, SECONDS)
            if status == 0:
                return False
            if timed_out:
                break
        return True

    def prepare(self, folder):
        """Takes the baseline; fails unless it passes its tests."""
        for path, arguments in self.compilations.items():
            source = pathlib.Path(arguments[arguments.index("-c") + 1])
            file = str(source.relative_to(ROOT))
            objects = self.compile(folder, file, source.read_text(encoding="utf-8"))
            if objects is None:
                sys.exit(f"mutate: {file} does not compile")
            self.baseline[path] = objects[path].read_bytes()
        state, test = self.test(folder, objects)
        if state != "survived":
            sys.exit(f"mutate: without a mutation, {self.target} is {state} {test}")


def limit(seconds):
    resource.setrlimit(resource.RLIMIT_CPU, (seconds // 3, seconds // 3))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_AS, (4 << 30, 4 << 30))
    resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 28, 1 << 28))


def run(command, folder, environment, seconds):
    """Runs a command with all that it starts. Returns its status and whether it timed out."""
    with subprocess.Popen(command, cwd=folder, env={**os.environ, **environment},
                          stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, start_new_session=True,
                          preexec_fn=lambda: limit(seconds)) as process:
        timed_out = False
        try:
            process.wait(seconds)
        except subprocess.TimeoutExpired:
            timed_out = True
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        return process.wait(), timed_out


def groups(build):
    silent = {"FAKE_HOST_SILENT": "1"}
    program = "bin/library_test"
    yield Group(build, "datapath_proxy/src", r"corvil_datapath_proxy_unit|/log_test", program,
                [("library_test", "", [program], {}, 1),
                 ("library_test_silent", "", [program, "--gtest_filter=-LogTest.*"], silent, 1)])
    # What a busy machine may fail has to fail again.
    tests = [(name, "", [str(build / "bin" / name)], {}, tries)
             for name, tries in (("reference_host_test", 1), ("conformance_test", 1),
                                 ("emulator_test", 2), ("datapathctl_test", 2))]
    wireshark = ["python3", str(ROOT / "tests/wireshark_test.py"), str(build / "bin/datapathctl"),
                 str(build / "bin/conformance_test")]
    if run(wireshark, build, {}, 60)[0] == 0:  # else it can't run here
        tests.append(("wireshark", "/(capture|trace)", wireshark, {}, 2))
    torture = [str(build / "bin/torture"), "--short"]
    batch = str(ROOT / "scripts/demo.batch")
    tests += [("torture kernel", "", torture + ["--target=kernel", batch], {}, 1),
              ("torture", "", torture + [batch], {}, 2)]
    yield Group(build, "reference_host/netlink", r"corvil_netlink\.dir",
                "bin/libcorvil_netlink.so.1", tests)


def explanations():
    """What can't be killed, as (pattern of "FILE: OPERATOR: OLD => NEW", reason)."""
    path = ROOT / "scripts/mutate_explained.txt"
    lines = [line for line in path.read_text(encoding="utf-8").splitlines()
             if line and not line.startswith("#")]
    reason = ""
    for line in lines:
        if line.startswith("  "):
            yield re.compile(line.strip()), reason
        else:
            reason = line


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--only", default="", help="files whose path has this in it")
    parser.add_argument("--sample", type=int, help="so many of the mutants")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    options = parser.parse_args()
    began = time.monotonic()
    build = options.build.resolve()
    work = []
    with tempfile.TemporaryDirectory(prefix="mutate.") as scratch:  # sockets need a short path
        folders = queue.Queue()
        for i in range(options.jobs):
            folder = pathlib.Path(scratch) / str(i)
            (folder / "tmp").mkdir(parents=True)
            folders.put(folder)
        for group in groups(build):
            mutants = [mutant for file in group.sources if options.only in file
                       for mutant in Source(file).mutants()]
            if mutants:
                group.prepare(pathlib.Path(scratch) / "0")
            work += [(group, mutant) for mutant in mutants]
        if options.sample:
            work = work[::max(1, len(work) // options.sample)]

        def trial(job):
            folder = folders.get()
            try:
                return job[0].try_mutant(folder, job[1])
            finally:
                folders.put(folder)

        results = []
        with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool, \
                open(build / "mutants.txt", "w", encoding="utf-8") as log:
            for (_, mutant), (state, test) in zip(work, pool.map(trial, work)):
                results.append((mutant, state))
                print(f"{state} {test} {mutant.file}:{mutant.line}: {mutant.operator}: "
                      f"{mutant.old} => {mutant.new}", file=log, flush=True)
    return report(results, (time.monotonic() - began) / 60)


def report(results, minutes):
    patterns = list(explanations())
    explained = 0
    for mutant, state in results:
        if state == "survived":
            change = f"{mutant.operator}: {mutant.old} => {mutant.new}"
            why = next((why for pattern, why in patterns
                        if pattern.search(f"{mutant.file}: {change}")), None)
            explained += why is not None
            print(f"{mutant.file}:{mutant.line}: {change}")
            if why:
                print(f"  explained: {why}")
    tally = collections.Counter((mutant.operator, state) for mutant, state in results)
    for operator in sorted({operator for operator, _ in tally}):
        print(f"{operator}: {tally[operator, 'killed']} killed, "
              f"{tally[operator, 'survived']} survived")
    count = collections.Counter(state for _, state in results)
    killed, valid = count["killed"], count["killed"] + count["survived"]
    of_all, of_killable = (100 * killed / max(1, total) for total in (valid, valid - explained))
    print(f"mutants: {valid} valid, {killed} killed ({of_all:.1f}%, {of_killable:.1f}% of those "
          f"not explained), {count['survived']} survived ({explained} explained), "
          f"{count['invalid']} invalid, {count['equivalent']} equivalent, in {minutes:.0f} min")
    return 0 if of_killable >= GOAL else 1


if __name__ == "__main__":
    sys.exit(main())
