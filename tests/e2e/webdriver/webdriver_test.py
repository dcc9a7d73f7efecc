"""The demo PIN dialog driven through WebDriver, as a dialog author's CI would
drive it: WebKitWebDriver on a free loopback port starts the built host with
the scripted plug-in, a Selenium client types a wrong PIN and then the right
one, and the result file says CKR_OK.  The host refuses a session unless it
has both --automation and KAVORI_DEVELOPER=1.

    /usr/bin/python3 tests/e2e/webdriver/webdriver_test.py [BUILD_DIR]

BUILD_DIR defaults to build/; the screenshot of the wrong-PIN message is left
there as webdriver-wrong-pin.png.  Exit code 77 (skipped) without
WebKitWebDriver, Selenium or Xvfb; each run has its own Xvfb and HOME."""
import os
import select
import subprocess
import sys
import tempfile

DRIVER = "/usr/bin/WebKitWebDriver"
SOURCE = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(SOURCE, "build"))
HOST = os.path.join(BUILD, "bin", "kavori-host")
ANSWERS = """{"GetProperty": {"Status": "ready", "Token:Label": "CI token", "Token:PinState": "ok",
                              "Token:MinPinLength": "4"},
              "Invoke": {"login 1234": 0, "login *": 160}}"""
# The PIN dialog sets "Pin" and then invokes "Login"; the scripted plug-in
# answers by command alone, so the page's calls are joined into the
# "login <pin>" that its table answers.
JOIN_PIN = """var invoke = Kavori.Invoke;
Kavori.Invoke = function (c) { return invoke(c === "Login" ? "login " + Kavori.GetProperty("Pin") : c); };"""

try:
    from selenium import webdriver
    from selenium.webdriver.common.by import By
    from selenium.webdriver.remote.remote_connection import RemoteConnection
    from selenium.webdriver.support import expected_conditions
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


def enter_pins(session, result):
    """What went wrong while a wrong PIN and then the right one were entered."""
    failures = []
    session.execute_script(JOIN_PIN)
    pin = session.find_element(By.ID, "pin")
    pin.send_keys("0000")
    session.find_element(By.ID, "submit").click()
    shown = expected_conditions.visibility_of_element_located((By.ID, "error"))
    message = WebDriverWait(session, 10).until(shown).text
    if message != "Wrong PIN. Please try again.":
        failures.append(f"after a wrong PIN the page says {message!r}")
    screenshot = session.get_screenshot_as_png()
    with open(os.path.join(BUILD, "webdriver-wrong-pin.png"), "wb") as shot:
        shot.write(screenshot)
    size = (int.from_bytes(screenshot[16:20], "big"), int.from_bytes(screenshot[20:24], "big"))
    if size != (420, 480):
        failures.append(f"the screenshot is {size}, not the dialog's 420 x 480")
    pin.send_keys("1234")
    session.find_element(By.ID, "submit").click()
    # The page's exit ends the host, which writes the result as it goes.
    WebDriverWait(session, 10).until(lambda _: os.path.exists(result))
    return failures


def run(temp, display):
    def path(name): return os.path.join(temp, name)
    with open(path("answers.json"), "w") as answers:
        answers.write(ANSWERS)
    env = {name: value for name, value in os.environ.items() if name != "KAVORI_DEVELOPER"}
    env.update(HOME=temp, DISPLAY=display, LC_ALL="C", KAVORI_ANSWERS=path("answers.json"))
    developer = dict(env, KAVORI_DEVELOPER="1")
    dialog = ["-url", os.path.join(SOURCE, "examples", "dialog", "pin.html"),
              "-root", os.path.join(BUILD, "examples", "scripted"),
              "-size", "0x01A401FE", "-store", path("result")]  # 420 x 480
    service, session = open_session(developer, path("driver.log"), ["--automation"] + dialog, 60)
    if not session:
        print(open(path("driver.log")).read())
        return 1
    try:
        failures = enter_pins(session, path("result"))
    except Exception as error:
        failures = [f"{type(error).__name__}: {error}"]
    finally:
        session.quit()
        stop(service)
    result = open(path("result")).read() if os.path.exists(path("result")) else None
    if result != "CKR_OK":
        failures.append(f"the result file holds {result!r}")
    if failures:
        print(open(path("driver.log")).read())

    # The same dialog without one of the two switches: no session, within seconds.
    for name, refused_env, args in (("without KAVORI_DEVELOPER=1", env, ["--automation"] + dialog),
                                    ("without --automation", developer, dialog)):
        service, session = open_session(refused_env, path("refused.log"), args, 5)
        if session:
            failures.append(f"a session was opened {name}")
            session.quit()
            stop(service)
    for failure in failures:
        print("FAILED:", failure)
    return 1 if failures else 0


def main():
    xvfb, display = start_xvfb()
    try:
        with tempfile.TemporaryDirectory() as temp:
            return run(temp, display)
    finally:
        xvfb.kill()


if __name__ == "__main__":
    sys.exit(main())
