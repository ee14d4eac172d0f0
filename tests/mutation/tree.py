"""A copy of the tree that is broken: made, kept up to date, built, and rid of what does not compile."""

import hashlib
import json
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from dataclasses import asdict
from pathlib import Path

import places

HERE = Path(__file__).resolve().parent
FLAGS = "-O1 -DNDEBUG -w -Wno-narrowing -fno-finite-loops"
ERROR = re.compile(r"^(?P<file>[^:\s]+):(?P<line>\d+):(?P<column>\d+): (?:fatal )?error: ", re.M)
# Where an error in a template, or in a constant expression, comes from.
NOTE = re.compile(r"^(?P<file>[^:\s]+):(?P<line>\d+):(?P<column>\d+):", re.M)


def write_if_new(path, content):
    if path.exists() and path.read_bytes() == content:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content)


class BrokenTree:
    def __init__(self, tree, rooms, programs, scratch, jobs, sanitizers):
        self.tree, self.rooms, self.programs = Path(tree).resolve(), rooms, programs
        self.copy, self.build = Path(scratch).resolve() / "tree", Path(scratch).resolve() / "build"
        self.jobs, self.sanitizers = jobs, sanitizers
        self.places, self.spans = [], {}

    def say(self, text):
        print(text, file=sys.stderr, flush=True)

    # The copy

    def tracked(self):
        found = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", "."],
                               cwd=self.tree, check=True, capture_output=True).stdout
        return [name for name in found.decode().split("\0") if name and (self.tree / name).is_file()]

    def update(self):
        """Everything but what is to be broken, as it is in the tree."""
        names = self.tracked()
        for name in names:
            if Path(name).parts[0] not in self.rooms or not (self.copy / name).exists():
                write_if_new(self.copy / name, (self.tree / name).read_bytes())
        for path in list(self.copy.rglob("*")):
            if path.is_file() and str(path.relative_to(self.copy)) not in set(names):
                path.unlink()
        write_if_new(self.copy.parent / "Mutation.h", (HERE / "Mutation.h").read_bytes())

    def configure(self):
        include = shlex.quote(str(self.copy.parent / "Mutation.h"))
        command = ["cmake", "-G", "Ninja", "-S", str(self.copy), "-B", str(self.build),
                   "-DCMAKE_BUILD_TYPE=None", f"-DCMAKE_CXX_FLAGS={FLAGS} -include {include}",
                   f"-DTREL_SANITIZE={self.sanitizers}", "-DTREL_BENCHMARKS=OFF",
                   "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"]
        done = subprocess.run(command, capture_output=True, text=True)
        if done.returncode:
            sys.exit(f"run: cmake failed:\n{done.stdout}{done.stderr}")

    def commands(self):
        """The compile commands of the rooms' sources: (name in the tree, arguments)."""
        for entry in json.loads((self.build / "compile_commands.json").read_text()):
            path = Path(entry["file"])
            if path.is_relative_to(self.copy) and path.relative_to(self.copy).parts[0] in self.rooms:
                yield str(path.relative_to(self.copy)), shlex.split(entry["command"])

    def parsed(self, arguments):
        """What libclang needs of a compile command, for the tree itself."""
        kept, take = ["-x", "c++", "-w"], False
        for argument in arguments:
            if take or re.match(r"-(I|D|U|std=)", argument) or argument == "-isystem":
                kept.append(argument.replace(str(self.copy), str(self.tree)))
            take = argument == "-isystem"
        resources = sorted(Path("/usr/lib/llvm-14/lib/clang").glob("*"))
        return kept + (["-resource-dir", str(resources[-1])] if resources else [])

    # The breaks

    def find(self):
        commands = [(str(self.tree / name), self.parsed(arguments)) for name, arguments in self.commands()]
        self.places = places.find(self.tree, self.rooms, commands)

    def prepare(self):
        """Has every break that compiles in the copy, and builds the programs."""
        self.update()
        self.configure()
        known, sources = self.copy.parent / "places.json", self.digest()
        before = json.loads(known.read_text()) if known.exists() else {}
        if before.get("sources") == sources:
            self.places = [places.Place(**p) for p in before["places"]]
        else:
            self.say("Looking for places")
            self.find()
            self.say(f"{len(self.places)} breaks; compiling them")
            self.check()
        self.say(f"Building with {len(self.places)} breaks")
        self.write()
        self.make()
        known.write_text(json.dumps({"sources": sources, "places": [asdict(p) for p in self.places]}))

    def digest(self):
        """Of what the breaks depend on."""
        files = {n: self.tree / n for n in self.tracked() if Path(n).parts[0] in self.rooms}
        files["places.py"] = HERE / "places.py"
        digest = hashlib.sha256()
        for name, path in sorted(files.items()):
            digest.update(name.encode() + b"\0" + path.read_bytes() + b"\0")
        return digest.hexdigest()

    def write(self):
        by_file = {}
        for place in self.places:
            by_file.setdefault(place.file, []).append(place)
        for name in self.tracked():
            if Path(name).parts[0] not in self.rooms:
                continue
            text = (self.tree / name).read_bytes()
            spans = []
            if name in by_file:
                text, spans = places.broken(text, by_file[name])
            write_if_new(self.copy / name, text)
            self.spans[name] = (text, spans)

    def drop(self, output):
        """Leaves out the breaks that the compiler's errors are about; how many these are."""
        named = set()
        for error in re.split(r"(?m)^(?=\S+: (?:In |At |error)|\S+:\d+:\d+: (?:fatal )?error: )", output):
            if not ERROR.search(error):
                continue
            found = set()
            for match in list(ERROR.finditer(error)) + list(NOTE.finditer(error)):
                found = self.around(match["file"], int(match["line"]), int(match["column"]))
                if found:
                    break
            named |= found or self.initial_values(error)
        self.places = [p for p in self.places if p.number not in named]
        return len(named)

    def around(self, name, line, column):
        path = Path(name)
        path = path if path.is_absolute() else self.build / path
        path = path.resolve()
        if not path.is_relative_to(self.copy) or str(path.relative_to(self.copy)) not in self.spans:
            return set()
        text, spans = self.spans[str(path.relative_to(self.copy))]
        start = 0
        for _ in range(line - 1):
            start = text.index(b"\n", start) + 1
        end = text.find(b"\n", start)
        at = start + column - 1
        exact = [(e - s, p.number) for s, e, p in spans if s <= at <= e]
        if exact:
            smallest = min(exact)[0]
            return {number for size, number in exact if size == smallest}
        return {p.number for s, e, p in spans if s <= end and start <= e}

    def initial_values(self, error):
        """Breaks of members' initial values in the files that the error names: its place is not theirs."""
        return {p.number for p in self.places if not p.in_function and f"/{p.file}:" in error}

    def check(self):
        """Compiles the rooms until every break that is left compiles."""
        def compiled(command):
            output = command.index("-o")
            done = subprocess.run(["nice", *command[:output], *command[output + 2:], "-fsyntax-only",
                                   "-fmax-errors=0"], capture_output=True, text=True, cwd=self.build)
            return done.stderr if done.returncode else ""

        self.write()
        commands = [command for _, command in self.commands()]
        while commands:
            with ThreadPoolExecutor(self.jobs) as pool:
                errors = list(pool.map(compiled, commands))
            commands = [c for c, e in zip(commands, errors) if e]
            if commands:
                self.left_out("\n".join(errors))

    def make(self):
        """Builds the programs; what only they compile may still leave breaks out."""
        while True:
            done = subprocess.run(["nice", "-n", "3", "ninja", "-C", str(self.build), "-k", "0", "-j", str(self.jobs),
                                   *self.programs], capture_output=True, text=True)
            if not done.returncode:
                return
            self.left_out(done.stdout + done.stderr)

    def left_out(self, output):
        count = self.drop(output)
        if not count:
            (self.copy.parent / "errors").write_text(output)
            sys.exit(f"run: the copy does not compile, and no break is to blame:\n{output[-4000:]}")
        self.say(f"{count} breaks do not compile")
        self.write()

    def program(self, name):
        return self.build / "bin" / name
