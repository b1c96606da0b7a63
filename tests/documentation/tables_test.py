"""The tables of docs have what those of the tools have: the rules of what limits a workload, and the names of a preset.

Usage: tables_test.py ROOT
"""
import re
import sys
from pathlib import Path

root = Path(sys.argv[1])


def check(document, row, expected):
    told = re.findall(row, (root / document).read_text(encoding="utf-8"), re.M)
    if told != expected:
        sys.exit(f"{document} should have:\n" + "\n".join(expected))


code = (root / "workstation/report/limits.cpp").read_text(encoding="utf-8")
rules = re.findall(r'\{"([^"]*)", "([^"]*)", "([^"]*)", (true|false),\s*([\d.]+),\s*"([^"]*)"\}', code)
check("docs/report.md", r"^\|.*[≥≤].*", [
    f"| {topic} | {finding} | {counter}{' out of ' + whole if whole else ''} | {'≥' if above == 'true' else '≤'} {threshold} |"
    for topic, counter, whole, above, threshold, finding in rules
])

code = (root / "workstation/command_line/catalogue.cpp").read_text(encoding="utf-8")
presets = re.findall(r'\{\.name = "([^"]*)",\s*\.patterns = \{([^}]*)\}', code)
check("docs/tools.md", r"^\| `.*\.txtpb` \|.*?\|", [
    f"| `{name}.txtpb` | {re.sub(chr(34), '`', ' '.join(patterns.split())) or 'all'} |" for name, patterns in presets
])
