// Debian's Chromium, headless, in a throw-away profile, for the page tests.
// LUMBREL_CHROMIUM overrides the browser (default /usr/bin/chromium).
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
