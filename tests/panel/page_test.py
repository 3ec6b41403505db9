"""The page in a real Chromium: picture, words, settings, restarts."""
import json
import os
import socket
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

from rig import (BUILD, OUTPUT, URL, Processes, open_browser, order, set_password, state, uevent,
                 wait_condition, wait_for)

WORDS = {
    'no-guard': 'The guard (mv3300-guard) is not running',
    'no-daemon': 'The daemon is not running.',
    'input-unknown': 'No input timing was announced yet.',
    'no-signal': 'The HDMI input has no signal.',
    'interlaced': 'The input is interlaced, which is not supported.',
    'disabled': 'The stream is switched off in the settings.',
    'starting': 'The stream is being started.',
    'failed': 'The stream failed, and the last restart brought none.',
    'stalled': 'No packet has come for 7 s.',
    'preview-stalled': 'The stream runs, but its preview stands still.',
    'relay-refused': 'Nobody takes the preview\u2019s packets <b>&amp;</b>.',
    'streaming': 'The stream runs.',
}


class Page:
    def __init__(self, **options):
        self.browser = open_browser(**options)
        self.browser.set_script_timeout(20)

    def run(self, script, *arguments):
        return self.browser.execute_script(script, *arguments)

    def pictures(self):
        return int(self.run("return document.getElementById('screen').dataset.pictures || 0"))

    def text(self, name):
        return self.run('return document.getElementById(arguments[0]).textContent', name)

    def wait_moving(self, seconds):
        """Pictures come, and they are not always the same one: their counter grows."""
        start = self.pictures()
        wait_for('pictures', lambda: self.pictures() > start + 15, seconds)
        first = self.stamp()
        wait_for('a moving picture', lambda: 0 < (self.stamp() - first) % 2**24 < 60000, 5)

    def stamp(self):
        """When the picture that is shown was drawn, out of its lower edge; ms, 24 bits."""
        return self.stamp_and_time()[0]

    def stamp_and_time(self):
        """The stamp, and the browser's clock when it was taken, ms."""
        return self.run('''
            const video = document.querySelector('video');
            const canvas = document.createElement('canvas');
            const [width, height] = [video.videoWidth, video.videoHeight];
            [canvas.width, canvas.height] = [width, height];
            const context = canvas.getContext('2d', {willReadFrequently: true});
            const now = Date.now();
            context.drawImage(video, 0, 0);
            let stamp = 0;
            for (let i = 0; i < 24; i++) {
                const pixel = context.getImageData((i + 0.5) * width / 24, height * 31 / 32, 1, 1);
                stamp = stamp * 2 + (pixel.data[1] > 128 ? 1 : 0);
            }
            return [stamp, now];''')

    def shot(self, name):
        self.browser.save_screenshot(f'{OUTPUT}/{name}.png')

    def complaints(self):
        """Of the console, but for the refusals and restarts that the tests make."""
        return [entry['message'] for entry in self.browser.get_log('browser')
                if 'Failed to load resource' not in entry['message']
                and 'ERR_INCOMPLETE_CHUNKED_ENCODING' not in entry['message']
                and 'ERR_CONNECTION_REFUSED' not in entry['message']]

    def foreign_requests(self):
        urls = []
        for entry in self.browser.get_log('performance'):
            message = json.loads(entry['message'])['message']
            if message['method'] == 'Network.requestWillBeSent':
                urls.append(message['params']['request']['url'])
        return [url for url in urls if not url.startswith((URL, 'blob:', 'data:'))]


def test_picture(page):
    page.browser.get(URL)
    page.run('window.marker = 1')
    page.wait_moving(10)
    wait_for('the sentence', lambda: page.run(
        "return document.getElementById('status').dataset.condition") == 'streaming', 5)
    assert page.run('return [video.videoWidth, video.videoHeight]') == [1280, 720]
    time.sleep(2)
    page.shot('streaming')


def test_phone(page):
    for width in (320, 390):
        page.browser.execute_cdp_cmd('Emulation.setDeviceMetricsOverride', {
            'width': width, 'height': 844, 'deviceScaleFactor': 2, 'mobile': True})
        time.sleep(0.5)
        wide = page.run('return document.documentElement.scrollWidth')
        assert wide <= width, f'{wide} pixels on a screen of {width}'
    page.shot('phone')
    page.browser.execute_cdp_cmd('Emulation.clearDeviceMetricsOverride', {})
    page.browser.execute_cdp_cmd('Emulation.setEmulatedMedia', {
        'features': [{'name': 'prefers-color-scheme', 'value': 'dark'}]})
    time.sleep(0.5)
    assert page.run('return getComputedStyle(document.body).backgroundColor') == 'rgb(16, 19, 23)'
    page.shot('dark')
    page.browser.execute_cdp_cmd('Emulation.setEmulatedMedia', {'features': []})


def test_settings(page):
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    set_password('correct horse')
    summary = page.browser.find_element(By.CSS_SELECTOR, '#settings summary')
    summary.send_keys(Keys.ENTER)
    field = wait_for('the login', lambda: next(
        (e for e in page.browser.find_elements(By.ID, 'password') if e.is_displayed()), None), 10)
    field.send_keys('wrong horse' + Keys.ENTER)
    wait_for('a refusal', lambda: 'wrong' in page.text('settings-note'), 5)
    assert not page.browser.find_element(By.ID, 'set-gop').is_enabled()
    field.send_keys('correct horse' + Keys.ENTER)
    wait_for('the fields', lambda: page.run(  # in one step, for they are made anew meanwhile
        "return document.getElementById('set-gop')?.disabled === false"), 10)
    page.shot('settings')
    for name, value in (('gop', '30'), ('bitrate', '2000000')):
        entry = page.browser.find_element(By.ID, 'set-' + name)
        entry.clear()
        entry.send_keys(value)
    page.browser.find_element(By.ID, 'save').click()
    entry.send_keys(Keys.ENTER)
    wait_for('the answer', lambda: page.text('results').count('taken') == 2, 30)
    assert 'Kept for the next start.' in page.text('results'), page.text('results')
    assert '30' in open('/config/mv3300/param.xml').read().split('h264_stream_gop')[1][:60]

    with open('/proc/sys/net/ipv4/conf/switch0/accept_local', 'w') as file:
        file.write('1')  # the sender is of the same machine

    def on_the_wire():
        """Measured by a receiver on the other end of the cable."""
        stream = json.loads(subprocess.run(
            ['sim-receive', '--interface', 'switch0', '--seconds', '4', '--json'],
            capture_output=True, check=True).stdout)
        return stream['gop'] == 30 and 1600 < stream['kbit_per_s'] < 2400
    wait_for('GOP 30 and 2 Mbit/s on the wire', on_the_wire, 20)
    page.wait_moving(5)
    summary.click()


def first_of_next_stream():
    """When the first packet of another source came out of the box, which begins its key picture."""
    with socket.socket(type=socket.SOCK_DGRAM) as receiver:
        receiver.bind(('234.29.78.95', 59202))
        receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton('234.29.78.95') + socket.inet_aton('192.0.2.1'))
        receiver.settimeout(20)
        source = receiver.recv(2048)[8:12]
        while receiver.recv(2048)[8:12] == source:
            pass
        return time.monotonic()


def test_other_input(page):
    with ThreadPoolExecutor() as pool:
        begin = pool.submit(first_of_next_stream)
        time.sleep(0.5)
        uevent('640x360@25-0')
        wait_for('the new size', lambda: page.run('return video.videoWidth') == 640, 30)
        seconds = time.monotonic() - begin.result()
    print(f'the new size {seconds:.2f} s after its first packet', flush=True)
    assert seconds < 1
    wait_condition('streaming')
    assert state()['stream']['width'] == 640
    page.wait_moving(5)


def test_standstill(page):
    """The last picture stays, marked as old and with the reason over it."""
    order('stall')
    wait_for('the veil', lambda: not page.run("return document.getElementById('veil').hidden"), 15)
    wait_for('the reason', lambda: page.text('veil-word') == 'stalled', 10)
    assert 'old picture' in page.text('badge')
    page.shot('veil')
    order('run')
    uevent('0x0@0-0')
    wait_for('no signal', lambda: page.text('veil-word') == 'no signal', 20)
    uevent('1280x720@30-0')
    page.wait_moving(30)
    assert page.run("return document.getElementById('veil').hidden")


def test_restarts(page, processes):
    processes.stop('mv3300d')
    wait_for('its word', lambda: page.text('veil-word') == 'no daemon', 10)
    processes.start('mv3300d')
    page.wait_moving(30)
    processes.stop('mv3300-panel')
    wait_for('its word', lambda: page.text('word') == 'no panel', 10)
    page.shot('no-panel')
    processes.start('mv3300-panel')
    page.wait_moving(15)
    assert page.run('return window.marker') == 1, 'the page was loaded again'


def test_no_room(page):
    """With all places taken the page falls back to the snapshots."""
    page.browser.get('about:blank')
    wait_for('nobody', lambda: state()['panel']['viewers'] == 0, 10)
    watchers = []

    def all_places_taken():
        """Who watched while the stream was started anew, as after a restart, comes again."""
        ended = [watcher.returncode for watcher in watchers if watcher.poll() is not None]
        if ended:
            print(f'viewers that ended, by curl\'s status: {ended}')
        watchers[:] = [watcher for watcher in watchers if watcher.poll() is None]
        watchers.extend(subprocess.Popen(['curl', '-s', '-o', '/dev/null', f'{URL}/live.mp4'])
                        for _ in range(16 - len(watchers)))
        return state()['panel']['viewers'] == 16

    wait_for('sixteen', all_places_taken, 20)
    page.browser.get(URL)
    wait_for('snapshots', lambda: 'snapshots' in page.text('badge'), 15)
    assert page.run("return document.getElementById('snapshot').naturalWidth") == 1280
    page.shot('no-room')
    for watcher in watchers:
        watcher.terminate()
    page.wait_moving(15)


def test_without_scripts():
    page = Page(scripts=False)
    page.browser.get(URL)
    html = page.browser.page_source
    assert 'http-equiv="refresh"' in html and 'snapshot.jpeg' in html
    assert 'The stream of 1280x720' in html and 'kbit/s' in html
    assert f'curl -o mv3300.sdp {URL}/stream.sdp' in html
    page.shot('without-scripts')
    page.browser.quit()


def test_words(page):
    """Every condition in words, colour and sign, out of a state file of its own."""
    file = '/run/crafted.json'
    panel = subprocess.Popen([f'{BUILD}/mv3300-panel', '--listen', '8090', '--stream-port', '12399',
                              '--state', file, '--preview', '/nowhere'],
                             stderr=subprocess.DEVNULL)
    known = state()
    signs = {}
    for condition, sentence in WORDS.items():
        known.update(condition=condition, text=sentence, time=time.time())
        with open(file + '.new', 'w') as target:
            json.dump(known, target)
        if condition == 'no-guard':
            if os.path.exists(file):
                os.remove(file)
            time.sleep(0.5)
            page.browser.get('http://127.0.0.1:8090/')
        else:
            os.rename(file + '.new', file)
        wait_for(condition, lambda: page.text('word') == condition.replace('-', ' ')
                 and sentence in page.text('sentence'), 5)
        signs[condition] = tuple(page.run(
            "const style = getComputedStyle(document.querySelector('.sign'), '::before');"
            "return [style.content, getComputedStyle(document.querySelector('.sign'))"
            ".backgroundColor]"))
        page.shot('condition-' + condition)
    known.update(text='The stream goes on.', time=time.time())
    with open(file, 'w') as target:
        json.dump(known, target)
    wait_for('a new sentence', lambda: 'goes on' in page.text('sentence'), 5)
    assert len({signs[name] for name in ('streaming', 'starting', 'no-signal', 'no-guard')}) == 4
    panel.terminate()
    panel.wait(10)


if __name__ == '__main__':
    page = Page()
    processes = Processes()
    processes.start_all()
    uevent('1280x720@30-0')
    wait_condition('streaming')
    for test, arguments in ((test_picture, (page,)), (test_phone, (page,)),
                            (test_settings, (page,)), (test_other_input, (page,)),
                            (test_standstill, (page,)), (test_restarts, (page, processes)),
                            (test_no_room, (page,)), (test_without_scripts, ())):
        start = time.monotonic()
        test(*arguments)
        print(f'{test.__name__}: {time.monotonic() - start:.1f} s', flush=True)
    for what in (page.foreign_requests(), page.complaints()):
        assert not what, what
    test_words(page)
    page.browser.quit()
