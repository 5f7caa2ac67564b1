"""An OpenTelemetry receiver for tests.

  receiver.py FILE BEHAVIOUR...

Prints its port, and appends a line of JSON to FILE for each request: path, headers, behaviour and
body. Each request is met with the next behaviour, and the last one from then on:

  200 | 400 | 429 | 503 ...   that status; '429+1' asks to come again after one second
  partial:N                   200, but N spans are rejected
  slow:SECONDS                200 after that time
  hangup                      the connection is closed without an answer
"""

import gzip
import http.server
import json
import sys
import threading
import time


class Receiver(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    lock = threading.Lock()
    file = None
    behaviours = []

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        with Receiver.lock:
            more = len(Receiver.behaviours) > 1
            behaviour = Receiver.behaviours.pop(0) if more else Receiver.behaviours[0]
            self.record(behaviour, body)
        if behaviour.startswith("slow:"):
            time.sleep(float(behaviour[5:]))
        if behaviour == "hangup":
            self.close_connection = True
            return
        self.answer(behaviour)

    def record(self, behaviour, body):
        headers = {key.lower(): value for key, value in self.headers.items()}
        if headers.get("content-encoding") == "gzip":
            body = gzip.decompress(body)
        line = {"path": self.path, "headers": headers, "behaviour": behaviour,
                "body": json.loads(body)}
        Receiver.file.write(json.dumps(line) + "\n")
        Receiver.file.flush()

    def answer(self, behaviour):
        status, text = "200", b"{}"
        if behaviour.startswith("partial:"):
            text = json.dumps({"partialSuccess": {"rejectedSpans": behaviour[8:]}}).encode()
        elif behaviour[0].isdigit():
            status = behaviour
        code, _, again = status.partition("+")
        try:
            self.send_response(int(code))
            if again:
                self.send_header("Retry-After", again)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(text)))
            self.end_headers()
            self.wfile.write(text)
        except OSError:
            pass  # the sender has not waited

    def log_message(self, *_):
        pass


def main():
    Receiver.file = open(sys.argv[1], "a", encoding="utf-8")
    Receiver.behaviours = sys.argv[2:]
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Receiver)
    server.daemon_threads = True
    print(server.server_port, flush=True)
    server.serve_forever()


main()
