"""Loads pages in a headless Chromium without a network, and notes every complaint and request."""
# SPDX-License-Identifier: Apache-2.0

import base64
import json
import os
import select
import shutil
import signal
import subprocess
import time

LONGEST = 60  # seconds that the browser may take for an answer

ARGUMENTS = [
    "--headless=new", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
    "--no-first-run", "--disable-background-networking", "--disable-component-update",
    "--disable-sync", "--disable-default-apps", "--enable-logging=stderr",
    # What asks for a host all the same gets no answer.
    "--proxy-server=127.0.0.1:9", "--host-resolver-rules=MAP * ~NOTFOUND",
    "--remote-debugging-pipe",
]


class BrowserError(Exception):
    """The browser failed, not the page."""


def without_network():
    """Returns the command that runs another one without any network, if the system allows it."""
    command = ["unshare", "-n"]
    allowed = shutil.which("unshare") and subprocess.run(
        command + ["true"], stderr=subprocess.DEVNULL, check=False).returncode == 0
    return command if allowed else []


class Browser:
    """A browser that obeys messages on its descriptors 3 and 4; a message ends with a NUL."""

    def __init__(self, scratch):
        program = shutil.which("chromium")
        if program is None:
            raise BrowserError("there is no chromium")
        arguments = ARGUMENTS + [f"--user-data-dir={scratch}/profile"]
        if os.geteuid() == 0:
            arguments.append("--no-sandbox")  # it refuses to run as root with one
        commands, self._out = os.pipe()
        self._in, answers = os.pipe()

        def arrange():
            # Copies first: 3 and 4 may be ends of the pipes themselves.
            copies = os.dup(commands), os.dup(answers)
            os.dup2(copies[0], 3)
            os.dup2(copies[1], 4)

        self._log = open(f"{scratch}/browser.log", "w+b")
        self._process = subprocess.Popen(
            without_network() + [program] + arguments + ["about:blank"], pass_fds=(3, 4),
            preexec_fn=arrange, stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log,
            start_new_session=True)
        os.close(commands)
        os.close(answers)
        self._rest = b""
        self._last_id = 0
        self.events = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._out)
        os.close(self._in)
        try:
            self._process.wait(5)
        except subprocess.TimeoutExpired:
            # Its session, which has the helpers of the browser and nothing else.
            if self._process.pid > 0:
                os.killpg(self._process.pid, signal.SIGKILL)
            self._process.wait()
        self._log.close()

    def log(self):
        """Returns what the browser has written to standard error."""
        with open(self._log.name, encoding="utf-8", errors="replace") as file:
            return file.read()

    def _receive(self, deadline):
        while b"\0" not in self._rest:
            ready, _, _ = select.select([self._in], [], [], max(0, deadline - time.monotonic()))
            received = os.read(self._in, 1 << 16) if ready else b""
            if not received:
                raise BrowserError(f"the browser does not answer:\n{self.log()[-2000:]}")
            self._rest += received
        message, self._rest = self._rest.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, session=None, **parameters):
        """Calls a method of the browser and returns its result. Keeps the events that come first."""
        self._last_id += 1
        request = {"id": self._last_id, "method": method, "params": parameters}
        if session:
            request["sessionId"] = session
        os.write(self._out, json.dumps(request).encode() + b"\0")
        deadline = time.monotonic() + LONGEST
        while True:
            message = self._receive(deadline)
            if message.get("id") == self._last_id:
                if "error" in message:
                    raise BrowserError(f"{method}: {message['error']['message']}")
                return message["result"]
            self.events.append(message)

    def wait(self, session, method):
        """Waits for an event."""
        deadline = time.monotonic() + LONGEST
        seen = 0
        while True:
            for event in self.events[seen:]:
                if event.get("sessionId") == session and event["method"] == method:
                    return
            seen = len(self.events)
            self.events.append(self._receive(deadline))


class Page:
    """A file loaded in a tab. complaints lists what the browser objected to, asked for or ran."""

    def __init__(self, browser, path):
        self._browser = browser
        self.url = "file://" + path
        target = browser.call("Target.createTarget", url="about:blank")["targetId"]
        self._session = browser.call("Target.attachToTarget", targetId=target,
                                     flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network", "Audits", "Accessibility"):
            self.call(f"{domain}.enable")
        self.resize(1200)
        self.call("Page.navigate", url=self.url)
        browser.wait(self._session, "Page.loadEventFired")
        time.sleep(0.5)  # for what the page might do later
        self.call("Page.getLayoutMetrics")  # takes in the events so far
        self.complaints = self._complaints()

    def call(self, method, **parameters):
        return self._browser.call(method, session=self._session, **parameters)

    def _complaints(self):
        complaints = []
        for event in self._browser.events:
            if event.get("sessionId") != self._session:
                continue
            data = event.get("params", {})
            match event["method"]:
                case "Log.entryAdded":
                    complaints.append("message: " + data["entry"]["text"])
                case "Runtime.consoleAPICalled" | "Runtime.exceptionThrown":
                    complaints.append("script: " + json.dumps(data)[:200])
                case "Audits.issueAdded":
                    complaints.append("issue: " + data["issue"]["code"])
                case "Page.javascriptDialogOpening":
                    complaints.append("dialog: " + data["message"])
                    self.call("Page.handleJavaScriptDialog", accept=True)
                case "Network.requestWillBeSent" if data["request"]["url"] != self.url:
                    complaints.append("request: " + data["request"]["url"])
        return complaints

    def evaluate(self, expression):
        """Returns the value of an expression of JavaScript."""
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True,
                           awaitPromise=True)
        if "exceptionDetails" in result:
            raise BrowserError(json.dumps(result["exceptionDetails"])[:500])
        return result["result"].get("value")

    def resize(self, width):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=900,
                  deviceScaleFactor=1, mobile=False)

    def scheme(self, name):
        """Shows the page as a system does that prefers "light" or "dark"."""
        self.call("Emulation.setEmulatedMedia",
                  features=[{"name": "prefers-color-scheme", "value": name}])

    def images(self):
        """Returns the names under which a screen reader announces the pictures."""
        nodes = self.call("Accessibility.getFullAXTree")["nodes"]
        return [node.get("name", {}).get("value", "") for node in nodes
                if not node["ignored"] and node["role"]["value"] in ("image", "img")]

    def screenshot(self):
        """Returns the whole page as PNG."""
        return base64.b64decode(self.call("Page.captureScreenshot", captureBeyondViewport=True)["data"])
