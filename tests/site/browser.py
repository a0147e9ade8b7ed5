"""Headless Chromium, told what to do through its debugging pipe: messages in JSON, each ended by a
zero byte, commands on descriptor 3 and answers on 4."""
import base64
import json
import os
import select
import shlex
import signal
import subprocess
import time

PATIENCE = 120
FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--proxy-server=direct://", "--disable-background-networking", "--disable-component-update",
         "--disable-sync", "--hide-scrollbars", "--remote-debugging-pipe"]


class Browser:
    """`hosts` are the names that lead to this machine; all others lead nowhere."""

    def __init__(self, scratch, hosts):
        rules = ",".join([f"MAP {host} 127.0.0.1" for host in hosts] + ["MAP * ~NOTFOUND"])
        commands, self.commands = os.pipe()
        self.answers, answers = os.pipe()
        words = ["chromium-headless-shell", *FLAGS, f"--user-data-dir={scratch}",
                 f"--host-resolver-rules={rules}"]
        self.log = open(os.path.join(scratch, "browser.log"), "w+b")
        self.process = subprocess.Popen(
            ["sh", "-c", f"exec {shlex.join(words)} 3<&{commands} 4>&{answers}"],
            pass_fds=(commands, answers), stdin=subprocess.DEVNULL, stdout=self.log,
            stderr=self.log, start_new_session=True)
        os.close(commands)
        os.close(answers)
        self.read, self.number, self.session, self.events = b"", 0, None, []
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Network", "Runtime", "Log"):
            self.call(domain + ".enable")
        self.call("Page.setLifecycleEventsEnabled", enabled=True)

    def close(self):
        os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()
        os.close(self.commands)
        os.close(self.answers)
        self.log.close()

    def message(self):
        deadline = time.monotonic() + PATIENCE
        while b"\0" not in self.read:
            left = deadline - time.monotonic()
            part = b""
            if left > 0 and select.select([self.answers], [], [], left)[0]:
                part = os.read(self.answers, 1 << 20)
            if not part:
                self.log.seek(0)
                raise AssertionError(f"the browser is silent: {self.log.read()!r}")
            self.read += part
        first, _, self.read = self.read.partition(b"\0")
        return json.loads(first)

    def call(self, method, **parameters):
        self.number += 1
        request = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            request["sessionId"] = self.session
        os.write(self.commands, json.dumps(request).encode() + b"\0")
        while True:
            message = self.message()
            if message.get("id") != self.number:
                self.events.append(message)
            elif "error" in message:
                raise AssertionError(f"{method}: {message['error']}")
            else:
                return message["result"]

    def open(self, url, width=1280, height=800, scheme="light"):
        """Loads a page anew; what happens meanwhile is in `events`."""
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=1, mobile=width < 600)
        self.call("Emulation.setEmulatedMedia",
                  features=[{"name": "prefers-color-scheme", "value": scheme}])
        self.events = []
        answer = self.call("Page.navigate", url=url)
        if "errorText" in answer:
            raise AssertionError(f"{url}: {answer['errorText']}")
        while not self.has_loaded(answer["loaderId"]):
            self.events.append(self.message())

    def has_loaded(self, loader):
        return any(event["name"] == "load" and event["loaderId"] == loader
                   for event in self.happened("Page.lifecycleEvent"))

    def happened(self, method):
        return [event["params"] for event in self.events if event.get("method") == method]

    def requests(self):
        return [event["request"]["url"] for event in self.happened("Network.requestWillBeSent")]

    def complaints(self):
        """What a person would find on the console, warnings included."""
        logged = [event["entry"]["text"] for event in self.happened("Log.entryAdded")]
        said = [str(event["args"]) for event in self.happened("Runtime.consoleAPICalled")]
        thrown = [str(event) for event in self.happened("Runtime.exceptionThrown")]
        return logged + said + thrown

    def ask(self, expression):
        answer = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in answer:
            raise AssertionError(f"{expression}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def picture(self):
        """The visible part of the page as a PNG."""
        return base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"])
