"""A panel's machine in the private mounts: its settings and database, and sites that the default
skeleton was deployed into."""
import os
import shutil
import subprocess

ROOT = "/var/www/vhosts"
SCRIPTS = os.path.join(os.path.dirname(__file__), "..", "..", "scripts")


def run(*words, check=True):
    return subprocess.run(words, check=check, capture_output=True, text=True)


class Panel:
    """`programs` is the directory with the tool and the panel's program that deploys, `archive` the
    default skeleton."""

    def __init__(self, tembrix, deployer, archive):
        self.tembrix, self.deployer, self.archive = tembrix, deployer, archive
        os.makedirs(f"{ROOT}/.skel")
        os.makedirs("/usr/local/oxa/var")
        shutil.copy(archive, "/usr/local/oxa/var/default_skeleton.tgz")
        with open("/etc/oxa/oxa.conf", "w", encoding="utf-8") as file:
            file.write("MYSQL_SOCKET /var/lib/mysql/mysql.sock\n")
        with open("/mnt/group", "w", encoding="utf-8") as file, \
                open("/etc/group", encoding="utf-8") as groups:
            file.write(groups.read() + "oxacln:x:6321:\n")
        run("mount", "--bind", "/mnt/group", "/etc/group")

    def tool(self, *words):
        """The tool's last line and exit status."""
        result = run(self.tembrix, *words, check=False)
        return result.stdout.splitlines()[-1], result.returncode

    def deploy(self, site, client="0"):
        """Makes a site of a client's skeleton; gives what the deployment reported."""
        return run(self.deployer, "deploy", f"{ROOT}/{site}", client).stderr


def tree(top):
    """Each entry below a directory: its name, type, mode, owner and group."""
    listing = run("find", top, "-mindepth", "1", "-printf", "%P %y %m %u:%g\\n").stdout
    return sorted(listing.splitlines())
