#!/usr/bin/python3
"""fontrix serve's page in a real browser (Debian's chromium through chromium-driver and
selenium), driven with the keyboard: a picture drawn in an installed font is identified, the
alternatives shown are `fontrix similar`'s, a ticked class gives its fonts, pictures it cannot
read get their message, and another site's Host and too large an upload are refused.

Usage: test_serve_page.py PATH/TO/fontrix [--pictures DIR]
--pictures writes a screenshot of each view into DIR (the README's pictures).

Exits 77 (a skip to CTest), saying why, where chromium, chromium-driver or selenium is missing, or
the name localhost does not resolve.
"""
import json
import os
import socket
import subprocess
import sys
import tempfile
import unittest

from serving import Server, grey_png

FONTRIX = PICTURES = None
SKIP = 77
CHROMIUM, DRIVER = "/usr/bin/chromium", "/usr/bin/chromedriver"


def missing():
    absent = [p for p in (CHROMIUM, DRIVER) if not os.path.exists(p)]
    try:
        import selenium  # noqa: F401
    except ImportError:
        absent.append("python3-selenium")
    return absent


class ServePageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        cls.tmp = tempfile.TemporaryDirectory(prefix="fontrix-page-")
        cls.server = Server(FONTRIX, os.path.join(cls.tmp.name, "cache"))
        # The caches made first, and the tool's own answers asked before the server starts.
        cls.server.tool("index")
        names = [f["name"] for f in cls.server.tool("fonts")["fonts"]]
        cls.font = next((n for n in ("DejaVuSerif", "LiberationSerif-Bold") if n in names), names[0])
        cls.similar = [r["name"] for r in cls.server.tool("similar", cls.font, "--limit", "24")["results"]]
        cls.other = [r["name"] for r in cls.server.tool("similar", cls.font, "--other-families", "--limit", "24")
                     ["results"]]
        cls.serif = [f["name"] for f in cls.server.tool("classes", "serif", "--not", "monospace")["fonts"]]
        cls.line = cls.write("line.png", b"")
        subprocess.run([FONTRIX, "specimen", cls.font, "Handgloves quick brown", "-o", cls.line, "--size", "48"],
                       check=True, capture_output=True, env=cls.server.env)
        cls.server.start()
        cls.server.wait_ready()
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                         "--window-size=1200,900", "--user-data-dir=" + os.path.join(cls.tmp.name, "chromium")):
            options.add_argument(argument)
        cls.driver = webdriver.Chrome(service=Service(DRIVER), options=options)
        cls.driver.set_page_load_timeout(60)

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        status, err = cls.server.stop()
        cls.tmp.cleanup()
        if status != 0:
            raise AssertionError("fontrix serve exited %s: %s" % (status, err))

    @classmethod
    def write(cls, name, data):
        path = os.path.join(cls.tmp.name, name)
        with open(path, "wb") as f:
            f.write(data)
        return path

    def wait(self, condition, seconds=60):
        from selenium.webdriver.support.ui import WebDriverWait
        return WebDriverWait(self.driver, seconds).until(lambda d: condition())

    def find(self, css):
        from selenium.webdriver.common.by import By
        return self.driver.find_elements(By.CSS_SELECTOR, css)

    def open(self, view):
        self.driver.get(self.server.url + "#" + view)
        self.wait(lambda: self.find("#view-%s:not([hidden])" % view))

    def names(self, css):
        """The faces a list shows, read at one moment (the page may be replacing them)."""
        return self.driver.execute_script("return [...document.querySelectorAll(arguments[0])]"
                                          ".map((li) => li.dataset.name)", css + " > li")

    def specimens_drawn(self, css):
        """Every specimen image in `css` loaded, as a picture of some width."""
        return self.wait(lambda: all(self.driver.execute_script("return arguments[0].complete && "
                                                                "arguments[0].naturalWidth > 0", img)
                                     for img in self.find(css + " img.specimen")))

    def picture(self, name):
        if PICTURES:
            self.driver.execute_script("document.activeElement.blur(); window.scrollTo(0, 0);")
            self.driver.save_screenshot(os.path.join(PICTURES, name))

    def upload(self, path):
        self.driver.execute_script("document.getElementById('identify-message').textContent = '';"
                                   "document.getElementById('candidates').replaceChildren();")
        self.find("#file")[0].send_keys(path)

    def message(self):
        return self.wait(lambda: self.find("#identify-message")[0].text)

    def test_identify_a_picture(self):
        self.open("identify")
        sample = self.find("#sample")[0]
        sample.clear()
        sample.send_keys("Handgloves quick brown")
        self.upload(self.line)
        self.wait(lambda: self.find("#candidates > li"))
        self.assertIn(self.font, self.names("#candidates")[:3])
        first = self.find("#candidates > li")[0]
        self.assertTrue(first.find_elements("css selector", "canvas.line-read"))  # the line read, cut out
        self.assertRegex(first.text, r"\d+ % likely")
        self.specimens_drawn("#candidates")
        # Each candidate is drawn, or is an open font the machine lacks, said so with where to get it.
        for li in self.find("#candidates > li"):
            drawn = li.find_elements("css selector", "img.specimen")
            self.assertNotEqual(bool(drawn), "not installed: open font, " in li.text, li.text)
        link = first.find_elements("css selector", "a[href^='#alternatives']")[0]
        self.assertIn("name=", link.get_attribute("href"))
        self.picture("identify.png")

    def test_pictures_it_cannot_read(self):
        self.open("identify")
        self.upload(self.write("blank.png", grey_png(600, 200)))
        self.assertIn("No text found", self.message())
        self.upload(self.write("notes.png", b"these are notes, not a picture"))
        self.assertIn("neither a PNG nor a JPEG", self.message())
        self.upload(self.write("notes.txt", b"these are notes, not a picture"))
        self.assertIn("not a PNG or JPEG picture", self.message())
        self.upload(self.write("huge.png", b"\x89PNG\r\n\x1a\n" + b"\0" * (17 << 20)))
        self.assertIn("too large", self.message())

    def test_alternatives_are_the_tools(self):
        from selenium.webdriver.common.keys import Keys
        self.open("alternatives")
        name = self.find("#font-name")[0]
        name.send_keys(self.font[:-1])
        # Suggestions while typing: the installed faces whose name holds what was typed.
        self.wait(lambda: self.find("#font-names option[value='%s']" % self.font))
        name.send_keys(self.font[-1], Keys.ENTER)
        self.wait(lambda: self.names("#similar-results") == self.similar[:24])
        self.assertEqual(self.names("#query-face ul"), [self.font])
        self.specimens_drawn("#similar-results")
        # Keyboard alone: to the checkbox and tick it with the space bar.
        self.find("#other-families")[0].send_keys(Keys.SPACE)
        name.send_keys(Keys.ENTER)
        self.wait(lambda: self.names("#similar-results") == self.other[:24])
        if len(self.other) >= 2:
            for row in self.other[:2]:
                self.find("#compare-" + row.replace(".", "\\."))[0].send_keys(Keys.SPACE)
            self.wait(lambda: len(self.find("#compare:not([hidden]) figure")) == 2)
        self.picture("alternatives.png")

    def test_browse_by_class(self):
        from selenium.webdriver.support.ui import Select
        self.open("browse")
        Select(self.find("#class-serif")[0]).select_by_value("class")
        Select(self.find("#class-monospace")[0]).select_by_value("not")
        self.find("#browse-form button")[0].click()
        self.wait(lambda: self.find("#browse-count")[0].text.startswith("%d font" % len(self.serif)))
        self.wait(lambda: self.names("#browse-results") == self.serif[:24])
        for li in self.find("#browse-results > li"):
            classes = li.get_attribute("data-classes").split()
            self.assertIn("fs_serif", classes)
            self.assertNotIn("fs_monospace", classes)
        pages = -(-len(self.serif) // 24) or 1
        self.assertEqual(self.find("#page-number")[0].text, "Page 1 of %d" % pages)
        self.specimens_drawn("#browse-results")
        self.picture("browse.png")
        if pages > 1:
            self.find("#next-page")[0].click()
            self.wait(lambda: self.names("#browse-results") == self.serif[24:48])

    def test_other_sites_and_large_uploads_are_refused(self):
        port = self.server.port
        status, _, body = self.server.request("GET", "/", headers={"Host": "rebound.example:%d" % port})
        self.assertEqual(status, 403)
        self.assertIn("its own address", json.loads(body)["error"])
        status, _, body = self.server.request("POST", "/api/recognize", b"\0" * (17 << 20))
        self.assertEqual(status, 413)
        self.assertIn("too large", json.loads(body)["error"])


if __name__ == "__main__":
    FONTRIX = sys.argv.pop(1)
    if "--pictures" in sys.argv:
        at = sys.argv.index("--pictures")
        PICTURES = os.path.abspath(sys.argv[at + 1])
        del sys.argv[at:at + 2]
    absent = missing()
    if absent:
        print("skipped: %s not installed (scripts/setup.sh --tests installs chromium, chromium-driver and "
              "python3-selenium)" % ", ".join(absent))
        sys.exit(SKIP)
    # Selenium reaches chromedriver at "localhost", a name only /etc/hosts gives on most machines
    # (a bare debootstrap tree has none).
    try:
        socket.getaddrinfo("localhost", None)
    except socket.gaierror:
        print("skipped: the name localhost does not resolve here (no /etc/hosts), and Selenium reaches "
              "chromedriver by that name")
        sys.exit(SKIP)
    unittest.main(verbosity=2)
