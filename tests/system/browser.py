"""A real browser for tests of the page: Chromium of the machine, driven through its own driver; nothing is fetched.

Where it cannot be had the tests are left out, and say so.
"""
import base64
import http.server
import os
import shutil
import sys
import threading
import unittest
from pathlib import Path

from harness import PATIENCE, wait_until

sys.path.append("/usr/lib/python3/dist-packages")  # Debian's package, for a Python that is not Debian's
try:
    from selenium import webdriver
    from selenium.common.exceptions import StaleElementReferenceException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
except ImportError:
    webdriver = None
    StaleElementReferenceException = Exception

ROOT = Path(__file__).resolve().parents[2]
POLICY = ("default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; base-uri 'none'; "
          "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types 'none'")


def missing():
    """What a browser test lacks on this machine; empty when nothing."""
    lacks = [name for name in ("chromium", "chromedriver") if not shutil.which(name)]
    return ", ".join(lacks + ([] if webdriver else ["python3-selenium"]))


class Browser:
    """One window. Elements are found by what users and screen readers see of them: their names."""

    def __init__(self, directory, width=1280, height=800, ratio=1, dark=False):
        options = webdriver.ChromeOptions()
        options.binary_location = shutil.which("chromium")
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--hide-scrollbars", "--force-color-profile=srgb", "--disable-lcd-text"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.downloads = Path(directory) / "downloads"
        self.downloads.mkdir()
        options.add_experimental_option("prefs", {"download.default_directory": str(self.downloads)})
        service = Service(shutil.which("chromedriver"), env=dict(os.environ, HOME=str(directory), TMPDIR=str(directory)))
        self.driver = webdriver.Chrome(service=service, options=options)
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                    {"width": width, "height": height, "deviceScaleFactor": ratio, "mobile": width < 600})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                                    {"features": [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})

    def close(self):
        self.driver.quit()

    def open(self, address):
        self.driver.get(address)
        self.wait(lambda: self.run("return document.documentElement.dataset.ready"), "a page that is ready")

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def wait(self, condition, what, timeout=PATIENCE):
        """Waits for what the page shows; elements that it makes anew meanwhile are looked for again."""
        def look():
            try:
                return condition()
            except StaleElementReferenceException:
                return None
        return wait_until(look, what, timeout)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def named(self, name, selector="button, input, select, [role]"):
        """The visible element of which the name begins so."""
        script = """return [...document.querySelectorAll(arguments[0])].find((one) => one.checkVisibility() &&
            (one.getAttribute("aria-label") ?? one.textContent).startsWith(arguments[1]))"""
        return self.wait(lambda: self.run(script, selector, name), f"{name!r} on the page")

    def click(self, name, selector="button, input, select, [role]"):
        self.wait(lambda: self.named(name, selector).click() or True, f"a click on {name!r}")

    def keys(self, *keys):
        """Typed where the focus is."""
        self.driver.switch_to.active_element.send_keys(*keys)

    def text(self, selector):
        """What is shown there, "" for nothing."""
        return self.run("return document.querySelector(arguments[0])?.textContent ?? ''", selector)

    def wait_for_text(self, selector, text):
        self.wait(lambda: text in self.text(selector), f"{text!r} in {selector}; it has {self.text(selector)!r}")

    def picture(self, path):
        data = self.driver.execute_cdp_cmd("Page.captureScreenshot", {"format": "png"})["data"]
        Path(path).write_bytes(base64.b64decode(data))

    def troubles(self):
        """What the browser complained of: scripts that failed, what the policy blocked; not that the server refused a value, or a plan in
        the moment in which the measurement begins."""
        told = [entry["message"] for entry in self.driver.get_log("browser") if entry["level"] == "SEVERE"]
        return [one for one in told if "status of 422" not in one and not ("/measurement/plan" in one and "status of 409" in one)]

    def names(self):
        """Role and name of all that screen readers are told of."""
        nodes = self.driver.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]
        told = [(one.get("role", {}).get("value"), one.get("name", {}).get("value", "")) for one in nodes if not one.get("ignored")]
        return [one for one in told if one[0] not in ("StaticText", "InlineTextBox", "none", "generic", "LineBreak")]


@unittest.skipIf(missing(), f"no browser: {missing()} missing")
class BrowserCase:
    """Mixed into a test: makes browsers that are gone when it ends."""

    def browser(self, **size):
        browser = Browser(self.dir, **size)
        self.addCleanup(browser.close)
        return browser


def serve_modules(case):
    """The files of the page and their tests at an address of their own, under the page's policy; returns it."""
    folders = {"/page/": ROOT / "src" / "page", "/test/": ROOT / "tests" / "page"}
    types = {".js": "text/javascript", ".html": "text/html; charset=utf-8"}

    class Handler(http.server.BaseHTTPRequestHandler):
        def log_message(self, *_arguments):
            pass

        def do_GET(self):
            folder, _, name = self.path.rpartition("/")
            path = folders.get(folder + "/", ROOT) / name
            if not path.is_file() or path.suffix not in types:
                return self.send_error(404)
            self.send_response(200)
            self.send_header("Content-Type", types[path.suffix])
            self.send_header("Content-Security-Policy", POLICY)
            self.end_headers()
            return self.wfile.write(path.read_bytes())

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    thread = threading.Thread(target=server.serve_forever, daemon=True)
    thread.start()
    case.addCleanup(server.server_close)
    case.addCleanup(server.shutdown)
    return f"http://127.0.0.1:{server.server_address[1]}/test/index.html"
