"""Drives a headless Chromium over its debugging pipe; needs nothing but Python's own library."""

import base64
import fcntl
import json
import os
import select
import shutil
import subprocess
import tempfile
import time

PATIENCE = 20  # seconds, for whatever is awaited
OPTIONS = """--headless --no-sandbox --disable-gpu --disable-quic --no-first-run
    --disable-background-networking --disable-component-update --disable-sync
    --disable-dev-shm-usage --hide-scrollbars --remote-debugging-pipe""".split()


def await_true(condition, what):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {PATIENCE} s: {what}")
        time.sleep(0.05)


def executable():
    for name in ("chromium-headless-shell", "chromium"):
        if found := shutil.which(name):
            return found
    raise SystemExit("no chromium-headless-shell and no chromium here")


class Navigated(Exception):
    """The page was left for another, or for itself anew, while it was asked for something."""


class Chromium:
    """One tab. What the page logs as an error and every address it asks for are kept."""

    def __init__(self, *options):
        self._profile = tempfile.mkdtemp(prefix="kel-chromium-")
        theirs, self._to = os.pipe()
        self._from, theirs_too = os.pipe()
        # The browser reads descriptor 3 and writes 4, which may be taken by the ends of the pipes.
        ends = [fcntl.fcntl(end, fcntl.F_DUPFD, 10) for end in (theirs, theirs_too)]

        def place():
            os.dup2(ends[0], 3)
            os.dup2(ends[1], 4)

        command = [executable(), *OPTIONS, *options, f"--user-data-dir={self._profile}", "about:blank"]
        self._process = subprocess.Popen(command, preexec_fn=place, close_fds=False,
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        for end in (*ends, theirs, theirs_too):
            os.close(end)
        self._buffer, self._id, self._session = b"", 0, None
        self.errors, self.requests = [], []
        targets = self.call("Target.getTargets")["targetInfos"]
        page = next(target for target in targets if target["type"] == "page")
        attached = self.call("Target.attachToTarget", targetId=page["targetId"], flatten=True)
        self._session = attached["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.call(domain + ".enable")

    def close(self):
        # Asked, not killed: its helper processes would go on writing to the profile for a moment.
        self._session = None
        try:
            self.call("Browser.close")
            self._process.wait(PATIENCE)
        finally:
            self._process.kill()
            self._process.wait()
        os.close(self._to)
        os.close(self._from)
        shutil.rmtree(self._profile, ignore_errors=True)

    def call(self, method, **params):
        self._id += 1
        message = {"id": self._id, "method": method, "params": params}
        if self._session:
            message["sessionId"] = self._session
        os.write(self._to, json.dumps(message).encode() + b"\0")
        while (answer := self._receive()).get("id") != self._id:
            self._note(answer)
        if "navigated" in answer.get("error", {}).get("message", ""):
            raise Navigated(method)
        if "error" in answer:
            raise AssertionError(f"{method}: {answer['error']}")
        return answer["result"]

    def _receive(self):
        while b"\0" not in self._buffer:
            if not select.select([self._from], [], [], PATIENCE)[0]:
                raise AssertionError("the browser does not answer")
            block = os.read(self._from, 1 << 16)
            if not block:
                raise AssertionError("the browser has ended")
            self._buffer += block
        message, self._buffer = self._buffer.split(b"\0", 1)
        return json.loads(message)

    def _note(self, event):
        params = event.get("params", {})
        if event.get("method") == "Runtime.exceptionThrown":
            self.errors.append(params["exceptionDetails"].get("text", ""))
        elif event.get("method") == "Log.entryAdded" and params["entry"]["level"] == "error":
            self.errors.append(params["entry"]["text"])
        elif event.get("method") == "Network.requestWillBeSent":
            self.requests.append(params["request"]["url"])

    def open(self, url):
        failure = self.call("Page.navigate", url=url).get("errorText")
        if failure:
            raise AssertionError(f"{url}: {failure}")
        there = "document.readyState === 'complete' && location.href.split('#')[0]"
        await_true(lambda: self.run(there) == url.split("#")[0], f"{url} loads")

    def run(self, script):
        """The value of a JavaScript expression in the page; promises are awaited."""
        try:
            result = self.call("Runtime.evaluate", expression=script, returnByValue=True,
                               awaitPromise=True)
        except Navigated:
            return self.run(script)
        if "exceptionDetails" in result:
            raise AssertionError(f"{script}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def text(self, selector):
        return self.run(f"document.querySelector({json.dumps(selector)}).textContent")

    def await_text(self, selector, expected):
        await_true(lambda: expected in self.text(selector), f"{expected} in {selector}")

    def show_as(self, width, height, dark=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=1, mobile=width < 600)
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.call("Emulation.setEmulatedMedia", features=[scheme])

    def screenshot(self, path):
        image = self.call("Page.captureScreenshot", format="png")["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(image))
