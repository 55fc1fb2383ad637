#!/usr/bin/env python3
"""ue-proxy against kamailio and against a bare relay: the same load, interleaved in one run, ratios pair by pair.

Each repetition goes through every case (UDP and TCP, one and 64 requests outstanding) with each server, every time a
fresh process: server on one processor, load generator on another, both in a network namespace of their own. Results go
to bench/results/ as JSON and as a plot; the table goes to standard output.
"""
import argparse
import contextlib
import datetime
import json
import mmap
import os
import re
import resource
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, "tests", "e2e"))

CPUS = sorted(os.sched_getaffinity(0))
SERVER_CPU, LOAD_CPU = CPUS[0], CPUS[-1]
UA_PORT = 5071
CALLEE_PORT = 5072
CASES = [(transport, window) for transport in ("UDP", "TCP") for window in (1, 64)]
DIRECTIONS = {
    "out": ["--caller", f"127.0.0.1:{UA_PORT}", "--server", "127.0.0.1:5060", "--callee", "127.0.0.3:5060",
            "--uri", "sip:bob@example.net", "--from", "sip:alice@example.net"],
    "in": ["--caller", "127.0.0.3:5060", "--server", "127.0.0.2:5060", "--callee", f"127.0.0.1:{UA_PORT}",
           "--uri", "sip:alice@example.net", "--from", "sip:bob@example.net"],
    "local": ["--caller", f"127.0.0.1:{UA_PORT}", "--server", "127.0.0.1:5060", "--callee", f"127.0.0.1:{CALLEE_PORT}",
              "--uri", "sip:bob@127.0.0.1", "--from", "sip:alice@127.0.0.1"],
}


def name_of(case):
    return f"{case[0]}, {case[1]} outstanding"


@contextlib.contextmanager
def on_cpu(cpu):
    """Processes started within run there."""
    os.sched_setaffinity(0, {cpu})
    try:
        yield
    finally:
        os.sched_setaffinity(0, CPUS)


# --- What a process and its children use --------------------------------------------------------------------------------


def tree(pid):
    found, todo = [], [pid]
    while todo:
        process = todo.pop()
        found.append(process)
        with contextlib.suppress(OSError):
            for task in os.listdir(f"/proc/{process}/task"):
                with open(f"/proc/{process}/task/{task}/children", encoding="ascii") as file:
                    todo += [int(child) for child in file.read().split()]
    return found


def processor_seconds(pid):
    """Of all threads of the process tree: to the nanosecond where the kernel tells (schedstat), else in clock ticks."""
    total = 0.0
    for process in tree(pid):
        for task in os.listdir(f"/proc/{process}/task"):
            where = f"/proc/{process}/task/{task}"
            try:
                with open(f"{where}/schedstat", encoding="ascii") as file:
                    total += int(file.read().split()[0]) / 1e9
            except OSError:
                with open(f"{where}/stat", encoding="ascii") as file:
                    fields = file.read().rpartition(")")[2].split()
                total += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    return total


def resident_kib(pid):
    """One process: what is resident. Several: their proportional shares, so that what they share counts once."""
    processes = tree(pid)
    field = r"^Rss:\s+(\d+)" if len(processes) == 1 else r"^Pss:\s+(\d+)"
    total = 0
    for process in processes:
        with open(f"/proc/{process}/smaps_rollup", encoding="ascii") as file:
            total += int(re.search(field, file.read(), re.M).group(1))
    return total


# --- The servers -------------------------------------------------------------------------------------------------------


class UeProxyServer:
    name = "ue-proxy"

    def __init__(self, build):
        self.build = build
        self.binary = os.path.join(build, "bin", "ue-proxy")

    def start(self, transport, clients=2, settings=""):
        from support import sip
        from support.proxy import UeProxy
        with on_cpu(SERVER_CPU):
            self.proxy = UeProxy(level=3, settings=settings)
        self.pid = self.proxy.pid
        peer = sip.Udp()

        def ask(message):
            peer.send(message)
            answer = peer.receive()
            if answer.status != 200:
                raise SystemExit(f"ue-proxy refused the set-up: {answer.raw}")

        # The one that is measured comes last: every walk over the clients is as long as it can be.
        users = [(20000 + number, f"user{number}") for number in range(clients - 2)]
        for port, user in [*users, (CALLEE_PORT, "bob"), (UA_PORT, "alice")]:
            ask(sip.register(port, sip.ua_info(aor=f"{user}@example.net", methods="INVITE"), user=user, via=peer.via))
        ask(sip.route_command(peer.via, sip.route_body("set-route", "1", f"127.0.0.3:{transport}:5060", "127.0.0.2")))
        peer.close()

    def stop(self):
        status = self.proxy.stop(check=False)
        log = self.proxy.log()
        self.proxy.remove()
        if status != 0 or log.strip():
            raise SystemExit(f"ue-proxy ended with {status}; its log:\n{log[-2000:]}")

    def first_answer_command(self):
        from support.proxy import UeProxy
        proxy = UeProxy(level=3, start=False)
        return proxy.command, proxy.remove

    def size(self):
        stripped = tempfile.NamedTemporaryFile(prefix="ue-proxy-stripped-")
        subprocess.run(["strip", "-o", stripped.name, self.binary], check=True)
        return os.path.getsize(stripped.name)


class ChildServer:
    """A server that is one command."""

    def start(self, _transport, **_options):
        command, self.clean_up = self.first_answer_command()
        with on_cpu(SERVER_CPU):
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                            stderr=subprocess.DEVNULL, start_new_session=True)
        self.pid = self.process.pid
        self.await_ready()

    def await_ready(self):
        from support import sip
        sip.wait_until(self.listens, 20, f"{self.name} listening")

    @staticmethod
    def listens():
        with open("/proc/net/tcp", encoding="ascii") as table:
            return any(line.split()[1] == "0100007F:13C4" and line.split()[3] == "0A" for line in table)

    def stop(self):
        os.killpg(self.pid, signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            os.killpg(self.pid, signal.SIGKILL)
            self.process.wait()
        self.clean_up()

    def size(self):
        return os.path.getsize(shutil.which(self.binary))


class KamailioServer(ChildServer):
    name = "kamailio"
    binary = "kamailio"

    def first_answer_command(self):
        work = tempfile.mkdtemp(prefix="ue-proxy-bench-")
        # Its packaged default allocator is a debugging one, six times slower: no fair peer.
        return (["kamailio", "-DD", "-E", "-f", os.path.join(HERE, "kamailio.cfg"), "-m", "32", "-M", "8", "-x", "tlsf",
                 "-X", "tlsf", "-w", work, "-Y", work, "-P", os.path.join(work, "pid")],
                lambda: shutil.rmtree(work, ignore_errors=True))

    def await_ready(self):
        """Its sockets are there before its workers are."""
        from support import sip
        super().await_ready()
        peer = sip.Udp()

        def answers():
            peer.send(sip.register(peer.port, "", via=peer.via))
            return not peer.nothing(0.2)
        sip.wait_until(answers, 20, "kamailio answering")
        sip.connect(timeout=10).close()
        time.sleep(0.1)
        peer.close()


class RelayServer(ChildServer):
    name = "relay"

    def __init__(self, build):
        self.binary = os.path.join(build, "bin", "bench_relay")

    def first_answer_command(self):
        return [self.binary, "127.0.0.1:5060", "127.0.0.2:5060", "127.0.0.3:5060"], lambda: None


# --- One measurement ---------------------------------------------------------------------------------------------------


class SystemCalls:
    """Counts those of a process tree between start and stop: with perf where it may, else with strace."""

    def __init__(self, pid):
        pids = [str(process) for process in tree(pid)]
        self.out = tempfile.NamedTemporaryFile(prefix="ue-proxy-syscalls-", mode="r", encoding="utf-8")
        self.perf = self.usable()
        if self.perf:
            command = ["perf", "stat", "-x", ",", "-e", "raw_syscalls:sys_enter", "-o", self.out.name, "-p", ",".join(pids)]
        elif shutil.which("strace"):
            command = ["strace", "-f", "-c", "-q", "-o", self.out.name]
            for process in pids:
                command += ["-p", process]
        else:
            self.process = None
            return
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(0.4)

    @staticmethod
    def usable():
        if not shutil.which("perf"):
            return False
        tried = subprocess.run(["perf", "stat", "-x", ",", "-e", "raw_syscalls:sys_enter", "true"], capture_output=True,
                               text=True)
        return tried.returncode == 0 and re.match(r"\d+,", tried.stderr.strip().splitlines()[-1]) is not None

    def stop(self):
        """Their number; None when nothing here can count them."""
        if self.process is None:
            return None
        self.process.send_signal(signal.SIGINT)
        self.process.wait(20)
        text = self.out.read()
        found = re.search(r"^(\d+),.*sys_enter" if self.perf else r"^100\.00.*?(\d+)\s+(?:\d+\s+)?total$", text, re.M)
        return int(found.group(1)) if found else None


class Allocations:
    """The counters that a preloaded library keeps in a server."""

    def __init__(self, build):
        self.file = tempfile.NamedTemporaryFile(prefix="ue-proxy-allocations-")
        self.file.truncate(mmap.PAGESIZE)
        self.map = mmap.mmap(self.file.fileno(), mmap.PAGESIZE)
        self.environment = {"LD_PRELOAD": os.path.join(build, "bin", "libcount_allocations.so"),
                            "BENCH_ALLOCATIONS": self.file.name}

    def __enter__(self):
        os.environ.update(self.environment)
        return self

    def __exit__(self, *_):
        for name in self.environment:
            os.environ.pop(name, None)

    def read(self):
        return struct.unpack("QQ", self.map[:16])


class Bench:
    def __init__(self, build, seconds):
        self.build, self.seconds = build, seconds
        self.load_binary = os.path.join(build, "bin", "bench_load")
        self.servers = [UeProxyServer(build), KamailioServer(), RelayServer(build)]

    def measure(self, server, case, *, direction="out", seconds=None, idle=0, clients=2, count=None):
        """One load run against a fresh server. `count`: "syscalls" or "allocations" in its place."""
        transport, window = case
        command = [self.load_binary, "--transport", transport, "--window", str(window), "--seconds",
                   str(seconds or self.seconds), "--warm-up", "0.1", "--idle", str(idle), *DIRECTIONS[direction]]
        allocations = Allocations(self.build) if count == "allocations" else contextlib.nullcontext()
        with on_cpu(LOAD_CPU):
            load = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        try:
            self.expect(load, "ready", server)
            with allocations:
                options = {"clients": clients}
                if idle:
                    options["settings"] = (f"<max-connections>{idle + 100}</max-connections>"
                                           "<head-timeout-s>3600</head-timeout-s>")
                server.start(transport, **options)
            self.go(load)
            self.expect(load, "warm", server)
            calls = SystemCalls(server.pid) if count == "syscalls" else None
            allocated = allocations.read() if count == "allocations" else None
            used = processor_seconds(server.pid)
            self.go(load)
            told = json.loads(load.stdout.readline() or "{}")
            used = processor_seconds(server.pid) - used
            if not told:
                raise SystemExit(f"the load generator failed: {server.name}, {name_of(case)}, {direction}")
            messages = 2 * (told["exchanges"] + told["lost"])
            told.update(us_per_message=used * 1e6 / messages, messages_per_s=2 * told["exchanges"] / told["seconds"],
                        busy=used / told["seconds"], resident_kib=resident_kib(server.pid))
            if calls:
                total = calls.stop()
                told["syscalls_per_message"] = total / messages if total is not None else None
            if allocated:
                after = allocations.read()
                told["allocations_per_message"] = (after[0] - allocated[0]) / messages
                told["allocated_bytes_per_message"] = (after[1] - allocated[1]) / messages
            return told
        finally:
            load.kill()
            load.wait()
            server.stop()

    @staticmethod
    def expect(load, word, server):
        line = load.stdout.readline().strip()
        if line != word:
            raise SystemExit(f"the load generator gave up before {word!r} with {server.name}")

    @staticmethod
    def go(load):
        load.stdin.write("go\n")
        load.stdin.flush()

    def first_answer(self, server):
        from support import sip
        with tempfile.NamedTemporaryFile(prefix="ue-proxy-request-") as request:
            request.write(sip.register(UA_PORT, sip.ua_info()))
            request.flush()
            command, clean_up = server.first_answer_command()
            try:
                with on_cpu(LOAD_CPU):
                    done = subprocess.run([self.load_binary, "--first-answer", request.name, "--cpu", str(SERVER_CPU), "--",
                                           *command], stdout=subprocess.PIPE, text=True)
            finally:
                clean_up()
        if done.returncode != 0:
            raise SystemExit(f"{server.name} never answered")
        return json.loads(done.stdout)["first_answer_ms"]


# --- The whole run -----------------------------------------------------------------------------------------------------


def progress(text):
    print(f"\r\033[K{text}" if sys.stderr.isatty() else text, end="" if sys.stderr.isatty() else "\n", file=sys.stderr,
          flush=True)


def run(bench, results, repetitions, quick):
    results.update(cases={}, counts={}, directions={}, connections={}, clients={}, first_answer_ms={})
    progress("time to the first answer")
    for _ in range(repetitions):
        for server in bench.servers[:2]:
            results["first_answer_ms"].setdefault(server.name, []).append(bench.first_answer(server))
    results["program_bytes"] = {server.name: server.size() for server in bench.servers[:2]}
    for repetition in range(repetitions):
        for case in CASES:
            progress(f"repetition {repetition + 1} of {repetitions}: {name_of(case)}")
            # Turn by turn another one begins, so that what drifts favours nobody.
            turn = repetition % len(bench.servers)
            for server in bench.servers[turn:] + bench.servers[:turn]:
                told = bench.measure(server, case)
                results["cases"].setdefault(name_of(case), {}).setdefault(server.name, []).append(told)
    short = min(bench.seconds, 0.5)
    proxy = bench.servers[0]
    progress("system calls and allocations per message")
    for case in CASES:
        counts = results["counts"].setdefault(name_of(case), {})
        for server in bench.servers:
            counts[server.name] = {"syscalls": bench.measure(server, case, seconds=short, count="syscalls")
                                   ["syscalls_per_message"]}
        told = bench.measure(proxy, case, seconds=short, count="allocations")
        counts[proxy.name].update(allocations=told["allocations_per_message"],
                                  allocated_bytes=told["allocated_bytes_per_message"])
    rounds = 1 if quick else 5
    for _ in range(rounds):
        progress("directions, open connections, clients")
        for direction in DIRECTIONS:
            for transport in ("UDP", "TCP"):
                told = bench.measure(proxy, (transport, 64), direction=direction, seconds=short)
                results["directions"].setdefault(f"{direction}, {transport}", []).append(told["us_per_message"])
        for idle in (0, 99, 999):
            told = bench.measure(proxy, ("TCP", 64), idle=idle, seconds=short)
            results["connections"].setdefault(str(idle + 1), []).append(told["us_per_message"])
        for clients in (2, 10, 100):
            for direction in ("out", "in"):
                told = bench.measure(proxy, ("UDP", 64), direction=direction, clients=clients, seconds=short)
                results["clients"].setdefault(f"{clients}, {direction}", []).append(told["us_per_message"])


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*:\s*(.*)", file.read())
    return {"processors": len(CPUS), "model": model.group(1) if model else os.uname().machine, "kernel": os.uname().release,
            "load_average": os.getloadavg()[0], "server_cpu": SERVER_CPU, "load_cpu": LOAD_CPU,
            "when": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds")}


def inside(arguments):
    import report
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    repetitions = arguments.repetitions or (3 if arguments.quick else 20)
    before = machine()
    results = {"machine": before, "repetitions": repetitions, "seconds": arguments.seconds}
    where = os.path.join(HERE, "results")
    os.makedirs(where, exist_ok=True)
    stem = os.path.join(where, datetime.datetime.now().strftime("%Y%m%d-%H%M%S"))
    try:
        run(Bench(os.path.abspath(arguments.build), arguments.seconds), results, repetitions, arguments.quick)
    finally:
        # What was measured is kept, whatever became of the rest.
        with open(stem + ".json", "w", encoding="utf-8") as file:
            json.dump(results, file, indent=1)
    progress("")
    print(report.table(results))
    with open(stem + ".svg", "w", encoding="utf-8") as file:
        file.write(report.plot(results))
    print(f"\nwritten: {os.path.relpath(stem, ROOT)}.json and .svg")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="build directory whose bin/ is measured")
    parser.add_argument("--quick", action="store_true", help="3 repetitions")
    parser.add_argument("--repetitions", type=int, default=0, help="default 20")
    parser.add_argument("--seconds", type=float, default=1.0, help="of each measurement")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.inside:
        inside(arguments)
        return
    import run as e2e
    prefix = e2e.namespace_prefix()
    if not prefix:
        print("no network namespaces here: on the host's loopback, which others may use too", file=sys.stderr)
    environment = dict(os.environ, UE_PROXY_BIN=os.path.join(os.path.abspath(arguments.build), "bin"),
                       PYTHONDONTWRITEBYTECODE="1")
    sys.exit(subprocess.run([*prefix, sys.executable, os.path.abspath(__file__), "--inside", *sys.argv[1:]],
                            env=environment).returncode)


if __name__ == "__main__":
    main()
