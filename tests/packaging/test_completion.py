"""What the shells complete, and that the manual pages know every command and option.

Run with the folder of the programs in TALVORN_PROGRAMS.
"""

import os
import re
import shutil
import subprocess
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
PROGRAMS = os.environ["TALVORN_PROGRAMS"]


def script(program, shell):
    asked = ["completion"] if program == "talvorn" else ["--completion"]
    return subprocess.run([os.path.join(PROGRAMS, program), *asked, shell], check=True,
                          capture_output=True, text=True).stdout


def completed(line, folder="/"):
    """What bash offers for the last word of a line."""
    words = line.split(" ")
    program = words[0]
    run = (f"{script(program, 'bash')}\n"
           f"COMP_WORDS=({' '.join(repr(word) for word in words)})\n"
           f"COMP_CWORD={len(words) - 1}\ncompopt() {{ :; }}\n"
           f"_{program.replace('-', '_')}\nprintf '%s\\n' \"${{COMPREPLY[@]}}\"")
    out = subprocess.run(["bash", "-c", run], cwd=folder, check=True, capture_output=True,
                         text=True)
    assert not out.stderr, out.stderr
    return out.stdout.split()


class Bash(unittest.TestCase):
    def test_commands(self):
        self.assertEqual(completed("talvorn dev"), ["devices"])
        self.assertLessEqual({"devices", "log", "--help"}, set(completed("talvorn ")))
        self.assertEqual(completed("talvorn log "), ["path", "start", "stop"])
        self.assertEqual(completed("talvorn log st"), ["start", "stop"])
        self.assertEqual(completed("talvorn nonsense "), [])

    def test_options_and_their_values(self):
        self.assertEqual(completed("talvorn devices --w"), ["--watch"])
        self.assertEqual(completed("talvorn devices --timeout "), [])
        self.assertIn("--json", completed("talvorn devices --watch "))
        self.assertEqual(completed("talvorn completion "), ["bash", "zsh", "powershell"])
        self.assertEqual(completed("talvorn log path us"), ["usr"])
        self.assertEqual(completed("talvorn log path --r"), ["--reset"])
        self.assertEqual(completed("talvorn-sim --layout "), ["full", "short", "mixed"])
        self.assertIn("lo", completed("talvorn-sim --ipv4 --interface "))
        self.assertEqual(completed("talvorn-sim --send-file ex", ROOT), ["examples"])


class Zsh(unittest.TestCase):
    @unittest.skipUnless(shutil.which("zsh"), "there is no zsh")
    def test_it_can_read_them(self):
        for program in ("talvorn", "talvorn-sim"):
            subprocess.run(["zsh", "-n"], input=script(program, "zsh"), check=True, text=True)


class Manual(unittest.TestCase):
    def test_knows_every_command_and_option(self):
        for program in ("talvorn", "talvorn-sim"):
            with open(os.path.join(ROOT, "docs", "man", program + ".1.scd"),
                      encoding="utf-8") as file:
                page = file.read().replace("\\", "")
            bash = script(program, "bash")
            for option in set(re.findall(r"(?<=[ '])--[a-z][a-z0-9-]*", bash)):
                self.assertRegex(page, re.escape(option) + r"(?![a-z-])", program)
            for command in re.findall(r"^    '([a-z ]+) '\*\)", bash, re.MULTILINE):
                self.assertIn(f"*{command}*", page)


if __name__ == "__main__":
    unittest.main()
