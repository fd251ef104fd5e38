#!/usr/bin/python3
"""fontrix serve's JSON API without a browser: started on an empty cache it shows the module's
progress, then answers as the tool does (--json) from the same host and module; what it refuses
(another site's Host or Origin, an upload too large in bytes or pixels, a path it does not
serve) and the messages of pictures it cannot read; many requests at once.

Usage: test_serve.py PATH/TO/fontrix
"""
import concurrent.futures
import json
import os
import subprocess
import sys
import tempfile
import unittest

from serving import Server, grey_png

FONTRIX = None


class ServeApiTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix="fontrix-serve-")
        cls.server = Server(FONTRIX, os.path.join(cls.tmp.name, "cache")).start()
        # The module takes in the fonts of an empty cache while the server already answers.
        cls.progress = cls.server.wait_ready()
        fonts = cls.server.tool("fonts")["fonts"]
        names = [f["name"] for f in fonts]
        # A face of the main job's packages when it is there, else any installed face.
        cls.font = next((n for n in ("DejaVuSerif", "LiberationSerif-Bold") if n in names), names[0])
        cls.line = os.path.join(cls.tmp.name, "line.png")
        subprocess.run([FONTRIX, "specimen", cls.font, "Handgloves quick brown", "-o", cls.line, "--size", "48"],
                       check=True, capture_output=True, env=cls.server.env)
        with open(cls.line, "rb") as f:
            cls.line_png = f.read()

    @classmethod
    def tearDownClass(cls):
        status, err = cls.server.stop()
        cls.tmp.cleanup()
        if status != 0:
            raise AssertionError("fontrix serve exited %s: %s" % (status, err))

    def assert_error(self, answer, status, text):
        got_status, kind, body = answer
        self.assertEqual(got_status, status, body)
        self.assertEqual(kind, "application/json")
        self.assertIn(text, json.loads(body)["error"])

    def test_progress_counts_up_to_every_font(self):
        for p in self.progress:
            self.assertLessEqual(p["done"], p["total"], p)
            self.assertEqual([s["service"] for s in p["services"]], ["classification", "similarity", "recognition"])
        last = self.progress[-1]
        self.assertEqual(last["done"], last["total"])
        self.assertEqual(last["total"], len(self.server.tool("fonts")["fonts"]))

    def test_answers_are_the_tools(self):
        status, similar = self.server.get_json("/api/similar", name=self.font, other_families=1, limit=10)
        self.assertEqual(status, 200, similar)
        tool = self.server.tool("similar", self.font, "--other-families", "--limit", "10")
        self.assertEqual(similar["results"], tool["results"])
        self.assertEqual(similar["query"], tool["query"])

        query = {"class": "serif", "not": "slab-serif", "offset": 2, "limit": 5}
        status, classes = self.server.get_json("/api/classes", **query)
        tool = self.server.tool("classes", "serif", "--not", "slab-serif")["fonts"]
        self.assertEqual((status, classes["total"]), (200, len(tool)))
        self.assertEqual(classes["fonts"], tool[2:7])

        # "any of": every font shown has one of the classes, and every such font is counted.
        status, either = self.server.get_json("/api/classes", any="script,handmade", limit=200)
        every = self.server.tool("classes")["fonts"]
        wanted = [f["name"] for f in every if {"fs_script", "fs_handmade"} & set(f["classes"])]
        self.assertEqual((status, either["total"]), (200, len(wanted)))
        self.assertEqual([f["name"] for f in either["fonts"]], wanted[:200])

        status, fonts = self.server.get_json("/api/fonts", q=self.font[:6], limit=200)
        tool = self.server.tool("fonts", self.font[:6])["fonts"]
        self.assertEqual((status, fonts["total"]), (200, len(tool)))
        self.assertIn(self.font, [f["name"] for f in fonts["fonts"]])

    def test_a_picture_drawn_in_a_font_names_it(self):
        status, kind, body = self.server.request("POST", "/api/recognize", self.line_png)
        self.assertEqual((status, kind), (200, "application/json"), body)
        answer = json.loads(body)
        self.assertIn(self.font, [r["name"] for r in answer["results"][:3]])
        self.assertTrue(answer["lines"])
        for line in answer["lines"]:
            self.assertTrue(0 <= line["left"] < line["right"] <= answer["width"], line)
            self.assertTrue(0 <= line["top"] < line["bottom"] <= answer["height"], line)

    def test_pictures_it_cannot_read_get_a_message(self):
        self.assert_error(self.server.request("POST", "/api/recognize", grey_png(400, 120)), 422, "no text found")
        self.assert_error(self.server.request("POST", "/api/recognize", b"hello, not a picture"), 422,
                          "neither a PNG nor a JPEG")
        self.assert_error(self.server.request("POST", "/api/recognize", b"GIF89a\1\0\1\0"), 422, "only PNG and JPEG")
        self.assert_error(self.server.request("POST", "/api/recognize", self.line_png[:200]), 422, "ends before")
        self.assert_error(self.server.request("POST", "/api/recognize", b""), 422, "no picture came")
        # Few bytes, too many pixels: refused before it is decoded.
        self.assert_error(self.server.request("POST", "/api/recognize", grey_png(8000, 6000)), 422, "pixels")
        self.assert_error(self.server.request("POST", "/api/recognize", b"\0" * (17 << 20)), 413, "too large")

    def test_bad_questions_get_a_message(self):
        cases = [
            ("GET", "/api/similar?name=NoSuchFontAnywhere", 422, "no installed font is named"),
            ("GET", "/api/similar", 400, "name"),
            ("GET", "/api/classes?class=gothic", 400, "no style class is named 'gothic'"),
            ("GET", "/api/classes?limit=lots", 400, "limit"),
            ("GET", "/api/specimen?name=NoSuchFontAnywhere", 404, "no installed font is named"),
            ("GET", "/api/specimen?name=%s&text=%%20%%20" % self.font, 422, "cannot draw the specimen"),
            ("GET", "/api/specimen?name=%s&text=%s" % (self.font, "x" * 201), 400, "at most 200 characters"),
            ("GET", "/api/specimen?name=%s&size=5000" % self.font, 400, "size"),
            ("GET", "/api/recognize", 405, "POST"),
            ("POST", "/api/similar?name=x", 405, "POST"),
            ("DELETE", "/", 405, "GET"),
            ("GET", "/api/nothing", 404, "nothing at"),
            ("GET", "/../../etc/passwd", 404, "nothing at"),
            ("GET", "/%2e%2e/%2e%2e/etc/passwd", 404, "nothing at"),
        ]
        for method, path, status, text in cases:
            with self.subTest(path=path):
                self.assert_error(self.server.request(method, path, b"" if method == "POST" else None), status, text)

    def test_other_sites_are_refused(self):
        own = "127.0.0.1:%d" % self.server.port
        self.assert_error(self.server.request("GET", "/api/progress", headers={"Host": "rebound.example:%d"
                                                                               % self.server.port}),
                          403, "its own address")
        self.assert_error(self.server.request("GET", "/", headers={"Host": "127.0.0.1:1"}), 403, "its own address")
        self.assert_error(self.server.request("POST", "/api/recognize", self.line_png,
                                              headers={"Host": own, "Origin": "http://rebound.example"}),
                          403, "other sites")
        for host in (own, "localhost:%d" % self.server.port):
            status, _, _ = self.server.request("GET", "/", headers={"Host": host, "Origin": "http://" + host})
            self.assertEqual(status, 200, host)

    def test_page_and_specimens(self):
        status, kind, page = self.server.request("GET", "/")
        self.assertEqual((status, kind), (200, "text/html; charset=utf-8"))
        for asset in (b"app.js", b"style.css"):
            self.assertIn(asset, page)
            self.assertEqual(self.server.request("GET", "/" + asset.decode())[0], 200)
        path = "/api/specimen?name=%s&text=Quick%%20brown&size=40" % self.font
        status, kind, png = self.server.request("GET", path)
        self.assertEqual((status, kind), (200, "image/png"))
        self.assertTrue(png.startswith(b"\x89PNG"))
        height = int.from_bytes(png[20:24], "big")
        self.assertTrue(20 <= height <= 80, height)  # 40 pixels to the em, over the ink box
        self.assertEqual(self.server.request("GET", path)[2], png)

    def test_twenty_requests_at_once(self):
        paths = [("GET", "/api/similar?name=%s&limit=5" % self.font, None),
                 ("GET", "/api/classes?class=serif&limit=10", None),
                 ("GET", "/api/specimen?name=%s&text=w%%20%d" % (self.font, 0), None),
                 ("POST", "/api/recognize", self.line_png),
                 ("GET", "/api/progress", None)]
        jobs = [paths[i % len(paths)] for i in range(20)]
        with concurrent.futures.ThreadPoolExecutor(20) as pool:
            answers = list(pool.map(lambda job: self.server.request(*job), jobs))
        self.assertEqual([a[0] for a in answers], [200] * 20, [a[2][:200] for a in answers if a[0] != 200])
        # The same question gives the same answer whatever else is asked beside it.
        for i in range(len(paths), 20):
            self.assertEqual(answers[i][2], answers[i % len(paths)][2], jobs[i])


if __name__ == "__main__":
    FONTRIX = sys.argv.pop(1)
    unittest.main(verbosity=2)
