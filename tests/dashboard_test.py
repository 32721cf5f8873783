#!/usr/bin/env python3
"""The web dashboard of `korvel serve`, tested in a real headless Chromium.

Runs a real ZooKeeper (through dashboard_fixture, which can also stop and restart it and seed many
instances), a real `korvel serve` on a free loopback port, and instances registered by
`korvel register` child processes, and checks what a person sees: the types overview and its
counts, a type page that follows registrations, status changes and departures without a reload,
an instance page with its child records, the stale banner while ZooKeeper is down, the page
reconnecting by itself after the server went away, deep links, keys, phone width, the dark scheme,
a server started with --token-file (the page asks for its token, then shows the live type page),
and no error in the browser's console. It prints how long the first render of 1,000 instances took
and how the page kept up with 100 changes a second (measured, not asserted), and saves
screenshots.

Exit code 77 (skipped) when no browser or no Selenium is installed.

  dashboard_test.py --korvel PATH --fixture PATH [--screenshots DIR]
KORVEL_DASHBOARD_SCREENSHOTS, when set, overrides --screenshots (docs/img keeps the README's).
"""
import argparse
import base64
import ctypes
import os
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import traceback

SKIP = 77
LOOPBACK = "127.0.0.1"
STEP = 0.05  # seconds between two looks at the page


def log(message):
    print(message, flush=True)


def skip(reason):
    log(f"SKIPPED: {reason}")
    sys.exit(SKIP)


def die_with_parent():
    """In a child, before exec: the kernel ends it when the test process dies (a timeout)."""
    PR_SET_PDEATHSIG = 1
    ctypes.CDLL(None, use_errno=True).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


class Child:
    """A child process whose stdout is read line by line on a thread of its own."""

    def __init__(self, name, argv, env=None):
        self.name = name
        self.process = subprocess.Popen(
            argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True, bufsize=1, env=env, preexec_fn=die_with_parent)
        self.lines = queue.Queue()
        self.errors = []
        threading.Thread(target=self._read, args=(self.process.stdout, self.lines.put),
                         daemon=True).start()
        threading.Thread(target=self._read, args=(self.process.stderr, self.errors.append),
                         daemon=True).start()

    @staticmethod
    def _read(stream, put):
        for line in stream:
            put(line.rstrip("\n"))

    def line(self, timeout):
        try:
            return self.lines.get(timeout=timeout)
        except queue.Empty:
            raise AssertionError(f"{self.name}: no output within {timeout} s; stderr: "
                                 f"{' | '.join(self.errors[-5:])}") from None

    def command(self, text, timeout=30):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()
        answer = self.line(timeout)
        while answer.startswith("re-registered"):  # a registration after a session expiry
            answer = self.line(timeout)
        if not answer.startswith("ok"):
            raise AssertionError(f"{self.name}: '{text}' answered '{answer}'")
        return answer

    def stop(self, sig=signal.SIGTERM, timeout=10):
        if self.process.poll() is None:
            self.process.send_signal(sig)
            try:
                self.process.wait(timeout)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(5)

    def close(self, timeout=30):
        """Ends a child that stops at the end of its stdin."""
        if self.process.poll() is None:
            try:
                self.process.stdin.close()
                self.process.wait(timeout)
            except (subprocess.TimeoutExpired, BrokenPipeError):
                self.stop()


def wait_for(what, predicate, timeout):
    """Polls `predicate` until it returns something true; returns it and the seconds it took."""
    started = time.monotonic()
    last = None
    while True:
        try:
            last = predicate()
        except Exception as e:  # the page may be between two states
            last = e
        if last and not isinstance(last, Exception):
            return last, time.monotonic() - started
        if time.monotonic() - started > timeout:
            raise AssertionError(f"{what}: not within {timeout} s (last: {last!r})")
        time.sleep(STEP)


# The page's main table as data: one entry per body row. A row out of view is not rendered
# (content-visibility), so the texts are read from the DOM, not as rendered (innerText).
ROWS_JS = """
const text = (node) => {
  const parts = [];
  const walker = document.createTreeWalker(node, NodeFilter.SHOW_TEXT);
  while (walker.nextNode()) {
    if (!walker.currentNode.parentElement.closest('[aria-hidden=true]')) {
      parts.push(walker.currentNode.data);
    }
  }
  return parts.join(' ').replace(/\\s+/g, ' ').trim();
};
return [...document.querySelectorAll('#main .grid-body [role=row]')].map((tr) => ({
  key: tr.dataset.key, cls: tr.className, flash: tr.dataset.flash || '',
  cells: [...tr.querySelectorAll('[role=cell]')].map(text)}));
"""
CONNECTION_JS = """
const banner = document.getElementById('banner');
return {state: document.getElementById('conn').dataset.state,
        pill: document.getElementById('conn').innerText,
        banner: banner.hidden ? '' : banner.innerText, bannerState: banner.dataset.state || ''};
"""


class DashboardTest:
    def __init__(self, args, webdriver, service_class):
        self.args = args
        self.webdriver = webdriver
        self.service_class = service_class
        self.children = []
        self.registrations = {}
        self.shots = args.screenshots
        self.tmp = tempfile.mkdtemp(prefix="korvel-dashboard-test.")
        self.driver = None
        self.figures = []

    # ---- processes ----

    def start_fixture(self):
        self.fixture = Child("dashboard_fixture", [self.args.fixture])
        self.children.append(self.fixture)
        self.zk = self.fixture.line(90)
        assert self.zk.startswith(LOOPBACK + ":"), f"fixture printed {self.zk!r}"
        log(f"ZooKeeper at {self.zk}")

    def start_serve(self, port=0, more=()):
        serve = Child("korvel serve", [self.args.korvel, "--zk", self.zk, "--session-timeout",
                                       "2000", "serve", "--listen", f"{LOOPBACK}:{port}", *more])
        first = serve.line(30)
        prefix = f"listening on http://{LOOPBACK}:"
        assert first.startswith(prefix), f"korvel serve printed {first!r}"
        self.serve = serve
        self.children.append(serve)
        self.port = int(first[len(prefix):])
        self.base = f"http://{LOOPBACK}:{self.port}"

    def register(self, name, type_, status="up", child_attrs=()):
        argv = [self.args.korvel, "--zk", self.zk, "--session-timeout", "2000", "register", type_,
                "--name", name, "--status", status]
        for attr in child_attrs:
            argv += ["--child-attr", attr]
        env = dict(os.environ, CHEF_RECIPE_NAME=f"{type_.replace('/', '_')}::default")
        child = Child(f"korvel register {name}", argv, env)
        self.children.append(child)
        instance_id = child.line(30)
        assert len(instance_id) == 36, f"register printed {instance_id!r}"
        self.registrations[name] = (child, instance_id)
        return instance_id

    # ---- the browser ----

    def start_browser(self):
        options = self.webdriver.ChromeOptions()
        options.binary_location = self.args.chromium
        for argument in [
                "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                f"--user-data-dir={self.tmp}/profile", "--window-size=1280,900",
                "--no-first-run", "--no-default-browser-check", "--disable-extensions",
                "--disable-background-networking", "--disable-component-update", "--disable-sync",
                "--disable-default-apps", "--lang=en-US",
                # Nothing but loopback: any other name resolves to nothing.
                "--host-resolver-rules=MAP * ~NOTFOUND , EXCLUDE 127.0.0.1"]:
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        # A time zone that is not UTC, so that local and UTC times differ on the page.
        service = self.service_class(executable_path=self.args.chromedriver,
                                     log_path=os.path.join(self.tmp, "chromedriver.log"),
                                     env=dict(os.environ, TZ="Europe/Berlin"))
        self.driver = self.webdriver.Chrome(options=options, service=service)
        self.driver.set_page_load_timeout(30)
        self.driver.set_script_timeout(30)

    def js(self, script, *args):
        return self.driver.execute_script(script, *args)

    def open(self, route):
        """Loads the page afresh (not only a change of the hash) at `route`."""
        self.driver.get("about:blank")
        self.driver.get(self.base + "/" + route)

    def rows(self):
        return self.js(ROWS_JS)

    def row(self, key):
        return next((r for r in self.rows() if r["key"] == key), None)

    def connection(self):
        return self.js(CONNECTION_JS)

    def screenshot(self, name, whole=False):
        """The viewport, or with `whole` the whole page, as a PNG."""
        os.makedirs(self.shots, exist_ok=True)
        path = os.path.join(self.shots, name + ".png")
        if whole:
            size = self.driver.execute_cdp_cmd("Page.getLayoutMetrics", {})["cssContentSize"]
            # Captured beyond the viewport, the page loses its vertical scroll bar and is laid
            # out at the window's whole width: clip to that, not to the width beside the bar.
            width = max(size["width"], self.js("return window.innerWidth"))
            shot = self.driver.execute_cdp_cmd("Page.captureScreenshot", {
                "format": "png", "captureBeyondViewport": True,
                "clip": {"x": 0, "y": 0, "width": width, "height": size["height"],
                         "scale": 1}})
            with open(path, "wb") as out:
                out.write(base64.b64decode(shot["data"]))
        else:
            self.driver.save_screenshot(path)
        log(f"screenshot {path}")

    def console(self, allow_network=False):
        """The browser's log since the last look; fails on errors (network ones only if allowed:
        a server that is down, or a 503 while ZooKeeper is)."""
        entries = self.driver.get_log("browser")
        bad = []
        for entry in entries:
            if entry["level"] not in ("SEVERE", "WARNING"):
                continue
            if allow_network and entry.get("source") == "network":
                continue
            bad.append(f"{entry['level']} {entry.get('source')}: {entry['message']}")
        assert not bad, "browser console:\n  " + "\n  ".join(bad)
        return len(entries)

    def press(self, keys):
        from selenium.webdriver.common.action_chains import ActionChains
        ActionChains(self.driver).send_keys(keys).perform()

    # ---- the checks ----

    def run(self):
        self.start_fixture()
        self.start_serve()
        log(f"korvel serve at {self.base}")
        self.check_assets()
        ids = {}
        ids["billing-eu-1"] = self.register("billing-eu-1", "billing",
                                            child_attrs=["worker-1:port=8080"])
        ids["billing-eu-2"] = self.register("billing-eu-2", "billing")
        ids["billing-us-1"] = self.register("billing-us-1", "billing", status="down")
        ids["shipping-1"] = self.register("shipping-1", "shipping", status="down")
        ids["search-1"] = self.register("search-1", "search")
        ids["search-2"] = self.register("search-2", "search", status="up_sending_disabled")
        ids["eu-billing-1"] = self.register("eu-billing-1", "eu/billing")
        self.registrations["billing-eu-1"][0].command("attr a/b:x=1")
        self.ids = ids
        self.start_browser()
        self.check_overview()
        self.check_type_page()
        self.check_instance_page()
        self.check_keys()
        self.check_deep_links()
        self.check_phone_and_dark()
        self.console()
        self.check_stale()
        self.check_server_gone()
        self.console(allow_network=True)
        self.check_thousand()
        self.console()
        self.check_token()
        self.console(allow_network=True)

    def check_assets(self):
        import urllib.error
        import urllib.request

        def get(path):
            try:
                with urllib.request.urlopen(self.base + path, timeout=10) as response:
                    return response.status, dict(response.headers), response.read()
            except urllib.error.HTTPError as e:
                return e.code, dict(e.headers), e.read()

        status, headers, body = get("/")
        assert status == 200 and headers["Content-Type"].startswith("text/html"), (status, headers)
        assert headers["Cache-Control"] == "no-cache", headers
        page = body.decode()
        assert "/assets/app.js?v=" in page and "/assets/app.css?v=" in page, page
        version = page.split("/assets/app.js?v=")[1].split('"')[0]
        status, headers, _ = get("/assets/app.js?v=" + version)
        assert status == 200 and headers["Content-Type"].startswith("text/javascript"), headers
        assert "immutable" in headers["Cache-Control"], headers
        status, headers, _ = get("/assets/app.css")
        assert status == 200 and headers["Content-Type"].startswith("text/css"), headers
        assert headers["Cache-Control"] == "no-cache", headers
        status, headers, _ = get("/assets/icon.svg")
        assert status == 200 and headers["Content-Type"] == "image/svg+xml", headers
        status, _, _ = get("/assets/nothing.js")
        assert status == 404, status
        status, _, _ = get("/assets/index.html")
        assert status == 404, status
        for marker in ("http://", "https://", "//fonts", "cdn"):
            assert marker not in page.replace('xmlns="http://www.w3.org/2000/svg"', ""), marker
        log("assets: page, script, styles and icon served with their types; unknown ones 404")

    def check_overview(self):
        self.open("")
        rows, _ = wait_for("the overview's four types", lambda: (
            r := self.rows()) and len(r) == 4 and r, 20)
        by_type = {r["key"]: r["cells"] for r in rows}
        assert set(by_type) == {"billing", "eu/billing", "search", "shipping"}, by_type
        # Type, Instances, up, down, up_sending_disabled, other, State
        assert by_type["billing"][1:6] == ["3", "2", "1", "0", "0"], by_type["billing"]
        assert by_type["search"][1:6] == ["2", "1", "0", "1", "0"], by_type["search"]
        assert by_type["shipping"][1:6] == ["1", "0", "1", "0", "0"], by_type["shipping"]
        assert "no instance up" in by_type["shipping"][6], by_type["shipping"]
        assert "no instance up" not in by_type["billing"][6], by_type["billing"]
        assert "no-up" in next(r for r in rows if r["key"] == "shipping")["cls"]
        summary = self.js("return document.querySelector('#main .note').innerText")
        assert "4 types" in summary and "7 live instances" in summary, summary
        self.screenshot("overview")

        # The filter, and the route that keeps it.
        box = self.driver.find_element("id", "filter")
        box.send_keys("ship")
        wait_for("the filter", lambda: [r["key"] for r in self.rows()] == ["shipping"], 5)
        assert "q=ship" in self.driver.current_url, self.driver.current_url
        box.send_keys("\ue00c")  # Escape clears it
        wait_for("the filter cleared", lambda: len(self.rows()) == 4, 5)

        # Sorting by a header, twice for the descending order.
        header = self.driver.find_element("css selector",
                                          "#main [role=columnheader]:nth-child(2) button")
        header.click()
        header.click()
        order, _ = wait_for("sorted by instances, descending", lambda: (
            o := [r["key"] for r in self.rows()]) and o[0] == "billing" and o, 5)
        sort = self.js("return document.querySelector('#main [role=columnheader]:nth-child(2)')"
                       ".getAttribute('aria-sort')")
        assert sort == "descending", sort
        assert order[-1] in ("eu/billing", "shipping"), order
        log("overview: four types with their counts by status, the one with none up marked; "
            "filter and sort")

    def check_type_page(self):
        self.driver.find_element("css selector", "#main a[href='#/type/billing']").click()
        wait_for("the billing page", lambda: len(self.rows()) == 3, 10)
        assert self.driver.current_url.endswith("#/type/billing"), self.driver.current_url
        ids = self.ids
        first = self.row(ids["billing-eu-1"])["cells"]
        # Id, Status, Name, Host, PID, Started, Version, Recipe
        assert first[0] == ids["billing-eu-1"] and first[1] == "up" and first[2] == "billing-eu-1"
        assert first[4].isdigit(), first
        # Local (Berlin) and UTC: two different clock times, and the age.
        local, utc = re.findall(r"\d\d:\d\d:\d\d", first[5])[:2]
        assert local != utc and "UTC" in first[5] and "ago" in first[5], first
        assert first[7] == "billing::default", first
        assert self.row(ids["billing-us-1"])["cells"][1] == "down"
        # The status has a word and a shape besides its colour.
        badge = self.js("return document.querySelector('#main .grid-body .badge').innerText")
        assert badge.strip()[0] in "●■◆○" and any(w in badge for w in ("up", "down")), badge
        self.js("window.__noReload = 'still here'")
        self.console()

        new_id = self.register("billing-eu-4", "billing")
        _, took = wait_for("a new instance on the open page",
                           lambda: self.row(new_id), 2)
        self.figures.append(f"new instance shown after {took * 1000:.0f} ms")
        assert "added" in self.row(new_id)["flash"], self.row(new_id)

        self.registrations["billing-eu-1"][0].command("status down")
        _, took = wait_for("a status change on the open page",
                           lambda: self.row(ids["billing-eu-1"])["cells"][1] == "down", 2)
        self.figures.append(f"status change shown after {took * 1000:.0f} ms")
        assert "changed" in self.row(ids["billing-eu-1"])["flash"]

        self.registrations["billing-eu-2"][0].stop()  # SIGTERM: it unregisters and exits
        gone = ids["billing-eu-2"]
        row, took = wait_for("an instance that left, highlighted or gone", lambda: (
            (r := self.row(gone)) is None or "leaving" in r["cls"]) and (r or "gone"), 2)
        self.figures.append(f"departure shown after {took * 1000:.0f} ms")
        if row != "gone":
            assert row["cells"][1] == "gone", row
        wait_for("the instance that left, off the page", lambda: self.row(gone) is None, 4)
        assert len(self.rows()) == 3
        assert self.js("return window.__noReload") == "still here", "the page was reloaded"
        summary = self.js("return document.querySelector('#main .note').innerText")
        assert "3 live instances" in summary and "1 up" in summary, summary
        self.screenshot("type")
        log("type page: a registration, a status change and a departure shown live, "
            "without a reload")

    def check_instance_page(self):
        id1 = self.ids["billing-eu-1"]
        self.driver.find_element("css selector", f"#main [role=row][data-key='{id1}'] a").click()
        self.wait_instance_page(id1)
        self.js("window.__noReload = 'instance'")
        values = self.js("""
          const out = {};
          for (const tr of document.querySelectorAll('li[data-path] table tr[data-attribute]')) {
            const path = tr.closest('li[data-path]').dataset.path;
            out[path + ':' + tr.dataset.attribute] = tr.cells[1].innerText;
          }
          return out;""")
        assert values.get("worker-1:port") == "8080", values
        assert values.get("a/b:x") == "1", values
        nested = self.js("return !!document.querySelector("
                         "\"li[data-path='a'] li[data-path='a/b']\")")
        assert nested, "a/b is not below a"
        status = self.js("return document.querySelector('h1 .badge').innerText")
        assert "down" in status, status

        self.registrations["billing-eu-1"][0].command("attr worker-1:port=8081")
        self.registrations["billing-eu-1"][0].command("status up")
        wait_for("the changed child attribute and status", lambda: self.js("""
          const tr = document.querySelector("li[data-path='worker-1'] tr[data-attribute='port']");
          const status = document.querySelector('h1 .badge').innerText;
          return tr && tr.cells[1].innerText === '8081' && !/not since/.test(tr.cells[2].innerText)
            && /up/.test(status) && !/not since/.test(document.querySelector(
              "tr[data-attribute='status']").cells[2].innerText);"""), 8)
        assert self.js("return window.__noReload") == "instance", "the page was reloaded"
        self.screenshot("instance", whole=True)
        log("instance page: attributes, child records as a tree, changes with their times")

    def wait_instance_page(self, instance_id, records=3):
        wait_for("the instance page", lambda: self.js(
            "return document.querySelector('h1') && document.querySelector('h1').innerText"
            ".startsWith(arguments[0]) && document.querySelector('#attributes') && "
            "document.querySelectorAll('li[data-path]').length === arguments[1]",
            instance_id, records), 10)

    def check_keys(self):
        self.press("u")
        wait_for("u: up to the type page", lambda: self.driver.current_url.endswith(
            "#/type/billing") and len(self.rows()) == 3, 5)
        self.press("/")
        assert self.js("return document.activeElement.id") == "filter"
        self.press("\ue00c")  # Escape
        self.press("j")
        focused = self.js("return document.activeElement.closest('[role=row]') && "
                          "document.activeElement.closest('[role=row]').dataset.key")
        assert focused == self.rows()[0]["key"], focused
        self.press("j")
        second = self.js("return document.activeElement.closest('[role=row]').dataset.key")
        assert second == self.rows()[1]["key"], second
        self.press("\ue007")  # Enter opens it
        self.wait_instance_page(second, records=0)
        self.press("?")
        assert self.js("return document.getElementById('keys').open")
        self.press("\ue00c")
        assert not self.js("return document.getElementById('keys').open")
        log("keys: / filter, j next row, Enter open, u up, ? help")

    def check_deep_links(self):
        id1 = self.ids["billing-eu-1"]
        self.open(f"#/type/billing/{id1}")
        self.wait_instance_page(id1)
        self.driver.refresh()
        self.wait_instance_page(id1)
        self.open("#/type/eu/billing")
        wait_for("the deep link to eu/billing", lambda: (
            [r["key"] for r in self.rows()] == [self.ids["eu-billing-1"]]), 10)
        assert self.js("return document.querySelector('h1').innerText") == "eu/billing"
        self.open("#/type/billing?q=us")
        wait_for("a deep link with a filter", lambda: (
            [r["key"] for r in self.rows()] == [self.ids["billing-us-1"]]), 10)
        assert self.js("return document.getElementById('filter').value") == "us"
        log("deep links: an instance (also after a reload), a type with '/', a filter")

    def check_phone_and_dark(self):
        self.open("#/type/billing")
        wait_for("the billing page", lambda: len(self.rows()) == 3, 10)
        phone = {"width": 390, "height": 844, "deviceScaleFactor": 2, "mobile": True}
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", phone)
        overflow = self.js("return document.documentElement.scrollWidth - "
                           "document.documentElement.clientWidth")
        assert overflow <= 1, f"{overflow} px wider than a phone"
        cards = self.js("return getComputedStyle(document.querySelector("
                        "'#main .grid-body [role=row]')).display")
        assert cards == "block", cards
        self.screenshot("type-phone")
        self.open("")
        wait_for("the overview", lambda: len(self.rows()) == 4, 10)
        overflow = self.js("return document.documentElement.scrollWidth - "
                           "document.documentElement.clientWidth")
        assert overflow <= 1, f"{overflow} px wider than a phone"
        self.driver.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})

        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": "dark"}]})
        self.open("#/type/billing")
        wait_for("the billing page", lambda: len(self.rows()) == 3, 10)
        background = self.js("return getComputedStyle(document.body).backgroundColor")
        channels = [int(c) for c in background[background.index("(") + 1:-1].split(",")[:3]]
        assert max(channels) < 60, f"not dark: {background}"
        self.screenshot("type-dark")
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})
        log("phone width: no sideways scrolling, tables as cards; dark scheme followed")

    def check_stale(self):
        self.open("#/type/billing")
        wait_for("the page connected", lambda: self.connection()["state"] == "connected", 10)
        self.fixture.command("stop", 60)
        stopped = time.monotonic()
        state, took = wait_for("the stale banner", lambda: (
            c := self.connection())["bannerState"] == "stale" and c, 15)
        assert "Stale" in state["banner"] and "since" in state["banner"].lower(), state
        assert state["state"] == "stale" and "since" in state["pill"], state
        self.figures.append(f"stale banner after {took:.1f} s without ZooKeeper")
        # Until the stream's cache gives up the session too, then the picture.
        time.sleep(max(0, 3 - (time.monotonic() - stopped)))
        self.screenshot("stale")
        self.fixture.command("start", 60)
        _, took = wait_for("the stale banner cleared", lambda: (
            c := self.connection())["state"] == "connected" and c["banner"] == "", 20)
        self.figures.append(f"banner cleared {took:.1f} s after ZooKeeper was back")
        wait_for("the three instances after the outage", lambda: len(self.rows()) == 3, 10)
        log("ZooKeeper stopped: stale banner with its time; started again: cleared")

    def check_server_gone(self):
        port = self.port
        self.serve.stop()
        self.children.remove(self.serve)
        state, took = wait_for("the reconnecting banner", lambda: (
            c := self.connection())["bannerState"] == "reconnecting" and c, 10)
        assert "Disconnected" in state["banner"], state
        self.figures.append(f"server gone shown after {took:.1f} s")
        self.start_serve(port)
        _, took = wait_for("reconnected by itself", lambda: (
            c := self.connection())["state"] == "connected" and c["banner"] == "" and
            len(self.rows()) == 3, 20)
        self.figures.append(f"reconnected {took:.1f} s after the server was back")
        log("korvel serve stopped: the page says so; started again: it reconnects by itself")

    def check_thousand(self):
        answer = self.fixture.command("seed bulk 1000", 60)
        log(f"fixture: {answer}")
        # First while the server has no cache of the type (it reads the 1,000 instances for this
        # request), then again with its cache made.
        for when in ("the server's cache made for it", "the server's cache warm"):
            self.open("#/type/bulk")
            first, _ = wait_for("the first render of 1,000 instances", lambda: self.js(
                "return window.korvelDashboard && window.korvelDashboard.metrics.firstRender"), 30)
            assert first["rows"] == 1000, first
            assert len(self.rows()) == 1000
            times = self.js("""const n = performance.getEntriesByType('navigation')[0];
                return {loaded: n.domContentLoadedEventEnd,
                        snapshot: window.korvelDashboard.metrics.firstSnapshot};""")
            self.figures.append(
                f"first render of 1,000 instances ({when}): {first['paintedMs']:.0f} ms from "
                f"navigation to paint; page loaded at {times['loaded']:.0f} ms, snapshot "
                f"received at {times['snapshot']:.0f} ms, table drawn at "
                f"{first['drawnMs']:.0f} ms")
        self.screenshot("type-1000")

        # 100 status changes a second for 5 s: the gaps between frames, the tasks over 50 ms,
        # and the script time of the page's draws.
        self.js("""
          window.korvelDashboard.metrics.draws = {count: 0, rows: 0, totalMs: 0, maxMs: 0};
          const m = window.__churn = {gaps: [], longTasks: 0, longest: 0};
          let last = performance.now();
          const frame = (t) => {
            m.gaps.push(t - last);
            last = t;
            if (!m.stop) requestAnimationFrame(frame);
          };
          requestAnimationFrame(frame);
          m.observer = new PerformanceObserver((list) => {
            for (const e of list.getEntries()) {
              m.longTasks++;
              m.longest = Math.max(m.longest, e.duration);
            }
          });
          m.observer.observe({entryTypes: ['longtask']});""")
        answer = self.fixture.command("churn bulk 100 5", 60)
        log(f"fixture: {answer}")
        churn = self.js("""const m = window.__churn;
            m.stop = true;
            m.observer.disconnect();
            const gaps = m.gaps.slice(1).sort((a, b) => a - b);
            return {frames: gaps.length, p50: gaps[Math.floor(gaps.length * 0.5)],
                    p95: gaps[Math.floor(gaps.length * 0.95)], max: gaps[gaps.length - 1],
                    longTasks: m.longTasks, longest: m.longest,
                    draws: window.korvelDashboard.metrics.draws};""")
        # Every status went down and came back in turn: the first 500 are down now.
        wait_for("the page caught up with the churn", lambda: self.js(
            "return document.querySelectorAll('#main .grid-body .badge[data-status=down]').length")
            == 500, 10)
        draws = churn["draws"]
        self.figures.append(
            f"100 changes/s on 1,000 rows for 5 s: {churn['frames']} frames, gap between frames "
            f"median {churn['p50']:.0f} ms, p95 {churn['p95']:.0f} ms, max {churn['max']:.0f} ms; "
            f"{churn['longTasks']} tasks over 50 ms (longest {churn['longest']:.0f} ms); "
            f"{draws['count']} draws of {draws['rows']} rows took {draws['totalMs']:.0f} ms of "
            f"script (longest {draws['maxMs']:.0f} ms)")
        log("1,000 instances drawn; the page kept up with 100 changes a second")

    def check_token(self):
        """A server started with --token-file: the page asks for the token, asks again after a
        wrong one, then shows the live type page; a reload keeps the token for the tab."""
        path = os.path.join(self.tmp, "token")
        secret = "dashboard-t0ken-5ecret"
        with open(os.open(path, os.O_WRONLY | os.O_CREAT, 0o600), "w") as out:
            out.write(secret + "\n")
        self.start_serve(more=["--token-file", path])
        first = self.register("secured-1", "secured")
        self.open("#/type/secured")
        dialog_open = "return document.getElementById('token').open"
        wait_for("the token dialog", lambda: self.js(dialog_open), 10)
        assert not self.rows(), "rows shown without the token"
        self.screenshot("token")
        field = self.driver.find_element("id", "token-input")
        field.send_keys("not-the-" + secret)
        self.driver.find_element("id", "token-submit").click()
        wait_for("the token dialog again after a wrong token", lambda: self.js(
            dialog_open + " && !document.getElementById('token-wrong').hidden"), 10)
        field.send_keys(secret)
        self.driver.find_element("id", "token-submit").click()
        wait_for("the secured type page", lambda: self.row(first), 10)
        assert not self.js(dialog_open), "the dialog is still open"
        second = self.register("secured-2", "secured")
        _, took = wait_for("a new instance on the secured page", lambda: self.row(second), 2)
        self.figures.append(f"with a token: new instance shown after {took * 1000:.0f} ms")
        self.driver.refresh()
        wait_for("the secured page after a reload", lambda: len(self.rows()) == 2, 10)
        assert not self.js(dialog_open), "the token was asked for again after a reload"
        log("token: asked for once, asked again after a wrong one, then the live type page")

    def close(self):
        if self.driver is not None:
            try:
                self.driver.quit()
            except Exception:
                pass
        for child in reversed(self.children):
            if child is getattr(self, "fixture", None):
                child.close(60)
            else:
                child.stop()
        shutil.rmtree(self.tmp, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--korvel", required=True)
    parser.add_argument("--fixture", required=True)
    parser.add_argument("--screenshots", default="dashboard_screenshots")
    args = parser.parse_args()
    args.screenshots = os.environ.get("KORVEL_DASHBOARD_SCREENSHOTS") or args.screenshots

    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError:
        skip("no Selenium for this Python (Debian: python3-selenium; scripts/install-deps.sh)")
    args.chromium = next((p for p in (shutil.which(n) for n in (
        "chromium", "chromium-browser", "google-chrome")) if p), None)
    args.chromedriver = shutil.which("chromedriver")
    if not args.chromium or not args.chromedriver:
        skip("no Chromium or no chromedriver installed (Debian: chromium chromium-driver; "
             "scripts/install-deps.sh)")

    started = time.monotonic()
    stale = os.path.join(args.screenshots, "failure.png")
    if os.path.exists(stale):
        os.remove(stale)  # from an earlier run
    test = DashboardTest(args, webdriver, Service)
    failed = False
    try:
        test.run()
    except Exception:
        failed = True
        traceback.print_exc()
        if test.driver is not None:
            try:
                test.screenshot("failure")
                for entry in test.driver.get_log("browser"):
                    log(f"browser: {entry['level']} {entry['message']}")
            except Exception:
                pass
    finally:
        test.close()
    for figure in test.figures:
        log(f"measured: {figure}")
    log(f"dashboard_test {'FAILED' if failed else 'passed'} in {time.monotonic() - started:.1f} s")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
