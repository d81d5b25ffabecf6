// A headless Chromium of its own, closed again whatever happens.
import {mkdtempSync, rmSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join} from 'node:path';
import puppeteer from 'puppeteer-core';

export const withBrowser = async (use) => {
  const profile = mkdtempSync(join(tmpdir(), 'tqp-chromium-'));
  const browser = await puppeteer.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    headless: true,
    userDataDir: profile,
    protocolTimeout: 240000,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync', '--disable-dev-shm-usage', '--host-resolver-rules=MAP * ~NOTFOUND'],
  });
  try {
    return await use(browser);
  } finally {
    await browser.close();
    rmSync(profile, {recursive: true, force: true, maxRetries: 5});
  }
};
