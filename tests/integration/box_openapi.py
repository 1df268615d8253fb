"""Box's OpenAPI description: path lookup and a validator for the subset of
JSON Schema (OpenAPI 3.0 flavour) that it uses."""

import json
import os
import re

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_PATH = os.path.join(HERE, "..", "..", "..", "shared", "box-openapi.json")
DATE_TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?([+-]\d\d:\d\d|Z)\Z")
PREFIXES = ("/api/2.0", "/2.0")


def openapi_path():
    return os.environ.get("TARVEX_BOX_OPENAPI") or DEFAULT_PATH


class OpenApi:
    def __init__(self, path=None):
        with open(path or openapi_path()) as f:
            self.doc = json.load(f)
        self.schemas = self.doc["components"]["schemas"]

    # -- paths ------------------------------------------------------------

    def template_for(self, url):
        """'/2.0/folders/123/items' -> ('/folders/{folder_id}/items', prefix)."""
        for prefix in PREFIXES:
            if url.startswith(prefix + "/"):
                rest = url[len(prefix):]
                break
        else:
            return None, None
        if len(rest) > 1 and rest.endswith("/"):
            rest = rest[:-1]
        segments = rest.split("/")
        best = None
        for template in self.doc["paths"]:
            tsegs = template.split("/")
            if len(tsegs) != len(segments):
                continue
            if all(t == s or (t.startswith("{") and t.endswith("}"))
                   for t, s in zip(tsegs, segments)):
                # Prefer the template with the most literal segments.
                score = sum(1 for t in tsegs if not t.startswith("{"))
                if best is None or score > best[0]:
                    best = (score, template)
        return (best[1] if best else None), prefix

    def operation(self, template, method):
        return self.doc["paths"].get(template, {}).get(method.lower())

    def servers(self, op):
        return [s["url"] for s in op.get("servers") or self.doc.get("servers", [])]

    def response(self, op, status):
        responses = op["responses"]
        return responses.get(str(status)) or responses.get("default")

    def response_schema(self, op, status):
        resp = self.response(op, status)
        content = (resp or {}).get("content", {})
        return content.get("application/json", {}).get("schema")

    def documented_codes(self):
        """Every `code` named in a response description, plus ClientError's enum."""
        codes = set(self.schemas["ClientError"]["properties"]["code"]["enum"])
        for ops in self.doc["paths"].values():
            for op in ops.values():
                if not isinstance(op, dict):
                    continue
                for resp in op.get("responses", {}).values():
                    codes.update(re.findall(r"`([a-z][a-z0-9_]+)`", resp.get("description", "")))
        return codes

    # -- schemas ----------------------------------------------------------

    def resolve(self, schema):
        while isinstance(schema, dict) and "$ref" in schema:
            name = schema["$ref"].rsplit("/", 1)[1]
            schema = self.schemas[name]
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
        self._check(value, self.resolve(schema), where, errors)
        return errors

    def _check(self, value, schema, where, errors):
        schema = self.resolve(schema)
        if value is None:
            # Box marks nullability on the schema or on one of its allOf
            # members ({"nullable": true} beside the real type).
            members = [schema] + [self.resolve(m) for m in schema.get("allOf", [])]
            if any(m.get("nullable") is True for m in members):
                return
            typed = [m["type"] for m in members if "type" in m]
            if typed:
                errors.append("%s: null where %s is required" % (where, typed[0]))
            return
        kind = schema.get("type")
        if kind and not _is_type(value, kind):
            errors.append("%s: %r is not %s" % (where, _short(value), kind))
            return
        if "enum" in schema and value not in schema["enum"]:
            errors.append("%s: %r not in %s" % (where, _short(value), schema["enum"]))
        if schema.get("format") == "date-time" and isinstance(value, str) \
                and not DATE_TIME.match(value):
            errors.append("%s: %r is not a date-time" % (where, value))
        if isinstance(value, str):
            if len(value) < schema.get("minLength", 0) or \
                    len(value) > schema.get("maxLength", len(value)):
                errors.append("%s: length of %r out of bounds" % (where, value))
        if isinstance(value, (int, float)) and not isinstance(value, bool):
            if "minimum" in schema and value < schema["minimum"]:
                errors.append("%s: %r below minimum" % (where, value))
            if "maximum" in schema and value > schema["maximum"]:
                errors.append("%s: %r above maximum" % (where, value))
        if isinstance(value, dict):
            self._check_object(value, schema, where, errors)
        if isinstance(value, list):
            if len(value) < schema.get("minItems", 0) or \
                    len(value) > schema.get("maxItems", len(value)):
                errors.append("%s: array length out of bounds" % where)
            if "items" in schema:
                for i, v in enumerate(value):
                    self._check(v, schema["items"], "%s[%d]" % (where, i), errors)
        for sub in schema.get("allOf", []):
            self._check(value, sub, where, errors)
        if "anyOf" in schema:
            if not any(not self.validate(value, s, where) for s in schema["anyOf"]):
                errors.append("%s: matches none of anyOf" % where)
        if "oneOf" in schema:
            matches = sum(1 for s in schema["oneOf"] if not self.validate(value, s, where))
            if matches != 1:
                errors.append("%s: matches %d of oneOf" % (where, matches))

    def _check_object(self, value, schema, where, errors):
        for key in schema.get("required", []):
            if key not in value:
                errors.append("%s: missing required %r" % (where, key))
        props = schema.get("properties", {})
        extra = schema.get("additionalProperties", True)
        for key, v in value.items():
            if key in props:
                self._check(v, props[key], "%s.%s" % (where, key), errors)
            elif isinstance(extra, dict):
                self._check(v, extra, "%s.%s" % (where, key), errors)
            elif extra is False:
                errors.append("%s: unexpected property %r" % (where, key))


def _is_type(value, kind):
    if kind == "integer":
        return isinstance(value, int) and not isinstance(value, bool)
    if kind == "number":
        return isinstance(value, (int, float)) and not isinstance(value, bool)
    return isinstance(value, {"string": str, "boolean": bool, "array": list,
                              "object": dict}[kind])


def _short(value):
    text = repr(value)
    return text if len(text) < 80 else text[:77] + "..."
