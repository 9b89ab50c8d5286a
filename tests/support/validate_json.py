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
    # Some schemas refer to others, by the names of their files.
    schemas = {file.name: json.loads(file.read_text(encoding="utf-8")) for file in folder.glob("*.schema.json")}
    validators = {}
    wrong = False
    for name, file in zip(sys.argv[2::2], sys.argv[3::2], strict=True):
        if name not in validators:
            schema = schemas[f"{name}.schema.json"]
            jsonschema.Draft202012Validator.check_schema(schema)
            resolver = jsonschema.RefResolver(schema["$id"], schema, store=schemas)
            validators[name] = jsonschema.Draft202012Validator(schema, resolver=resolver)
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
