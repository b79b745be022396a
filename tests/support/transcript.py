"""Plays transcripts: texts that show commands and what they print.

    transcript.py [--accept] BINARY=DIRECTORY [NAME=VALUE...] FILE

    == what holds               begins a case, in an empty directory of its own
    --- name                    a file of that directory; its lines follow
    $ command                   is run by the shell; what it prints on both streams follows, and [N] when it ends with N

What stands before the first case is for the reader, and its files are in every directory. NAME=VALUE is put into the
environment of the commands and shown by name where they print its value; the programs of BINARY/bin are found first.
Prints how a transcript differs from what its commands print now, and ends with 1 then. With --accept the file is
written anew, for whoever changed something to look at what that changes.
"""

import difflib
import os
import pathlib
import shlex
import subprocess
import sys
import tempfile

given = {}  # the environment from the command line


def printed(command, directory):
    done = subprocess.run(["sh", "-c", command], cwd=directory, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)
    text = done.stdout.decode(errors="backslashreplace")
    for name, value in sorted(given.items() | {("PWD", str(directory))}, key=lambda each: -len(each[1])):
        text = text.replace(value, "$" + name)
    return text.splitlines() + ([f"[{done.returncode}]"] if done.returncode else [])


def played_case(lines, directory):
    """The lines of a case as they are when its commands are run now."""
    now, file = [], None
    for line in lines:
        if line.startswith(("$ ", "--- ")):
            file = None
        if line.startswith("--- "):
            file = directory / line[4:]
            file.touch()
        elif line.startswith("$ "):
            now += [line, *printed(line[2:], directory)]
        elif file:
            with file.open("a") as end:
                end.write(line + "\n")
        if file:
            now.append(line)
    return now


def played(path):
    lines = path.read_text().splitlines()
    begins = [i for i, line in enumerate(lines) if line.startswith("== ")] + [len(lines)]
    now = lines[: begins[0]]
    for begin, end in zip(begins, begins[1:]):
        with tempfile.TemporaryDirectory() as directory:
            played_case(lines[: begins[0]], pathlib.Path(directory))
            now += [lines[begin], *played_case(lines[begin + 1 : end], pathlib.Path(directory)), ""]
    return lines, now[:-1]


def main():
    words = [word for word in sys.argv[1:] if word != "--accept"]
    given.update(word.split("=", 1) for word in words[:-1])
    os.environ.update(given, LC_ALL="C", PATH=given["BINARY"] + "/bin:" + os.environ["PATH"])
    path = pathlib.Path(words[-1])
    before, now = played(path)
    if "--accept" in sys.argv:
        path.write_text("\n".join(now) + "\n")
    elif before != now:
        print("\n".join(difflib.unified_diff(before, now, str(path), "now", lineterm="", n=8)))
        print("to accept this:", shlex.join([sys.executable, sys.argv[0], "--accept", *words]))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
