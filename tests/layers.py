"""Includes point down: each folder names only those that it builds on."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BELOW = {
    "common": (),
    "colvane": ("common",),
    "http": ("common",),
    "store": ("common", "http"),
    "handlers": ("common", "colvane", "http", "store"),
    "server": ("common", "colvane", "http", "store", "handlers"),
    "rows": ("common", "colvane"),
    "sampler": ("common", "colvane", "rows"),
    "clients/cpp": ("common", "colvane", "rows"),
    "tools": ("common", "colvane", "rows", "clients/cpp"),
}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def faults(root):
    found = []
    for folder, below in BELOW.items():
        for path in sorted((root / folder).glob("*")):
            if path.suffix not in (".h", ".cpp"):
                continue
            for number, line in enumerate(path.read_text().splitlines(), 1):
                include = INCLUDE.match(line)
                if not include or "/" not in include[1]:
                    continue  # what the build makes
                if include[1].rsplit("/", 1)[0] not in (folder, *below):
                    found.append(f"{folder}/{path.name}:{number}: {line.strip()}")
    return found


def main():
    sources = sum(1 for folder in BELOW for path in (ROOT / folder).glob("*.cpp"))
    if sources < 30:
        sys.exit(f"only {sources} sources found below {ROOT}")
    found = faults(ROOT)
    print("\n".join(found) or f"{sources} sources, no include points up")
    sys.exit(bool(found))


if __name__ == "__main__":
    main()
