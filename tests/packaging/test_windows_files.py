"""What Windows administrators get beside the programs: the files agree with each other and with
what the locator reads."""

import hashlib
import json
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as xml

ROOT = pathlib.Path(__file__).resolve().parents[2]
WINDOWS = ROOT / "packaging/windows"
MODULE = WINDOWS / "Talvorn"
POLICY = "{http://schemas.microsoft.com/GroupPolicy/2006/07/PolicyDefinitions}"


def text_of(path):
    return (ROOT / path).read_text(encoding="utf-8")


def registry_keys(path):
    """{key: {value's name: number or text}}; [-key] is there as '-key'."""
    keys = {}
    for line in text_of(path).splitlines():
        if key := re.fullmatch(r"\[(.+)\]", line):
            values = keys.setdefault(key[1], {})
        # A value that is commented out has no default to show.
        elif value := re.fullmatch(r';?"([^"]+)"=(?:dword:([0-9a-f]{8})|"(.*)")', line):
            name, number, text = value.groups()
            values[name] = int(number, 16) if number else "" if line[0] == ";" else text
    return keys


class Settings(unittest.TestCase):
    def setUp(self):
        (self.key, self.settings), = registry_keys("packaging/settings.reg").items()

    def test_the_source_knows_the_same(self):
        table = text_of("src/support/settings.cc").partition("kNames = ")[2].partition("});")[0]
        named = dict(re.findall(r'(k\w+Setting) = u"([^"]+)"', text_of("src/support/settings.h")))
        known = re.findall(r'\{(?:u"([^"]+)"|\.name = (\w+))(.*)\}', table)
        types = {name or named[constant]: str if "isText" in rest else int
                 for name, constant, rest in known}
        self.assertEqual(types, {name: type(value) for name, value in self.settings.items()})

    def test_the_documents_list_the_same(self):
        defaults = {name: str(value or ("0" if value == 0 else ""))
                    for name, value in self.settings.items()}
        page = re.findall(r'^\*"(.+)"\* \((.+)\)$', text_of("docs/man/talvorn.reg.5.scd"), re.M)
        self.assertEqual({name: "" if value == "text" else value for name, value in page}, defaults)
        table = re.findall(r"^\| ([^|]+) \| (number|text)[^|]* \|([^|]*)\|",
                           text_of("README.md"), re.M)
        self.assertEqual({name: "" if kind == "text" else value.strip()
                          for name, kind, value in table}, defaults)

    def test_there_is_a_policy_for_each(self):
        definitions = xml.parse(WINDOWS / "policy/talvorn.admx").getroot()
        resources = xml.parse(WINDOWS / "policy/en-US/talvorn.adml").getroot()
        shown = {one.get("id"): one for one in resources.iter(POLICY + "presentation")}
        self.assertTrue(all(policy.get("class") == "Machine"
                            for policy in definitions.iter(POLICY + "policy")))

        offered = {}
        for policy in definitions.iter(POLICY + "policy"):
            self.assertEqual("HKEY_LOCAL_MACHINE\\" + policy.get("key"), self.key)
            # One element and no value of the policy's own: Disabled deletes the value.
            self.assertIsNone(policy.get("valueName"))
            element, = policy.find(POLICY + "elements")
            control, = shown[policy.get("name")]
            self.assertEqual(control.get("refId"), element.get("id"))
            kind = (element.tag + " " + control.tag).replace(POLICY, "")
            if kind == "decimal decimalTextBox":
                self.assertEqual((element.get("minValue"), element.get("maxValue")),
                                 ("0", str(2**32 - 1)))
                default = int(control.get("defaultValue"))
            elif kind == "enum dropdownList":
                item = element[int(control.get("defaultItem"))]
                default = int(item.find(f"{POLICY}value/{POLICY}decimal").get("value"))
            else:
                self.assertEqual(kind, "text textBox")
                default = control.findtext(POLICY + "defaultValue", "")
            offered[element.get("valueName")] = default
        self.assertEqual(offered, self.settings)

    def test_every_reference_of_the_policies_resolves(self):
        definitions = xml.parse(WINDOWS / "policy/talvorn.admx").getroot()
        resources = xml.parse(WINDOWS / "policy/en-US/talvorn.adml").getroot()
        for kind in ("string", "presentation"):
            used = [match for one in definitions.iter() for value in one.attrib.values()
                    for match in re.findall(rf"\$\({kind}\.(\w+)\)", value)]
            there = [one.get("id") for one in resources.iter(POLICY + kind)]
            self.assertEqual(sorted(used), sorted(there), kind)
        for referrer, referred in (("parentCategory", "category"), ("supportedOn", "definition")):
            names = {one.get("name") for one in definitions.iter(POLICY + referred)}
            for policy in definitions.iter(POLICY + "policy"):
                self.assertIn(policy.find(POLICY + referrer).get("ref"), names)


class EventLog(unittest.TestCase):
    LOG = r"HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Services\EventLog"

    def test_the_sources_move_to_a_log_of_their_own(self):
        before = registry_keys("packaging/event-sources.reg")
        after = registry_keys("packaging/windows/event-log.reg")
        for key, values in before.items():
            self.assertIn("-" + key, after)
            self.assertEqual(after[key.replace("Application", "TALVORN-Locator")], values)
        self.assertEqual(after[self.LOG + r"\TALVORN-Locator"],
                         {"MaxSize": 64 << 20, "Retention": 0})
        self.assertEqual(len(after), 2 * len(before) + 1)
        # A log may not have the name of a source.
        self.assertNotIn("TALVORN-Locator", {key.rpartition("\\")[2] for key in before})


@unittest.skipUnless(shutil.which("wixl") and shutil.which("msiinfo"), "needs wixl and msitools")
class Winget(unittest.TestCase):
    INSTALLER = """<?xml version="1.0" encoding="utf-8"?>
<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi"><Product Id="%s" Name="A &amp; B|C"
  Language="1033" Version="3.2.1" Manufacturer="Kestrow" UpgradeCode="%s"><Package />
  <Directory Id="TARGETDIR" Name="SourceDir" /><Feature Id="All" /></Product></Wix>"""
    PRODUCT = "6A0D2B1E-5C0F-4B7A-9A55-1C5E5B1B0C11"

    def test_the_manifest_tells_what_the_installer_is(self):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            source, installer = folder / "one.wxs", folder / "one.msi"
            source.write_text(self.INSTALLER % (self.PRODUCT, self.PRODUCT[::-1]), "utf-8")
            subprocess.run(["wixl", "-o", installer, source], check=True)
            url = "https://example.invalid/a?b=1&c=2"
            subprocess.run([WINDOWS / "make_winget.sh", installer, url, folder / "made"], check=True)
            made = {path.name: path.read_text("utf-8") for path in (folder / "made").iterdir()}
            digest = hashlib.sha256(installer.read_bytes()).hexdigest().upper()
        self.assertEqual(set(made), {"Kestrow.TALVORN.yaml", "Kestrow.TALVORN.installer.yaml",
                                     "Kestrow.TALVORN.locale.en-US.yaml"})
        for name, text in made.items():
            self.assertNotIn("@", text)
            self.assertIn("\nPackageVersion: 3.2.1\n", text, name)
        self.assertIn(f"\n  InstallerUrl: '{url}'\n  InstallerSha256: {digest}\n",
                      made["Kestrow.TALVORN.installer.yaml"])
        self.assertIn(f"\nProductCode: '{{{self.PRODUCT}}}'\n",
                      made["Kestrow.TALVORN.installer.yaml"])
        self.assertIn("\nPackageName: 'A & B|C'\n", made["Kestrow.TALVORN.locale.en-US.yaml"])


class Module(unittest.TestCase):
    def setUp(self):
        self.script = (MODULE / "Talvorn.psm1").read_text("ascii")
        self.manifest = (MODULE / "Talvorn.psd1.in").read_text("ascii")

    def test_brackets_and_quotes_close(self):
        # Comments, texts, and texts with values, within which no further quote may stand.
        token = r"""<#.*?#>|#[^\n]*|'(?:[^'\n]|'')*'|"(?:[^"`\n]|`.)*\""""
        for text in (self.script, self.manifest):
            code = re.sub(token, "", text, flags=re.S)
            self.assertNotRegex(code, "[\"']")
            waiting = []
            for bracket in re.findall(r"[][(){}]", code):
                if bracket in "([{":
                    waiting.append(bracket)
                else:
                    self.assertTrue(waiting, code)
                    self.assertIn(waiting.pop() + bracket, ("()", "[]", "{}"))
            self.assertEqual(waiting, [])

    def test_its_names_are_there(self):
        listed, = re.findall(r"FunctionsToExport += @\((.*)\)", self.manifest)
        exported, = re.findall(r"Export-ModuleMember -Function (.*)", self.script)
        names = re.findall(r"'([\w-]+)'", listed)
        self.assertEqual(names, exported.split(", "))
        functions = re.findall(r"^function ([\w-]+)", self.script, re.M)
        self.assertLessEqual(set(names), set(functions))
        # What it calls and has itself is spelt as it is there.
        called = re.findall(r"\b((?:New|Find|Invoke|Test|Get|ConvertFrom)-(?:Talvorn\w*|\w*Record|"
                            r"Tool|Like|List))\b", self.script)
        self.assertLessEqual(set(called), set(functions))
        for name in re.findall(r"'(Talvorn\.(?:psm1|Format\.ps1xml))'", self.manifest):
            self.assertTrue((MODULE / name).is_file(), name)
        self.assertIn("'@VERSION@'", self.manifest)

    def test_the_views_show_what_the_objects_have(self):
        objects = {kind: re.findall(r"^ +(\w+) += ", body, re.M) for kind, body in
                   re.findall(r"PSTypeName = '(.*?)'(.*?)\n    +\}", self.script, re.S)}
        for view in xml.parse(MODULE / "Talvorn.Format.ps1xml").iter("View"):
            shown = {one.text for one in view.iter("PropertyName")}
            self.assertLessEqual(shown, set(objects[view.findtext("ViewSelectedBy/TypeName")]))
            self.assertEqual(len(list(view.iter("TableColumnHeader"))),
                             len(list(view.iter("TableColumnItem"))))

    def test_objects_of_a_list_are_told_apart(self):
        pattern, = re.findall(r"Matches\(\$list, '(.*)'\)", self.script)
        if not hasattr(re, "NOFLAG"):  # Python 3.10 has no groups that never give back
            pattern = pattern.replace("(?>", "(?:")
        records = [{"alias": alias, "n": 1} for alias in ("}{", '"}', "\\", '\\"', "", "ü[]")]
        line = json.dumps({"devices": records}, ensure_ascii=False, separators=(",", ":"))
        found = re.findall(pattern, line[line.index("[") + 1:])
        self.assertEqual([json.loads(one) for one in found], records)
