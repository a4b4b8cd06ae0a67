#!/usr/bin/env python3
"""Prints the size of the test sources against the code they test: non-blank,
non-comment lines of the C and C++ files under tests/ against those of the
code folders app camera ui support, and for reference against the same
folders with bench/ added.

    tests/mutants/ratio.py [--files]
"""
import os, sys

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CODE = ['app', 'camera', 'ui', 'support']
BENCH = 'bench'
EXTENSIONS = ('.cpp', '.h', '.hpp', '.cc', '.c')


def count(path):
    n, in_block = 0, False
    for line in open(path, errors='replace'):
        s = line.strip()
        if in_block:
            if '*/' not in s:
                continue
            in_block, s = False, s.split('*/', 1)[1].strip()
        if s.startswith('/*'):
            if '*/' not in s:
                in_block = True
                continue
            s = s.split('*/', 1)[1].strip()
        if s and not s.startswith('//'):
            n += 1
    return n


def files(folder):
    for top, _, names in os.walk(os.path.join(ROOT, folder)):
        for name in names:
            if name.endswith(EXTENSIONS):
                yield os.path.join(top, name)


def main():
    tests = {f: count(f) for f in files('tests')}
    code = sum(count(f) for d in CODE for f in files(d))
    bench = sum(count(f) for f in files(BENCH))
    if '--files' in sys.argv:
        for f, n in sorted(tests.items(), key=lambda kv: -kv[1]):
            print(f'{n:6} {os.path.relpath(f, ROOT)}')
    total = sum(tests.values())
    print(f'tests {total} / code {code} = {total / code:.3f}  (code: {" ".join(CODE)})')
    print(f'tests {total} / code {code + bench} = {total / (code + bench):.3f}  (with {BENCH})')


if __name__ == '__main__':
    main()
