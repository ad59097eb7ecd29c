"""The golden records, whose bytes and JSON tests/golden/make.py wrote."""
import json
import pathlib

ROOT = pathlib.Path(__file__).parents[2]
GOLDEN = ROOT / "tests" / "golden"
JSON = {path.stem: json.loads(path.read_text()) for path in sorted(GOLDEN.glob("*.json"))}

def stored(name, *endings):
    return [(GOLDEN / f"{name}.{ending}").read_bytes() for ending in endings]
