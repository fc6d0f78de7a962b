"""Runs the benchmarks of build/bench, and writes what they print into a page of docs/."""
# SPDX-License-Identifier: Apache-2.0

import datetime
import os
import pathlib
import platform
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build/bench"
BEGIN, END = "<!-- Written by ./dev bench -->", "<!-- End of what ./dev bench writes -->"

LONGEST = 300  # seconds that a program may take
PASSES = 3  # the passes whose median is that of a row or a point


def die(message):
    sys.exit(f"./dev bench: {message}")


def run(program, words, mode):
    """Runs a program with the rows or curves that contain one of the words, or all. The variable named
    mode says what the program measures. Returns the lines that it prints."""
    environment = {**os.environ, mode: "1", "LC_ALL": "C"}
    try:
        done = subprocess.run([BUILD / "bin" / program, *words], env=environment, timeout=LONGEST,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace")
    except subprocess.TimeoutExpired:
        die(f"{program} takes longer than {LONGEST} seconds")
    if done.returncode != 0:
        die(f"{program} failed ({done.returncode}):\n{done.stdout}{done.stderr}")
    return done.stdout.splitlines()


def command(*words):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return done.stdout.strip()


def lscpu(name):
    field = re.search(rf"^ *{name}: *(.*)$", command("lscpu"), re.M)
    return field.group(1).strip() if field else ""


def processor():
    return lscpu("Model name") or "unknown"


def compiler():
    cache = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
    entry = dict(re.findall(r"^(\w+):\w+=(.*)$", cache, re.M))
    version = command(entry["CMAKE_CXX_COMPILER"], "--version").splitlines()[0]
    return f"{version}, {entry['CMAKE_CXX_FLAGS_RELWITHDEBINFO']}"


def peers():
    wanted = re.findall(r"^bench +(\S+)", (ROOT / "tools/packages.txt").read_text(encoding="utf-8"), re.M)
    listed = command("dpkg-query", "-W", "-f", "${Package} ${Version}, ", *sorted(set(wanted)))
    return listed.rstrip(", ") or "unknown"


def machine_table(load):
    """Yields the lines of a table that says where and when the programs ran."""
    memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / 2**30
    day = datetime.datetime.now(datetime.timezone.utc).date()
    rows = [("Processor", f"{processor()}, {platform.machine()}"),
            ("Machine", f"{len(os.sched_getaffinity(0))} CPUs, {memory:.0f} GiB; "
                        f"hypervisor: {lscpu('Hypervisor vendor') or 'none'}"),
            ("Kernel", platform.release()),
            ("Compiler", compiler()),
            ("Peers", peers()),
            ("Load before the run", f"{load:.2f} threads"),
            ("Date", day.isoformat())]
    return ["| | |", "|---|---|", *(f"| {name} | {value} |" for name, value in rows)]


def write_part(page, lines):
    """Replaces what stands between BEGIN and END in the page."""
    before, begin, rest = page.read_text(encoding="utf-8").partition(BEGIN)
    _, end, after = rest.partition(END)
    if not begin or not end:
        die(f"{page.relative_to(ROOT)} has lost the lines between which ./dev bench writes")
    text = "\n".join(["", *lines, ""]).encode("ascii", "replace").decode()
    page.write_text(f"{before}{BEGIN}\n{text}\n{END}{after}", encoding="utf-8")
