#!/usr/bin/env python3
"""Plants faults into a copy of the source, one at a time, and checks that the tests catch them.

Each fault is an exact text replacement in one file. The source tree (without .git) is
mirrored into a work directory that is kept between runs and built once (Release, no
benchmarks). Then for every fault the file is changed and the build brought up to date
incrementally: first only the test program of the file's layer is built and run (up to its
first failure); if it passes, everything is built and ctest runs until the first failure.
Then the file is put back. A fault is "caught" when the build is good and some test fails,
"MISSED" when every test passes, and "no build" when the changed source does not compile
(then the fault itself needs fixing).

    python3 tests/mutants/plant.py                    # every fault
    python3 tests/mutants/plant.py byte-order sort-cd # some of them
    python3 tests/mutants/plant.py --list

Options: --work DIR (default /tmp/korvel-mutants), --results FILE (a table of the outcome).
The checkout this script lies in is only read, never changed.
"""
import argparse
import filecmp
import os
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

# (name, file, text, replacement, what the fault is)
FAULTS = [
    ("byte-order", "src/channel/decode.h",
     "const uint32_t byte = motorola ? span - 1 - i : i;  // significance",
     "const uint32_t byte = motorola ? i : span - 1 - i;  // significance",
     "big- and little-endian swapped when a value field is loaded"),
    ("bit-offset", "src/channel/decode.cpp",
     "return (word >> layout.bit_offset) & field_mask(layout.bit_count);",
     "return (word >> (layout.bit_offset + 1)) & field_mask(layout.bit_count);",
     "bit field extracted one bit too far"),
    ("byte-span", "src/channel/decode.cpp",
     "l.byte_span = (l.bit_offset + l.bit_count + 7u) >> 3;",
     "l.byte_span = (l.bit_offset + l.bit_count + 6u) >> 3;",
     "bytes a bit field spans rounded down"),
    ("sign-rule", "src/channel/decode.cpp",
     "if (value > signmax) value -= span;",
     "if (value >= signmax) value -= span;",
     "largest positive signed value taken as negative"),
    ("status-text", "src/frame/status.cpp",
     '{-1001, "bad filehandle"},',
     '{-1001, "bad file handle"},',
     "the text of a status changed"),
    ("sort-cd-link", "src/sort/sort_structure.cpp",
     "store_le32(b.data() + at + 8, cn_position);",
     "(void)cn_position;",
     "channel link of a dependency entry not rewritten by the sort"),
    ("sort-dg-next", "src/sort/sort_structure.cpp",
     "store_le32(b + dg::kNext, p.slot + 1 < slots_.size() ? slots_[p.slot + 1].target_dg : 0);",
     "store_le32(b + dg::kNext, p.slot + 1 < slots_.size() ? slots_[p.slot].target_dg : 0);",
     "data group chain of a sorted file links a group to itself"),
    ("sort-count", "src/sort/sort_structure.cpp",
     "store_le32(b + cg::kRecordCount, s.read);",
     "store_le32(b + cg::kRecordCount, s.read - 1);",
     "record count of a sorted group one short"),
    ("close-count", "src/group/group_api.cpp",
     "store_le32(g->cg->image + cg::kRecordCount, g->record_index);\n",
     "(void)0;\n",
     "record count not written when a created group is closed"),
    ("lin-params", "src/convert/conversion.cpp",
     "prepared.p[0] = r.p(2);\n      prepared.p[1] = r.p(1);",
     "prepared.p[0] = r.p(1);\n      prepared.p[1] = r.p(2);",
     "factor and offset of a linear conversion swapped (array path)"),
    ("rat-params", "src/convert/conversion.cpp",
     "double d = p[3] * x * x + p[4] * x + p[5];",
     "double d = p[3] * x * x + p[5] * x + p[4];",
     "two denominator parameters of a rational conversion swapped (array path)"),
    ("seek-nearest", "src/group/group_time.cpp",
     "std::fabs(target - after) > std::fabs(target - before) ? hi : lo);",
     "std::fabs(target - after) > std::fabs(target - before) ? lo : hi);",
     "nearest-time seek takes the neighbour on the wrong side"),
    ("vax-f-bias", "src/channel/vax.cpp",
     "vax = swap_halves(x) + 0x100;  // exponent + 2 in word 0",
     "vax = swap_halves(x) + 0x80;  // exponent + 2 in word 0",
     "VAX F exponent bias off by one"),
    ("vax-g-bias", "src/channel/vax.cpp",
     "if (w0 >= 0x20) w0 = static_cast<uint16_t>(w0 - 0x20);  // exponent - 2",
     "if (w0 >= 0x10) w0 = static_cast<uint16_t>(w0 - 0x10);  // exponent - 2",
     "VAX G exponent bias off by one"),
    ("formula-precedence", "src/convert/formula.cpp",
     "case Tok::Minus:\n      return 5;",
     "case Tok::Minus:\n      return 6;",
     "additive operators bind as tightly as multiplicative ones in a formula"),
    ("dump-label", "src/dump/dump.cpp",
     "%u Databits at %d%s",
     "%u Data bits at %d%s",
     "a label of the dump text changed"),
    ("module-offset", "src/channel/module_types.h",
     "{24, 32, kChars, 3}, {56, 2, kU16, 4}};",
     "{24, 32, kChars, 3}, {57, 2, kU16, 4}};",
     "a field of a bus module record one byte off"),
    ("bulk-stride", "src/group/record_runs.cpp",
     "c.file_stride = c.size + c.ids;",
     "c.file_stride = c.size;",
     "bulk reads step over records without their identifier bytes"),
    ("unsorted-id", "src/group/group_api.cpp",
     "length = load_le16(owner->image + cg::kRecordSize) + (ids == 2 ? 1u : 0u);",
     "length = load_le16(owner->image + cg::kRecordSize);",
     "trailing identifier byte skipped when reading an unsorted group"),
    ("text-crlf", "src/frame/texts.cpp",
     'line[std::strcspn(line, "\\r\\n")] = \'\\0\';',
     'line[std::strcspn(line, "\\n")] = \'\\0\';',
     "carriage return of a CRLF line kept in a status text"),
    ("log-line", "src/frame/log.cpp",
     'return print_line("[KORVEL-ERROR] %s\\n", text != nullptr ? text : "");',
     'return print_line("[KORVEL-ERROR] %s", text != nullptr ? text : "");',
     "an error line of the log has no line end"),
    ("handle-check", "src/storage/file_api.cpp",
     "if (!is_file(file)) return bad_file();\n    const char** fields[4]",
     "const char** fields[4]",
     "handle check removed from mdfFileGetInfo"),
    ("overlap-check", "src/storage/file_map.cpp",
     "if (blocks[i].start < blocks[i - 1].end()) return overlap_at(blocks[i].start);",
     "(void)0;",
     "overlapping blocks no longer refused with -2004"),
    ("id-magic", "src/storage/block.cpp",
     'std::memcmp(b, "MDF", 3) == 0;',
     'std::memcmp(b, "MD", 2) == 0;',
     "file identifier checked on two characters only"),
    ("vtab-nearest", "src/convert/conversion.cpp",
     "return std::fabs(p1 - y) > std::fabs(p0 - y) ? r0 : r1;",
     "return std::fabs(p1 - y) >= std::fabs(p0 - y) ? r0 : r1;",
     "inverse table lookup takes the lower entry at equal distance"),
]

IGNORE = shutil.ignore_patterns(".git", "__pycache__", "*.pyc", "build*", ".pytest_cache")


def mirror(src, dst):
    """Makes dst a copy of src, touching only files whose content differs."""
    os.makedirs(dst, exist_ok=True)
    names = set(os.listdir(src)) - IGNORE(src, os.listdir(src))
    for name in os.listdir(dst):
        if name not in names:
            path = os.path.join(dst, name)
            if os.path.isdir(path) and not os.path.islink(path):
                shutil.rmtree(path)
            else:
                os.remove(path)
    for name in names:
        s, d = os.path.join(src, name), os.path.join(dst, name)
        if os.path.isdir(s) and not os.path.islink(s):
            mirror(s, d)
        elif not os.path.exists(d) or not filecmp.cmp(s, d, shallow=False):
            shutil.copy2(s, d)
            os.utime(d)  # newer than any object built from the old content


def run(cmd, log, timeout=None, cwd=None):
    with open(log, "w") as out:
        try:
            return subprocess.run(cmd, stdout=out, stderr=subprocess.STDOUT, timeout=timeout,
                                  cwd=cwd).returncode
        except subprocess.TimeoutExpired:
            return -1


def build(build_dir, log):
    return run(["cmake", "--build", build_dir, "-j2"], log) == 0


def layer_failure(build_dir, path, log):
    """Builds and runs only the test program of the changed file's layer (a quick way to a
    failure); returns the failing test's name, "" when it passes or there is none, None when
    it does not build."""
    parts = path.split("/")
    program = os.path.join(build_dir, "tests", parts[1] + "_tests") if len(parts) > 2 else ""
    if parts[0] != "src" or not os.path.exists(program):
        return ""
    if run(["cmake", "--build", build_dir, "-j2", "--target", parts[1] + "_tests"], log) != 0:
        return None
    code = run([program, "--gtest_brief=1", "--gtest_fail_fast"], log, timeout=600,
               cwd=os.path.dirname(program))
    if code == 0:
        return ""
    with open(log) as f:
        failed = [line.split()[3] for line in f
                  if line.startswith("[  FAILED  ]") and len(line.split()) > 4]
    return (failed[0] if failed else parts[1] + "_tests (crashed)") + " (layer run)"


def first_failure(build_dir, log):
    """Runs ctest up to the first failing test; returns its name, "" when all pass."""
    run(["ctest", "--test-dir", build_dir, "--stop-on-failure", "--timeout", "300",
         "-E", "^install_and_consume$"], log)
    with open(log) as f:
        for line in f:
            if "***" in line or "(Failed)" in line or "(Timeout)" in line or "Exception" in line:
                parts = line.split()
                if "Test" in parts and parts.index("Test") + 2 < len(parts):
                    return parts[parts.index("Test") + 2]
                return line.strip()
    return ""


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("names", nargs="*", help="faults to plant (default: all)")
    ap.add_argument("--work", default="/tmp/korvel-mutants")
    ap.add_argument("--results", help="write the outcome as a Markdown table to this file")
    ap.add_argument("--list", action="store_true", help="list the faults and stop")
    args = ap.parse_args()

    names = [f[0] for f in FAULTS]
    if len(set(names)) != len(names):
        sys.exit("fault names are not unique")
    if args.list:
        for name, path, _, _, what in FAULTS:
            print(f"{name:20} {path:32} {what}")
        return
    unknown = set(args.names) - set(names)
    if unknown:
        sys.exit("unknown faults: " + ", ".join(sorted(unknown)))
    chosen = [f for f in FAULTS if not args.names or f[0] in args.names]

    src = os.path.join(args.work, "src")
    build_dir = os.path.join(args.work, "build")
    logs = os.path.join(args.work, "logs")
    os.makedirs(logs, exist_ok=True)
    mirror(ROOT, src)
    # The samples are found beside the checkout, as ../shared/samples.
    shared = os.path.join(args.work, "shared")
    if not os.path.exists(shared) and os.path.isdir(os.path.join(ROOT, "..", "shared")):
        os.symlink(os.path.realpath(os.path.join(ROOT, "..", "shared")), shared)

    # Every fault's text must be found exactly once before anything is built.
    for name, path, old, new, _ in chosen:
        with open(os.path.join(src, path)) as f:
            count = f.read().count(old)
        if count != 1:
            sys.exit(f"{name}: the text to replace occurs {count} times in {path}")

    if run(["cmake", "-S", src, "-B", build_dir, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
            "-DKORVEL_BENCH=OFF", "-DKORVEL_WERROR=OFF"], os.path.join(logs, "configure.log")) != 0:
        sys.exit("configure failed: see " + os.path.join(logs, "configure.log"))
    if not build(build_dir, os.path.join(logs, "build.log")):
        sys.exit("the unchanged source does not build: see " + os.path.join(logs, "build.log"))
    failed = first_failure(build_dir, os.path.join(logs, "baseline.log"))
    if failed:
        sys.exit(f"the unchanged source fails {failed}: see {os.path.join(logs, 'baseline.log')}")

    results = []
    for name, path, old, new, what in chosen:
        target = os.path.join(src, path)
        with open(target) as f:
            original = f.read()
        start = time.time()
        try:
            with open(target, "w") as f:
                f.write(original.replace(old, new))
            by = layer_failure(build_dir, path, os.path.join(logs, name + ".layer.log"))
            if by == "" and not build(build_dir, os.path.join(logs, name + ".build.log")):
                by = None
            if by is None:
                outcome, by = "no build", ""
            else:
                by = by or first_failure(build_dir, os.path.join(logs, name + ".log"))
                outcome = "caught" if by else "MISSED"
        finally:
            with open(target, "w") as f:
                f.write(original)
        results.append((name, path, what, outcome, by))
        print(f"{name:20} {outcome:8} {by:36} {time.time() - start:5.0f} s", flush=True)
    build(build_dir, os.path.join(logs, "restore.log"))

    caught = sum(1 for r in results if r[3] == "caught")
    print(f"{caught} of {len(results)} faults caught")
    if args.results:
        with open(args.results, "w") as f:
            f.write("| fault | file | what | outcome | first failing test |\n|---|---|---|---|---|\n")
            for r in results:
                f.write("| " + " | ".join(r) + " |\n")
            f.write(f"\n{caught} of {len(results)} caught\n")
    sys.exit(0 if caught == len(results) else 1)


if __name__ == "__main__":
    main()
