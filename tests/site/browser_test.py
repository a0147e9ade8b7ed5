"""The default skeleton as visitors see it: deployed, served by a web server, shown by a browser.

  browser_test.py TEMBRIX DEPLOYER ARCHIVE PICTURES [leave]   in a network of its own and the private
                                                              mounts; PICTURES: where some are, or
                                                              where they are to be left
"""
import glob
import hashlib
import os
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request

from browser import Browser
from panel import ROOT, Panel, run

PICTURES = sys.argv[4]
SITE = "example.com"
# As long as a name can be: its parts have at most 63 characters, the whole at most 253.
LONG = ".".join(["a" * 63, "site-without-any-place-to-break-a-line-at", "b" * 63, "example"])

# Files are read by another user than the one that made them, as on a real machine.
SERVER = """
server.port = 80
server.bind = "127.0.0.1"
server.username = "www-data"
server.groupname = "www-data"
server.document-root = "{root}/{site}/httpdocs"
server.errorfile-prefix = "{root}/{site}/error_docs/"
server.max-request-size = 1
server.modules = ("mod_alias", "mod_cgi")
index-file.names = ("index.html")
mimetype.assign = (".html" => "text/html; charset=utf-8")
alias.url = ("/cgi-bin/" => "{root}/{site}/cgi-bin/", "/pages/" => "{root}/{site}/error_docs/")
$HTTP["url"] =~ "^/cgi-bin/" {{ cgi.assign = (".cgi" => "") }}
$HTTP["host"] == "{long}" {{ server.document-root = "{root}/{long}/httpdocs" }}
"""

# The least contrast of any text with what it stands on (Web Content Accessibility Guidelines 2.2,
# relative luminance), with the text that has it.
LEAST_CONTRAST = """(() => {
  const parts = (color) => color.match(/[\\d.]+/g).map(Number);
  const luminance = (color) => {
    const [r, g, b] = parts(color).map((c) => c / 255)
      .map((c) => c <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4);
    return 0.2126 * r + 0.7152 * g + 0.0722 * b;
  };
  const ground = (element) => {
    for (; element; element = element.parentElement) {
      const color = getComputedStyle(element).backgroundColor;
      if (parts(color)[3] !== 0) return color;
    }
    return 'rgb(255, 255, 255)';
  };
  const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  let least = {ratio: 21, text: ''};
  let texts = 0;
  while (walker.nextNode()) {
    const text = walker.currentNode.textContent.trim();
    if (!text) continue;
    ++texts;
    const element = walker.currentNode.parentElement;
    const [high, low] = [getComputedStyle(element).color, ground(element)].map(luminance)
      .sort((a, b) => b - a);
    const ratio = (high + 0.05) / (low + 0.05);
    if (ratio < least.ratio) least = {ratio, text};
  }
  return {...least, texts, ground: luminance(ground(document.body))};
})()"""


# The server is this machine's: no proxy leads there.
DIRECTLY = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def fetch(path, method="GET", data=None):
    """A status and the body, whatever the status."""
    request = urllib.request.Request("http://127.0.0.1" + path, method=method, data=data)
    try:
        with DIRECTLY.open(request, timeout=60) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()


def shown():
    """The digests of the pages that there are pictures of, one a line."""
    lines = ""
    for page in ("httpdocs/index.html", "error_docs/404.html"):
        with open(f"{ROOT}/{SITE}/{page}", "rb") as file:
            lines += f"{hashlib.sha256(file.read()).hexdigest()}  {page}\n"
    return lines


class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        run("ip", "link", "set", "lo", "up")
        panel = Panel(*sys.argv[1:4])
        assert panel.tool("--install-default", "--id", "0") == ("0", 0)
        for site in (SITE, LONG):
            assert panel.deploy(site) == ""
        with open("/mnt/server.conf", "w", encoding="utf-8") as file:
            file.write(SERVER.format(root=ROOT, site=SITE, long=LONG))
        cls.server = subprocess.Popen(["lighttpd", "-D", "-f", "/mnt/server.conf"])
        cls.addClassCleanup(cls.end_server)
        cls.wait_for_server()
        scratch = tempfile.mkdtemp(dir="/mnt")
        cls.browser = Browser(scratch, [SITE, LONG])
        cls.addClassCleanup(cls.browser.close)
        names = [os.path.basename(path) for path in glob.glob(f"{ROOT}/{SITE}/error_docs/*.html")]
        cls.status_pages = [f"http://{SITE}/pages/{name}" for name in sorted(names)]
        cls.pages = [f"http://{SITE}/", f"http://{LONG}/"] + cls.status_pages

    @classmethod
    def end_server(cls):
        cls.server.terminate()
        cls.server.wait()

    @classmethod
    def wait_for_server(cls):
        deadline = time.monotonic() + 60
        while True:
            try:
                return fetch("/")
            except urllib.error.URLError:
                assert cls.server.poll() is None, "the web server has ended"
                assert time.monotonic() < deadline, "the web server does not answer"
                time.sleep(0.02)

    def test_greets_with_the_name_of_the_site(self):
        self.browser.open(f"http://{SITE}/")
        self.assertEqual(self.browser.ask("document.querySelector('h1').innerText.split(/\\s+/)"),
                         ["Welcome", "to", SITE])
        self.assertEqual(self.browser.ask("document.title"), SITE)

    def test_asks_for_nothing_else_and_complains_of_nothing(self):
        for page in self.pages:
            with self.subTest(page):
                self.browser.open(page)
                asked = [url for url in self.browser.requests() if not url.startswith("data:")]
                self.assertEqual(asked, [page])
                self.assertEqual(self.browser.complaints(), [])

    def test_fits_a_narrow_phone(self):
        for page in self.pages:
            with self.subTest(page):
                self.browser.open(page, width=360, height=640)
                self.assertEqual(self.browser.ask("innerWidth"), 360)
                self.assertEqual(self.browser.ask("document.documentElement.scrollWidth"), 360)
                size = self.browser.ask("parseFloat(getComputedStyle(document.body).fontSize)")
                self.assertGreaterEqual(size, 16)

    def test_can_be_read_in_both_schemes(self):
        for page in self.pages:
            grounds = {}
            for scheme in ("light", "dark"):
                with self.subTest(page, scheme=scheme):
                    self.browser.open(page, scheme=scheme)
                    least = self.browser.ask(LEAST_CONTRAST)
                    grounds[scheme] = least["ground"]
                    self.assertGreater(least["texts"], 3)
                    self.assertGreaterEqual(least["ratio"], 4.5, least)
            self.assertGreater(grounds["light"], 0.8)
            self.assertLess(grounds["dark"], 0.05)

    def test_tells_its_language_and_has_one_heading(self):
        for page in self.pages:
            with self.subTest(page):
                self.browser.open(page)
                self.assertEqual(self.browser.ask("document.documentElement.lang"), "en")
                self.assertEqual(self.browser.ask("document.querySelectorAll('h1').length"), 1)
                self.assertNotEqual(self.browser.ask("document.title"), "")
                self.assertEqual(self.browser.ask("document.compatMode"), "CSS1Compat")

    def test_is_the_document_of_an_error(self):
        errors = {404: fetch("/missing"), 413: fetch("/", "POST", b"x" * 2048),
                  501: fetch("/", "BREW")}
        os.mkdir(f"{ROOT}/{SITE}/httpdocs/closed", 0o700)
        errors[403] = fetch("/closed/")
        for status, (answer, body) in errors.items():
            with self.subTest(status), \
                    open(f"{ROOT}/{SITE}/error_docs/{status}.html", encoding="utf-8") as file:
                self.assertEqual(answer, status)
                self.assertEqual(body, file.read())

    def test_is_what_a_visitor_who_went_astray_sees(self):
        self.browser.open(f"http://{SITE}/a/missing/page")
        statuses = [event["response"]["status"] for event in
                    self.browser.happened("Network.responseReceived")]
        self.assertEqual(statuses, [404])
        self.assertEqual(self.browser.ask("document.querySelector('h1').innerText"), "Page not found")
        self.assertEqual(self.browser.ask("document.querySelector('a').href"), f"http://{SITE}/")

    def test_has_a_program_that_runs_only_when_it_is_made_executable(self):
        program = f"{ROOT}/{SITE}/cgi-bin/test.cgi"
        status, body = fetch("/cgi-bin/test.cgi")
        self.assertGreaterEqual(status, 400)
        self.assertNotIn("CGI", body)
        os.chmod(program, 0o755)
        try:
            self.assertEqual(fetch("/cgi-bin/test.cgi"), (200, f"CGI programs work on {SITE}.\n"))
        finally:
            os.chmod(program, 0o644)


    def test_is_what_the_pictures_show(self):
        if sys.argv[5:] == ["leave"]:
            self.leave_pictures()
        with open(f"{PICTURES}/default-skeleton.sha256", encoding="utf-8") as file:
            self.assertEqual(file.read(), shown(), "make them anew: scripts/skeleton-pictures")

    def leave_pictures(self):
        home, missing = f"http://{SITE}/", f"http://{SITE}/missing"
        for name, url, width, height, scheme in (
                ("wide", home, 1040, 660, "light"), ("dark", home, 1040, 660, "dark"),
                ("phone", home, 360, 860, "light"), ("missing", missing, 360, 720, "dark")):
            self.browser.open(url, width, height, scheme)
            with open(f"{PICTURES}/default-skeleton-{name}.png", "wb") as file:
                file.write(self.browser.picture())
        with open(f"{PICTURES}/default-skeleton.sha256", "w", encoding="utf-8") as file:
            file.write(shown())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
