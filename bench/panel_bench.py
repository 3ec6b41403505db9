"""The panel beside a stream of 2 Mbit/s: processor, memory, lost packets, first picture, its age.

Runs inside the bench box. Prints a line for each figure, "SUBJECT FIGURE LIMIT ok|MISS"; what has
no limit says "-" twice. Ends with 1 if a limit is missed or a figure could not be had. Debian's ustreamer
stands beside it in the same run, with a capture device of the same pictures.
"""
import argparse
import os
import random
import selectors
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import time

os.makedirs(os.environ['MV3300_PANEL_OUTPUT'], exist_ok=True)
sys.path.insert(0, os.path.join(os.path.dirname(__file__), '../tests/panel'))

from page_test import Page  # noqa: E402
from rig import (BUILD, OUTPUT, PORT, URL, Processes, state, uevent, wait_condition,  # noqa: E402
                 wait_for)

MEASURED = 15  # seconds a figure of the processor is taken over
WINDOW = 5     # seconds; the noise of the daemon's processor is what differs between such
RIVAL = 8070   # its port
PICTURES = 150
WIDTH, HEIGHT, STRIP, BITS = 1280, 720, 32, 24  # of the picture, and of the stamp at its lower edge
DECODER = ('udpsrc address=234.29.78.95 port=59202 multicast-iface=eth0 '
           'caps=application/x-rtp,media=video,clock-rate=90000,encoding-name=H264 '
           '! rtph264depay ! h264parse ! avdec_h264 '
           f'! videocrop top={HEIGHT - STRIP} ! fdsink sync=false')
# Every picture that is shown anew, with the time when it is there.
LOOK = '''
    const [what, count, done] = arguments;
    const shown = document.querySelector(what);
    const canvas = document.createElement('canvas');
    [canvas.width, canvas.height] = [24 * 4, 1];
    const context = canvas.getContext('2d', {willReadFrequently: true});
    const seen = [];
    function look() {
        const width = shown.videoWidth || shown.naturalWidth;
        const height = shown.videoHeight || shown.naturalHeight;
        context.drawImage(shown, 0, height * 31 / 32, width, 1, 0, 0, canvas.width, 1);
        const pixels = context.getImageData(0, 0, canvas.width, 1).data;
        let stamp = 0;
        for (let i = 0; i < 24; i++) {
            stamp = stamp * 2 + (pixels[(4 * i + 2) * 4 + 1] > 128 ? 1 : 0);
        }
        if (seen.length === 0 || seen[seen.length - 1][0] !== stamp) {
            seen.push([stamp, Date.now()]);
        }
        seen.length > count ? done(seen.slice(1)) : requestAnimationFrame(look);
    }
    look();'''
missed = []


def report(what, seen, limit=None, digits=0):
    """Numbers; the limit is the most that is allowed."""
    verdict = '-' if limit is None else 'ok' if seen <= limit else 'MISS'
    if verdict == 'MISS':
        missed.append(what)
    print(f'{what:<62} {seen:>8.{digits}f} {"-" if limit is None else f"{limit:g}":>6} {verdict}',
          flush=True)


class Viewers:
    """So many connections that take what comes and look at none of it."""

    def __init__(self, port=PORT, path='/live.mp4'):
        self.port = port
        self.head = f'GET {path} HTTP/1.1\r\nHost: localhost\r\n\r\n'.encode()
        self.selector = selectors.DefaultSelector()
        self.taken = {}

    def add(self, count):
        for _ in range(count):
            connection = socket.create_connection(('127.0.0.1', self.port), timeout=5)
            connection.sendall(self.head)
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
                got = key.fileobj.recv(65536)
                begun = self.taken[key.fileobj]
                assert got, f'a viewer\'s connection was closed after {begun} bytes'
                assert begun or got.startswith((b'HTTP/1.1 200 ', b'HTTP/1.0 200 ')), got
                self.taken[key.fileobj] += len(got)


class Rival:
    """ustreamer with a capture device of the same pictures; encodes each as JPEG by itself."""

    def __enter__(self):
        with open(f'{OUTPUT}/ustreamer.log', 'ab') as log:
            self.process = subprocess.Popen(
                ['ustreamer', '--device', '/run/mv3300-sim/video0', '--format', 'UYVY',
                 '--resolution', f'{WIDTH}x{HEIGHT}', '--desired-fps', '30', '--host', '127.0.0.1',
                 '--port', str(RIVAL)],
                env={**os.environ, 'LD_PRELOAD': f'{BUILD}/sim/libsim_device.so'}, stdout=log,
                stderr=log)
        wait_for('ustreamer\'s pictures', lambda: b'"online": true' in subprocess.run(
            ['curl', '-s', f'http://127.0.0.1:{RIVAL}/state'], capture_output=True).stdout, 15)
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait(10)

    @staticmethod
    def missing():
        if not shutil.which('ustreamer'):
            return 'ustreamer is not installed'
        if not os.path.exists(f'{BUILD}/sim/libsim_device.so'):
            return 'sim_device is not built'
        return None


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


def load(process, viewers, seconds):
    """Processor of it in percent of one."""
    begin, before = time.monotonic(), processor(process)
    viewers.take(seconds)
    return 100 * (processor(process) - before) / (time.monotonic() - begin)


def viewers_cost(name, process, viewers, limits):
    for count, percent, megabytes in limits:
        viewers.add(count - len(viewers.taken))
        viewers.take(3)
        for connection in viewers.taken:
            viewers.taken[connection] = 1
        report(f'{name}, {count} viewers: processor, %', load(process, viewers, MEASURED), percent,
               2)
        assert all(taken > 1e5 for taken in viewers.taken.values()), 'a viewer got no picture'
        report(f'{name}, {count} viewers: memory, MB', memory(process), megabytes, 1)
    viewers.remove(len(viewers.taken))


def cost(processes, _):
    viewers_cost('panel', processes.running['mv3300-panel'], Viewers(),
                 [(0, 0.2, 25), (1, 2, 27), (16, 6, 57)])
    report('daemon beside it: processor, %',
           load(processes.running['mv3300d'], Viewers(), MEASURED), None, 1)
    if not Rival.missing():
        with Rival() as rival:
            viewers_cost('ustreamer, with its JPEG encoder', rival.process,
                         Viewers(RIVAL, '/stream'), [(n, None, None) for n in (0, 1, 16)])


def windows(daemon, viewers, seconds, before_each=lambda: None):
    """Processor of the daemon in percent, by windows."""
    seen = []
    for _ in range(max(1, round(seconds / WINDOW))):
        begin, used = time.monotonic(), processor(daemon)
        while time.monotonic() < begin + WINDOW:
            before_each()
            viewers.take(0.5)
        seen.append(100 * (processor(daemon) - used) / (time.monotonic() - begin))
    return seen


def stream(processes, seconds):
    """Between 8 and 16 viewers, one other every half second; the daemon must not feel it."""
    wait_for('the last viewers are gone', lambda: state()['panel']['viewers'] == 0, 15)
    daemon, viewers = processes.running['mv3300d'], Viewers()
    alone = windows(daemon, viewers, 15)

    def come_and_go():
        if len(viewers.taken) == 16:
            viewers.remove(random.randint(1, 8))
        elif state()['panel']['viewers'] < 16:  # it may not know yet who went
            viewers.add(1)
    before = state()['stream']
    meanwhile = windows(daemon, viewers, seconds, come_and_go)
    after = state()['stream']
    viewers.remove(len(viewers.taken))
    alone += windows(daemon, viewers, 15)
    packets = after['packets'] - before['packets']
    assert packets > 20 * seconds
    report(f'packets lost of {packets} in {seconds:.0f} s of coming and going',
           after['lost'] - before['lost'], 0)
    usual, noise = statistics.mean(alone), statistics.stdev(alone)
    report(f'processor of the daemon meanwhile (before and after {usual:.1f} +- {noise:.1f}), %',
           statistics.mean(meanwhile), round(usual + 3 * max(noise, 0.3), 1), 1)
    print('load of the machine:', *(f'{load:.1f}' for load in os.getloadavg()))


def median_and_p95(values):
    values = sorted(values)
    return statistics.median(values), values[len(values) * 95 // 100]


def decoder_ages():
    """Of the same stream, decoded by GStreamer as it comes; ms."""
    decoder = subprocess.Popen(['gst-launch-1.0', '-q', *DECODER.split()], stdout=subprocess.PIPE)
    size = WIDTH * STRIP * 3 // 2
    ages = []
    while len(ages) < PICTURES:
        picture = decoder.stdout.read(size)
        now = int(time.time() * 1000)
        assert len(picture) == size, 'the decoder ended'
        line = picture[WIDTH * STRIP // 2:][:WIDTH]
        cells = [line[(2 * i + 1) * WIDTH // (2 * BITS)] for i in range(BITS)]
        stamp = sum((cell > 128) << (BITS - 1 - i) for i, cell in enumerate(cells))
        ages.append((now - stamp) % 2**24)
    decoder.terminate()
    decoder.wait(10)
    return ages[10:]


def shown_ages(page, what):
    page.browser.set_script_timeout(60)
    seen = page.browser.execute_async_script(LOOK, what, PICTURES)
    return [(now - stamp) % 2**24 for stamp, now in seen]


def first_pictures(page):
    """After the page was asked for, s."""
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
    report('first picture in Chromium with GOP 60, most of five, s', max(times), 0.7, 2)


def browser(_processes, _seconds):
    bare, bare_p95 = median_and_p95(decoder_ages())
    report('picture age in GStreamer, median, ms', bare)
    report('picture age in GStreamer, p95, ms', bare_p95)
    page = Page()
    first_pictures(page)
    page.wait_moving(10)
    time.sleep(5)
    median, p95 = median_and_p95(shown_ages(page, 'video'))
    report('picture age in Chromium, median, ms', median)
    report('picture age in Chromium, p95, ms', p95)
    report('picture age in Chromium above GStreamer, median, ms', median - bare, 200)
    report('picture age in Chromium above GStreamer, p95, ms', p95 - bare_p95, 350)
    if not Rival.missing():
        with Rival():
            page.browser.get(f'http://127.0.0.1:{RIVAL}/')
            page.run("document.body.innerHTML = '<img id=rival src=/stream>'")
            wait_for('its picture', lambda: page.run('return rival.naturalWidth') == WIDTH, 10)
            time.sleep(5)
            for name, age in zip(('median', 'p95'), median_and_p95(shown_ages(page, '#rival'))):
                report(f'picture age of ustreamer in Chromium, {name}, ms', age)
    page.browser.quit()


def main():
    parts = {'cost': cost, 'stream': stream, 'browser': browser}
    parser = argparse.ArgumentParser()
    parser.add_argument('seconds', nargs='?', type=float, default=60,
                        help='how long viewers come and go (60)')
    parser.add_argument('--only', choices=parts, help='this part alone')
    options = parser.parse_args()
    signal.alarm(int(options.seconds) + (60 if options.only else 360))
    processes = Processes()
    processes.start_all()
    uevent(f'{WIDTH}x{HEIGHT}@30-0')
    wait_condition('streaming')
    subprocess.run(['mv3300ctl', 'set', '--bitrate', '2M', '--gop', '60'], check=True,
                   stdout=subprocess.DEVNULL)
    wait_for('2 Mbit/s with GOP 60', lambda: state()['stream']['kbit_per_second'] > 1600 and
             state()['stream']['keyframe_interval'] == 60, 90)
    if Rival.missing():
        print(f'SKIPPED: nothing beside the panel: {Rival.missing()}', flush=True)
    for name, part in parts.items():
        if options.only in (None, name):
            part(processes, options.seconds)
    if missed:
        sys.exit(f'panel_bench: {len(missed)} missed: {"; ".join(missed)}')


if __name__ == '__main__':
    main()
