"""The status page in a browser. Usage: status_page.py EDGE_HOST [FOLDER for screenshots]"""

import http.server
import json
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.request

from chromium import Chromium, await_true

HOST = sys.argv[1]
SCREENSHOTS = sys.argv[2] if len(sys.argv) > 2 else None
KEY = "00c0ffee" * 8
ELSEWHERE = "rebound.example"  # a name of somebody else's that points here
HOSTILE = "<img src=x onerror=window.hacked=1><script>window.hacked=1</script>"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def accepts(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Elsewhere(http.server.BaseHTTPRequestHandler):
    """A page of another origin."""

    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.end_headers()
        self.wfile.write(b"<title>elsewhere</title>")

    def log_message(self, *_):
        pass


class StatusPage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="kel-browser-")
        cls.addClassCleanup(shutil.rmtree, cls.folder, ignore_errors=True)
        cls.broker_port, cls.port = free_port(), free_port()
        cls.url = f"http://127.0.0.1:{cls.port}"
        with open(f"{cls.folder}/mosquitto.conf", "w") as conf:
            conf.write(f"listener {cls.broker_port} 127.0.0.1\nallow_anonymous true\n"
                       "set_tcp_nodelay true\n")
        broker = cls.process("mosquitto", "-c", conf.name)
        cls.addClassCleanup(cls.end, broker)
        await_true(lambda: accepts(cls.broker_port), "the broker")
        cls.start_host()
        cls.addClassCleanup(lambda: cls.end(cls.host))
        cls.browser = Chromium(f"--host-resolver-rules=MAP {ELSEWHERE} 127.0.0.1")
        cls.addClassCleanup(cls.browser.close)

    @classmethod
    def process(cls, *command):
        env = dict(os.environ, XDG_CONFIG_HOME=cls.folder, XDG_DATA_HOME=cls.folder)
        return subprocess.Popen(command, env=env, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)

    @classmethod
    def start_host(cls):
        cls.host = cls.process(HOST, "--role=server", f"--default=http.port={cls.port}",
                               f"--default=http.key={KEY}",
                               f"--default=mqtt.address=tcp://127.0.0.1:{cls.broker_port}")
        await_true(lambda: accepts(cls.port), "the host")

    @staticmethod
    def end(process):
        process.send_signal(signal.SIGTERM)
        process.wait(timeout=30)

    def setUp(self):
        self.browser.show_as(1180, 900)
        self.browser.open("about:blank")
        self.browser.open(self.url + "/status#key=" + KEY)
        self.browser.await_text("#broker", "broker connected")
        self.browser.errors.clear()
        self.browser.requests.clear()

    def ask(self, route):
        request = urllib.request.Request(self.url + "/index/api/" + route,
                                         headers={"Authorization": "Bearer " + KEY})
        with urllib.request.urlopen(request, timeout=20) as reply:
            return json.load(reply)

    def feed(self, topic, *messages):
        subprocess.run(["mosquitto_pub", "-p", str(self.broker_port), "-t", topic, "-l"],
                       input="\n".join(messages), text=True, check=True, timeout=30)

    def publish(self, topic, message):
        self.browser.run(f"element('topic').value = {json.dumps(topic)}")
        self.browser.run(f"element('message').value = {json.dumps(message)}")
        self.browser.run("element('send').click()")

    def test_shows_the_host_and_publishes_what_then_comes_back(self):
        self.assertEqual("edge_host", self.browser.text("#name"))
        self.assertIn("1.", self.browser.text("#about"))
        self.browser.await_text("#routes", "/index/api/publish")
        self.browser.await_text("#log", "server is up")
        self.browser.run("element('send').click()")  # as the form stands
        self.browser.await_text("#published", "accepted at")
        self.browser.await_text("#messages", "hello from the status page")
        self.browser.await_text("#messages", "received")
        self.assertNotEqual("0", self.browser.text("#received"))
        rate = "element('chart').querySelector('g.received .curve').getAttribute('d')"
        await_true(lambda: len(set(self.browser.run(rate).split("L"))) > 1, "the chart's curve")
        elsewhere = [url for url in self.browser.requests if not url.startswith(self.url)]
        self.assertEqual(([], []), (elsewhere, self.browser.errors))

    def hidden(self, selector):
        return self.browser.run(f"document.querySelector('{selector}')?.hidden")

    def test_the_link_opens_the_page_and_the_key_stays_out_of_the_address(self):
        self.assertEqual(self.url + "/status", self.browser.run("location.href"))
        self.assertEqual([], [url for url in self.browser.requests if KEY in url.split("#")[0]])
        self.browser.open(self.url + "/status")  # the browser has kept it
        self.browser.await_text("#broker", "broker connected")
        self.assertTrue(self.hidden("#login"))

    def test_asks_for_the_key_where_it_has_none_or_a_wrong_one(self):
        self.addCleanup(self.browser.run, "localStorage.clear()")
        self.browser.run("void setTimeout(logOut)")  # loads the page anew
        await_true(lambda: self.hidden("#login") is False, "the question for the key")
        self.screenshot("login", 1180, 520)
        self.assertTrue(self.hidden("main"))
        self.assertEqual("", self.browser.text("#messages").replace("none yet", ""))
        self.browser.run("element('key').value = 'wrong'")
        self.browser.run("document.querySelector('#login button').click()")
        self.browser.await_text("#whyLogin", "not the key of this host")
        self.assertTrue(self.hidden("main"))
        self.browser.run(f"element('key').value = '{KEY}'")
        self.browser.run("document.querySelector('#login button').click()")
        self.browser.await_text("#broker", "broker connected")
        self.assertTrue(self.hidden("#login"))

    def test_serves_nothing_under_the_name_of_another_site(self):
        self.browser.open(f"http://{ELSEWHERE}:{self.port}/status")
        self.assertIn("asked by its address", self.browser.text("body"))
        reading = f"""fetch('/index/api/settings', {{headers: {{Authorization: 'Bearer {KEY}'}}}})
            .then(reply => reply.status)"""
        self.assertEqual(403, self.browser.run(reading))

    def test_says_what_cannot_be_published(self):
        for topic, message, answer in (
                ("/plant1/sensors/#", "{}", "topic"),
                ("/plant1/sensors/a", "{", "not published: "),
                ("/plant1/sensors/a", "[1]", "no JSON object")):
            with self.subTest(topic=topic, message=message):
                self.publish(topic, message)
                self.browser.await_text("#published", answer)

    def test_shows_hostile_text_as_text(self):
        self.feed("/plant1/sensors/" + HOSTILE.replace("/", "|"), json.dumps({"sensor": HOSTILE, "value": 1}))
        self.browser.await_text("#messages", "<script>")
        self.browser.await_text("#messages", "onerror=window.hacked=1><script>window.hacked=1<|")
        self.browser.await_text("#log", "<img src=x")
        markup = "document.querySelectorAll('main img, main script').length"
        self.assertEqual(0, self.browser.run(markup))
        self.assertIsNone(self.browser.run("window.hacked"))

    def test_keeps_little_of_many_and_huge_messages(self):
        self.feed("/plant1/sensors/huge", json.dumps({"sensor": "\u00e9" * 2_000_000}))
        self.browser.await_text("#messages", "\u2026")
        self.assertLess(len(self.browser.text("#messages")), 100_000)
        self.feed("/plant1/sensors/many", *[json.dumps({"seq": i}) for i in range(300)])
        self.browser.await_text("#messages", '"seq":299')
        self.assertEqual(100, len(self.ask("messages?limit=1000")["messages"]))
        self.assertLessEqual(self.browser.run("document.querySelectorAll('#messages li').length"), 30)

    def test_other_sites_can_neither_read_nor_publish(self):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Elsewhere)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        self.browser.open(f"http://127.0.0.1:{server.server_port}/")
        body = json.dumps({"topic": "/plant1/sensors/a", "message": {"text": "forged"}})
        request = f"""(kind, mode) => fetch('{self.url}/index/api/publish', {{method: 'POST', mode,
            headers: {{'Content-Type': kind}}, body: {json.dumps(body)}}})
            .then(reply => reply.type, () => 'failed')"""
        for kind, mode, outcome in (("text/plain", "no-cors", "failed"),
                                    ("application/json", "cors", "failed")):
            self.assertEqual(outcome, self.browser.run(f"({request})('{kind}', '{mode}')"))
        for mode, outcome in (("cors", "failed"), ("no-cors", "failed")):  # the latter by policy
            reading = f"""fetch('{self.url}/status', {{mode: '{mode}'}})
                .then(() => 'read', () => 'failed')"""
            self.assertEqual(outcome, self.browser.run(reading))
        report = f"""fetch('{self.url}/index/api/on_server_started', {{mode: 'no-cors'}})
            .then(() => 'sent', () => 'failed')"""
        self.browser.run(report)
        self.assertEqual(0, self.ask("state")["reports"]["count"])
        self.assertNotIn("forged", json.dumps(self.ask("messages?limit=100")))

    def test_says_so_when_the_host_goes_and_goes_on_when_it_is_back(self):
        self.assertTrue(self.browser.run("element('gone').hidden"))
        self.addCleanup(lambda: self.host.poll() is None or self.start_host())
        self.host.kill()
        self.host.wait()
        self.browser.await_text("#broker", "host gone")
        self.assertIn("has not answered since", self.browser.text("#gone"))
        self.assertTrue(self.browser.run("element('send').disabled"))
        self.screenshot("gone", 390, 844)
        self.start_host()
        self.browser.await_text("#broker", "broker connected")
        self.assertTrue(self.browser.run("element('gone').hidden"))
        self.browser.run("element('send').click()")
        self.browser.await_text("#messages", "hello from the status page")

    def test_fits_a_phone_and_a_desk(self):
        for second in range(25 if SCREENSHOTS else 0):  # something for the chart
            values = range(3 + random.Random(second).randrange(9))
            self.feed("/plant1/sensors/line-3/temperature",
                      *[json.dumps({"sensor": "T-3", "value": 20 + value}) for value in values])
            self.browser.run("new Promise(done => setTimeout(done, 1000))")
        for name, width, height, dark in (("phone", 390, 844, False), ("status", 1180, 780, False),
                                          ("dark", 1180, 860, True)):
            with self.subTest(name):
                self.browser.show_as(width, height, dark)
                self.assertLessEqual(self.browser.run("document.documentElement.scrollWidth"), width)
                self.screenshot(name, width, height, dark)

    def screenshot(self, name, width, height, dark=False):
        if SCREENSHOTS:
            self.browser.show_as(width, height, dark)
            self.browser.run("new Promise(done => setTimeout(done, 300))")
            self.browser.screenshot(f"{SCREENSHOTS}/{name}.png")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
