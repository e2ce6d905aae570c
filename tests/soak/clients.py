"""Good clients, who count what they lose and how long they wait."""
import os
import random
import select
import socket
import subprocess
import threading
import time

from world import SESSION

PATIENCE = 15.0  # then a client gives up
MOST_WAIT = 1.0
LATE = 0.1  # a machine that is not late answers in a tenth of this


class Trouble(Exception):
    """What a good client must not meet."""


class Yardstick:
    """How late the machine itself is: an echo by a process, and the begin of a
    session's program on a terminal, that have nothing to do with the daemons.
    Waits that met a late machine say nothing of the daemons."""

    def __init__(self):
        self.late = []  # (from, to)
        self.under_way = {}
        self.longest = 0.0
        self.stopping = threading.Event()
        self.threads = [threading.Thread(target=target, daemon=True)
                        for target in (self.echoes, self.programs)]

    def start(self):
        for thread in self.threads:
            thread.start()

    def stop(self):
        self.stopping.set()
        for thread in self.threads:
            thread.join()

    def measure(self, what, step):
        begin = self.under_way[what] = time.monotonic()
        step()
        end = time.monotonic()
        self.longest = max(self.longest, end - begin)
        if end - begin > LATE:
            self.late.append((begin, end))

    def echoes(self):
        here, there = socket.socketpair()
        cat = subprocess.Popen(['cat'], stdin=there, stdout=there)
        there.close()

        def echo():
            here.sendall(b'x')
            here.recv(1)

        while not self.stopping.wait(0.02):
            self.measure('echo', echo)
        here.close()
        cat.wait()

    def programs(self):
        def program():
            master, terminal = os.openpty()
            process = subprocess.Popen(
                SESSION, stdin=terminal, stdout=terminal, stderr=terminal,
                start_new_session=True)
            os.close(terminal)
            os.read(master, 16)
            process.kill()
            process.wait()
            os.close(master)

        while not self.stopping.wait(0.02):
            self.measure('program', program)

    def was_late(self, begin, end):
        return any(first < end and last > begin for first, last in self.late
                   ) or any(end - since > LATE
                            for since in list(self.under_way.values()))


class Client(threading.Thread):
    """Session after session on one road, until it is told to stop."""

    def __init__(self, world, yardstick, road):
        super().__init__(daemon=True)
        self.world = world
        self.yardstick = yardstick
        self.road = road
        self.daemon_name = 'spare' if 'spare' in road else 'main'
        self.random = random.Random(road)
        self.stopping = threading.Event()
        self.sessions = self.disturbed = self.unjudged = self.bytes = 0
        self.longest = 0.0
        self.troubles = []
        self.socket = None
        self.begin = 0.0
        self.logging_in = True

    # ---- One session. ----

    def connect(self):
        family, address = self.world.road(self.road)
        self.socket = socket.socket(family)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(address)

    def timed(self, begin):
        """Notes a wait, unless the machine was late itself."""
        end = time.monotonic()
        wait = end - begin
        if wait > MOST_WAIT / 4 and self.yardstick.was_late(begin, end):
            self.unjudged += 1
            return
        self.longest = max(self.longest, wait)
        if wait > MOST_WAIT:
            raise Trouble(f'waited {wait:.2f} s')

    def read_until(self, wanted):
        text = b''
        while not text.endswith(wanted):
            piece = self.socket.recv(65536)
            if not piece:
                raise Trouble(f'the session ended behind {text[-60:]!r}')
            text += piece
        return text

    def exchange(self, block):
        """Sends and takes at the same time, or both sides would stand."""
        sent, got = 0, b''
        end = time.monotonic() + PATIENCE
        while len(got) < len(block):
            ready, room, _ = select.select(
                [self.socket], [self.socket] if sent < len(block) else [], [],
                max(0.0, end - time.monotonic()))
            if not ready and not room:
                raise Trouble(f'{len(block) - len(got)} bytes did not come')
            if room:
                sent += self.socket.send(block[sent:sent + 16384])
            if ready:
                piece = self.socket.recv(65536)
                if not piece:
                    raise Trouble(f'the session ended, {len(block) - len(got)}'
                                  ' bytes were lost')
                got += piece
        if got != block:
            raise Trouble('other bytes came than were sent')
        self.bytes += len(block)

    def talk(self):
        """An echo, byte by byte; what the daemon types at the end is not."""
        self.read_until(b'ready\n')
        self.timed(self.begin)
        self.logging_in = False
        for _ in range(self.random.randint(5, 60)):
            if self.stopping.is_set():
                break
            size = self.random.choice((1, 1, 20, 300, 4000, 70000))
            block = self.random.randbytes(size)
            begin = time.monotonic()
            self.exchange(block)
            self.timed(begin)
            time.sleep(self.random.random() / 20)
        if self.random.random() < 0.3:
            self.socket.shutdown(socket.SHUT_WR)
            while piece := self.socket.recv(65536):
                if piece.strip(b'\4'):
                    raise Trouble(f'unasked for: {piece[:60]!r}')

    def operate(self):
        """The line console: the same question has the same answer."""
        first = None
        self.read_until(b'> ')
        self.timed(self.begin)
        self.logging_in = False
        for _ in range(self.random.randint(2, 20)):
            if self.stopping.is_set():
                break
            begin = time.monotonic()
            self.socket.sendall(b'help\r')
            answer = self.read_until(b'> ')
            self.timed(begin)
            first = first or answer
            if answer != first or b'leave the line' not in answer:
                raise Trouble(f'another answer: {answer[:80]!r}')
            self.bytes += len(answer)
            time.sleep(self.random.random() / 10)
        self.socket.sendall(b'exit\r')
        while self.socket.recv(65536):
            pass

    # ---- All of them. ----

    def one_session(self):
        self.begin = time.monotonic()
        self.logging_in = True
        try:
            self.connect()
            if self.road == 'line console':
                self.operate()
            else:
                self.talk()
            self.sessions += 1
        except (Trouble, OSError) as trouble:
            # The daemon's end may be noticed before it is noted.
            time.sleep(0.2)
            if self.world.disturbed(self.daemon_name, self.begin,
                                    self.logging_in):
                self.disturbed += 1
                time.sleep(0.3)
            else:
                self.troubles.append(
                    f'{time.monotonic() - self.world.began:.1f} s: '
                    f'{trouble or type(trouble).__name__}')
        finally:
            self.socket.close()

    def run(self):
        while not self.stopping.is_set():
            self.one_session()
            time.sleep(self.random.random() / 10)

    def row(self):
        text = (f'{self.sessions} sessions, {self.bytes / 1e6:.1f} MB, '
                f'longest wait {self.longest * 1000:.0f} ms')
        if self.disturbed:
            text += f', {self.disturbed} ended with a daemon'
        if self.unjudged:
            text += f', {self.unjudged} waits of a late machine'
        good = not self.troubles and self.sessions > 0
        verdict = 'nothing lost' if good else '; '.join(
            self.troubles[:3] or ['no session'])
        return (f'good client: {self.road}', text, good, verdict)
