"""A real interactive shell at a pseudo-terminal, which is asked what it would complete."""
import os
import pty
import select
import signal
import time

# Both shells get two keys: one puts all possible completions into the line, one writes the line to
# a file and empties it.
ALL, DUMP = b"\x18\x01", b"\x18\x04"
PATIENCE = 60

BASH = """
PS1='ready> '
source {script}
bind '"\\C-x\\C-a": insert-completions'
_dump() {{ printf '%s' "$READLINE_LINE" >{result}.new; mv {result}.new {result}; READLINE_LINE= READLINE_POINT=0; }}
bind -x '"\\C-x\\C-d": _dump'
"""

ZSH = """
PS1='ready> '
fpath=({directory} $fpath)
autoload -Uz compinit
compinit -u -D
insert-all() {{ _main_complete; compstate[insert]=all }}
zle -C insert-all complete-word insert-all
bindkey '^X^A' insert-all
dump() {{ print -rn -- $BUFFER >{result}.new; command mv {result}.new {result}; BUFFER= }}
zle -N dump
bindkey '^X^D' dump
"""


class Shell:
    """`kind` is "bash" or "zsh"; `script` the completion, `scratch` a directory for this alone."""

    def __init__(self, kind, script, scratch):
        self.result = os.path.join(scratch, "result")
        settings = {"script": script, "directory": os.path.dirname(script), "result": self.result}
        start = os.path.join(scratch, ".zshrc")
        with open(start, "w", encoding="utf-8") as file:
            file.write((BASH if kind == "bash" else ZSH).format(**settings))
        command = ["bash", "--noprofile", "--rcfile", start, "-i"] if kind == "bash" else ["zsh", "-d", "-i"]
        self.seen = b""
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.environ.update({"ZDOTDIR": scratch, "INPUTRC": "/dev/null", "TERM": "xterm",
                               "HOME": scratch, "HISTFILE": "/dev/null", "LC_ALL": "C"})
            os.execvp(command[0], command)
        # Before that the terminal itself would take the keys.
        self.wait(lambda: b"ready> " in self.seen, "no prompt")

    def close(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        os.close(self.terminal)

    def completed(self, line):
        """The line with every possible completion of its last word in that word's place."""
        os.write(self.terminal, line.encode() + ALL + DUMP)
        self.wait(lambda: os.path.exists(self.result), f"no answer to {line!r}")
        with open(self.result, encoding="utf-8") as file:
            answer = file.read()
        os.remove(self.result)
        return answer

    def wait(self, happened, complaint):
        deadline = time.monotonic() + PATIENCE
        while not happened():
            if time.monotonic() > deadline:
                raise AssertionError(f"{complaint}; the terminal shows {self.seen!r}")
            if select.select([self.terminal], [], [], 0.01)[0]:
                self.seen += os.read(self.terminal, 65536)
