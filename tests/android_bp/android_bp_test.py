"""Holds Android.bp to what CMake builds, and its stand-in for the tracing SDK's header to what that header holds.

Usage: android_bp_test.py ROOT CMAKE_LISTS SDK_HEADER
"""
import re
import sys
from pathlib import Path

root, cmake_lists, sdk_header = map(Path, sys.argv[1:])
blueprint = re.sub(r"//.*", "", (root / "Android.bp").read_text())
cmake = dict(line.split("=", 1) for line in cmake_lists.read_text().splitlines())
mistakes = []


def strings(text):
    return {word.replace('\\"', '"') for word in re.findall(r'"((?:[^"\\]|\\.)*)"', text)}


def module(name):
    return next(text for text in re.split(r"\n(?=\w+ \{)", blueprint) if f'name: "{name}"' in text)


def compare(what, wanted, found):
    mistakes.extend(f"{what}: {word} is missing" for word in sorted(wanted - found))
    mistakes.extend(f"{what}: {word} is one too many" for word in sorted(found - wanted))


for name, key in ("libcounterfeed", "sources"), ("counterfeed-launcher", "launcher_sources"):
    listed = strings(re.search(r"srcs: \[(.*?)\]", module(name), re.DOTALL)[1])
    compare(name, {str(Path(path).relative_to(root)) for path in cmake[key].split(";")}, listed)

# Where the numbers and the types of files come from. Warnings and hardening are each build's own affair.
flags = {flag for flag in cmake["options"].split(";") if flag.startswith("-ffp-")}
flags |= {"-D" + definition for definition in cmake["definitions"].split(";")}
compare("flags", flags, flags & strings(module("counterfeed_defaults")))
version = {f'-DCOUNTERFEED_VERSION="{cmake["version"]}"'}
compare("version", version, version & strings(module("counterfeed-launcher")))

for path in re.findall(r'(?:version_script|license_text): \[?"(.*?)"', blueprint):
    compare("files", {path}, {path} if (root / path).exists() else set())

held = set(re.findall(r"begin header: (?:include|gen)/(\S+)", sdk_header.read_text()))
included = set(re.findall(r"#include <(\S+)>", (root / "android/perfetto.h").read_text()))
compare("android/perfetto.h", set(), included - held)

sys.exit("\n".join(mistakes) or 0)
