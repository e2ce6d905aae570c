#!/usr/bin/env python3
"""Writes docs/faults.md from what the tests have seen, or checks it.

matrix.py [--check] SOURCE_TREE BUILD_TREE LIBTTY LIBVC LIBTTYKIT

Runs every unit test that declares rows (tests/support/fault_row.h), each a
process of its own, and makes a table of the rows. A row is refused when its
function, its call or its log line is not in the sources, and a test that does
not pass, or is skipped, fails the run. Then every function that the libraries
import must be in the table or in without_rows.txt, with a reason.
"""
import argparse
import concurrent.futures
import errno
import os
import pathlib
import re
import subprocess
import sys
import tempfile

FACES = (("tty", "The line library"), ("vc", "The session service"),
         ("kit", "The kit"), ("common", "What all are built with"))
TEST_LIMIT = 25
AT_A_TIME = 2
OTHER_ERRORS = re.compile(r"short|end of file|result -?\d+")
INJECTION = re.compile(r"fault::(fail|shorten)\(")

HEAD = """# What follows when a call fails

Every row was seen by the test in its last column, which makes the call fail
and looks at all that the row says: this page is written from what the tests
that passed reported (`tests/delivery/faults/matrix.py`), and the test
`docs.faults_are_what_the_tests_saw` compares it with a new run. Functions that
the libraries import and that have no row stand with the reason in
`tests/delivery/faults/without_rows.txt`.

"Short" is a call that does less than it was asked to. Log lines are as the
source has them; a dash stands for none. "The inetd" is the line-allocation
daemon.
"""

complaints = []


def complain(text):
    complaints.append(text)


class Sources:
    """What the libraries' sources define, call and say."""

    LITERAL = r'"((?:[^"\\]|\\.)*)"'

    def __init__(self, tree):
        self.definitions = {}
        self.text = ""
        self.literals = set()
        for face, _ in FACES:
            for path in sorted((tree / face).glob("*.[ch]*")):
                self.read(path, f"{face}/{path.name}")

    def read(self, path, name):
        text = path.read_text()
        self.text += text
        # A function begins in the first column and is followed by its body.
        for found in re.finditer(
                r"^[a-z][^\n;=(]*?[ *](\w+)\([^;{]*?\)\n\{", text, re.M):
            self.definitions.setdefault(found[1], name)
        for run in re.finditer(rf"(?:{self.LITERAL}\s*)+", text):
            texts = re.findall(self.LITERAL, run[0])
            self.literals.add("".join(texts))


def instances(program, test):
    """The names of a test with parameters, one for each."""
    listing = subprocess.run(
        [program, "--gtest_list_tests", f"--gtest_filter=*/{test}/*"],
        check=True, text=True, stdout=subprocess.PIPE).stdout
    names = []
    for line in listing.splitlines():
        word = line.split("#")[0].strip()
        if word.endswith("."):
            suite = word
        elif line.startswith(" "):
            names.append(suite + word)
    return names


def tests_with_rows(tree, build):
    """(program, name) of each test whose body declares a row."""
    tests = []
    for path in sorted((tree / "tests/unit").glob("*/*_test.cpp"),
                       key=lambda path: path.name):
        program = build / path.relative_to(tree).with_suffix("")
        for body in re.split(r"^(?=TEST)", path.read_text(), flags=re.M):
            found = re.match(r"TEST(_F|_P)?\((\w+),\s*(\w+)\)", body)
            if not found:
                continue
            name = f"{found[2]}.{found[3]}"
            if "fault_row(" not in body:
                if INJECTION.search(body.split("\n}\n")[0]):
                    complain(f"{name} makes a call fail and has no row")
                continue
            names = instances(program, name) if found[1] == "_P" else [name]
            tests += [(program, each) for each in names]
    return tests


def plain_name(test):
    """Without what a test with parameters has around its name."""
    return re.sub(r"^\w+/|/\w+$", "", test)


def run_test(program, name, directory):
    """Returns what is wrong with this run; empty when it passed."""
    environment = dict(os.environ, TTYLINE_FAULT_ROWS=directory)
    try:
        done = subprocess.run(
            [program, f"--gtest_filter={name}"],
            env=environment, cwd=directory, timeout=TEST_LIMIT, text=True,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    except (OSError, subprocess.TimeoutExpired) as problem:
        return f"{name}: {problem}"
    if done.returncode != 0 or "[  SKIPPED ]" in done.stdout:
        return f"{name} did not pass:\n{done.stdout}"
    if "[  PASSED  ] 1 test." not in done.stdout:
        return f"{program.name} has no test {name}"
    return ""


def read_rows(directory):
    rows = set()
    for path in pathlib.Path(directory).glob("rows.*"):
        for line in path.read_text().splitlines():
            rows.add(tuple(line.split("\t")))
    return rows


def collect(tests):
    with tempfile.TemporaryDirectory(prefix="ttyline-faults-") as directory:
        with concurrent.futures.ThreadPoolExecutor(AT_A_TIME) as pool:
            for wrong in pool.map(
                    lambda test: run_test(*test, directory), tests):
                if wrong:
                    complain(wrong)
        rows = read_rows(directory)
    with_rows = {row[0] for row in rows}
    for _, name in tests:
        if name not in with_rows:
            complain(f"{name} has written no row")
    return {(plain_name(row[0]),) + row[1:] for row in rows}


def check_row(row, sources):
    test, function, call, error, _, log, _ = row
    if function not in sources.definitions:
        complain(f"{test}: {function}() is not in the sources")
    if not re.search(rf"\b{re.escape(call)}\(", sources.text):
        complain(f"{test}: {call}() is not called in the sources")
    for each in error.split(", "):
        if not hasattr(errno, each) and not OTHER_ERRORS.fullmatch(each):
            complain(f"{test}: there is no error {each}")
    if log and log not in sources.literals:
        complain(f'{test}: no source says "{log}"')


def cell(text):
    return text.replace("|", "\\|") if text else "-"


def code(text):
    return f"`{text}`".replace("|", "\\|") if text else "-"


def table(rows):
    lines = ["| function | call | error | the caller sees | log line |"
             " left behind | test |", "|---|---|---|---|---|---|---|"]
    for test, function, call, error, caller, log, left in sorted(
            rows, key=lambda row: (row[1], row[2], row[3], row[0], row)):
        lines.append(
            f"| `{function}` | `{call}` | {cell(error)} | {cell(caller)} |"
            f" {code(log)} | {cell(left)} | `{test}` |")
    return "\n".join(lines) + "\n"


def document(rows, sources):
    text = HEAD
    for face, title in FACES:
        text += f"\n## {title}\n"
        files = {}
        for row in rows:
            name = sources.definitions.get(row[1], "")
            if name.startswith(face + "/"):
                files.setdefault(name, []).append(row)
        for name in sorted(files):
            text += f"\n### `{name}`\n\n{table(files[name])}"
    return text


def imports(library):
    """The functions and data that a library takes from elsewhere."""
    output = subprocess.run(["nm", "-D", "-u", library], check=True, text=True,
                            stdout=subprocess.PIPE).stdout
    names = set()
    for line in output.splitlines():
        name = line.split()[-1].split("@")[0]
        # What the compiler's checked variants are called.
        name = re.sub(r"^__(\w+)_chk$", r"\1", name)
        names.add(re.sub(r"^__isoc\d+_", "", name))
    return names


def read_reasons(path):
    reasons = {}
    for line in path.read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        name, colon, reason = line.partition(": ")
        if not colon or not reason.strip() or name in reasons:
            complain(f"{path.name}: not \"name: reason\", or twice: {line}")
        reasons[name] = reason
    return reasons


def check_imports(rows, sources, libraries, tree):
    reasons = read_reasons(tree / "tests/delivery/faults/without_rows.txt")
    for face, library in libraries:
        calls = {row[2] for row in rows
                 if sources.definitions.get(row[1], "").startswith(
                     (face + "/", "common/"))}
        for name in sorted(imports(library)):
            if name not in calls and name not in reasons:
                complain(f"{library} imports {name}, which has neither a row"
                         " nor a reason to have none")
    tabled = {row[2] for row in rows}
    for name in sorted(reasons):
        # Calls that one library only makes may have rows in the other.
        if name in tabled and all(
                name not in imports(library) or any(
                    row[2] == name and
                    sources.definitions.get(row[1], "").startswith(
                        (face + "/", "common/")) for row in rows)
                for face, library in libraries):
            complain(f"without_rows.txt has {name}, which has rows")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--check", action="store_true")
    parser.add_argument("tree", type=pathlib.Path)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("libtty")
    parser.add_argument("libvc")
    parser.add_argument("libttykit")
    given = parser.parse_args()

    sources = Sources(given.tree)
    tests = tests_with_rows(given.tree, given.build.resolve())
    rows = collect(tests)
    for row in sorted(rows):
        check_row(row, sources)
    check_imports(rows, sources,
                  (("tty", given.libtty), ("vc", given.libvc),
                   ("kit", given.libttykit)), given.tree)
    text = document(rows, sources)
    page = given.tree / "docs/faults.md"
    if given.check:
        if not page.exists() or page.read_text() != text:
            complain("docs/faults.md is not what the tests saw; write it anew"
                     " with tests/delivery/faults/matrix.py")
    elif not complaints:
        page.write_text(text)
    for text in complaints:
        print(text)
    print(f"{len(rows)} rows from {len(tests)} tests,"
          f" {len(complaints)} complaints")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
