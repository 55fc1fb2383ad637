#!/usr/bin/env python3
"""Mutation testing: changes one place of src/ at a time, and looks whether a unit test notices.

Works in copies of the tree below build/mutate, one a job. A mutant that does not compile is replaced by another of its
file; one that no test notices must be explained in tests/mutants.txt, which also says what an explanation is. The same
seed and the same sources give the same sample. Fails when a survivor is not explained, or when fewer than 95 % of those
that can be noticed are.
"""
import argparse
import collections
import fcntl
import json
import os
import queue
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tests", "e2e"))
from run import namespace_prefix  # noqa: E402

WORK = os.path.join(ROOT, "build", "mutate")
EXPLANATIONS = os.path.join(ROOT, "tests", "mutants.txt")
LEAST = 95.0

# The test programs that can notice a change of a folder, the likeliest first.
PROGRAMS = {
    "siplib": ["siplib", "engine", "proxy", "framework"],
    "framework": ["framework", "registrar", "engine", "routing", "auth", "proxy"],
    "routing": ["routing", "engine", "proxy", "auth"],
    "auth": ["auth", "engine", "proxy"],
    "registrar": ["registrar", "engine", "proxy"],
    "proxy": ["proxy", "engine"],
    "engine": ["engine", "proxy"],
}
SHARDS = 4
FOLDERS = ["src/proxy", "src/registrar", "src/auth", "src/routing", "src/engine", "src/siplib"]

# ---- reading C++, as far as it takes to change it

TOKEN = re.compile(r"""
    (?P<skip>\s+ | //[^\n]* | /\*.*?\*/ | ^[ \t]*\#(?:\\\n|[^\n])*)
  | (?P<text>R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)" | "(?:\\.|[^"\\\n])*" | '(?:\\.|[^'\\\n])*')
  | (?P<number>\d(?:'?[\w.])*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign><=>|<<=|>>=|\.\.\.|::|->|\+\+|--|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|<<|.)
""", re.X | re.S | re.M)

Token = collections.namedtuple("Token", "kind text begin end")
Mutant = collections.namedtuple("Mutant", "path line source change edits")  # edits: (begin, end, text), ascending

KEYWORDS = set("""alignas auto bool break case catch char class const constexpr continue default delete do double else
    enum explicit extern false float for friend goto if inline int long mutable namespace new noexcept nullptr operator
    private protected public return short signed sizeof static struct switch template throw true try typedef typename
    union unsigned using virtual void volatile while""".split())
COMPARE = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
LOGIC = {"&&": "||", "||": "&&"}
ARITHMETIC = {"+": "-", "-": "+", "+=": "-=", "-=": "+="}
ASSIGN = {"=", "+=", "-=", "*=", "/=", "%=", "|=", "&=", "^=", "<<=", ">>="}
OTHER_CALL = {"min": "max", "front": "back", "push_back": "push_front", "pop_back": "pop_front", "find": "rfind",
              "starts_with": "ends_with", "any_of": "all_of", "remove_prefix": "remove_suffix",
              "lower_bound": "upper_bound"}
OTHER_CALL |= {there: here for here, there in OTHER_CALL.items()} | {"none_of": "any_of"}
# Warnings of a mutant that say no more than that it is one. That a function has no value to return is not among them.
HARMLESS = """unused-variable unused-but-set-variable unused-but-set-parameter unused-parameter unused-function
    unused-value empty-body dangling-else parentheses implicit-fallthrough uninitialized maybe-uninitialized type-limits
    sign-compare bool-compare int-in-bool-context conversion sign-conversion""".split()
UNCHANGED = {"loginfo", "log", "assert", "static_assert"}  # not looked into, unless asked for


def on_one_line(text):
    return " ".join(text.split())


class Source:
    """One file: its tokens, and every mutant of it."""

    def __init__(self, path, text, log_lines=False):
        self.path, self.text, self.log_lines = path, text, log_lines
        self.lines = [on_one_line(line) for line in text.split("\n")]
        self.alike = collections.Counter(self.lines)
        self.tokens = [Token(m.lastgroup if m.lastgroup != "mark" else "text", m.group(), m.start(), m.end())
                       for m in TOKEN.finditer(text) if m.group("skip") is None]
        self.partner, self.within = {}, []
        opened = []
        for i, token in enumerate(self.tokens):
            if token.text in (")", "]", "}") and opened:
                self.partner[i] = opened.pop()
                self.partner[self.partner[i]] = i
            self.within.append(opened[-1] if opened else -1)
            if token.text in ("(", "[", "{"):
                opened.append(i)
        self.tokens.append(Token("end", "", len(text), len(text)))
        self.within.append(-1)
        self.quiet = set()
        for i, token in enumerate(self.tokens):
            if token.text in UNCHANGED and self.tokens[i + 1].text == "(":
                first = i
                while self.tokens[first - 1].text in ("::", ".", "->"):
                    first -= 2
                self.quiet.update(range(first, self.partner[i + 1] + 1))

    # what stands where

    def spaced(self, i):
        """Whether a sign has blanks around it, as the formatter gives to those with two operands."""
        token = self.tokens[i]
        return self.text[token.begin - 1].isspace() and self.text[token.end:token.end + 1].isspace()

    def is_head(self, i):
        """Whether the ")" at i ends the head of a statement."""
        before = self.tokens[self.partner[i] - 1].text if self.tokens[i].text == ")" and i in self.partner else ""
        return before in ("if", "for", "while", "switch", "constexpr")

    def starts_statement(self, i):
        if self.within[i] != -1 and self.tokens[self.within[i]].text != "{":
            return False
        before = self.tokens[i - 1].text if i else ";"
        if before == ":":
            label = i - 1
            while self.tokens[label - 1].kind == "name" or self.tokens[label - 1].text == "::":
                label -= 1
            return self.tokens[label].text in ("case", "default")
        return before in (";", "{", "}", "else") or self.is_head(i - 1)

    def end_of(self, i, signs):
        """The first of these signs from i on that is not within brackets; where the brackets around i close, else."""
        while self.tokens[i].kind != "end" and self.tokens[i].text not in signs:
            if self.tokens[i].text in (")", "]", "}"):
                break
            i = self.partner.get(i, i) + 1
        return i

    def last_of_statement(self, i):
        """The last token of the statement that begins at i."""
        text = self.tokens[i].text
        if text == "{":
            return self.partner[i]
        if text in ("if", "for", "while", "switch"):
            head = i + 1 if self.tokens[i + 1].text == "(" else i + 2
            last = self.last_of_statement(self.partner[head] + 1)
            if text == "if" and self.tokens[last + 1].text == "else":
                last = self.last_of_statement(last + 2)
            return last
        return self.end_of(i, {";"})

    def pieces(self, begin, end):
        """The operands of the "||", or else the "&&", that hold tokens begin to end together: (first, behind) each."""
        for sign in ("||", "&&"):
            cuts, i = [], begin
            while i < end:
                if self.tokens[i].text in ("?", ",", "="):
                    return []
                if self.tokens[i].text == sign and self.spaced(i):
                    cuts.append(i)
                i = self.partner.get(i, i) + 1
            if cuts:
                return list(zip([begin] + [cut + 1 for cut in cuts], cuts + [end]))
        return []

    def code(self, begin, end):
        return on_one_line(self.text[self.tokens[begin].begin:self.tokens[end - 1].end]) if end > begin else ""

    def mutant(self, kind, what, *edits):
        line = self.text.count("\n", 0, edits[0][0]) + 1
        return Mutant(self.path, line, self.named(line), f"{kind}: {what}", edits)

    def named(self, line):
        """A line's text, with the one before it where the file has others like it."""
        text = self.lines[line - 1]
        if self.alike[text] > 1:
            text = next(filter(None, reversed(self.lines[:line - 1])), "") + " / " + text
        return text

    def replace(self, kind, i, by):
        token = self.tokens[i]
        return self.mutant(kind, f"{token.text} -> {by}", (token.begin, token.end, by))

    # the operators

    def mutants(self):
        """All of them, none twice; equal changes of one line are told apart by a number."""
        found = []
        for i, token in enumerate(self.tokens[:-1]):
            if i in self.quiet:
                if self.log_lines and token.kind == "text":
                    found += self.of_text(i)
                continue
            for operator in (self.of_sign, self.of_number, self.of_text, self.of_name, self.of_condition,
                             self.of_statement, self.of_loop, self.of_range):
                found += operator(i)
        seen = collections.Counter()
        unique = []
        for mutant in found:
            key = (mutant.line, mutant.change)
            seen[key] += 1
            if seen[key] > 1:
                mutant = mutant._replace(change=f"{mutant.change} (#{seen[key]})")
            unique.append(mutant)
        return unique

    def of_sign(self, i):
        text = self.tokens[i].text
        if self.tokens[i].kind != "sign" or self.tokens[i - 1].text == "operator":
            return
        if text in ("++", "--"):
            if not self.starts_statement(i):
                yield self.replace("step", i, "nothing")._replace(
                    edits=((self.tokens[i].begin, self.tokens[i].end, ""),))
        elif self.spaced(i):
            for kind, table in (("compare", COMPARE), ("logic", LOGIC), ("arithmetic", ARITHMETIC)):
                if text in table:
                    yield self.replace(kind, i, table[text])

    def of_number(self, i):
        token = self.tokens[i]
        whole = re.fullmatch(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)([uUlL]*)", token.text)
        if token.kind != "number" or not whole or whole[1].startswith("0") and whole[1].isdigit() and whole[1] != "0":
            return
        # Not the size of an array that is declared.
        if self.tokens[i - 1].text == "[" and (self.tokens[i - 2].text == ")" or self.tokens[i - 2].kind == "name" and
                                               self.tokens[i - 3].kind == "name" and
                                               self.tokens[i - 3].text not in ("return", "else")):
            return
        value = int(whole[1].replace("'", ""), 0)
        write = hex if whole[1][:2] in ("0x", "0X") else str
        yield self.replace("number", i, write(value + 1) + whole[2])
        if value > 0:
            yield self.replace("number", i, write(value - 1) + whole[2])

    def of_text(self, i):
        token = self.tokens[i]
        plain = [] if token.kind != "text" or token.text.startswith("R") else re.findall(r"\\.|[^\\]", token.text[1:-1])
        places = [k for k, c in enumerate(plain) if len(c) == 1 and c != "%" and (k == 0 or plain[k - 1] != "%")]
        if places and self.tokens[i - 1].text != "extern":
            place = places[len(places) // 2]
            plain[place] = "x" if plain[place] not in "xX" else "y"
            yield self.replace("text", i, token.text[0] + "".join(plain) + token.text[-1])

    def of_name(self, i):
        text = self.tokens[i].text
        if self.tokens[i].kind != "name":
            return
        if text in ("true", "false"):
            yield self.replace("value", i, "false" if text == "true" else "true")
        elif text in ("break", "continue"):
            yield self.replace("jump", i, "nothing")._replace(edits=((self.tokens[i].begin, self.tokens[i].end, ""),))
        elif text in OTHER_CALL and self.tokens[i + 1].text == "(" and self.tokens[i - 1].text in (".", "->", "::"):
            yield self.replace("call", i, OTHER_CALL[text])
        elif text == "return":
            end = self.end_of(i, {";"})
            value = self.code(i + 1, end)
            if value and value not in ("{}", "true", "false", "nullptr") and not value.isdigit():
                yield self.mutant("value", f"{value} -> {{}}",
                                  (self.tokens[i + 1].begin, self.tokens[end - 1].end, "{}"))

    def of_condition(self, i):
        text = self.tokens[i].text
        if text in ("if", "while") and self.tokens[i].kind == "name":
            head = i + 1 if self.tokens[i + 1].text == "(" else i + 2
            begin, end = head + 1, self.partner[head]
            if self.end_of(begin, {";"}) < end:
                begin = self.end_of(begin, {";"}) + 1
            # Not what declares something; where one comparison is all, that is changed for itself.
            if text == "if" and (self.pieces(begin, end) or self.end_of(begin, {"=", "==", "!="}) >= end):
                yield self.mutant("negate", self.code(begin, end), (self.tokens[begin].begin, self.tokens[begin].begin,
                                  "!("), (self.tokens[end - 1].end, self.tokens[end - 1].end, ")"))
        elif text == "for":
            begin = self.end_of(i + 2, {";"}) + 1
            end = self.end_of(begin, {";"})
            if begin > self.partner[i + 1]:
                return
        elif text == "return" or text == "=" and self.spaced(i):
            begin, end = i + 1, self.end_of(i + 1, {";", ","})
        else:
            return
        pieces = self.pieces(begin, end)
        for k, (first, behind) in enumerate(pieces):
            if k == 0:
                cut = (self.tokens[first].begin, self.tokens[behind + 1].begin, "")
            else:
                cut = (self.tokens[first - 2].end, self.tokens[behind - 1].end, "")
            # The line is that of the operand, also where the operator before it ends another.
            at = self.mutant("operand", f"without {self.code(first, behind)}", (self.tokens[first].begin, 0, ""))
            yield at._replace(edits=(cut,))

    def of_statement(self, i):
        if not self.starts_statement(i):
            return
        tokens = self.tokens
        end = self.end_of(i, {";"})
        if tokens[end].text != ";":
            return
        gone = self.mutant("remove", self.code(i, end), (tokens[i].begin, tokens[end - 1].end, ""))
        if tokens[i].text == "return":
            # An early one only: behind the head of an if, or the last of its block.
            block = self.within[i] if tokens[end + 1].text == "}" else -1
            early = self.is_head(i - 1) or block > 0 and self.is_head(block - 1)
            if early and tokens[self.partner[i - 1 if self.is_head(i - 1) else block - 1] - 1].text == "if":
                yield gone
            return
        k = i
        while tokens[k].text in ("++", "--", "*", "::"):
            k += 1
        if tokens[k].kind != "name" or tokens[k].text in KEYWORDS:
            return
        calls = tokens[i].text in ("++", "--")
        k += 1
        while True:
            if tokens[k].text in ("::", ".", "->") and tokens[k + 1].kind == "name":
                k += 2
            elif tokens[k].text in ("(", "["):
                calls = calls or tokens[k].text == "("
                k = self.partner[k] + 1
            else:
                break
        if tokens[k].text in ASSIGN and tokens[k + 1].text not in ("default", "delete") or calls and k == end:
            yield gone

    def of_loop(self, i):
        if self.tokens[i].text not in ("for", "while") or self.tokens[i + 1].text != "(":
            return
        begin = self.partner[i + 1] + 1
        if self.tokens[begin].text == ";":
            return
        last = self.last_of_statement(begin)
        # Not one that leaves in its first round anyway.
        final = last - 1
        while final > begin and self.tokens[final - 1].text not in (";", "{", "}"):
            final -= 1
        if self.tokens[final].text in ("return", "break", "continue", "throw"):
            return
        if self.tokens[begin].text == "{":
            edits = ((self.tokens[last].begin, self.tokens[last].begin, " break; "),)
        else:
            edits = ((self.tokens[begin].begin, self.tokens[begin].begin, "{ "),
                     (self.tokens[last].end, self.tokens[last].end, " break; }"))
        once = self.mutant("loop", "once", (self.tokens[i].begin, 0, ""))
        yield once._replace(edits=edits)

    def of_range(self, i):
        text = self.tokens[i].text
        if text in ("begin", "end") and self.tokens[i - 1].text in (".", "->") and self.code(i + 1, i + 3) == "()":
            by = " + 1" if text == "begin" else " - 1"
            at = self.tokens[i + 2].end
            yield self.mutant("range", f"{text}() -> {text}(){by}", (at, at, by))


def mutated(text, mutant):
    for begin, end, by in reversed(mutant.edits):
        text = text[:begin] + by + text[end:]
    return text


def in_order(mutants, rng):
    """Every line once before any line twice; of a line's mutants every kind has the same chance."""
    by_line = collections.defaultdict(list)
    for mutant in mutants:
        by_line[mutant.line].append(mutant)
    lines = sorted(by_line)
    rng.shuffle(lines)
    rows = []
    for line in lines:
        by_kind = collections.defaultdict(list)
        for mutant in by_line[line]:
            by_kind[mutant.change.split(":")[0]].append(mutant)
        row = []
        while by_kind:
            kind = rng.choice(sorted(by_kind))
            row.append(by_kind[kind].pop(rng.randrange(len(by_kind[kind]))))
            if not by_kind[kind]:
                del by_kind[kind]
        rows.append(row)
    for turn in range(max(map(len, rows), default=0)):
        yield from (row[turn] for row in rows if turn < len(row))


def shares(lines, count, rng):
    """How many of `count` fall to each file: one at least, the rest by its lines."""
    paths = sorted(path for path in lines if lines[path])
    if count <= len(paths):
        return dict.fromkeys(rng.sample(paths, count), 1)
    total = sum(lines[path] for path in paths)
    exact = {path: 1 + (count - len(paths)) * lines[path] / total for path in paths}
    share = {path: int(exact[path]) for path in paths}
    rest = sorted(paths, key=lambda path: share[path] - exact[path])
    for path in rest[:count - sum(share.values())]:
        share[path] += 1
    return share


# ---- what is known of survivors

Explanation = collections.namedtuple("Explanation", "kind why")


def read_explanations(path):
    """Blocks of lines between empty ones: file, the line's text, the change, "equivalent: ..." or "unseen: ..."."""
    known = {}
    if not os.path.exists(path):
        return known
    with open(path, encoding="utf-8") as file:
        blocks = re.split(r"\n\s*\n", "".join(line for line in file if not line.startswith("#")).strip())
    for block in filter(None, blocks):
        lines = [line.strip() for line in block.splitlines()]
        kind, _, why = " ".join(lines[3:]).partition(": ")
        if len(lines) < 4 or kind not in ("equivalent", "unseen") or not why:
            sys.exit(f"mutate: cannot read this in {path}:\n{block}")
        known[tuple(lines[:3])] = Explanation(kind, why)
    return known


# ---- trying them

class Tree:
    """A copy of the sources with a build of its own."""

    def __init__(self, number, processors):
        self.root = os.path.join(WORK, str(number))
        self.build = os.path.join(self.root, "build", "debug")
        self.processors = processors
        self.limits = {}
        self.prefix = namespace_prefix()

    def prepare(self, folders):
        """Brings it up to date, builds, and learns how long the tests take without a mutant; what failed, or None."""
        listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"], cwd=ROOT,
                                check=True, capture_output=True, text=True).stdout.split("\0")
        wanted = {path for path in listed if path and os.path.isfile(os.path.join(ROOT, path))}
        for path in wanted:
            self.copy(path)
        for folder, folders_below, names in os.walk(self.root):
            folders_below[:] = [name for name in folders_below if os.path.join(folder, name) != self.build_root()]
            for name in names:
                if os.path.relpath(os.path.join(folder, name), self.root) not in wanted:
                    os.remove(os.path.join(folder, name))
        programs = sorted({program for folder in folders for program in PROGRAMS[folder]})
        for command in (["cmake", "--preset", "debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -g0"],
                        ["cmake", "--build", self.build, f"-j{self.processors}", "--target",
                         *(f"test_{program}" for program in programs)]):
            done = subprocess.run(command, cwd=self.root, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            if done.returncode != 0:
                return done.stdout[-3000:]
        for program in programs:
            for _ in range(3):  # some measure, and need a quiet moment
                started = time.monotonic()
                noticed = self.run(program, 600)
                if not noticed:
                    break
            if noticed:
                return f"without any mutant: {noticed}"
            self.limits[program] = 15 + 8 * (time.monotonic() - started)
        return None

    def build_root(self):
        return os.path.join(self.root, "build")

    def copy(self, path):
        here, there = os.path.join(ROOT, path), os.path.join(self.root, path)
        with open(here, "rb") as file:
            bytes_here = file.read()
        self.write(there, bytes_here, os.stat(here).st_mode)

    @staticmethod
    def write(path, content, mode=None):
        """Only where it differs, so that nothing is compiled in vain."""
        if os.path.exists(path):
            with open(path, "rb") as file:
                if file.read() == content:
                    return
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
        if mode is not None:
            os.chmod(path, mode)

    def compile(self, program):
        return subprocess.run(["cmake", "--build", self.build, f"-j{self.processors}", "--target", f"test_{program}"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0

    def run(self, program, limit, only=None):
        """What failed in a test program, or None. In several processes, each in its own network: tests wait a lot."""
        def confine():
            resource.setrlimit(resource.RLIMIT_AS, (4 << 30, 4 << 30))
            resource.setrlimit(resource.RLIMIT_FSIZE, (64 << 20, 64 << 20))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            # Also when nobody is left to end it.
            resource.setrlimit(resource.RLIMIT_CPU, (int(limit) + 1, int(limit) + 1))

        shards = SHARDS if self.prefix and not only else 1
        scratch = os.path.join(self.build, "scratch")
        shutil.rmtree(scratch, ignore_errors=True)
        command = [*self.prefix, os.path.join(self.build, "bin", f"test_{program}"), "--gtest_fail_fast",
                   *([f"--gtest_filter={only}"] if only else [])]
        end = time.monotonic() + limit
        left = {}
        for shard in range(shards):
            own = os.path.join(scratch, str(shard))
            os.makedirs(own)
            environment = dict(os.environ, TMPDIR=own, GTEST_TOTAL_SHARDS=str(shards), GTEST_SHARD_INDEX=str(shard))
            with open(f"{own}.output", "wb") as output:
                left[f"{own}.output"] = subprocess.Popen(
                    command, cwd=self.build, stdin=subprocess.DEVNULL, stdout=output, stderr=output, env=environment,
                    start_new_session=True, preexec_fn=confine)
        noticed = None
        while left and not noticed:
            for output, process in list(left.items()):
                late = time.monotonic() > end
                if process.poll() is None and not late:
                    continue
                if late or process.returncode != 0:
                    noticed = f"test_{program}: {self.failed(output)}{' (timed out)' if late else ''}"
                    break
                self.end(left.pop(output))
            else:
                time.sleep(0.02)
        for process in left.values():
            self.end(process)
        return noticed

    @staticmethod
    def end(process):
        """A test program, with what it may have left behind."""
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()

    @staticmethod
    def failed(output):
        with open(output, errors="replace") as file:
            said = file.read()
        failed = re.findall(r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", said, re.M)
        begun = re.findall(r"^\[ RUN      \] ([\w/]+\.[\w/]+)", said, re.M)
        return failed[0] if failed else begun[-1] if begun else "before the first test"

    def judge(self, program):
        """Like run, but what fails must fail again, alone or in its place, so that no mutant dies of a busy machine."""
        for _ in range(3):
            noticed = self.run(program, self.limits[program])
            if not noticed:
                return None
            test = noticed.split(": ")[1].removesuffix(" (timed out)")
            if "." not in test or self.run(program, self.limits[program], test):
                return noticed
            if self.run(program, self.limits[program]) == noticed:
                return noticed
        return None

    def attempt(self, mutant, text):
        """What becomes of a mutant: (verdict, by what)."""
        pragmas = "".join(f'#pragma GCC diagnostic ignored "-W{name}"\n' for name in HARMLESS)
        self.write(os.path.join(self.root, mutant.path), (pragmas + mutated(text, mutant)).encode())
        for program in PROGRAMS[mutant.path.split("/")[1]]:
            if not self.compile(program):
                return "uncompiled", ""
            noticed = self.judge(program)
            if noticed:
                return "killed", noticed
        return "survived", ""


class Results:
    """The record of all mutants, written as they come."""

    def __init__(self, known):
        self.known = known
        self.all = []
        self.lock = threading.Lock()
        self.file = open(os.path.join(WORK, "results.jsonl"), "w", encoding="utf-8")

    def add(self, mutant, verdict, by, seconds):
        explanation = self.known.get(mutant[:1] + mutant[2:4])
        if verdict == "survived" and explanation:
            verdict = explanation.kind
        record = {"file": mutant.path, "line": mutant.line, "text": mutant.source, "change": mutant.change,
                  "verdict": verdict, "by": by, "seconds": round(seconds, 1)}
        with self.lock:
            self.all.append(record)
            self.file.write(json.dumps(record) + "\n")
            self.file.flush()
            if verdict != "uncompiled":
                print(f"{verdict:<10} {seconds:5.1f} s  {mutant.path}:{mutant.line}  {mutant.change}"
                      f"{'  by ' + by if by else ''}", flush=True)
            if verdict == "killed" and explanation:
                print(f"           its explanation is no longer needed: {mutant.source}")
        return verdict

    def report(self):
        """The table; true when all is well."""
        verdicts = ["killed", "equivalent", "unseen", "survived", "uncompiled"]
        counts = collections.defaultdict(collections.Counter)
        for record in self.all:
            for row in (os.path.dirname(record["file"]), "all"):
                counts[row][record["verdict"]] += 1
        print(f"\n{'':<14}{'mutants':>9}" + "".join(f"{verdict:>12}" for verdict in verdicts) + f"{'killed of':>12}")
        share = 100.0
        for row in [*sorted(set(counts) - {"all"}), "all"]:
            count = counts[row]
            tried = sum(count.values()) - count["uncompiled"]
            share = 100 * count["killed"] / max(1, tried - count["equivalent"])
            print(f"{row:<14}{tried:>9}" + "".join(f"{count[verdict]:>12}" for verdict in verdicts) +
                  f"{share:>10.1f} %")
        print("killed of: those that are not equivalent; \"uncompiled\" were replaced by others")
        survivors = [record for record in self.all if record["verdict"] == "survived"]
        for record in survivors:
            print(f"\n{record['file']}\n{record['text']}\n{record['change']}")
        if survivors:
            print(f"\nmutate: {len(survivors)} survived unexplained; kill them, or explain them in tests/mutants.txt")
        if share < LEAST:
            print(f"mutate: {share:.1f} % killed, at least {LEAST:g} % are asked for")
        return not survivors and share >= LEAST


def main():
    parser = argparse.ArgumentParser(prog="./dev mutate", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("count", nargs="?", type=int, default=300, help="how many (default 300; 0: all there are)")
    parser.add_argument("--seed", type=int, default=1, help="of the sample (default 1)")
    parser.add_argument("--only", action="append", metavar="PATH", help="files or folders of src/ (also src/framework)")
    parser.add_argument("--match", metavar="PATTERN", help="only where \"LINE'S TEXT | CHANGE\" matches")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1, help="copies at once (default: processors)")
    parser.add_argument("--log-lines", action="store_true", help="the texts of log lines too")
    parser.add_argument("--list", action="store_true", help="print the sample's candidates in their order, try none")
    arguments = parser.parse_args()

    wanted = [os.path.relpath(os.path.abspath(path), ROOT) for path in arguments.only or FOLDERS]
    sources, candidates = {}, {}
    for folder, _, names in sorted(os.walk(os.path.join(ROOT, "src"))):
        for name in sorted(names):
            path = os.path.relpath(os.path.join(folder, name), ROOT)
            if not name.endswith(".cpp") or path.count("/") < 2:
                continue
            if not any(path == prefix or path.startswith(prefix + "/") for prefix in wanted):
                continue
            with open(os.path.join(ROOT, path), encoding="utf-8") as file:
                sources[path] = file.read()
            mutants = Source(path, sources[path], arguments.log_lines).mutants()
            if arguments.match:
                mutants = [m for m in mutants if re.search(arguments.match, f"{m.source} | {m.change}")]
            candidates[path] = list(in_order(mutants, random.Random(f"{arguments.seed} {path}")))
    if not any(candidates.values()):
        sys.exit("mutate: nothing to change there")
    total = sum(map(len, candidates.values()))
    share = shares({path: len({mutant.line for mutant in mutants}) for path, mutants in candidates.items()},
                   min(arguments.count or total, total), random.Random(arguments.seed))
    if not arguments.count:
        share = {path: len(mutants) for path, mutants in candidates.items() if mutants}
    if arguments.list:
        for path in sorted(share):
            print(f"{path}: {share[path]} of {len(candidates[path])}")
            for mutant in candidates[path]:
                print(f"  {mutant.line}: {mutant.change}")
        return 0

    known = read_explanations(EXPLANATIONS)
    there = {mutant[:1] + mutant[2:4] for path in candidates for mutant in Source(path, sources[path], True).mutants()}
    for key in known:
        if key[0] in candidates and key not in there:
            print(f"mutate: an explanation names what is no longer there: {' | '.join(key)}")

    os.makedirs(WORK, exist_ok=True)
    alone = open(os.path.join(WORK, "lock"), "w")
    try:
        fcntl.flock(alone, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit("mutate: another run is at work in this tree")
    os.nice(10)
    jobs = max(1, min(arguments.jobs, len(share)))
    results = Results(known)
    files = queue.SimpleQueue()
    for path in sorted(share, key=lambda path: -share[path]):
        files.put(path)
    failures = []

    def work(number):
        tree = Tree(number, max(1, (os.cpu_count() or 1) // jobs))
        failure = tree.prepare({path.split("/")[1] for path in share})
        if failure:
            failures.append(failure)
            return
        while not failures:
            try:
                path = files.get_nowait()
            except queue.Empty:
                return
            left = share[path]
            for mutant in candidates[path]:
                if left == 0 or failures:
                    break
                started = time.monotonic()
                verdict, by = tree.attempt(mutant, sources[path])
                results.add(mutant, verdict, by, time.monotonic() - started)
                left -= verdict != "uncompiled"
            tree.write(os.path.join(tree.root, path), sources[path].encode())

    threads = [threading.Thread(target=work, args=(number,)) for number in range(jobs)]
    try:
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    except KeyboardInterrupt:
        failures.append("interrupted")
        raise
    if failures:
        sys.exit(f"mutate: {failures[0]}")
    return 0 if results.report() else 1


if __name__ == "__main__":
    sys.exit(main())
