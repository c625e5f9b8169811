#!/usr/bin/env python3
"""
Runs a program with the system calls that a unit's SystemCallFilter= leaves it; any other kills it.

usage: under_filter.py UNIT PROGRAM [ARGUMENTS...]
"""

import os
import re
import subprocess
import sys

import seccomp


def groups():
    """What systemd means by @name: a list of calls and of further groups."""
    said = subprocess.run(['systemd-analyze', 'syscall-filter', '--no-pager'], check=True, capture_output=True,
                          text=True).stdout
    found, members = {}, []
    for line in said.splitlines():
        word = line.strip()
        if line.startswith('@'):
            members = found.setdefault(word, [])
        elif re.fullmatch(r'@?[a-z0-9_-]+', word):
            members.append(word)
    return found


def calls_of(name, known):
    if not name.startswith('@'):
        return {name}
    return set().union(*(calls_of(member, known) for member in known[name]))


def allowed(unit):
    """As the manager reads it: each line adds to what the ones before allow, or takes away (~)."""
    known = groups()
    calls = calls_of('@default', known)
    with open(unit, encoding='utf-8') as lines:
        filters = re.findall(r'^SystemCallFilter=(~?)(.*)$', lines.read(), re.MULTILINE)
    if not filters:
        sys.exit(f'{unit}: no SystemCallFilter=')
    for takes_away, names in filters:
        named = set().union(*(calls_of(name, known) for name in names.split()))
        calls = calls - named if takes_away else calls | named
    return calls | {'execve'}


def main():
    unit, program = sys.argv[1], sys.argv[2:]
    held = seccomp.SyscallFilter(defaction=seccomp.KILL_PROCESS)
    for call in sorted(allowed(unit)):
        if seccomp.resolve_syscall(seccomp.Arch(), call) >= 0:
            held.add_rule(seccomp.ALLOW, call)
    held.load()
    os.execvp(program[0], program)


main()
