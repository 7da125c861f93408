"""The documents point to what is there, and the doctor to a part of its page."""

import glob
import os
import re
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def read(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return file.read()


def anchors(text):
    """Of the headings, as the usual viewers make them."""
    return {re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")
            for heading in re.findall(r"^#+ (.*)$", text, re.MULTILINE)}


class Documents(unittest.TestCase):
    def test_links(self):
        pages = ["README.md", "CONTRIBUTING.md"] + [
            os.path.relpath(path, ROOT) for path in glob.glob(os.path.join(ROOT, "docs", "*.md"))]
        for page in pages:
            for link in re.findall(r"\]\(([^)\s]+)\)", read(page)):
                if "://" in link:
                    continue
                path, _, anchor = link.partition("#")
                target = os.path.join(os.path.dirname(page), path) if path else page
                target = os.path.normpath(target)
                self.assertTrue(os.path.exists(os.path.join(ROOT, target)), f"{page}: {link}")
                if anchor and target.endswith(".md"):
                    self.assertIn(anchor, anchors(read(target)), f"{page}: {link}")

    def test_each_check_of_the_doctor_is_explained(self):
        checks = set()
        for path in glob.glob(os.path.join(ROOT, "client", "doctor", "*_check.cc")):
            checks |= set(re.findall(r'kCheck = "([a-z-]+)"', read(path)))
        self.assertTrue(checks)
        self.assertLessEqual(checks, anchors(read("docs/troubleshooting.md")))


if __name__ == "__main__":
    unittest.main()
