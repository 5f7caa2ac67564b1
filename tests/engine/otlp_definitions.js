// Compares export requests with OpenTelemetry's own message definitions: each line of a file must
// survive, with nothing lost and nothing added, the way through a message and its bytes.
//
//   node otlp_definitions.js DEFINITIONS-DIR FILE
//
// Prints how many requests and spans were compared.

"use strict";
const fs = require("fs");
const path = require("path");
const assert = require("assert");

const [directory, file] = process.argv.slice(2);
const root = require(path.join(directory, "root.js"));
const Request = root.opentelemetry.proto.collector.trace.v1.ExportTraceServiceRequest;
const ID_LENGTHS = {traceId: 32, spanId: 16, parentSpanId: 16};

// The protocol writes ids as hexadecimal digits where the general mapping to JSON has base64.
function withBase64(value) {
  if (Array.isArray(value)) return value.map(withBase64);
  if (value === null || typeof value !== "object") return value;
  const copy = {};
  for (const [key, member] of Object.entries(value)) {
    if (key in ID_LENGTHS) {
      assert.match(member, new RegExp(`^[0-9a-f]{${ID_LENGTHS[key]}}$`), key);
      copy[key] = Buffer.from(member, "hex").toString("base64");
    } else {
      copy[key] = withBase64(member);
    }
  }
  return copy;
}

let requests = 0;
let spans = 0;
for (const line of fs.readFileSync(file, "utf8").split("\n").filter(Boolean)) {
  const expected = withBase64(JSON.parse(line));
  const bytes = Request.encode(Request.fromObject(expected)).finish();
  const as = {longs: String, bytes: String, enums: Number};
  const got = Request.toObject(Request.decode(bytes), as);
  assert.deepStrictEqual(JSON.parse(JSON.stringify(got)), expected);
  ++requests;
  for (const resource of expected.resourceSpans) spans += resource.scopeSpans[0].spans.length;
}
console.log(`${requests} requests, ${spans} spans`);
