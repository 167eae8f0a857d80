# check.py FILE EXPR - FILE holds one JSON document of tolvik that the schema of docs/ accepts,
# and the Python expression EXPR holds for it: d is its result, doc the whole document.
import json, os, sys
import jsonschema

doc = json.load(open(sys.argv[1]))
schema = json.load(open(os.path.join(os.environ['CLI_TESTS'], '../../docs/tolvik.schema.json')))
try:
    jsonschema.Draft202012Validator(schema).validate(doc)
except jsonschema.ValidationError as e:
    sys.exit(f"the schema refuses it: {e.message} at {list(e.absolute_path)}")
d = doc.get('result')
sys.exit(0 if eval(sys.argv[2]) else f"not {sys.argv[2]}")
