#!/usr/bin/env python3
"""Turns what scripts/bench.sh has measured into tables of ratios, and into the data of its charts.

    report.py FOLDER

reads results.json, callgrind.out, counts.tsv and files.tsv there and, if there, kernel.json; writes
table.md and *.dat.
"""

import collections
import json
import pathlib
import random
import re
import statistics
import subprocess
import sys

RIVALS = ("library", "libmnl", "libnl")
RESAMPLES = 2000
FLOOR = "floor"
ACKNOWLEDGED_FLOOR = "floor of 5"
LISTS = (1, 16, 256, 4095)
PEERS = {"emulator": "emulator", "kernel": "kernel in the VM",
         "controller": "this machine's kernel"}


class Ratio:
    """How many times b's median a's median is, with its 95 % interval by bootstrap."""

    def __init__(self, a, b):
        self.value = statistics.median(a) / statistics.median(b)
        source = random.Random(1)  # The same input, the same report.
        ratios = sorted(statistics.median(source.choices(a, k=len(a))) /
                        statistics.median(source.choices(b, k=len(b))) for _ in range(RESAMPLES))
        self.low, self.high = ratios[RESAMPLES // 40], ratios[-RESAMPLES // 40]

    def __str__(self):
        return f"{self.value:.2f} [{self.low:.2f}, {self.high:.2f}]"


class Exact(Ratio):
    """A ratio of counts, which are the same each time."""

    def __init__(self, a, b):
        self.value = self.low = self.high = a / b

    def __str__(self):
        return f"{self.value:.2f}"


def times_of(path):
    """Nanoseconds of each repetition, by peer or group, case and rival.

    Processor time, but where another process answers, of which only the clock on the wall tells."""
    times = collections.defaultdict(lambda: collections.defaultdict(dict))
    if path.exists():
        for run in json.loads(path.read_text())["benchmarks"]:
            if run["run_type"] != "iteration":
                continue
            if run.get("error_occurred"):
                sys.exit(f"report: {run['name']}: {run['error_message']}")
            group, case, rival, *wall = run["run_name"].split("/")
            times[group][case].setdefault(rival, []).append(
                run["real_time" if wall else "cpu_time"])
    return times


def counts_of(folder):
    """Instructions and heap allocations of one run, by operation."""
    runs, allocations, instructions = {}, {}, {}
    for line in (folder / "counts.tsv").read_text().splitlines():
        name, count, allocated = line.split("\t")
        runs[name], allocations[name] = int(count), float(allocated)
    dumps = re.findall(r"^desc: Trigger: Client Request: (.*)\n(?:.*\n)*?summary: (\d+)",
                       (folder / "callgrind.out").read_text(), re.MULTILINE)
    for name, total in dumps:
        instructions[name] = int(total) / runs[name]
    loop = instructions["log/off/nothing"]
    return {name: total - loop for name, total in instructions.items()}, allocations


def files_of(path):
    """Sizes and loading times: lists of numbers by (file, quantity)."""
    values = collections.defaultdict(list)
    for line in path.read_text().splitlines():
        name, quantity, value = line.split("\t")
        values[name, quantity].append(int(value))
    return values


def in_order(times, order):
    """The cases in the order in which operations were counted: repetitions were shuffled."""
    places = {name.split("/")[1]: place for place, name in reversed([*enumerate(order)])}
    return {group: {case: cases[case] for case in sorted(cases, key=places.get)}
            for group, cases in times.items()}


def table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "|---" + "|---:" * (len(heads) - 1) + "|"]
    return "\n".join(lines + ["| " + " | ".join(map(str, row)) + " |" for row in rows]) + "\n"


def nanoseconds(times):
    median = statistics.median(times)
    return f"{median:,.1f}" if median < 100 else f"{median:,.0f}"


def build_tables(times, instructions, allocations):
    counted, timed = [], []
    for case, rivals in times.items():
        counts = [instructions[f"build/{case}/{rival}"] for rival in RIVALS]
        counted.append([case, *(f"{count:,.0f}" for count in counts),
                        *(Exact(counts[0], other) for other in counts[1:]),
                        *(f"{allocations[f'build/{case}/{rival}']:g}" for rival in RIVALS)])
        timed.append([case, *(nanoseconds(rivals[rival]) for rival in RIVALS),
                      *(Ratio(rivals["library"], rivals[rival]) for rival in RIVALS[1:])])
    return ("### Building: instructions and heap allocations\n\n" +
            table(["call, or ports in a list", *RIVALS, "to libmnl", "to libnl",
                   *(f"allocations, {rival}" for rival in RIVALS)], counted) +
            "\n### Building: nanoseconds\n\n" +
            table(["call, or ports in a list", *RIVALS, "to libmnl", "to libnl"], timed))


def port_costs(times, instructions):
    """What a port costs, headers and all."""
    for count in LISTS:
        case = f"ports {count}"
        yield (count, instructions[f"build/{case}/library"] / count,
               [time / count for time in times[case]["library"]])


def port_table(times, instructions):
    rows = [[count, f"{exact:.1f}", f"{statistics.median(timed):.2f}"]
            for count, exact, timed in port_costs(times, instructions)]
    return ("### Cost of a port\n\n" +
            table(["ports in a list", "instructions a port", "nanoseconds a port"], rows))


def call_rows(peer, times):
    for case, rivals in times.items():
        yield [f"{peer}: {case}",
               *(nanoseconds(rivals[rival]) if rival in rivals else ""
                 for rival in (FLOOR, ACKNOWLEDGED_FLOOR, *RIVALS)),
               *(Ratio(rivals[rival], rivals[FLOOR]) if FLOOR in rivals else ""
                 for rival in RIVALS),
               Ratio(rivals["libnl"], rivals["library"])]


def call_table(groups):
    rows = [row for peer, times in groups.items() for row in call_rows(peer, times)]
    return ("### Whole calls and reading back: nanoseconds, in the VM instructions\n\n" +
            table(["peer: case", FLOOR, "with acknowledged look-up", *RIVALS,
                   *(f"{rival} to floor" for rival in RIVALS), "libnl to library"], rows))


def log_cost(times):
    """Nanoseconds of a statement with all sinks off: the medians' difference and its interval."""
    off = times["off"]
    nothing = statistics.median(off["nothing"])
    ratio = Ratio(off["library"], off["nothing"])
    return [(factor - 1) * nothing for factor in (ratio.value, ratio.low, ratio.high)]


def log_table(times, instructions):
    cost = log_cost(times)
    rows = [["off", f"{cost[0]:.2f} [{cost[1]:.2f}, {cost[2]:.2f}]",
             f"{instructions['log/off/library']:.0f}"]]
    for sink in ("file", "diagnostic", "android"):
        rows.append([sink, nanoseconds(times[sink]["library"]),
                     f"{instructions[f'log/{sink}/library']:,.0f}"])
    return ("### A log statement\n\n" + table(["sink", "nanoseconds", "instructions"], rows))


def file_table(files):
    quantities = ("text", "relocations", "stripped", "load")
    names = list(dict.fromkeys(name for name, _ in files))
    rows = [[name, *(f"{statistics.median(files[name, quantity]):,.0f}"
                     if (name, quantity) in files else "" for quantity in quantities)]
            for name in names]
    return ("### Size and start\n\n" +
            table(["file", "text bytes", "relocations", "stripped bytes",
                   "dlopen and dlclose, nanoseconds"], rows))


def verdict(ratio, limit):
    return "met" if ratio.high <= limit else "missed" if ratio.low > limit else "open"


def worst(ratios):
    return max(ratios, key=lambda ratio: ratio.value)


def build_targets(times, instructions, allocations):
    for rival, limit in (("libmnl", 1.1), ("libnl", 0.5)):
        ratios = [Exact(instructions[f"build/{case}/library"], instructions[f"build/{case}/{rival}"])
                  for case in times]
        within = sum(ratio.value <= limit for ratio in ratios)
        yield (f"building: instructions to {rival}'s", f"<= {limit}",
               f"worst {worst(ratios)}, {within} of {len(ratios)} within",
               verdict(worst(ratios), limit))
    # libmnl's rival allocates once a request.
    more = max(allocations[f"build/{case}/library"] - allocations[f"build/{case}/libmnl"]
               for case in times)
    yield "heap allocations beyond one a request", "0", f"{more:g}", "missed" if more else "met"
    costs = {count: (exact, timed) for count, exact, timed in port_costs(times, instructions)}
    flat = Exact(costs[4095][0], costs[16][0]), Ratio(costs[4095][1], costs[16][1])
    for unit, ratio in zip(("instructions", "time"), flat):
        yield (f"cost of a port, {unit}: of 4095 to of 16", "<= 1.1", str(ratio),
               verdict(ratio, 1.1))


def call_targets(groups):
    for peer, times in groups.items():
        for case, rivals in times.items():
            if ACKNOWLEDGED_FLOOR not in rivals:
                continue
            ratio = Ratio(rivals["library"], rivals[FLOOR])
            yield f"{peer}: {case}: to the floor", "<= 1.15", str(ratio), verdict(ratio, 1.15)
            ratio = Ratio(rivals["library"], rivals["libnl"])
            reachable = Ratio(rivals[FLOOR], rivals["libnl"]).value <= 0.5
            yield (f"{peer}: {case}: to libnl", "<= 0.5", str(ratio),
                   verdict(ratio, 0.5) if reachable else "not even the floor is")


def other_targets(times, called, files):
    cost = log_cost(times)
    yield ("log statement, sinks off", "<= 2 ns", f"{cost[0]:.2f} [{cost[1]:.2f}, {cost[2]:.2f}] ns",
           "met" if cost[2] <= 2 else "missed" if cost[1] > 2 else "open")
    yield "calls in it", "0", f"{called}", "missed" if called else "met"
    size = files["libcorvil_datapath_proxy", "stripped"][0]
    yield ("stripped library", "< 24,576 bytes", f"{size:,} bytes",
           "met" if size < 24576 else "missed")


def calls_in_log_statement(folder):
    """Calls that the statement with all sinks off has made under callgrind."""
    text = (folder / "callgrind.out").read_text()
    dump = text[text.index("Client Request: log/off/library"):]
    dump = dump[:dump.index("\ntotals:")]
    functions = dict(re.findall(r"fn=(\(\d+\)) (.+)", text))
    for function, body in re.findall(r"^fn=(\(\d+\)).*\n((?:(?!fn=).*\n)*)", dump, re.MULTILINE):
        if "log_statement" in functions[function]:
            return body.count("calls=")
    sys.exit("report: callgrind has not seen the log statement")


def versions():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    compiler = subprocess.run(["c++", "--version"], capture_output=True, text=True, check=True)
    packages = ("libmnl0", "libnl-3-200", "libc6", "libbenchmark1", "valgrind")
    found = subprocess.run(["dpkg-query", "--show", "--showformat=${Package} ${Version}, ", *packages],
                           capture_output=True, text=True, check=False)
    kernel = pathlib.Path("/proc/sys/kernel/osrelease").read_text().split("-")[0].strip()
    return (f"{model.group(1) if model else 'unknown processor'}; Linux {kernel}; "
            f"{compiler.stdout.splitlines()[0]}; {found.stdout.rstrip(', ')}.\n")


def write_chart(path, rows):
    """Lines of a label and, for each rival, ratio, lower and upper end."""
    path.write_text("".join(
        f'"{label}"' + "".join(f" {r.value} {r.low} {r.high}" for r in ratios) + "\n"
        for label, ratios in rows))


def write_charts(folder, build, instructions, groups):
    write_chart(folder / "build_instructions.dat", (
        (case, [Exact(instructions[f"build/{case}/{rival}"], instructions[f"build/{case}/libmnl"])
                for rival in RIVALS]) for case in build))
    write_chart(folder / "build_time.dat", (
        (case, [Ratio(rivals[rival], rivals["libmnl"]) for rival in RIVALS])
        for case, rivals in build.items()))
    write_chart(folder / "call_time.dat", (
        (f"{peer}: {case}", [Ratio(rivals[rival], rivals[FLOOR]) for rival in RIVALS])
        for peer, times in groups.items() for case, rivals in times.items() if FLOOR in rivals))


def main():
    folder = pathlib.Path(sys.argv[1])
    instructions, allocations = counts_of(folder)
    times = in_order(times_of(folder / "results.json") | times_of(folder / "kernel.json"),
                     instructions)
    build, log = times.pop("build"), times.pop("log")
    groups = {PEERS[peer]: cases for peer, cases in times.items()}
    files = files_of(folder / "files.tsv")

    targets = [*build_targets(build, instructions, allocations), *call_targets(groups),
               *other_targets(log, calls_in_log_statement(folder), files)]
    sections = ["### Targets\n\n" + table(["what", "target", "measured", ""], targets),
                build_tables(build, instructions, allocations), port_table(build, instructions),
                call_table(groups), log_table(log, instructions), file_table(files), versions()]
    (folder / "table.md").write_text("\n".join(sections))
    write_charts(folder, build, instructions, groups)


main()
