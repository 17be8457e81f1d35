// lumbrel-render --demo rendered once (LUMBREL_RENDER, LUMBREL_BUNDLE), its page in headless Chromium as a reader
// sees it; LUMBREL_UPDATE_DOCS=1 also writes the README's pictures to docs/.
import { after, before, test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { copyFileSync, existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath, pathToFileURL } from 'node:url';

const repoDir = resolve(dirname(fileURLToPath(import.meta.url)), '..', '..', '..');
const { LUMBREL_RENDER: tool, LUMBREL_BUNDLE: bundle } = process.env;
const { chromium } = await import('playwright-core').catch(() => ({})); // without it, the page part is skipped
const skip = !tool || !bundle ? 'needs LUMBREL_RENDER and LUMBREL_BUNDLE' : false;
const plugins = ['pitch-shifter-layer1', 'octaver', 'cleanup', 'chorus', 'chorus-detune', 'transients', 'swell',
  'decay-scale', 'frequency-snap', 'shepard-drop'];
let folder, report;
before(() => {
  if (skip) return;
  folder = mkdtempSync(join(tmpdir(), 'lumbrel-demo-page-'));
  report = execFileSync(tool, ['--demo', folder, bundle], { encoding: 'utf8' });
});
after(() => folder && rmSync(folder, { recursive: true, force: true }));

// The samples of a WAV file (a float WAV's header holds the time it was written).
const samples = (path) => {
  const bytes = readFileSync(path);
  const at = bytes.indexOf('data', 12, 'latin1');
  return bytes.subarray(at + 8, at + 8 + bytes.readUInt32LE(at + 4));
};

test('the demo writes a file per plug-in, as long as the input and not silent', { skip }, () => {
  const input = samples(join(folder, 'input.wav'));
  assert.equal(input.length, 8 * 48000 * 2 * 4, '8 s of 32-bit float stereo');
  const page = readFileSync(join(folder, 'index.html'), 'utf8');
  for (const name of plugins) {
    const out = samples(join(folder, `${name}.wav`));
    let sum = 0;
    for (let i = 0; i < out.length; i += 8) sum += out.readFloatLE(i) ** 2; // the left channel
    assert.ok(out.length === input.length && Math.sqrt(sum / (out.length / 8)) > 0.01, `${name}: as long, not silent`);
    assert.ok(page.includes(`src="${name}.wav"`) && existsSync(join(folder, `${name}.png`)), name);
  }
  // A setting for a parameter that isn't there yet is a note, not a failure.
  for (const line of report.split('\n').filter((l) => l.includes('note:'))) assert.match(line, /skipped|spectrograms/, line);
});

test('the demo page reads well and its commands make its files again',
  { skip: skip || (!chromium && 'needs playwright-core'), timeout: 600000 }, async () => {
  const profile = mkdtempSync(join(tmpdir(), 'lumbrel-chromium-')); // Debian's Chromium, or LUMBREL_CHROMIUM
  const browser = await chromium.launchPersistentContext(profile, { headless: true, viewport: { width: 1280, height: 900 },
    executablePath: process.env.LUMBREL_CHROMIUM || '/usr/bin/chromium', args: ['--no-sandbox', '--disable-gpu'] });
  try {
    const page = await browser.newPage();
    await page.goto(pathToFileURL(join(folder, 'index.html')).href);
    await page.waitForFunction(() => Array.from(document.images).every((i) => i.complete));
    const sections = await page.$$eval('section', (all) => all.map((s) => ({ id: s.id,
      listen: s.querySelector('.listen')?.textContent ?? '', command: s.querySelector('pre.command')?.textContent ?? '',
      automation: s.querySelectorAll('.automation polyline').length })));
    assert.equal(sections.length, 10);
    const contents = await page.$$eval('#contents a', (links) => links.map((a) => a.getAttribute('href')));
    assert.deepEqual(contents, sections.map((s) => `#${s.id}`), 'the contents list every example, in order');
    for (const s of sections) {
      assert.match(s.listen, /^Listen for: \S/, s.id);
      assert.match(s.command, new RegExp(`^lumbrel-render --plugin ${s.id} .*input\\.wav \\S*${s.id}\\.wav$`), s.command);
      assert.equal(s.automation, s.command.includes('--automate') ? 1 : 0, `${s.id}: automation drawn as a course`);
    }
    assert.ok(sections.some((s) => s.automation), 'one example automates');
    // Every picture loaded; its axis labels are at least 12 px and don't touch one another.
    const figures = await page.$$eval('.spectrogram', (all) => all.map((figure) => {
      const img = figure.querySelector('img');
      const boxes = (selector) => Array.from(figure.querySelectorAll(selector)).map((e) => {
        const { top, bottom, left, right } = e.getBoundingClientRect();
        return { text: e.textContent, top, bottom, left, right, size: parseFloat(getComputedStyle(e).fontSize) };
      });
      const { top, bottom } = img.getBoundingClientRect();
      return { loaded: img.complete && img.naturalWidth === 800, hz: boxes('.hz'), seconds: boxes('.seconds span'),
        top, bottom };
    }));
    assert.equal(figures.length, 20);
    for (const f of figures) {
      assert.ok(f.loaded && f.hz[0].text === '50 Hz' && f.hz.some((b) => b.text === '20 kHz'), JSON.stringify(f.hz));
      for (const b of [...f.hz, ...f.seconds]) assert.ok(b.size >= 12 && b.left >= 0, JSON.stringify(b));
      const apart = (boxes, a, b) => boxes.slice(1).every((box, i) => box[a] >= boxes[i][b] - 0.5);
      const hz = [...f.hz].sort((x, y) => x.top - y.top);
      assert.ok(apart(hz, 'top', 'bottom'), JSON.stringify(hz));
      assert.ok(hz[0].top >= f.top - 0.5 && hz.at(-1).bottom <= f.bottom + 0.5, 'labels within the picture');
      assert.ok(apart(f.seconds, 'left', 'right'), JSON.stringify(f.seconds));
    }
    // The page's commands, run as written, make the same audio.
    for (const s of sections.filter((x) => x.id === 'octaver' || x.automation)) {
      const made = join(folder, `${s.id}.wav`);
      copyFileSync(made, `${made}.demo`);
      const command = s.command.replace(/^lumbrel-render/, `'${tool}' --bundle '${bundle}' -q`);
      execFileSync('sh', ['-c', command], { stdio: 'inherit' });
      const [again, first] = [samples(made), samples(`${made}.demo`)];
      assert.ok(first.length > 0 && again.equals(first), `${s.id}: the command makes the same audio`);
    }
    for (const [part, name] of process.env.LUMBREL_UPDATE_DOCS ? [['before', 'input'], ['after', 'octaver']] : []) {
      await page.locator(`#octaver .${part} .spectrogram`).screenshot({ path: `${repoDir}/docs/demo-${name}.png` });
    }
  } finally {
    await browser.close();
    rmSync(profile, { recursive: true, force: true });
  }
});
