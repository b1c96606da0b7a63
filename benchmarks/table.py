"""Runs the benchmarks and prints one table of their figures. Called by ./bench, which has built everything.

usage: table.py BUILD_FOLDER ARM_BUILD_FOLDER OLD_BUILD_FOLDER SERVICE_FOLDER [--instructions] [FIGURE...]
With words behind the folders only figures are measured whose text has one of them.
"""

import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
from dataclasses import dataclass
from pathlib import Path

from sessions import Service, all_counters, memory_of

ARGUMENTS = [a for a in sys.argv[1:] if a != "--instructions"]
WITH_INSTRUCTIONS = "--instructions" in sys.argv
BUILD, ARM_BUILD, OLD_BUILD, SERVICE = (Path(a).resolve() for a in ARGUMENTS[:4])
WANTED = ARGUMENTS[4:]


@dataclass
class Result:
    ours: str
    theirs: str
    ratio: str
    compared: float  # with the aim
    instructions: str = ""


@dataclass
class Figure:
    text: str
    beside: str
    aim: float | None  # None for what shows where the limit of the figure above is
    aim_text: str
    measure: object  # gives a Result


def nanoseconds(value):
    for unit in ("ns", "us", "ms"):
        if value < 1000:
            return f"{value:.3g} {unit}"
        value /= 1000
    return f"{value:.3g} s"


def run_program(program, *arguments):
    command = [BUILD / "bin" / f"{program}_benchmark", "--benchmark_format=json", *arguments]
    output = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout
    return {b["name"].split("/manual_time")[0].split("/iterations")[0]: b for b in json.loads(output)["benchmarks"]}


class Programs:
    """Each program runs once, for all figures that come from it."""

    def __init__(self):
        self.outputs = {}

    def __getitem__(self, program):
        if program not in self.outputs:
            print(f"  {program} ...", file=sys.stderr)
            libraries = [BUILD / "lib/libcounterfeed.so", BUILD / "lib/libsdk_alone.so"] if program == "load" else []
            self.outputs[program] = run_program(program, *libraries)
        return self.outputs[program]


PROGRAMS = Programs()


def timing(program, name):
    def measure():
        counters = PROGRAMS[program][name]
        return Result(nanoseconds(counters["ours_ns"]), nanoseconds(counters["theirs_ns"]),
                      f"{counters['ratio']:.2f}", counters["ratio"], instructions(program, name))

    return measure


def instructions(program, name):
    """The instructions of ours beside theirs, where the program can be told to do one side alone."""
    if not WITH_INSTRUCTIONS or program not in ("formatter", "strdict", "evaluation", "error_message"):
        return ""
    counts = []
    for side in ("ours", "theirs"):
        # Two lengths of run, whose difference leaves out all that comes before and after the work.
        lengths = [count_instructions(program, name, side, turns) for turns in (1, 3)]
        counts.append((lengths[1] - lengths[0]) / 2)
    return f"{counts[0] / counts[1]:.2f}"


def count_instructions(program, name, side, turns):
    with tempfile.TemporaryDirectory() as folder:
        result = subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={folder}/out", BUILD / f"bin/{program}_benchmark",
             f"--benchmark_filter=^{re.escape(name)}/"],
            env={**os.environ, "BENCHMARK_SIDE": side, "BENCHMARK_TURNS": str(turns)},
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=True)
        return int(re.search(r"Collected : (\d+)", result.stderr).group(1))


def instructions_on_arm(program, name):
    """Instructions of the 32-bit ARM build for one piece of work, counted by the emulator, on the thread that has most."""
    def measure():
        counts = []
        for side in ("ours", "theirs"):
            short, long = (count_on_arm(program, name, side, turns) for turns in (1, 3))
            threads = max(len(short[0]), len(long[0]))
            grown = max(l - s for l, s in zip(long[0] + [0] * threads, short[0] + [0] * threads))
            counts.append(grown / (long[1] - short[1]))
        ratio = counts[0] / counts[1]
        return Result(f"{counts[0]:.0f}", f"{counts[1]:.0f}", f"{ratio:.2f}", ratio)

    return measure


def count_on_arm(program, name, side, turns):
    """The instructions of each thread, and the pieces of work that were done."""
    result = subprocess.run(
        ["qemu-arm", "-plugin", BUILD / "lib/libinstruction_count.so", "-d", "plugin",
         ARM_BUILD / f"bin/{program}_benchmark", f"--benchmark_filter=^{re.escape(name)}/", "--benchmark_format=json"],
        env={**os.environ, "BENCHMARK_SIDE": side, "BENCHMARK_TURNS": str(turns)},
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=True)
    return ([int(count) for count in re.findall(r"instructions of thread \d+: (\d+)", result.stderr)],
            json.loads(result.stdout)["benchmarks"][0]["items"])


def own_share(name):
    def measure():
        value = PROGRAMS["sample_callback"][name]["ours"]
        return Result(f"{value:.3f}", "", "", value)

    return measure


def load_time():
    counters = PROGRAMS["load"]["load_library"]
    more = counters["ours_ns"] - counters["theirs_ns"]
    return Result(nanoseconds(counters["ours_ns"]), nanoseconds(counters["theirs_ns"]), f"+{nanoseconds(more)}", more)


def own_size():
    """Bytes of our own objects in the output sections that are loaded, from the linker's map."""
    loaded = r"\.(text|rodata|ARM\.extab|ARM\.exidx|init_array|fini_array|data|data\.rel\.ro|bss|tdata|tbss)"
    size = 0
    section = name = ""
    for line in (ARM_BUILD / "libcounterfeed.map").read_text().partition("Linker script and memory map")[2].splitlines():
        if output := re.match(r"(\.\S+)(?:\s+0x\S+\s+(0x\S+))?", line):
            section = output.group(1)
            if section == ".rel.dyn" and output.group(2):
                size += int(output.group(2), 16)  # as a whole: nearly all of them are the tables'
        elif long_name := re.fullmatch(r" (\S+)", line):
            name = long_name.group(1)
        elif found := re.match(r" (?:\S+)? +0x[0-9a-f]+ +(0x[0-9a-f]+) (\S+)", line):
            if re.fullmatch(loaded, section) and "CMakeFiles/counterfeed_" in found.group(2):
                size += int(found.group(1), 16)
    return Result(f"{size / 1024:.0f} KiB", "", "", size)


class Sessions:
    """Sessions of all counters at 1 ms: of the library, of the SDK alone and of the library as it was once."""

    ROUNDS = 3

    def __init__(self):
        self.figures = None

    def __getitem__(self, name):
        if self.figures is None:
            print("  sessions at 1 ms ...", file=sys.stderr)
            self.figures = self.run()
        return self.figures[name]

    def run(self):
        ids = all_counters(BUILD)
        with Service(SERVICE) as service:
            launchers = {"sdk": service.launch(BUILD, "libsdk_alone.so"), "ours": service.launch(BUILD),
                         "ours, large pages": service.launch(BUILD)}
            if (OLD_BUILD / "lib/libcounterfeed.so").exists():
                launchers["old"] = service.launch(OLD_BUILD)
            figures = {"idle": {"memory": memory_of(launchers["sdk"][0])}}
            # In turn, so that all see the same moments of the machine.
            rounds = [{name: service.measure(launcher, ids, pages_kb=32 if name == "ours, large pages" else None,
                                             source="values_in_hand" if name == "sdk" else "gpu.counters")
                       for name, launcher in launchers.items()} for _ in range(self.ROUNDS)]
        for name in launchers:
            figures[name] = {cost: statistics.median(r[name][cost] for r in rounds) for cost in ("producer", "traced")}
            figures[name]["memory"] = rounds[0][name]["memory"]
            figures[name]["sums"] = [r[name]["producer"] + r[name]["traced"] for r in rounds]
        return figures

    def processor_time(self, name):
        def measure():
            ours, theirs = (self[name][process] for process in ("producer", "traced"))
            return Result(f"{ours:.1f} us", f"{theirs:.1f} us", f"{ours / theirs:.2f}", ours / theirs)

        return measure

    def beside_old(self, name):
        def measure():
            ours, theirs = self[name]["sums"], self["old"]["sums"]
            ratio = statistics.median(o / t for o, t in zip(ours, theirs))
            return Result(f"{statistics.median(ours):.1f} us", f"{statistics.median(theirs):.1f} us", f"{ratio:.2f}", ratio)

        return measure

    def memory(self, name, kind):
        def measure():
            more = self[name]["memory"][kind] - self["idle"]["memory"][kind]
            return Result(f"{self[name]['memory'][kind]} KiB", f"{self['idle']['memory'][kind]} KiB", f"{more:+} KiB", more)

        return measure


def plural(count, noun):
    return f"{count} {noun}" if count == 1 else f"{count} {noun}s"


SESSIONS = Sessions()
KIB = 1024
MESSAGES = ("node_name", "command_line", "report_header", "context_failure", "incompatible", "processor_core",
            "parse_error", "unknown_feature")
MAGNITUDES = ("thousandth_to_one", "one_to_thousand", "thousand_to_million", "million_to_billion")

FIGURES = [
    Figure("evaluate all rows of table 9", "the same arithmetic, words in hand", 1.5, "< 1.5",
           timing("evaluation", "all_rows")),
    Figure("sample callback, all rows", "the SDK writing the same packet", 0.5, "< 0.5",
           timing("sample_callback", "sample_callback")),
    Figure("sample callback, bytes in hand", "the SDK writing the same packet", None, "a limit",
           timing("sample_callback", "bytes_alone")),
    Figure("CPU per sample, producer and service", "revision 17ebb0f", None, "", SESSIONS.beside_old("ours")),
    Figure("CPU per sample, in pages of 32 KiB", "revision 17ebb0f", 0.35, "< 0.35",
           SESSIONS.beside_old("ours, large pages")),
    Figure("CPU per sample, all rows", "traced in the same session", 1.0, "< 1", SESSIONS.processor_time("ours")),
    Figure("CPU per sample, the SDK, values in hand", "traced in the same session", None, "a limit",
           SESSIONS.processor_time("sdk")),
    Figure("heap allocations per sample, own code", "", 0.001, "0", own_share("allocations_per_sample")),
    Figure("lock operations per sample, own code", "", 0.001, "0", own_share("locks_per_sample")),
    *(Figure(f"formatter: {name}", "vsnprintf", 0.8, "< 0.8", timing("formatter", f"message/{name}"))
      for name in MESSAGES),
    *(Figure(f'formatter "f": {name}', "vsnprintf", 1.0, "< 1", timing("formatter", f"doubles/{name}"))
      for name in MAGNITUDES),
    *(Figure(f"dictionary {what}, {keys} keys", "unordered_map", 0.8, "< 0.8", timing("strdict", f"{what}/{keys}"))
      for what in ("insert", "lookup") for keys in (20, 21, 500)),
    Figure("dictionary: measure, hash, compare, 20 keys", "unordered_map lookup", None, "a limit",
           timing("strdict", "least_lookup/20")),
    *(Figure(f"ring, {size} bytes, {plural(threads, 'thread')}", "Boost's queue", 1.0, "< 1",
             timing("ring_buffer", f"transfer<{size}>/threads:{threads}")) for size in (64, 512) for threads in (1, 2, 4)),
    *(Figure(f"ring, atomic operations alone, {plural(threads, 'thread')}", "Boost's queue, 64 bytes", None, "a limit",
             timing("ring_buffer", f"transfer<64, ring_operations>/threads:{threads}")) for threads in (1, 2, 4)),
    Figure("error message, plain", "fprintf and fflush", 1.2, "< 1.2", timing("error_message", "plain_line")),
    Figure("error message, header and thread name", "fprintf and fflush", 1.2, "< 1.2", timing("error_message", "report")),
    Figure("error message, header and thread name", "prctl, fprintf and fflush", 1.2, "< 1.2",
           timing("error_message", "report_with_name")),
    Figure("library load, nine tables built", "the SDK alone", 1e6, "< 1 ms more", load_time),
    Figure("instructions on 32-bit ARM: evaluation", "the same arithmetic, words in hand", None, "",
           instructions_on_arm("evaluation", "all_rows")),
    Figure("instructions on 32-bit ARM: callback", "the SDK writing the same packet", None, "",
           instructions_on_arm("sample_callback", "sample_callback")),
    *(Figure(f"instructions on 32-bit ARM: {name}", "vsnprintf", None, "",
             instructions_on_arm("formatter", f"message/{name}")) for name in ("command_line", "incompatible")),
    Figure("own code and data, 32-bit ARM", "", 512 * KIB, "< 512 KiB", own_size),
    Figure("resident memory of a sampling process", "an idle SDK producer", 1024, "< 1 MiB more",
           SESSIONS.memory("ours", "VmRSS")),
    Figure("of it private and no file's", "an idle SDK producer", 1024, "< 1 MiB more",
           SESSIONS.memory("ours", "RssAnon")),
    Figure("resident memory, in pages of 32 KiB", "an idle SDK producer", None, "",
           SESSIONS.memory("ours, large pages", "VmRSS")),
    Figure("resident memory of the SDK, values in hand", "an idle SDK producer", None, "a limit",
           SESSIONS.memory("sdk", "VmRSS")),
]


def main():
    lines = [("figure", "ours", "beside", "its", "ratio", "aim", "met", "instructions")]
    missed = 0
    for figure in FIGURES:
        if WANTED and not any(word in figure.text for word in WANTED):
            continue
        try:
            result = figure.measure()
        except (KeyError, OSError, RuntimeError, subprocess.CalledProcessError) as error:
            lines.append((figure.text, "not measured", figure.beside, repr(error)[:40], "", figure.aim_text, "no", ""))
            missed += figure.aim is not None
            continue
        met = figure.aim is None or result.compared < figure.aim
        missed += not met
        lines.append((figure.text, result.ours, figure.beside, result.theirs, result.ratio, figure.aim_text,
                      "" if figure.aim is None else "yes" if met else "no", result.instructions))
    columns = 8 if WITH_INSTRUCTIONS else 7
    widths = [max(len(line[i]) for line in lines) for i in range(columns)]
    for number, line in enumerate(lines):
        print("| " + " | ".join(text.ljust(width) for text, width in zip(line, widths)) + " |")
        if number == 0:
            print("|" + "|".join("-" * (width + 2) for width in widths) + "|")
    print(f"{len(lines) - 1} figures, {missed} aims not met")


main()
