// The page in headless Chromium (Debian's, driven by playwright-core) against
// the fake effect of fake-effect.mjs: what the page draws, what it sends, what
// the effect's side ends up holding, and screenshots of it all.
//
// LUMBREL_CHROMIUM overrides the browser (default /usr/bin/chromium);
// LUMBREL_WEB_OUT the screenshot folder (default build-page/screenshots).
import { test, describe, before, after, beforeEach, afterEach } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync } from 'node:fs';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { assertCompactColumns, launchChromium } from './headless-chromium.mjs';
import { startFakeEffect, listParams, formatNumber } from './fake-effect.mjs';

const here = dirname(fileURLToPath(import.meta.url));
const shots = resolve(process.env.LUMBREL_WEB_OUT || join(here, '..', '..', '..', 'build-page', 'screenshots'));
const TIMEOUT = 30000;

let context;
let fake;
let page;
let pageErrors;

before(async () => {
  mkdirSync(shots, { recursive: true });
  context = await launchChromium({ width: 800, height: 600 });
});

after(async () => {
  await context?.closeAndClean();
});

/** Opens the page of a new fake effect, and waits until it has drawn the effect's state. */
async function open({ query = '', size = { width: 800, height: 600 } } = {}) {
  fake = await startFakeEffect();
  page = await context.newPage();
  pageErrors = [];
  page.on('pageerror', (e) => pageErrors.push(e.message));
  await page.setViewportSize(size);
  await page.goto(fake.url + query);
  await page.waitForFunction(() => document.getElementById('header')?.textContent === 'Lumbrel: Pitch Shifter');
}

beforeEach(() => { fake = null; page = null; });
afterEach(async () => {
  await page?.close();
  await fake?.close();
  assert.deepEqual(pageErrors ?? [], [], 'the page threw');
});

const path = (...keys) => keys;
const latency = path('engineConfig', 'latencyMs');
const tonality = path('peakShifterConfig', 'tonalityLimit');
const semitones = path('peakShifterConfig', 'semitones');
const channels = path('channelMode');

/** The label of a parameter: found by the legends of its groups and its own name. */
function control(keys) {
  const { param } = listParams(fake.root).find((p) => p.path.join('.') === keys.join('.'));
  let locator = page.locator('#params');
  let group = fake.root;
  for (const key of keys.slice(0, -1)) {
    group = group.members.find((m) => m.key === key);
    locator = locator.locator('fieldset', { has: page.locator(`:scope > legend:text-is("${group.name}")`) });
  }
  const kind = param.constructor.name === 'RangeParam' ? 'label.param-range' : 'label.param-stepped';
  return locator.locator(kind, { has: page.locator(`.name:text-is("${param.name}")`) }).first();
}

/** Waits until the effect has received a message for which `predicate` holds. */
const received = (predicate, what) => fake.waitFor(predicate, 5000).catch(() => assert.fail('effect never got ' + what));
const mergeAt = (keys) => (m) => {
  let v = m;
  for (const k of keys) v = v && typeof v === 'object' && !Array.isArray(v) ? v[k] : undefined;
  return v;
};
/** Polls `condition` for up to 5 s. */
async function until(condition, what) {
  const deadline = Date.now() + 5000;
  while (!condition()) {
    if (Date.now() > deadline) assert.fail('never ' + what);
    await new Promise((r) => setTimeout(r, 20));
  }
}
const shownText = (keys) => control(keys).locator('output').textContent();
async function waitForText(keys, text) {
  const deadline = Date.now() + 5000;
  for (;;) {
    const now = await shownText(keys);
    if (now === text) return;
    if (Date.now() > deadline) assert.equal(now, text, keys.join('.'));
    await page.waitForTimeout(25);
  }
}

describe('the page against a fake Pitch Shifter', { timeout: TIMEOUT * 10 }, () => {
  test('loads, says "ready", and draws every parameter of the effect with its texts', { timeout: TIMEOUT }, async () => {
    await open();
    assert.equal(fake.received[0], 'ready');
    assert.equal(await page.title(), 'Generic QUORL UI');
    // Every control in page order, with the legends above it.
    const drawn = await page.$$eval('label.param-range, label.param-stepped', (labels) => labels.map((l) => {
      const groups = [];
      for (let f = l.closest('fieldset'); f; f = f.parentElement.closest('fieldset')) groups.unshift(f.querySelector(':scope > legend').textContent);
      const units = l.querySelector('.units');
      return [groups.join('/'), l.querySelector('.name').textContent, l.querySelector('output').textContent, units ? units.textContent : null];
    }));
    const expected = listParams(fake.root).map(({ path: keys, param }) => {
      const legends = [];
      let group = fake.root;
      for (const key of keys.slice(0, -1)) {
        group = group.members.find((m) => m.key === key);
        legends.push(group.name);
      }
      return param.unit !== undefined
        ? [legends.join('/'), param.name, formatNumber(param.value, param.precision), param.unit]
        : [legends.join('/'), param.name, param.labels[param.value] ?? String(param.value), null];
    });
    assert.deepEqual(drawn, expected);
    assert.equal(drawn.length, 15);
    await page.screenshot({ path: join(shots, 'pitch-shifter-800x600.png') });
    await page.setViewportSize({ width: 500, height: 300 });
    await page.waitForTimeout(300);
    await page.screenshot({ path: join(shots, 'pitch-shifter-500x300.png') });
  });

  test('dragging a dial sets the parameter on the effect, and the page shows what comes back', { timeout: TIMEOUT }, async () => {
    await open();
    const param = fake.param(latency);
    const startUnit = param.unitOf(param.value);
    const box = await control(latency).locator('.dial').boundingBox();
    const x = box.x + box.width / 2;
    const y = box.y + box.height / 2;
    await page.mouse.move(x, y);
    await page.mouse.down();
    await received((m) => mergeAt([...latency, 'gesture'])(m) === true, 'gesture true');
    await page.mouse.move(x, y - 25, { steps: 5 });
    await page.mouse.move(x, y - 50, { steps: 5 });
    await page.mouse.up();
    await received((m) => mergeAt([...latency, 'gesture'])(m) === false, 'gesture false');
    const unit = startUnit + 50 / 250;
    assert.ok(Math.abs(param.unitOf(param.value) - unit) < 1e-9, `position ${param.unitOf(param.value)}, wanted ${unit}`);
    assert.ok(Math.abs(param.value - param.valueOf(unit)) < 1e-9);
    assert.equal(param.gesture, false);
    assert.deepEqual(fake.gestures.map((g) => g.gesture), [true, false]);
    await waitForText(latency, formatNumber(fake.getValue(latency), 1));
    // A drag below the bottom stops at the bottom of the range.
    await page.mouse.move(x, y);
    await page.mouse.down();
    await page.mouse.move(x, y + 400, { steps: 4 });
    await page.mouse.up();
    await waitForText(latency, '2');
    assert.equal(fake.getValue(latency), 2);
  });

  test('scrolling and the keyboard move a dial; a double press returns it to its default', { timeout: TIMEOUT }, async () => {
    await open();
    const param = fake.param(tonality);
    const startUnit = param.unitOf(param.value);
    const dial = control(tonality).locator('.dial');
    await dial.hover();
    await page.mouse.wheel(0, 25);
    await received((m) => typeof mergeAt([...tonality, 'rangeUnit'])(m) === 'number', 'a rangeUnit');
    await received((m) => mergeAt([...tonality, 'gesture'])(m) === false, 'the scroll gesture\'s end');
    assert.ok(Math.abs(param.unitOf(param.value) - (startUnit + 0.1)) < 1e-9);
    await waitForText(tonality, formatNumber(param.value, 0));
    assert.notEqual(await shownText(tonality), '8000');

    await dial.focus();
    await page.keyboard.press('ArrowUp');
    await until(() => Math.abs(param.unitOf(param.value) - (startUnit + 0.1 + 15 / 250)) < 1e-6, 'moved 15 px up');
    await page.keyboard.press('End');
    await waitForText(tonality, '24000');

    await dial.dblclick();
    await received((m) => mergeAt([...tonality, 'value'])(m) === 8000, 'the default value');
    const together = fake.received.find((m) => mergeAt([...tonality, 'value'])(m) === 8000);
    assert.equal(mergeAt([...tonality, 'gesture'])(together), false, 'value and gesture in one merge');
    await waitForText(tonality, '8000');
    assert.equal(param.value, 8000);
  });

  test('the stepper buttons step within the range and show the labels', { timeout: TIMEOUT }, async () => {
    await open();
    const shifter = control(semitones);
    await shifter.locator('button.up').click();
    await waitForText(semitones, '1');
    assert.equal(fake.getValue(semitones), 1);
    await shifter.locator('button.down').click();
    await shifter.locator('button.down').click({ delay: 20 });
    await page.waitForTimeout(50);
    await shifter.locator('button.down').click();
    await waitForText(semitones, '-2');
    assert.equal(fake.getValue(semitones), -2);

    const mode = control(channels);
    assert.match(await mode.locator('button.up').getAttribute('class'), /\bdisabled\b/, 'at the top');
    await mode.locator('button.up').click();
    await page.waitForTimeout(200);
    assert.equal(fake.getValue(channels), 1);
    await mode.locator('button.down').click();
    await waitForText(channels, 'mono');
    assert.equal(fake.getValue(channels), 0);
    assert.match(await mode.locator('button.down').getAttribute('class'), /\bdisabled\b/);
    assert.doesNotMatch(await mode.locator('button.up').getAttribute('class'), /\bdisabled\b/);
  });

  test('a value the host sets shows on the page', { timeout: TIMEOUT }, async () => {
    await open();
    fake.setValue(latency, 13.25);
    await waitForText(latency, '13.3');
    fake.setValue(semitones, -12);
    await waitForText(semitones, '-12');
    await page.screenshot({ path: join(shots, 'pitch-shifter-after-edits.png') });
  });

  test('the spectrum plot draws, and moves with new spectra', { timeout: TIMEOUT }, async () => {
    await open();
    await received((m) => Array.isArray(m) && m[0] === 'meters' && m[2] === 0.3, 'a meter request');
    await page.waitForTimeout(500);
    const inked = () => page.$$eval('.plot canvas', (canvases) => canvases.map((c) => {
      const data = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
      let lit = 0;
      let sum = 0;
      for (let i = 3; i < data.length; i += 4) if (data[i]) { ++lit; sum += data[i - 1] + data[i - 2] * 3 + data[i - 3] * 7; }
      return { cls: c.className, width: c.width, height: c.height, lit, sum };
    }));
    const first = await inked();
    assert.deepEqual(first.map((c) => c.cls), ['plot-grid', 'plot-data', 'plot-labels']);
    for (const c of first) {
      assert.ok(c.width > 700 && c.height > 100, `${c.cls} sized ${c.width}x${c.height}`);
      assert.ok(c.lit > 500, `${c.cls} drew ${c.lit} pixels`);
    }
    await page.waitForTimeout(400);
    const second = await inked();
    assert.notEqual(second[1].sum, first[1].sum, 'the data layer changed');
    assert.equal(second[0].sum, first[0].sum, 'the grid did not');
    const meters = fake.sent.filter((s) => s.kind === 'meters').length;
    assert.ok(meters >= 5, `${meters} spectra sent`);

    // A GraphXY plot, which no effect of this program sends but the page draws.
    await page.evaluate(() => state.merge({ graph: { $type: 'GraphXY', x: [0, 1, 2, 3], y: [[0, 1, 0.5, 1], [1, 0, 0, 0.5]], minY: 0, maxY: 1 } }));
    await page.waitForSelector('.plot-graph canvas');
    const graphInk = await page.$eval('.plot-graph canvas', (c) => {
      const data = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
      let lit = 0;
      for (let i = 3; i < data.length; i += 4) if (data[i]) ++lit;
      return lit;
    });
    assert.ok(graphInk > 200, `the graph drew ${graphInk} pixels`);
    await page.evaluate(() => state.merge({ graph: null }));
    await page.waitForFunction(() => !document.querySelector('.plot-graph'));

    await page.locator('.plot').dblclick();
    await page.waitForTimeout(300);
    const full = await page.locator('.plot').boundingBox();
    assert.deepEqual([full.width, full.height], [800, 600]);
    await page.screenshot({ path: join(shots, 'pitch-shifter-plot-fullscreen.png') });
    await page.locator('.plot').dblclick();
    await page.waitForTimeout(100);
    assert.ok((await page.locator('.plot').boundingBox()).height < 600);
  });

  test('a page that comes back after "hz" was sent gets its plot again from the next spectrum', { timeout: TIMEOUT }, async () => {
    await open();
    await page.waitForSelector('.plot');
    await page.reload();
    await page.waitForFunction(() => document.getElementById('header')?.textContent === 'Lumbrel: Pitch Shifter');
    await page.waitForSelector('.plot'); // "ready" brought the whole state, and the bands came with the meters
    const legends = await page.$$eval('#params > fieldset > legend', (ls) => ls.map((l) => l.textContent));
    assert.ok(!legends.includes(''), 'no spectrum without "$type" in the group row');
  });

  test('?compact&columns sets both classes and their styles', { timeout: TIMEOUT }, async () => {
    await open({ query: '&compact&columns', size: { width: 500, height: 300 } });
    await assertCompactColumns(page);
    await page.waitForTimeout(300);
    await page.screenshot({ path: join(shots, 'pitch-shifter-compact-columns-500x300.png') });
  });
});
