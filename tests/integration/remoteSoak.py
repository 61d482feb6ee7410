#!/usr/bin/env python3
"""Clients that come, watch, set, seek, stall and vanish, on a run of 60 steps a second that records itself.

remoteSoak.py TOOL SOURCES SOLAR_DIRECTORY SECONDS [CLIENTS]

Checks that each request is answered, that no last value is lost, that the memory of the run stays as it is but for what
grows in a run beside it that has no such clients, since both list the frames of their recordings, and tells what a step
takes with the clients and without them. Ends with 1 where something does not hold.
"""
import itertools
import multiprocessing
import os
import pathlib
import random
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

TOOL, SOURCES, SOLAR = sys.argv[1:4]
SECONDS = float(sys.argv[4])
NUM_CLIENTS = int(sys.argv[5]) if len(sys.argv) > 5 else 8
sys.path.insert(0, str(pathlib.Path(SOURCES) / "python"))
import zelremote  # noqa: E402

MODEL = f"{SOURCES}/examples/solar/Components/solar/Solar.zelComponent"
PATHS = ["Solar", "Solar.bodies", "Solar.bodies.position", "Solar.bodies.name", "Solar.particles.velocity", "Solar.clock", "Solar.clock.time",
         "Solar.duration", "past.bodies.position", "past.clock.time", "nobody", "", "Solar.#2"]
TIMEOUT = 120  # of an answer


def step_time(remote):
    """Milliseconds of all steps so far, and how many they were."""
    [step] = [each for each in remote.statistics()["providers"] if each["name"] == "step" and each["depth"] == 0]
    [wall] = [data for data in step["data"] if data["name"] == "WallTime"]
    return wall["accumulated"], wall["count"]


def resident(pid):
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text()).group(1))


def visit(address, rng):
    """One visit of a client. What is refused is no fault; what is not answered is."""
    with zelremote.connect(address, timeout=TIMEOUT) as remote:
        actions = [
            lambda: remote.describe(rng.choice(PATHS), depth=rng.randrange(4)),
            lambda: remote.read(rng.choice(PATHS), begin=rng.randrange(20), stride=rng.randrange(1, 4)),
            lambda: remote.request("Object.Complete", {"text": "Solar." + rng.choice(["", "b", "clock.t"])}),
            lambda: remote.set("Solar.duration", rng.randrange(1, 1000)),
            lambda: remote.clocks(),
            lambda: remote.tracks(),
            lambda: remote.statistics(),
            lambda: remote.info(),
            lambda: remote.track(1, rng.choice(["open", "play", "pause", "close"])),
            lambda: remote.track(1, "seek", frame=rng.randrange(1000)),
            lambda: remote.track(1, "step", count=rng.randrange(-5, 6)),
            lambda: remote.series(1, [("past.bodies.position", rng.randrange(20)), "past.duration"], points=1000, timeout=TIMEOUT),
            lambda: watch_some(remote, rng),
            lambda: take_frames(remote, rng),
            lambda: remote.log(rng.choice(["info", "warning"])),
            lambda: time.sleep(rng.random() * 2),  # looks at nothing that comes
        ]
        remote.watch(["Solar.clock.time", "Solar.particles.position"], interval=0.016)  # what it does not take waits
        for _ in range(rng.randrange(1, 20)):
            time.sleep(rng.random() * 0.2)
            try:
                rng.choice(actions)()
            except (zelremote.RemoteError, ValueError):
                pass
        if rng.random() < 0.3:
            os._exit(0)  # vanishes, with all that is under way


def watch_some(remote, rng):
    with remote.watch([*rng.sample(PATHS, 4), "Solar.clock.time"], interval=0.016) as watch:
        for _ in range(rng.randrange(1, 60)):
            watch.next(TIMEOUT)


def take_frames(remote, rng):
    with remote.frames(0, ["bodies"]) as frames:
        for _ in range(rng.randrange(1, 20)):
            frames.next(TIMEOUT)


def last_value(address, rng):
    """A value that was set is what a watch comes to."""
    name = "Solar.clock.timeModulation"
    with zelremote.connect(address, timeout=TIMEOUT) as setter, zelremote.connect(address, timeout=TIMEOUT) as watcher:
        with watcher.watch([name], interval=0.016) as watch:
            seen = None
            for _ in range(20):
                wanted = 36000 + rng.randrange(1000)
                for value in (wanted + 1, wanted + 2, wanted):
                    setter.set(name, value)
                while seen != wanted:
                    try:
                        seen = watch.next(TIMEOUT).values[name]
                    except TimeoutError:
                        raise AssertionError(f"{seen} was seen last, and {wanted} set") from None


def client(address, seed, number, end):
    """One visit after another, each in a process of its own, which may vanish."""
    behave = last_value if number == 0 else visit
    for round_seed in itertools.count(seed, 1000):
        if time.time() >= end:
            return
        child = os.fork()
        if child == 0:
            try:
                behave(address, random.Random(round_seed))
            except BaseException as error:  # whatever it is, the process ends here
                print(f"seed {round_seed}: {type(error).__name__}: {error}", flush=True)
                os._exit(1)
            os._exit(0)
        if os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) != 0:
            sys.exit(1)


def measure(remotes, seconds):
    """Of each run the milliseconds of a step, and steps a second, over the same time."""
    before = [step_time(remote) for remote in remotes]
    time.sleep(seconds)
    after = [step_time(remote) for remote in remotes]
    return [((wall - wall_before) / (count - count_before), (count - count_before) / seconds)
            for (wall_before, count_before), (wall, count) in zip(before, after)]


class Run:
    """A run of the demonstration that records itself, until the end of the block."""

    def __init__(self, folder, name):
        self.output, self.errors = pathlib.Path(folder) / f"{name}.output", pathlib.Path(folder) / f"{name}.errors"
        # What was freed is given back at once: what is left in holes of the heap is no leak.
        self.environment = {**os.environ, "MALLOC_ARENA_MAX": "1", "MALLOC_MMAP_THRESHOLD_": "65536", "MALLOC_TRIM_THRESHOLD_": "65536"}
        self.command = [TOOL, "run", MODEL, "--path", SOLAR, "--control", "0", "--writable", "--statistics", "--real-time",
                        "--record", f"{folder}/{name}.journal"]

    def __enter__(self):
        with self.output.open("w") as out, self.errors.open("w") as err:
            self.process = subprocess.Popen(self.command, stdout=out, stderr=err, env=self.environment)
        while not (match := re.search(r"^Control: (\S+)$", self.output.read_text(), re.M)):
            time.sleep(0.1)
        self.address = match.group(1)
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGINT)
        try:
            code = self.process.wait(TIMEOUT)
        except subprocess.TimeoutExpired:
            subprocess.run(["gdb", "-batch", "-ex", "thread apply all bt", "-p", str(self.process.pid)], check=False)
            self.process.kill()
            self.process.wait()
            raise
        assert code == 128 + signal.SIGINT, f"the run has ended with {code}:\n{self.errors.read_text()[-16000:]}"

    def memory(self):
        """In KB, of which some shows the recording."""
        with zelremote.connect(self.address, timeout=TIMEOUT) as remote:
            remote.track(1, "open")
        return resident(self.process.pid)


def hold(run, beside, seed):
    """Whether the run holds what the clients do to it; tells what was measured."""
    with zelremote.connect(run.address, timeout=TIMEOUT) as remote, zelremote.connect(beside.address, timeout=TIMEOUT) as other:
        end = time.time() + SECONDS
        clients = [multiprocessing.Process(target=client, args=(run.address, seed + i, i, end)) for i in range(NUM_CLIENTS)]
        for each in clients:
            each.start()
        time.sleep(SECONDS / 6)  # until all has been used once
        sizes, others, steps = [], [], []
        while time.time() < end and run.process.poll() is None and all(each.is_alive() for each in clients):
            sizes.append(run.memory())
            others.append(beside.memory())
            steps.append(measure([remote, other], min(10.0, SECONDS / 6)))
        for each in clients:
            each.join(TIMEOUT * 4)
    (with_clients, rate), (without, other_rate) = ([statistics.mean(column) for column in zip(*each)] for each in zip(*steps))
    print(f"a step: {without:.4f} ms without clients at {other_rate:.1f}/s, {with_clients:.4f} ms with them at {rate:.1f}/s, "
          f"ratio {with_clients / without:.3f}")
    third = max(1, len(sizes) // 3)
    excess = [size - other for size, other in zip(sizes, others)]
    growth = (statistics.median(excess[-third:]) - statistics.median(excess[:third])) / statistics.median(sizes[:third])
    print(f"memory in KB with clients: {sizes}\nand without: {others}\nthe difference grows by {100 * growth:.1f} %", flush=True)
    grows = SECONDS >= 600 and growth > 0.05
    if grows:
        print("the memory grows")
    return not grows and all(each.exitcode == 0 for each in clients)


def main():
    """The exit code."""
    seed = int.from_bytes(os.urandom(3), "little")
    print(f"seed {seed}, {SECONDS:.0f} s, {NUM_CLIENTS} clients", flush=True)
    with tempfile.TemporaryDirectory() as folder, Run(folder, "past") as run, Run(folder, "beside") as beside:
        failed = not hold(run, beside, seed)
    print("failed" if failed else "held")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
