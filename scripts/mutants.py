#!/usr/bin/env python3
"""Mutation sites of the library's core files, and a fixed sample of them.

  mutants.py list TREE COUNT SEED   one line per sampled mutant, tab-separated:
                                    file, line, column, old text, new text, kind
  mutants.py apply TREE LIST K     writes the K-th mutant of LIST (the output of
                                    list) into TREE and prints where and what
  mutants.py sync SNAPSHOT TREE     makes TREE hold SNAPSHOT's files, rewriting only
                                    those that differ (so a build of TREE stays valid)

The scan is deterministic and reads only the library's sources, so a seed
draws the same sample for as long as the library is unchanged, whatever
happens to the tests. Kinds of mutation:
  compare  a spaced comparison flips (< to <=, == to !=, ...)
  drop     an expression statement on one line becomes an empty statement
  const    an integer constant moves by one (0 to 1, n to n - 1)
  adjust   a "+ 1" / "- 1" length adjustment disappears
Skipped: comments, preprocessor lines and whatever sits inside #if,
assert/static_assert and VEL_LOG/VEL_STORE statements.
"""
import random
import re
import shutil
import sys
from pathlib import Path

GLOBS = ["impl/velClientMsg/**/*.cpp", "impl/velClientMsg/**/*.h", "impl/velClientVwf/*.cpp",
         "impl/velClientSession/*.cpp", "impl/velClientHandle/*.cpp", "impl/velClientLog/*.cpp"]
SKIP_WORDS = re.compile(r"\b(assert|static_assert|VEL_LOG|VEL_STORE)\b")
FLIP = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
COMPARE = re.compile(r"(?<= )(<=|>=|==|!=|<|>)(?= )")
ADJUST = re.compile(r" [+-] 1(?![\w.'])")
CONST = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)(?![\w.'])")
# One-line expression statements: an assignment to a plain lvalue, a call, ++/--.
LVALUE = r"[*]?[\w.\[\]]+(?:->[\w.\[\]]+)*"
DROP = re.compile(r"(?:" + LVALUE + r" (?:[-+*/%&|^]|<<|>>)?= .*"   # x->y = ..., a[i] |= ...
                  r"|[\w:.]+(?:->[\w.]+)*\(.*\)"                    # f(...), obj.m(...), p->m(...)
                  r"|(?:\+\+|--)" + LVALUE + "|" + LVALUE + r"(?:\+\+|--));$")
KEYWORDS = re.compile(r"^(return|break|continue|goto|case|default|if|for|while|switch|do|else|delete|throw)\b")


def blank_literals(code):
    """String and character literals keep their length but lose their content."""
    return re.sub(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'',
                  lambda m: m.group(0)[0] + "_" * (len(m.group(0)) - 2) + m.group(0)[0], code)


def code_lines(text):
    """(line number, original line, code with literals blanked and comments removed),
    for the lines that may be mutated."""
    in_comment = False
    if_depth = 0
    continued = False  # preprocessor line ending in a backslash
    skipping = False   # inside a statement to leave alone
    for number, line in enumerate(text.split("\n"), 1):
        code = blank_literals(line)
        if in_comment:
            end = code.find("*/")
            if end < 0:
                continue
            in_comment = False
            code = " " * (end + 2) + code[end + 2:]
        code = re.sub(r"/\*.*?\*/", lambda m: " " * len(m.group(0)), code)
        if "/*" in code:
            in_comment = True
            code = code[:code.index("/*")]
        if "//" in code:
            code = code[:code.index("//")]
        stripped = code.strip()
        if continued or stripped.startswith("#"):
            continued = code.rstrip().endswith("\\")
            if re.match(r"#\s*if", stripped):
                if_depth += 1
            elif re.match(r"#\s*endif", stripped):
                if_depth -= 1
            continue
        if skipping or SKIP_WORDS.search(code):
            skipping = not stripped.endswith(";")
            continue
        if if_depth == 0 and stripped:
            yield number, line, code


def sites_of(path, rel):
    lines = path.read_text().split("\n")
    previous = ";"
    for number, line, code in code_lines("\n".join(lines)):
        for m in COMPARE.finditer(code):
            yield rel, number, m.start(), m.group(1), FLIP[m.group(1)], "compare"
        adjusted = set()
        for m in ADJUST.finditer(code):
            adjusted.add(m.end() - 1)
            yield rel, number, m.start(), m.group(0), "", "adjust"
        for m in CONST.finditer(code):
            if m.start() in adjusted:
                continue
            digits = m.group(1)
            is_hex = digits[:2].lower() == "0x"
            if not is_hex and len(digits) > 1 and digits[0] == "0":
                continue  # octal
            value = int(digits, 16 if is_hex else 10)
            new = value + 1 if value == 0 else value - 1
            text = (hex(new) if is_hex else str(new)) + m.group(2)
            yield rel, number, m.start(), m.group(0), text, "const"
        stmt = code.strip()
        balanced = all(stmt.count(a) == stmt.count(b) for a, b in ("()", "[]", "{}"))
        follows = previous.endswith((";", "{", "}", ")", ":")) or previous.endswith("else")
        if (code[:1].isspace() and balanced and follows and DROP.match(stmt)
                and not KEYWORDS.match(stmt)):
            col = len(code) - len(code.lstrip())
            yield rel, number, col, line[col:col + len(stmt)], ";", "drop"
        previous = stmt


def all_sites(tree):
    files = sorted({p for g in GLOBS for p in Path(tree).glob(g)})
    return [s for p in files for s in sites_of(p, p.relative_to(tree).as_posix())]


def main(argv):
    if argv[1] == "list":
        tree, count, seed = argv[2], int(argv[3]), int(argv[4])
        sites = all_sites(tree)
        sample = random.Random(seed).sample(sites, min(count, len(sites)))
        print(f"{len(sites)} mutation sites, {len(sample)} drawn with seed {seed}", file=sys.stderr)
        for rel, number, col, old, new, kind in sorted(sample):
            print(f"{rel}\t{number}\t{col}\t{old}\t{new}\t{kind}")
    elif argv[1] == "apply":
        tree, listing, k = argv[2], argv[3], int(argv[4])
        rel, number, col, old, new, kind = Path(listing).read_text().split("\n")[k - 1].split("\t")
        number, col = int(number), int(col)
        path = Path(tree) / rel
        lines = path.read_text().split("\n")
        line = lines[number - 1]
        if line[col:col + len(old)] != old:
            sys.exit(f"{rel}:{number}: '{old}' not found at column {col}")
        lines[number - 1] = line[:col] + new + line[col + len(old):]
        path.write_text("\n".join(lines))
        print(f"{rel}:{number}\t{kind} '{old}' -> '{new}'")
    elif argv[1] == "sync":
        snapshot, tree = Path(argv[2]), Path(argv[3])
        wanted = {p.relative_to(snapshot) for p in snapshot.rglob("*") if p.is_file()}
        for p in [p for p in tree.rglob("*") if p.is_file() and p.relative_to(tree) not in wanted]:
            p.unlink()
        for rel in wanted:
            source, target = snapshot / rel, tree / rel
            if not target.is_file() or target.read_bytes() != source.read_bytes():
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(source, target)
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
