#!/usr/bin/env python3
"""Prints a line for each device that the locator knows; with --follow whenever they change."""

import sys

import talvorn


def main() -> int:
    with talvorn.Client() as client, talvorn.Watch() as watch:
        before = None
        while True:
            try:
                devices = client.devices()
            except talvorn.Error as error:
                print(f"devices: {error}", file=sys.stderr)
                if sys.argv[1:] != ["--follow"]:
                    return 1
                devices = before
            if devices != before:
                for device in devices:
                    print(device.serial, device.status, device.alias)
                sys.stdout.flush()
            if sys.argv[1:] != ["--follow"]:
                return 0
            before = devices
            while not watch.wait(3600):
                pass


if __name__ == "__main__":
    sys.exit(main())
