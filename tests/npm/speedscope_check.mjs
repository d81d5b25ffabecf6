// speedscope's own importer reads the three profile formats; its totals are those of the method timing rows.
//   node speedscope_check.mjs TESTRUN_DIR EXPORTS_DIR     (profile.chrome, profile.speedscope, profile.self, profile.calls)
// speedscope's application is opened in a browser, gets each file as if dropped into it, and saves what it made of it: the
// saved profiles are what its importer has understood.
import assert from 'node:assert/strict';
import {readFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {dirname, join} from 'node:path';
import {withBrowser} from './browser.mjs';
import {methodTimings} from './testrun.mjs';

const [base, exports_] = process.argv.slice(2);
const app = join(dirname(createRequire(import.meta.url).resolve('speedscope/package.json')), 'dist/release/index.html');

const imported = async (browser, name) => {
  const page = await browser.newPage();
  await page.evaluateOnNewDocument(() => {
    HTMLAnchorElement.prototype.click = () => {}; // nothing is downloaded
    URL.createObjectURL = (blob) => { blob.text().then((text) => { window.saved = text; }); return ''; };
  });
  await page.goto('file://' + app + '#localProfilePath=/nowhere');
  await page.waitForFunction(() => window.speedscope);
  const content = readFileSync(join(exports_, name)).toString('base64');
  await page.evaluate((file, base64) => window.speedscope.loadFileFromBase64(file, base64), name, content);
  for (let tries = 0; ; ++tries) { // until it has read the file, there is nothing to save
    await page.keyboard.down('Control');
    await page.keyboard.press('s');
    await page.keyboard.up('Control');
    if (await page.evaluate(() => Boolean(window.saved))) break;
    assert.ok(tries < 600, name + ': speedscope has not read it');
    await new Promise((done) => setTimeout(done, 100));
  }
  const saved = JSON.parse(await page.evaluate(() => window.saved));
  await page.close();
  return saved;
};

// Self weight by frame name, over all profiles.
const selfTotals = (file) => {
  const totals = new Map();
  const add = (frame, weight) => {
    const name = file.shared.frames[frame].name.replace(/ \{(".*)?\}$/, ''); // it adds a trace event's arguments to the name
    totals.set(name, (totals.get(name) ?? 0) + weight);
  };
  for (const profile of file.profiles) {
    if (profile.type === 'sampled') {
      profile.samples.forEach((stack, i) => add(stack.at(-1), profile.weights[i]));
      continue;
    }
    const open = [];
    let last = profile.startValue;
    for (const event of profile.events) {
      if (open.length) add(open.at(-1), event.at - last);
      last = event.at;
      if (event.type === 'O') open.push(event.frame);
      else assert.equal(open.pop(), event.frame, 'frames lie one in the other');
    }
    assert.equal(open.length, 0);
  }
  return totals;
};

// `tolerance`: ms. Trace events of no length have 1 us each, which their neighbours lose.
const same = (what, totals, expected, unit, tolerance = 0.001) => {
  let compared = 0;
  for (const [name, value] of expected) {
    if (value === 0) continue;
    const got = (totals.get(name) ?? 0) / unit;
    assert.ok(Math.abs(got - value) <= tolerance, `${what}: ${name}: speedscope has ${got}, the timing rows ${value}`);
    ++compared;
  }
  assert.ok(compared > 100, what + ': too few methods to compare: ' + compared);
  console.log(`${what}: ${compared} methods agree`);
};

const timings = methodTimings(base);
const column = (pick) => new Map([...timings].map(([name, sum]) => [name.replaceAll(';', ':'), pick(sum)]));
const exact = (pick) => new Map([...timings].map(([name, sum]) => [name, pick(sum)]));

await withBrowser(async (browser) => {
  const speedscope = await imported(browser, 'profile.speedscope');
  same('speedscope', selfTotals(speedscope), exact((sum) => sum.self), 1);
  const chrome = await imported(browser, 'profile.chrome');
  assert.ok(chrome.profiles.length > 4, 'a profile for each lane');
  same('chrome', selfTotals(chrome), exact((sum) => sum.self), 1000, 0.1);
  same('folded, self', selfTotals(await imported(browser, 'profile.self')), column((sum) => sum.self), 1);
  same('folded, calls', selfTotals(await imported(browser, 'profile.calls')), column((sum) => sum.calls), 1);
});
