"""Makes the mutants, builds each one and runs the tests; see mutants.sh."""
import os
import random
import re
import shutil
import subprocess
import sys

WORK = os.path.abspath("build/mutants")
TREE = os.path.join(WORK, "tree")
BUILD = os.path.join(TREE, "build/debug")
EQUAL = "scripts/mutants_equal.txt"
BAR = 0.85

# What is exchanged for what; each pattern counts once a line, at a place that chance picks.
EXCHANGES = [
    (r"(?<![<>=!+\-*/&|^-])<=(?!=|>)", "<"),
    (r"(?<![<>=!-])>=(?!=)", ">"),
    (r" < ", " <= "),
    (r" > ", " >= "),
    (r" == ", " != "),
    (r" != ", " == "),
    (r" && ", " || "),
    (r" \|\| ", " && "),
    (r" \+ ", " - "),
    (r" - ", " + "),
    (r" \+= ", " -= "),
    (r"\+\+(?=\w)", "--"),
    (r"\btrue\b", "false"),
    (r"\bfalse\b", "true"),
    (r"(?<![\w.\"'])([1-9][0-9]*)(?![\w.\"'])", lambda m: str(int(m.group(1)) + 1)),
    (r"\bif \((?!const |auto |int )(.+)\)$", lambda m: "if (!(" + m.group(1) + "))"),
]
STATEMENT = re.compile(r"^\s+(?!return|const|auto|static|using|case|break|continue|default|else|struct|enum|extern|goto)"
                       r"[\w:>.\-\[\]*() ]+( = |\+= |-= |\().*;$")


def product_lines():
    """Every line that can be mutated: (file, line number from 0)."""
    files = subprocess.run(["git", "ls-files", "src/*.cpp", "libwlcore/*.cpp"], check=True, capture_output=True,
                           text=True).stdout.split()
    for name in files:
        inside_comment_or_table = False
        with open(name, encoding="utf-8") as source:
            for number, line in enumerate(source):
                if "clang-format off" in line:
                    inside_comment_or_table = True
                if "clang-format on" in line:
                    inside_comment_or_table = False
                if not inside_comment_or_table and mutations(line):
                    yield name, number


def mutations(line):
    """What a line can become."""
    bare = line.rstrip("\n")
    code = bare.split(" // ")[0]
    if not code.startswith("  ") or code.lstrip().startswith(("//", "*", "static_assert", "constexpr", "template")):
        return []
    if "wllb_trace" in code or code.count('"') > 0:  # words are for people; a test of each would restate them
        return []
    found = []
    for pattern, other in EXCHANGES:
        found += [code[:m.start()] + (other(m) if callable(other) else other) + code[m.end():] + "\n"
                  for m in re.finditer(pattern, code)]
    if STATEMENT.match(code) and "=" not in code.split("(")[0].split("=")[0][:0]:
        found.append("  ;\n")
    return found


def run(command, limit):
    """Exit status, or None when the command did not end in time."""
    try:
        return subprocess.run(command, cwd=TREE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=limit,
                              check=False).returncode
    except subprocess.TimeoutExpired:
        return None


def verdict(killers):
    """How a mutant ended; the tests that killed the last ones run first."""
    if run(["cmake", "--build", "build/debug", "--target", "all"], 600) != 0:
        return "killed by the compiler"
    for pattern in killers:
        if run(["ctest", "--test-dir", "build/debug", "-R", pattern, "-j4", "--timeout", "60", "--stop-on-failure"], 600) != 0:
            return "killed by " + pattern
    return "survived"


def equal_mutants():
    """Mutants that nobody can observe, as "file: old line => new line"; what comes after " # " is the reason."""
    if not os.path.exists(EQUAL):
        return set()
    with open(EQUAL, encoding="utf-8") as listed:
        return {line.split(" # ")[0].strip() for line in listed if " => " in line}


def main():
    count, seed = int(sys.argv[1]), int(sys.argv[2])
    chance = random.Random(seed)
    os.makedirs(TREE, exist_ok=True)
    names = subprocess.run(["git", "ls-files"], check=True, capture_output=True, text=True).stdout.split()
    for name in names:
        os.makedirs(os.path.dirname(os.path.join(TREE, name)), exist_ok=True)
        shutil.copy2(name, os.path.join(TREE, name))
    subprocess.run(["cmake", "--preset", "debug"], cwd=TREE, check=True, stdout=subprocess.DEVNULL)
    if run(["cmake", "--build", "build/debug"], 3600) != 0 or run(["ctest", "--test-dir", "build/debug", "-j4"], 3600) != 0:
        sys.exit("the tests fail before anything was changed")

    places = list(product_lines())
    chance.shuffle(places)
    equal = equal_mutants()
    report = open(os.path.join(WORK, "report.txt"), "w", encoding="utf-8")
    counted = killed = 0
    for name, number in places:
        if counted == count:
            break
        with open(name, encoding="utf-8") as source:
            lines = source.readlines()
        mutant = chance.choice(mutations(lines[number]))
        words = f"{name}: {lines[number].strip()} => {mutant.strip()}"
        if words in equal:
            continue
        changed = lines[:number] + [mutant] + lines[number + 1:]
        with open(os.path.join(TREE, name), "w", encoding="utf-8") as source:
            source.writelines(changed)
        end = verdict(["^(?!soak|exact|database|page)", "."])
        with open(os.path.join(TREE, name), "w", encoding="utf-8") as source:
            source.writelines(lines)
        counted += 1
        killed += end != "survived"
        print(f"{counted}/{count} {end}: {name}:{number + 1}: {lines[number].strip()} => {mutant.strip()}", file=report,
              flush=True)
        print(f"\r{counted} mutants, {killed} killed", end="", flush=True)
    print(f"\r{counted} mutants, {killed} killed ({100 * killed // max(counted, 1)} %)")
    print(f"{killed} of {counted}", file=report)
    sys.exit(0 if killed >= BAR * counted else 1)


if __name__ == "__main__":
    main()
