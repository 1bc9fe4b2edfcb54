"""Headless Chromium driven over the DevTools protocol on a pipe.

The browser test of the HTML report, its benchmark and the README's
screenshot share this module. Chromium started with --remote-debugging-pipe
reads commands on its descriptor 3 and writes answers and events on its
descriptor 4, each message one JSON text ending in a NUL byte: no websocket,
no library beyond Python's own.

    python3 tests/support/chromium.py screenshot PAGE.html OUT.png [--width W --height H]
    python3 tests/support/chromium.py loadtime PAGE.html [--rounds N]
"""

import argparse
import base64
import fcntl
import json
import os
import select
import shutil
import statistics
import subprocess
import tempfile
import time

# Without the networking flags this machine's closed network refuses the
# browser's own background connections, slowly; a fresh profile each time
# keeps one run from seeing another's state.
FLAGS = [
    "--headless",
    "--no-sandbox",
    "--disable-gpu",
    "--disable-quic",
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    "--remote-debugging-pipe",
]


def find_chromium():
    """The browser's path ($CHROMIUM, else Debian's chromium), or None."""
    named = os.environ.get("CHROMIUM")
    if named:
        return shutil.which(named)
    return shutil.which("chromium")


class BrowserError(Exception):
    pass


class Browser:
    """One browser with one page, attached in flat mode (a session id per command)."""

    def __init__(self, binary, width=1280, height=800, timeout=30):
        self.timeout = timeout
        self.profile = tempfile.mkdtemp(prefix="ferrovan-chromium-")
        self.events = []
        self.answers = {}
        self.buffer = b""
        self.next_id = 0
        self.session = None
        to_browser_r, self.to_browser = os.pipe()
        self.from_browser, from_browser_w = os.pipe()

        def descriptors():
            # Moved above 10 first, so that neither lands on the other's number.
            a = fcntl.fcntl(to_browser_r, fcntl.F_DUPFD, 10)
            b = fcntl.fcntl(from_browser_w, fcntl.F_DUPFD, 10)
            os.dup2(a, 3)
            os.dup2(b, 4)
            os.close(a)
            os.close(b)

        self.log = open(os.path.join(self.profile, "stderr.txt"), "wb")
        self.process = subprocess.Popen(
            [binary] + FLAGS + ["--user-data-dir=" + self.profile, "--window-size=%d,%d" % (width, height),
                                "about:blank"],
            stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log, close_fds=False, preexec_fn=descriptors)
        os.close(to_browser_r)
        os.close(from_browser_w)
        target = self.call("Target.createTarget", {"url": "about:blank"}, session=False)["targetId"]
        self.session = self.call("Target.attachToTarget", {"targetId": target, "flatten": True},
                                 session=False)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log"):
            self.call(domain + ".enable")
        self.resize(width, height)

    # ---- The protocol --------------------------------------------------------

    def _read(self, deadline):
        while b"\0" not in self.buffer:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.from_browser], [], [], left)[0]:
                raise BrowserError("no answer from the browser within %d s" % self.timeout)
            chunk = os.read(self.from_browser, 1 << 20)
            if not chunk:
                raise BrowserError("the browser closed its pipe: " + self.stderr()[-2000:])
            self.buffer += chunk
        message, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, params=None, session=True):
        """Sends one command and returns its result; events met meanwhile are kept."""
        self.next_id += 1
        mine = self.next_id
        message = {"id": mine, "method": method, "params": params or {}}
        if session and self.session:
            message["sessionId"] = self.session
        os.write(self.to_browser, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + self.timeout
        # An event handled on the way may send a command of its own, whose
        # wait then keeps this one's answer here.
        while mine not in self.answers:
            answer = self._read(deadline)
            if "id" in answer:
                self.answers[answer["id"]] = answer
            else:
                self._event(answer)
        answer = self.answers.pop(mine)
        if "error" in answer:
            raise BrowserError("%s: %s" % (method, answer["error"]))
        return answer.get("result", {})

    def _event(self, message):
        if "method" not in message:
            return
        self.events.append(message)
        # A dialog would stop the page until answered: note it and dismiss it.
        if message["method"] == "Page.javascriptDialogOpening":
            self.call("Page.handleJavaScriptDialog", {"accept": False})

    def wait_for(self, method, timeout=None):
        """The parameters of the first event of this kind not yet waited for."""
        deadline = time.monotonic() + (timeout or self.timeout)
        while True:
            for e in self.events:
                if e["method"] == method and not e.get("seen"):
                    e["seen"] = True
                    return e.get("params", {})
            self._event(self._read(deadline))

    def events_of(self, method):
        return [e.get("params", {}) for e in self.events if e["method"] == method]

    def stderr(self):
        self.log.flush()
        with open(self.log.name, "rb") as f:
            return f.read().decode("utf-8", "replace")

    # ---- What the tests do ---------------------------------------------------

    def resize(self, width, height):
        self.call("Emulation.setDeviceMetricsOverride",
                  {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def scripts(self, enabled):
        self.call("Emulation.setScriptExecutionDisabled", {"value": not enabled})

    def open(self, path):
        """Loads a file and waits for its load event; returns the URL."""
        url = "file://" + os.path.abspath(path)
        for e in self.events:
            e["seen"] = True
        self.call("Page.navigate", {"url": url})
        self.wait_for("Page.loadEventFired")
        return url

    def evaluate(self, expression):
        """The value of a JavaScript expression in the page (promises awaited)."""
        result = self.call("Runtime.evaluate",
                           {"expression": expression, "returnByValue": True, "awaitPromise": True})
        if "exceptionDetails" in result:
            raise BrowserError("%s: %s" % (expression[:80], json.dumps(result["exceptionDetails"])[:1000]))
        return result["result"].get("value")

    def click(self, x, y):
        """A real left click at a point of the viewport, as the mouse makes it."""
        self.call("Input.dispatchMouseEvent", {"type": "mouseMoved", "x": x, "y": y})
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent",
                      {"type": kind, "x": x, "y": y, "button": "left", "buttons": 1, "clickCount": 1})

    def screenshot(self, path):
        data = self.call("Page.captureScreenshot", {"format": "png"})["data"]
        with open(path, "wb") as f:
            f.write(base64.b64decode(data))

    def close(self):
        try:
            self.call("Browser.close", session=False)
        except (BrowserError, OSError):
            pass
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        for fd in (self.to_browser, self.from_browser):
            os.close(fd)
        self.log.close()
        shutil.rmtree(self.profile, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def load_time(browser, page):
    """Seconds from the start of navigation to the treemap drawn, and to the load event."""
    browser.open(page)
    timing = browser.evaluate(
        "(() => { const n = performance.getEntriesByType('navigation')[0];"
        " const m = performance.getEntriesByName('treemap-drawn')[0];"
        " return [m ? m.startTime : -1, n.loadEventEnd]; })()")
    return timing[0] / 1000, timing[1] / 1000


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("action", choices=["screenshot", "loadtime"])
    parser.add_argument("page")
    parser.add_argument("out", nargs="?")
    parser.add_argument("--width", type=int, default=1280)
    parser.add_argument("--height", type=int, default=800)
    parser.add_argument("--rounds", type=int, default=5)
    args = parser.parse_args()
    binary = find_chromium()
    if not binary:
        raise SystemExit("chromium is not installed (scripts/setup.sh --browser installs it)")
    if args.action == "screenshot":
        with Browser(binary, args.width, args.height) as b:
            b.open(args.page)
            b.screenshot(args.out)
        return
    # Each round in a fresh browser, so that nothing is cached from the last.
    drawn, loaded = [], []
    for _ in range(args.rounds):
        with Browser(binary, args.width, args.height) as b:
            d, l = load_time(b, args.page)
            drawn.append(d)
            loaded.append(l)
    print("treemap drawn %.3f s, load event %.3f s (medians of %d; each in a fresh browser)"
          % (statistics.median(drawn), statistics.median(loaded), args.rounds))


if __name__ == "__main__":
    main()
