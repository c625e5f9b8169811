"""A browser without a window, spoken to by the WebDriver protocol: a page is opened, clicked, typed into, looked at."""

import base64
import contextlib
import json
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

PATIENCE = 120  # for a busy machine; nothing waits for it to pass
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
KEYS = {"Escape": "\ue00c", "Up": "\ue013", "Down": "\ue015", "PageDown": "\ue00f", "PageUp": "\ue00e",
        "Left": "\ue012", "Right": "\ue014"}


class Browser:
    def __init__(self, width=1400, height=860):
        self.folder = tempfile.mkdtemp(prefix="l2vpn-timeline-")
        self.session = self.driver = None
        self.straight = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        log = pathlib.Path(self.folder) / "log"
        places = ["HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME", "TMPDIR"]
        try:
            with open(log, "wb") as out:
                self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=out, stderr=subprocess.STDOUT,
                                               stdin=subprocess.DEVNULL, start_new_session=True,
                                               env=os.environ | dict.fromkeys(places, self.folder))
            self.address = f"http://127.0.0.1:{self.port_in(log)}"
            options = {"args": ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                                f"--user-data-dir={self.folder}/profile", f"--window-size={width},{height}"]}
            made = self.ask("POST", "/session", {"capabilities": {"alwaysMatch": {
                "goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"},
                "timeouts": {"script": PATIENCE * 1000}}}})
            self.session = f"/session/{made['sessionId']}"
        except BaseException:
            self.close()
            raise

    def port_in(self, log):
        end = time.monotonic() + PATIENCE
        while True:
            words = log.read_text().split("started successfully on port ")
            if len(words) == 2 and "." in words[1]:
                return int(words[1].split(".")[0])
            if self.driver.poll() is not None or time.monotonic() > end:
                raise RuntimeError(f"chromedriver does not start: {log.read_text()}")
            time.sleep(0.05)

    def ask(self, method, path, body=None):
        request = urllib.request.Request(self.address + path, method=method,
                                         data=None if body is None else json.dumps(body).encode())
        try:
            with self.straight.open(request, timeout=PATIENCE) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(f"{method} {path}: {error.read().decode()}") from error

    def close(self):
        try:
            if self.session is not None:
                self.ask("DELETE", self.session)
        finally:
            if self.driver is not None:
                self.end()
            shutil.rmtree(self.folder)

    def end(self):
        """Of the driver and of all that it started: its session, and what was given this folder."""
        self.driver.terminate()
        end = time.monotonic() + 10
        while self.still_running():
            if time.monotonic() > end:
                for pid in self.still_running():
                    with contextlib.suppress(ProcessLookupError):  # it has just ended
                        os.kill(pid, signal.SIGKILL)
            time.sleep(0.02)
        self.driver.wait(PATIENCE)

    def still_running(self):
        found = []
        for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
            try:
                state, _, _, session, *_ = stat.read_text().rpartition(") ")[2].split()
                words = stat.with_name("cmdline").read_bytes()
            except OSError:
                continue  # it ended meanwhile
            if state not in "ZX" and (int(session) == self.driver.pid or self.folder.encode() in words):
                found.append(int(stat.parent.name))
        return found

    def __enter__(self):
        return self

    def __exit__(self, *unused):
        self.close()

    # What is done with a page

    def open(self, path):
        self.ask("POST", f"{self.session}/url", {"url": pathlib.Path(path).absolute().as_uri()})

    def run(self, script, *arguments):
        return self.ask("POST", f"{self.session}/execute/sync", {"script": script, "args": list(arguments)})

    def find(self, selector):
        return self.ask("POST", f"{self.session}/element", {"using": "css selector", "value": selector})[ELEMENT]

    def click(self, selector):
        self.ask("POST", f"{self.session}/element/{self.find(selector)}/click", {})

    def text(self, selector):
        return self.ask("GET", f"{self.session}/element/{self.find(selector)}/text")

    def is_seen(self, selector):
        return self.ask("GET", f"{self.session}/element/{self.find(selector)}/displayed")

    def type(self, selector, text):
        self.ask("POST", f"{self.session}/element/{self.find(selector)}/value", {"text": text})

    def choose(self, selector, text):
        """An option of a list, by what it says."""
        number = self.run("return [...document.querySelector(arguments[0]).options].findIndex("
                          "(one) => one.text === arguments[1])", selector, text)
        if number < 0:
            raise RuntimeError(f"{selector} has no '{text}'")
        self.click(f"{selector} option:nth-child({number + 1})")

    def act(self, kind, actions):
        self.ask("POST", f"{self.session}/actions", {"actions": [{"type": kind, "id": kind, "actions": actions}]})

    def key(self, name):
        value = KEYS.get(name, name)
        self.act("key", [{"type": "keyDown", "value": value}, {"type": "keyUp", "value": value}])

    def click_at(self, x, y):
        self.act("pointer", [{"type": "pointerMove", "x": round(x), "y": round(y), "duration": 0},
                             {"type": "pointerDown", "button": 0}, {"type": "pointerUp", "button": 0}])

    def drag(self, x, y, to_x, to_y):
        self.act("pointer", [{"type": "pointerMove", "x": round(x), "y": round(y), "duration": 0},
                             {"type": "pointerDown", "button": 0},
                             {"type": "pointerMove", "x": round(to_x), "y": round(to_y), "duration": 20},
                             {"type": "pointerUp", "button": 0}])

    def wheel(self, x, y, delta):
        self.act("wheel", [{"type": "scroll", "x": round(x), "y": round(y), "deltaX": 0, "deltaY": delta,
                            "duration": 0}])

    def said(self):
        """What the page wrote to the console."""
        return self.ask("POST", f"{self.session}/se/log", {"type": "browser"})

    def emulate(self, theme):
        self.ask("POST", f"{self.session}/goog/cdp/execute",
                 {"cmd": "Emulation.setEmulatedMedia",
                  "params": {"features": [{"name": "prefers-color-scheme", "value": theme}]}})

    def screenshot(self):
        return base64.b64decode(self.ask("GET", f"{self.session}/screenshot"))

    def wait(self, what, condition):
        end = time.monotonic() + PATIENCE
        while not condition():
            if time.monotonic() > end:
                raise RuntimeError(f"{what} does not come")
            time.sleep(0.02)
