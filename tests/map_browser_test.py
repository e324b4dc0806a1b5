#!/usr/bin/env python3
"""pmx map's page in a real browser: the sample chassis generated with its truth table, its map
written from the records, then opened in headless Chromium driven through chromedriver (the
WebDriver protocol over HTTP, standard library only). Checks that the page loads without an
error, draws one element per physical port of the truth table with the right states, finds ports
by their identities and shows them, and says so when nothing matches. Saves a screenshot."""
import argparse
import base64
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
ENTER = "\ue007"


class Failure(Exception):
    pass


def check(ok, what):
    if not ok:
        raise Failure(what)


class Driver:
    """One chromedriver process and one browser session."""

    def __init__(self, chromedriver, chromium, profile):
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            port = s.getsockname()[1]
        self.base = "http://127.0.0.1:%d" % port
        self.proc = subprocess.Popen([chromedriver, "--port=%d" % port], stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 20
        while True:
            try:
                if self.call("GET", "/status")["ready"]:
                    break
            except (urllib.error.URLError, ConnectionError):
                pass
            check(time.monotonic() < deadline and self.proc.poll() is None, "chromedriver did not start")
            time.sleep(0.1)
        args = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--user-data-dir=" + profile, "--window-size=1400,1000"]
        caps = {"browserName": "chrome", "goog:chromeOptions": {"binary": chromium, "args": args},
                "goog:loggingPrefs": {"browser": "ALL"}}
        self.session = self.call("POST", "/session", {"capabilities": {"alwaysMatch": caps}})["sessionId"]

    def call(self, method, path, body=None):
        data = json.dumps(body).encode() if body is not None else None
        req = urllib.request.Request(self.base + path, data=data, method=method,
                                     headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(req, timeout=30) as r:
                return json.loads(r.read())["value"]
        except urllib.error.HTTPError as e:
            raise Failure("%s %s: %s" % (method, path, e.read().decode(errors="replace")[:500]))

    def s(self, method, path, body=None):
        return self.call(method, "/session/%s%s" % (self.session, path), body)

    def script(self, text, *args):
        return self.s("POST", "/execute/sync", {"script": text, "args": list(args)})

    def element(self, css):
        return self.s("POST", "/element", {"using": "css selector", "value": css})[ELEMENT]

    def text(self, css):
        return self.s("GET", "/element/%s/text" % self.element(css))

    def type_into(self, css, text):
        e = self.element(css)
        self.s("POST", "/element/%s/clear" % e, {})
        self.s("POST", "/element/%s/value" % e, {"text": text})

    def browser_log(self):
        return self.s("POST", "/se/log", {"type": "browser"})

    def close(self):
        try:
            self.s("DELETE", "")
        except (Failure, urllib.error.URLError, ConnectionError):
            pass
        self.proc.terminate()
        self.proc.wait(timeout=10)


def run(cmd, env):
    r = subprocess.run(cmd, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    check(r.returncode == 0, "%s exited %d:\n%s%s" % (" ".join(cmd), r.returncode, r.stdout, r.stderr))
    return r.stdout


def gphyid_text(row):
    return "cid %d, modid %d, port %d" % (row["cid"], row["modid"], row["mport"])


def lphyid_text(row):
    return "scid %d, unit %d, port %d" % (row["scid"], row["unit"], row["port"])


def check_page(d, truth):
    physical = [r for r in truth if r["kind"] in ("port", "power", "split member")]
    subs = [r for r in truth if r["kind"] in ("sub-ap", "sub-route")]
    errors = d.script("return window.pmxMapErrors;")
    severe = [e for e in d.browser_log() if e.get("level") == "SEVERE"]
    check(not errors and not severe, "the page logged errors: %s %s" % (errors, severe))

    # One element per physical port, each in the state the truth table gives it.
    counts = d.script("""
        var n = function (css) { return document.querySelectorAll(css).length; };
        return {ports: n('.port'), split: n('.port.s-split'), power: n('.port.s-power'), absent: n('.port.s-absent'),
                ap: n('.port.x-ap'), route: n('.port.x-route')};""")
    expected = {"ports": len(physical), "split": sum(r["kind"] == "split member" for r in physical),
                "power": sum(r["kind"] == "power" for r in physical), "absent": 0,
                "ap": len({r["master_phyid"] for r in subs if r["kind"] == "sub-ap"}),
                "route": len({r["master_phyid"] for r in subs if r["kind"] == "sub-route"})}
    check(counts == expected, "port elements by state: %s, the truth table says %s" % (counts, expected))

    # A port of each kind (a subcard's among them) found by its ifx, details with every identity.
    samples = {}
    for r in physical:
        samples.setdefault("subcard" if r["sslot"] else r["kind"], r)
    for kind, r in samples.items():
        d.type_into("#search", str(r["ifx"]) + ENTER)
        details = d.text("#details")
        pos = "%d/%d/%d/%d" % (r["dev"], r["slot"], r["sslot"], r["lport"])
        for want in ("Port " + pos, "%d (0x%08x)" % (r["ifx"], r["ifx"]), r["gphyid"], gphyid_text(r), r["lphyid"],
                     lphyid_text(r), "%d / %d" % (r["modid"], r["mport"])):
            check(want in details, "ifx %d (%s): the details lack '%s':\n%s" % (r["ifx"], kind, want, details))
        check("found " + pos in d.text("#search-status"), "ifx %d: status '%s'" % (r["ifx"], d.text("#search-status")))
        check(d.script("var e = document.querySelector('.sel'); return e && e.id;") is not None,
              "ifx %d: no port is selected" % r["ifx"])

    # The same port by its other identities, each named in the status as what matched.
    r = samples["port"]
    pos = "%d/%d/%d/%d" % (r["dev"], r["slot"], r["sslot"], r["lport"])
    for query, by in ((r["gphyid"], "gphyid"), ("%d/%d" % (r["modid"], r["mport"]), "modid/port"),
                      (pos, "dev/slot/sslot/port"), (r["lphyid"], "lphyid"), ("%d/%d" % (r["unit"], r["port"]), "unit/port")):
        d.type_into("#search", query + ENTER)
        status = d.text("#search-status")
        check(pos in status and "(%s " % by in status or status == "found %s by %s" % (pos, by),
              "'%s' did not find %s by %s: %s" % (query, pos, by, status))
        check(r["gphyid"] in d.text("#details"), "'%s': the details are not those of %s" % (query, pos))

    # A sub-interface's ifx finds its parent port, whose details list it.
    if subs:
        s = subs[0]
        d.type_into("#search", str(s["ifx"]) + ENTER)
        details = d.text("#details")
        check(s["master_phyid"] in details and "0x%08x" % int(s["gphyid"], 16) in details,
              "sub-interface %d: its parent's details are:\n%s" % (s["ifx"], details))

    # An ifx nothing has.
    missing = max(r["ifx"] for r in truth) + 1000
    d.type_into("#search", str(missing) + ENTER)
    status = d.text("#search-status")
    check(status == 'no port matches "%d"' % missing, "ifx %d: status '%s'" % (missing, status))

    # A click shows the port clicked: the first power-module port drawn is the first of the truth table.
    power = [r for r in physical if r["kind"] == "power"]
    if power:
        d.s("POST", "/element/%s/click" % d.element(".port.s-power"), {})
        details = d.text("#details")
        check("power-module port" in details and "%d (0x%08x)" % (power[0]["ifx"], power[0]["ifx"]) in details,
              "a click on the first power-module port shows:\n" + details)

    errors = d.script("return window.pmxMapErrors;")
    check(not errors, "the page logged errors while used: %s" % errors)


def main():
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("--pmx", required=True)
    ap.add_argument("--topology", required=True)
    ap.add_argument("--artifacts", required=True, help="directory of the screenshot")
    ap.add_argument("--chromium", default="/usr/bin/chromium")
    ap.add_argument("--chromedriver", default="/usr/bin/chromedriver")
    a = ap.parse_args()

    work = tempfile.mkdtemp(prefix="pmx-map-test.")
    driver = None
    try:
        env = dict(os.environ, PMX_DB="", PMX_RUN_DIR=os.path.join(work, "run"))
        records, truth_file, page = (os.path.join(work, f) for f in ("records.json", "truth.jsonl", "map.html"))
        run([a.pmx, "gen", a.topology, "-o", records, "--truth", truth_file], env)
        out = run([a.pmx, "map", "--load", records, "-o", page, "--title", "small chassis"], env)
        check(out.startswith("wrote " + page + "\n"), "pmx map printed: " + out)
        with open(truth_file) as f:
            truth = [json.loads(line) for line in f if line.strip()]

        driver = Driver(a.chromedriver, a.chromium, os.path.join(work, "profile"))
        driver.s("POST", "/url", {"url": "file://" + page})
        check_page(driver, truth)

        driver.type_into("#search", str(truth[0]["ifx"]) + ENTER)
        os.makedirs(a.artifacts, exist_ok=True)
        shot = os.path.join(a.artifacts, "map-small.png")
        with open(shot, "wb") as f:
            f.write(base64.b64decode(driver.s("GET", "/screenshot")))
        print("map of the small chassis checked; screenshot: " + shot)
        return 0
    except Failure as e:
        print("map browser test failed: %s" % e, file=sys.stderr)
        return 1
    finally:
        if driver is not None:
            driver.close()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
