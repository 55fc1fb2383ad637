#!/usr/bin/env python3
"""Lines and branches of src/ that the tests have run, by folder, from what a build with --coverage has left (gcov).

Branches that only an exception takes are not counted: the compiler makes one for every call.
"""
import argparse
import collections
import concurrent.futures
import json
import os
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def read(counters):
    """What gcov says of some objects: the counts of lines, and those of branches."""
    lines, branches = collections.Counter(), collections.Counter()
    output = subprocess.run(["gcov", "--json-format", "--stdout", "--branch-probabilities", *counters], check=True,
                            capture_output=True, text=True).stdout
    for document in map(json.loads, output.splitlines()):
        for file in document["files"]:
            path = os.path.normpath(os.path.join(document["current_working_directory"], file["file"]))
            path = os.path.relpath(path, ROOT)
            if not path.startswith("src/"):
                continue
            for line in file["lines"]:
                place = (path, line["line_number"])
                lines[place] += line["count"]
                for i, branch in enumerate(line["branches"]):
                    if not branch["throw"]:
                        # Each instance of a template has branches of its own: what one has taken is taken.
                        branches[(*place, i)] += branch["count"]
    return lines, branches


def ranges(numbers):
    """3, 4, 5, 9 as "3-5 9"."""
    parts = []
    for number in sorted(numbers):
        if parts and number == parts[-1][1] + 1:
            parts[-1][1] = number
        else:
            parts.append([number, number])
    return " ".join(str(a) if a == b else f"{a}-{b}" for a, b in parts)


def percent(counts):
    return 100 * sum(1 for count in counts if count) / max(len(counts), 1)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", help="build directory")
    parser.add_argument("--least", type=float, default=0, help="fail below this percentage of lines in src/")
    parser.add_argument("--missed", action="store_true", help="name the lines that were not run")
    arguments = parser.parse_args()

    counters = [os.path.join(folder, name) for folder, _, names in os.walk(os.path.abspath(arguments.build))
                for name in names if name.endswith(".gcda")]
    lines, branches = collections.Counter(), collections.Counter()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for some_lines, some_branches in pool.map(read, [counters[i::16] for i in range(16) if counters[i::16]]):
            lines.update(some_lines)
            branches.update(some_branches)

    if arguments.missed:
        missed = collections.defaultdict(list)
        for (path, number), count in lines.items():
            if count == 0:
                missed[path].append(number)
        for path in sorted(missed):
            print(f"{path}: {ranges(missed[path])}")
    print(f"{'':<14} {'lines':>16}  {'branches':>16}")
    folders = sorted({os.path.dirname(path) for path, _ in lines} - {"src"})
    for folder in [*folders, "src"]:
        texts = []
        for counts in (lines, branches):
            own = [count for place, count in counts.items() if place[0].startswith(folder + "/")]
            texts.append(f"{percent(own):6.1f} % of {len(own):5}")
        print(f"{folder:<14} {texts[0]:>16}  {texts[1]:>16}")
    total = percent(list(lines.values()))
    if total < arguments.least:
        sys.exit(f"coverage: {total:.1f} % of the lines of src/, at least {arguments.least:g} % are asked for")


if __name__ == "__main__":
    main()
