"""The bench box with the daemon, the guard and the panel in it, and a Chromium that looks.

Runs inside the box. What is started here ends with the box.
"""
import http.client
import json
import os
import shutil
import subprocess
import sys
import time

BUILD = os.environ['MV3300_BUILD_DIR']
OUTPUT = os.environ['MV3300_PANEL_OUTPUT']
PORT = 8080
URL = f'http://127.0.0.1:{PORT}'


def wait_for(what, condition, seconds):
    """The condition's first true value; an error that names what was waited for."""
    until = time.monotonic() + seconds
    while time.monotonic() < until:
        value = condition()
        if value:
            return value
        time.sleep(0.1)
    raise AssertionError(f'{what}: not within {seconds} s')


class Processes:
    """The three programs, by name."""

    def __init__(self):
        self.running = {}

    def start(self, name, *arguments):
        path = shutil.which(name) if name == 'mv3300d' else f'{BUILD}/{name}'
        log = open(f'{OUTPUT}/{name}.log', 'ab')
        self.running[name] = subprocess.Popen([path, *arguments], stdout=log, stderr=log)

    def stop(self, name, seconds=40):
        process = self.running.pop(name)
        process.terminate()
        status = process.wait(seconds)
        assert status == 0, f'{name} ended with {status}'

    def start_all(self):
        self.start('mv3300d')
        self.start('mv3300-guard', '--also', '12346')
        self.start('mv3300-panel')
        wait_for('the panel answers', lambda: status_of('GET', '/healthz') == 200, 10)


def uevent(timing):
    subprocess.run(['sim-uevent', timing], check=True, stdout=subprocess.DEVNULL)


def order(text):
    """An order for the stand-in source."""
    with open('/run/mv3300-sim/video0', 'w') as file:
        file.write(text + '\n')


def request(method, path, body=None, headers=None):
    """(status, headers, body) of one request on a connection of its own."""
    connection = http.client.HTTPConnection('127.0.0.1', PORT, timeout=40)
    try:
        if isinstance(body, (dict, list)):
            body = json.dumps(body)
        headers = {'Content-Type': 'application/json', **(headers or {})} if body else headers or {}
        connection.request(method, path, body, headers)
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read()
    finally:
        connection.close()


def status_of(*arguments, **named):
    try:
        return request(*arguments, **named)[0]
    except OSError:
        return None


def state():
    return json.loads(request('GET', '/api/state')[2])


def wait_condition(condition, seconds=30):
    wait_for(f'condition {condition}', lambda: state()['condition'] == condition, seconds)


def set_password(password):
    subprocess.run([f'{BUILD}/mv3300-panel', '--set-password'], input=password + '\n', text=True,
                   check=True)


def open_browser(width=1280, height=800, scripts=True, options=()):
    """A Chromium without a window; ends the run with 77 where there is none."""
    try:
        from selenium import webdriver
    except ImportError:
        skip('python3-selenium is not installed')
    if not shutil.which('chromium') or not shutil.which('chromedriver'):
        skip('chromium and chromium-driver are not installed')
    chromium = webdriver.ChromeOptions()
    for option in ('--headless=new', '--no-sandbox', '--disable-gpu', '--disable-quic',
                   '--no-first-run', '--disable-background-networking', '--disable-sync',
                   '--disable-component-update', f'--window-size={width},{height}',
                   '--autoplay-policy=no-user-gesture-required', '--disable-dev-shm-usage',
                   '--force-device-scale-factor=1', *options):
        chromium.add_argument(option)
    chromium.set_capability('goog:loggingPrefs', {'browser': 'ALL', 'performance': 'ALL'})
    if not scripts:
        chromium.add_experimental_option(
            'prefs', {'profile.managed_default_content_settings.javascript': 2})
    from selenium.webdriver.chrome.service import Service
    service = Service(shutil.which('chromedriver'), log_path=f'{OUTPUT}/chromedriver.log')
    return webdriver.Chrome(options=chromium, service=service)


def skip(why):
    print(f'SKIPPED: {why}', file=sys.stderr)
    sys.exit(77)
