#!/usr/bin/env python3
# Browser tests of the web front end (web/public) against the real daemon, inside the sandbox:
#
#     sandbox/sandbox.sh test python3 tests/web/web_test.py CFGD CFGCTL
#
# Starts daemon A on the sample configuration and daemon B on the defaults, each behind lighttpd
# and php-cgi as on the device (sandbox/web-server.sh); A is served twice, with trials of 60 s
# and of 5 s, the first on every address of the sandbox's own network (the LAN test reaches it at
# eth0's new address) and with cfgctl's messages reworded (tests/support/reworded-cfgctl).
# Every server speaks HTTPS with a certificate made for it; urllib trusts that certificate and
# headless Chromium ignores certificate errors. Both sign in through the sign-in page (Chromium
# whenever a page sends it there). Screenshots go to $CFGD_BUILD_DIR/web-screenshots/.
# CFGD_WEB_TESTS=WORD runs only the tests whose names hold WORD.
import base64, os, re, ssl, subprocess, sys, tempfile, time, urllib.error, urllib.parse, urllib.request
from http.client import HTTPConnection, HTTPSConnection
from multiprocessing.pool import ThreadPool
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.support.ui import WebDriverWait

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SERVER = os.path.join(REPO, "sandbox", "web-server.sh")
PAGES = ["index.php", "can.php", "lan.php", "routes.php", "filters.php", "system.php", "trial.php"]
USER, PASSWORD = "tester", "web-test-password"
A, B = "/tmp/web_a.lock", "/tmp/web_b.lock"
A_INI = "/mnt/user/web_a.ini"
SLOW, FAST, DEFAULT = 8101, 8102, 8103  # A with 60 s trials, A with 5 s trials, B
NEW_ADDRESS = "198.51.100.77"
TRAFFIC = "/tmp/cfgd-gwsim-traffic"  # the simulated driver's traffic switch


def check(condition, what):
    if not condition:
        raise AssertionError(what)


def run(*command, strict=True, env=None):
    done = subprocess.run(command, capture_output=True, text=True, env=env)
    check(not strict or done.returncode == 0, f"{command}: {done.stdout}{done.stderr}")
    return done.stdout


def cfgctl(lock, *arguments, strict=True):
    return run(CFGCTL, "-l", lock, *arguments, strict=strict)


def wait_until(condition, seconds, what):
    deadline = time.monotonic() + seconds
    while not condition():
        check(time.monotonic() < deadline, f"not within {seconds} s: {what}")
        time.sleep(0.1)


def start_daemon(lock, keys, ini):
    log = open(lock + ".log", "w")
    daemon = subprocess.Popen([CFGD, "-l", lock, "-s", str(keys), "-q", str(keys + 1), "-f", ini],
                              stdin=subprocess.DEVNULL, stdout=log, stderr=log)
    wait_until(lambda: open(lock).read().endswith("\n") if os.path.exists(lock) else False, 20,
               f"cfgd on {lock} starts")
    return daemon


def start_server(port, lock, trial_seconds, bind="127.0.0.1", cfgctl=None):
    env = dict(os.environ, CFGD_TRIAL_SECONDS=str(trial_seconds), CFGD_WEB_BIND=bind,
               CFGD_CFGCTL=cfgctl or CFGCTL)
    return run(SERVER, "start", str(port), lock, "/tmp/web.htpasswd", env=env).strip()


# A context that trusts the certificate web-server.sh made for the server on `port`.
def tls(port):
    return ssl.create_default_context(cafile=f"/tmp/cfgd-web-{port}/tls/cert.pem")


# Signs in at ORIGIN (https://HOST:PORT) through signin.php from the address `source`: the
# answer's status, Location and body, and the session's cookie ("NAME=VALUE").
def sign_in(origin, password=PASSWORD, source="127.0.0.1", next_path="/"):
    where = urllib.parse.urlsplit(origin)
    connection = HTTPSConnection(where.hostname, where.port, context=tls(where.port),
                                 source_address=(source, 0), timeout=30)
    cookie, body, form = "", "", None
    for _ in range(2):  # the form's GET, then its POST
        connection.request("POST" if form else "GET", "/signin.php", form,
                           {"Cookie": cookie, "Content-Type": "application/x-www-form-urlencoded"})
        answer = connection.getresponse()
        body = answer.read().decode()
        cookie = (answer.headers.get_all("Set-Cookie") or [cookie])[-1].split(";")[0]
        form = form or urllib.parse.urlencode({"action": "signin", "user": USER, "password": password, "next": next_path,
                                               "csrf": re.search(r'name="csrf" value="(\w+)"', body).group(1)})
    return answer.status, answer.getheader("Location"), body, cookie


COOKIES = {}  # HOST:PORT => the signed-in session's cookie


# The status and body of a request (urllib: the browser never shows a 401), signed in unless
# `auth` is false.
def http(url, data=None, auth=True, headers={}):
    where = urllib.parse.urlsplit(url)
    if auth and where.netloc not in COOKIES:
        COOKIES[where.netloc] = sign_in(f"https://{where.netloc}")[3]
    request = urllib.request.Request(url, data, dict(headers, Cookie=COOKIES[where.netloc]) if auth else headers)
    try:
        with urllib.request.urlopen(request, timeout=30, context=tls(where.port)) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()


# Chromium that signs in whenever a page it gets sends it to the sign-in page.
class Browser(webdriver.Chrome):
    def get(self, url):
        super().get(url)
        if urllib.parse.urlsplit(self.current_url).path.endswith("/signin.php"):
            self.find_element(By.ID, "f-user").send_keys(USER)
            self.find_element(By.ID, "f-password").send_keys(PASSWORD)
            press("btn-signin")


# HTTP/1.1 only: Chromium drops its HTTP/2 connections when an address of its own machine
# changes, which here (one network namespace) the LAN test's trial does, but not on a device.
def browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run "
                 "--disable-background-networking --disable-component-update --disable-sync "
                 "--ignore-certificate-errors --disable-http2").split():
        options.add_argument(flag)
    options.add_argument("--user-data-dir=" + tempfile.mkdtemp(prefix="chromium-"))
    return Browser(service=Service("/usr/bin/chromedriver"), options=options)


def by_id(element_id):
    return DRIVER.find_element(By.ID, element_id)


# Types a value into a settings field; the browser's own checks are off (cfgd's count).
def set_field(name, value):
    field = by_id("f-" + name.replace(".", "-"))
    DRIVER.execute_script("arguments[0].form.noValidate = true", field)
    field.clear()
    field.send_keys(value)


# Whether the browser has left the page of `element`: Chromium answers for a node of a
# document it has replaced either that it is stale or that it belongs to no document.
def left(element):
    try:
        element.is_enabled()
        return False
    except WebDriverException:
        return True


# Clicks a submit button and waits for the page it leads to.
def press(button_id):
    old = DRIVER.find_element(By.TAG_NAME, "html")
    by_id(button_id).click()
    WebDriverWait(DRIVER, 60).until(lambda _: left(old))
    WebDriverWait(DRIVER, 60).until(lambda d: d.execute_script("return document.readyState") == "complete")


# Opens a settings page, types one value and presses a button.
def submit(page, name, value, button, port=SLOW):
    DRIVER.get(f"https://127.0.0.1:{port}/{page}")
    set_field(name, value)
    press(button)


# A bit rate for can0 that cfgd refuses, sent with `button`: after the redirect to the page's
# GET, the field shows cfgd's text and keeps the input.
def refuse_can0_bitrate(button):
    submit("can.php", "can0.bitrate", "4999", button)
    error = by_id("err-can0-bitrate").text
    check("baud rate not changed" in error, f"the field's error: {error!r}")
    check(DRIVER.current_url == f"https://127.0.0.1:{SLOW}/can.php", DRIVER.current_url)
    check(by_id("f-can0-bitrate").get_attribute("value") == "4999", "the input is not kept")


def log_lines():
    return open(os.environ["CFGD_SANDBOX_LOG"]).read().splitlines()


# A dump's lines by name; the comment of a refused read under its name too.
def dump(lock):
    return {re.match(r"(?:# )?(\S+)", l).group(1): l for l in cfgctl(lock, "dump").splitlines()}


# At phone width: the page does not scroll sideways and nothing is cut, unless inside a scroll
# container (the navigation's line); the navigation is one line; every touch target is 44 px
# high (a check box's is its label; a link in a sentence has none). A mobile browser widens
# innerWidth to a page that is too wide: the width set is the measure.
PHONE_FAULTS = """
const faults = [], wide = arguments[0], said = e => e.tagName + '#' + e.id + ' ' + (e.textContent || e.name || '').trim().slice(0, 30);
if (document.documentElement.scrollWidth > wide || innerWidth > wide) faults.push('the page scrolls sideways');
const scrolled = e => { for (let p = e.parentElement; p !== document.body; p = p.parentElement)
  if (/auto|scroll/.test(getComputedStyle(p).overflowX)) return true; return false; };
for (const e of document.body.querySelectorAll('*')) {
  const r = e.getBoundingClientRect();
  if (r.width && (r.left < 0 || r.right > wide + 0.5) && !scrolled(e)) faults.push('cut: ' + said(e));
}
if (new Set([...document.querySelectorAll('#nav a')].map(a => a.offsetTop)).size !== 1)
  faults.push('the navigation takes more than one line');
for (const e of document.querySelectorAll('a, button, select, input:not([type=hidden])')) {
  const target = e.type === 'checkbox' ? e.closest('label') || e.labels[0] : e;
  if (e.getClientRects().length && !e.matches('p:not(.buttons) a:not(.button)')
      && target.getBoundingClientRect().height < 44) faults.push('small: ' + said(e));
}
return faults.slice(0, 5);
"""


def test_pages_need_the_login_and_show():
    shots = os.path.join(os.environ.get("CFGD_BUILD_DIR", "/tmp"), "web-screenshots")
    os.makedirs(shots, exist_ok=True)
    base = f"https://127.0.0.1:{SLOW}/"
    for page in PAGES + ["", "style.css", "app.js"]:
        statuses = [http(base + page, auth=False)[0], http(base + page)[0]]
        expected = [200 if page.endswith((".css", ".js")) else 401, 200]  # static files are open
        check(statuses == expected, f"{page} without a sign-in, with one: {statuses}")
    # A defined filter that a route uses, for the Filters pages; its long name has no break.
    cfgctl(A, "set", "filter1.kind", "1", "filter1.term", "0x100-0x1FF", "filter1.name", "engine" * 5,
           "route1.filters", "1")
    for page in PAGES + ["routes.php?route=1", "routes.php?route=2", "filters.php?filter=1"]:
        for size, (width, height) in {"phone": (390, 844), "laptop": (1366, 900), "small-phone": (360, 740)}.items():
            metrics = {"width": width, "height": height, "deviceScaleFactor": 1,
                       "mobile": size != "laptop"}
            DRIVER.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", metrics)
            DRIVER.get(base + page)
            check(DRIVER.find_elements(By.ID, "nav"), f"{page}: no navigation")
            faults = DRIVER.execute_script(PHONE_FAULTS, width) if size != "laptop" else []
            check(not faults, f"{page} at {width} px: {faults}")
            full = DRIVER.execute_script("return document.documentElement.scrollHeight")
            DRIVER.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                                   dict(metrics, height=max(height, full)))
            shot = DRIVER.execute_cdp_cmd("Page.captureScreenshot", {"format": "png"})["data"]
            name = re.sub(r"\W+", "-", page.replace(".php", ""))
            with open(os.path.join(shots, f"{name}-{size}.png"), "wb") as file:
                file.write(base64.b64decode(shot))
    DRIVER.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
    DRIVER.get(base + "routes.php?route=2")  # an unused route's page has none of its zeros
    check(by_id("route-unused") and not DRIVER.find_elements(By.ID, "stat-can_packets")
          and by_id("f-route2-destination").get_attribute("value") == "", "route 2 shows its zeros")


# The Filters list adds a filter in the first free place (when another client took that place
# meanwhile, the input moves to the next one); the filter's own page removes it.
def test_filter_added_from_the_list_and_removed_on_its_page():
    DRIVER.get(f"https://127.0.0.1:{SLOW}/filters.php")
    taken = by_id("form-add").find_element(By.NAME, "filter").get_attribute("value")
    cfgctl(A, "set", f"filter{taken}.kind", "1", f"filter{taken}.term", "0x300-0x3FF")
    set_field(f"filter{taken}.term", "0x200-0x2FF")
    press("btn-now")
    n = by_id("form-add").find_element(By.NAME, "filter").get_attribute("value")
    check(f"Filter {taken} was defined meanwhile" in banners().get("error", "") and
          by_id(f"f-filter{n}-term").get_attribute("value") == "0x200-0x2FF", banners())
    press("btn-now")
    cfgctl(A, "set", f"filter{taken}.kind", "0")
    check(cfgctl(A, "get", f"filter{n}.kind", f"filter{n}.term").split() == ["1", "0x200-0x2FF"], "not added")
    DRIVER.get(by_id(f"filter-link-{n}").get_attribute("href"))
    press("btn-remove")
    check(str(int(n) - 1) not in cfgctl(A, "get", "filter.list").strip().split(";"), "not removed")


# A refused value shows the daemon's text; a post without the CSRF token is refused.
def test_refused_value_and_post_without_csrf_token_change_nothing():
    before = dump(A)
    refuse_can0_bitrate("btn-now")
    DRIVER.refresh()  # the refusal was shown once
    check(by_id("err-can0-bitrate").text == "" and not DRIVER.find_elements(By.CSS_SELECTOR, ".banner"),
          "the refusal is shown again")
    form = urllib.parse.urlencode({"action": "save", "mode": "now", "v[can1.bitrate]": "125000"})
    status, _ = http(f"https://127.0.0.1:{SLOW}/can.php", form.encode())
    check(status == 403, f"status {status}")
    check(dump(A) == before, "the dump changed")


# Sends can1's bit rate as a trial; returns the time the page came back.
def try_can1_bitrate(port, rate):
    submit("can.php", "can1.bitrate", rate, "btn-trial", port)
    returned = time.monotonic()
    check(cfgctl(A, "get", "can1.bitrate").strip() == rate, "the trial's rate is not running")
    check(any(re.match(f"ip link set can1 type can bitrate {rate} ", l) for l in log_lines()),
          f"no ip link line with bit rate {rate}")
    return returned


def test_pending_trial_and_refusals_show_with_reworded_messages():
    # SLOW's pages run cfgctl with every message reworded (REWORDED): they read none.
    try_can1_bitrate(SLOW, "250000")
    check("can1: Bit rate" in by_id("trial-changes").text, by_id("trial-changes").text)
    submit("can.php", "can0.bitrate", "125000", "btn-trial")
    warnings = " ".join(b.text for b in DRIVER.find_elements(By.CSS_SELECTOR, ".banner-warn"))
    check("A trial is pending" in warnings, f"banners: {warnings!r}")
    press("btn-rollback")
    check(not DRIVER.find_elements(By.ID, "trial"), "still shown as pending")
    refuse_can0_bitrate("btn-trial")


def test_can_trial_not_kept_rolls_back_at_the_deadline():
    before = cfgctl(A, "get", "can1.bitrate").strip()
    returned = try_can1_bitrate(FAST, "125000" if before != "125000" else "250000")
    logged = len(log_lines())
    wait_until(lambda: cfgctl(A, "get", "can1.bitrate").strip() == before,
               5 + 2 - (time.monotonic() - returned), "rolled back")
    check(any(re.match(f"ip link set can1 type can bitrate {before} ", l) for l in log_lines()[logged:]),
          "no ip link line of the rollback")
    # A reload, as the expired trial advises, is a GET: it does not start the trial again.
    logged = len(log_lines())
    DRIVER.refresh()
    check(DRIVER.current_url == f"https://127.0.0.1:{FAST}/can.php", DRIVER.current_url)
    check(not any("bitrate" in l for l in log_lines()[logged:]) and not DRIVER.find_elements(By.ID, "trial"),
          "the reload sent the trial again")
    check(cfgctl(A, "get", "can1.bitrate").strip() == before, "the trial's rate is back")


def test_lan_trial_kept_through_the_new_address():
    submit("lan.php", "lan0.ipv4", NEW_ADDRESS, "btn-trial")
    check(cfgctl(A, "get", "lan0.ipv4").strip() == NEW_ADDRESS, "eth0 has not got the address")
    link = by_id("trial-new-link").get_attribute("href")
    check(link == f"https://{NEW_ADDRESS}:{SLOW}/lan.php", f"the new address's link: {link}")
    check(not DRIVER.find_elements(By.ID, "btn-keep") and by_id("btn-rollback"), "Keep at the old address")
    # The port the browser used (Host), not the server's: behind a forwarder they differ.
    forwarded = http(f"https://127.0.0.1:{SLOW}/lan.php", headers={"Host": "127.0.0.1:9"})[1]
    check(f'href="https://{NEW_ADDRESS}:9/lan.php"' in forwarded, "no link with the Host's port")
    # A Keep posted at the old address anyway (a forged button) keeps nothing.
    DRIVER.execute_script("document.getElementById('form-trial').insertAdjacentHTML('beforeend', "
                          "'<button id=\"btn-forged\" name=\"action\" value=\"confirm\">')")
    press("btn-forged")
    check("trial pending" in cfgctl(A, "trial", strict=False), "kept at the old address")
    DRIVER.get(link)
    press("btn-keep")
    check(DRIVER.current_url.startswith(f"https://{NEW_ADDRESS}:"), DRIVER.current_url)
    check("trial pending" not in cfgctl(A, "trial", strict=False), "still pending")
    check(f"ipv4                           = {NEW_ADDRESS}" in open(A_INI).read(), "not stored")


def test_gui_option_switches_a_page_off():
    DRIVER.get(f"https://127.0.0.1:{SLOW}/system.php")
    by_id("f-gui-show_can").click()
    press("btn-now")
    try:
        check("CAN" not in by_id("nav").text.split("\n"), by_id("nav").text)
        check(http(f"https://127.0.0.1:{SLOW}/can.php")[0] == 404, "can.php answers")
        DRIVER.get(f"https://127.0.0.1:{SLOW}/can.php")
        check("switched off" in by_id("switched-off").text and not DRIVER.find_elements(By.ID, "form-settings"),
              "can.php is not switched off")
    finally:
        cfgctl(A, "set", "gui.show_can", "1")
    DRIVER.get(f"https://127.0.0.1:{SLOW}/index.php")
    check("CAN" in by_id("nav").text.split("\n"), by_id("nav").text)


def test_download_uploaded_to_a_default_device_gives_its_values():
    DRIVER.get(f"https://127.0.0.1:{SLOW}/system.php")
    status, downloaded = http(by_id("link-download").get_attribute("href"))
    check(status == 200 and downloaded == cfgctl(A, "dump"), "the download is not A's dump")
    path = "/tmp/web_download.txt"
    open(path, "w").write(downloaded)
    start_daemon(B, 73, "/mnt/user/web_b.ini")
    start_server(DEFAULT, B, 60)
    DRIVER.get(f"https://127.0.0.1:{DEFAULT}/system.php")
    by_id("form-upload").find_element(By.NAME, "config").send_keys(path)
    press("btn-upload-now")
    output = by_id("banners").text
    before, after, compared = dump(A), dump(B), 0
    for line in cfgctl(B, "names").splitlines():
        name, *_, access = line.split()
        if access in ("w", "live") or re.search(r"\.(retry_delay|retry_count|sample_point)$", name):
            continue
        check(after.get(name) == before.get(name), f"{after.get(name)} != {before.get(name)}: {output}")
        compared += 1
    check(compared > 300, f"only {compared} values compared")


def banners():
    return {b.get_attribute("class").split("-")[-1]: b.text for b in DRIVER.find_elements(By.CSS_SELECTOR, ".banner")}


# Two browsers on the CAN page: A stores can1's bit rate; B, whose page shows the older one,
# changes another field and saves: refused, naming the field with its value now, nothing written.
def test_second_browser_cannot_write_over_a_change():
    global DRIVER
    first, DRIVER = DRIVER, browser()
    try:
        DRIVER.get(f"https://127.0.0.1:{SLOW}/can.php")
        loopback = cfgctl(A, "get", "can0.loopback").strip()
        rate = "500000" if cfgctl(A, "get", "can1.bitrate").strip() != "500000" else "250000"
        DRIVER, second = first, DRIVER
        submit("can.php", "can1.bitrate", rate, "btn-now")
        DRIVER = second
        by_id("f-can0-loopback").click()
        press("btn-now")
        check(f"can1: Bit rate is now {rate} bit/s" in banners().get("error", ""), banners())
        check(rate in by_id("err-can1-bitrate").text and by_id("f-can1-bitrate").get_attribute("value") == rate,
              "the changed field is not marked with its value now")
        check(cfgctl(A, "get", "can1.bitrate", "can0.loopback").split() == [rate, loopback], "B wrote")
        check(by_id("f-can0-loopback").is_selected() == (loopback != "1"), "B's own change is not kept")
    finally:
        DRIVER.quit()
        DRIVER = first


# (page, field, value, the page's words, cfgd's text in the detail): nothing is stored, the field
# is marked, the input kept. Values are set by script, as a post that no browser checked.
FIELD_ERRORS = [("can.php", "can0.bitrate", "4999", "must be from 5000 to 1000000 bit/s", "baud rate not changed"),
                ("can.php", "can0.bitrate", "abc", '"abc" is not a number', "baud rate not changed"),
                ("system.php", "host.name", "x" * 10240, "Too long: at most 64 characters fit", None),
                ("routes.php?route=1", "route1.destination", "198.51.100.30", "Give an IPv4 address and a port", None)]


def test_field_errors_in_the_pages_words():
    longest = run("php", "-r", f"echo (require '{REPO}/clients/php/cfgd_names.php')['host.name'][4];")
    for page, name, value, words, said in FIELD_ERRORS:
        before = dump(A)
        DRIVER.get(f"https://127.0.0.1:{SLOW}/{page}")
        field = by_id("f-" + name.replace(".", "-"))
        if name == "host.name":  # the browser stops a long text at the daemon's size
            field.send_keys("y" * 70)
            check(field.get_attribute("maxlength") == longest == "64" and len(field.get_attribute("value")) == 64,
                  f"maxlength {field.get_attribute('maxlength')}, the table's {longest}")
        DRIVER.execute_script("arguments[0].form.noValidate = true; arguments[0].value = arguments[1]", field, value)
        press("btn-now")
        field, error = by_id("f-" + name.replace(".", "-")), by_id("err-" + name.replace(".", "-"))
        detail = error.find_elements(By.CLASS_NAME, "field-error-detail")
        check(words in error.text and (said in detail[0].text if said else not detail), f"{name}: {error.text!r}")
        check(field.get_attribute("aria-invalid") == "true" and "invalid" in field.get_attribute("class"),
              f"{name} is not marked")
        check(field.get_attribute("value") == value and "did not answer" not in banners().get("error", ""), banners())
        check(dump(A) == before, f"{name}: the dump changed")


# Uploads that write nothing: said as information in the pages' words, read-only lines as a count.
UPLOADS = [("", "Nothing in web_upload.dump differs"), (None, "read-only values were skipped"),
           ("can1.baudrate = 5\n", 'line 1 of web_upload.dump names "can1.baudrate", which this device '
                                   'does not have (did you mean can1.bitrate?)')]


def test_uploads_that_write_nothing_say_so():
    for text, words in UPLOADS:
        open("/tmp/web_upload.dump", "w").write(cfgctl(A, "dump") if text is None else text)
        DRIVER.get(f"https://127.0.0.1:{SLOW}/system.php")
        by_id("form-upload").find_element(By.NAME, "config").send_keys("/tmp/web_upload.dump")
        press("btn-upload-trial")
        check(words in " ".join(banners().values()) and "ok" not in banners(), banners())
        check("read only: skipped" not in DRIVER.page_source and not DRIVER.find_elements(By.ID, "trial"), words)


# The Status page refreshes its counters and graphs every 2 s (the sandbox's driver counts
# frames on running routes while TRAFFIC exists), and stops while the tab is hidden.
def test_status_refreshes_live_and_stops_when_hidden():
    open(TRAFFIC, "w").close()
    try:
        status_refreshes_live_and_stops_when_hidden()
    finally:
        os.remove(TRAFFIC)


def status_refreshes_live_and_stops_when_hidden():
    check(http(f"https://127.0.0.1:{SLOW}/status.json.php", auth=False)[0] == 401, "JSON without a login")
    DRIVER.get(f"https://127.0.0.1:{SLOW}/index.php")
    polls = lambda: int(by_id("live").get_attribute("data-polls"))
    cell = lambda: int(DRIVER.find_element(By.CSS_SELECTOR, '[data-live="route1.can_packets"]').text)
    first = cell()
    wait_until(lambda: polls() >= 3, 10, "three polls")
    graph = by_id("graph-route-1")
    check(cell() > first and int(graph.get_attribute("data-points")) >= 2, f"{first} -> {cell()}")
    check(float(graph.find_element(By.CLASS_NAME, "rate").text) > 0, graph.text)
    check(len(graph.find_element(By.TAG_NAME, "polyline").get_attribute("points").split()) >= 2, "no line")
    hide = "Object.defineProperty(document, 'hidden', {value: arguments[0], configurable: true});" \
           "document.dispatchEvent(new Event('visibilitychange'))"
    DRIVER.execute_script(hide, True)
    time.sleep(2.5)  # a poll on its way ends
    hidden = polls()
    time.sleep(4.5)
    check(polls() == hidden, f"{polls() - hidden} polls while hidden")
    DRIVER.execute_script(hide, False)
    wait_until(lambda: polls() > hidden, 3, "polls again when shown")


# /metrics: only with its bearer token (no login), in Prometheus' format, the values cfgctl reads.
def test_metrics_need_their_token_and_match_cfgctl():
    url = f"https://127.0.0.1:{SLOW}/metrics"
    token = run(f"{REPO}/web/cfgd-web-passwd", "--metrics-token", "/tmp/web_metrics.hash").strip()
    for port, lock in ((SLOW, A), (8104, "/tmp/web_none.lock")):
        if port == 8104:
            start_server(port, lock, 60)
        run("install", "-m", "0640", "-g", "www-data", "/tmp/web_metrics.hash", f"/tmp/cfgd-web-{port}/metrics.hash")
    bearer = lambda t: {"Authorization": f"Bearer {t}"}
    statuses = [http(url, auth=False)[0], http(url)[0], http(url, auth=False, headers=bearer(token[:-1] + "x"))[0],
                http(f"https://127.0.0.1:{SLOW}/index.php", auth=False, headers=bearer(token))[0]]
    check(statuses == [401] * 4, f"without, with the login, a wrong token, the token elsewhere: {statuses}")
    before = dump(A)
    status, text = http(url, auth=False, headers=bearer(token))
    after = dump(A)
    check(status == 200, f"status {status}")
    checked = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
    check(checked.returncode == 0, checked.stdout + checked.stderr)
    sources = dict(re.findall(r"^# HELP (\S+) .*\(cfgctl: (\S+)\)$", text, re.M))
    samples = re.findall(r'^(\w+)\{\w+="(\w+)"\} (\d+)$', text, re.M)
    for metric, label, value in samples:
        name = sources[metric].replace("canN", label).replace("routeN", "route" + label)
        low, high = (int(d[name].split(" = ")[1]) for d in (before, after))
        check(low <= int(value) <= high, f"{metric} {label} {value}: {name} {low}..{high}")
    check(len(samples) == 2 * 2 + 8 * 15 and "\ncfgd_up 1\n" in text, f"{len(samples)} samples")
    down = http("https://127.0.0.1:8104/metrics", auth=False, headers=bearer(token))
    check(down[0] == 200 and "\ncfgd_up 0\n" in down[1], f"no daemon: {down}")


# Without a cookie, the page asked for comes after the sign-in (Browser.get), with the session's
# cookie Secure, HttpOnly and SameSite=Strict; a sign-in leads back to a local path only.
def test_sign_in_leads_back_to_the_page_asked_for():
    DRIVER.execute_cdp_cmd("Network.clearBrowserCookies", {})
    DRIVER.get(f"https://127.0.0.1:{SLOW}/routes.php?route=2")
    cookie = DRIVER.get_cookie(f"cfgdweb{SLOW}")
    check(DRIVER.current_url == f"https://127.0.0.1:{SLOW}/routes.php?route=2" and
          (cookie["secure"], cookie["httpOnly"], cookie["sameSite"]) == (True, True, "Strict"), cookie)
    for asked, lands in (("/can.php?x=1", "/can.php?x=1"), ("//evil.example/", "index.php"),
                         ("/\\evil.example/", "index.php"), ("https://evil.example/", "index.php")):
        check(sign_in(f"https://127.0.0.1:{SLOW}", next_path=asked)[:2] == (303, lands), asked)


def test_sign_out_ends_the_session():
    url = f"https://127.0.0.1:{SLOW}/index.php"
    DRIVER.get(url)
    cookie = f"cfgdweb{SLOW}=" + DRIVER.get_cookie(f"cfgdweb{SLOW}")["value"]
    check(http(url, auth=False, headers={"Cookie": cookie})[0] == 200, "not signed in")
    press("btn-signout")
    check("You are signed out" in by_id("banners").text, by_id("banners").text)
    check(http(url, auth=False, headers={"Cookie": cookie})[0] == 401, "the old cookie still works")


# A wrong password makes its address wait, 1 s after the first, 2 s after the second, and the
# right one is refused meanwhile; other addresses sign in as before. The failures are logged.
def test_failed_sign_ins_back_off_per_address():
    for pause, password, status, text in ((0, "wrong", 403, "Wrong user name or password. The next try is possible in 1 s"),
            (0, PASSWORD, 429, "(127.0.0.2): wait 1 s"), (1.1, "wrong", 403, "next try is possible in 2 s"),
            (0, PASSWORD, 429, "(127.0.0.2): wait 2 s")):
        time.sleep(pause)
        answer = sign_in(f"https://127.0.0.1:{FAST}", password, "127.0.0.2")
        check(answer[0] == status and text in answer[2], f"{password}: {answer[0]}, no {text!r}")
    check(sign_in(f"https://127.0.0.1:{FAST}")[0] == 303, "127.0.0.1 is refused too")
    check('user "tester" from 127.0.0.2 (2 in a row): the next try in 2 s' in
          open(f"/tmp/cfgd-web-{FAST}/run/error.log").read(), "not logged")


# Parallel tries from one address: one is checked, the other waits; a huge password is wrong at
# once (SHA-512 crypt would take minutes over it); a body over the server's bound is refused.
def test_sign_in_tries_in_parallel_and_huge_passwords_are_refused():
    tries = ThreadPool(2).starmap(sign_in, [(f"https://127.0.0.1:{FAST}", "wrong", "127.0.0.3")] * 2)
    statuses = sorted(answer[0] for answer in tries)
    check(statuses == [403, 429], f"parallel tries: {statuses}")
    check(sign_in(f"https://127.0.0.1:{FAST}", "x" * 1000000, "127.0.0.4")[0] == 403, "huge password")
    connection = HTTPSConnection("127.0.0.1", FAST, context=tls(FAST), timeout=30)
    connection.request("POST", "/signin.php", headers={"Content-Length": str(2**21)})  # the server reads no body
    check(connection.getresponse().status == 413, "a body of 2 MiB is taken")


# Without a session, neither the sign-in page nor a made-up cookie makes a session file.
def test_no_session_file_before_a_sign_in():
    files = lambda: len(os.listdir(f"/tmp/cfgd-web-{FAST}/sessions"))
    before = files()
    for cookie in ("", f"cfgdweb{FAST}=madeup0123456789"):
        for page in ("signin.php", "index.php"):
            http(f"https://127.0.0.1:{FAST}/{page}", auth=False, headers={"Cookie": cookie})
    check(files() == before, f"{files() - before} new session files")


def test_http_redirects_to_https():
    connection = HTTPConnection("127.0.0.1", SLOW + 1000, timeout=30)
    connection.request("GET", "/routes.php?route=2")
    location = connection.getresponse().getheader("Location")
    check(location == f"https://127.0.0.1:{SLOW}/routes.php?route=2", location)


def test_no_faults_in_the_error_logs():
    for log in [f"/tmp/cfgd-web-{port}/run/error.log" for port in (SLOW, FAST, DEFAULT)]:
        faults = [l for l in open(log) if "PHP" in l or "cfgd web" in l] if os.path.exists(log) else []
        check(not faults, "".join(faults))


def main():
    global CFGD, CFGCTL, DRIVER
    token = os.environ.get("CFGD_SANDBOX")
    marker = open("/etc/cfgd-sandbox").read() if os.path.exists("/etc/cfgd-sandbox") else None
    if not token or marker != token + "\n" or len(sys.argv) != 3:
        sys.exit(f"{sys.argv[0]}: runs only inside the sandbox:\n"
                 f"  sandbox/sandbox.sh test python3 {sys.argv[0]} CFGD CFGCTL")
    CFGD, CFGCTL = map(os.path.abspath, sys.argv[1:])
    run("sh", "-c", f"printf '%s\\n' '{PASSWORD}' | '{REPO}/web/cfgd-web-passwd' {USER} /tmp/web.htpasswd")
    run("cp", os.path.join(REPO, "sandbox", "device", "kiv_config.ini"), A_INI)
    start_daemon(A, 71, A_INI)
    # Beside the copy the server makes of it: the checkout may be closed to the server's user.
    run("install", "-D", "-m", "0755", f"{REPO}/tests/support/reworded-cfgctl", CFGCTL,
        "-t", "/tmp/web-reworded")
    reworded = "/tmp/web-reworded-cfgctl"
    with open(reworded, "w") as launcher:
        launcher.write("#!/bin/sh\nexec /tmp/web-reworded/reworded-cfgctl /tmp/web-reworded/cfgctl \"$@\"\n")
    os.chmod(reworded, 0o755)
    start_server(SLOW, A, 60, bind="0.0.0.0", cfgctl=reworded)
    start_server(FAST, A, 5)
    DRIVER = browser()
    passed = failed = 0
    only = os.environ.get("CFGD_WEB_TESTS", "")  # a part of the names of the tests to run
    for name, test in [(n, t) for n, t in globals().items() if n.startswith("test_") and only in n]:
        try:
            test()
            passed += 1
            print(f"ok: {name}", flush=True)
        except Exception as error:  # a failure of any kind fails this test only
            failed += 1
            print(f"FAILED: {name}: {type(error).__name__}: {error}", flush=True)
        cfgctl(A, "rollback", strict=False)  # a trial a failed test left
    DRIVER.quit()
    run(SERVER, "stop")
    print(f"{passed} passed, {failed} failed")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
