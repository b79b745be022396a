"""Makes pairs of schema versions, compiles both to bundles and has them exchange objects.

    run_pairs.py SETTINGS [--pairs N] [--seed S] [--keep DIRECTORY]

SETTINGS is the JSON that the build writes: where the programs are and how bundles are compiled. Each pair has a seed
of its own, which is all that it takes to see it again. Prints a line per pair and a closing line; ends with 1 when
something failed. Of a pair that failed everything stays in the directory that is named then.
"""

import argparse
import concurrent.futures
import json
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
import schema_pair  # noqa: E402  (beside this file)

NAME = "skewed"
LENDER = NAME + "_lender"
# How many changes that break peers are tried on a pair.
BREAKING = 5


class Failed(Exception):
    pass


def run(command, statuses=(0,)):
    """What a program printed; raises Failed when it ends otherwise than it should."""
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True)
    if done.returncode not in statuses:
        raise Failed(f"{' '.join(map(str, command))}: status {done.returncode}\n{done.stdout}{done.stderr}".rstrip())
    return done.stdout + done.stderr


class Pair:
    def __init__(self, settings, seed, directory):
        self.settings = settings
        self.seed = seed
        self.directory = directory
        self.author, self.old, self.new = schema_pair.pair(seed, NAME)
        for version, schema in [("old", self.old), ("new", self.new)]:
            self.path(version).mkdir(exist_ok=True)
            self.schema(version, NAME).write_text(schema.text())
            self.schema(version, LENDER).write_text(schema.lender.text())

    def path(self, name):
        return self.directory / name

    def schema(self, version, bundle):
        return self.path(version) / f"{bundle}.trellis"

    def trellisc(self, *arguments, statuses=(0,)):
        return run([self.settings["trellisc"], *arguments], statuses)

    def compare(self):
        """The newer version is taken, and what breaks peers is not."""
        for bundle in [NAME, LENDER]:
            said = self.trellisc("compare", self.schema("old", bundle), self.schema("new", bundle))
            if "breaks:" in said:
                raise Failed("compare found breaking changes and passed them:\n" + said)
        refused = 0
        while refused < BREAKING:
            changed, kind = schema_pair.Vandal(self.author.random, self.old, self.new).change()
            broken = self.path("broken.trellis")
            broken.write_text(changed.text())
            if "mistake" in self.trellisc("check", broken, statuses=(0, 1)):
                continue  # no schema at all
            said = self.trellisc("compare", self.schema("old", NAME), broken, statuses=(0, 1))
            if "breaks:" not in said:
                raise Failed(f"compare passed a change that breaks peers ({kind}):\n{said}")
            refused += 1

    def compile(self, version, bundle):
        """A bundle as the build makes them, in one unit."""
        schema, home = self.schema(version, bundle), self.path(version)
        out = home / bundle
        self.trellisc("generate", "--out", out, "--units", "1", schema)
        (home / f"{bundle}.json").write_text(self.trellisc("json", schema))
        sources = sorted(out.glob("src/*.cpp")) + sorted(out.glob("src/*.S"))
        includes = self.settings["includes"] + [out / "include", out / "src", home / LENDER / "include"]
        run([self.settings["compiler"], "-std=c++20", *self.settings["options"], *[f"-I{each}" for each in includes],
             "-fPIC", "-shared", "-o", home / f"lib{bundle}.so", *sources, *self.settings["link_options"]])

    def compile_version(self, version):
        # The importing bundle finds the other in the process that loads both.
        for bundle in [LENDER, NAME]:
            self.compile(version, bundle)

    def exchange(self):
        with concurrent.futures.ThreadPoolExecutor() as both:
            list(both.map(self.compile_version, ["old", "new"]))
        said = run([self.settings["exchange"], self.path("old"), self.path("new"), self.seed, LENDER, NAME])
        return f"{len(self.old.records)} and {len(self.new.records)} records, {said.strip()}"


def run_pair(settings, seed, directory):
    """True when all went well."""
    began = time.monotonic()
    try:
        pair = Pair(settings, seed, directory)
        pair.compare()
        said = pair.exchange()
    except Failed as failure:
        print(f"seed {seed}: failed; see {directory}\n{failure}", flush=True)
        return False
    print(f"seed {seed}: {said}, {time.monotonic() - began:.0f} s", flush=True)
    return True


def main():
    arguments = argparse.ArgumentParser(description="Exchanges objects between random versions of random schemas.")
    arguments.add_argument("settings", type=pathlib.Path)
    arguments.add_argument("--pairs", type=int, default=50)
    arguments.add_argument("--seed", type=int, help="of the first pair; the next ones count on from it")
    arguments.add_argument("--keep", type=pathlib.Path, help="where all files stay, whatever comes out")
    given = arguments.parse_args()
    settings = json.loads(given.settings.read_text())
    first = given.seed if given.seed is not None else random.randrange(1_000_000_000)

    failed = []
    for seed in range(first, first + given.pairs):
        if given.keep:
            directory = given.keep / str(seed)
            directory.mkdir(parents=True, exist_ok=True)
        else:
            directory = pathlib.Path(tempfile.mkdtemp(prefix=f"skew_{seed}_"))
        if not run_pair(settings, seed, directory):
            failed.append(seed)
        elif not given.keep:
            shutil.rmtree(directory)
    if failed:
        print(f"{len(failed)} of {given.pairs} pairs failed: seeds {' '.join(map(str, failed))}")
        return 1
    print(f"all {given.pairs} pairs hold, from seed {first}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
