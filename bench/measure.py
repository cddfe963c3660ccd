#!/usr/bin/env python3
"""Whole-process timings: wall-clock time and the processor time the kernel charged.

    measure.py OUT.json RUNS [--prepare NAME=COMMAND]... NAME=COMMAND...

Runs every COMMAND once to warm the page cache, then RUNS rounds in which each command
runs once, in turn, so that every command meets the same load on a shared machine. A
command's standard output goes to /dev/null. --prepare runs its COMMAND before each run of
NAME, untimed (to reset a device, say). COMMANDs are split like a shell would split them but
run without one, so no shell's time is counted.

User and system time come from wait4() for the command's process, which includes all its
threads and every child it waited for (pigz's helper threads, the simulated device's
processes). OUT.json gets, per NAME, every run's wall, user and system seconds and their
medians; the median of user + system is taken over the runs' sums.
"""
import json
import os
import shlex
import statistics
import subprocess
import sys
import time


def run_once(argv):
    start = time.perf_counter()
    process = subprocess.Popen(argv, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.perf_counter() - start
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"measure: {shlex.join(argv)} exited with {process.returncode}")
    return wall, usage.ru_utime, usage.ru_stime


def main():
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    out, runs = sys.argv[1], int(sys.argv[2])
    commands, prepare = [], {}
    args = sys.argv[3:]
    i = 0
    while i < len(args):
        if args[i] == "--prepare":
            name, _, command = args[i + 1].partition("=")
            prepare[name] = shlex.split(command)
            i += 2
            continue
        name, _, command = args[i].partition("=")
        commands.append((name, shlex.split(command)))
        i += 1

    def one(name, argv):
        if name in prepare:
            subprocess.run(prepare[name], check=True, stdout=subprocess.DEVNULL)
        return run_once(argv)

    for name, argv in commands:
        one(name, argv)
    samples = {name: [] for name, _ in commands}
    for _ in range(runs):
        for name, argv in commands:
            samples[name].append(one(name, argv))

    result = {}
    for name, rows in samples.items():
        wall = [r[0] for r in rows]
        user = [r[1] for r in rows]
        system = [r[2] for r in rows]
        result[name] = {
            "wall": wall, "user": user, "system": system,
            "median_wall": statistics.median(wall),
            "median_user": statistics.median(user),
            "median_system": statistics.median(system),
            "median_cpu": statistics.median(u + s for u, s in zip(user, system)),
        }
    with open(out, "w") as f:
        json.dump(result, f, indent=1)


if __name__ == "__main__":
    main()
