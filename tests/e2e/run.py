"""Runs end-to-end tests, from the project's root:

    python3 -m tests.e2e.run --binaries DIRECTORY [--short] [test_FILE or NAME...]

With --windows the locator and the tool are the Windows programs of that folder, run
under Wine in copies of the prefix that WINEPREFIX names.

Exit status 0 all passed, 1 a test failed, 77 skipped: no private network to be had.
"""

import argparse
import os
import sys
import unittest

from lab import harness, linux_target, network, windows_target

SKIPPED = 77


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--binaries", required=True, help="where the programs for Linux are")
    parser.add_argument("--windows", metavar="DIRECTORY", help="where those for Windows are")
    parser.add_argument("--short", action="store_true", help="leave out the longer tests")
    parser.add_argument("--verbose", action="store_true")
    parser.add_argument("tests", nargs="*", help="test_NAME, or test_NAME.Class.test; all if none")
    options = parser.parse_args()
    harness.Options.binaries = os.path.abspath(options.binaries)
    harness.Options.short = options.short
    harness.Options.target = windows_target if options.windows else linux_target
    if options.windows:
        windows_target.Settings.binaries = os.path.abspath(options.windows)
        windows_target.Settings.template = os.environ["WINEPREFIX"]

    here = os.path.dirname(os.path.abspath(__file__))
    names = [name.removesuffix(".py") for name in options.tests] or sorted(
        name.removesuffix(".py") for name in os.listdir(here) if name.startswith("test_"))
    try:
        network.isolate()
    except network.NotAllowed as reason:
        print(f"SKIPPED: {reason}")
        return SKIPPED
    network.let_sockets_queue(4096)
    suite = unittest.defaultTestLoader.loadTestsFromNames(
        f"{__package__}.{name}" for name in names)
    result = unittest.TextTestRunner(verbosity=2 if options.verbose else 1).run(suite)
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
