"""The library exports what its list says, and what its header declares: nothing more or less.

    check_symbols.py PROJECT LIBRARY NM OBJDUMP
"""

import os
import re
import subprocess
import sys


def read(*path):
    with open(os.path.join(*path), encoding="utf-8") as file:
        return file.read()


def exported(library, nm, objdump):
    if library.endswith(".dll"):
        table = subprocess.check_output([objdump, "-p", library], text=True)
        names = table.split("[Ordinal/Name Pointer]")[1].split("\n\n")[0]
        return set(re.findall(r"\[ *\d+\].* (\w+)$", names, re.MULTILINE))
    symbols = subprocess.check_output([nm, "-D", "--defined-only", library], text=True)
    # A name, with the version that programs ask for; the versions stand there as well.
    return {name for kind, name in re.findall(r" (\w) (\w+)@@TALVORN_1$", symbols, re.MULTILINE)
            if kind == "T"} | set(re.findall(r" [A-Z] ((?!TALVORN_)\w+)$", symbols, re.MULTILINE))


def main():
    project, library, nm, objdump = sys.argv[1:]
    listed = set(re.findall(r"^ +(talvorn_\w+);$", read(project, "library/shared/talvorn.map"),
                            re.MULTILINE))
    declared = set(re.findall(r"^TALVORN_API [^;]*?(talvorn_\w+)\(",
                              read(project, "library/include/talvorn/talvorn.h"), re.MULTILINE))
    wrong = 0
    for what, names in (("exported", exported(library, nm, objdump)), ("declared", declared)):
        for name in sorted(names - listed):
            print(f"{what}, but not in the list: {name}")
        for name in sorted(listed - names):
            print(f"in the list, but not {what}: {name}")
        wrong += len(names ^ listed)
    print(f"{len(listed)} functions")
    return 1 if wrong or not listed else 0


if __name__ == "__main__":
    sys.exit(main())
