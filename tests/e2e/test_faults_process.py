"""What the machine withholds: descriptors, memory, disk, a reader of the log, a clock that can be trusted."""
import datetime
import fcntl
import mmap
import os
import re
import resource
import select
import socket
import struct
import subprocess
import time
import unittest

from support import sip
from support.faults import FaultCase, measure, note
from support.proxy import HOME_PROFILE, SANITIZED


class Limits(FaultCase):
    options = FaultCase.options | {"profiles": {
        "home": HOME_PROFILE.format(mode="ietf-shared"),
        **{f"late-{limited}": "<network-profile><impi>late-impi@example.net</impi></network-profile>"
           for limited in (False, True)}}}

    def limit(self, what, soft):
        """Sets a limit of the running process."""
        hard = resource.prlimit(self.proxy.pid, what)[1]
        resource.prlimit(self.proxy.pid, what, (soft if soft is not None else hard, hard))

    def test_without_descriptors_it_neither_spins_nor_forgets_who_waits(self):
        spare, callers = 8, measure(60, 120)
        # Once without the limit: a sanitizer needs a descriptor of its own when it first meets a kind of object.
        for limited in (False, True):
            if limited:
                self.limit(resource.RLIMIT_NOFILE, self.descriptors + spare)
            crowd = [self.connect() for _ in range(callers)]
            if limited:
                self.proxy.wait_log("cannot accept on 127.0.0.1:5060: Too many open files")
                before = self.proxy.processor_seconds()
                time.sleep(1)
                spent = self.proxy.processor_seconds() - before
                self.assertLess(spent, 0.15)
            self.call("UDP", self.bob, self.work)
            self.call("UDP", self.work, self.bob)
            # A user agent that cannot be connected to is registered all the same, and its profile, read once, is whole.
            profile = f"late-{limited}"
            for cseq, expires in ((1, 3600), (2, 0)):
                self.register(5073, sip.ua_info(profile, f"{profile}@example.net"), user="late", call_id=profile, cseq=cseq,
                              expires=expires)
            self.witness.wait(f"{profile}@example.net".encode(), b"<impi>late-impi@example.net</impi>")
            # As some go, those in the backlog get their turn.
            for number, stream in enumerate(crowd):
                stream.send(b"\r\n\r\n")
                self.assertEqual(stream.receive_raw(2), b"\r\n", number)
                stream.close()
        self.limit(resource.RLIMIT_NOFILE, None)
        self.assert_healthy()
        note(f"descriptors exhausted by {callers - spare} connections more: {spent:.2f} s of processor time in a second")

    def use_up_memory(self, cseq):
        """Unfinished messages on many connections, and registrations, with no room left to grow."""
        self.limit(resource.RLIMIT_AS, (self.proxy.status_kib("VmSize") + 512) * 1024)
        unfinished = sip.request("MESSAGE", self.home.uri, via=self.alice.address, frm=f"<{self.alice.uri}>",
                                 to=f"<{self.home.uri}>", transport="TCP", body="x" * 60000)[:-1]
        crowd = [self.connect() for _ in range(measure(100, 200))]
        for stream in crowd:
            stream.socket.settimeout(0.05)
        for start in range(0, len(unfinished), 6000):
            for stream in crowd:
                try:
                    stream.send(unfinished[start:start + 6000])
                except OSError:
                    pass
            self.guests(cseq + start)
        self.assertRegex(self.proxy.log(), "no memory|std::bad_alloc")
        for stream in crowd:
            stream.close()

    def guests(self, cseq, expires=3600):
        for port in range(5100, 5110):
            self.stranger.send(sip.register(port, sip.ua_info("home", f"guest{port}@example.net"), via=self.stranger.via,
                                            user=f"guest{port}", cseq=cseq, expires=expires))

    def test_without_memory_a_message_is_given_up_and_not_the_process(self):
        if SANITIZED:
            # A sanitizer's allocator ends the process instead of failing; the unit tests fail single allocations.
            note(f"memory limit: not under {SANITIZED}; the release build's test is ./dev faults")
            return
        self.stranger = self.udp()
        for round_number in range(1, measure(2, 10) + 1):
            self.use_up_memory(100000 * round_number)
            self.limit(resource.RLIMIT_AS, None)
            self.guests(100000 * round_number + 99999, 0)
            self.witness.renew()  # a NOTIFY that could not be sent has ended the subscription
        # What the allocator keeps is scattered by then; it has measured at most 9 MiB, reached in three rounds.
        self.assert_healthy(12 * 1024)
        note(f"memory limit: {self.proxy.log().count('no memory')} connections ended, "
             f"{self.proxy.log().count('given up')} pieces of work given up")


class Disk(FaultCase):
    def start_anew(self, *prefix):
        """The process anew, run by `prefix`. Gives its run directory as it sees it."""
        self.proxy.stop()
        self.proxy.command[:0] = prefix
        self.proxy.start(ready=False)
        self.proxy.wait_log(".cap not written")
        return f"/proc/{self.proxy.pid}/root{self.proxy.run_dir}"

    def test_no_room_for_the_run_directorys_files_costs_these_files_only(self):
        # A file system of one page, which the first file fills.
        seen = self.start_anew("unshare", "--mount", "sh", "-c",
                               'mount -t tmpfs -o size=4k none "$0" && ! head -c 9999 /dev/zero >"$0/full" && exec "$@"',
                               self.proxy.run_dir)
        self.assertEqual(sorted(os.listdir(seen)), ["full", "ue-proxy.sock"])
        for file in ("ue-proxy.pid", "ue-proxy.cap"):
            self.assertTrue([text for _, _, text in self.proxy.lines(3) if file in text and "No space left" in text],
                            self.proxy.log())
        self.witness.close()
        self.register_all()
        self.assert_healthy()

    def test_the_largest_file_size_is_reached_by_the_log_and_told_when_there_is_room_again(self):
        # The system also sends a signal then, which ends whoever did not ask for anything else.
        room = 2000
        hard = resource.prlimit(self.pid, resource.RLIMIT_FSIZE)[1]
        resource.prlimit(self.pid, resource.RLIMIT_FSIZE, (os.path.getsize(self.proxy.log_path) + room, hard))
        for _ in range(10):
            self.check_tables()
        resource.prlimit(self.pid, resource.RLIMIT_FSIZE, (hard, hard))
        self.assert_healthy()
        self.assertRegex(self.proxy.log(), r"loginfo: \d+ log lines were dropped")

    def test_a_process_that_may_write_no_file_serves(self):
        reader, writer = os.pipe()  # the log's way: a file of its own would be none
        self.proxy.stderr = writer
        self.proxy.stop()
        self.proxy.command[:0] = ["prlimit", "--fsize=0"]
        self.proxy.environment = {"TMPDIR": "/none"}  # where ThreadSanitizer would write as it starts
        self.proxy.start(ready=False)
        os.close(writer)
        with open(reader, encoding="utf-8") as log:
            while ".cap not written: File too large" not in log.readline():
                self.assertTrue(self.proxy.alive(), "ended by itself")
            self.assertEqual(os.listdir(self.proxy.run_dir), ["ue-proxy.sock"])
            self.witness.close()
            self.register_all()
            self.assert_healthy()


class Log(FaultCase):
    """At level 3 a request of a user agent that nobody knows is one line, and nothing else here is any."""

    options = FaultCase.options | {"level": 3}

    def start_with(self, stderr):
        self.proxy.stderr = stderr
        self.restart()
        self.asked = 0
        self.stranger = self.udp()

    def ask(self, times, portion=50):
        """So many lines. The sockets hold a portion; the call after each shows that the loop goes on."""
        for _ in range(times // portion):
            for _ in range(portion):
                self.asked += 1
                self.stranger.send(sip.request("OPTIONS", self.home.uri, via=self.stranger.via, frm="<sip:s@example.net>",
                                               to=f"<{self.home.uri}>"))
            self.call("UDP", self.bob, self.work)

    def check(self, text):
        """Lines that came and lines that the log says were dropped are all that there were; every line is whole."""
        dropped = 0
        for line in text.splitlines():
            self.assertRegex(line, r"^\d{4}-\d\d-\d\dT[\d:.]+Z ue-proxy\[\d+\] [345] ~?\w+: ")
            found = re.search(r" (\d+) log lines were dropped", line)
            dropped += int(found.group(1)) - 1 if found else 0  # less the line that says so
        self.assertGreater(dropped, 0)
        self.assertEqual(text.count("\n") + dropped, self.asked)

    def after_a_stall(self, reader, writer):
        """Nobody reads until much was said; then somebody does."""
        self.start_with(writer)
        self.ask(measure(1000, 20000))
        text = read_all(reader)
        for _ in range(3):
            self.ask(5, 5)
            text += read_all(reader)
        self.check(text)
        self.assert_healthy()

    def test_a_pipe_that_nobody_reads_costs_lines_and_no_time(self):
        reader, writer = (self.keep(open(end, mode, buffering=0)) for end, mode in zip(os.pipe(), ("rb", "wb")))
        fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
        self.after_a_stall(reader, writer)

    def test_a_socket_that_nobody_reads_costs_lines_and_no_time(self):
        reader, writer = (self.keep(end) for end in socket.socketpair())
        writer.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4096)
        self.after_a_stall(reader, writer)

    def test_a_reader_that_goes_costs_lines_and_the_next_one_is_told(self):
        reader, writer = (open(end, mode, buffering=0) for end, mode in zip(os.pipe(), ("rb", "wb")))
        self.start_with(writer)
        writer.close()
        self.ask(50)
        text = read_all(reader)
        reader.close()
        self.ask(100)
        reader = self.keep(open(f"/proc/{self.pid}/fd/2", "rb", buffering=0))
        self.ask(50)
        self.check(text + read_all(reader))
        self.assert_healthy()


def read_all(reader):
    """What is there now."""
    text = b""
    while select.select([reader], [], [], 0)[0]:
        text += os.read(reader.fileno(), 65536)
    return text.decode()


#: The wall clock of one process: its own plus an offset in a file.
CLOCK = r"""
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>
static long offset(void) {
  static const volatile long *place;
  if (place == NULL) {
    int file = open(getenv("CLOCK_OFFSET"), O_RDONLY | O_CLOEXEC);
    place = mmap(NULL, sizeof *place, PROT_READ, MAP_SHARED, file, 0);
    close(file);
  }
  return *place;
}
int clock_gettime(clockid_t clock, struct timespec *now) {
  int result = (int)syscall(SYS_clock_gettime, clock, now);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) now->tv_sec += offset();
  return result;
}
int gettimeofday(struct timeval *now, void *zone) {
  struct timespec precise;
  clock_gettime(CLOCK_REALTIME, &precise);
  now->tv_sec = precise.tv_sec;
  now->tv_usec = precise.tv_nsec / 1000;
  return 0;
}
time_t time(time_t *place) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (place != NULL) *place = now.tv_sec;
  return now.tv_sec;
}
"""


class Clock(FaultCase):
    def setUp(self):
        super().setUp()
        place = os.path.join(self.proxy.dir, "offset")
        library = os.path.join(self.proxy.dir, "clock.so")
        subprocess.run(["cc", "-x", "c", "-shared", "-fPIC", "-O1", "-o", library, "-"], input=CLOCK, text=True, check=True)
        with open(place, "w+b") as file:
            file.write(struct.pack("l", 0))
            file.flush()
            self.offset = mmap.mmap(file.fileno(), 0)
        self.proxy.environment = {"LD_PRELOAD": library, "CLOCK_OFFSET": place}
        for sanitizer in ("ASAN_OPTIONS", "TSAN_OPTIONS"):
            # The sanitizer's library wants to be first; it need not be, as the clock uses none of its.
            self.proxy.environment[sanitizer] = "verify_asan_link_order=0:detect_leaks=1:exitcode=99"
        self.restart()

    def jump(self, seconds):
        self.offset[:] = struct.pack("l", struct.unpack("l", self.offset)[0] + seconds)

    def test_a_jump_of_the_wall_clock_moves_the_logs_stamps_and_no_timer(self):
        waiting, stranger = self.connect(), self.udp()
        day = 86400
        self.witness.silent = True
        self.register(5073, sip.ua_info("home", "late@example.net"), user="late")
        first = sip.wait_until(lambda: self.witness.arrived, 5, "a NOTIFY")[0]
        for seconds in (day, -3 * day, 400 * day):
            time.sleep(0.3)
            self.jump(seconds)
            stranger.send(sip.request("OPTIONS", self.home.uri, via=stranger.via, frm="<sip:s@example.net>",
                                      to=f"<{self.home.uri}>"))
        # Unanswered, it comes again after T1, twice that, and so on up to T2; the end is after 64 times T1.
        time.sleep(max(0, first + 2.9 - time.monotonic()))
        gaps = [after - before for before, after in zip(self.witness.arrived, self.witness.arrived[1:])]
        expected = [0.05, 0.1, 0.2] + [0.4] * 6
        self.assertEqual(len(gaps), len(expected), gaps)
        for gap, planned in zip(gaps, expected):
            self.assertAlmostEqual(gap, planned, delta=0.15)
        waiting.send(b"\r\n\r\n")
        self.assertEqual(waiting.receive_raw(2), b"\r\n")  # quiet for a year by the wall clock
        waiting.close()
        self.witness.silent = False
        self.register(5073, sip.ua_info("home", "late@example.net"), user="late", cseq=2, expires=0)
        self.assert_healthy()
        dates = {datetime.date.fromisoformat(line[:10]) for line in self.proxy.log().splitlines()}
        self.assertEqual([(date - min(dates)).days for date in sorted(dates)], [0, 2, 3, 400])


if __name__ == "__main__":
    unittest.main(verbosity=1)
