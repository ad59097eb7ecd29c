#!/usr/bin/python3
"""Compares the output of the command with the golden records.

    check.py made | validate | convert | json COMMAND [--big-endian]

A big-endian machine writes other records; what is exchanged, and the JSON, must be what the files hold.
"""
import json
import pathlib
import subprocess
import sys

sys.dont_write_bytecode = True
import make

FOLDER = pathlib.Path(__file__).parent
BIG = "--big-endian" in sys.argv
command = sys.argv[2]
failures = []


def same(seen, expected, what):
    if seen != expected:
        failures.append(f"{what}:\n    seen     {seen!r}\n    expected {expected!r}")


def run(*arguments, given=None):
    done = subprocess.run([command, *map(str, arguments)], input=given, capture_output=True)
    return done.stdout if not done.stderr else done.stdout + b"; complaint: " + done.stderr


def converts(name, to, *options):
    """NAME converted is the file of the same object with the other ending."""
    target = pathlib.Path(name).with_suffix({"serialized": ".form"}.get(to, f".{to}")).name
    seen = run("convert", "-", *options, "--to", to, "-o", "-", given=make.FILES[name])
    same(seen, make.FILES[target], f"{name} to {to}")


def made():
    for name, data in make.FILES.items():
        # There the list that was summed in the other order has no note.
        if not BIG or name.endswith((".form", ".json")) and name != "noted-do-list-order.json":
            same((FOLDER / name).read_bytes(), data.replace(b'"order":"network"', b'"order":"host"', 1), name)
    endings = (".host", ".network", ".form", ".json")
    same({path.name for path in FOLDER.iterdir() if path.suffix in endings} - set(make.FILES), set(), "strange files")


def validate():
    for name in make.OBJECTS:
        odd = name.startswith("noted-") and not (BIG and name == "noted-do-list-order")
        note = [name.removeprefix("noted-").split(".")[0]] if odd else []
        for order in ("host", "network"):
            reported = json.loads(run("validate", "--json", "-", given=make.FILES[f"{name}.{order}"]).splitlines()[0])
            same((reported["order"], reported["valid"]), ("network" if BIG else order, True), f"{name}.{order}")
            same(sorted({finding["name"] for finding in reported["findings"]}), note, f"findings of {name}.{order}")


def convert():
    for name, files in make.OBJECTS.items():
        for source in ("host", "network"):
            for to in ("host", "network", "serialized"):
                converts(f"{name}.{source}", to)
        if "so-" not in name:
            types = ("--serialized", "--dotype", files["host"][0x4D], "--fptype", files["host"][0x4C])
            converts(f"{name}.form", "serialized", *types)


def json_form():
    for name in make.OBJECTS:
        converts(f"{name}.host", "json")
        for to in ("host", "network"):
            converts(f"{name}.json", to)


{"made": made, "validate": validate, "convert": convert, "json": json_form}[sys.argv[1]]()
sys.exit("\n".join(failures[:20]) or 0)
