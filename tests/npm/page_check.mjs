// The page of one flowpath in a real browser: everything is there, hostile texts are text, nothing is loaded.
//   node page_check.mjs PAGE OTLP_FILE [hostile]     OTLP_FILE: the same flowpath's spans
import assert from 'node:assert/strict';
import {readFileSync} from 'node:fs';
import {resolve} from 'node:path';
import {withBrowser} from './browser.mjs';
import {shown} from './payload.mjs';

const [file, otlp, hostile] = process.argv.slice(2);
const spans = readFileSync(otlp, 'utf8').split('\n').filter(Boolean).map(JSON.parse)
  .flatMap((line) => line.resourceSpans).flatMap((r) => r.scopeSpans).flatMap((s) => s.spans);
const value = (of, key) => Object.values(of.attributes.find((a) => a.key === key)?.value ?? {})[0];
const methods = spans.filter((s) => value(s, 'code.function.name'));
const exceptions = spans.flatMap((s) => s.events ?? []).filter((e) => e.name === 'exception');

await withBrowser(async (browser) => {
  const page = await browser.newPage();
  await page.setViewport({width: 1280, height: 900});
  const troubles = [];
  page.on('console', (message) => troubles.push('console: ' + message.text()));
  page.on('pageerror', (error) => troubles.push('error: ' + error.message));
  page.on('dialog', (dialog) => { troubles.push('dialog'); dialog.dismiss(); });
  page.on('request', (request) => { if (!request.url().startsWith('file://' + resolve(file))) troubles.push('request: ' + request.url()); });
  await page.goto('file://' + resolve(file));
  await page.waitForFunction(() => document.documentElement.dataset.ready === 'yes', {timeout: 60000});
  const facts = await page.evaluate(() => ({
    pwned: window.pwned, scripts: document.scripts.length, images: document.images.length, title: document.querySelector('h1').textContent,
    tree: document.querySelector('#tree h2 small').textContent, exceptions: document.querySelectorAll('#exceptions tbody tr').length,
    stack: document.querySelector('#exceptions pre')?.textContent ?? '', queries: document.querySelectorAll('#queries tbody tr').length,
    details: document.querySelector('#details').textContent, rows: document.querySelectorAll('#tree .row').length,
    text: document.body.textContent, width: document.documentElement.scrollWidth,
  }));
  assert.equal(facts.pwned, undefined, 'a text ran');
  assert.equal(facts.scripts, 2, 'data and script, no more');
  assert.equal(facts.images, 0);
  assert.ok(facts.width <= 1280, 'nothing reaches over the right edge');
  assert.ok(Number.parseInt(facts.tree, 10) >= methods.length, 'every method is a row of the tree: ' + facts.tree);
  assert.ok(facts.rows > 0 && facts.rows < 200, 'only rows in sight are drawn: ' + facts.rows);
  assert.equal(facts.exceptions, exceptions.length, 'exceptions');
  assert.equal(facts.queries, new Set(spans.flatMap((s) => [s, ...(s.events ?? [])]).filter((s) => value(s, 'db.query.text'))
    .map((s) => value(s, 'db.query.text') + ' ' + value(s, 'tqp.backend'))).size, 'queries');
  const server = spans.find((s) => s.kind === 2);
  assert.ok(facts.title.startsWith(value(server, 'url.path')));
  if (hostile) {
    assert.ok(facts.title.endsWith(shown), 'the URL is shown as it is: ' + facts.title);
    assert.ok(facts.stack.endsWith(shown), 'so is a stack trace: ' + facts.stack);
    assert.ok(facts.text.includes('\ufffd'));
  }

  // The whole tree comes by in scrolling; keys fold and unfold.
  const seen = await page.evaluate(async () => {
    const list = document.querySelector('#tree .list'), names = new Set();
    for (let top = 0; top <= list.scrollHeight; top += 200) {
      list.scrollTop = top;
      await new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done)));
      for (const row of list.querySelectorAll('.row')) names.add(row.style.top);
    }
    return names.size;
  });
  assert.equal(seen, Number.parseInt(facts.tree, 10) + Number(/in (\d+) segments/.exec(facts.tree)[1]));
  const height = () => page.evaluate(() => document.querySelector('#tree .space').offsetHeight);
  const before = await height();
  await page.focus('#tree .list');
  for (const key of ['Home', 'ArrowDown', 'ArrowLeft']) await page.keyboard.press(key);
  assert.ok(await height() < before, 'a method folds');
  await page.keyboard.press('ArrowRight');
  assert.equal(await height(), before, 'and unfolds');
  const name = value(methods.at(-1), 'code.function.name');
  await page.type('#tree input', name.slice(name.lastIndexOf('.') + 1));
  assert.ok(await page.evaluate(() => document.querySelectorAll('#tree .row.found').length) > 0, 'what is looked for is found and in sight');

  await page.setViewport({width: 390, height: 800});
  assert.ok(await page.evaluate(() => document.documentElement.scrollWidth) <= 390, 'it fits a narrow screen');
  assert.equal(await page.evaluate(() => window.pwned), undefined);
  if (process.env.SCREENSHOTS) {
    await page.setViewport({width: 1280, height: 900});
    await page.screenshot({path: `${process.env.SCREENSHOTS}/page${hostile ? '_hostile' : ''}.png`, fullPage: true});
  }
  assert.deepEqual(troubles, []);
  console.log(`page: ${facts.tree}, ${facts.queries} queries, ${facts.exceptions} exceptions`);
});
