"""The API's own OpenAPI document as a contract: every answer an end-to-end
test receives is checked against it (status documented for the operation,
documented headers present, JSON bodies valid against the schema), and the
operations that answered are remembered so a test can prove it reached them all."""
import json
import re

import jsonschema


class Contract:
    def __init__(self, document):
        self.document = document
        self.reached = set()  # (METHOD, pattern) that answered 2xx, 302 or 304
        self.checked = 0
        # Literal paths before templates, as the service's table tries its rows.
        self.paths = sorted(document["paths"], key=lambda p: ("{" in p, -len(p)))
        self.error = document["components"]["schemas"]["Error"]

    @staticmethod
    def _regex(pattern):
        parts = re.split(r"(\{[^}]+\})", pattern)
        out = ""
        for i, part in enumerate(parts):
            if part.startswith("{"):
                out += ".+" if i == len(parts) - 2 and parts[-1] == "" else "[^/]+"
            else:
                out += re.escape(part)
        return re.compile(out + r"\Z")

    def operation(self, method, path):
        """(pattern, operation) for a request; (pattern, None) for a known path
        without that method; (None, None) for an unknown path."""
        lowered = path.split("?")[0].lower()
        for pattern in self.paths:
            if self._regex(pattern).match(lowered):
                return pattern, self.document["paths"][pattern].get(method.lower())
        return None, None

    def check(self, method, path, status, headers, body):
        pattern, op = self.operation(method, path)
        content_type = headers.get("Content-Type", "")
        is_json = content_type.startswith("application/json")
        where = f"{method} {path} -> {status}"
        if op is None:
            assert status in (404, 405), f"{where}: not in the document, yet not 404/405"
            jsonschema.validate(json.loads(body), self.error)
            self.checked += 1
            return
        response = op["responses"].get(str(status))
        assert response is not None, f"{where}: status not documented for {method} {pattern}"
        for name in response.get("headers", {}):
            assert name in headers, f"{where}: documented header {name} missing"
        if is_json:
            schema = response.get("content", {}).get("application/json", {}).get("schema")
            assert schema is not None, f"{where}: JSON answer where the document promises none"
            try:
                jsonschema.Draft202012Validator(schema).validate(json.loads(body))
            except jsonschema.ValidationError as e:
                raise AssertionError(f"{where}: {e.message}") from None
            self.checked += 1
        if status < 300 or status in (302, 304):
            self.reached.add((method.upper(), pattern))

    def operations(self):
        return {(m.upper(), p) for p, item in self.document["paths"].items() for m in item}
