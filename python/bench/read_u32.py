"""What Target.read_u32 costs over the plug-in's read_mem called from C++, on one simulator.

The floor is Target.read of N * 8 aligned bytes: N calls of read_mem for 8 bytes each, made by a
C++ loop that releases the interpreter's lock once for all of them. The subject is N calls of
Target.read_u32 from a Python loop: each converts its argument, releases and retakes the
interpreter's lock and returns an int, on top of the same read_mem. Both use the same target on
the same simulator, in alternating rounds; the script prints the median wall-clock time per call of
each, and the median and range of their difference per round, which is what Python adds to an
access. (Not CPU time: the agent library polls briefly for a reply before it sleeps, so a
process's CPU time includes part of its wait.) docs/performance.md has the figures.

usage: PYTHONPATH=build/default/python taskset -c 0 /usr/bin/python3 python/bench/read_u32.py
"""

import argparse
import statistics
import time

import ta_kvx

ADDRESS = 0x1000


def per_call_ns(run, calls):
    start = time.perf_counter_ns()
    run(calls)
    return (time.perf_counter_ns() - start) / calls


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--calls", type=int, default=20000, help="accesses per round (default 20000)")
    parser.add_argument("--rounds", type=int, default=15, help="rounds of each (default 15)")
    arguments = parser.parse_args()

    with ta_kvx.Simulator() as simulator:
        target = ta_kvx.Target(simulator.host, simulator.port)
        read_u32 = target.read_u32

        def from_python(calls):
            for _ in range(calls):
                read_u32(ADDRESS)

        def from_cpp(calls):
            target.read(ADDRESS, 8 * calls)

        from_python(1000)  # opens the session and warms both paths
        from_cpp(1000)
        floor, subject = [], []
        for _ in range(arguments.rounds):
            floor.append(per_call_ns(from_cpp, arguments.calls))
            subject.append(per_call_ns(from_python, arguments.calls))

    added = [s - f for s, f in zip(subject, floor)]
    print(f"per call, {arguments.rounds} rounds of {arguments.calls}")
    print(f"  read_mem from C++ (Target.read)  median {statistics.median(floor) / 1000:6.2f} us")
    print(f"  Target.read_u32 from Python      median {statistics.median(subject) / 1000:6.2f} us")
    print(
        f"  added by Python                  median {statistics.median(added) / 1000:6.2f} us"
        f"  (rounds from {min(added) / 1000:.2f} to {max(added) / 1000:.2f})"
    )

if __name__ == "__main__":
    main()
