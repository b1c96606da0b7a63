"""Runs the benchmarks and prints one table of their figures. Called by ./bench, which has built everything.

usage: table.py BUILD_FOLDER ARM_BUILD_FOLDER SERVICE_FOLDER [--instructions] [FIGURE...]
With words behind the folders only figures are measured whose text has one of them.
"""

import json
import os
import re
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

ARGUMENTS = [a for a in sys.argv[1:] if a != "--instructions"]
WITH_INSTRUCTIONS = "--instructions" in sys.argv
BUILD, ARM_BUILD, SERVICE = (Path(a).resolve() for a in ARGUMENTS[:3])
WANTED = ARGUMENTS[3:]


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
    """Sessions of all counters at 1 ms through the real service, for producers in the launcher: the library, on a virtual
    GPU in the place of the kernel driver, and the SDK alone, which has the virtual GPU's library loaded as well."""

    SECONDS = 10

    def __init__(self):
        self.figures = None

    def __getitem__(self, name):
        if self.figures is None:
            print("  sessions at 1 ms ...", file=sys.stderr)
            self.figures = self.run()
        return self.figures[name]

    def run(self):
        with tempfile.TemporaryDirectory() as folder:
            environment = {**os.environ, "PERFETTO_PRODUCER_SOCK_NAME": f"{folder}/producer",
                           "PERFETTO_CONSUMER_SOCK_NAME": f"{folder}/consumer"}
            started = []

            def start(command, **more):
                log = open(f"{folder}/{len(started)}.log", "wb")
                started.append(subprocess.Popen(command, env={**environment, **more}, stdout=log, stderr=log))
                return started[-1].pid

            def launch(library):
                return start([BUILD / "bin/counterfeed-launcher", BUILD / f"lib/{library}"],
                             LD_PRELOAD=str(BUILD / "lib/libvirtual_gpu.so"), VIRTUAL_GPU="id=0x9002,source=formula")

            def offered():
                return subprocess.run([SERVICE / "perfetto", "--query-raw"], env=environment, stdout=subprocess.PIPE,
                                      stderr=subprocess.DEVNULL, check=True).stdout

            def record(pid, config):
                """Processor time in the middle of a session, whose begin and end are no sampling, and memory then."""
                Path(f"{folder}/config").write_text(config)
                trace = Path(f"{folder}/trace")
                trace.unlink(missing_ok=True)
                recording = subprocess.Popen([SERVICE / "perfetto", "--txt", "-c", f"{folder}/config", "-o", trace],
                                             env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                time.sleep(2)
                before = processor_time(pid), processor_time(service)
                time.sleep(self.SECONDS - 4)
                after = processor_time(pid), processor_time(service)
                figures = {"producer": after[0] - before[0], "traced": after[1] - before[1], "memory": memory_of(pid)}
                if recording.wait() != 0 or trace.stat().st_size < self.SECONDS * 1000 * 1000:
                    raise RuntimeError("the session was not recorded")
                return figures

            try:
                service = start([SERVICE / "traced"])
                wait_for(lambda: Path(f"{folder}/consumer").exists())
                sdk = launch("libsdk_alone.so")
                ours = launch("libcounterfeed.so")
                wait_for(lambda: b"gpu.counters" in offered() and b"values_in_hand" in offered())
                config = subprocess.run(
                    [BUILD / "bin/counterfeed-counters", "--gpu", "0x9002", "--config", "--period", "1", "--duration",
                     str(self.SECONDS)], stdout=subprocess.PIPE, text=True, check=True).stdout
                return {"idle": memory_of(sdk), "ours": record(ours, config),
                        "sdk": record(sdk, config.replace('"gpu.counters"', '"values_in_hand"'))}
            finally:
                for process in started:
                    process.kill()
                    process.wait()

    def processor_time(self, name):
        def measure():
            ours, theirs = (100 * self[name][process] / (self.SECONDS - 4) for process in ("producer", "traced"))
            return Result(f"{ours:.2f} %", f"{theirs:.2f} %", f"{ours / theirs:.2f}", ours / theirs)

        return measure

    def memory(self, name, kind):
        def measure():
            more = self[name]["memory"][kind] - self["idle"][kind]
            return Result(f"{self[name]['memory'][kind]} KiB", f"{self['idle'][kind]} KiB", f"{more:+} KiB", more)

        return measure


def wait_for(condition):
    for _ in range(100):
        if condition():
            return
        time.sleep(0.1)
    raise RuntimeError("the session could not be set up")


def processor_time(pid):
    """Seconds of all threads but the virtual GPU's own, from the scheduler's account in nanoseconds."""
    threads = [task for task in Path(f"/proc/{pid}/task").iterdir()
               if (task / "comm").read_text().strip() != "virtual-gpu"]
    return sum(int((task / "schedstat").read_text().split()[0]) for task in threads) / 1e9


def memory_of(pid):
    """KiB of resident memory by kind: VmRSS is all, RssAnon what is no file's and is shared with nobody."""
    return {kind: int(size)
            for kind, size in re.findall(r"(VmRSS|RssAnon):\s+(\d+)", Path(f"/proc/{pid}/status").read_text())}


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
    Figure("sample callback, all rows", "the SDK writing the same packet", 1.5, "< 1.5",
           timing("sample_callback", "sample_callback")),
    Figure("CPU time at 1 ms, all rows", "traced in the same session", 1.0, "< 1", SESSIONS.processor_time("ours")),
    Figure("CPU time at 1 ms, the SDK, values in hand", "traced in the same session", None, "a limit",
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
    Figure("own code and data, 32-bit ARM", "", 512 * KIB, "< 512 KiB", own_size),
    Figure("resident memory of a sampling process", "an idle SDK producer", 1024, "< 1 MiB more",
           SESSIONS.memory("ours", "VmRSS")),
    Figure("of it private and no file's", "an idle SDK producer", 1024, "< 1 MiB more",
           SESSIONS.memory("ours", "RssAnon")),
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
