"""docs/configuration.md has one row for each key of src/layout/config_keys.h, in its section.

Usage: check_configuration_doc.py ROOT
"""

import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
keys = re.findall(
    r'ConfigKey k\w+{"(\w+)", "(\w+)",', (root / "src/layout/config_keys.h").read_text("utf-8")
)
rows = re.findall(
    r"^\| `(\w+)` \| `(\w+)` \|", (root / "docs/configuration.md").read_text("utf-8"), flags=re.M
)
faults = [] if keys else ["no keys found in config_keys.h"]
for pair in sorted(set(keys) | set(rows)):
    if rows.count(pair) != 1 or pair not in keys:
        faults.append(f"[{pair[0]}] {pair[1]}: {keys.count(pair)} keys, {rows.count(pair)} rows")
sys.exit("\n".join(faults) or None)
