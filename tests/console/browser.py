"""Headless Chromium, driven through its DevTools protocol over a pair of pipes. Standard library only."""

import base64
import json
import os
import select
import shutil
import subprocess
import tempfile
import time

PROGRAMS = ('chromium', 'chromium-headless-shell', 'chromium-browser')
PATIENCE_S = 60


class Browser:
    """One browser with a profile of its own; closed with the `with` block."""

    def __init__(self):
        program = next((found for found in map(shutil.which, PROGRAMS) if found), None)
        if program is None:
            raise RuntimeError('no Chromium here: install one of ' + ', '.join(PROGRAMS))
        self.profile = tempfile.mkdtemp(prefix='zem-chromium-')
        ours_in, theirs_out = os.pipe()
        theirs_in, ours_out = os.pipe()
        # The browser reads commands from descriptor 3 and writes answers to 4.
        self.process = subprocess.Popen(
            ['sh', '-c', 'exec "$@" 3<&%d 4>&%d' % (theirs_in, theirs_out), 'sh', program, '--headless', '--no-sandbox',
             '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
             '--disable-component-update', '--disable-sync', '--hide-scrollbars', '--disable-dev-shm-usage',
             '--user-data-dir=' + self.profile, '--remote-debugging-pipe', 'about:blank'],
            pass_fds=(theirs_in, theirs_out), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, env={**os.environ, 'HOME': self.profile, 'LANG': 'C.UTF-8', 'TZ': 'UTC'})
        os.close(theirs_in), os.close(theirs_out)
        self.read_end, self.write_end = ours_in, ours_out
        self.buffer, self.number, self.events = b'', 0, []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self.command('Browser.close')
        except (OSError, RuntimeError):
            pass
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        os.close(self.read_end), os.close(self.write_end)
        shutil.rmtree(self.profile, ignore_errors=True)

    def receive(self, deadline):
        """The next message, or None at the deadline."""
        while b'\0' not in self.buffer:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.read_end], [], [], left)[0]:
                return None
            more = os.read(self.read_end, 1 << 20)
            if not more:
                raise RuntimeError('Chromium ended')
            self.buffer += more
        message, self.buffer = self.buffer.split(b'\0', 1)
        return json.loads(message)

    def command(self, method, session=None, **parameters):
        self.number += 1
        message = {'id': self.number, 'method': method, 'params': parameters}
        if session:
            message['sessionId'] = session
        self.write(json.dumps(message).encode() + b'\0')
        deadline = time.monotonic() + PATIENCE_S
        while True:
            answer = self.receive(deadline)
            if answer is None:
                raise RuntimeError(method + ' is not answered')
            if answer.get('id') == self.number:
                if 'error' in answer:
                    raise RuntimeError('%s: %s' % (method, answer['error']))
                return answer['result']
            self.events.append(answer)

    def write(self, data):
        while data:
            data = data[os.write(self.write_end, data):]

    def receive_into_events(self, timeout_s):
        """Takes one event, if one comes within the time."""
        message = self.receive(time.monotonic() + timeout_s)
        if message is not None:
            self.events.append(message)

    def page(self):
        target = self.command('Target.createTarget', url='about:blank')['targetId']
        session = self.command('Target.attachToTarget', targetId=target, flatten=True)['sessionId']
        return Page(self, target, session)


class Page:
    def __init__(self, browser, target, session):
        self.browser, self.target, self.session = browser, target, session
        for domain in ('Page', 'Runtime', 'Network', 'Log', 'Accessibility'):
            self.command(domain + '.enable')

    def command(self, method, **parameters):
        return self.browser.command(method, self.session, **parameters)

    def close(self):
        self.browser.command('Target.closeTarget', targetId=self.target)

    def events(self, method):
        return [event['params'] for event in self.browser.events
                if event.get('sessionId') == self.session and event['method'] == method]

    def wait_event(self, method):
        """Waits for an event that is not there yet; returns its parameters."""
        deadline = time.monotonic() + PATIENCE_S
        while True:
            message = self.browser.receive(deadline)
            if message is None:
                raise RuntimeError('no ' + method)
            self.browser.events.append(message)
            if message.get('method') == method and message.get('sessionId') == self.session:
                return message['params']

    def look(self, width, height, dark=False, reduced_motion=False, scale=1):
        self.command('Emulation.setDeviceMetricsOverride', width=width, height=height, deviceScaleFactor=scale,
                     mobile=width < 600)
        self.command('Emulation.setEmulatedMedia', features=[
            {'name': 'prefers-color-scheme', 'value': 'dark' if dark else 'light'},
            {'name': 'prefers-reduced-motion', 'value': 'reduce' if reduced_motion else 'no-preference'}])

    def open(self, url):
        self.command('Page.navigate', url=url)
        self.wait_for('document.readyState === "complete"')

    def run(self, expression):
        """The value of a JavaScript expression in the page."""
        result = self.command('Runtime.evaluate', expression=expression, returnByValue=True, awaitPromise=True)
        if 'exceptionDetails' in result:
            raise RuntimeError('%s: %s' % (expression, result['exceptionDetails']))
        return result['result'].get('value')

    def wait_for(self, condition):
        """Asks the page, frame by frame, until the condition holds."""
        deadline = time.monotonic() + PATIENCE_S
        while not self.run('!!(%s)' % condition):
            if time.monotonic() > deadline:
                raise AssertionError('never true: %s; the page says: %s' % (condition, self.run('document.body.innerText')))
            self.browser.receive_into_events(0.02)

    def text(self, selector):
        return self.run('document.querySelector(%s).innerText' % json.dumps(selector))

    def picture(self, whole=False):
        """What is seen, as a PNG file's bytes."""
        return base64.b64decode(self.command('Page.captureScreenshot', format='png', captureBeyondViewport=whole)['data'])

    def screenshot(self, path, whole=False):
        with open(path, 'wb') as out:
            out.write(self.picture(whole))
