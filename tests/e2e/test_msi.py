"""The installer for Windows: installed, upgraded and removed under Wine, and what its tables
say of that for which Wine has no ear."""

import csv
import functools
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from lab.harness import INTERFACES_KEY, ROOT, SETTINGS_KEY, TestCase, only_on, wait_until
from lab.windows_target import Session, Settings, windows_path

PACKAGING = os.path.join(ROOT, "packaging")
FOLDER = r"C:\Program Files\TALVORN"
SERVICE = "TALVORN-Locator"
SETUP_KEY = SETTINGS_KEY.replace("Settings", "Setup")
RUN_KEY = r"HKEY_LOCAL_MACHINE\Software\Microsoft\Windows\CurrentVersion\Run"
ENVIRONMENT_KEY = r"HKEY_LOCAL_MACHINE\System\CurrentControlSet\Control\Session Manager\Environment"
DONE, REFUSED = 0, 1603 & 0xff  # as exit statuses are seen here
OLDER, NEWER = "7.1.0", "7.1.1"


class Installers:
    """Made once for all tests, of one folder of programs."""

    @classmethod
    @functools.cache
    def folder(cls):
        return tempfile.mkdtemp(prefix="test-", dir="/run")

    @classmethod
    @functools.cache
    def of(cls, version):
        programs = os.path.join(cls.folder(), "programs")
        if not os.path.exists(programs):
            subprocess.run([os.path.join(PACKAGING, "windows", "gather.sh"),
                            os.path.dirname(Settings.binaries), OLDER, programs], check=True)
        made = os.path.join(cls.folder(), version + ".msi")
        subprocess.run([os.path.join(PACKAGING, "windows", "build_msi.sh"), programs, version,
                        made], check=True)
        return made

    @classmethod
    def remove(cls):
        shutil.rmtree(cls.folder())


def tearDownModule():
    Installers.remove()


def table(name):
    """The rows of a table of the installer, as {column: text}."""
    text = subprocess.run(["msiinfo", "export", Installers.of(OLDER), name], check=True,
                          capture_output=True, encoding="cp1252").stdout
    rows = list(csv.reader(text.splitlines(), delimiter="\t", quoting=csv.QUOTE_NONE))
    return [dict(zip(rows[0], row)) for row in rows[3:]]


def column(name, key, value):
    """One column of a table, by another."""
    return {row[key]: row[value] for row in table(name)}


@only_on("windows", "Windows installs it")
class Installed(TestCase):
    def setUp(self):
        super().setUp()
        self.here, self.there = self.simple_network()
        self.session = Session.of(self.here)

    def run_windows(self, path, *arguments):
        """(exit status, output) of a program on the machine."""
        program = self.start(self.here, self.session.any_program(path), *arguments)
        status = program.wait()
        return status, program.out

    def install(self, version, *properties, status=DONE, action="/i"):
        log = os.path.join(self.directory, "msi.log")
        result = self.run_windows("msiexec", action, windows_path(Installers.of(version)), "/qn",
                                  "/l*v", windows_path(log), *properties)
        if result[0] != status:
            with open(log, encoding="utf-16", errors="replace") as file:
                print(file.read()[-3000:])
        self.assertEqual(result[0], status, (action, version, properties))

    def value(self, key, name):
        """A text in the registry, or None."""
        try:
            kind, _, content = self.session.order(
                "value", key.removeprefix("HKEY_LOCAL_MACHINE\\") + "|" + name).partition(" ")
        except OSError:
            return None
        self.assertIn(kind, "12")
        return bytes.fromhex(content).decode("utf-16-le").rstrip("\0")

    def key_exists(self, key):
        return self.run_windows("reg", "query", key)[0] == 0

    def service(self):
        """Its state, None when there is none."""
        state = re.search(r"STATE\s*: \d+\s+(\w+)", self.run_windows("sc", "query", SERVICE)[1])
        return state and state[1]

    def locator_runs(self):
        return self.session.order("exists", "mailslot", "talvorn_out") == "yes"

    def files(self):
        base = os.path.join(self.session.drive, "Program Files", "TALVORN")
        return {os.path.relpath(os.path.join(folder, name), base)
                for folder, _, names in os.walk(base) for name in names}

    def mode(self):
        """(mode that is remembered, whether the service runs, whether each logon starts it)"""
        started = self.value(RUN_KEY, SERVICE)
        self.assertIn(started, (None, rf'"{FOLDER}\talvorn-locator.exe"'))
        self.assertEqual("talvorn-service.exe" in self.files(), self.service() is not None)
        return self.value(SETUP_KEY, "Mode"), self.service() == "RUNNING", started is not None

    def finds_the_device(self):
        tool = FOLDER + r"\talvorn.exe"
        wait_until(lambda: "0000712" in self.run_windows(tool, "devices")[1], "the device")

    def test_by_one_command_each(self):
        self.simulate(self.there, "--interface", "dev0", "--ipv4", "--first-serial", "712")

        self.install(OLDER)
        self.finds_the_device()
        self.assertEqual(self.mode(), ("service", True, False))
        self.assertTrue(self.key_exists(INTERFACES_KEY))
        documents = {f"{folder}/{one.name}" for folder in ("docs", "docs/schema")
                     for one in os.scandir(os.path.join(ROOT, folder)) if one.is_file()}
        self.assertEqual(self.files(), {
            "talvorn-locator.exe", "talvorn.exe", "talvorn-sim.exe", "talvorn-service.exe",
            "talvorn.dll", "Talvorn/Talvorn.psm1", "Talvorn/Talvorn.psd1",
            "Talvorn/Talvorn.Format.ps1xml", "include/talvorn/talvorn.h",
            "include/talvorn/talvorn.hpp", "lib/talvorn.lib", "README.md",
            "packaging/settings.reg"} | documents)
        self.assertIn(FOLDER, self.value(ENVIRONMENT_KEY, "PATH"))

        # The service is there for the locator, whatever becomes of it.
        self.assertEqual(self.run_windows("taskkill", "/f", "/im", "talvorn-locator.exe")[0], 0)
        self.finds_the_device()

        settings = os.path.join(self.directory, "settings.reg")
        with open(settings, "w", encoding="utf-16") as file:
            file.write("Windows Registry Editor Version 5.00\n\n"
                       f'[{SETTINGS_KEY}]\n"Log Path"="C:\\\\Logs"\n')
        self.session.import_file(settings)
        self.install(NEWER)
        self.finds_the_device()
        self.assertEqual(self.mode(), ("service", True, False))
        self.assertEqual(self.value(SETTINGS_KEY, "Log Path"), r"C:\Logs")

        self.install(OLDER, status=REFUSED)
        self.assertTrue(self.locator_runs())

        os.remove(os.path.join(self.session.drive, "Program Files", "TALVORN", "talvorn.exe"))
        self.install(NEWER)
        self.finds_the_device()

        # It does not outlive the service, whatever becomes of that.
        self.assertEqual(self.run_windows("taskkill", "/f", "/im", "talvorn-service.exe")[0], 0)
        wait_until(lambda: not self.locator_runs(), "the locator's end")

        self.install(NEWER, action="/x")
        self.assertEqual((self.service(), self.files()), (None, set()))
        for key in (SETUP_KEY, INTERFACES_KEY):
            self.assertFalse(self.key_exists(key), key)
        self.assertNotIn("TALVORN", self.value(ENVIRONMENT_KEY, "PATH"))
        self.assertEqual(self.value(SETTINGS_KEY, "Log Path"), r"C:\Logs")

    def test_the_mode_holds_until_another_is_chosen(self):
        self.install(OLDER, "MODE=rubbish", status=REFUSED)
        self.assertEqual((self.service(), self.files()), (None, set()))
        self.install(OLDER, "MODE=logon")
        self.assertEqual(self.mode(), ("logon", False, True))
        self.install(NEWER)
        self.assertEqual(self.mode(), ("logon", False, True))
        self.install(NEWER, "MODE=rubbish", status=REFUSED)
        self.assertEqual(self.mode(), ("logon", False, True))
        self.install(NEWER, "MODE=service")
        self.assertEqual(self.mode(), ("service", True, False))
        self.install(NEWER, "MODE=none")
        self.assertEqual(self.mode(), ("none", False, False))
        self.assertFalse(self.locator_runs())
        self.install(NEWER, "MODE=logon")
        self.install(NEWER, action="/x")
        self.assertEqual((self.mode(), self.files()), ((None, False, False), set()))


@only_on("windows", "Windows installs it")
class Tables(unittest.TestCase):
    def test_what_is_done_comes_in_its_order(self):
        at = {name: int(number)
              for name, number in column("InstallExecuteSequence", "Action", "Sequence").items()}
        for order in (["AppSearch", "KeepMode", "DefaultMode", "LaunchConditions", "AddMode",
                       "DropMode", "NoteMode", "Repair", "CostInitialize"],
                      ["CostFinalize", "SetNetsh", "SetSc", "SetTaskkill", "InstallInitialize",
                       "RemoveExistingProducts", "ProcessComponents"],
                      ["StopServices", "EndLocators", "DeleteServices", "RemoveFiles",
                       "InstallFiles", "InstallServices", "CloseFirewall", "OpenFirewall",
                       "StartServices", "InstallFinalize"],
                      ["OpenFirewallAgain", "CloseFirewall", "CloseFirewallAgain",
                       "OpenFirewall"],
                      ["InstallServices", "RestartAfterCrash", "StartServices"],
                      ["RemoveEnvironmentStrings", "WriteEnvironmentStrings"]):
            self.assertEqual(order, sorted(order, key=at.get))
        condition = column("InstallExecuteSequence", "Action", "Condition")
        self.assertEqual(condition["CloseFirewall"], "")
        self.assertEqual(condition["OpenFirewall"], 'NOT REMOVE~="ALL"')

    def test_programs_of_windows_run_as_the_installer_and_cannot_fail_it(self):
        deferred, unimpersonated, ignored, rollback = 1024, 2048, 64, 256
        kind, command = (column("CustomAction", "Action", name) for name in ("Type", "Target"))
        wanted = 50 + deferred + unimpersonated + ignored
        for action in ("EndLocators", "CloseFirewall", "OpenFirewall", "RestartAfterCrash"):
            self.assertEqual(int(kind[action]), wanted, action)
        for action in ("CloseFirewall", "OpenFirewall"):
            self.assertEqual(int(kind[action + "Again"]), wanted + rollback)
            self.assertEqual(command[action + "Again"], command[action])
        self.assertEqual(command["OpenFirewall"],
                         'advfirewall firewall add rule name="TALVORN locator" dir=in '
                         'action=allow protocol=UDP localport=4817 program="[Folder]talvorn-locator.exe"')
        self.assertEqual(command["CloseFirewall"],
                         'advfirewall firewall delete rule name="TALVORN locator"')
        # By their whole paths.
        for action in ("SetNetsh", "SetSc", "SetTaskkill"):
            self.assertTrue(command[action].startswith("[System64Folder]"))

    def test_everyone_who_is_logged_on_may_ask_for_an_interface(self):
        [row] = table("MsiLockPermissionsEx")
        self.assertEqual((row["LockObject"], row["Table"]), ("Interfaces", "Registry"))
        self.assertEqual(column("Registry", "Registry", "Key")["Interfaces"],
                         INTERFACES_KEY.removeprefix("HKEY_LOCAL_MACHINE\\"))
        rights = re.findall(r"\(A;CI;(\w+);;;(\w\w)\)", row["SDDLText"])
        self.assertEqual(sorted(rights),
                         [("KA", "BA"), ("KA", "SY"), ("KR", "BU"), ("KRKW", "IU")])

    def test_the_path_and_what_is_handed_over(self):
        [row] = table("Environment")
        self.assertEqual((row["Name"], row["Value"]), ("=-*PATH", "[~];[Folder]"))
        properties = column("Property", "Property", "Value")
        self.assertLessEqual({"MODE", "INSTALLEDMODE"},
                             set(properties["SecureCustomProperties"].split(";")))
        self.assertEqual((properties["ALLUSERS"], properties["Manufacturer"]), ("1", "Kestrow"))
        versions = column("File", "FileName", "Version")
        self.assertEqual({versions[name] for name in versions if name.endswith(".exe")},
                         {OLDER + ".0"})

    def test_the_sources_of_the_event_log_are_those_that_are_imported_by_hand(self):
        with open(os.path.join(PACKAGING, "event-sources.reg"), encoding="ascii") as file:
            keys = re.findall(r"^\[HKEY_LOCAL_MACHINE\\(.*)\]", file.read(), re.MULTILINE)
        written = {(row["Key"], row["Name"], row["Value"]) for row in table("Registry")
                   if "EventLog" in row["Key"]}
        self.assertEqual(len(keys), 4)
        self.assertEqual(written, {(key, *value) for key in keys for value in (
            ("EventMessageFile", "[Folder]talvorn-locator.exe"), ("TypesSupported", "#7"))})
