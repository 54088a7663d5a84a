#!/usr/bin/env python3
"""End-to-end tests of kova-svc: the built tool on sandbox roots (copies of examples/root).

Every JSON document is read with Python's json module, not with the tool's own code.
Environment: KOVA_SVC (the tool), KOVA_SOURCE_DIR (the checkout), KOVA_TEST_TMPDIR (where the
sandbox roots go).
"""
import html.parser
import itertools
import json
import os
import pty
import shutil
import socket
import subprocess
import tempfile
import unittest
import zlib

SVC = os.environ["KOVA_SVC"]
EXAMPLE = os.path.join(os.environ["KOVA_SOURCE_DIR"], "examples", "root")
TMP = os.environ.get("KOVA_TEST_TMPDIR") or tempfile.gettempdir()
PKG = "usr/local/etc/services.d"


class Run:
    def __init__(self, proc):
        self.status, self.out, self.err = proc.returncode, proc.stdout, proc.stderr

    def json(self):
        return json.loads(self.out)

    def lines(self):
        return self.out.splitlines()


class Sandbox(unittest.TestCase):
    """A copy of the example root: offline (no proc/, no tmp/) unless a test says otherwise."""

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="cli.", dir=TMP)
        os.chmod(self.root, 0o755)
        shutil.copytree(EXAMPLE, self.root, dirs_exist_ok=True)
        self.addCleanup(shutil.rmtree, self.root, True)

    def path(self, rel):
        return os.path.join(self.root, rel)

    def write(self, rel, text, mode=0o644):
        p = self.path(rel)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        with open(p, "w") as f:
            f.write(text)
        os.chmod(p, mode)
        return p

    def live(self, firewall="exit 0"):
        """The machine's process tables, and stand-ins for the firewall and router tools."""
        os.symlink("/proc", self.path("proc"))
        os.makedirs(self.path("tmp"), exist_ok=True)
        for tool in ("usr/kova/bin/kovafirewall", "usr/kova/sbin/kovaroutertool"):
            self.write(tool, "#!/bin/sh\n%s\n" % firewall, 0o755)

    def svc(self, *args, env=None, user=None):
        full = dict(os.environ, **(env or {}))
        full.pop("COLUMNS", None)
        pre = (lambda: (os.setgid(65534), os.setuid(65534))) if user == "nobody" else None
        proc = subprocess.run([SVC, "--root", self.root, *args], capture_output=True, text=True, env=full,
                              preexec_fn=pre, timeout=120)
        return Run(proc)

    def free_port(self):
        """The first port of 41001 and up that nothing declares, reserves or (on a live root) holds."""
        return next(p for p in itertools.count(41001) if self.svc("check", "%d/tcp" % p).status == 0)

    def sc(self, name, section, ports):
        return self.write("scratch/" + name, "[%s]\ntitle=T\ndesc=D\ndst.ports=%s\n" % (section, ports))

    def assertError(self, r, status, *words):
        """Failed with `status`, and the tool said so in one line naming `words`."""
        self.assertEqual(r.status, status, r.err)
        (line,) = [l for l in r.err.splitlines() if l.startswith("kova-svc:")]
        for w in words:
            self.assertIn(w, line)


def holders(doc):
    return [(h["source"], h["name"], h["ports"][0]["first"], h["ports"][0]["last"], tuple(h["protocols"]))
            for h in doc["holders"]]


class Catalogue(Sandbox):
    def test_list_never_wraps_in_a_pipe_and_its_ports_paste_back(self):
        r = self.svc("list")
        self.assertEqual(r.status, 0, r.err)
        nfs = [l for l in r.lines() if l.startswith("nfs ")]
        self.assertEqual(len(nfs), 1)
        self.assertTrue(nfs[0].endswith("111,662,892,2049,4045/tcp,udp  -"), nfs[0])
        self.assertIn("6281:6283/tcp", [w for l in r.lines() if l.startswith("backup_vault") for w in l.split()])
        self.assertTrue(r.lines()[0].startswith("NAME"))
        self.assertFalse(self.svc("--no-header", "list").lines()[0].startswith("NAME"))

        doc = self.svc("list", "--json").json()
        vault = next(s for s in doc["services"] if s["name"] == "backup_vault")
        self.assertEqual(vault["dst"], {"protocols": ["tcp"], "ports": [{"first": 6281, "last": 6283}],
                                        "text": "6281:6283/tcp"})
        afp = next(s for s in doc["services"] if s["name"] == "afp")
        self.assertIsNone(afp["src"])
        self.assertIsNone(afp["file"])
        # What the tool prints is what it reads, in either range syntax.
        for text in (vault["dst"]["text"], "6281-6283/tcp"):
            c = self.svc("check", text, "--sources", "services", "--json").json()
            self.assertEqual(holders(c), [("services", "backup_vault", 6281, 6283, ("tcp",))])

    def test_show_explains_reserved_names_and_fails_on_unknown_ones(self):
        r = self.svc("show", "kova-webdav")
        self.assertEqual(r.status, 0, r.err)
        self.assertIn("reserved port, not a service", r.out)
        self.assertIn("5005/tcp", r.out)
        doc = self.svc("show", "kova-syslog", "--json").json()
        self.assertIsNone(doc["service"])
        self.assertEqual({(h["ports"][0]["first"], tuple(h["protocols"]), h["setting"]) for h in doc["reserved"]},
                         {(1514, ("tcp",), "syslogport"), (1514, ("udp",), "syslogport")})
        r = self.svc("show", "no_such", "--json")
        self.assertEqual(r.status, 3)
        self.assertIn("no service named 'no_such'", r.json()["error"]["message"])
        self.assertEqual(r.json()["error"]["status"], 3)


class Ports(Sandbox):
    def test_check_names_every_source_of_a_collision(self):
        r = self.svc("check", "443,5005,6690/tcp", "--json")
        self.assertEqual(r.status, 1, r.err)
        doc = r.json()
        self.assertTrue(doc["conflict"])
        self.assertEqual(doc["colliding"], [{"first": p, "last": p} for p in (443, 5005, 6690)])
        self.assertEqual(set(holders(doc)), {
            ("forward", "web_frontend", 443, 443, ("tcp",)),
            ("services", "web_frontend", 443, 443, ("tcp",)),
            ("reserved", "webdav_http", 5005, 5005, ("tcp",)),
            ("forward", "custom", 6690, 6690, ("tcp", "udp")),
        })
        self.assertNotIn("kova-webdav", r.out)  # reserved ports are not services
        # Offline root: the in-use source is skipped, said once.
        self.assertFalse(doc["in_use_known"])
        self.assertEqual(r.err.count("offline"), 1, r.err)
        self.assertEqual(len(doc["warnings"]), 1)
        clean = self.svc("check", "41000:41010/udp", "--json")
        self.assertEqual((clean.status, clean.json()["conflict"], clean.json()["holders"]), (0, False, []))
        # A name of several-byte characters takes its width, not its bytes: the columns still line up.
        with open(self.path("etc/portforward/rule.conf"), "a", encoding="utf-8") as f:
            f.write('\n[rule_9]\nservice_id="café_ü"\nprotocol name="tcp"\ns_port="6690"\nr_port="6690"\n')
        rows = [l for l in self.svc("check", "6690/tcp").out.splitlines() if l.startswith("6690")]
        self.assertEqual(len(rows), 4, rows)
        self.assertEqual(len({l.index("[rule") for l in rows}), 1, rows)

    def test_ports_in_use_are_reported_whoever_holds_them(self):
        self.live()
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            s.listen()
            port = s.getsockname()[1]
            r = self.svc("who", "%d/tcp" % port, "--json")
            self.assertEqual(r.status, 0, r.err)
            (h,) = r.json()["holders"]
            self.assertEqual((h["source"], h["pid"], h["state"], h["visible"]), ("in-use", os.getpid(), "LISTEN", True))
            self.assertIn("%d\ttcp\t%d" % (port, os.getpid()),
                          ["\t".join(l.split()[:3]) for l in self.svc("sockets", "--listening").lines()])
            # The same port on IPv6 too, by the same process: still one line.
            if socket.has_ipv6 and os.path.exists("/proc/net/tcp6"):
                with socket.socket(socket.AF_INET6) as s6:
                    s6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
                    s6.bind(("::1", port))
                    s6.listen()
                    mine = [l for l in self.svc("sockets").lines() if l.split()[:3] == [str(port), "tcp", str(os.getpid())]]
                    self.assertEqual(len(mine), 1, mine)
            self.assertEqual(self.svc("check", "%d/tcp" % port).status, 1)
            # A service does not collide with itself while it runs.
            self.write(PKG + "/own.sc", "[own]\ntitle=T\ndesc=D\ndst.ports=%d/tcp\n" % port)
            self.assertEqual(self.svc("check", "%d/tcp" % port, "--skip", "own").status, 0)
            os.remove(self.path(PKG + "/own.sc"))
            if os.geteuid() == 0:
                for args in (("who", "%d/tcp" % port), ("check", "%d/tcp" % port)):
                    r = self.svc(*args, "--json", user="nobody")
                    self.assertIn(("in-use", None, False), [(h["source"], h["pid"], h["visible"])
                                                            for h in r.json()["holders"]], r.out + r.err)
                    self.assertNotEqual(r.status, 0 if args[0] == "check" else 1)
                self.assertIn("not visible to this user", self.svc("who", str(port), user="nobody").out)
        r = self.svc("who", "%d/tcp" % port)
        self.assertEqual((r.status, r.lines()[-1]), (1, "Held by: nobody"))

    def test_free_ports_pass_the_check_offline(self):
        doc = self.svc("free", "--near", "5000", "--count", "3", "--json").json()
        (run,) = doc["ports"]
        self.assertEqual(run["last"] - run["first"], 2)
        self.assertFalse(doc["in_use_known"])
        self.assertEqual(self.svc("check", "%d:%d" % (run["first"], run["last"])).status, 0)


class Changes(Sandbox):
    def test_install_reports_collisions_and_strict_refuses_them(self):
        src = self.sc("clash.sc", "clash", "445,41990/tcp")
        r = self.svc("install", src)
        self.assertEqual(r.status, 0, r.err)
        self.assertIn("cifs", r.err)
        self.assertTrue(os.path.exists(self.path(PKG + "/clash.sc")))
        r = self.svc("install", "--strict", src, "--as", "strict.sc", "--json")
        self.assertEqual(r.status, 1)
        self.assertIn("--strict", r.json()["error"]["message"])
        self.assertFalse(os.path.exists(self.path(PKG + "/strict.sc")))
        ok = self.svc("update", "clash.sc", self.sc("ok.sc", "clash", "41990/tcp"), "--strict", "--json")
        self.assertEqual((ok.status, ok.json()["conflict"]), (0, False), ok.err)

    def test_missing_targets_are_treated_alike(self):
        for args in (("remove", "nothing.sc"), ("remove-section", "nothing.sc", "x"),
                     ("remove-section", "media_server.sc", "no_section")):
            r = self.svc(*args, "--json")
            self.assertEqual((r.status, r.json()["removed"]), (0, False), args)
        r = self.svc("update", "nothing.sc", self.sc("n.sc", "n", "41000/tcp"), "--json")
        self.assertEqual(r.status, 3)
        err = r.json()["error"]
        self.assertEqual(err["file"], self.path(PKG + "/nothing.sc"))
        self.assertIn("kova-svc install", err["hint"])
        self.assertEqual(r.err.count("\n"), 1)

    def test_every_command_works_on_an_offline_root(self):
        src = self.sc("new.sc", "new_svc", "41000/tcp")
        steps = [("list",), ("show", "ftp"), ("who", "445"), ("sockets",), ("free",), ("validate", src),
                 ("check", "41000"),
                 ("install", src), ("update", "new.sc", src), ("set-ports", "new.sc", "new_svc", "41001-41002/tcp"),
                 ("remove-section", "new.sc", "new_svc"), ("install", src), ("remove", "new.sc")]
        for step in steps:
            r = self.svc(*step)
            self.assertEqual(r.status, 0, "%s: %s" % (step, r.err))
            self.assertLessEqual(r.err.count("offline"), 1, r.err)
        self.assertTrue(os.path.isdir(self.path("tmp")))
        self.assertEqual(os.listdir(self.path("tmp")), [])

    def test_remove_section_without_firewall_tool_suggests_files_only(self):
        self.live()
        os.remove(self.path("usr/kova/bin/kovafirewall"))
        r = self.svc("remove-section", "media_server.sc", "media_server")
        self.assertError(r, 3, "--files-only", "kovafirewall")
        self.assertIn("[media_server]", open(self.path(PKG + "/media_server.sc")).read())
        r = self.svc("remove-section", "media_server.sc", "media_server", "--files-only")
        self.assertEqual(r.status, 0, r.err)
        self.assertNotIn("[media_server]", open(self.path(PKG + "/media_server.sc")).read())

    def test_failed_follow_ups_are_warnings_and_reach_the_users_log(self):
        self.live(firewall="exit 1")
        log = self.path("user.log")
        r = self.svc("set-ports", "media_server.sc", "media_server", "%d/tcp" % self.free_port(), "--json",
                     env={"KOVA_LOG_FILE": log})
        self.assertEqual(r.status, 0, r.err)
        self.assertTrue(r.json()["changed"])
        self.assertTrue(any("follow-up" in w and "kovafirewall" in w for w in r.json()["warnings"]), r.out)
        self.assertIn("kovafirewall", r.err)
        self.assertIn("kovafirewall --reload", open(log).read())


class Audit(Sandbox):
    def test_audit_names_undeclared_listeners_not_declared_ones(self):
        self.live()
        with socket.socket() as undeclared, socket.socket() as declared:
            for s in (undeclared, declared):
                s.bind(("127.0.0.1", 0))
                s.listen()
            u, d = undeclared.getsockname()[1], declared.getsockname()[1]
            self.write(PKG + "/mine.sc", "[mine]\ntitle=T\ndesc=D\ndst.ports=%d/tcp\n" % d)
            text, r = self.svc("audit"), self.svc("audit", "--json")
        self.assertEqual((text.status, r.status), (1, 1), text.err)
        doc = r.json()
        ours = [(l["port"], l["pid"], l["loopback_only"]) for l in doc["undeclared"] if l["pid"] == os.getpid()]
        self.assertEqual(ours, [(u, os.getpid(), True)])
        self.assertIn(("mine", d), [(l["service"], l["port"]) for l in doc["shared"]])
        self.assertIn({"ports": [{"first": 3306, "last": 3306}], "protocols": ["tcp"],
                       "services": ["mysql", "photo_gallery_db"]}, doc["double"])
        self.assertNotIn("mine", [s["name"] for s in doc["silent"]])
        self.assertIn("web_frontend", [s["name"] for s in doc["silent"]])
        lines = text.lines()
        self.assertTrue(any(l.split()[:4] == [str(u), "tcp", "loopback", str(os.getpid())] for l in lines), text.out)
        self.assertFalse(any(l.split()[:2] == [str(d), "tcp"] and "mine" not in l for l in lines), text.out)

    def test_audit_page_is_self_contained_and_renders(self):
        self.live()
        page = self.path("audit.html")
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            s.listen()
            port = s.getsockname()[1]
            self.assertEqual(self.svc("audit", "--html", page).status, 1)

        class Page(html.parser.HTMLParser):
            def __init__(self):
                super().__init__()
                self.tags, self.text, self.outside = [], [], []

            def handle_starttag(self, tag, attrs):
                self.tags.append(tag)
                self.outside += [v for k, v in attrs if k in ("src", "href") and v]

            def handle_data(self, data):
                self.text.append(data)

        p = Page()
        p.feed(open(page).read())
        p.close()
        text = " ".join(p.text)
        self.assertIn("svg", p.tags)
        self.assertGreater(p.tags.count("rect"), 20)
        self.assertEqual([t for t in p.tags if t in ("script", "link", "img", "iframe", "object")], [])
        self.assertEqual(p.outside, [])
        self.assertNotIn("url(", open(page).read())
        self.assertIn("%d/tcp undeclared" % port, text)
        self.assertIn("3306/tcp mysql, photo_gallery_db", text)

        chromium = shutil.which("chromium")
        if chromium is None:
            self.skipTest("chromium is not installed: the page was parsed but not rendered")
        png = self.path("audit.png")
        subprocess.run([chromium, "--headless", "--no-sandbox", "--disable-gpu", "--window-size=1300,1400",
                        "--screenshot=" + png, "file://" + page], capture_output=True, timeout=120)
        with open(png, "rb") as f:
            data = f.read()
        self.assertEqual(data[:8], b"\x89PNG\r\n\x1a\n")
        # Not blank: the pixels of a blank page filter to runs of 0x00 and 0xFF only.
        idat, pos = b"", 8
        while pos < len(data):
            n = int.from_bytes(data[pos:pos + 4], "big")
            if data[pos + 4:pos + 8] == b"IDAT":
                idat += data[pos + 8:pos + 8 + n]
            pos += 12 + n
        pixels = zlib.decompress(idat)
        self.assertGreater(sum(1 for b in pixels if b not in (0, 255)), len(pixels) // 200)

    def test_audit_offline_looks_at_the_declared_side_only(self):
        r = self.svc("audit", "--json")
        doc = r.json()
        self.assertEqual((r.status, doc["summary"]["silent"], doc["undeclared"]), (1, None, []))
        self.assertEqual(len(doc["double"]), 2)
        self.assertEqual(r.err.count("offline"), 1)


class Output(Sandbox):
    def test_validate_prints_file_line_and_json_agrees(self):
        f = self.path(PKG + "/broken_tool.sc")
        r = self.svc("validate", f)
        self.assertEqual(r.status, 1)
        self.assertIn(f + ":5: [broken tool] error:", r.out)
        self.assertIn(f + ":13: [broken_ports] error:", r.out)
        self.assertIn(f + ":20: [broken_desc] error: missing key \"desc\"", r.out)
        doc = self.svc("validate", f, "--json").json()
        self.assertFalse(doc["accepted"])
        self.assertIsNone(doc["version"])
        self.assertIn((13, "broken_ports"), [(p["line"], p["section"]) for p in doc["problems"]])

    def test_errors_name_the_file_and_show_library_codes_only_when_verbose(self):
        missing = self.path("scratch/none.sc")
        r = self.svc("validate", missing)
        self.assertError(r, 3, missing)
        self.assertNotIn(".cpp", r.err)
        r = self.svc("--json", "check", "70000")
        self.assertEqual((r.status, r.json()["error"]["status"]), (2, 2))
        self.assertIn("not a valid port list", r.json()["error"]["message"])
        os.chmod(self.path(PKG), 0o555)
        src = self.sc("x.sc", "x", "41000/tcp")
        for verbose, shown in ((), False), (("--verbose",), True):
            r = self.svc("install", src, *verbose, user="nobody" if os.geteuid() == 0 else None)
            self.assertError(r, 3, "cannot install " + src, self.path(PKG), "may write")
            self.assertEqual(".cpp:" in r.err, shown, r.err)

    def test_tables_fit_the_terminal(self):
        try:
            pid, fd = pty.fork()
        except OSError as e:
            self.skipTest("no terminal to run the tool on (%s)" % e)
        if pid == 0:
            os.environ["COLUMNS"] = "60"
            os.execv(SVC, [SVC, "--root", self.root, "list"])
        out = b""
        try:
            while chunk := os.read(fd, 65536):
                out += chunk
        except OSError:  # the terminal closes with the tool
            pass
        os.waitpid(pid, 0)
        lines = out.decode().splitlines()
        self.assertGreater(len(lines), 27)
        self.assertLessEqual(max(len(l) for l in lines), 60)

    def test_help_tells_the_exit_statuses(self):
        text = subprocess.run([SVC, "who", "--help"], capture_output=True, text=True).stdout
        self.assertIn("0 somebody declares or holds the port, 1 nobody does", text)


if __name__ == "__main__":
    unittest.main()
