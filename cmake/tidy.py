#!/usr/bin/env python3
"""clang-tidy over sources, two at a time or as many as there are processors: tidy.py BUILD FILE...

A source that was found clean is not looked at again until what it is made of changes: its text and that of all that it
includes, with comments, since those silence the linter; the linter's version; and its configuration. What was clean is
kept in ~/.cache, or in XDG_CACHE_HOME."""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys

TIDY = "clang-tidy-14"
PREPROCESSOR = "clang++-14"
KNOWN = pathlib.Path(os.environ.get("XDG_CACHE_HOME", pathlib.Path.home() / ".cache")) / "libveliaxdr-tidy"
NOISE = re.compile(r"^(\d+ warnings? generated|Suppressed|Use -header-filter|$)")


def preprocess(command):
    """What the compiler reads; None where it cannot be told."""
    words = shlex.split(command["command"])
    words = words[words.index(next(word for word in words if re.search(r"(c\+\+|g\+\+|clang\+\+)[-\d]*$", word))) + 1:]
    for at in reversed(range(len(words))):
        if words[at] in ("-o", "-MF", "-MT"):
            del words[at:at + 2]
        elif words[at] in ("-c", "-MD"):
            del words[at]
    made = subprocess.run([PREPROCESSOR, "-w", "-E", "-C", *words], cwd=command["directory"], capture_output=True)
    return made.stdout if made.returncode == 0 else None


def key_of(command, rules):
    text = preprocess(command)
    if text is None:
        return None
    # Two checkouts are alike wherever they lie.
    return hashlib.sha256(rules + text.replace(os.getcwd().encode(), b"")).hexdigest()


def check(source, command, build, rules):
    """The findings, none for a clean source."""
    key = key_of(command, rules)
    if key is not None and (KNOWN / key).exists():
        return ""
    run = subprocess.run([TIDY, "-p", build, "--quiet", "--warnings-as-errors=*", source], capture_output=True, text=True)
    findings = "\n".join(line for line in (run.stdout + run.stderr).splitlines() if not NOISE.match(line))
    if run.returncode != 0:
        return findings or f"{source}: error: {TIDY} ended with {run.returncode}"
    if key is not None:
        (KNOWN / key).touch()
    return findings if re.search(r"(warning|error):", findings) else ""


def main():
    build, sources = sys.argv[1], sys.argv[2:]
    commands = {os.path.realpath(os.path.join(one["directory"], one["file"])): one
                for one in json.loads(pathlib.Path(build, "compile_commands.json").read_text())}
    version = subprocess.run([TIDY, "--version"], capture_output=True, check=True).stdout
    rules = version + pathlib.Path(".clang-tidy").read_bytes()
    KNOWN.mkdir(parents=True, exist_ok=True)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        work = [pool.submit(check, source, commands.get(os.path.realpath(source), {"command": "c++", "directory": "."}),
                            build, rules) for source in sources]
        findings = [text for text in (one.result() for one in work) if text]
    print("\n".join(findings), end="\n" if findings else "")
    return 1 if findings else 0


sys.exit(main())
