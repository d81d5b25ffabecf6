// The OTLP export is decoded with OpenTelemetry's published protocol definitions; every parent exists.
//   node otlp_check.mjs TESTRUN_DIR OTLP_FILE OTLP_FILE_AGAIN
import assert from 'node:assert/strict';
import {readFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {exceptionRows, flowpathRows, methodTimings} from './testrun.mjs';

const require = createRequire(import.meta.url);
const {join, dirname} = require('node:path');
const root = require(join(dirname(require.resolve('@opentelemetry/otlp-transformer/package.json')), 'build/src/generated/root.js'));
const Request = root.opentelemetry.proto.collector.trace.v1.ExportTraceServiceRequest;

const [base, file, again] = process.argv.slice(2);
const bytes = readFileSync(file);
assert.ok(bytes.equals(readFileSync(again)), 'a second export is the same, ids included');

// JSON has ids in hexadecimal, which the definitions have as bytes. Everything else is theirs to understand: what they do not
// know, or know as something else, does not come back.
const withBytes = (span) => ({...span, traceId: Buffer.from(span.traceId, 'hex'), spanId: Buffer.from(span.spanId, 'hex'),
  ...(span.parentSpanId && {parentSpanId: Buffer.from(span.parentSpanId, 'hex')})});

const decoded = (line) => {
  const json = JSON.parse(line);
  for (const resource of json.resourceSpans)
    for (const scope of resource.scopeSpans) scope.spans = scope.spans.map(withBytes);
  const message = Request.fromObject(json);
  assert.equal(Request.verify(message), null);
  const back = Request.toObject(Request.decode(Request.encode(message).finish()), {longs: String, enums: Number});
  const plain = (value) => JSON.parse(JSON.stringify(value, (key, v) => (key === 'events' && v.length === 0 ? undefined : v)));
  assert.deepEqual(plain(back), plain(Request.toObject(message, {longs: String, enums: Number})));
  assert.deepEqual(plain(back), plain(json), 'the definitions know every member');
  return back;
};

const spans = new Map();
const parents = [];
const kinds = [0, 0, 0, 0, 0, 0];
let exceptions = 0;
const calls = new Map();
const attribute = (of, key) => of.attributes.find((a) => a.key === key)?.value;
for (const line of bytes.toString().split('\n').filter(Boolean))
  for (const resource of decoded(line).resourceSpans) {
    assert.ok(attribute(resource.resource, 'service.name').stringValue);
    for (const span of resource.scopeSpans.flatMap((scope) => scope.spans)) {
      const id = span.spanId.toString('hex');
      assert.equal(span.traceId.length, 16);
      assert.equal(id.length, 16);
      assert.ok(!spans.has(id), 'span ids are unique: ' + id);
      spans.set(id, span.traceId.toString('hex'));
      if (span.parentSpanId?.length) parents.push([span.parentSpanId.toString('hex'), span.traceId.toString('hex'), span.name]);
      assert.ok(BigInt(span.startTimeUnixNano) <= BigInt(span.endTimeUnixNano));
      assert.ok(span.name);
      ++kinds[span.kind];
      const keys = span.attributes.map((a) => a.key);
      assert.ok(keys.every(Boolean));
      if (span.kind === 2) for (const key of ['http.request.method', 'url.path']) assert.ok(keys.includes(key), key);
      if (keys.includes('db.system.name') && keys.includes('db.query.text')) assert.equal(span.kind, 3);
      for (const event of (span.events ?? []).filter((e) => e.name === 'exception')) {
        ++exceptions;
        assert.ok(attribute(event, 'exception.type').stringValue);
        assert.ok(attribute(event, 'exception.stacktrace').stringValue);
      }
      const method = attribute(span, 'code.function.name')?.stringValue;
      if (method) calls.set(method, (calls.get(method) ?? 0) + 1);
    }
  }
for (const [parent, trace, name] of parents) {
  assert.ok(spans.has(parent), 'the parent of ' + name + ' exists: ' + parent);
  assert.equal(spans.get(parent), trace, 'a parent is of the same trace');
}
const rows = flowpathRows(base);
const called = rows.filter((row) => row.split(',')[5] !== '1').length;
assert.equal(spans.size - parents.length, rows.length - called, 'what no tier has called is a root, and nothing else');
assert.ok(called > 10, 'some flowpaths were called by other tiers');
assert.equal(exceptions, exceptionRows(base).length, 'every exception is an event');
const expected = new Map();
for (const [name, sum] of methodTimings(base)) {
  const method = name.slice(0, name.indexOf('('));
  expected.set(method, (expected.get(method) ?? 0) + sum.calls);
}
for (const [method, count] of expected) assert.equal(calls.get(method) ?? 0, count, 'calls of ' + method);
for (const kind of [1, 2, 3, 4]) assert.ok(kinds[kind] > 0, 'spans of kind ' + kind);
console.log(`OTLP: ${spans.size} spans, ${parents.length} parents, ${exceptions} exceptions, ${calls.size} methods agree`);
