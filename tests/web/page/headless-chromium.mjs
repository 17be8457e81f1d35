// What the page tests share in a browser: Debian's Chromium, headless, in a
// throw-away profile (LUMBREL_CHROMIUM overrides /usr/bin/chromium), and the
// checks that hold for any effect's page.
import assert from 'node:assert/strict';
import { mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { chromium } from 'playwright-core';

/** Starts the browser with pages of `viewport` size; `close()` ends it and removes the profile. */
export async function launchChromium(viewport) {
  const profile = mkdtempSync(join(tmpdir(), 'lumbrel-chromium-'));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: process.env.LUMBREL_CHROMIUM || '/usr/bin/chromium',
    headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    viewport,
    deviceScaleFactor: 1,
  });
  context.closeAndClean = async () => {
    await context.close();
    rmSync(profile, { recursive: true, force: true });
  };
  return context;
}

/** A page opened with `?compact&columns`: both classes, the small font, controls in a column, no header. */
export async function assertCompactColumns(page) {
  const style = await page.evaluate(() => ({
    classes: Array.from(document.documentElement.classList),
    rootFont: getComputedStyle(document.documentElement).fontSize,
    body: getComputedStyle(document.body).flexDirection,
    params: getComputedStyle(document.getElementById('params')).flexDirection,
    header: getComputedStyle(document.getElementById('header')).display,
  }));
  assert.ok(style.classes.includes('compact') && style.classes.includes('columns'), style.classes.join(' '));
  assert.equal(style.rootFont, '12px'); // 9pt
  assert.equal(style.body, 'row');
  assert.equal(style.params, 'column');
  assert.equal(style.header, 'none');
}
