"""What can be said of a command without running it: that its program, its subcommand and its options exist."""
import functools
import json
import os
import re
import subprocess

import pages


class Checks:
    def __init__(self, root, build, environment, scratch):
        self.root, self.build, self.environment = root, build, environment
        # ctest writes where it is called, and the build directory may be that of a run which goes on.
        self.tests = scratch / "tests"
        self.tests.mkdir()
        (self.tests / "CTestTestfile.cmake").write_text(f'subdirs("{build}")\n')
        self.wrong = []
        presets = json.loads((root / "CMakePresets.json").read_text())
        self.presets = {one["name"] for one in presets["configurePresets"] if not one.get("hidden")}

    def fault(self, where, found):
        self.wrong.append(f"{where}: {found}")

    @functools.lru_cache(maxsize=None)
    def help(self, *command):
        done = subprocess.run([*command, "--help"], capture_output=True, text=True, timeout=20, stdin=subprocess.DEVNULL,
                              env=self.environment, cwd=self.root)
        return done.stdout + done.stderr

    @functools.lru_cache(maxsize=None)
    def subcommands(self, *command):
        said = self.help(*command)
        return re.findall(r"^  ([a-z]+) ", said.partition("\nSubcommands:\n")[2], re.M) if "\nSubcommands:\n" in said else []

    def named(self, help_text):
        return set(re.findall(r"(?<![\w-])--[a-z][\w-]*", help_text))

    # -- Commands of each kind

    def command(self, command, words):
        program = os.path.basename(words[0])
        if program == "ip" and words[1:3] == ["netns", "exec"]:
            self.command(command, words[4:])
        elif program in pages.OWN:
            self.own(command, [program, *words[1:]])
        elif program in ("cmake", "ctest"):
            self.cmake(command, words)
        elif any(one.startswith("--gtest_filter") for one in words):
            self.gtest(command, words)
        elif "/" in words[0]:
            self.script(command, words)
        elif program == "etcdctl":
            known = self.named(self.help("etcdctl", *[one for one in words[1:3] if not one.startswith("-")]))
            self.compare(command, words[1:], known)
            self.etcdctl(command, [one for one in words[1:] if not one.startswith("-")])
        elif any(one.startswith("--") for one in words):
            self.compare(command, words[1:], self.named(self.help(program)))

    def compare(self, command, words, known):
        for word in words:
            option = re.match(r"--[a-z][\w-]*", word)
            if option and option[0] not in known | {"--help", "--version"}:
                near = [one for one in sorted(known) if one[:5] == option[0][:5]]
                self.fault(command, f"found {option[0]}, expected {' or '.join(near) or 'an option of that program'}")

    def own(self, command, words):
        path, rest = [words[0]], []
        for word in words[1:]:
            below = self.subcommands(*path)
            # A shortened usage names what may stand there, in capitals or brackets.
            if word in below:
                path.append(word)
            elif below and re.fullmatch(r"[a-z]+", word) and not (rest and rest[-1].startswith("--")):
                self.fault(command, f"found {word}, expected one of: {' '.join(below)}")
            else:
                rest.append(word)
        known = set()
        for depth in range(len(path)):
            known |= self.named(self.help(*path[:depth + 1]))
        self.compare(command, [one.strip("[]") for one in rest], known)

    def etcdctl(self, command, words):
        path = ["etcdctl"]
        for word in words:
            listed = self.help(*path).partition("\nCOMMANDS:\n")[2].partition("\nOPTIONS:")[0]
            below = {one for names in re.findall(r"^\t([a-z -]+)\t", listed, re.M) for one in names.split()}
            if not below:
                return
            if word not in below:
                return self.fault(command, f"found {word}, expected one of: {' '.join(sorted(below))}")
            path.append(word)

    def cmake(self, command, words):
        for at, word in enumerate(words[:-1]):
            if word == "--preset" and words[at + 1] not in self.presets:
                self.fault(command, f"found the preset {words[at + 1]}, expected one of CMakePresets.json")
        for option in re.findall(r"-D(TREL_\w+)=", " ".join(words)):
            if f"\n{option}:" not in (self.build / "CMakeCache.txt").read_text():
                self.fault(command, f"found {option}, expected a variable of the build")
        if "--target" in words:
            built = (self.build / "build.ninja").read_text() + "\n".join(
                one.read_text() for one in self.root.glob("*/CMakeLists.txt"))
            for target in words[words.index("--target") + 1:]:
                if not re.search(rf"\b{re.escape(target)}\b", built):
                    self.fault(command, f"found the target {target}, expected one of the build")
        if words[0] == "ctest":
            which = [one for one in words[1:] if one != "--preset"]
            listed = subprocess.run(["ctest", "-N", *which[1:]], capture_output=True, text=True, timeout=20,
                                    cwd=self.tests, env=self.environment)
            if not re.search(r"Total Tests: [1-9]", listed.stdout):
                self.fault(command, "found no such test")
        elif not any("gtest" in one for one in words):
            self.compare(command, words[1:], self.named(self.help("cmake")) | {"--preset", "--target"})

    def gtest(self, command, words):
        program = self.build / "bin" / os.path.basename(words[0])
        if not program.exists():
            return self.fault(command, f"found no {program}")
        listed = subprocess.run([program, "--gtest_list_tests", *words[1:]], capture_output=True, text=True, timeout=20,
                                env=self.environment)
        if "\n  " not in listed.stdout:
            self.fault(command, "found no such test in that program")

    def script(self, command, words):
        name = words[0]
        if name.startswith("build/"):
            built = "\n".join(one.read_text() for one in self.root.glob("*/CMakeLists.txt")) + "\n".join(
                one.read_text() for one in self.root.glob("*/*/CMakeLists.txt"))
            if os.path.basename(name) not in built:
                self.fault(command, f"found no target {os.path.basename(name)}")
            return
        file = self.root / name
        if not (file.is_file() and os.access(file, os.X_OK)):
            return self.fault(command, f"found no program {name}")
        text = file.read_text() + "".join(one.read_text() for one in self.root.glob("tests/*simulation/main.cpp"))
        for option in re.findall(r"(?<= )--[a-z][\w-]*(?= |=|$)", " ".join(words[1:])):
            if option not in text and not option.startswith("--benchmark_"):
                self.fault(command, f"found {option}, which is no option of {name}")

    # -- Options in sentences

    def table_of_options(self, page, program):
        """Whose table has a row for each option."""
        rows = [one for one in (self.root / page).read_text().split("\n") if one.startswith("| `--")]
        there = self.named("\n".join(rows))
        said = self.named("\n".join(re.findall(r"^ +(?:-h,)?--.*", self.help(program), re.M)))
        for option in sorted(said - there):
            self.fault(page, f"found no {option} in the table of {program}'s options")

    def options(self, page_names):
        known = set()
        for program in pages.OWN:
            known |= self.named(self.help(program))
            for one in self.subcommands(program):
                known |= self.named(self.help(program, one))
                for below in self.subcommands(program, one):
                    known |= self.named(self.help(program, one, below))
        for script in ("run", "test", "package", "simulate", "examples/cluster/cluster", "bench/peers", "tests/mutation/run",
                       "tests/wire/main.cpp", "tests/simulation/main.cpp", "tests/cluster-simulation/main.cpp"):
            known |= self.named((self.root / script).read_text())
        for other in (("etcd",), ("cmake",), ("ctest",), ("systemctl",), ("etcdctl", "role", "grant-permission"),
                      ("etcdctl", "user", "add"), ("etcdctl", "snapshot", "restore"), ("etcdctl", "endpoint", "status")):
            known |= self.named(self.help(*other))
        # Of programs whose help does not name them, or that may be missing here.
        known |= set("--preset --target --install --parallel --component --allow-downgrades --offline --bcrypt-cost "
                     "--gtest_filter --gtest_list_tests --cflags --libs --system".split())
        for page in page_names:
            for line, option in pages.options(self.root, page):
                if option not in known and not option.startswith(("--benchmark_", "--gtest_")):
                    self.fault(f"{page}:{line}", f"found {option}, which no program has")
