"""Every text of the product that its user may come to read is explained in docs/on-device.md.

Usage: messages_test.py ROOT SOURCE...
"""
import re
import sys
from pathlib import Path

root = Path(sys.argv[1])
explained = " ".join((root / "docs/on-device.md").read_text().split())
missing = []
for source in sys.argv[2:]:
    code = re.sub(r"//.*|#include.*|static_assert.*", "", Path(source).read_text())
    for constant in re.findall(r'(?:"(?:[^"\\\n]|\\.)*"\s*)+', code):
        text = "".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', constant)).replace('\\"', '"')
        text = re.sub(r"^(\\n)+|(\\n)+$", "", text)
        # A text without a blank is a name, and one of several lines is the launcher's help.
        if re.search(r"\S \S", text) and "\\n" not in text and text not in explained:
            missing.append(f"{source}: {text}")

sys.exit("\n".join(missing) or 0)
