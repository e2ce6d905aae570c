"""Those who do the daemons harm, and what is done to the machine."""
import errno
import os
import random
import signal
import socket
import struct
import subprocess
import threading
import time

from world import ROADS, wait_until

FLAGS = (0x1, 0x2, 0x8, 0x10, 0x20, 0x80, 0x100, 0x200, 0x400)


class Attacker(threading.Thread):
    """Does one thing over and over, and counts. A complaint is what must not
    have followed."""
    NAME = ''

    def __init__(self, world):
        super().__init__(daemon=True)
        self.world = world
        self.random = random.Random(self.NAME)
        self.stopping = threading.Event()
        self.count = 0
        self.complaints = []
        self.result = 'the good clients did not notice'

    def attack(self):
        raise NotImplementedError

    def run(self):
        while not self.stopping.is_set():
            try:
                self.attack()
                self.count += 1
            except OSError:
                pass  # the daemon is away, or does not take it
            self.stopping.wait(0.05 + self.random.random() / 10)

    def main(self):
        return socket.create_connection(('127.0.0.1', self.world.MAIN), 10)

    def row(self):
        good = self.count > 0 and not self.complaints
        verdict = self.result if good else '; '.join(
            self.complaints[:3] or ['never came to it'])
        return (self.NAME, str(self.count), good, verdict)


class SlowReader(Attacker):
    NAME = 'clients that never read'

    def attack(self):
        with self.main() as client:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
            client.settimeout(0.2)
            end = time.monotonic() + self.random.uniform(0.5, 3)
            while time.monotonic() < end and not self.stopping.is_set():
                try:
                    client.send(b'f' * 4096)
                except TimeoutError:
                    self.stopping.wait(0.2)


class HalfOpen(Attacker):
    NAME = 'half-closed and silent clients'

    def attack(self):
        begin = time.monotonic()
        with self.main() as client:
            client.recv(16)
            client.shutdown(socket.SHUT_WR)
            client.settimeout(15)
            try:
                while client.recv(4096):
                    pass
            except TimeoutError:
                if not self.world.disturbed('main', begin):
                    self.complaints.append('a half-closed session stays')
        self.result = 'each was ended'


class Resetter(Attacker):
    NAME = 'connections that are reset'

    def attack(self):
        with self.main() as client:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                              struct.pack('ii', 1, 0))
            client.send(self.random.randbytes(self.random.randint(1, 3000)))
            self.stopping.wait(self.random.random() / 5)


class Garbage(Attacker):
    NAME = 'garbage on every socket'
    PATHS = ('mng/tty/inetd/.qv_inetd', 'mng/tty/.tty_rl', 'lines', 'control',
             'spare', 'console', 'inpath')

    def record(self):
        """Of the right size, with fields that somebody could believe."""
        fields = [self.random.choice(FLAGS), self.random.randint(258, 300),
                  self.random.randint(-1, 40), self.random.choice((1, 2, 10)),
                  self.random.randint(0, 70000), self.random.randint(-1, 12),
                  self.random.randint(1, 40000), self.random.randint(0, 70000)]
        return struct.pack('=I7i', *fields) + self.random.randbytes(124)

    def attack(self):
        path = self.random.choice(self.PATHS)
        with socket.socket(socket.AF_UNIX) as client:
            client.settimeout(2)
            client.connect(str(self.world.root / path))
            for _ in range(self.random.randint(1, 5)):
                # A cut record as well, and one that goes on later.
                client.sendall(self.random.choice((
                    self.record(), self.record()[:77],
                    self.random.randbytes(self.random.randint(1, 600)))))
                self.stopping.wait(self.random.random() / 20)


class Operator(Attacker):
    NAME = 'ttyctl lines, get, set'

    def attack(self):
        line = str(self.random.randint(258, 270))
        words = self.random.choice((
            ['lines', '--json'], ['get', line, 'LOGNAME'],
            ['set', line, 'ESCAPECHAR', str(self.count)]))
        code = subprocess.run(
            [self.world.ttyctl, *words], env=self.world.environment,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, cwd='/',
            timeout=30, check=False).returncode
        if code < 0:
            self.complaints.append(f'ttyctl {words[0]}: signal {-code}')
        self.result = 'none hung or crashed'


class Happening(Attacker):
    """Something that is done when its turn comes."""

    def attack(self):
        raise NotImplementedError

    def row_of(self, client):
        """What the daemon tells of the session of this connection."""
        own = ':'.join(map(str, client.getsockname()))
        for row in self.world.sessions() or []:
            if row['address'] == own:
                return row
        raise OSError('the session is not listed')

    def try_it(self):
        try:
            self.attack()
            self.count += 1
        except OSError as error:
            self.complaints.append(str(error))


class FullDisk(Happening):
    NAME = 'the disk is full, and freed'

    def attack(self):
        name = self.world.root / 'filling'
        try:
            with open(name, 'wb', buffering=0) as file:
                while True:
                    file.write(bytes(65536))
        except OSError as error:
            if error.errno != errno.ENOSPC:
                raise
        if not wait_until(lambda: self.world.serves('ipv4'), 10):
            self.complaints.append('nobody can come in')
        self.stopping.wait(1)
        name.unlink()
        self.result = 'sessions began meanwhile'


class NewDirectory(Happening):
    NAME = 'the directory of logs and lines is replaced'

    def attack(self):
        directory = self.world.root / 'mng/tty'
        away = self.world.root / 'mng/away'
        directory.rename(away)
        directory.mkdir(mode=0o700)
        if not wait_until(lambda: self.world.serves('ipv4'), 10):
            self.complaints.append('nobody can come in')
        self.stopping.wait(1)
        directory.rename(self.world.root / f'mng/old{self.count}')
        away.rename(directory)
        subprocess.run(['rm', '-rf', str(self.world.root
                                         / f'mng/old{self.count}')],
                       check=True)
        self.result = 'sessions began meanwhile'


class ClockBack(Happening):
    NAME = 'the daemons\' clock is set back by hours, and forward again'

    def attack(self):
        back = self.random.randint(3600, 90000)
        self.world.set_clock(-back)
        with self.main() as client:
            client.settimeout(10)
            client.recv(16)
            row = self.row_of(client)
            # Or nothing would have been tried.
            if abs(time.time() - back - row['begin']) > 60:
                self.complaints.append(f'the session began at {row["begin"]}')
        self.stopping.wait(0.5)
        self.world.set_clock(0)
        self.result = 'sessions began meanwhile'


class StoppedKeeper(Happening):
    NAME = 'a keeper is stopped, its session kicked'

    def attack(self):
        with self.main() as client:
            client.recv(16)
            row = self.row_of(client)
            os.kill(row['keeper'], signal.SIGSTOP)
            answer = self.world.ask('control', f'kick {row["line"]}')
            client.settimeout(12)
            try:
                if answer != 'ok\n' or client.recv(100) != b'':
                    self.complaints.append(f'not ended: {answer!r}')
            except TimeoutError:
                self.complaints.append('still there after 12 s')
        self.result = 'each session ended'


class Flood(Happening):
    NAME = 'a flood of connections, until descriptors are gone'
    CONNECTIONS = 150

    def attack(self):
        address = ('127.0.0.1', self.world.SPARE)
        refused = 0
        # Who comes in such a moment waits for the end of the flood.
        with self.world.disturbing('spare', logins_only=True):
            clients = []
            for _ in range(self.CONNECTIONS):
                client = socket.socket()
                client.setblocking(False)
                client.connect_ex(address)
                clients.append(client)
            self.stopping.wait(2)
            for client in clients:
                client.settimeout(0.01)
                try:
                    refused += client.recv(16) != b'ready\n'
                except OSError:
                    refused += 1
                client.close()
            if not wait_until(lambda: self.world.serves('spare ipv4'), 10):
                self.complaints.append('nobody can come in afterwards')
        if not refused:
            self.complaints.append('there was room for everybody')
        self.result = 'served again each time'


class KilledConsoled(Happening):
    NAME = 'consoled is killed and started again'

    def attack(self):
        with self.world.disturbing('spare'):
            self.world.spare.end(signal.SIGKILL)
            self.world.spare.start()
            if not wait_until(lambda: self.world.serves('spare ipv4')):
                self.complaints.append('does not serve again')
        self.result = 'served again each time'


class EndedConsoled(Happening):
    NAME = 'consoled is ended in order and started again'

    def attack(self):
        with self.world.disturbing('spare'):
            begin = time.monotonic()
            status = self.world.spare.end(signal.SIGTERM)
            took = time.monotonic() - begin
            if status != 0 or took > 8:
                self.complaints.append(f'status {status} in {took:.1f} s')
            self.world.spare.start()
            if not wait_until(lambda: self.world.serves('spare ipv4')):
                self.complaints.append('does not serve again')
        self.result = 'status 0, served again each time'


class KilledTtylined(Happening):
    NAME = 'ttylined is killed and started again'

    def attack(self):
        with self.world.disturbing('main', 'spare'):
            self.world.ttylined.end(signal.SIGKILL)
            self.world.ttylined.start()
            if not wait_until(lambda: self.world.serves(*ROADS)):
                self.complaints.append('the daemons do not serve again')
        self.result = 'both daemons served again each time'


ATTACKERS = (SlowReader, SlowReader, SlowReader, HalfOpen, HalfOpen, Resetter,
             Garbage, Operator)
HAPPENINGS = (FullDisk, StoppedKeeper, ClockBack, KilledConsoled, Flood,
              NewDirectory, KilledTtylined, EndedConsoled)
