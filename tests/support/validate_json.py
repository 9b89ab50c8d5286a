#!/usr/bin/env python3
"""Validates JSON documents by the schemas of docs/json/ and prints what is wrong with them.

Usage: validate_json.py SCHEMA_FOLDER {SCHEMA_NAME FILE}..."""

import json
import pathlib
import sys

import jsonschema


def refuse_constant(name):
    raise ValueError(f"{name} is no JSON")


def main():
    folder = pathlib.Path(sys.argv[1])
    validators = {}
    wrong = False
    for name, file in zip(sys.argv[2::2], sys.argv[3::2], strict=True):
        if name not in validators:
            schema = json.loads((folder / f"{name}.schema.json").read_text(encoding="utf-8"))
            jsonschema.Draft202012Validator.check_schema(schema)
            validators[name] = jsonschema.Draft202012Validator(schema)
        try:
            text = pathlib.Path(file).read_bytes().decode("utf-8")
            document = json.loads(text, parse_constant=refuse_constant)
        except ValueError as error:
            print(f"{name}: {error}")
            wrong = True
            continue
        for error in validators[name].iter_errors(document):
            wrong = True
            print(f"{name}: {error.json_path}: {error.message[:500]}")
    return 1 if wrong else 0


sys.exit(main())
