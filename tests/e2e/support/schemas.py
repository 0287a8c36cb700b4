"""The JSON Schemas of docs/schema, for checking real documents."""

import json
import pathlib

import jsonschema

DIRECTORY = pathlib.Path(__file__).resolve().parents[3] / "docs" / "schema"


def check(document, name):
    """Fails when `document` does not follow docs/schema/<name>.schema.json."""
    schema = json.loads((DIRECTORY / f"{name}.schema.json").read_text())
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema, format_checker=jsonschema.FormatChecker())
    faults = [
        f"{'/'.join(map(str, fault.path))}: {fault.message}"
        for fault in validator.iter_errors(document)
    ]
    assert not faults, "\n".join(faults)
