#!/usr/bin/env python3
"""Prints one value of an INI file as Python's configparser reads it.

Usage: ini_read.py FILE SECTION KEY. The section is found without regard to
case, like the key. A key without "=" prints "<none>"; a missing section or
key prints "<missing>" and exits 3.
"""
import configparser
import sys


def main():
    path, section, key = sys.argv[1:4]
    parser = configparser.ConfigParser(interpolation=None, strict=False, allow_no_value=True)
    with open(path, encoding="latin-1") as f:
        parser.read_file(f)
    for name in parser.sections():
        if name.lower() == section.lower() and parser.has_option(name, key):
            value = parser.get(name, key)
            sys.stdout.write("<none>" if value is None else value)
            return 0
    sys.stdout.write("<missing>")
    return 3


if __name__ == "__main__":
    sys.exit(main())
