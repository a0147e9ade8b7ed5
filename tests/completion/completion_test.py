"""What bash and zsh complete behind "tembrix", asked as a person asks: with a key, at a terminal.

  completion_test.py SHELL SCRIPT PROGRAM    in the private mounts
"""
import os
import re
import string
import subprocess
import sys
import tempfile
import unittest

from shell_at_a_terminal import Shell

KIND, SCRIPT, PROGRAM = sys.argv[1:4]
STORE = "/var/www/vhosts/.skel"
MODES = {"--test-archive", "--install-skel", "--remove-skel", "--install-default", "--test-support",
         "--help", "-t", "-i", "-r", "-d", "-S", "-h"}
TYPES = {"zip", "tgz", "tar.gz", "tar"}


def report(*words):
    return subprocess.run([PROGRAM, *words], capture_output=True, text=True, check=False).stderr


def long_options():
    """What the program's own parser takes "--=" for: an abbreviation of every option."""
    return set(re.findall(r"'(--[a-z-]+)'", report("--=", "--help").split("possibilities:")[1]))


def letters():
    """The letters that the program's own parser does not refuse."""
    return {"-" + letter for letter in string.ascii_letters
            if "invalid option" not in report("--help", "-" + letter)}


class Completion(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        os.makedirs(STORE)
        cls.scratch = tempfile.TemporaryDirectory(dir="/mnt")
        cls.shell = Shell(KIND, SCRIPT, cls.scratch.name)

    @classmethod
    def tearDownClass(cls):
        cls.shell.close()
        cls.scratch.cleanup()

    def offered(self, line):
        """The words that came into the place of the line's last one; zsh leaves blanks behind some."""
        kept, _, last = line.rpartition(" ")
        answer = self.shell.completed(line)
        self.assertTrue(answer.startswith(kept + " "), answer)
        words = set(answer[len(kept):].split())
        return set() if words == {last} else words

    def clients(self, *names):
        for name in os.listdir(STORE):
            os.rmdir(os.path.join(STORE, name))
        for name in names:
            os.makedirs(os.path.join(STORE, name))

    def test_offers_every_option_of_the_program_and_no_other(self):
        self.assertEqual(len(long_options()), 15, "the parser tells what it knows")
        self.assertEqual(self.offered("tembrix --"), long_options())
        # "-s" is taken for callers of other tools, and means nothing.
        self.assertEqual(self.offered("tembrix "), long_options() | letters() - {"-s"})

    def test_offers_no_second_mode(self):
        for mode in ("--remove-skel", "-t", "--test-support zip"):
            with self.subTest(mode):
                words = self.offered(f"tembrix {mode} ")
                self.assertIn("--filename", words)
                self.assertEqual(words & MODES, set())

    def test_offers_nothing_behind_help(self):
        self.assertEqual(self.offered("tembrix --help "), set())

    def test_completes_a_name_that_is_begun(self):
        self.assertEqual(self.offered("tembrix --inst"), {"--install-skel", "--install-default"})
        self.assertEqual(self.offered("tembrix --rem"), {"--remove-skel"})
        self.assertEqual(self.offered("tembrix --nothing"), set())

    def test_offers_the_types_of_archives(self):
        for option in ("--force-type", "-T", "--test-support", "-S"):
            with self.subTest(option):
                self.assertEqual(self.offered(f"tembrix {option} "), TYPES)
        self.assertEqual(self.offered("tembrix --force-type t"), {"tgz", "tar.gz", "tar"})

    def test_offers_only_types_that_the_program_knows(self):
        for word in self.offered("tembrix --force-type "):
            with self.subTest(word):
                self.assertNotIn("detect", report("--test-support", word))
        self.assertIn("detect", report("--test-support", "rar"))

    def test_completes_a_value_behind_an_equals_sign(self):
        answer = self.shell.completed("tembrix --force-type=z")
        self.assertEqual(answer.rstrip(), "tembrix --force-type=zip")
        words = self.shell.completed("tembrix --force-type=").split()[1:]
        self.assertEqual({word.replace("--force-type=", "") for word in words}, TYPES)

    def test_offers_files_for_the_archive(self):
        names = {"site.zip", "side.tar.gz"}
        with tempfile.TemporaryDirectory(dir="/mnt") as place:
            for name in names | {"other"}:
                open(os.path.join(place, name), "w", encoding="utf-8").close()
            for option in ("--filename", "-F"):
                with self.subTest(option):
                    self.assertEqual(self.offered(f"tembrix {option} {place}/si"),
                                     {f"{place}/{name}" for name in names})

    def test_offers_directories_alone_where_one_is_asked_for(self):
        with tempfile.TemporaryDirectory(dir="/mnt") as place:
            os.mkdir(place + "/wanted")
            open(place + "/want", "w", encoding="utf-8").close()
            for option in ("--www-root", "--cgi-bin-path"):
                with self.subTest(option):
                    (word,) = self.offered(f"tembrix {option} {place}/w")
                    self.assertEqual(word.rstrip("/"), place + "/wanted")

    def test_offers_nothing_for_a_host_name(self):
        self.assertEqual(self.offered("tembrix --vhost-name "), set())
        self.assertEqual(self.offered("tembrix -V "), set())

    def test_offers_the_clients_of_the_store(self):
        self.clients("0", "12", "13", "7")
        for option in ("--id", "-I"):
            with self.subTest(option):
                self.assertEqual(self.offered(f"tembrix {option} "), {"0", "12", "13", "7"})
        self.assertEqual(self.offered("tembrix --id 1"), {"12", "13"})

    def test_offers_the_clients_of_the_store_that_the_settings_name(self):
        os.makedirs("/mnt/elsewhere/.skel/99")
        with open("/etc/oxa/oxa.conf", "w", encoding="utf-8") as file:
            file.write("HTTPD_VHOSTS_D /mnt/old\n HTTPD_VHOSTS_D\t/mnt/elsewhere # moved\n")
        try:
            self.assertEqual(self.offered("tembrix --id "), {"99"})
        finally:
            os.remove("/etc/oxa/oxa.conf")

    def test_offers_no_clients_where_there_is_no_store(self):
        os.rename(STORE, STORE + ".away")
        try:
            self.assertEqual(self.offered("tembrix --id "), set())
        finally:
            os.rename(STORE + ".away", STORE)

    def test_runs_nothing_that_a_directory_is_called(self):
        self.clients("$(touch ran)", "`touch ran`", "55")
        self.shell.completed("tembrix --id ")
        self.assertEqual(self.offered("tembrix --id 5"), {"55"})
        self.assertFalse(os.path.exists("ran"))


if __name__ == "__main__":
    os.chdir(tempfile.mkdtemp(dir="/mnt"))
    open("a-file", "w", encoding="utf-8").close()  # which nothing but --filename may offer
    unittest.main(argv=sys.argv[:1], verbosity=2)
