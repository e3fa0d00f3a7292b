"""Checks that the folders below kvx/ include one another only as docs/architecture.md allows.

The map is the table there whose rows are "| `folder` | what it holds | `other`, `other` |". Also checks that POSIX headers
and tests for the host stay below the platform line.
"""

import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
HOST_TEST = re.compile(r"#\s*if(n?def)?\b.*\b(_WIN32|WIN32|__linux__|__unix__|_POSIX_VERSION)\b")
POSIX_HEADER = re.compile(
    r"#\s*include\s*<(unistd|pthread|fcntl|poll|dlfcn|dirent|netdb|sys/\w+|netinet/\w+|arpa/\w+|linux/\w+)\.h>")


def allowed_map():
    rows = {}
    for line in (root / "docs/architecture.md").read_text().splitlines():
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if line.startswith("| `") and len(cells) == 3:
            rows[cells[0].strip("`")] = set(re.findall(r"`([\w/]+)`", cells[2]))
    return rows


def folder_of(path):
    parts = path.split("/")[:-1]
    return "/".join(parts[:2]) if parts and parts[0] == "platform" else (parts[0] if parts else "")


def main():
    rows = allowed_map()
    faults = []
    if len(rows) < 8:
        faults.append("docs/architecture.md: the table of folders was not found")
    unused = {folder: set(others) for folder, others in rows.items()}
    for path in sorted((root / "kvx").rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        relative = path.relative_to(root / "kvx").as_posix()
        folder = folder_of(relative)
        text = path.read_text()
        if not relative.startswith("platform/"):
            faults += [f"kvx/{relative}: tests for the host: {m.group(0)}" for m in HOST_TEST.finditer(text)]
        if not relative.startswith("platform/win32/"):
            faults += [f"kvx/{relative}: POSIX header: {m.group(0)}" for m in POSIX_HEADER.finditer(text)]
        if folder == "":
            continue  # the umbrella header and the statics may see everything
        if folder == "platform":
            continue  # the choice of the host
        if folder not in rows:
            faults.append(f"kvx/{folder} is not in the map")
            continue
        for include in re.findall(r'#include "kvx/([^"]+)"', text):
            other = folder_of(include)
            unused[folder].discard(other)
            if other not in (folder, "platform", "platform/mfc", "") and other not in rows[folder]:
                faults.append(f"kvx/{relative} includes kvx/{include}: {folder} may not depend on {other}")
    faults += [f"{folder} may depend on {other}, and doesn't" for folder, others in unused.items() for other in others]
    print("\n".join(sorted(set(faults))) or f"{len(rows)} folders depend on each other as the map allows")
    return 1 if faults else 0


sys.exit(main())
