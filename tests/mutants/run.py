#!/usr/bin/env python3
"""Applies each hand-made fault of mutants.txt in turn, builds, runs the test
suite and records which tests catch it.

    tests/mutants/run.py [--build DIR] [--only ID[,ID]] [--out FILE]
    tests/mutants/run.py --quick [--build DIR]

--quick re-checks the recorded faults only: for each fault before.json says a
test caught, it builds and runs just those tests (under their present names,
through renamed.txt for tests since renamed or merged), one at a time up to the
first that fails, falls back to the whole suite when none of them fails, and
writes after.json with the tests that caught each fault. Faults no test caught
before are skipped.

The build folder is configured on first use (Debug, no sanitizer: faults are
caught by assertions, not by the sanitizers). Each fault is reverted before the
next, also when a build fails or the run is interrupted. A fault that breaks the
build counts as caught by the compiler. Exit status 1 when a fault survives.
"""
import argparse, json, os, re, subprocess, sys, time, xml.etree.ElementTree as ET

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def load(path):
    text = open(path).read()
    blocks = re.findall(r'^== (\S+) (\S+)\n-- find\n(.*?)-- replace\n(.*?)-- end\n', text, re.S | re.M)
    return [dict(id=i, file=f, find=a, replace=b) for i, f, a, b in blocks]


def run(cmd, **kw):
    return subprocess.run(cmd, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kw)


def failing_tests(build, junit, names=None):
    env = dict(os.environ, QT_QPA_PLATFORM='offscreen')
    env.pop('DBUS_SESSION_BUS_ADDRESS', None)
    select = ['-R', '^(' + '|'.join(re.escape(n) for n in sorted(names)) + ')$'] if names else []
    subprocess.run(['ctest', '--test-dir', build, '-j', str(os.cpu_count() or 2), '--timeout', '120',
                    '--output-junit', junit] + select, cwd=ROOT, env=env, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
    failed = []
    for case in ET.parse(junit).getroot().iter('testcase'):
        if case.get('status') == 'fail' or case.find('failure') is not None:
            failed.append(case.get('name'))
    return sorted(failed)


def executables(build, names):
    """The build targets whose executables run the named tests."""
    r = subprocess.run(['ctest', '--test-dir', build, '--show-only=json-v1'], cwd=ROOT,
                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    targets = set()
    for test in json.loads(r.stdout or '{}').get('tests', []):
        if test.get('name') in names and test.get('command'):
            targets.add(os.path.basename(test['command'][0]))
    return sorted(targets)


def renamed():
    """Old test name -> its present names (a merged test keeps one new name,
    a split one several)."""
    out = {}
    path = os.path.join(ROOT, 'tests/mutants/renamed.txt')
    for line in open(path) if os.path.exists(path) else []:
        line = line.split('#', 1)[0].split()
        if len(line) >= 2:
            out.setdefault(line[0], set()).update(line[1:])
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('--build', default='build/mutants')
    ap.add_argument('--only', default='')
    ap.add_argument('--out', default='')
    ap.add_argument('--quick', action='store_true')
    args = ap.parse_args()
    before, names = {}, {}
    if args.quick:
        before = json.load(open(os.path.join(ROOT, 'tests/mutants/before.json')))
        args.out = args.out or 'tests/mutants/after.json'
        names = renamed()
    build = os.path.join(ROOT, args.build)
    if not os.path.exists(os.path.join(build, 'CMakeCache.txt')):
        r = run(['cmake', '-S', '.', '-B', build, '-G', 'Ninja', '-DCMAKE_BUILD_TYPE=Debug',
                 '-DBRIX_BUILD_BENCH=OFF'])
        if r.returncode:
            sys.exit(r.stdout)
    mutants = load(os.path.join(ROOT, 'tests/mutants/mutants.txt'))
    if args.quick:
        mutants = [m for m in mutants if before.get(m['id'])]
    if args.only:
        wanted = set(args.only.split(','))
        mutants = [m for m in mutants if m['id'] in wanted]
    r = run(['cmake', '--build', build])
    if r.returncode:
        sys.exit('the unmodified tree does not build:\n' + r.stdout[-3000:])
    junit = os.path.join(build, 'mutant-junit.xml')
    results, survivors = {}, []
    for m in mutants:
        path = os.path.join(ROOT, m['file'])
        original = open(path).read()
        if original.count(m['find']) != 1:
            results[m['id']] = 'not applicable (text not found once)'
            print(f"{m['id']:32} not applicable", flush=True)
            continue
        started = time.time()
        try:
            open(path, 'w').write(original.replace(m['find'], m['replace']))
            present = set()
            for old in before.get(m['id'], []):
                present |= names.get(old, {old})
            # Quick: only what the catching tests run (and the station they may start).
            targets = executables(build, present) + ['BrixCanonCapture'] if args.quick else []
            r = run(['cmake', '--build', build] + (['--target'] + targets if targets else []))
            if r.returncode:
                caught = ['(build fails)']
            elif args.quick:
                # One at a time, up to the first that fails: a fault that hangs
                # its tests costs one time-out, not one per test.
                caught = []
                for name in sorted(present):
                    caught = failing_tests(build, junit, {name})
                    if caught:
                        break
                if not caught and run(['cmake', '--build', build]).returncode == 0:
                    caught = failing_tests(build, junit)
            else:
                caught = failing_tests(build, junit)
        finally:
            open(path, 'w').write(original)
        results[m['id']] = caught
        if not caught:
            survivors.append(m['id'])
        print(f"{m['id']:32} {len(caught):3} failing  ({time.time() - started:.0f} s)", flush=True)
    run(['cmake', '--build', build])  # leave the build matching the tree
    if args.out:
        json.dump(results, open(os.path.join(ROOT, args.out), 'w'), indent=1, sort_keys=True)
    print(f"{len(mutants) - len(survivors)} caught, {len(survivors)} survived" +
          (": " + ", ".join(survivors) if survivors else ""))
    sys.exit(1 if survivors else 0)


if __name__ == '__main__':
    main()
