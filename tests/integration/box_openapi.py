"""Box's OpenAPI description: path lookup and a validator for the subset of
JSON Schema (OpenAPI 3.0 flavour) that it uses."""

import json
import os
import re

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_PATH = os.path.join(HERE, "..", "..", "..", "shared", "box-openapi.json")
DATE_TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?([+-]\d\d:\d\d|Z)\Z")
PREFIXES = ("/api/2.0", "/2.0")
TYPES = {"string": str, "boolean": bool, "array": list, "object": dict, "integer": int,
         "number": (int, float)}


def openapi_path():
    return os.environ.get("TARVEX_BOX_OPENAPI") or DEFAULT_PATH


class OpenApi:
    def __init__(self, path=None):
        with open(path or openapi_path()) as f:
            self.doc = json.load(f)
        self.schemas = self.doc["components"]["schemas"]

    def template_for(self, url):
        """'/2.0/folders/123/items' -> ('/folders/{folder_id}/items', '/2.0')."""
        prefix = next((p for p in PREFIXES if url.startswith(p + "/")), None)
        if prefix is None:
            return None, None
        segments = url[len(prefix):].rstrip("/").split("/")

        def literals(template):   # None when the template does not fit
            tsegs = template.split("/")
            if len(tsegs) != len(segments) or not all(
                    t == s or t.startswith("{") for t, s in zip(tsegs, segments)):
                return None
            return sum(not t.startswith("{") for t in tsegs)

        # The fitting template with the most literal segments wins.
        fits = [(literals(t), t) for t in self.doc["paths"] if literals(t) is not None]
        return (max(fits, key=lambda f: f[0])[1] if fits else None), prefix

    def operation(self, template, method):
        return self.doc["paths"].get(template, {}).get(method.lower())

    def servers(self, op):
        return [s["url"] for s in op.get("servers") or self.doc.get("servers", [])]

    def response(self, op, status):
        """-> (the documented answer or None, its JSON schema or None)."""
        resp = op["responses"].get(str(status)) or op["responses"].get("default")
        content = (resp or {}).get("content", {})
        return resp, content.get("application/json", {}).get("schema")

    def documented_codes(self):
        """Every `code` named in a response description, plus ClientError's enum."""
        codes = set(self.schemas["ClientError"]["properties"]["code"]["enum"])
        for ops in self.doc["paths"].values():
            for resp in (r for op in ops.values() if isinstance(op, dict)
                         for r in op.get("responses", {}).values()):
                codes.update(re.findall(r"`([a-z][a-z0-9_]+)`", resp.get("description", "")))
        return codes

    def resolve(self, schema):
        while isinstance(schema, dict) and "$ref" in schema:
            schema = self.schemas[schema["$ref"].rsplit("/", 1)[1]]
        return schema

    def properties(self, schema):
        """All property names an object schema can have (through allOf)."""
        schema = self.resolve(schema)
        names = set(schema.get("properties", {}))
        for sub in schema.get("allOf", []):
            names |= self.properties(sub)
        return names

    def validate(self, value, schema, where="$"):
        """A list of problems; empty when value conforms."""
        errors = []
        self._check(value, schema, where, errors)
        return errors

    def _check(self, value, schema, where, errors):
        schema = self.resolve(schema)
        if value is None:
            # Box marks nullability on the schema or on one of its allOf
            # members ({"nullable": true} beside the real type).
            members = [schema] + [self.resolve(m) for m in schema.get("allOf", [])]
            typed = [m["type"] for m in members if "type" in m]
            if typed and not any(m.get("nullable") is True for m in members):
                errors.append("%s: null where %s is required" % (where, typed[0]))
            return
        kind = schema.get("type")
        if kind and (not isinstance(value, TYPES[kind]) or
                     isinstance(value, bool) and kind in ("integer", "number")):
            errors.append("%s: %s is not %s" % (where, repr(value)[:80], kind))
            return
        if "enum" in schema and value not in schema["enum"]:
            errors.append("%s: %s not in %s" % (where, repr(value)[:80], schema["enum"]))
        if schema.get("format") == "date-time" and not DATE_TIME.match(str(value)):
            errors.append("%s: %r is not a date-time" % (where, value))
        low, high = ("minLength", "maxLength") if isinstance(value, str) else \
            ("minItems", "maxItems")
        if isinstance(value, (str, list)) and \
                not schema.get(low, 0) <= len(value) <= schema.get(high, len(value)):
            errors.append("%s: length of %s out of bounds" % (where, repr(value)[:80]))
        if isinstance(value, dict):
            self._check_object(value, schema, where, errors)
        for i, item in enumerate(value if isinstance(value, list) and "items" in schema else []):
            self._check(item, schema["items"], "%s[%d]" % (where, i), errors)
        for sub in schema.get("allOf", []):
            self._check(value, sub, where, errors)
        if "oneOf" in schema:
            matches = sum(1 for s in schema["oneOf"] if not self.validate(value, s, where))
            if matches != 1:
                errors.append("%s: matches %d of oneOf" % (where, matches))

    def _check_object(self, value, schema, where, errors):
        errors += ["%s: missing required %r" % (where, k)
                   for k in schema.get("required", []) if k not in value]
        props = schema.get("properties", {})
        extra = schema.get("additionalProperties", True)
        for key, v in value.items():
            if key in props or isinstance(extra, dict):
                self._check(v, props.get(key, extra), "%s.%s" % (where, key), errors)
            elif extra is False:
                errors.append("%s: unexpected property %r" % (where, key))
