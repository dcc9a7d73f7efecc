"""The demo dialogs driven through WebDriver, as a dialog author's CI would
drive them: WebKitWebDriver on a free loopback port starts the built host, a
Selenium client works the page by keyboard, and the result file says how the
dialog ended.  One dialog per run:

    /usr/bin/python3 tests/e2e/webdriver/webdriver_test.py [BUILD_DIR [pin|certificate|admin]]

pin (the default): the demo plug-in on the token of scripts/demo-token.sh; a
wrong PIN is said in words, Escape cancels, no PIN reaches the plug-in's log;
a module that cannot be loaded closes the dialog with CKR_FUNCTION_FAILED;
the host refuses a session unless it has both --automation and
KAVORI_DEVELOPER=1.  certificate: the demo plug-in on that token and one
more certificate, without a common name and with a label that is no UTF-8
(the second certificate is chosen by keyboard), then 200 certificates from
the scripted plug-in (the list scrolls, the filter narrows it).  admin: the
demo plug-in on that token; the checks made before the call, the module's
answers in words, a change, an unblock with the SO PIN.

BUILD_DIR defaults to build/; the pin run leaves the screenshot of the
wrong-PIN message there as webdriver-wrong-pin.png.  Exit code 77 (skipped)
without WebKitWebDriver, Selenium, Xvfb or the token tools; each run has its
own Xvfb and HOME."""
import json
import os
import select
import shutil
import subprocess
import sys
import tempfile

DRIVER = "/usr/bin/WebKitWebDriver"
SOURCE = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(SOURCE, "build"))
DIALOG = sys.argv[2] if len(sys.argv) > 2 else "pin"
HOST = os.path.join(BUILD, "bin", "kavori-host")
SOFTHSM = "/usr/lib/softhsm/libsofthsm2.so"

try:
    from selenium import webdriver
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.remote.remote_connection import RemoteConnection
    from selenium.webdriver.support.ui import WebDriverWait
    from selenium.webdriver.webkitgtk.options import Options
    from selenium.webdriver.webkitgtk.service import Service
except ImportError as error:
    print(f"skipped: no Selenium for {sys.executable} ({error}); install python3-selenium")
    sys.exit(77)
for tool in (DRIVER, "/usr/bin/Xvfb"):
    if not os.access(tool, os.X_OK):
        print(f"skipped: {tool} is missing (packages webkit2gtk-driver, xvfb)")
        sys.exit(77)


def start_xvfb():
    """A private X server; it writes its display number and a line end to a pipe."""
    read_end, write_end = os.pipe()
    xvfb = subprocess.Popen(["/usr/bin/Xvfb", "-displayfd", str(write_end), "-screen", "0", "1280x1024x24",
                             "-nolisten", "tcp", "-noreset"], pass_fds=(write_end,), stderr=subprocess.DEVNULL)
    os.close(write_end)
    with os.fdopen(read_end, "rb") as pipe:
        number = pipe.readline().strip() if select.select([pipe], [], [], 15)[0] else b""
    if not number:
        xvfb.kill()
        sys.exit("Xvfb gave no display within 15 s")
    return xvfb, ":" + number.decode()


def open_session(env, log, host_args, timeout):
    """A driver of its own with env (it hands its environment to the host) and
    a session on the host; the session is None when none could be opened
    within timeout seconds, and the host is gone by then."""
    service = Service(DRIVER, service_args=["--host=127.0.0.1"], env=env, log_path=log)
    service.start()
    options = Options()
    options.binary_location = HOST
    for argument in host_args:
        options.add_argument(argument)
    options.set_capability("browserName", "kavori-host")
    RemoteConnection.set_timeout(timeout)
    try:
        return service, webdriver.Remote(service.service_url, options=options)
    except Exception as error:  # refused, or no answer in time
        print(f"no session: {type(error).__name__}: {str(error).strip()[:200]}")
        stop(service)
        return None, None


def stop(service):
    # A host the driver left behind is ended by its process id.
    children = f"/proc/{service.process.pid}/task/{service.process.pid}/children"
    for pid in open(children).read().split():
        try:
            os.kill(int(pid), 9)
        except ProcessLookupError:
            pass
    service.stop()


class Run:
    """One test's directory, display and environment; dialog() opens a session
    on a demo page, check() collects what went wrong."""

    def __init__(self, temp, display):
        self.temp = temp
        self.env = {name: value for name, value in os.environ.items() if name != "KAVORI_DEVELOPER"}
        self.env.update(HOME=temp, DISPLAY=display, LC_ALL="C")
        self.failures = []
        self.runs = 0

    def path(self, name):
        return os.path.join(self.temp, name)

    def check(self, what, seen, expected):
        if seen != expected:
            self.failures.append(f"{what}: {seen!r}, not {expected!r}")

    def dialog(self, page, root, size, env=None, extra=()):
        """A session on examples/dialog/<page> with the plug-in in root, the
        environment and host arguments added; its result file is self.result."""
        self.runs += 1
        self.result = self.path(f"result{self.runs}")
        self.log = self.path(f"driver{self.runs}.log")
        args = ["--automation", "-url", os.path.join(SOURCE, "examples", "dialog", page), "-root", root,
                "-size", str(size[0] << 16 | size[1] + 30), "-store", self.result, *extra]
        self.service, session = open_session(dict(self.env, KAVORI_DEVELOPER="1", **(env or {})), self.log,
                                             args, 60)
        if not session:
            print(open(self.log).read())
            sys.exit(1)
        self.session = session
        return session

    def wait(self, condition, what):
        try:
            return WebDriverWait(self.session, 10).until(condition)
        except Exception as error:
            self.failures.append(f"waiting for {what}: {type(error).__name__}")
            return None

    def text(self, element_id):
        """The element's rendered text; "" while it is not shown."""
        return self.session.execute_script(
            "var e = document.getElementById(arguments[0]);"
            "return e && e.getClientRects().length ? e.innerText.replace(/\\n+$/, '') : ''", element_id)

    def says(self, element_id, expected):
        """Waits until the element shows the expected text."""
        try:
            WebDriverWait(self.session, 10).until(lambda _: self.text(element_id) == expected)
        except Exception:
            self.check(f"#{element_id} says", self.text(element_id), expected)

    def keys(self, *keys):
        """Keys to whatever has the focus, as a keyboard user types them."""
        self.session.switch_to.active_element.send_keys(*keys)

    def focused(self):
        return self.session.execute_script("return document.activeElement.id")

    def end(self, expected_result, *keys):
        """Presses the keys that end the dialog (the page's exit ends the host,
        so the driver may lose it before it answers), waits for the end and
        checks the result."""
        try:
            self.keys(*keys)
        except Exception:
            pass
        WebDriverWait(self.session, 10).until(lambda _: os.path.exists(self.result))
        self.session.quit()
        stop(self.service)
        self.check("the result file", open(self.result).read(), expected_result)

    def close(self):
        """Ends a session that has gone wrong and shows the driver's and the demo plug-in's logs."""
        if hasattr(self, "session") and not os.path.exists(self.result):
            self.session.quit()
            stop(self.service)
            print(open(self.log).read())
        if os.path.exists(self.path("demo.log")):
            print("demo plug-in:", open(self.path("demo.log")).read())


def demo_token(run):
    """The token of scripts/demo-token.sh below the run's directory; its
    certificates as (id, label) in the dialog's order."""
    made = subprocess.run(["bash", os.path.join(SOURCE, "scripts", "demo-token.sh"), run.path("token")],
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if made.returncode == 77:
        print(f"skipped: {made.stderr.strip()}")
        sys.exit(77)
    made.check_returncode()
    run.env["SOFTHSM2_CONF"] = run.path("token/softhsm2.conf")
    with open(run.path("token/certificates")) as lines:
        return [tuple(line.rstrip("\n").split("\t")) for line in lines]


def pin_dialog(run):
    demo_token(run)
    log = run.path("demo.log")
    session = run.dialog("pin.html", os.path.join(BUILD, "examples", "demo"), (420, 480),
                         {"KAVORI_DEMO_LOG": log}, ["-key", "Kavori Demo"])  # the key names the token by label
    run.wait(lambda _: run.focused() == "pin", "the focus in the PIN field")
    run.keys("000000", Keys.ENTER)
    run.says("error", "Wrong PIN. Only a few tries are left before the token locks.")
    screenshot = session.get_screenshot_as_png()
    with open(os.path.join(BUILD, "webdriver-wrong-pin.png"), "wb") as shot:
        shot.write(screenshot)
    size = (int.from_bytes(screenshot[16:20], "big"), int.from_bytes(screenshot[20:24], "big"))
    run.check("the screenshot's size", size, (420, 480))
    run.end("CKR_FUNCTION_CANCELED", "12", Keys.ESCAPE)
    lines = open(log).read().splitlines()
    for part, count in (("Login on slot", 1), ("CKR_PIN_INCORRECT", 1), ("Key handed over", 1), ("Key cleared", 1),
                        ("000000", 0)):
        run.check(f"lines with {part!r} in the plug-in's log", sum(part in line for line in lines), count)

    # A module that cannot be loaded: the dialog says so, and Enter closes it.
    run.dialog("pin.html", os.path.join(BUILD, "examples", "demo"), (420, 480),
               {"KAVORI_DEMO_MODULE": "/nowhere/libnone.so"})
    run.says("error", "The token software could not be loaded. /nowhere/libnone.so")
    run.end("CKR_FUNCTION_FAILED", Keys.ENTER)

    # The same dialog without one of the two switches: no session, within seconds.
    args = ["-url", os.path.join(SOURCE, "examples", "dialog", "pin.html"), "-root", BUILD]
    for name, refused_env, refused_args in (
            ("without KAVORI_DEVELOPER=1", run.env, ["--automation"] + args),
            ("without --automation", dict(run.env, KAVORI_DEVELOPER="1"), args)):
        service, session = open_session(refused_env, run.path("refused.log"), refused_args, 5)
        if session:
            run.failures.append(f"a session was opened {name}")
            session.quit()
            stop(service)


def options(run):
    """The list's options as the accessibility tree names them, in order."""
    return run.session.execute_script(
        "return Array.from(document.querySelectorAll('#list [role=option]'))"
        ".filter(function (o) { return !o.hidden; }).map(function (o) { return o.getAttribute('aria-label'); })")


def certificate_dialog(run):
    certificates = demo_token(run)
    # One more, whose subject has no common name, with a label that is no UTF-8.
    with open(run.path("zone.tmpl"), "w") as template:
        template.write('organization = "Zone"\nexpiration_days = 30\n')
    for command in (["certtool", "--generate-self-signed", "--load-privkey", run.path("token/made/ca.key"),
                     "--template", run.path("zone.tmpl"), "--outfile", run.path("zone.pem")],
                    ["p11tool", "--provider", SOFTHSM, "--login", "--write", "--no-mark-private", "--load-certificate",
                     run.path("zone.pem"), "--label", b"Zone \xff", "--id", "ff", "pkcs11:token=Kavori%20Demo"]):
        subprocess.run(command, env=dict(run.env, GNUTLS_PIN="123456"), check=True, capture_output=True)
    demo = os.path.join(BUILD, "examples", "demo")
    session = run.dialog("certificate.html", demo, (520, 560))
    run.wait(lambda _: run.focused() == "certificate-0", "the first certificate to have the focus")
    labels = [label for _, label in certificates]
    run.check("the list", options(run), labels[:-1] + ["Zone \ufffd", labels[-1] + ", expired"])
    details = session.execute_script(
        "return Array.from(document.querySelectorAll('.cert-details')).map(function (d) { return d.textContent; })")
    run.check("what the second may do", details[1].split(" · ")[-1], "Signing only")
    run.check("who holds the first", details[0].split(" · ")[0], "Alice Example")
    run.check("who holds the fourth", details[3].split(" · ")[0], "O=Zone")
    run.keys(Keys.END, Keys.ENTER)
    run.says("error", "This certificate expired on 2020-01-01. Choose another one.")
    run.keys(Keys.HOME, Keys.ARROW_DOWN)
    run.check("the selection", session.execute_script(
        "return document.querySelector('[aria-selected=true]').id"), "certificate-1")
    run.end(certificates[1][0], Keys.ENTER)

    # 200 certificates: one answer of tens of kilobytes.  Holder 1 to 200,
    # every 50th held by Zoe Zed, one label that is markup.
    many = [{"id": f"{n:04x}", "label": f"Holder {n}", "subject": "Zoe Zed" if n % 50 == 0 else f"Person {n}",
             "issuer": "CI CA", "notBefore": "2020-01-01T00:00:00Z", "notAfter": "2099-01-01T00:00:00Z",
             "keyUsage": ["digitalSignature"], "extendedKeyUsage": ["clientAuth"]} for n in range(1, 201)]
    many[0]["label"] = "<img src=x onerror=\"document.title='markup'\">"
    answers = {"GetProperty": {"Status": "ready", "Token:Label": "Full token"},
               "EnumProperty": {"Certificates": {"": json.dumps(many)}}}
    with open(run.path("many.json"), "w") as file:
        json.dump(answers, file)
    run.env["KAVORI_ANSWERS"] = run.path("many.json")
    session = run.dialog("certificate.html", os.path.join(BUILD, "examples", "scripted"), (520, 560))
    run.wait(lambda _: run.focused() == "certificate-0", "the first certificate to have the focus")
    run.says("count", "200 certificates")
    run.check("the markup label", options(run)[0], many[0]["label"])
    run.keys(Keys.END)
    run.check("after End, the last in view", session.execute_script(
        "var list = document.getElementById('list').getBoundingClientRect();"
        "var last = document.activeElement.getBoundingClientRect();"
        "return [document.activeElement.getAttribute('aria-label'), last.top >= list.top, "
        "last.bottom <= list.bottom + 1]"), ["Holder 200", True, True])
    run.keys("holder 17")  # a letter in the list goes on to the filter
    run.says("count", "11 of 200 certificates match.")
    run.check("the filtered list", options(run), ["Holder 17"] + [f"Holder {n}" for n in range(170, 180)])
    session.find_element(By.ID, "filter").clear()
    session.find_element(By.ID, "filter").send_keys("zoe")
    run.check("by the holder's name", options(run), ["Holder 50", "Holder 100", "Holder 150", "Holder 200"])
    run.check("the title", session.title, "Choose a certificate")
    run.end(f"{100:04x}", Keys.ARROW_DOWN, Keys.ARROW_DOWN, Keys.ENTER)


def login_works(run, pin):
    if not shutil.which("pkcs11-tool"):
        print("skipped: pkcs11-tool is missing (package opensc)")
        sys.exit(77)
    return subprocess.run(["pkcs11-tool", "--module", SOFTHSM, "--login", "--pin", pin, "--list-objects"],
                          env=run.env, capture_output=True).returncode == 0


def admin_dialog(run):
    demo_token(run)
    session = run.dialog("admin.html", os.path.join(BUILD, "examples", "demo"), (440, 600),
                         {"KAVORI_DEMO_LOG": run.path("demo.log")})
    run.wait(lambda _: run.focused() == "old-pin", "the focus in the current PIN")
    run.check("the token", session.execute_script(
        "return ['token-label', 'token-make', 'pin-state'].map(function (id) {"
        " return document.getElementById(id).textContent; })"),
        ["Kavori Demo", "SoftHSM v2 by SoftHSM project", "PIN in order"])

    def change(form, proof, pin, again, says, focus):
        """Types into a form's three fields from the first, by Tab and Enter."""
        for field in form:
            session.find_element(By.ID, field).clear()
        session.find_element(By.ID, form[0]).click()
        run.keys(proof, Keys.TAB, pin, Keys.TAB, again, Keys.ENTER)
        run.says("message", says)
        run.check(f"the focus after {says!r}", run.focused(), focus)

    old = ("old-pin", "new-pin", "new-pin-again")
    so = ("so-pin", "unblock-pin", "unblock-pin-again")
    change(old, "123456", "654321", "654320", "The two new PINs differ. Type the same new PIN twice.",
           "new-pin-again")
    change(old, "123456", "12", "12", "The new PIN is too short. A new PIN has 4 to 255 characters.", "new-pin")
    run.check("the token was asked", "ChangePin" in open(run.path("demo.log")).read(), False)
    change(old, "000000", "654321", "654321",
           "The current PIN is wrong. Only a few tries are left before the token locks.", "old-pin")
    change(old, "123456", "654321", "654321", "The PIN has been changed. Use the new PIN from now on.", "close")
    run.check("a login with the changed PIN", login_works(run, "654321"), True)
    # A module that answers CKR_PIN_LOCKED (SoftHSM2 never locks) opens the SO PIN's form.
    session.execute_script("var invoke = Kavori.Invoke;"
                           "Kavori.Invoke = function () { Kavori.Invoke = invoke; return 0xa4; };")
    change(old, "654321", "97531", "97531", "The PIN is locked. Too many wrong PINs. Unblock it with the SO PIN.",
           "so-pin")
    change(so, "87654321", "97531", "97531", "The SO PIN is wrong. Please try again.", "so-pin")
    change(so, "12345678", "97531", "97531", "The new user PIN is set. Use the new PIN from now on.", "close")
    run.end("CKR_OK", Keys.ENTER)
    log = open(run.path("demo.log")).read()
    run.check("PINs in the plug-in's log", [p for p in ("123456", "654321", "12345678", "97531") if p in log], [])
    run.check("a login with the unblocked PIN", login_works(run, "97531"), True)


def main():
    xvfb, display = start_xvfb()
    try:
        with tempfile.TemporaryDirectory() as temp:
            run = Run(temp, display)
            try:
                {"pin": pin_dialog, "certificate": certificate_dialog, "admin": admin_dialog}[DIALOG](run)
            except Exception as error:
                run.failures.append(f"{type(error).__name__}: {error}")
            if run.failures:
                run.close()
            for failure in run.failures:
                print("FAILED:", failure)
            return 1 if run.failures else 0
    finally:
        xvfb.kill()


if __name__ == "__main__":
    sys.exit(main())
