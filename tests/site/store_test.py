"""The default skeleton on its way into a site: tested, installed for clients, deployed.

  store_test.py TEMBRIX DEPLOYER ARCHIVE TEMPLATE    in the private mounts; TEMPLATE: the system
                                                     tables of the database server
"""
import glob
import os
import sys
import tarfile
import unittest

from panel import ROOT, SCRIPTS, Panel, run, tree

ARCHIVE, TEMPLATE = sys.argv[3:5]
EMPTY_PLACES = ["anon_ftp", "statistics", "webspace"]


def archived(group):
    """What the archive holds, as tree() shows it once it is root's or the group's."""
    with tarfile.open(ARCHIVE) as archive:
        return sorted(f"{entry.name} {'d' if entry.isdir() else 'f'} {entry.mode:o} root:{group}"
                      for entry in archive)


class Store(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.panel = Panel(*sys.argv[1:4])
        with open("/mnt/seed.sql", "w", encoding="utf-8") as file:
            file.write("insert into misc (param, val) values ('size_count_type', 'byte');\n")
        with open("/etc/oxa/.oxa.shadow", "w", encoding="utf-8") as file:
            file.write("sesame\n")
        run(f"{SCRIPTS}/private-mariadb", "start", "/mnt/database", "--template", TEMPLATE,
            "--socket", "/var/lib/mysql/mysql.sock", "--seed", "/mnt/seed.sql",
            "--password-file", "/etc/oxa/.oxa.shadow")

    @classmethod
    def tearDownClass(cls):
        run(f"{SCRIPTS}/private-mariadb", "stop", "/mnt/database")

    def install(self, client):
        self.assertEqual(self.panel.tool("--install-skel", "--filename", ARCHIVE, "--id", client),
                         ("0", 0))

    def test_passes_the_test_of_archives(self):
        self.assertEqual(self.panel.tool("--test-archive", "--filename", ARCHIVE), ("0", 0))

    def test_is_kept_whole_by_every_store(self):
        self.assertGreater(len(archived("root")), 20)
        for client in ("0", "12"):
            with self.subTest(client):
                self.install(client)
                self.assertEqual(tree(f"{ROOT}/.skel/{client}"), archived("root"))

    def test_is_what_a_client_gets_by_default(self):
        self.assertEqual(self.panel.tool("--install-default", "--id", "13"), ("0", 0))
        self.assertEqual(tree(f"{ROOT}/.skel/13"), archived("root"))

    def test_is_deployed_whole(self):
        for client, site in (("0", "example.com"), ("12", "example.net")):
            with self.subTest(client):
                self.install(client)
                self.assertEqual(self.panel.deploy(site, client), "")
                self.assertEqual(tree(f"{ROOT}/{site}"), archived("oxacln"))

    def test_names_the_site_in_every_file(self):
        self.install("0")
        self.panel.deploy("example.org")
        files = [path for path in glob.glob(f"{ROOT}/example.org/*/*") if os.path.isfile(path)]
        self.assertGreater(len(files), 15)
        for path in files:
            with self.subTest(path), open(path, encoding="utf-8") as file:
                text = file.read()
                self.assertIn("example.org", text)
                self.assertNotIn("@domain_name@", text)

    def test_has_pages_that_a_checker_finds_no_fault_with(self):
        self.install("0")
        self.panel.deploy("example.info")
        pages = glob.glob(f"{ROOT}/example.info/*/*.html")
        self.assertGreater(len(pages), 15)
        for page in pages:
            with self.subTest(page):
                found = run("tidy", "-quiet", "-errors", "--show-info", "yes", page, check=False)
                self.assertEqual((found.returncode, found.stderr), (0, ""))

    def test_has_no_program_that_runs_and_leaves_some_places_empty(self):
        with tarfile.open(ARCHIVE) as archive:
            entries = archive.getmembers()
        self.assertEqual([entry.name for entry in entries if entry.isfile() and entry.mode & 0o111], [])
        self.assertIn("cgi-bin/test.cgi", [entry.name for entry in entries])
        for place in EMPTY_PLACES:
            self.assertEqual([entry.name for entry in entries if entry.name.startswith(place)], [place])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
