"""The daemons of a soak, and what they hold."""
import contextlib
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import threading
import time

SPAN = 20.0  # for what must happen
TICKS = os.sysconf('SC_CLK_TCK')
ROADS = ('ipv4', 'ipv6', 'path', 'line console', 'spare ipv4')
SESSION = ['/bin/sh', '-c', 'stty raw -echo; echo ready; exec cat']


def wait_until(holds, limit=SPAN):
    """Asks until the answer is yes; its value, or the last one."""
    end = time.monotonic() + limit
    while True:
        answer = holds()
        if answer or time.monotonic() > end:
            return answer
        time.sleep(0.05)


class Daemon:
    """A program of the device that is started, looked at, and killed."""

    def __init__(self, world, name, command, descriptors=None):
        self.world = world
        self.name = name
        self.command = command
        self.descriptors = descriptors  # its limit, None: the usual one
        self.process = None
        self.starts = 0
        self.held = None  # soon after its start

    def start(self):
        command = list(map(str, self.command))
        if self.descriptors:
            command = ['prlimit', f'--nofile={self.descriptors}'] + command
        self.process = subprocess.Popen(
            command, env=self.world.environment, stdin=subprocess.DEVNULL,
            stdout=self.world.output, stderr=self.world.output, cwd='/')
        self.starts += 1

    def end(self, number):
        """Its exit status, as Popen gives it."""
        self.process.send_signal(number)
        return self.process.wait(SPAN)

    def proc(self, name):
        return pathlib.Path(f'/proc/{self.process.pid}/{name}')

    def holds(self):
        """What must not grow."""
        status = self.proc('status').read_text(encoding='utf-8')
        memory = next(line for line in status.splitlines()
                      if line.startswith('VmRSS'))
        return {'descriptors': len(os.listdir(self.proc('fd'))),
                'memory': int(memory.split()[1]),
                'threads': len(os.listdir(self.proc('task')))}

    def busy(self):
        """Seconds of processor that it has used."""
        fields = self.proc('stat').read_text(encoding='utf-8')
        words = fields.rpartition(')')[2].split()
        return (int(words[11]) + int(words[12])) / TICKS


class World:
    """One machine: a runtime directory on a small disk of its own, and three
    daemons in it. Consoled "spare" has few descriptors and is killed; "main"
    goes on from the beginning to the end."""

    MAIN, SPARE = 2301, 2302
    SPARE_DESCRIPTORS = 120

    def __init__(self, build, directory):
        self.root = pathlib.Path(directory)
        self.output = open(self.root.with_suffix('.out'), 'w',
                           encoding='utf-8')
        self.clock = self.root.with_suffix('.clock')
        self.set_clock(0)
        programs = build / 'programs'
        self.ttyctl = programs / 'ttyctl/ttyctl'
        self.environment = {
            'TMPDIR': str(self.root), 'LANG': 'C.UTF-8',
            'PATH': f'{programs}/rl-con:/usr/local/bin:/usr/bin:/bin',
            'SHELL': '/bin/sh', 'SOAK_CLOCK': str(self.clock),
            'LD_PRELOAD': str(build / 'tests/soak/libsoak_clock.so')}
        self.ttylined = Daemon(self, 'ttylined', [
            programs / 'ttylined/ttylined', '--control', self.root / 'lines'])
        common = ['--allow', 'any', '--no-authentication',
                  '--sessions-per-peer', 500]
        consoled = programs / 'consoled/consoled'
        self.main = Daemon(self, 'consoled, main', [
            consoled, '--port', self.MAIN, '--path', self.root / 'console',
            '--inpath', self.root / 'inpath', '--control',
            self.root / 'control', *common, *SESSION])
        self.spare = Daemon(self, 'consoled, spare', [
            consoled, '--port', self.SPARE, '--control', self.root / 'spare',
            *common, *SESSION], self.SPARE_DESCRIPTORS)
        self.daemons = [self.ttylined, self.main, self.spare]
        self.began = time.monotonic()
        self.disturbances = []
        self.lock = threading.Lock()

    # ---- Daemons. ----

    def begin(self):
        for daemon in self.daemons:
            daemon.start()
        return wait_until(lambda: self.serves(*ROADS))

    def road(self, name):
        """Family and address of one of the ways in."""
        return {'ipv4': (socket.AF_INET, ('127.0.0.1', self.MAIN)),
                'ipv6': (socket.AF_INET6, ('::1', self.MAIN)),
                'path': (socket.AF_UNIX, str(self.root / 'console')),
                'line console': (socket.AF_UNIX, str(self.root / 'inpath')),
                'spare ipv4': (socket.AF_INET, ('127.0.0.1', self.SPARE)),
                }[name]

    def serves(self, *roads):
        """Whether a session begins on each of these, by its first words."""
        try:
            for road in roads:
                family, address = self.road(road)
                with socket.socket(family) as probe:
                    probe.settimeout(5)
                    probe.connect(address)
                    if not probe.recv(16):
                        return False
        except OSError:
            return False
        return True

    def ask(self, path, line):
        """The answer of a control socket, None when nobody answers."""
        try:
            with socket.socket(socket.AF_UNIX) as client:
                client.settimeout(5)
                client.connect(str(self.root / path))
                client.sendall(line.encode() + b'\n')
                client.shutdown(socket.SHUT_WR)
                answer = b''
                while piece := client.recv(65536):
                    answer += piece
                return answer.decode()
        except OSError:
            return None

    def sessions(self, path='control'):
        """Rows of a daemon's sessions, None when it does not answer."""
        answer = self.ask(path, 'sessions --json')
        return json.loads(answer)['sessions'] if answer else None

    def lines(self):
        """How many lines ttylined has given away; None: it is away."""
        answer = self.ask('lines', 'list')
        if answer is None:
            return None
        return sum(1 for line in answer.splitlines()
                   if line[:1].isdigit())

    def set_clock(self, seconds):
        # Daemons that run have this page before their eyes.
        with open(self.clock, 'r+b' if self.clock.exists() else 'wb') as file:
            file.write(struct.pack('=q', seconds))

    # ---- Who may be disturbed, and when. ----

    @contextlib.contextmanager
    def disturbing(self, *daemons, logins_only=False):
        """Clients of these may lose their sessions meanwhile, or only wait for
        new ones."""
        window = [daemons, logins_only, time.monotonic(), None]
        with self.lock:
            self.disturbances.append(window)
        try:
            yield
        finally:
            # Until a client has noticed.
            window[3] = time.monotonic() + 1

    def disturbed(self, daemon, since, logging_in=False):
        with self.lock:
            return any(daemon in daemons and (end is None or end >= since)
                       and (logging_in or not logins_only)
                       for daemons, logins_only, _, end in self.disturbances)

    # ---- What is held. ----

    @staticmethod
    def terminals():
        return sum(1 for name in os.listdir('/dev/pts') if name.isdigit())

    def others(self):
        """Processes besides the daemons and this one: names."""
        own = {daemon.process.pid for daemon in self.daemons}
        own |= {1, os.getpid(), os.getppid()}
        names = []
        for name in filter(str.isdigit, os.listdir('/proc')):
            try:
                path = pathlib.Path('/proc', name)
                stat = (path / 'stat').read_text(encoding='utf-8')
                parent = int(stat.rpartition(')')[2].split()[1])
                if int(name) not in own and parent != os.getpid():
                    names.append((path / 'comm').read_text(
                        encoding='utf-8').strip())
            except OSError:
                pass
        return names

    def at_rest(self):
        """No session, no line, no terminal, no process of any."""
        sessions = [self.sessions(), self.sessions('spare')]
        return (self.lines() == 0 and sessions == [[], []]
                and self.terminals() == 0 and not self.others())

    def note(self, daemon):
        """What a daemon that has just started, and rests, holds."""
        daemon.held = daemon.holds()

    def finish(self):
        for daemon in reversed(self.daemons):
            if daemon.process and daemon.process.poll() is None:
                daemon.end(signal.SIGTERM)
        self.output.close()
