"""Says on standard error what in FILE is not as a definition of a JSON schema wants it.

usage: valid_json.py SCHEMA DEFINITION FILE     FILE holds one document, or one object a line
Status 77: the module jsonschema is missing.
"""

import json
import sys

try:
    from jsonschema import Draft7Validator
except ImportError:
    sys.exit(77)


def values_of(path):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    try:
        return [json.loads(text)]
    except json.JSONDecodeError:
        return [json.loads(line) for line in text.split("\n") if line]


with open(sys.argv[1], encoding="utf-8") as file:
    schema = json.load(file)
Draft7Validator.check_schema(schema)
part = {"$ref": "#/definitions/" + sys.argv[2], "definitions": schema["definitions"]}
values = values_of(sys.argv[3])
faults = [error.message for value in values for error in Draft7Validator(part).iter_errors(value)]
print("\n".join(faults), end="", file=sys.stderr)
sys.exit(1 if faults or not values else 0)
