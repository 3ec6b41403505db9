"""The panel beside a stream of 2 Mbit/s: processor, memory, lost packets, first picture, its age.

Runs inside the bench box: panel_bench.py [SECONDS], which is how long viewers come and go (60).
Prints a line for each figure with its limit; ends with 1 if a figure could not be had.
"""
import os
import random
import selectors
import socket
import statistics
import subprocess
import sys
import time

os.makedirs(os.environ['MV3300_PANEL_OUTPUT'], exist_ok=True)
sys.path.insert(0, os.path.join(os.path.dirname(__file__), '../tests/panel'))

from page_test import Page  # noqa: E402
from rig import (PORT, URL, Processes, state, uevent, wait_condition, wait_for)  # noqa: E402

MEASURED = 15  # seconds a figure of the processor is taken over
HEAD = b'GET /live.mp4 HTTP/1.1\r\nHost: localhost\r\n\r\n'


def report(what, seen, limit):
    print(f'{what:<52} {seen:>16}   limit {limit}', flush=True)


class Viewers:
    """So many connections that take what comes and look at none of it."""

    def __init__(self):
        self.selector = selectors.DefaultSelector()
        self.taken = {}

    def add(self, count):
        for _ in range(count):
            connection = socket.create_connection(('127.0.0.1', PORT), timeout=5)
            connection.sendall(HEAD)
            self.selector.register(connection, selectors.EVENT_READ)
            self.taken[connection] = 0

    def remove(self, count):
        for connection in random.sample(list(self.taken), count):
            self.selector.unregister(connection)
            del self.taken[connection]
            connection.close()

    def take(self, seconds):
        until = time.monotonic() + seconds
        while time.monotonic() < until:
            for key, _ in self.selector.select(min(0.1, seconds)):
                got = len(key.fileobj.recv(65536))
                assert got, 'the panel closed a viewer\'s connection'
                self.taken[key.fileobj] += got


def processor(process):
    """Seconds of it that the process has used."""
    fields = open(f'/proc/{process.pid}/stat').read().rsplit(')', 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf('SC_CLK_TCK')


def memory(process):
    """Its proportional share, MB."""
    for line in open(f'/proc/{process.pid}/smaps_rollup'):
        if line.startswith('Pss:'):
            return int(line.split()[1]) / 1024
    raise AssertionError('no smaps_rollup')


def load(processes, viewers, seconds):
    """Processor of panel and daemon in percent of one."""
    programs = [processes.running[name] for name in ('mv3300-panel', 'mv3300d')]
    begin, before = time.monotonic(), [processor(program) for program in programs]
    viewers.take(seconds)
    passed = time.monotonic() - begin
    return [100 * (processor(program) - was) / passed
            for program, was in zip(programs, before)]


def viewers_cost(processes):
    viewers = Viewers()
    for count, percent in ((0, 0.2), (1, 2), (16, 6)):
        viewers.add(count - len(viewers.taken))
        viewers.take(3)
        for connection in viewers.taken:
            viewers.taken[connection] = 0
        panel, daemon = load(processes, viewers, MEASURED)
        assert all(taken > 1e5 for taken in viewers.taken.values()), 'a viewer got no picture'
        report(f'{count} viewers: processor (the daemon: {daemon:.0f} %)', f'{panel:.2f} %',
               f'{percent} %')
        report(f'{count} viewers: memory', f'{memory(processes.running["mv3300-panel"]):.1f} MB',
               f'{25 + 2 * count} MB')
    viewers.remove(16)


def come_and_go(processes, seconds):
    """Between 8 and 16 viewers, one other every half second."""
    wait_for('the last viewers are gone', lambda: state()['panel']['viewers'] == 0, 15)
    viewers = Viewers()
    before = state()['stream']
    begin = time.monotonic()
    used = processor(processes.running['mv3300d'])
    while time.monotonic() < begin + seconds:
        if len(viewers.taken) < 16:
            viewers.add(1)
        else:
            viewers.remove(random.randint(1, 8))
        viewers.take(0.5)
    daemon = 100 * (processor(processes.running['mv3300d']) - used) / (time.monotonic() - begin)
    after = state()['stream']
    assert after['packets'] - before['packets'] > 20 * seconds
    report(f'packets lost of {after["packets"] - before["packets"]} in {seconds:.0f} s of coming '
           f'and going', after['lost'] - before['lost'], '0')
    report('processor of the daemon meanwhile', f'{daemon:.1f} %', 'none')
    viewers.remove(len(viewers.taken))


def first_pictures():
    """From the connection to the end of the first fragment, by a client that does nothing else."""
    times = []
    for _ in range(10):
        time.sleep(random.uniform(0.5, 2.5))
        begin = time.monotonic()
        with socket.create_connection(('127.0.0.1', PORT), timeout=5) as connection:
            connection.sendall(HEAD)
            taken = b''
            while b'mdat' not in taken:
                taken += connection.recv(65536)
        times.append(time.monotonic() - begin)
    report('first picture in /live.mp4, median and most',
           f'{statistics.median(times):.2f} {max(times):.2f} s', '-')


def in_browser():
    """The first picture after the page was asked for, and how old pictures are when shown."""
    page = Page()
    times = []
    for _ in range(5):
        page.browser.get('about:blank')
        time.sleep(random.uniform(1, 3))
        page.browser.get(URL)
        times.append(page.browser.execute_async_script('''
            const done = arguments[0];
            const look = () => document.getElementById('screen').dataset.pictures > 0
                ? done(performance.now() / 1000) : setTimeout(look, 5);
            look();'''))
    report('first picture in Chromium, median and most',
           f'{statistics.median(times):.2f} {max(times):.2f} s', '0.7 s')
    page.wait_moving(10)
    ages = []
    for _ in range(100):
        stamp, now = page.stamp_and_time()
        ages.append((now - stamp) % 2**24)
        time.sleep(random.uniform(0.02, 0.08))
    ages.sort()
    report('picture age in Chromium, median and p95', f'{ages[50]:.0f} {ages[95]:.0f} ms',
           '- (200 and 350 ms are above a bare decoder)')
    page.browser.quit()


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 60
    processes = Processes()
    processes.start_all()
    uevent('1280x720@30-0')
    wait_condition('streaming')
    subprocess.run(['mv3300ctl', 'set', '--bitrate', '2M', '--gop', '60'], check=True,
                   stdout=subprocess.DEVNULL)
    wait_for('2 Mbit/s with GOP 60', lambda: state()['stream']['kbit_per_second'] > 1600 and
             state()['stream']['keyframe_interval'] == 60, 30)
    viewers_cost(processes)
    come_and_go(processes, seconds)
    first_pictures()
    in_browser()


if __name__ == '__main__':
    main()
