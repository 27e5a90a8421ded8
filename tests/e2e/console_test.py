#!/usr/bin/python3
"""The browser console in headless Chromium against the real `kelvo serve`:
an operator speaks a line, clones, binds and speaks through the binding,
pre-bakes and cancels, watches the status and moves a pack; then the same
with API keys on. No test may leave an error in the browser's console (CSP
violations included). Each view is saved as a screenshot, in English and
Chinese and at phone width, under build/console-screenshots/."""
import base64
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
    os.environ["KELVO_BIN"] = sys.argv.pop(1)

from selenium import webdriver  # noqa: E402
from selenium.common.exceptions import TimeoutException  # noqa: E402
from selenium.webdriver.chrome.service import Service  # noqa: E402
from selenium.webdriver.common.by import By  # noqa: E402
from selenium.webdriver.support.ui import Select, WebDriverWait  # noqa: E402

from serve_test import KELVO, Server, free_port, serve_with_engine_double, tone_wav  # noqa: E402

SHOTS = os.path.join(os.path.dirname(os.path.abspath(KELVO)), "console-screenshots")
VIEWS = ("speak", "voices", "bindings", "prebake", "status", "packs")


def start_browser(downloads):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for arg in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1280,800",
                "--use-fake-ui-for-media-stream", "--use-fake-device-for-media-stream",
                "--autoplay-policy=no-user-gesture-required", "--lang=en-US"):
        options.add_argument(arg)
    options.add_experimental_option("prefs", {"download.default_directory": downloads,
                                              "download.prompt_for_download": False})
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    return driver


class Page:
    """The console in one browser, opened on one service."""

    def __init__(self, test, driver, port):
        self.test = test
        self.driver = driver
        self.base = f"http://127.0.0.1:{port}"

    def wait(self, condition, what, timeout=20):
        try:
            return WebDriverWait(self.driver, timeout, poll_frequency=0.05).until(lambda d: condition())
        except TimeoutException:
            shown = self.driver.execute_script(
                "return [...document.querySelectorAll('.error')].map(e => e.textContent).filter(Boolean)")
            self.test.fail(f"timed out waiting for {what}; errors shown: {shown}")

    def open(self, view):
        if not self.driver.current_url.startswith(self.base):
            self.driver.get(self.base + "/")
        self.driver.execute_script("location.hash = arguments[0]", view)
        self.wait(lambda: self.driver.execute_script(
            "return document.getElementById('view').dataset.view === arguments[0]", view), f"view {view}")

    def find(self, css):
        return self.driver.find_element(By.CSS_SELECTOR, css)

    def appears(self, css, what):
        self.wait(lambda: self.driver.find_elements(By.CSS_SELECTOR, css), what)

    def disappears(self, css, what):
        self.wait(lambda: not self.driver.find_elements(By.CSS_SELECTOR, css), what)

    def field(self, label):
        """The control whose <label> reads `label` in the current view."""
        for element in self.driver.find_elements(By.XPATH, f"//main//label[normalize-space()='{label}']"):
            if element.is_displayed():
                return self.driver.find_element(By.ID, element.get_attribute("for"))
        self.test.fail(f"no visible control labelled {label!r}")

    def button(self, text):
        """The button or link of the view (not the navigation) that reads `text`."""
        return self.driver.find_element(By.XPATH, f"//main//*[self::button or self::a][normalize-space()='{text}']")

    def type(self, label, text):
        control = self.field(label)
        control.clear()
        control.send_keys(text)

    def choose(self, label, value):
        Select(self.field(label)).select_by_value(value)

    def text(self, css):
        return self.find(css).text

    def errors(self):
        """The error lines the view shows, in words."""
        return [e.text for e in self.driver.find_elements(By.CSS_SELECTOR, "#view .error") if e.is_displayed()]

    def fact(self, name):
        return self.driver.execute_script(
            "const dt = [...document.querySelectorAll('#view dt')].find(e => e.textContent === arguments[0]);"
            "return dt ? dt.nextElementSibling.textContent : null", name)

    def audio_seconds(self, css):
        return self.wait(lambda: self.driver.execute_script(
            "const a = document.querySelector(arguments[0]); return a && a.duration > 0 ? a.duration : 0", css),
            f"playable audio in {css}")

    def shot(self, name):
        """The whole page at the window's width, as a reviewer would scroll through it."""
        os.makedirs(SHOTS, exist_ok=True)
        self.driver.execute_script("document.activeElement && document.activeElement.blur()")
        width, height = self.driver.execute_script(
            "return [window.innerWidth, document.documentElement.scrollHeight]")
        image = self.driver.execute_cdp_cmd("Page.captureScreenshot", {
            "captureBeyondViewport": True, "clip": {"x": 0, "y": 0, "width": width, "height": height, "scale": 1}})
        with open(os.path.join(SHOTS, name + ".png"), "wb") as f:
            f.write(base64.b64decode(image["data"]))

    def viewport(self, width, height):
        """Sizes the window so that the page itself gets `width` x `height`."""
        self.driver.set_window_size(width, height)
        inner = self.driver.execute_script("return [window.innerWidth, window.innerHeight]")
        self.driver.set_window_size(2 * width - inner[0], 2 * height - inner[1])

    def speak(self, text, **choices):
        self.open("speak")
        self.type("Text to speak", text)
        for label, value in choices.items():
            if label == "airline":
                self.type("Airline", value)
            else:
                self.choose(label.capitalize(), value)
        before = self.driver.execute_script("return document.querySelector('.result audio').src")
        self.button("Speak").click()
        self.wait(lambda: self.driver.execute_script("return document.querySelector('.result audio').src") != before,
                  "the spoken line")
        self.audio_seconds(".result audio")


class ConsoleTest(unittest.TestCase):
    """One service (an engine double that takes 150 ms a line) and one browser for every case."""

    @classmethod
    def setUpClass(cls):
        shutil.rmtree(SHOTS, ignore_errors=True)  # only this run's pictures, none left from an older page
        cls.home = tempfile.mkdtemp(prefix="kelvo-console-")
        cls.downloads = os.path.join(cls.home, "downloads")
        cls.srv = serve_with_engine_double(cls.home, 150)
        try:
            cls.driver = start_browser(cls.downloads)
        except BaseException:
            cls.srv.stop()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        cls.srv.stop()
        subprocess.run(["rm", "-rf", cls.home], check=False)

    def setUp(self):
        self.page = Page(self, self.driver, self.srv.port)
        self.page.viewport(1280, 800)
        self.expected_refusals = ()  # "status of 403" etc.: network errors a case provokes on purpose

    def tearDown(self):
        errors = [entry["message"] for entry in self.driver.get_log("browser") if entry["level"] == "SEVERE"
                  and not any(f"status of {status}" in entry["message"] for status in self.expected_refusals)]
        self.assertEqual(errors, [], "errors in the browser console")

    def clip_file(self, seconds):
        path = os.path.join(self.home, f"gate-{seconds}s.wav")
        with open(path, "wb") as f:
            f.write(tone_wav(seconds))
        return path

    def test_speak_from_the_root_address(self):
        page = self.page
        self.driver.get(page.base + "/")
        self.assertEqual(self.driver.current_url, page.base + "/console/")
        page.speak("Flight KV 12 to Lisbon is now boarding at gate B 12", language="en")
        self.assertEqual(page.fact("Cache"), "miss (newly spoken)")
        self.assertEqual(page.fact("Engine"), self.srv.json("GET", "/v1/health")[1]["engine"])
        self.assertRegex(page.fact("Time taken"), r"^\d+ ms$")
        link = page.button("Download WAV")
        self.assertTrue(link.get_attribute("href").startswith("blob:"))
        self.assertEqual(link.get_attribute("download"), "kelvo.wav")
        page.speak("Flight KV 12 to Lisbon is now boarding at gate B 12", language="en")
        self.assertEqual(page.fact("Cache"), "hit (from the cache)")
        page.shot("speak-en")

        # A refusal is shown in the service's words beside the button.
        self.driver.execute_script("const text = document.querySelector('#view textarea');"
                                   "text.removeAttribute('maxlength'); text.value = 'x'.repeat(5001)")
        page.button("Speak").click()
        page.wait(page.errors, "the refusal")
        self.assertIn("5000", page.errors()[0])
        self.expected_refusals = (413,)

    def test_clone_bind_and_speak_through_the_binding(self):
        page = self.page
        page.open("voices")
        page.type("Name", "Gate voice")
        page.choose("Language", "en")
        page.choose("Gender", "female")
        page.field("Audio files").send_keys(self.clip_file(3))
        page.appears(".clip-list input", "the chosen file")
        self.driver.find_element(By.CSS_SELECTOR, ".clip-list input").send_keys("Welcome aboard")
        # A second clip from the (fake) microphone, recorded in the page as WAV.
        page.button("● Record").click()
        page.wait(lambda: page.text("#view .status") == "Recording… speak now.", "the recording")
        time.sleep(1.5)
        page.button("■ Stop recording").click()
        page.wait(lambda: len(self.driver.find_elements(By.CSS_SELECTOR, ".clip-list input")) == 2, "the recording")
        self.assertEqual(page.find(".clip-list li:nth-child(2) .clip-name").text, "Recording 2.wav")
        self.driver.find_elements(By.CSS_SELECTOR, ".clip-list input")[1].send_keys("Gate closing")
        page.button("Clone voice").click()
        page.appears(".warnings li", "the clone warnings")
        self.assertIn("3.0 s", page.text(".warnings li"))  # a short clip is accepted with a warning
        voice = [v for v in self.srv.json("GET", "/v1/voices")[1]["voices"] if v["display"] == "Gate voice"][0]
        self.assertIn(voice["id"], page.text("p.ok"))
        self.assertEqual([c["text"] for c in voice["clips"]], ["Welcome aboard", "Gate closing"])
        status, headers, recorded = self.srv.request("GET", f"/v1/voices/{voice['id']}/clips/1")
        self.assertEqual((status, headers["Content-Type"], recorded[:4], recorded[8:16]),
                         (200, "audio/wav", b"RIFF", b"WAVEfmt "))
        self.assertGreater(voice["clips"][1]["duration_ms"], 1000)
        row = f"tr[data-voice='{voice['id']}']"
        page.appears(row, "the new voice in the list")
        page.find(row + " td.clips button").click()
        self.assertAlmostEqual(page.audio_seconds(".clip-player"), 3.0, delta=0.1)
        page.shot("voices-en")

        page.open("bindings")
        page.wait(lambda: self.driver.find_elements(By.XPATH, "//label[normalize-space()='Airline']"), "the form")
        page.type("Airline", "kvo")
        page.choose("Language", "en")
        page.choose("Gender", "female")
        page.choose("Voice", voice["id"])
        page.button("Bind").click()
        page.appears("tr[data-key='KVO:en:female']", "the binding")
        self.assertEqual(self.srv.json("GET", "/v1/airlines")[1]["airlines"][0]["voice"], voice["id"])
        page.shot("bindings-en")

        page.speak("Welcome aboard KV 3 to Oslo", airline="KVO", language="en", gender="female")
        self.assertEqual(page.fact("Voice"), voice["id"])

        # Choosing no voice and saving removes the binding.
        page.open("bindings")
        binding = "tr[data-key='KVO:en:female']"
        page.appears(binding, "the binding row")
        Select(page.find(binding + " select")).select_by_value("")
        page.find(binding + " button").click()
        page.disappears(binding, "the binding to go")
        self.assertEqual(self.srv.json("GET", "/v1/airlines")[1]["airlines"], [])

    def test_prebake_to_the_end_and_cancel_a_longer_run(self):
        page = self.page
        page.open("prebake")
        page.type("Lines", "\n".join(f"Flight KV {n} now boarding at gate {n}" for n in range(1, 6)))
        # A sixth line the service cannot speak: it is listed with its reason.
        self.driver.execute_script("arguments[0].value += '\\n' + 'Gate '.repeat(1001)", page.field("Lines"))
        page.choose("Language", "en")
        page.button("Start pre-bake").click()
        page.wait(lambda: page.text(".percent") == "100 %", "the pre-bake to finish")
        self.assertRegex(page.text("#view .status"), r"^6 of 6 lines · \d+ lines per minute · finished$")
        page.appears(".warnings li", "the failed line")
        self.assertEqual(page.text(".warnings strong"), "Lines that failed: 1")
        self.assertRegex(page.text(".warnings li"), r"^“?(Gate )+.*— text is 5004 characters, over the 5000 limit$")
        page.shot("prebake-en")

        lines = "".join(f"Final call for flight KV {n} to gate {n % 20}\n" for n in range(60))
        path = os.path.join(self.home, "many.txt")
        with open(path, "w") as f:
            f.write(lines)
        page.field("Or load a text file").send_keys(path)
        page.wait(lambda: page.field("Lines").get_attribute("value") == lines, "the file's lines")
        page.button("Start pre-bake").click()
        page.wait(lambda: "about" in page.text("#view .status"), "the time left")
        page.open("status")  # leaving and coming back: the page picks the running pre-bake up again
        page.open("prebake")
        page.wait(lambda: "about" in page.text("#view .status"), "the running pre-bake")
        page.button("Cancel").click()
        page.wait(lambda: page.text("#view .status").startswith("Cancelled:"), "the cancellation")
        self.assertLessEqual(self.srv.json("GET", "/v1/stats")[1]["prewarm_pending"], 1)
        self.assertLess(self.driver.execute_script("return document.querySelector('progress').value"), 60)

    def test_status_shows_the_engine_and_the_log(self):
        page = self.page
        page.open("status")
        page.wait(lambda: page.fact("Engine"), "the engine's state")
        self.assertIn("ready", page.fact("Engine"))
        self.assertNotIn("not ready", page.fact("Engine"))
        page.wait(lambda: "service started on" in page.text("pre.log"), "the log")
        page.choose("Level", "ERROR")
        self.assertNotIn("service started on", page.text("pre.log"))
        page.choose("Level", "")
        page.shot("status-en")
        # Left for another view while its first refresh is still on the way,
        # the status view polls no more.
        page.open("speak")
        self.driver.execute_script("addEventListener('hashchange', () => setTimeout(() => { location.hash = 'speak'; }),"
                                   " {once: true}); location.hash = 'status';")
        page.wait(lambda: self.driver.execute_script(
            "return location.hash === '#speak' && document.getElementById('view').dataset.view === 'speak'"),
            "the speak view again")
        polls = "return performance.getEntriesByType('resource').filter(e => e.name.includes('/v1/log')).length"
        time.sleep(1)  # the refresh that was on the way has finished
        before = self.driver.execute_script(polls)
        time.sleep(3.5)  # longer than the status view's 3 s period
        self.assertEqual(self.driver.execute_script(polls), before, "the status view still polls after it was left")

    def test_pack_export_and_import(self):
        page = self.page
        clip = tone_wav(6)
        status, voice = self.srv.json("POST", "/v1/voices/clone", {"display": "Pack voice", "language": "en",
                                                                   "audio": base64.b64encode(clip).decode(),
                                                                   "reference_text": "Welcome aboard"})
        self.assertEqual(status, 200, voice)
        page.open("packs")
        box = f"input[name=voice][value='{voice['id']}']"
        page.appears(box, "the voice to export")
        page.find(box).click()
        page.button("Export").click()
        page.wait(lambda: [f for f in os.listdir(self.downloads) if f.endswith(".cln")]
                  if os.path.isdir(self.downloads) else None, "the downloaded pack")
        pack = os.path.join(self.downloads, [f for f in os.listdir(self.downloads) if f.endswith(".cln")][0])
        with open(pack, "rb") as f:
            self.assertEqual(f.read(2), b"PK")
        page.shot("packs-en")

        # Gone from the library, then back from the pack.
        page.open("voices")
        remove = f"tr[data-voice='{voice['id']}'] button.danger"
        page.appears(remove, "the voice row")
        page.find(remove).click()
        self.driver.switch_to.alert.accept()
        page.disappears(remove, "the voice to go")
        page.open("packs")
        page.field("Pack file (.cln)").send_keys(pack)
        page.button("Import").click()
        page.appears("#view p.ok", "the import summary")
        self.assertIn("1 voices (1 new, 0 already here)", page.text("#view .ok + p"))
        self.assertIn(voice["id"], [v["id"] for v in self.srv.json("GET", "/v1/voices")[1]["voices"]])

    def test_views_in_chinese_and_at_phone_width(self):
        page = self.page
        page.open("speak")
        Select(page.find("#language")).select_by_value("zh")
        page.wait(lambda: page.find("nav a[aria-current=page]").text == "合成", "Chinese texts")
        self.driver.refresh()  # the choice outlives a reload
        page.wait(lambda: page.find("nav a[aria-current=page]").text == "合成", "Chinese after a reload")
        self.assertEqual(self.driver.execute_script("return document.documentElement.lang"), "zh")
        for view in VIEWS:
            page.open(view)
            time.sleep(0.3)  # the view's first answers
            page.shot(f"{view}-zh")
            unnamed = self.driver.execute_script(
                "return [...document.querySelectorAll('main input, main select, main textarea, main button')]"
                ".filter(e => !e.labels?.length && !e.getAttribute('aria-label') && !e.textContent.trim())"
                ".map(e => e.outerHTML)")
            self.assertEqual(unnamed, [], f"controls without a name in {view}")
        Select(page.find("#language")).select_by_value("en")
        page.viewport(390, 844)
        try:
            for view in VIEWS:
                page.open(view)
                time.sleep(0.3)
                page.shot(f"{view}-phone")
                self.assertLessEqual(self.driver.execute_script("return document.documentElement.scrollWidth"),
                                     self.driver.execute_script("return window.innerWidth"), view)
        finally:
            page.viewport(1280, 800)

    def test_keys_on_the_page_asks_once_and_names_the_missing_scope(self):
        self.expected_refusals = (401, 403)
        home = tempfile.mkdtemp(prefix="kelvo-console-keys-")
        os.makedirs(os.path.join(home, "data"))
        with open(os.path.join(home, "data", "config.json"), "w") as f:
            f.write('{"server": {"uiLanguage": "zh"}}')  # a service that speaks Chinese
        srv = Server(home, free_port())
        try:
            admin = srv.json("POST", "/v1/keys", {"name": "ops", "scope": "admin"})[1]["key"]
            srv.key = admin
            speak = srv.json("POST", "/v1/keys", {"name": "gate"})[1]["key"]
            page = Page(self, self.driver, srv.port)
            page.open("speak")
            page.wait(lambda: page.find("#key-dialog").is_displayed(), "the key dialog")
            # The page speaks the service's language before it has a key.
            self.assertEqual(page.find("#key-title").text, "API 密钥")
            self.assertEqual(page.find("nav a[aria-current=page]").text, "合成")
            page.shot("key-dialog-zh")
            page.find("#key-input").send_keys(speak + "\n")
            page.wait(lambda: not page.find("#key-dialog").is_displayed(), "the dialog to close")
            Select(page.find("#language")).select_by_value("en")
            page.speak("Gate 4 is closed", language="en")
            self.assertEqual(page.fact("Cache"), "miss (newly spoken)")

            page.open("prebake")
            page.type("Lines", "Gate 5 is open")
            page.button("Start pre-bake").click()
            page.wait(page.errors, "the refusal")
            self.assertEqual(page.errors(), ["This key lacks the scope for this action (an admin key is needed). "
                                             "这个 API 密钥只能合成和查看;这个操作需要 admin 密钥"])
            page.shot("prebake-refused-en")
            page.open("status")
            page.wait(lambda: page.fact("Engine"), "the statistics a speak key may read")
            page.wait(lambda: any("admin key is needed" in e for e in page.errors()), "the log refused")
            self.assertFalse(page.find("#key-dialog").is_displayed())  # asked once, never again
            self.assertEqual(self.driver.execute_script("return sessionStorage.getItem('kelvo.apiKey')"), speak)
        finally:
            self.driver.get("about:blank")  # the status view polls; nothing may call a stopped service
            srv.stop()
            subprocess.run(["rm", "-rf", home], check=False)


if __name__ == "__main__":
    unittest.main()
