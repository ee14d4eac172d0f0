"""A machine for what documents say: a network, /etc, /var and /run of its own, in namespaces; and the programs in it."""
import os
import pathlib
import shutil
import signal
import subprocess
import time

# Where the documents have the servers of a store, and this machine as a switch.
SERVERS = {"a": "10.0.0.1", "b": "10.0.0.2", "c": "10.0.0.3"}
HERE = ("10.0.0.9", "10.0.0.17")
# What Debian's snmpd.conf sets, which only root may read.
DEBIANS_SNMPD = """sysLocation Sitting on the Dock of the Bay
sysContact Me <me@example.org>
sysServices 72
master agentx
agentaddress 127.0.0.1,[::1]
view systemonly included .1.3.6.1.2.1.1
view systemonly included .1.3.6.1.2.1.25.1
rocommunity public default -V systemonly
rocommunity6 public default -V systemonly
rouser authPrivUser authpriv -V systemonly
includeDir /etc/snmp/snmpd.conf.d
"""


class World:
    # `scratch` is an empty directory. Whoever made it deletes it, outside of the namespaces: here, files of the machine
    # are mounted in it.
    def __init__(self, root, build, scratch):
        self.root, self.build, self.scratch = root, build, scratch
        self.home = self.scratch / "home"
        self.environment = {"PATH": f"{self.scratch}/bin:{build}/bin:{os.environ['PATH']}:/usr/sbin:/sbin",
                            "HOME": str(self.home), "LC_ALL": "C.UTF-8", "SNMP_PERSISTENT_DIR": str(self.scratch / "snmp"),
                            "SNMPCONFPATH": f"/etc/snmp:{self.scratch}", "STATE_DIRECTORY": str(self.scratch / "state")}
        self.running = {}

    def make(self):
        self._files()
        self._network()
        self._checkout()

    def _files(self):
        etc, dpkg = self.scratch / "etc", self.scratch / "dpkg"
        dpkg.mkdir()
        # Some files there are readable for root only.
        subprocess.run(["cp", "-a", "/etc", etc], stderr=subprocess.DEVNULL)
        shutil.rmtree(etc / "trel", ignore_errors=True)
        for one in ("trel", "etcd", "snmp/snmpd.conf.d"):
            (etc / one).mkdir(parents=True, exist_ok=True)
        for file, line in (("passwd", "trel:x:0:0::/:/bin/false\n"), ("group", "trel:x:0:\n")):
            (etc / file).write_text((etc / file).read_text() + line)
        (etc / "hosts").write_text("127.0.0.1 localhost\n")
        shutil.copy(self.root / "examples/three-switches.json", etc / "cluster.json")
        (etc / "trelsnmpd.conf").write_text("rocommunity public\n")
        (etc / "snmp/snmpd.conf").unlink(missing_ok=True)
        (etc / "snmp/snmpd.conf").write_text(DEBIANS_SNMPD)
        self._mount("--rbind", "/var/lib/dpkg", dpkg)
        self._mount("--bind", etc, "/etc")
        self._mount("-t", "tmpfs", "none", "/run")
        self._mount("-t", "tmpfs", "none", "/var")
        for one in ("/var/lib/dpkg", "/var/lib/etcd", "/var/lib/snmp", "/var/agentx", "/var/tmp", "/run/netns"):
            pathlib.Path(one).mkdir(parents=True)
        self._mount("--bind", dpkg, "/var/lib/dpkg")
        # Of a system that keeps who is logged in.
        pathlib.Path("/run/utmp").touch()

    def _mount(self, *arguments):
        subprocess.run(["mount", *map(str, arguments)], check=True)

    def _network(self):
        steps = ["link set lo up", "link add name lan type bridge", "link set lan up"]
        steps += [f"addr add {address}/24 dev lan" for address in HERE]
        for server, address in SERVERS.items():
            steps += [f"netns add {server}", f"link add v{server} type veth peer name eth0 netns {server}",
                      f"link set v{server} master lan up", f"-n {server} link set lo up",
                      f"-n {server} addr add {address}/24 dev eth0", f"-n {server} link set eth0 up"]
        # The cables of the member that is set up, whose other ends answer nothing.
        for device, address in (("bp6", "10.67.0.7"), ("bp8", "10.78.0.7")):
            steps += [f"link add name {device} type veth peer name {device}-end", f"addr add {address}/24 dev {device}",
                      f"link set {device} up", f"link set {device}-end up"]
        for step in steps:
            subprocess.run(["ip", *step.split()], check=True)

    # The project as its users have it, with this build as its release.
    def _checkout(self):
        (self.home / "build").mkdir(parents=True)
        (self.home / "build/release").symlink_to(self.build)
        for one in self.root.iterdir():
            if one.name not in ("build", ".git"):
                (self.home / one.name).symlink_to(one)
        for one in ("bin", "snmp", "state"):
            (self.scratch / one).mkdir()
        # What is built already is what is tested: nothing is configured, built or installed anew.
        for name, text in (("cmake", f'[ "$1" != --help ] || exec {shutil.which("cmake")} "$@"'), ("sudo", 'exec "$@"')):
            (self.scratch / "bin" / name).write_text(f"#!/bin/sh\n{text}\n")
            (self.scratch / "bin" / name).chmod(0o755)

    # -- Programs

    def shell(self, command, statuses=(0,), directory=None, timeout=30):
        """What it printed. Raises an AssertionError with that when it ends with another status."""
        done = subprocess.run(["bash", "-c", command], cwd=directory or self.home, env=self.environment, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, timeout=timeout)
        assert done.returncode in statuses, f"{command} ended with {done.returncode}:\n{done.stdout}"
        return done.stdout

    def start(self, name, command, directory=None, namespace=None):
        """In the background, in place of what had the name before; its output is in a file of that name."""
        self.end(name)
        inside = ["ip", "netns", "exec", namespace] if namespace else []
        with open(self.scratch / f"{name}.log", "w") as log:
            self.running[name] = subprocess.Popen([*inside, "bash", "-c", f"exec {command}"], cwd=directory or self.home,
                                                  env=self.environment, stdout=log, stderr=log, stdin=subprocess.DEVNULL,
                                                  start_new_session=True)

    def said(self, name):
        return (self.scratch / f"{name}.log").read_text()

    def end(self, name, signal_number=signal.SIGTERM):
        process = self.running.pop(name, None)
        if process:
            process.send_signal(signal_number)
            try:
                process.wait(10)
            except subprocess.TimeoutExpired:
                process.kill()
                raise AssertionError(f"{name} does not end:\n{self.said(name)}") from None

    def until(self, what, condition, seconds=20):
        """The first true result of the condition."""
        end = time.monotonic() + seconds
        while True:
            found = condition()
            if found:
                return found
            for name, process in self.running.items():
                assert process.poll() is None, f"{name} ended with {process.returncode}:\n{self.said(name)}"
            assert time.monotonic() < end, f"not in {seconds} s: {what}"
            time.sleep(0.05)

