// tqshow sends OTLP to a real HTTP server that answers as endpoints do on bad days.
//   node push_check.mjs TQSHOW WORK_DIR OTLP_FILE     OTLP_FILE: the export of the same flowpaths
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {readFileSync} from 'node:fs';
import {createServer} from 'node:http';
import {gunzipSync} from 'node:zlib';

const [tqshow, dir, otlp] = process.argv.slice(2);
const lines = readFileSync(otlp, 'utf8').split('\n').filter(Boolean);
const spanCount = (line) => JSON.parse(line).resourceSpans.flatMap((r) => r.scopeSpans).flatMap((s) => s.spans).length;
const allSpans = lines.reduce((sum, line) => sum + spanCount(line), 0);

// Runs tqshow against a server; `answer(request, number)` gives [status, headers, body], or null to hang up.
const push = async (answer, path = '', more = []) => {
  const requests = [];
  const server = createServer((request, response) => {
    const chunks = [];
    request.on('data', (chunk) => chunks.push(chunk));
    request.on('end', () => {
      requests.push({url: request.url, method: request.method, headers: request.headers, body: gunzipSync(Buffer.concat(chunks)).toString()});
      const given = answer(requests.at(-1), requests.length);
      if (!given) return request.socket.destroy();
      response.writeHead(given[0], given[1] ?? {});
      response.end(given[2] ?? '');
    });
  });
  await new Promise((ready) => server.listen(0, '127.0.0.1', ready));
  const child = spawn(tqshow, ['--dir', dir, '--testrun', '1', '--errors', '--push', `http://127.0.0.1:${server.address().port}${path}`, ...more]);
  let errors = '';
  child.stderr.on('data', (text) => { errors += text; });
  const status = await new Promise((ended) => child.on('close', ended));
  server.closeAllConnections();
  server.close();
  return {requests, status, errors};
};

{ // a good endpoint gets each document once, as it is in the file
  const {requests, status, errors} = await push(() => [200, {}, '{"partialSuccess":{}}'], '', ['--push-header', 'Authorization: Bearer x y']);
  assert.equal(status, 0, errors);
  assert.deepEqual(requests.map((r) => r.body), lines);
  for (const r of requests) {
    assert.equal(r.method + ' ' + r.url, 'POST /v1/traces');
    assert.equal(r.headers['content-type'], 'application/json');
    assert.equal(r.headers['content-encoding'], 'gzip');
    assert.equal(r.headers.authorization, 'Bearer x y');
  }
  assert.match(errors, new RegExp(`${allSpans} spans sent in ${lines.length} requests, 0 refused, 0 lost`));
}
{ // a busy one gets the same document again, after the time it asks for; a path of its own is kept
  const times = [];
  const {requests, status, errors} = await push((request, number) => {
    times.push(Date.now());
    return [[503, {'Retry-After': '2'}], null, [429], [200]][Math.min(number - 1, 3)];
  }, '/in/here?key=1');
  assert.equal(status, 0, errors);
  assert.equal(requests.length, lines.length + 3);
  assert.ok(requests.slice(0, 4).every((r) => r.body === lines[0] && r.url === '/in/here?key=1'));
  assert.ok(times[1] - times[0] >= 1900, 'Retry-After is kept to: ' + (times[1] - times[0]));
  assert.match(errors, /0 refused, 0 lost/);
}
{ // what is refused for good is not sent again, and reported with the reason, fit for a terminal
  const {requests, status, errors} = await push((request, number) => (number === 1 ? [400, {}, 'no \x1b[2J such field'] : [200]));
  assert.equal(status, 1);
  assert.equal(requests.length, lines.length);
  assert.match(errors, new RegExp(`0 refused, ${spanCount(lines[0])} lost`));
  assert.match(errors, /answered 400: no \?\[2J such field/);
}
{ // spans refused out of a document that was taken
  const {status, errors} = await push((request, number) =>
    [200, {}, number === 1 ? '{"partialSuccess":{"rejectedSpans":"5","errorMessage":"too old"}}' : '']);
  assert.equal(status, 1);
  assert.match(errors, new RegExp(`${allSpans - 5} spans sent in .*, 5 refused, 0 lost`));
  assert.match(errors, /refused spans: too old/);
}
{ // nowhere: six tries for the first document, one for each other
  const {requests, status, errors} = await push(() => [503]);
  assert.equal(status, 1);
  assert.equal(requests.length, 6 + lines.length - 1);
  assert.match(errors, new RegExp(`0 spans sent in .*, ${allSpans} lost`));
}
for (const [url, words] of [['file:///etc/passwd', /not a URL of http/], ['http://[', /not a valid URL/]]) {
  const child = spawn(tqshow, ['--dir', dir, '--testrun', '1', '--push', url]);
  let errors = '';
  child.stderr.on('data', (text) => { errors += text; });
  assert.equal(await new Promise((ended) => child.on('close', ended)), 1);
  assert.match(errors, words);
}
console.log(`push: ${lines.length} documents, ${allSpans} spans`);
