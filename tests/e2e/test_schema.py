"""What the tool writes for programs is as the schemas in docs/schema say."""

import json
import os
import re
import signal
import subprocess
import unittest

from lab import wire
from lab.harness import ROOT, NetworkTestCase, wait_until

FOLDER = os.path.join(ROOT, "docs", "schema")
PYTHON = "/usr/bin/python3"  # which Debian's packages are for
HOSTILE = "\x1b]0;x\x07\x9b\"\\\u0000\xff" + "x" * 255


def has_validator():
    return os.access(PYTHON, os.X_OK) and not subprocess.run(
        [PYTHON, "-c", "import jsonschema"], stderr=subprocess.DEVNULL, check=False).returncode


@unittest.skipUnless(has_validator(), "needs python3-jsonschema")
class Schemas(NetworkTestCase):
    def mistakes(self, name, documents):
        """What the validator says of the documents; empty when it takes all of them."""
        files = []
        for number, document in enumerate(documents):
            files += ["-i", os.path.join(self.directory, f"{name}-{number}.json")]
            with open(files[-1], "w", encoding="ascii") as file:
                file.write(document)
        check = subprocess.run(
            [PYTHON, "-m", "jsonschema", "--base-uri", f"file://{FOLDER}/", *files,
             os.path.join(FOLDER, f"{name}.json")], capture_output=True, text=True, check=False)
        self.assertEqual(bool(check.returncode), bool(check.stderr), check.stderr)
        return check.stderr

    def commands(self, locator):
        """Every command that writes JSON."""
        lines = self.tool_says(locator, "--help").splitlines()
        known = [match[1] for line in lines
                 if (match := re.match(r"  (?!talvorn)((?:log )?[a-z]+)\b", line))]
        return [name for name in known
                if "--json" in self.tool_says(locator, *name.split(), "--help")]

    def test_every_document_is_as_its_schema_says(self):
        locator = self.start_listening(self.here, settings={
            "Time Request": 500, "Time Master": "wrong", HOSTILE[:20].replace("\0", ""): 1})
        self.simulate(self.there, "--interface", "dev0", "--devices", "2", "--items", "2",
                      "--change-status", "500", "--change-items", "700")
        device = self.device()
        alias = HOSTILE.replace("\0", "")
        items = [wire.item(os.urandom(50))]
        watch = self.tool(locator, "watch", "--all", "--json")

        def complete():
            device.send(wire.record(7, alias=alias[:30], status=alias[:7], items=items))
            events = [json.loads(line)["event"] for line in watch.out.splitlines()]
            return {"device-appeared", "device-changed", "item-new"} <= set(events)
        wait_until(complete, "devices, items and changes")
        documents = {}
        for name in self.commands(locator):
            if name == "watch":
                continue
            tool = self.tool(locator, *name.split(), "--json")
            wait_until(lambda: (device.send(wire.record(7, alias=alias[:30], items=items)),
                                tool.ended)[1], name)
            documents[name] = [tool.out]
            self.assertTrue(tool.out.isascii())
        locator.kill()
        wait_until(lambda: "locator-lost" in watch.out, "that the locator is missed")
        watch.signal(signal.SIGINT)
        watch.wait()
        documents["watch"] = watch.out.splitlines()

        self.assertEqual(sorted(name.replace(" ", "-") + ".json" for name in documents),
                         sorted(os.listdir(FOLDER)))
        for name, written in documents.items():
            with self.subTest(name):
                schema = name.replace(" ", "-")
                self.assertEqual(self.mistakes(schema, written), "")
                self.assertIn("required", self.mistakes(schema, ["{}"]))
