"""Who is let into the panel, and what its paths answer; no browser."""
import json
import os
import re
import socket
import subprocess
import threading
import time

from rig import (BUILD, OUTPUT, PORT, Processes, request, set_password, state, status_of, uevent,
                 wait_condition, wait_for)

ADDRESS = ('127.0.0.1', PORT)
SANITIZED = re.search(rb'__[at]san_init', open(f'{BUILD}/mv3300-panel', 'rb').read())


def raw(text):
    """The first bytes that come back."""
    with socket.create_connection(ADDRESS, timeout=15) as connection:
        connection.sendall(text)
        return connection.recv(65536)


def get(path, *headers, version='1.1'):
    lines = [f'GET {path} HTTP/{version}', 'Host: localhost', 'Connection: close', *headers]
    return '\r\n'.join(lines).encode() + b'\r\n\r\n'


def memory():
    pid = subprocess.run(['pidof', 'mv3300-panel'], capture_output=True, text=True).stdout.split()
    for line in open(f'/proc/{pid[0]}/status'):
        if line.startswith('VmRSS'):
            return int(line.split()[1]) * 1024


def test_refusals():
    json_type = {'Content-Type': 'application/json'}
    cases = [
        (200, 'GET', '/', {}, None),
        (200, 'GET', '/', {'Host': '[::1]:8080'}, None),
        (200, 'GET', '/', {'Host': '192.0.2.1'}, None),
        (421, 'GET', '/', {'Host': 'evil.example'}, None),
        (421, 'GET', '/api/state', {'Host': 'evil.example:8080'}, None),
        (421, 'GET', '/', {'Host': '127.0.0.1.evil.example'}, None),
        (403, 'GET', '/api/state', {'Origin': 'http://evil.example'}, None),
        (403, 'GET', '/api/state', {'Origin': f'http://127.0.0.1:{PORT}.evil.example'}, None),
        (403, 'POST', '/api/login', {'Origin': 'null', **json_type}, '{"password": "x"}'),
        (403, 'POST', '/api/logout', {'Sec-Fetch-Site': 'cross-site'}, None),
        (200, 'GET', '/api/state', {'Origin': f'http://127.0.0.1:{PORT}'}, None),
        (401, 'PUT', '/api/settings', json_type, '{"gop": 30}'),
        (401, 'PUT', '/api/settings', {'Cookie': 'mv3300_session=', **json_type}, '{"gop": 30}'),
        (400, 'POST', '/api/login', json_type, '["password"]'),
        (415, 'POST', '/api/login', {'Content-Type': 'text/plain'}, '{"password": "x"}'),
        (415, 'POST', '/api/login', {'Content-Encoding': 'gzip', **json_type}, 'x'),
        (413, 'POST', '/api/login', json_type, 'x' * 4097),
        (431, 'GET', '/', {'X-Long': 'x' * 9000}, None),
        (404, 'GET', '/../../etc/passwd', {}, None),
        (404, 'GET', '/index.html/', {}, None),
    ]
    for status, method, path, headers, body in cases:
        answer = request(method, path, body, headers)
        assert answer[0] == status, (answer, method, path, headers)
        assert "script-src 'self'" in answer[1].get('Content-Security-Policy', "script-src 'self'")
    raw_cases = [
        (400, b'GET / HTTP/1.1\r\n\r\n'),
        (400, b'POST /api/login HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1x\r\n\r\n'),
        (411, b'POST /api/login HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n'),
        (400, b'\0\1\2\r\n\r\n'),
    ]
    for status, text in raw_cases:
        answer = raw(text)
        assert answer.startswith(b'HTTP/1.1 %d ' % status), (status, text, answer[:80])


def test_headers():
    status, headers, _ = request('GET', '/')
    policy = headers['Content-Security-Policy']
    assert "default-src 'none'" in policy and "script-src 'self';" in policy
    assert 'unsafe' not in policy and "frame-ancestors 'none'" in policy
    assert headers['X-Content-Type-Options'] == 'nosniff' and headers['X-Frame-Options'] == 'DENY'
    tag = request('GET', '/panel.css')[1]['ETag']
    assert request('GET', '/panel.css', headers={'If-None-Match': tag})[0] == 304
    assert request('GET', '/panel.css', headers={'If-None-Match': '"x"'})[0] == 200


def test_password():
    assert request('POST', '/api/login', {'password': 'x'})[0] == 401, 'none is set'
    set_password('correct horse')
    stored = open('/config/mv3300/panel.password').read()
    assert stored.startswith('$y$') and 'horse' not in stored
    assert os.stat('/config/mv3300/panel.password').st_mode & 0o777 == 0o600
    for wait in (0, 0, 0, 0, 0, 1.1, 2.1):  # s; five are free, then each doubles it
        time.sleep(wait)
        assert request('POST', '/api/login', {'password': 'wrong horse'})[0] == 401
    status, headers, _ = request('POST', '/api/login', {'password': 'correct horse'})
    assert status == 429 and int(headers['Retry-After']) > 2
    time.sleep(int(headers['Retry-After']) + 0.1)
    status, headers, body = request('POST', '/api/login', {'password': 'correct horse'})
    assert (status, body) == (204, b'')
    assert 'HttpOnly' in headers['Set-Cookie'] and 'SameSite=Strict' in headers['Set-Cookie']
    cookie = {'Cookie': headers['Set-Cookie'].split(';')[0]}
    asked = wait_for('the guard asks', lambda: state()['settings'], 10)['time']
    assert request('PUT', '/api/settings', {'gap': 1}, cookie)[0] == 400
    assert state()['settings']['time'] == asked, 'the panel does not ask for nothing'
    foreign = {**cookie, 'Origin': 'http://evil.example'}
    assert request('PUT', '/api/settings', {'gop': 30}, foreign)[0] == 403
    out_of_range = json.loads(request('PUT', '/api/settings', {'gop': 121}, cookie)[2])
    assert not out_of_range['done'] and out_of_range['results'][0]['outcome'] == 'refused'
    assert '2 to 120' in out_of_range['results'][0]['reason']
    set_password('another horse')
    assert request('PUT', '/api/settings', {'gop': 30}, cookie)[0] == 401, 'password changed'
    headers = request('POST', '/api/login', {'password': 'another horse'})[1]
    cookie = {'Cookie': headers['Set-Cookie'].split(';')[0]}
    assert request('POST', '/api/logout', None, cookie)[0] == 204
    assert request('PUT', '/api/settings', {'gop': 30}, cookie)[0] == 401, 'logged out'


def test_pictures():
    status, headers, body = request('GET', '/snapshot.jpeg')
    assert status == 200 and body[:2] == b'\xff\xd8' and body[-2:] == b'\xff\xd9'
    assert int(headers['Age']) < 5 and 'GMT' in headers['Last-Modified']
    for version in ('1.0', '1.1'):
        file = f'/tmp/live-{version}.mp4'
        subprocess.run(['curl', '-s', f'--http{version}', '-m', '3', '-o', file,
                        f'http://127.0.0.1:{PORT}/live.mp4'])
        assert decoded(file) > 60
    parts = subprocess.run(
        ['curl', '-s', '-m', '2', f'http://127.0.0.1:{PORT}/preview.mjpeg'], capture_output=True)
    assert parts.stdout.count(b'Content-Type: image/jpeg') > 5


def decoded(file):
    """How many pictures of it a player shows."""
    run = subprocess.run(['gst-launch-1.0', 'filesrc', f'location={file}', '!', 'qtdemux', '!',
                          'h264parse', '!', 'avdec_h264', '!', 'identity', 'silent=false', '!',
                          'fakesink', '-v'], capture_output=True, text=True, timeout=30)
    assert run.returncode == 0, run.stderr
    return run.stdout.count('chain')


def test_session_description():
    """Of what the box sends, whether to its group or to receivers of a list."""
    file = '/config/mv3300/param.xml'
    usual = open(file).read()
    row = '<PARAM NAME="addr_list" TYPE="string">'
    for receivers, lines in (('', ('c=IN IP4 234.29.78.95/1', 'm=video 59202 RTP/AVP ')),
                             ('192.0.2.7:5000,192.0.2.8:5002',
                              ('c=IN IP4 192.0.2.7', 'm=video 5000 RTP/AVP '))):
        with open(file, 'w') as target:
            target.write(usual.replace(row, row + receivers))
        told = request('GET', '/stream.sdp')[2].decode()
        assert told.count('c=IN IP4') == 1 and ';sprop-parameter-sets=' in told, told
        for line in lines:
            assert f'\r\n{line}' in told and f'{lines[0]}\r\n' in told, told
    with open(file, 'w') as target:
        target.write(usual)


def test_figures():
    lines = []
    asked = state()['settings']['time']
    for path in ('/metrics', '/api/settings'):
        before = open('/run/mv3300d/mv3300.log').read().count('boxes parse success')
        for _ in range(20):
            status, _, body = request('GET', path)
        assert status == 200
        lines.append(open('/run/mv3300d/mv3300.log').read().count('boxes parse success') - before)
    assert lines == [0, 1], 'questions to the daemon'
    known = state()['settings']
    assert known['h264_gop'] == 60 and known['time'] > asked, 'the panel has the newer answer'
    figures = request('GET', '/metrics')[2].decode()
    assert 'mv3300_condition{condition="streaming"} 1' in figures
    packets = float(re.search(r'^mv3300_stream_packets_total (\S+)', figures, re.M)[1])
    intervals = float(re.search(r'interval_seconds_count (\S+)', figures, re.M)[1])
    assert packets > 100 and intervals > 30
    first = next(iter(open_events()))
    assert first['condition'] == 'streaming' and first['panel']['most_viewers'] == 16


def open_events():
    with socket.create_connection(ADDRESS, timeout=5) as connection:
        connection.sendall(get('/api/events'))
        for line in connection.makefile('rb'):
            if line.startswith(b'data: '):
                yield json.loads(line[6:])


def test_slow_sender():
    begin = time.monotonic()
    with socket.create_connection(ADDRESS, timeout=15) as connection:
        for letter in b'GET / HTTP/1.1\r\nHost: localhost\r\nX: ' + b'x' * 30:
            connection.send(bytes([letter]))
            connection.settimeout(0.5)
            try:
                answer = connection.recv(100)
                break
            except socket.timeout:
                continue
    assert answer.startswith(b'HTTP/1.1 408 ') and 8 < time.monotonic() - begin < 13


def test_idle_connections():
    idle = [socket.create_connection(ADDRESS, timeout=5) for _ in range(500)]
    begin = time.monotonic()
    assert status_of('GET', '/') == 200 and time.monotonic() - begin < 2
    assert status_of('GET', '/api/state') == 200
    for connection in idle:
        connection.close()


def boxes(content):
    at = 0
    while at + 8 <= len(content):
        size = int.from_bytes(content[at:at + 4], 'big')
        if at + size > len(content):
            return
        yield content[at + 4:at + 8], content[at + 8:at + size]
        at += size


def fragments(content):
    """Of an MP4 the fragments' times, and whether they begin at a key picture (NAL type 5)."""
    moment = None
    for kind, inner in boxes(content):
        if kind == b'moof':
            track = dict(boxes(dict(boxes(inner))[b'traf']))
            moment = int.from_bytes(track[b'tfdt'][4:], 'big')
        elif kind == b'mdat':
            units = set()
            while inner:
                size = int.from_bytes(inner[:4], 'big')
                units.add(inner[4] & 31)
                inner = inner[4 + size:]
            yield moment, 5 in units


def test_viewers():
    """Sixteen watch, and one of them takes nothing for a while: it goes on at a key picture, and
    neither the others nor the memory pay for it."""
    counts = [0] * 16
    slow = bytearray()
    stop, go_on = threading.Event(), threading.Event()

    def watch(index):
        with socket.socket() as connection:
            if index == 0:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
            connection.settimeout(15)
            connection.connect(ADDRESS)
            connection.sendall(get('/live.mp4', version='1.0'))
            while not stop.is_set():
                if index == 0 and not go_on.is_set():
                    time.sleep(0.1)
                    continue
                received = connection.recv(65536)
                counts[index] += len(received)
                slow.extend(received if index == 0 else b'')

    threads = [threading.Thread(target=watch, args=(i,)) for i in range(16)]
    for thread in threads:
        thread.start()
    wait_for('sixteen viewers', lambda: state()['panel']['viewers'] == 16, 10)
    status, headers, body = request('GET', '/live.mp4')
    assert status == 503 and 'watching already' in json.loads(body)['error']
    before, at_begin = list(counts), memory()
    time.sleep(7)
    grown = [now - was for now, was in zip(counts, before)]
    at_end = memory()
    go_on.set()
    time.sleep(3)
    stop.set()
    for thread in threads:
        thread.join()
    assert min(grown[1:]) > 300000, grown
    if SANITIZED:
        print('SKIPPED: a sanitizer is built in, the memory is its own', flush=True)
    else:
        assert at_end - at_begin < 8e6
    content = bytes(slow[slow.index(b'\r\n\r\n') + 4:])
    seen = list(fragments(content))
    steps = [(seen[i][0] - seen[i - 1][0], seen[i][1]) for i in range(1, len(seen))]
    usual = sorted(steps)[len(steps) // 2][0]
    leaps = [key for step, key in steps if step > 30 * usual]
    assert leaps and all(leaps), (usual, steps)
    with open('/tmp/slow.mp4', 'wb') as file:
        file.write(content)
    assert decoded('/tmp/slow.mp4') in (len(seen) - 1, len(seen)), len(seen)
    wait_for('all are gone', lambda: state()['panel']['viewers'] == 0, 15)


def test_tls():
    for name in ('a', 'b'):
        subprocess.run(['openssl', 'req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-days', '1',
                        '-subj', '/CN=localhost', '-addext', 'subjectAltName=DNS:localhost',
                        '-keyout', f'/tmp/{name}.key', '-out', f'/tmp/{name}.pem'], check=True,
                       capture_output=True)

    def start(certificate, key):
        return subprocess.Popen([f'{BUILD}/mv3300-panel', '--listen', '8443', '--stream-port',
                                 '12399', '--tls-cert', certificate, '--tls-key', key],
                                stderr=subprocess.PIPE, text=True)

    def curl(*options):
        return subprocess.run(['curl', '-si', '--cacert', '/tmp/a.pem', *options],
                              capture_output=True, text=True).stdout
    for certificate, key, sentence in (
            ('/tmp/a.pem', '/tmp/b.key',
             'the key /tmp/b.key cannot be used: key values mismatch'),
            ('/tmp/a.pem', '/tmp/a.pem', 'the key /tmp/a.pem cannot be used: '),
            ('/tmp/a.pem', '/nowhere',
             'the key /nowhere cannot be used: No such file or directory'),
            ('/nowhere', '/tmp/a.key',
             'the certificate /nowhere cannot be used: No such file or directory')):
        panel = start(certificate, key)
        told = panel.communicate(timeout=20)[1]
        assert panel.returncode == 1 and sentence in told, (panel.returncode, told)
    panel = start('/tmp/a.pem', '/tmp/a.key')
    page = wait_for('a page', lambda: curl('https://localhost:8443/'), 10)
    assert 'HTTP/1.1 200 ' in page and '<title>' in page
    answer = curl('https://localhost:8443/api/login', '-H', 'Content-Type: application/json',
                  '-d', '{"password": "another horse"}')
    assert 'HTTP/1.1 204 ' in answer and '; Secure' in answer, answer
    assert not curl('http://localhost:8443/') and not curl('--tls-max', '1.1',
                                                           'https://localhost:8443/')
    panel.terminate()
    assert panel.wait(20) == 0


def test_alone():
    """Without guard and daemon the panel says what is missing."""
    with open(f'{OUTPUT}/alone.log', 'w') as log:
        panel = subprocess.Popen([f'{BUILD}/mv3300-panel', '--listen', '8099', '--stream-port',
                                  '12399', '--state', '/nowhere', '--preview', '/nowhere'],
                                 stderr=log)
    page = wait_for('a page', lambda: subprocess.run(
        ['curl', '-s', 'localhost:8099/'], capture_output=True, text=True).stdout, 10)
    assert 'The guard (mv3300-guard) is not running' in page
    answer = subprocess.run(['curl', '-si', 'localhost:8099/snapshot.jpeg'], capture_output=True)
    assert b' 503 ' in answer.stdout[:20] and b'\xff\xd8' in answer.stdout
    panel.terminate()
    assert panel.wait(10) == 0


def test_no_signal():
    uevent('0x0@0-0')
    wait_condition('no-signal')
    status, headers, body = request('GET', '/snapshot.jpeg')
    assert status == 503 and headers['Content-Type'] == 'image/jpeg' and body[:2] == b'\xff\xd8'


if __name__ == '__main__':
    processes = Processes()
    processes.start_all()
    uevent('1280x720@30-0')
    wait_condition('streaming')
    time.sleep(3)
    for test in (test_refusals, test_headers, test_password, test_pictures,
                 test_session_description, test_figures, test_slow_sender, test_idle_connections,
                 test_viewers, test_tls, test_alone, test_no_signal):
        start = time.monotonic()
        test()
        print(f'{test.__name__}: {time.monotonic() - start:.1f} s', flush=True)
    processes.stop('mv3300-panel')
