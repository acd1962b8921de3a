"""addrpubd-check inside a sandbox, with an ini file for one or both servers."""

import re

from host import BUILD

NOTHING = "log:"


class Settings:
    """An ini file in a sandbox, and the modes of addrpubd-check that contact its servers."""

    def __init__(self, sandbox, hostname, ports="443", **settings):
        values = {"hostname": hostname, "logurl": "stdout", "dnshttpsports": ports} | settings
        self._sandbox = sandbox
        self.path = "/mnt/addrpubd.ini"
        sandbox.path(self.path).write_text("".join(f"{key} = {value}\n" for key, value in values.items()))

    def check(self, *words):
        """Runs addrpubd-check with these words and the file. Returns its exit status and the lines of its output."""
        files = [self.path] if self.path else []
        status, output = self._sandbox.result(f"{BUILD}/addrpubd-check", *words, *files)
        return status, output.decode().splitlines()

    def remove(self, *words):
        return self.check("--remove", *words)


def marked(mark, output):
    """Returns the text after `mark` of each line that begins with two blanks and `mark`."""
    return [match[1] for line in output if (match := re.match(rf"  {mark} +(.*)", line))]
