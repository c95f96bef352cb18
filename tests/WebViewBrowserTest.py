#!/usr/bin/env python3
"""norvane web in headless Chromium, against the real norvaned and norvane binaries.

Usage: WebViewBrowserTest.py BUILD_DIR [SCREENSHOT.png]

Starts norvaned with a configuration of its own on a free 127.0.0.1 port and `norvane web` on
it, drives Chromium through the DevTools protocol (over --remote-debugging-pipe), and checks what
a person would see: lines in order, the filter, text never taken for HTML, pause and resume, a
daemon restart, a phone-width screen, and the token. Writes a screenshot of the page. Every wait
is bounded; every process is stopped by its pid. Exit status 0 when every check passed.
"""
import base64
import fcntl
import json
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

WAIT = 30.0  # seconds for any one condition: generous for a busy 2-core machine
PASSWORD = 'browser-test-9Qz'


class Failure(Exception):
    pass


def free_port():
    with socket.socket() as s:
        s.bind(('127.0.0.1', 0))
        return s.getsockname()[1]


def stop(process):
    """Stops a child by its pid: SIGTERM, then SIGKILL after 10 s. Returns its exit status."""
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait(10)
    return process.returncode


class Browser:
    """Headless Chromium and one page, driven through the DevTools protocol on fds 3 and 4."""

    def __init__(self, work):
        to_browser = os.pipe()
        from_browser = os.pipe()
        # Above 4, so that placing them on 3 and 4 in the child overwrites nothing still needed.
        ends = [fcntl.fcntl(fd, fcntl.F_DUPFD, 10) for fd in (to_browser[0], from_browser[1])]

        def place():
            os.dup2(ends[0], 3)
            os.dup2(ends[1], 4)

        args = [shutil.which('chromium') or '/usr/bin/chromium', '--headless', '--no-sandbox',
                '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-sync',
                '--disable-background-networking', '--disable-component-update',
                '--disable-dev-shm-usage', '--hide-scrollbars', '--remote-debugging-pipe',
                '--user-data-dir=' + os.path.join(work, 'chromium'), 'about:blank']
        self.log = open(os.path.join(work, 'chromium.log'), 'wb')
        self.process = subprocess.Popen(args, stdin=subprocess.DEVNULL, stdout=self.log,
                                        stderr=self.log, pass_fds=(3, 4), preexec_fn=place)
        for fd in (*to_browser, *from_browser, *ends):
            if fd not in (to_browser[1], from_browser[0]):
                os.close(fd)
        self.out = to_browser[1]
        self.inp = from_browser[0]
        self.buffer = b''
        self.next_id = 0
        self.session = None
        target = self.call('Target.createTarget', {'url': 'about:blank'})['targetId']
        self.session = self.call('Target.attachToTarget',
                                 {'targetId': target, 'flatten': True})['sessionId']
        self.call('Runtime.enable')
        self.size(1280, 640)

    def call(self, method, params=None):
        self.next_id += 1
        message = {'id': self.next_id, 'method': method, 'params': params or {}}
        if self.session:
            message['sessionId'] = self.session
        os.write(self.out, json.dumps(message).encode() + b'\0')
        deadline = time.monotonic() + WAIT
        while True:
            while b'\0' in self.buffer:
                raw, self.buffer = self.buffer.split(b'\0', 1)
                reply = json.loads(raw)
                if reply.get('id') == self.next_id:
                    if 'error' in reply:
                        raise Failure(f'{method}: {reply["error"]}')
                    return reply['result']
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.inp], [], [], left)[0]:
                raise Failure(f'{method}: no answer from Chromium within {WAIT} s')
            chunk = os.read(self.inp, 1 << 20)
            if not chunk:
                raise Failure(f'{method}: Chromium closed the pipe')
            self.buffer += chunk

    def size(self, width, height, mobile=False):
        self.call('Emulation.setDeviceMetricsOverride',
                  {'width': width, 'height': height, 'deviceScaleFactor': 1, 'mobile': mobile})

    def js(self, expression):
        result = self.call('Runtime.evaluate', {'expression': expression, 'returnByValue': True})
        if 'exceptionDetails' in result:
            raise Failure(f'{expression}: {result["exceptionDetails"]}')
        return result['result'].get('value')

    def wait(self, expression, what):
        """Waits until the expression (JavaScript, or a Python callable) is true."""
        deadline = time.monotonic() + WAIT
        while time.monotonic() < deadline:
            value = expression() if callable(expression) else self.js(expression)
            if value:
                return value
            time.sleep(0.1)
        raise Failure(f'waited {WAIT} s for {what}; the page shows: {self.lines(all_rows=True)}')

    def open(self, url):
        self.call('Page.navigate', {'url': url})
        self.wait("document.readyState === 'complete' && !!document.getElementById('log')",
                  'the page to load')

    def type(self, text):
        self.call('Input.insertText', {'text': text})

    def key(self, name, code):
        for kind in ('keyDown', 'keyUp'):
            self.call('Input.dispatchKeyEvent', {'type': kind, 'key': name, 'code': name,
                                                 'windowsVirtualKeyCode': code})

    def click(self, element_id):
        self.js(f"document.getElementById('{element_id}').click()")

    def lines(self, all_rows=False):
        """The log lines the page shows: 'source|text', those not laid out left out."""
        selector = '#log .l' if all_rows else '#log .l:not(.sys)'
        return self.js(f"[...document.querySelectorAll('{selector}')]"
                       ".filter(e => e.getClientRects().length > 0)"
                       ".map(e => e.querySelector('.s').textContent + '|' + "
                       "e.querySelector('.t').textContent)")

    def chip(self, name):
        return self.js(f"[...document.querySelectorAll('.chip')].filter(c => "
                       f"c.querySelector('.name').textContent === '{name}')"
                       ".map(c => c.dataset.state)[0] || ''")

    def screenshot(self, path):
        data = self.call('Page.captureScreenshot', {'format': 'png'})['data']
        with open(path, 'wb') as f:
            f.write(base64.b64decode(data))

    def close(self):
        try:
            os.close(self.out)
            os.close(self.inp)
        finally:
            stop(self.process)
            self.log.close()


class Setup:
    """A daemon serving logs/ and the norvane web that follows app.log and db.log on it."""

    def __init__(self, build, work):
        self.build = build
        self.work = work
        self.logs = os.path.join(work, 'logs')
        self.home = os.path.join(work, 'home')
        os.makedirs(self.logs)
        os.makedirs(self.home)
        shutil.copy(os.path.join(build, 'norvaned'), self.home)
        self.port = free_port()
        with open(os.path.join(self.home, 'Norvane.cf'), 'w') as f:
            f.write('FileVersion=1.0\n[SessionManager]\n[SessionManager\\Ports\\MonitoringPort]\n'
                    f'IncomingServer=127.0.0.1\nIncomingPort={self.port}\n'
                    f'DocumentRoot={self.logs}\nPassword={PASSWORD}\n')
        os.chmod(os.path.join(self.home, 'Norvane.cf'), 0o600)
        self.daemon = None
        self.webs = []

    def append(self, name, text):
        with open(os.path.join(self.logs, name), 'a') as f:
            f.write(text)

    def start_daemon(self):
        log = os.path.join(self.home, 'Norvane.log')
        if os.path.exists(log):
            os.unlink(log)
        self.daemon = subprocess.Popen([os.path.join(self.home, 'norvaned'), '--foreground'],
                                       cwd=self.home, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + WAIT
        while time.monotonic() < deadline:
            if os.path.exists(log) and ' listening on ' in open(log, errors='replace').read():
                return
            if self.daemon.poll() is not None:
                break
            time.sleep(0.1)
        raise Failure('norvaned did not start: ' + open(log, errors='replace').read())

    def start_web(self, *extra):
        """Starts norvane web on a free port; returns its address as printed."""
        err = os.path.join(self.work, f'web{len(self.webs)}.err')
        env = dict(os.environ, NORVANE_PASSWORD=PASSWORD)
        env.pop('NORVANE_WEB_TOKEN', None)
        web = subprocess.Popen([os.path.join(self.build, 'norvane'), 'web', '--listen',
                                '127.0.0.1:0', '-F', '-n', '3', '-p', str(self.port), *extra],
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=open(err, 'w'), env=env)
        self.webs.append((web, err))
        deadline = time.monotonic() + WAIT
        while time.monotonic() < deadline:
            found = re.search(r'web view on (http://\S+)', open(err).read())
            if found:
                return found.group(1)
            if web.poll() is not None:
                break
            time.sleep(0.1)
        raise Failure('norvane web did not start: ' + open(err).read())

    def close(self):
        """Stops everything; fails when a norvane web did not end cleanly on SIGTERM."""
        problems = []
        for web, err in self.webs:
            status = stop(web)
            if status != 0:
                problems.append(f'norvane web ended with {status}: {open(err).read()}')
        if self.daemon:
            stop(self.daemon)
        if problems:
            raise Failure('\n'.join(problems))


def check(condition, what):
    if not condition:
        raise Failure(what)


def run(build, screenshot):
    work = tempfile.mkdtemp(prefix='norvane-web-test.')
    setup = Setup(build, work)
    browser = None
    try:
        setup.append('app.log', 'old 1\nold 2\nold 3\nold 4\n')
        setup.append('db.log', 'db ready\n')
        setup.start_daemon()
        url = setup.start_web('app.log', 'db.log')
        browser = Browser(work)

        # The page loads, shows both sources following, and the last 3 lines of app.log (-n 3).
        browser.open(url)
        for name in ('app.log', 'db.log'):
            browser.wait(lambda: browser.chip(name) == 'following', f'{name} to be followed')
        browser.wait("document.querySelectorAll('#log .l:not(.sys)').length >= 4",
                     'the backlog')
        expected = ['app.log|old 2', 'app.log|old 3', 'app.log|old 4']

        # Lines appended appear in order; markup in a line is shown as text.
        added = [f'line {i}' for i in range(1, 6)] + [
            '<script>window.pwned = 1</script>', '<img src=x onerror="window.pwned = 2">']
        setup.append('app.log', ''.join(line + '\n' for line in added))
        expected += ['app.log|' + line for line in added]
        browser.wait(f"document.body.textContent.includes('onerror=\"window.pwned = 2\"')",
                     'the appended lines')
        app = lambda: [line for line in browser.lines() if line.startswith('app.log|')]
        check(app() == expected, f'app.log lines: {app()}')
        check(browser.js("typeof window.pwned") == 'undefined', 'a log line ran as script')
        check(browser.js("document.querySelectorAll('#log img, #log script').length") == 0,
              'a log line became an element')

        # The filter: as one types, as a regular expression, inverted, and cleared with Escape.
        browser.js("document.getElementById('filter').focus()")
        browser.type('LINE 2')
        browser.wait("document.querySelectorAll('#log .l:not(.sys):not([hidden])').length === 1",
                     'the filter')
        check(browser.lines() == ['app.log|line 2'], f'filtered: {browser.lines()}')
        check(browser.js("document.querySelector('#log mark').textContent") == 'line 2',
              'the match is not marked')
        browser.key('Escape', 27)
        browser.type('line [24]$')
        browser.click('regex')
        browser.wait("document.querySelectorAll('#log .l:not(.sys):not([hidden])').length === 2",
                     'the regular expression')
        check(browser.lines() == ['app.log|line 2', 'app.log|line 4'], f're: {browser.lines()}')
        check(browser.js("location.search") == '?q=line+%5B24%5D%24&re=1',
              'the filter is not kept in the address: ' + browser.js("location.search"))
        browser.click('invert')
        browser.wait("document.querySelectorAll('#log .l:not(.sys)[hidden]').length === 2",
                     'the inverted filter')
        check('app.log|line 2' not in browser.lines() and 'app.log|line 3' in browser.lines(),
              f'inverted: {browser.lines()}')
        browser.click('invert')
        browser.click('regex')
        browser.key('Escape', 27)
        browser.wait("location.search === ''", 'the cleared filter')
        check(app() == expected, f'after the filter: {app()}')

        # Pause holds what arrives and counts it; resume shows it, nothing lost.
        browser.click('pause')
        setup.append('app.log', 'held 1\nheld 2\nheld 3\n')
        browser.wait("document.getElementById('pause').textContent === 'Resume \u00b7 3 new'",
                     'the count of lines held')
        check(not any('held' in line for line in browser.lines()), 'a held line was shown')
        browser.click('pause')
        expected += ['app.log|held 1', 'app.log|held 2', 'app.log|held 3']
        browser.wait("document.body.textContent.includes('held 3')", 'the held lines')
        check(app() == expected, f'after the pause: {app()}')

        # Clear empties the view; what follows is made to look like a real log for the
        # screenshot.
        browser.click('clear')
        check(browser.lines(all_rows=True) == [], 'the view was not cleared')
        stamp = lambda i: f'2026-11-23 13:17:{i:02}'
        app_lines = [f'{stamp(i)} demo[8475]: GET /api/orders/{4100 + i * 7} 200 in '
                     f'{(i * 37) % 90 + 8} ms' for i in range(1, 9)]
        app_lines[5] = f'{stamp(6)} demo[8475]: WARN slow query on orders (1204 ms)'
        setup.append('app.log', ''.join(line + '\n' for line in app_lines[:4]))
        setup.append('db.log', f'{stamp(2)} db[311]: checkpoint complete: wrote 123 buffers\n')
        browser.wait(lambda: len(app()) == 4, 'the lines after the clear')

        # A daemon restart: reconnecting, then the lines written meanwhile, once.
        status = stop(setup.daemon)
        check(status == 0, f'norvaned ended with {status} on SIGTERM')
        browser.wait(lambda: browser.chip('app.log') == 'reconnecting', 'the reconnecting state')
        setup.append('app.log', app_lines[4] + '\n')
        setup.start_daemon()
        browser.wait(lambda: len(app()) == 5, 'the line written while the daemon was down')
        check(browser.chip('app.log') == 'following', 'app.log: ' + browser.chip('app.log'))
        check(any('connection lost' in line for line in browser.lines(all_rows=True)),
              'the loss is not shown among the lines')
        setup.append('app.log', ''.join(line + '\n' for line in app_lines[5:]))
        setup.append('db.log', f'{stamp(7)} db[311]: autovacuum: table orders: 412 dead rows '
                     'removed\n')
        browser.wait(lambda: len(app()) == 8 and len(browser.lines()) == 10, 'the last lines')
        check(app() == ['app.log|' + line for line in app_lines], f'after the restart: {app()}')

        # The screenshot, in the dark theme, with a few more lines.
        more = [('app.log', 'GET /api/orders/4163 200 in 41 ms'),
                ('app.log', 'POST /api/orders 201 in 118 ms'),
                ('db.log', 'checkpoint starting: time'),
                ('app.log', 'GET /api/customers/88 200 in 12 ms'),
                ('app.log', 'ERROR payment gateway timeout after 5000 ms (order 4170)'),
                ('app.log', 'POST /api/orders/4170/retry 202 in 9 ms'),
                ('db.log', 'checkpoint complete: wrote 57 buffers (0.3%); 0 WAL file(s) added'),
                ('app.log', 'GET /api/orders/4170 200 in 22 ms'),
                ('app.log', 'GET /healthz 200 in 1 ms'),
                ('db.log', 'connection authorized: user=app database=orders'),
                ('app.log', 'GET /api/orders?status=open 200 in 64 ms')]
        for i, (name, text) in enumerate(more):
            daemon = 'demo[8475]' if name == 'app.log' else 'db[311]'
            setup.append(name, f'{stamp(9 + i)} {daemon}: {text}\n')
        browser.wait(lambda: len(browser.lines()) == 10 + len(more), 'the lines to show')
        if browser.js("document.documentElement.dataset.theme") != 'dark':
            browser.click('theme')
        browser.js("document.activeElement.blur()")
        time.sleep(0.3)  # the next render
        browser.screenshot(screenshot)

        # A phone-width screen: nothing wider than the screen, the filter usable; scrolled up,
        # the view stays where it is and counts what arrives below.
        browser.size(390, 400, mobile=True)
        browser.wait("document.documentElement.scrollWidth <= 390 && "
                     "document.getElementById('filter').getBoundingClientRect().width > 250",
                     'a layout that fits 390 px')
        # Scrolled up until the page has taken the scroll as its own event: a resize that comes
        # after the scroll takes a following view back to the end, and lines that came before it
        # would be followed.
        browser.wait("(document.getElementById('log').scrollTop = 0, "
                     "!document.getElementById('follow').hidden)", 'the view scrolled up')
        setup.append('app.log', 'below 1\nbelow 2\n')
        browser.wait("document.getElementById('follow').textContent === '\u2193 2 new lines'",
                     'the count of lines below')
        check(browser.js("document.getElementById('log').scrollTop") == 0, 'the view moved')
        browser.click('follow')
        check(browser.js("(e => e.scrollHeight - e.scrollTop - e.clientHeight)"
                         "(document.getElementById('log'))") < 8, 'the view is not at the end')

        # With a token every request needs it; the page opened with it works.
        secured = setup.start_web('--web-token', 'tok-12345678', 'db.log')
        bare = secured.split('?')[0]
        for path in ('', 'events', 'app.js'):
            try:
                urllib.request.urlopen(bare + path, timeout=WAIT)
                raise Failure(f'{bare + path} was served without the token')
            except urllib.error.HTTPError as error:
                check(error.code == 401, f'{bare + path}: {error.code}')
        browser.size(1280, 640)
        browser.open(secured)
        browser.wait("document.body.textContent.includes('connection authorized')",
                     'the page with a token')
        check(browser.js("location.search") == '', 'the token stays in the address')
    finally:
        if browser:
            browser.close()
        setup.close()
        if os.environ.get('NORVANE_KEEP_TEST_DIR'):
            print('kept', work)
        else:
            shutil.rmtree(work, ignore_errors=True)


def main():
    if len(sys.argv) < 2:
        print(__doc__)
        return 2
    build = sys.argv[1]
    screenshot = sys.argv[2] if len(sys.argv) > 2 else os.path.join(build, 'web-view.png')
    started = time.monotonic()
    try:
        run(build, screenshot)
    except Failure as failure:
        print(f'FAILED: {failure}')
        print('0 passed, 1 failed')
        return 1
    print(f'norvane web in Chromium: every check passed in {time.monotonic() - started:.1f} s; '
          f'screenshot {screenshot}')
    print('1 passed, 0 failed')
    return 0


if __name__ == '__main__':
    sys.exit(main())
