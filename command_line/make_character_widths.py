"""Makes character_widths.h from Unicode's tables, as this Python knows them:

    python3 command_line/make_character_widths.py > command_line/character_widths.h
"""

import sys
import unicodedata

ZERO = {"Mn", "Me", "Cf"}


def is_zero(character):
    # The vowels and final consonants of Hangul are written into the syllable before them.
    return (unicodedata.category(character) in ZERO and character != "\u00ad"
            or "\u1160" <= character <= "\u11ff" or "\ud7b0" <= character <= "\ud7ff")


def is_wide(character):
    return not is_zero(character) and unicodedata.east_asian_width(character) in "WF"


def ranges(holds):
    """[first, last] of each range of assigned characters that it holds for."""
    found = []
    for code in range(0x300, sys.maxunicode + 1):
        character = chr(code)
        if unicodedata.category(character) in ("Cn", "Cs") or not holds(character):
            continue
        if found and found[-1][1] == code - 1:
            found[-1][1] = code
        else:
            found.append([code, code])
    return found


def table(name, comment, holds):
    print(f"\n// {comment}\ninline constexpr CharacterRange {name}[] = {{")
    line = "   "
    for first, last in ranges(holds):
        entry = f" {{0x{first:04X}, 0x{last:04X}}},"
        if len(line) + len(entry) > 100:
            print(line)
            line = "   "
        line += entry
    print(line + "\n};")


def main():
    print(f"""// Columns of characters on a terminal, from Unicode {unicodedata.unidata_version}. Made by
// make_character_widths.py; not to be changed by hand.
#pragma once

namespace talvorn {{

struct CharacterRange {{
  char32_t first;
  char32_t last;
}};

// clang-format off""")
    table("kZeroWidth", "Combining marks, and what is not shown.", is_zero)
    table("kDoubleWidth", "East Asian wide and full-width characters, and pictographs.", is_wide)
    print("// clang-format on\n\n}  // namespace talvorn")


if __name__ == "__main__":
    main()
