#!/usr/bin/env python3
"""Double of the code-hosting service's release feed, for tests of the update check.

    release_feed_double.py [--port N] [--mode MODE]

Listens on 127.0.0.1, prints "PORT <n>" first, ends when standard input
closes. GET /releases is the JSON list of releases, GET /releases.atom the
Atom feed of the same releases; point KELVO_RELEASES_URL at <address>/releases.

The releases: v0.3.26300, v0.4 and v0.4.1 published, v0.5.0 a draft,
v0.6.0-rc1 a pre-release, "nightly" a tag that is no version. The newest real
one is v0.4.1. As on GitHub, drafts never appear in the Atom feed and
pre-releases do, unmarked: only their tag tells them apart.

Modes (also switched with POST /_mode?m=MODE):
  json          both answer normally
  ratelimit     the list answers 403 with GitHub's rate-limit message; Atom fine
  garbage-json  the list answers 200 with text that is not JSON; Atom fine
  garbage-xml   the list answers 403 and the Atom feed 200 with broken XML
"""

import argparse
import json
from urllib.parse import parse_qs, urlsplit
from xml.sax.saxutils import escape

from double_server import DoubleHandler, serve

RELEASES = [
    {"tag_name": "v0.3.26300", "name": "Spring fixes", "draft": False, "prerelease": False,
     "body": "Fixes the cache index.\nFaster start.", "published_at": "2026-03-01T10:00:00Z"},
    {"tag_name": "v0.5.0", "name": "Draft", "draft": True, "prerelease": False, "body": "not yet",
     "published_at": None},
    {"tag_name": "v0.4.1", "name": "KELVO 0.4.1", "draft": False, "prerelease": False,
     "body": "Hub sharing.\r\n\r\nModel downloader resumes.\nMore.", "published_at": "2026-06-01T10:00:00Z"},
    {"tag_name": "v0.6.0-rc1", "name": "Preview", "draft": False, "prerelease": True, "body": "preview",
     "published_at": "2026-07-01T10:00:00Z"},
    {"tag_name": "nightly", "name": "Nightly", "draft": False, "prerelease": False, "body": "",
     "published_at": "2026-07-02T10:00:00Z"},
    {"tag_name": "v0.4", "name": "KELVO 0.4", "draft": False, "prerelease": False, "body": "Big one.",
     "published_at": "2026-05-01T10:00:00Z"},
]


class Handler(DoubleHandler):
    mode = "json"

    def do_POST(self):
        url = urlsplit(self.path)
        if url.path != "/_mode":
            return self.send(404, b"not found", "text/plain")
        Handler.mode = parse_qs(url.query).get("m", ["json"])[0]
        self.send(200, b"ok", "text/plain")

    def do_GET(self):
        path = urlsplit(self.path).path
        base = "http://" + self.headers.get("Host", "127.0.0.1")
        if path == "/releases":
            return self.release_list(base)
        if path == "/releases.atom":
            return self.atom(base)
        self.send(404, b'{"message": "Not Found"}', "application/json")

    def release_list(self, base):
        if self.mode in ("ratelimit", "garbage-xml"):
            body = {"message": "API rate limit exceeded for 127.0.0.1.",
                    "documentation_url": "https://docs.github.com/rest/overview/resources-in-the-rest-api"}
            return self.send(403, json.dumps(body).encode(), "application/json")
        if self.mode == "garbage-json":
            return self.send(200, b'[{"tag_name": "v9.9", "draft": fal', "application/json")
        releases = [dict(r, html_url=base + "/releases/tag/" + r["tag_name"]) for r in RELEASES]
        self.send(200, json.dumps(releases).encode(), "application/json; charset=utf-8")

    def atom(self, base):
        if self.mode == "garbage-xml":
            return self.send(200, b"<?xml version='1.0'?><feed><entry><title>v9.9</title></entr", "application/atom+xml")
        entries = []
        for r in RELEASES:
            if r["draft"]:
                continue
            notes = "<p>" + "</p><p>".join(escape(line) for line in r["body"].splitlines() if line) + "</p>"
            entries.append(
                "<entry><id>tag:example.org,2008:Repository/1/%s</id><updated>%s</updated>"
                '<link rel="alternate" type="text/html" href="%s/releases/tag/%s"/>'
                "<title>%s</title><content type=\"html\">%s</content></entry>"
                % (r["tag_name"], r["published_at"], base, r["tag_name"], escape(r["name"]), escape(notes)))
        body = ('<?xml version="1.0" encoding="UTF-8"?><feed xmlns="http://www.w3.org/2005/Atom">'
                "<id>tag:example.org,2008:/kelvo/releases</id><title>Release notes from kelvo</title>"
                + "".join(entries) + "</feed>")
        self.send(200, body.encode(), "application/atom+xml; charset=utf-8")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--mode", default="json")
    args = parser.parse_args()
    Handler.mode = args.mode
    serve(Handler, args.port)


if __name__ == "__main__":
    main()
