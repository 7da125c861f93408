"""Draws the live table of a real run: python3 -m lab.picture DIRECTORY-OF-BINARIES FILE.svg

The demonstration runs in a terminal of this program's own; what stands there after a while is
the picture. Needs pyte (Debian: python3-pyte).
"""

import fcntl
import os
import pty
import select
import signal
import struct
import sys
import termios
import time
from html import escape

import pyte

COLUMNS, ROWS = 76, 20
SECONDS = 14  # until devices have come, gone and changed
CELL_WIDTH, CELL_HEIGHT, MARGIN, BAR = 8.4, 18, 16, 28
BACKGROUND, TEXT, FAINT = "#1b1f27", "#d7dce5", "#7d8799"
COLOURS = {"default": TEXT, "red": "#e5707a", "green": "#8ec07c", "brown": "#e0b85c",
           "yellow": "#e0b85c", "blue": "#6fa8dc", "cyan": "#74c5c5", "magenta": "#c792c7",
           "white": "#ffffff", "black": FAINT}


def final_screen(command):
    """What the command has put on the screen after a while, a line of pyte's cells each."""
    screen = pyte.Screen(COLUMNS, ROWS)
    stream = pyte.ByteStream(screen)
    process, terminal = pty.fork()
    if process == 0:
        os.environ["TERM"] = "xterm-256color"
        os.execvp(command[0], command)
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
    end = time.monotonic() + SECONDS
    while time.monotonic() < end:
        if select.select([terminal], [], [], 0.1)[0]:
            stream.feed(os.read(terminal, 1 << 16))
    lines = [[screen.buffer[row][column] for column in range(COLUMNS)] for row in range(ROWS)]
    os.kill(process, signal.SIGINT)
    try:
        while os.read(terminal, 1 << 16):
            pass
    except OSError:  # it has gone
        pass
    os.waitpid(process, 0)
    return lines


def style_of(cell):
    colour = COLOURS.get(cell.fg, "#" + cell.fg if len(cell.fg) == 6 else TEXT)
    return f' fill="{colour}"' + (' font-weight="bold"' if cell.bold else "")


def runs(cells):
    """Cells of one style that stand together: (column, style, text)."""
    start = 0
    for column in range(1, len(cells) + 1):
        if column == len(cells) or style_of(cells[column]) != style_of(cells[start]):
            text = "".join(cell.data for cell in cells[start:column])
            if text.strip():
                lead = len(text) - len(text.lstrip())
                yield start + lead, style_of(cells[start]), text.strip()
            start = column


def svg(lines):
    while lines and not "".join(cell.data for cell in lines[-1]).strip():
        lines = lines[:-1]
    width = round(COLUMNS * CELL_WIDTH + 2 * MARGIN)
    height = len(lines) * CELL_HEIGHT + 2 * MARGIN + BAR
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" role="img" aria-labelledby="title desc">',
        '<title id="title">talvorn devices --watch</title>',
        '<desc id="desc">A terminal with the live table of the devices that the locator has '
        'found: serial number, alias, status, clip, address and host of each.</desc>',
        f'<rect width="{width}" height="{height}" rx="8" fill="{BACKGROUND}"/>',
        *(f'<circle cx="{MARGIN + 18 * number}" cy="18" r="5" fill="{FAINT}"/>'
          for number in range(3)),
        '<g font-family="ui-monospace, Consolas, Menlo, monospace" font-size="14" '
        'xml:space="preserve">']
    for row, cells in enumerate(lines):
        y = BAR + MARGIN + (row + 1) * CELL_HEIGHT - 5
        for column, style, text in runs(cells):
            x = MARGIN + column * CELL_WIDTH
            length = len(text) * CELL_WIDTH
            parts.append(f'<text x="{x:.1f}" y="{y}" textLength="{length:.1f}"{style}>'
                         f'{escape(text)}</text>')
    return "\n".join([*parts, "</g>", "</svg>", ""])


def main():
    if len(sys.argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    lines = final_screen([sys.executable, "-B", "-m", "lab.demo", sys.argv[1]])
    with open(sys.argv[2], "w", encoding="utf-8") as file:
        file.write(svg(lines))
    return 0


if __name__ == "__main__":
    sys.exit(main())
