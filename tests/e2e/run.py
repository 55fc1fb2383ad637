#!/usr/bin/env python3
"""Runs the end-to-end tests: each test_*.py in a network namespace of its own, so that ports are free and nothing leaves.

Where namespaces cannot be made (no root, no user namespaces) they run one after the other on the host's loopback.
"""
import argparse
import concurrent.futures
import glob
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))


def namespace_prefix():
    """The command that runs another in a fresh network namespace with loopback up; empty when there is none."""
    for options in (["-n"], ["-rn"]):
        prefix = ["unshare", *options, "sh", "-c", 'ip link set lo up && exec "$@"', "sh"]
        if subprocess.run([*prefix, "true"], capture_output=True).returncode == 0:
            return prefix
    return []


def run_one(path, prefix, environment):
    started = time.monotonic()
    try:
        done = subprocess.run([*prefix, sys.executable, path, *environment["E2E_ONLY"].split()], cwd=HERE, env=environment,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                              timeout=900)
        return path, done.returncode, done.stdout, time.monotonic() - started
    except subprocess.TimeoutExpired as late:
        out = late.stdout or b""
        return path, 1, (out.decode(errors="replace") if isinstance(out, bytes) else out) + "\ntimed out", 900.0


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="build directory whose bin/ is tested")
    parser.add_argument("--io-thread", action="store_true", help="run the proxy with an I/O thread of its own")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1)
    parser.add_argument("tests", nargs="*", help="test files or names (default: all), then -k PATTERN")
    parser.add_argument("-k", default="", help="only tests whose name matches")
    arguments = parser.parse_args()

    environment = dict(os.environ, UE_PROXY_BIN=os.path.join(os.path.abspath(arguments.build), "bin"),
                       UE_PROXY_IO_THREAD="yes" if arguments.io_thread else "no", PYTHONUNBUFFERED="1",
                       E2E_ONLY=f"-k {arguments.k}" if arguments.k else "")
    paths = sorted(glob.glob(os.path.join(HERE, "test_*.py")))
    if arguments.tests:
        wanted = [os.path.basename(t).removesuffix(".py") for t in arguments.tests]
        paths = [p for p in paths if any(w in os.path.basename(p) for w in wanted)]
    if not paths:
        sys.exit("run.py: no such test")
    prefix = namespace_prefix()
    jobs = arguments.jobs if prefix else 1
    if not prefix:
        print("no network namespaces here: one test at a time on the host's loopback")
    failed = []
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for path, status, output, seconds in pool.map(lambda p: run_one(p, prefix, environment), paths):
            name = os.path.basename(path)
            lines = output.strip().splitlines()
            tail = [line for line in lines if line.startswith("Ran ")]
            print(f"{'ok  ' if status == 0 else 'FAIL'} {name} {seconds:.1f}s {tail[-1] if tail else ''}", flush=True)
            if status != 0:
                failed.append(name)
                print(output)
            else:
                # A test's own report, after the dots of those that passed before it.
                for line in lines:
                    _, said, note = line.partition("note: ")
                    if said:
                        print(f"     {note}", flush=True)
    if failed:
        sys.exit(f"failed: {' '.join(failed)}")


if __name__ == "__main__":
    main()
