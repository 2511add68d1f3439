# A calendar subscription server for the tests: serves the .ics files of a folder with an
# ETag (answering 304 to a matching If-None-Match), and a few faults: /loop redirects to
# itself, /html answers a sign-in page, anything missing is 404. Counts requests per path
# in <folder>/hits.txt. Prints the port it listens on.
import http.server, os, sys

folder = sys.argv[1]
hits = {}

class Handler(http.server.BaseHTTPRequestHandler):
    def log_message(self, *args):
        pass

    def do_GET(self):
        hits[self.path] = hits.get(self.path, 0) + 1
        with open(os.path.join(folder, "hits.txt"), "w") as f:
            for p, n in sorted(hits.items()):
                f.write(f"{p} {n}\n")
        if self.path == "/loop":
            self.send_response(302)
            self.send_header("Location", "/loop")
            self.end_headers()
            return
        if self.path == "/html":
            body = b"<!DOCTYPE html><html><body>Sign in</body></html>"
            self.send_response(200)
            self.send_header("Content-Type", "text/html")
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)
            return
        path = os.path.join(folder, self.path.lstrip("/"))
        if not os.path.isfile(path):
            self.send_response(404)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        body = open(path, "rb").read()
        etag = '"%x-%d"' % (hash(body) & 0xFFFFFFFF, len(body))
        if self.headers.get("If-None-Match") == etag:
            self.send_response(304)
            self.send_header("ETag", etag)
            self.end_headers()
            return
        self.send_response(200)
        self.send_header("Content-Type", "text/calendar")
        self.send_header("ETag", etag)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
print(server.server_address[1], flush=True)
server.serve_forever()
