#!/usr/bin/env python3
"""Small changes of the library, one after the other: does a test notice?

A change is made to a copy of one source file, which alone is compiled and linked with the objects that are there. The
tests run until one fails, those that noticed earlier changes of the same file first. What no test notices is listed,
but for the changes in cmake/mutants_unobservable.txt, which says why nobody can.

usage: mutants.py BUILD_FOLDER [PATH_PREFIX] [COUNT] [SEED]
"""
import concurrent.futures
import json
import os
import random
import re
import resource
import select
import shlex
import subprocess
import sys
import tempfile
import threading

SILENT_SECONDS = 60  # in which not one more test ends: they take a second at most
CPU_SECONDS = 10  # of one test's process: a loop without an end is noticed
PROGRAMS = ["library_tests", "wire_tests"]

# What is looked at by the compiler, or states what must hold anyway.
NOT_MUTATED = re.compile(r"^\s*(#|//|static_assert|require|using |namespace |\[\[|template|extern)|VELIA_CHECK_INVARIANTS")
OPERATORS = [("==", "!="), ("!=", "=="), ("<=", "<"), (">=", ">"), (" < ", " <= "), (" > ", " >= "), ("&&", "||"),
             ("||", "&&")]
CONDITION = re.compile(r"\b(if|while) \((?!.*;)(.*)\)( \{)?$")
NUMBER = re.compile(r"(?<![\w.\"'])(\d+)(?![\w.\"'x])")
CALL = re.compile(r"^\s*(?!return|delete|new|else|case)[a-z_][\w:.>\-]*\(.*\);$")
SIMPLE = re.compile(r"^(\s*)[\w.\->\[\]*&:+]+(\(.*\)| [+\-|&]?= .*|\+\+|--);$")
TARGET = re.compile(r"\s*\*?[A-Za-z_](?:\w|\.|->)* [+\-|&]?= |\s*(?:stg_free|hash_delete_ht)\(&?[\w.\->]+\)")
NAME = re.compile(r"(?:\.|->)?[A-Za-z_]\w*")  # one of a member is told from one of a variable
# Releasing is told from TARGET. The others only compute, or give what stays the same as long as the process.
PURE = {"stg_free", "hash_delete_ht", "static_cast", "const_cast", "reinterpret_cast", "word_at", "signed_word_at", "lend",
        "ntohl", "ntohs", "htonl", "htons", "tbs_product_name", "tbs_product_version", "sysutl_myhostname",
        "process_generation"}
# The lesser or the greater of two: which of them is taken when they are equal does not matter.
CHOICE = re.compile(r"(\w+) [<>] (\w+) \? (?=(?:\1 : \2|\2 : \1)\b(?! [-+*/%&|]))")


def without_texts(line):
    """The line with its texts and comments blanked out, so that positions stay."""
    blank = lambda found: " " * len(found.group())
    return re.sub(r'"(\\.|[^"\\])*"|\'(\\.|[^\'\\])*\'|//.*$', blank, line)


def is_in_check(lines, index):
    """Whether the line is there in builds only that check what must hold anyway."""
    directives = [line for line in lines[:index] if re.match(r"#(if|el|endif)", line)]
    return bool(directives) and directives[-1].startswith("#ifdef VELIA_CHECK_INVARIANTS")


def is_choice(code, at):
    return any(found.start() <= at < found.end() for found in CHOICE.finditer(code))


def targets_of(code):
    """What is set, or released, by a statement that calls nothing and changes nothing else; empty for any other."""
    targets, at = set(), 0
    while found := TARGET.match(code, at):
        targets.add(NAME.findall(found[0])[-1].replace("->", "."))
        at = found.end()
    calls = re.findall(r"(\w+)(?:<[^()]*>)?\(", code)
    is_plain = code.endswith(";") and code[at:at + 1] != "{" and not re.search(r"\+\+|--|\[&?\]", code)
    return targets if is_plain and PURE.issuperset(calls) else set()


def are_independent(code, next_code):
    """Two assignments neither of which reads, or reaches by what it reads, what the other one sets."""
    first, second = targets_of(code), targets_of(next_code)
    names_of = lambda text: {name.replace("->", ".") for name in NAME.findall(text)}
    return bool(first and second) and not first & names_of(next_code) and not second & names_of(code)


def changes_of_line(lines, index):
    line, code = lines[index], without_texts(lines[index])
    if NOT_MUTATED.search(line) or is_in_check(lines, index):
        return
    found = CONDITION.search(code)
    if found:
        start, end = found.span(2)
        yield "condition turned", [line[:start] + "!(" + line[start:end] + ")" + line[end:]]
    for old, new in OPERATORS:
        for at in re.finditer(re.escape(old), code):
            if "template" not in code and "operator" not in code and not is_choice(code, at.start()):
                yield f"{old.strip()} for {new.strip()}", [line[:at.start()] + new + line[at.end():]]
    for number in NUMBER.finditer(code):
        yield "number moved by one", [line[:number.start()] + str(int(number[1]) + 1) + line[number.end():]]
    if CALL.match(code):
        yield "call left out", [re.match(r"\s*", line)[0] + ";"]
    if index + 1 < len(lines):
        here, after = SIMPLE.match(code), SIMPLE.match(without_texts(lines[index + 1]))
        if here and after and here[1] == after[1] and line != lines[index + 1] and \
                not are_independent(code, without_texts(lines[index + 1])):
            yield "statements exchanged", [lines[index + 1], line]


class Change:
    def __init__(self, path, index, what, new_lines):
        self.path, self.index, self.what, self.new_lines = path, index, what, new_lines

    def text(self, lines):
        changed = lines[:self.index] + self.new_lines + lines[self.index + len(self.new_lines):]
        return "\n".join(changed) + "\n"

    def told(self, lines):
        return f"{self.path}:{self.index + 1}: {self.what}: {lines[self.index].strip()}  ->  " \
               f"{' '.join(line.strip() for line in self.new_lines)}"

    def key(self, lines):
        """Without the line's number, which other changes move."""
        return f"{self.path}: {self.what}: {lines[self.index].strip()} -> {' '.join(l.strip() for l in self.new_lines)}"


class Build:
    """How the objects and programs of a build folder are made."""

    def __init__(self, folder):
        self.folder = os.path.abspath(folder)
        with open(os.path.join(folder, "compile_commands.json")) as commands:
            self.commands = {os.path.relpath(entry["file"]): entry for entry in json.load(commands)
                             if "veliaxdr_objects" in entry.get("output", entry["command"])}
        self.links = {program: self.link_command(program) for program in PROGRAMS}

    def link_command(self, program):
        said = subprocess.run(["ninja", "-C", self.folder, "-t", "commands", program], capture_output=True, text=True,
                              check=True).stdout.splitlines()[-1]
        words = shlex.split(said)
        return words[2:words.index("&&", 2)]  # ": && LINK && :"

    def object_of(self, path):
        words = shlex.split(self.commands[path]["command"])
        return os.path.relpath(os.path.join(self.commands[path]["directory"], words[words.index("-o") + 1]),
                               self.folder)

    def compile(self, path, source, output):
        words = shlex.split(self.commands[path]["command"])
        if os.path.basename(words[0]) == "ccache":
            words = words[1:]
        words = [word for word in words if word != "-Werror"]
        words[words.index("-o") + 1] = output
        words[words.index("-c") + 1] = source
        # What the file includes by a name beside it is still there.
        words[1:1] = ["-g0", "-w", "-iquote", os.path.dirname(os.path.abspath(path))]
        for flag in ("-MF", "-MT"):
            if flag in words:
                words[words.index(flag) + 1] = output + flag
        return run(words, self.commands[path]["directory"])

    def link(self, program, path, replacement, output):
        usual = self.object_of(path)
        words = [replacement if word == usual else word for word in self.links[program]]
        words[words.index("-o") + 1] = output
        words[1:1] = ["-fuse-ld=gold", "-Wl,-S"]
        return run(words, self.folder)


def run(words, folder):
    return subprocess.run(words, cwd=folder, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


def limit():
    resource.setrlimit(resource.RLIMIT_CPU, (CPU_SECONDS, CPU_SECONDS))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    os.setpgid(0, 0)


def tests_pass(program, folder, tests="*"):
    """True, or the name of the test that failed, or "no end"."""
    process = subprocess.Popen([program, "--gtest_fail_fast", "--gtest_filter=" + tests], cwd=folder,
                               preexec_fn=limit, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    said = b""
    while True:
        if not select.select([process.stdout], [], [], SILENT_SECONDS)[0]:
            os.killpg(process.pid, 9)
            break
        piece = os.read(process.stdout.fileno(), 1 << 16)
        if not piece:
            break
        said += piece
    process.stdout.close()
    said = said.decode(errors="replace")
    if process.wait() == 0:
        return True
    failed = re.findall(r"^\[  FAILED  \] ([^\s,]+\.[^\s,]+)$", said, re.M)
    return failed[-1] if failed else "no end"


class Session:
    def __init__(self, build):
        self.build = build
        self.noticed_by = {}  # by file: tests that noticed a change, the latest first
        self.lock = threading.Lock()

    def first_tests(self, path):
        with self.lock:
            return ":".join(self.noticed_by.get(path, [])[:12])

    def note(self, path, test):
        with self.lock:
            tests = self.noticed_by.setdefault(path, [])
            if test in tests:
                tests.remove(test)
            tests.insert(0, test)

    def verdict(self, change, lines):
        """ "does not build", "noticed" or "survived"."""
        with tempfile.TemporaryDirectory() as folder:
            source, made = os.path.join(folder, os.path.basename(change.path)), os.path.join(folder, "made.o")
            with open(source, "w") as out:
                out.write(change.text(lines))
            if not self.build.compile(change.path, source, made):
                return "does not build"
            for name in PROGRAMS:
                program = os.path.join(folder, name)
                if not self.build.link(name, change.path, made, program):
                    return "does not build"
                first = self.first_tests(change.path) if name == PROGRAMS[0] else ""
                # Only a test that fails decides here: whatever else goes wrong is looked at in the whole run.
                if first and tests_pass(program, self.build.folder, first) not in (True, "no end"):
                    return "noticed"
                result = tests_pass(program, self.build.folder)
                if result is not True:
                    if result != "no end" and name == PROGRAMS[0]:
                        self.note(change.path, result)
                    return "noticed"
                os.remove(program)
        return "survived"


def unobservable():
    path = os.path.join(os.path.dirname(__file__), "mutants_unobservable.txt")
    with open(path) as lines:
        return {line.rstrip("\n") for line in lines if line.strip() and not line.startswith(("#", " "))}


def main():
    build = Build(sys.argv[1])
    prefix = sys.argv[2] if len(sys.argv) > 2 else "lib/"
    count = int(sys.argv[3]) if len(sys.argv) > 3 else 500
    seed = int(sys.argv[4]) if len(sys.argv) > 4 else 1
    files = {path: open(path).read().splitlines() for path in build.commands if path.startswith(prefix)}
    changes = [Change(path, index, what, new) for path, lines in sorted(files.items()) if "/messages/" not in path
               for index in range(len(lines)) for what, new in changes_of_line(lines, index)]
    session, known = Session(build), unobservable()
    stale = known - {change.key(files[change.path]) for change in changes}
    if prefix == "lib/" and stale:
        sys.exit("There is no such change any more:\n" + "\n".join(sorted(stale)))
    random.Random(seed).shuffle(changes)
    unchanged = Change(changes[0].path, 0, "nothing", files[changes[0].path][:1])
    if session.verdict(unchanged, files[unchanged.path]) != "survived":
        sys.exit("The tests fail as it is.")
    counts, survivors = {"noticed": 0, "survived": 0, "does not build": 0, "cannot be observed": 0}, []
    wanted = iter(changes)

    def next_verdict():
        change = next(wanted, None)
        if change is None:
            return None
        lines = files[change.path]
        if change.key(lines) in known:
            return change, "cannot be observed"
        return change, session.verdict(change, lines)

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        running = {pool.submit(next_verdict) for _ in range(os.cpu_count())}
        while running:
            done, running = concurrent.futures.wait(running, return_when=concurrent.futures.FIRST_COMPLETED)
            for future in done:
                if future.result() is None:
                    continue
                change, verdict = future.result()
                counts[verdict] += 1
                if verdict == "survived":
                    survivors.append(change.key(files[change.path]))
                    print(change.told(files[change.path]), flush=True)
                judged = counts["noticed"] + counts["survived"]
                if judged and judged % 50 == 0:
                    print(f"... {judged} tried, {counts['survived']} not noticed", file=sys.stderr, flush=True)
                if judged + len(running) < count:
                    running.add(pool.submit(next_verdict))
    judged = counts["noticed"] + counts["survived"]
    print(f"\n{len(changes)} changes are possible; {judged} were tried: {counts['noticed']} noticed, "
          f"{counts['survived']} not, {100 * counts['noticed'] / max(judged, 1):.1f} percent; besides "
          f"{counts['does not build']} that do not build, {counts['cannot be observed']} that cannot be observed")
    return 0 if judged and counts["noticed"] >= 0.9 * judged else 1


if __name__ == "__main__":
    sys.exit(main())
