#!/usr/bin/env python3
"""Runs the command lines that the documentation quotes and compares what they print with what it
shows, so that a document cannot drift from the programs.

A quoted session is a fenced block whose first line starts with "$ ". Each "$ " line is run by
bash, in order, in one shell per document, in a scratch folder holding tests/docs/files, with the
build's bin/ first on PATH; the lines after it, up to the next "$ " line, are what it must print,
stdout and stderr together. A block right after the line "<!-- not run -->" is left alone. A
command that ends with "&" runs in the background until the document is done, and shows the
first line it prints.

What changes from run to run is compared by shape: ports (":PORT"), times and rates ("X s",
"Y KiB/s", and their JSON fields), how far workers got, and a line "..." stands for any lines.

    check_docs.py BUILD_DIR [--copy SOURCE=NAME]... FILE.md...

--copy puts a file that the build makes (a firmware image) into the scratch folder as NAME.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

FILES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "files")

# (pattern, replacement), applied to what is expected and what was printed alike.
SHAPES = [
    (re.compile(r"(?<=[\w\].]):\d{4,5}\b"), ":PORT"),
    (re.compile(r"\b\d+\.\d+ s\b"), "X s"),
    (re.compile(r"\b\d+\.\d+ KiB/s\b"), "Y KiB/s"),
    (re.compile(r"\b\d+\.\d+ us\b"), "Z us"),
    (re.compile(r'"(seconds|kib_per_s|us)":[0-9.e+-]+'), r'"\1":N'),
    (re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d,\d{3}"), "TIMESTAMP"),
    # How far a stopped transfer got depends on when its workers last reported.
    (re.compile(r"; \d+ of (\d+) bytes were (\w+) by"), r"; N of \1 bytes were \2 by"),
]


def shape(line):
    for pattern, replacement in SHAPES:
        line = pattern.sub(replacement, line)
    return line.rstrip()


def sessions(path):
    """The quoted sessions of the document at `path`: lists of (line number, command, expected lines)."""
    lines = open(path, encoding="utf-8").read().splitlines()
    found = []
    number = 0
    while number < len(lines):
        if not lines[number].startswith("```"):
            number += 1
            continue
        skip = number > 0 and lines[number - 1].strip() == "<!-- not run -->"
        start = number + 1
        end = start
        while end < len(lines) and not lines[end].startswith("```"):
            end += 1
        block = lines[start:end]
        number = end + 1
        if skip or not block or not block[0].startswith("$ "):
            continue
        commands = []
        for offset, line in enumerate(block):
            if line.startswith("$ "):
                commands.append((start + offset + 1, line[2:], []))
            else:
                commands[-1][2].append(line)
        found.append(commands)
    return found


def matches(expected, printed):
    """Whether `printed` has the shape of `expected`, where a line "..." stands for any lines."""
    expected = [shape(line) for line in expected]
    printed = [shape(line) for line in printed]

    def match(e, p):
        if e == len(expected):
            return p == len(printed)
        if expected[e] == "...":
            return any(match(e + 1, q) for q in range(p, len(printed) + 1))
        return p < len(printed) and expected[e] == printed[p] and match(e + 1, p + 1)

    return match(0, 0)


def run_document(path, bin_dir, copies):
    failures = []
    scratch = tempfile.mkdtemp(prefix="kvx-docs-")
    background = []
    try:
        for name in os.listdir(FILES):
            shutil.copy(os.path.join(FILES, name), scratch)
        for source, name in copies:
            shutil.copy(source, os.path.join(scratch, name))
        environment = dict(os.environ, PATH=bin_dir + os.pathsep + os.environ["PATH"], HOME=scratch, COLUMNS="100")
        for key in ("KVX_AGENT_SERVER", "KVX_TA_ELF", "LOG4CXX_CONFIGURATION", "TA_AGENT_TIMEOUT_MS"):
            environment.pop(key, None)
        for session in sessions(path):
            for line, command, expected in session:
                if command.rstrip().endswith("&"):
                    log = open(os.path.join(scratch, f".background-{line}"), "w+")
                    background.append(subprocess.Popen(["bash", "-c", "exec " + command.rstrip()[:-1]], cwd=scratch,
                                                       env=environment, stdout=log, stderr=subprocess.STDOUT,
                                                       start_new_session=True))
                    deadline = time.monotonic() + 10
                    while time.monotonic() < deadline and not open(log.name).read().endswith("\n"):
                        time.sleep(0.02)
                    printed = open(log.name).read().splitlines()[:1]
                else:
                    result = subprocess.run(["bash", "-c", command], cwd=scratch, env=environment,
                                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60)
                    printed = result.stdout.splitlines()
                if not matches(expected, printed):
                    failures.append(f"{path}:{line}: $ {command}\n  expected:\n" +
                                    "".join(f"    {e}\n" for e in expected) + "  printed:\n" +
                                    "".join(f"    {p}\n" for p in printed))
    finally:
        for process in background:
            os.killpg(process.pid, 15)
            process.wait()
        shutil.rmtree(scratch, ignore_errors=True)
    return failures


def main():
    if len(sys.argv) < 3:
        print(__doc__, file=sys.stderr)
        return 2
    bin_dir = os.path.join(os.path.abspath(sys.argv[1]), "bin")
    arguments = sys.argv[2:]
    copies = []
    while len(arguments) >= 2 and arguments[0] == "--copy":
        source, _, name = arguments[1].partition("=")
        copies.append((source, name))
        arguments = arguments[2:]
    failures = []
    for path in arguments:
        failures += run_document(path, bin_dir, copies)
    for failure in failures:
        print(failure)
    print(f"{len(failures)} quoted command(s) print something else than their document shows")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
