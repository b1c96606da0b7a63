"""Sessions of the library in the launcher, through the real tracing service, and what they cost."""

import os
import re
import subprocess
import tempfile
import time
from pathlib import Path

GPU = "id=0x9002,source=formula"
# Small enough to be full before anything is measured. Until then the service touches a new page of its memory for each
# sample, which costs what the machine below takes for it: from 3 us to 30 where a hypervisor has to find the page first.
BUFFER_KB = 4096


class Service:
    """A tracing service of its own and the launchers that are started for it, all of which end with the context."""

    def __init__(self, folder):
        self.tools = Path(folder)

    def __enter__(self):
        self.folder = tempfile.TemporaryDirectory()
        self.path = Path(self.folder.name)
        self.environment = {**os.environ, "PERFETTO_PRODUCER_SOCK_NAME": str(self.path / "producer"),
                            "PERFETTO_CONSUMER_SOCK_NAME": str(self.path / "consumer")}
        self.started = []
        try:
            self.service = self.start([self.tools / "traced"])
            wait_for(lambda: (self.path / "consumer").exists())
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for process in self.started:
            process.kill()
            process.wait()
        self.folder.cleanup()

    def start(self, command, **more):
        with open(self.path / f"{len(self.started)}.log", "wb") as log:
            self.started.append(subprocess.Popen(command, env={**self.environment, **more}, stdout=log, stderr=log))
        return self.started[-1].pid

    def launch(self, build, library="libcounterfeed.so", gpu=GPU):
        """Starts a build's launcher, under a name of its own by which a session can choose it: process and name."""
        name = self.path / f"launcher{len(self.started)}"
        name.symlink_to(Path(build).resolve() / "bin/counterfeed-launcher")
        folder = Path(build).resolve() / "lib"
        pid = self.start([name, folder / library], LD_PRELOAD=str(folder / "libvirtual_gpu.so"), VIRTUAL_GPU=gpu)
        wait_for(lambda: str(name).encode() in self.state())
        return pid, str(name)

    def state(self):
        return subprocess.run([self.tools / "perfetto", "--query-raw"], env=self.environment, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, check=False).stdout

    def measure(self, launcher, ids, *, period_ms=1, seconds=4, sessions=1, pages_kb=None, source="gpu.counters"):
        """Runs sessions at the same time and looks at their middle: microseconds of CPU time of the producer and of the
        service for each sample that fell due in one session, and the producer's memory in KiB. With pages_kb the memory
        that the producer shares with the service is 1 MiB in such pages, if this is the producer's first session."""
        pid, name = launcher
        counters = " ".join(f"counter_ids: {i}" for i in ids)
        # In one trace, since the service lets one user have fewer traces at a time; equal ones would be one.
        config = f"buffers {{ size_kb: {BUFFER_KB} }} " + "".join(
            f'data_sources {{ config {{ name: "{source}" gpu_counter_config {{ counter_period_ns: '
            f'{period_ms * 1000000 + i} {counters} }} }} producer_name_filter: "{name}" }} ' for i in range(sessions))
        if pages_kb:
            config += f'producers {{ producer_name: "{name}" page_size_kb: {pages_kb} shm_size_kb: 1024 }}'
        (self.path / "config").write_text(config)
        trace = self.path / "trace"
        trace.unlink(missing_ok=True)
        recording = subprocess.Popen([self.tools / "perfetto", "--txt", "-c", self.path / "config", "-o", trace],
                                     env=self.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            time.sleep(1.5)
            before = time.monotonic(), processor_time(pid), processor_time(self.service)
            time.sleep(seconds)
            after = time.monotonic(), processor_time(pid), processor_time(self.service)
            memory = memory_of(pid)
        finally:
            recording.terminate()
            status = recording.wait()
        due = (after[0] - before[0]) * 1000 / period_ms
        if status != 0 or trace.stat().st_size < min(due * 9 * len(ids), BUFFER_KB * 1024 / 2):
            raise RuntimeError("the session was not recorded")
        return {"producer": (after[1] - before[1]) / due * 1e6, "traced": (after[2] - before[2]) / due * 1e6,
                "memory": memory}


def all_counters(build):
    """The ids of all counters of the GPU."""
    tool = Path(build) / "bin/counterfeed-counters"
    text = subprocess.run([tool, "--gpu", "0x9002", "--config"], stdout=subprocess.PIPE, text=True, check=True).stdout
    return [int(i) for i in re.findall(r"counter_ids: (\d+)", text)]


def wait_for(condition):
    for _ in range(200):
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
