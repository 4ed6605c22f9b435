#!/usr/bin/env python3
"""Which tests reach lines of src/ and tools/ that no other test reaches.

Runs every ctest test of a build made with coverage counters on its own, collects the lines
of src/ and tools/ it executed (gcov's JSON output), and prints per test the number of lines
only it executed and the number it executed in all, fewest unique lines first. A test with
no line of its own is not necessarily redundant (it may check values or texts that no other
test checks), but it is where merging starts.

    cmake -S . -B /tmp/korvel-cov -G Ninja -DCMAKE_BUILD_TYPE=Debug \
        -DCMAKE_CXX_FLAGS=--coverage -DCMAKE_C_FLAGS=--coverage \
        -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage
    cmake --build /tmp/korvel-cov
    python3 tests/mutants/unique_lines.py --build /tmp/korvel-cov [--json lines.json]

Python 3 standard library and gcov only; takes about ten minutes on two cores.
"""
import argparse
import collections
import json
import os
import re
import subprocess
import sys


def test_names(build):
    out = subprocess.run(['ctest', '--test-dir', build, '-N'], capture_output=True,
                         text=True, check=True).stdout
    names = []
    for line in out.splitlines():
        m = re.match(r'\s*Test\s+#\d+: (.*)$', line)
        if m:
            names.append(m.group(1).split('  #')[0].strip())
    return names


def counter_files(build):
    for root, _, files in os.walk(build):
        for f in files:
            if f.endswith('.gcda'):
                yield os.path.join(root, f)


def lines_run(build):
    """The lines of src/ and tools/ with a count above zero, from the counters on disk."""
    by_dir = collections.defaultdict(list)
    for f in counter_files(build):
        by_dir[os.path.dirname(f)].append(f)
    lines = set()
    for d, files in by_dir.items():
        out = subprocess.run(['gcov', '--json-format', '--stdout'] + files, cwd=d,
                             capture_output=True, text=True).stdout
        for chunk in out.splitlines():
            try:
                doc = json.loads(chunk)
            except ValueError:
                continue
            for f in doc.get('files', []):
                name = f['file']
                m = re.search(r'(?:^|/)((?:src|tools)/.*)$', name)
                if not m:
                    continue
                lines.update(f"{m.group(1)}:{l['line_number']}" for l in f['lines']
                             if l['count'] > 0)
    return lines


def main():
    ap = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    ap.add_argument('--build', required=True, help='a build made with coverage counters')
    ap.add_argument('--json', help='write the lines of every test to this file')
    args = ap.parse_args()
    covered = {}
    names = test_names(args.build)
    for i, name in enumerate(names, 1):
        for f in list(counter_files(args.build)):
            os.remove(f)
        # Parameterized tests carry their parameter after the name ("  # GetParam() = ...").
        subprocess.run(['ctest', '--test-dir', args.build, '-R',
                        '^' + re.escape(name) + '(  #.*)?$'], capture_output=True)
        covered[name] = lines_run(args.build)
        print(f'{i}/{len(names)} {name}: {len(covered[name])} lines', file=sys.stderr)
    owners = collections.Counter(l for lines in covered.values() for l in lines)
    unique = {n: sum(1 for l in lines if owners[l] == 1) for n, lines in covered.items()}
    print(f'{len(owners)} lines of src/ and tools/ run by the tests')
    print('unique  all  test')
    for name in sorted(covered, key=lambda n: (unique[n], n)):
        print(f'{unique[name]:6d} {len(covered[name]):5d}  {name}')
    if args.json:
        with open(args.json, 'w') as out:
            json.dump({n: sorted(l) for n, l in covered.items()}, out)


if __name__ == '__main__':
    main()
