#!/usr/bin/python3
"""fontrix serve against its targets, on this machine's fonts with warm caches: the page ready
(its files and first progress answer over HTTP, and in chromium when it is installed: from
navigation until the page's script has asked the progress), an identify answer for a 1600 ×
1000 screenshot with a line of text, 20 API requests at once, and the whole process's peak
memory.

Usage: bench/serve_targets.py [BUILD_DIR]   (run from the checkout; default build; the caches:
a temporary folder, made first by fontrix index)
"""
import concurrent.futures
import io
import os
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "host", "tool"))
from serving import Server  # noqa: E402

BUILD = sys.argv[1] if len(sys.argv) > 1 else "build"
FONTRIX = os.path.join(BUILD, "bin", "fontrix")
RUNS = 15


def screenshot(line_png):
    """A 1600 × 1000 screenshot: a light grey window, a header bar, the line in the middle."""
    from PIL import Image, ImageDraw
    page = Image.new("RGB", (1600, 1000), (246, 246, 246))
    ImageDraw.Draw(page).rectangle((0, 0, 1600, 60), fill=(40, 44, 52))
    line = Image.open(io.BytesIO(line_png)).convert("RGB")
    page.paste(line, (200, 420))
    out = io.BytesIO()
    page.save(out, "PNG")
    return out.getvalue()


def timed(call):
    started = time.perf_counter()
    result = call()
    return time.perf_counter() - started, result


def page_in_browser(url):
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
        from selenium.webdriver.support.ui import WebDriverWait
    except ImportError:
        return None
    if not os.path.exists("/usr/bin/chromium"):
        return None
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"):
        options.add_argument(argument)
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    try:
        times = []
        for _ in range(5):
            driver.get("about:blank")
            started = time.perf_counter()
            driver.get(url)
            WebDriverWait(driver, 30).until(lambda d: d.execute_script(
                "return document.getElementById('progress').hidden && "
                "performance.getEntriesByName(location.origin + '/api/progress').length > 0"))
            times.append(time.perf_counter() - started)
        return statistics.median(times[1:])
    finally:
        driver.quit()


def main():
    cache = tempfile.mkdtemp(prefix="fontrix-serve-bench-")
    server = Server(FONTRIX, cache)
    server.tool("index")
    fonts = [f["name"] for f in server.tool("fonts")["fonts"]]
    font = "DejaVuSerif" if "DejaVuSerif" in fonts else fonts[0]
    line = os.path.join(cache, "line.png")
    subprocess.run([FONTRIX, "specimen", font, "Handgloves quick brown fox jumps", "-o", line, "--size", "40"],
                   check=True, capture_output=True, env=server.env)
    with open(line, "rb") as f:
        picture = screenshot(f.read())
    server.start()
    server.wait_ready()
    print("fonts used: %d" % len(fonts))

    files = ("/", "/app.js", "/style.css", "/api/progress")
    ready = [timed(lambda: [server.request("GET", path) for path in files])[0] for _ in range(RUNS)]
    print("page ready over HTTP (its files and progress, one after the other), median: %.1f ms"
          % (1000 * statistics.median(ready)))
    browser = page_in_browser(server.url)
    if browser is not None:
        print("page ready in chromium (navigation until the progress is asked and shown ready), median: %.0f ms"
              % (1000 * browser))

    answers = [timed(lambda: server.request("POST", "/api/recognize", picture)) for _ in range(RUNS)]
    named = sum(1 for _, (status, _, body) in answers if status == 200 and font.encode() in body[:2000])
    print("identify a 1600 x 1000 screenshot (%d KB), median / slowest: %.0f ms / %.0f ms; font named in %d of %d"
          % (len(picture) // 1024, 1000 * statistics.median(t for t, _ in answers),
             1000 * max(t for t, _ in answers), named, RUNS))

    jobs = [("GET", "/api/similar?name=%s&limit=20" % font, None), ("GET", "/api/classes?class=serif", None),
            ("GET", "/api/fonts?q=sans", None), ("POST", "/api/recognize", picture),
            ("GET", "/api/specimen?name=%s&text=Concurrent%%20%d" % (font, 1), None)] * 4
    with concurrent.futures.ThreadPoolExecutor(len(jobs)) as pool:
        seconds, results = timed(lambda: list(pool.map(lambda job: server.request(*job), jobs)))
    failed = [r[0] for r in results if r[0] != 200]
    print("%d API requests at once: %d answered without error, all in %.0f ms"
          % (len(jobs), len(jobs) - len(failed), 1000 * seconds))

    with open("/proc/%d/status" % server.process.pid) as f:
        status = dict(line.split(":", 1) for line in f if ":" in line)
    print("server process: peak %s, now %s" % (status["VmHWM"].strip(), status["VmRSS"].strip()))
    server.stop()


if __name__ == "__main__":
    main()
