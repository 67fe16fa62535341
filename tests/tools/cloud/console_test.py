#!/usr/bin/python3
"""Drives zel-cloud's support console in headless Chromium as a support agent
would: picks the device, opens a remote-support session, runs a command and
reads its answer, starts the screen stream and watches the picture change,
runs the network diagnostics, stops the stream, and saves a screenshot.

    /usr/bin/python3 console_test.py --control http://127.0.0.1:PORT \
        --screenshot console.png [--device CN] [--skip-stream] [--skip-diagnostics]

Needs Debian's python3-selenium, chromium and chromium-driver, a running
zel-cloud with a media relay and an agent that talks to it and has a screen
to stream (console_lab.sh makes such a lab). Exits 0 when every step passed, 1 with the step that
failed, 2 when it cannot run at all.
"""

import argparse
import shutil
import sys
import tempfile

try:
    from selenium import webdriver
    from selenium.common.exceptions import TimeoutException, WebDriverException
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.support.ui import Select, WebDriverWait
except ImportError as error:
    print("console_test: cannot import selenium (%s); it needs Debian's python3-selenium "
          "and /usr/bin/python3 to run it" % error, file=sys.stderr)
    sys.exit(2)

DEVICE_INFO = "FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO"
TRANSPORT_CONTROL = "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_TRANSPORT_CONTROL"
NETWORK_DIAGNOSTICS = "FFFFFF_LIVE_SUPPORT_NETWORK_DIAGNOSTICS"
DIAGNOSTICS_ROWS = [
    "Internet Type", "DNS Lookup", "Gateway Ping", "Internet Ping", "Latency (ms)",
    "Wireless Signal (dBm)", "Wireless Signal Quality (# of 5)", "Wireless Speed (Mbps)",
    "Speed Up (Mbps)", "Speed Down (Mbps)",
]
CHROMIUM_FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--window-size=1400,1800",
]


class Failure(Exception):
    pass


def log(text):
    print("console_test: " + text, flush=True)


class Console:
    def __init__(self, driver, scale):
        self.driver = driver
        self.scale = scale

    def wait(self, seconds, condition, what):
        """Waits for the condition, polled twice a second; fails saying what was awaited."""
        try:
            return WebDriverWait(self.driver, seconds * self.scale, poll_frequency=0.5).until(
                lambda _: condition(), what)
        except TimeoutException:
            raise Failure("after %d s still waiting: %s" % (seconds * self.scale, what))

    def find(self, testid):
        return self.driver.find_element(By.CSS_SELECTOR, '[data-testid="%s"]' % testid)

    def text(self, testid):
        return self.find(testid).text.strip()

    def enabled(self, testid):
        element = self.find(testid)
        return element if element.is_enabled() else None

    def click(self, testid, seconds=10):
        self.wait(seconds, lambda: self.enabled(testid), "the button %s enabled" % testid).click()

    def answer(self, command, operation, seconds):
        """Waits for the newest answer to the command and returns (result, data)."""
        selector = 'li[data-testid="result"][data-command="%s"][data-operation="%s"]' % (
            command, operation)

        def settled():
            items = self.driver.find_elements(By.CSS_SELECTOR, selector)
            if items and items[0].get_attribute("data-state") != "waiting":
                return items[0]
            return None

        item = self.wait(seconds, settled, "the answer to %s %s" % (command, operation))
        status = item.find_element(By.CSS_SELECTOR, '[data-testid="result-status"]').text
        if item.get_attribute("data-state") != "done":
            raise Failure("%s %s got no answer: %s" % (command, operation, status))
        data = item.find_element(By.CSS_SELECTOR, '[data-testid="result-data"]')
        return item.get_attribute("data-result"), data.get_attribute("textContent")


def open_console(console, url):
    log("opening " + url)
    console.driver.get(url)
    console.wait(10, lambda: console.text("cloud-status").startswith("connected"),
                 "the console connected to the cloud")
    if console.driver.title != "Zel support console":
        raise Failure("the page's title is %r" % console.driver.title)


def pick_device(console, device):
    def row():
        rows = console.driver.find_elements(By.CSS_SELECTOR, '[data-testid="device-row"]')
        rows = [r for r in rows if not device or r.get_attribute("data-device") == device]
        return rows[0] if rows else None

    found = console.wait(60, row, "the device %s in the device list" % (device or "(any)"))
    name = found.get_attribute("data-device")
    found.click()
    console.wait(10, lambda: console.text("selected-device") == name, "%s selected" % name)
    log("device " + name)
    return name


def open_session(console):
    console.click("session-open")
    console.wait(60, lambda: console.text("session-state") == "active",
                 "an active session (the device opens it at its next poll)")
    code = console.text("session-code")
    if not code.isdigit():
        raise Failure("the session code shown is %r" % code)
    log("session %s is active" % code)


def run_device_info(console):
    console.click("commands-load")
    console.wait(60, lambda: console.text("commands-status").endswith(" commands"),
                 "the device's commands listed (%s)" % console.text("commands-status"))
    select = Select(console.find("command-select"))
    values = [option.get_attribute("value") for option in select.options]
    if DEVICE_INFO not in values:
        raise Failure("%s is not among the commands offered: %s" % (DEVICE_INFO, values))
    select.select_by_value(DEVICE_INFO)
    Select(console.find("command-operation")).select_by_value("EXECUTE")
    console.click("command-run")
    result, data = console.answer(DEVICE_INFO, "EXECUTE", 60)
    if result != "0" or not data.strip():
        raise Failure("%s answered RESULT %s with %r" % (DEVICE_INFO, result, data))
    log("%s answered RESULT 0 with %d characters of data" % (DEVICE_INFO, len(data)))


def picture(console):
    """The <img> as the page shows it: PNG bytes of its part of the screen."""
    view = console.find("stream-view")
    shown = console.driver.execute_script(
        "const i = arguments[0]; return i.complete && i.naturalWidth > 0", view)
    return view.screenshot_as_png if shown else None


def watch_stream(console):
    console.click("stream-start")
    result, _ = console.answer(TRANSPORT_CONTROL, "EXECUTE", 60)
    if result != "0":
        raise Failure("starting the stream answered RESULT %s" % result)
    first = console.wait(60, lambda: picture(console), "the first picture of the stream")
    log("the stream shows a picture")
    console.wait(30, lambda: (picture(console) or first) != first, "the picture to change")
    log("the picture changed; " + console.text("stream-status"))


def stop_stream(console):
    console.click("stream-stop")
    result, _ = console.answer(TRANSPORT_CONTROL, "EXECUTE", 60)
    if result != "0":
        raise Failure("stopping the stream answered RESULT %s" % result)
    log("the stream stopped")


def run_diagnostics(console):
    console.click("diag-run")
    console.answer(NETWORK_DIAGNOSTICS, "EXECUTE", 120)
    rows = console.driver.find_elements(By.CSS_SELECTOR, '[data-testid="diag-row"]')
    keys = [row.get_attribute("data-key") for row in rows]
    if keys != DIAGNOSTICS_ROWS:
        raise Failure("the diagnostics table has the rows %s, not %s" % (keys, DIAGNOSTICS_ROWS))
    status = console.text("diag-status")
    if not status.startswith("RESULT 0"):
        raise Failure("the diagnostics answered %s" % status)
    log("network diagnostics: %d rows" % len(rows))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--control", required=True, help="the control interface, http://HOST:PORT")
    parser.add_argument("--screenshot", required=True, help="where to save the page as PNG")
    parser.add_argument("--device", default="", help="the device's CN (default: the first listed)")
    parser.add_argument("--skip-stream", action="store_true", help="leave out the screen stream")
    parser.add_argument("--skip-diagnostics", action="store_true",
                        help="leave out the network diagnostics")
    parser.add_argument("--patience", type=float, default=1.0,
                        help="multiplies every time-out (for slow builds)")
    parser.add_argument("--chromium", default="/usr/bin/chromium")
    parser.add_argument("--chromedriver", default="/usr/bin/chromedriver")
    args = parser.parse_args()

    profile = tempfile.mkdtemp(prefix="zel-console-chromium.")
    options = webdriver.ChromeOptions()
    options.binary_location = args.chromium
    for flag in CHROMIUM_FLAGS + ["--user-data-dir=" + profile]:
        options.add_argument(flag)
    driver = None
    try:
        driver = webdriver.Chrome(service=Service(executable_path=args.chromedriver),
                                  options=options)
        driver.set_page_load_timeout(30)
        driver.set_script_timeout(10)
    except WebDriverException as error:
        shutil.rmtree(profile, ignore_errors=True)
        print("console_test: cannot start %s with %s: %s" % (
            args.chromium, args.chromedriver, error.msg), file=sys.stderr)
        return 2

    console = Console(driver, args.patience)
    status = 0
    try:
        open_console(console, args.control.rstrip("/") + "/")
        pick_device(console, args.device)
        open_session(console)
        run_device_info(console)
        if not args.skip_stream:
            watch_stream(console)
        if not args.skip_diagnostics:
            run_diagnostics(console)
        # The screenshot shows the stream still running, then it is stopped.
        if not driver.save_screenshot(args.screenshot):
            raise Failure("cannot save the screenshot to " + args.screenshot)
        log("screenshot saved to " + args.screenshot)
        if not args.skip_stream:
            stop_stream(console)
        log("passed")
    except (Failure, WebDriverException) as error:
        message = error.msg if isinstance(error, WebDriverException) else str(error)
        print("console_test: FAILED: %s" % message, file=sys.stderr)
        # What the page showed when it failed, for whoever looks into it.
        try:
            driver.save_screenshot(args.screenshot)
            print("console_test: the page as it was: " + args.screenshot, file=sys.stderr)
        except WebDriverException:
            pass
        status = 1
    finally:
        driver.quit()
        shutil.rmtree(profile, ignore_errors=True)
    return status


if __name__ == "__main__":
    sys.exit(main())
