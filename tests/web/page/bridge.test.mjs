// Each plug-in of the built bundle ($LUMBREL_BUILD_DIR) in lumbrel-editor-host, its page in headless Chromium:
// what the page draws and does, checked against the CLAP side. Screenshots: $LUMBREL_WEB_OUT/bridge.
import { test, describe, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { request } from 'node:http';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { chromium } from 'playwright-core';
import WebSocket from 'ws';
import { startEditorBridge, findBuild, listPlugins, decode, repoDir } from '../../../tools/bridge/editor-bridge.mjs';

const CBOR = createRequire(import.meta.url)(join(repoDir, 'src', 'web', 'page', 'cbor.min.js'));
const shots = join(resolve(process.env.LUMBREL_WEB_OUT || join(repoDir, 'build-page', 'screenshots')), 'bridge');
const TIMEOUT = 60000;

const build = findBuild();
const noBuild = build.missing.length
  ? `no C++ build: ${build.missing.join(', ')} missing (run scripts/build.sh, or set LUMBREL_BUILD_DIR)` : false;
if (noBuild && process.env.CI) throw new Error(noBuild);
// LUMBREL_BRIDGE_PLUGINS=swell,octaver limits the editors tested (by the id's last part).
const shortName = (id) => id.slice(id.lastIndexOf('.') + 1);
const only = process.env.LUMBREL_BRIDGE_PLUGINS?.split(',').filter(Boolean);
const allPlugins = noBuild ? [] : listPlugins();
const plugins = only ? allPlugins.filter((p) => only.includes(shortName(p.id))) : allPlugins;

/** A parameter's id as a host sees it: CRC-32 of each key followed by a zero byte. */
function keyPathId(keys) {
  let crc = 0xffffffff;
  for (const byte of Buffer.from(keys.map((k) => k + '\0').join(''), 'utf8')) {
    crc ^= byte;
    for (let k = 0; k < 8; ++k) crc = crc & 1 ? (crc >>> 1) ^ 0xedb88320 : crc >>> 1;
  }
  return ~crc >>> 0;
}

/** Texts compared without blanks: the page shows number and unit apart, value_to_text as one string. */
const squeeze = (text) => text.replace(/\s+/g, '');
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

/** Polls `read` until `done(value)`; fails with `what` and the last value after `ms`. */
async function until(read, done, what, ms = 5000) {
  for (const deadline = Date.now() + ms; ; await sleep(25)) {
    const value = await read();
    if (done(value)) return value;
    if (Date.now() > deadline) assert.fail(`${what}; last seen ${JSON.stringify(value)}`);
  }
}

/** Every control the page drew, in page order: [legends above it, name, kind, shown text with units]. */
const drawnControls = (page) => page.$$eval('label.param-range, label.param-stepped', (labels) => labels.map((l) => {
  const groups = [];
  for (let f = l.closest('fieldset'); f; f = f.parentElement.closest('fieldset')) groups.unshift(f.querySelector(':scope > legend').textContent);
  return [groups.join('/'), l.querySelector('.name').textContent, l.classList.contains('param-stepped') ? 'stepped' : 'range',
    (l.querySelector('output').textContent + (l.querySelector('.units')?.textContent ?? '')).replace(/\s+/g, '')];
}));

/** The ink of each plot canvas: lit pixels and a checksum of their colours. */
const plotInk = (page) => page.$$eval('.plot canvas', (canvases) => canvases.map((c) => {
  const data = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
  let [lit, sum] = [0, 0];
  for (let i = 3; i < data.length; i += 4) if (data[i]) lit++, sum += data[i - 1] + data[i - 2] * 3 + data[i - 3] * 7 + data[i] * 11;
  return { cls: c.className, width: c.width, height: c.height, lit, sum };
}));

// Debian's Chromium, headless, in a throw-away profile.
let context, profile;

before(async () => {
  if (noBuild) return;
  mkdirSync(shots, { recursive: true });
  profile = mkdtempSync(join(tmpdir(), 'lumbrel-chromium-'));
  context = await chromium.launchPersistentContext(profile, { executablePath: process.env.LUMBREL_CHROMIUM || '/usr/bin/chromium',
    headless: true, args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    viewport: { width: 500, height: 300 }, deviceScaleFactor: 1 });
});
after(async () => { await context?.close(); if (profile) rmSync(profile, { recursive: true, force: true }); });

describe('the editor bridge', { skip: noBuild, timeout: TIMEOUT * 4 }, () => {
  let bridge;
  const origin = () => `http://127.0.0.1:${bridge.port}`;

  before(async () => { bridge = await startEditorBridge({ plugin: allPlugins[0].id }); });
  after(async () => { await bridge?.close(); });

  test('serves the page files that the bundle embeds, byte for byte, with their media types, to this machine only', async () => {
    assert.equal(allPlugins.length, 10);
    assert.equal(bridge.plugin.uri, '/index.html');
    const pageDir = join(repoDir, 'src', 'web', 'page');
    for (const [path, type] of [['/index.html', 'html'], ['/cbor.min.js', 'javascript'], ['/zelmar-bundle.min.js', 'javascript']]) {
      const response = await fetch(origin() + path + '?v=1');
      assert.deepEqual([response.status, response.headers.get('content-type')], [200, `text/${type};charset=utf-8`], path);
      assert.ok(Buffer.from(await response.arrayBuffer()).equals(readFileSync(join(pageDir, path.slice(1)))), `${path} as committed`);
    }
    for (const path of ['/index.htmlx', '/html/index.html', '/page.js']) assert.equal((await fetch(origin() + path)).status, 404, path);
    const root = await fetch(origin() + '/', { redirect: 'manual' });
    assert.deepEqual([root.status, root.headers.get('location')], [302, `/index.html?ws=${bridge.port}`]);
    const status = (host) => new Promise((r, j) => request({ host: '127.0.0.1', port: bridge.port, path: '/index.html',
      headers: { Host: host } }, (response) => r(response.resume().statusCode)).on('error', j).end());
    assert.deepEqual([await status('example.com'), await status(`localhost:${bridge.port}`)], [403, 200]);
    const socket = new WebSocket(`ws://127.0.0.1:${bridge.port}/`, { origin: 'http://example.com' });
    const error = await new Promise((r) => { socket.once('error', r); socket.once('open', () => r(null)); });
    assert.ok(error, 'a WebSocket from a page of another origin is refused');
    socket.terminate();
  });

  test('"ready" brings the whole state; a meter request brings spectra for its lease, then none', async () => {
    const socket = Object.assign(new WebSocket(`ws://127.0.0.1:${bridge.port}/`, { origin: origin() }), { messages: [] });
    socket.on('message', (data) => socket.messages.push(decode(data)));
    await new Promise((r, j) => { socket.once('open', r); socket.once('error', j); });
    socket.send(CBOR.encode('ready'));
    const whole = await until(() => socket.messages.find((m) => m && !Array.isArray(m) && 'name' in m), Boolean, 'no whole state');
    assert.ok(!('analysisSpectrum' in whole), 'the spectrum is the audio thread\'s: it comes with the meters');
    // One spectrum per 20 ms for 0.3 s: 960 samples pass every 4th block of 256 (21.3 ms), so about 14.
    const start = socket.messages.length;
    socket.send(CBOR.encode(['meters', 0.02, 0.3]));
    await sleep(800);
    const spectra = socket.messages.slice(start).filter((m) => Array.isArray(m) && m[0] === 'meters');
    assert.ok(spectra.length >= 7 && spectra.length <= 16, `${spectra.length} spectra in the lease`);
    const [, { analysisSpectrum: first }] = spectra[0];
    assert.equal(first.$type, 'Spectrum', 'after "ready" the first spectrum brings the bands');
    assert.ok(first.hz instanceof Float32Array && first.hz.length > 100);
    for (const [index, [, { analysisSpectrum }]] of spectra.entries()) {
      assert.equal('hz' in analysisSpectrum, index === 0, 'the bands come once');
      assert.ok(analysisSpectrum.energy.length >= 1);
      for (const row of analysisSpectrum.energy) assert.equal(row.length, first.hz.length);
    }
    const settled = socket.messages.length;
    await sleep(400);
    assert.equal(socket.messages.length, settled, 'no spectra after the lease');
    socket.close();
  });
});

for (const { id, name } of plugins) {
  describe(`the editor of ${name}`, { timeout: TIMEOUT * 6 }, () => {
    let bridge, page, params;
    const pageErrors = [];
    const file = (suffix) => join(shots, `${shortName(id)}${suffix}.png`);

    /** Opens the page (with `query` added) and waits until it shows the plug-in's name. */
    async function open(query = '') {
      const start = bridge.sent.length;
      await page.goto(bridge.url + query);
      const whole = await until(() => bridge.sent.slice(start).map((s) => s.message)
        .find((m) => m && !Array.isArray(m) && typeof m.name === 'string'), Boolean, 'no whole state after "ready"');
      await page.waitForFunction((n) => document.getElementById('header')?.textContent === n, whole.name);
      return whole;
    }

    const control = (index) => page.locator('label.param-range, label.param-stepped').nth(index);
    /** Waits until the page shows what value_to_text says of the plug-in's value, number and unit together. */
    async function showsPluginText(index) {
      const { text } = await bridge.value(params[index].id);
      await until(async () => (await drawnControls(page))[index][3], (s) => s === squeeze(text),
        `${params[index].name} never showed "${text}"`);
    }
    /** Parameter events the plug-in sent the host for `paramId`, until one passes `done`. */
    async function eventsUntil(paramId, done) {
      const events = [];
      await until(async () => {
        events.push(...(await bridge.paramEvents()).filter((e) => e.id === paramId));
        return events;
      }, (e) => e.some(done), `no ${done} event for ${paramId}`);
      return events;
    }

    before(async () => {
      bridge = await startEditorBridge({ plugin: id });
      params = await bridge.params();
      page = await context.newPage();
      page.on('pageerror', (e) => pageErrors.push(e.message));
    });
    after(async () => {
      await page?.close(); await bridge?.close();
      assert.deepEqual(pageErrors, [], 'the page threw');
      assert.deepEqual(bridge?.exited, { code: 0, signal: null }, 'lumbrel-editor-host ended cleanly');
    });

    test('loads, says "ready", and draws every parameter the plug-in lists with the plug-in\'s texts', async () => {
      const whole = await open();
      assert.equal(bridge.received[0], 'ready');
      assert.equal(await page.locator('#header').textContent(), whole.name);
      for (const p of params) assert.ok(p.keys.length > 0 && keyPathId(p.keys) === p.id, `id of ${p.name}: ${p.keys.join('.')}`);
      assert.deepEqual(await drawnControls(page),
        params.map((p) => [p.groups.join('/'), p.name, p.stepped ? 'stepped' : 'range', squeeze(p.text)]));
      await page.waitForSelector('.plot canvas.plot-data');
      await sleep(400);
      await page.screenshot({ path: file('') });
      await page.setViewportSize({ width: 800, height: 600 }); // at 500x300 the plot can cover controls
      // The spectrum plot draws, and moves with the test signal.
      await bridge.waitFor((m) => Array.isArray(m) && m[0] === 'meters' && m[2] === 0.3);
      await sleep(300);
      const first = await plotInk(page);
      assert.deepEqual(first.map((c) => c.cls), ['plot-grid', 'plot-data', 'plot-labels']);
      for (const c of first) assert.ok(c.width >= 700 && c.height >= 100 && c.lit > 200, JSON.stringify(c));
      await sleep(400);
      const second = await plotInk(page);
      assert.notEqual(second[1].sum, first[1].sum, 'the data layer changed');
      assert.equal(second[0].sum, first[0].sum, 'the grid did not');
    });

    test('dragging, scrolling and double-pressing the first dial set the plug-in\'s parameter', async (t) => {
      const index = params.findIndex((p) => !p.stepped);
      if (index < 0) return t.skip('no ranged parameter');
      const param = params[index];
      const dial = control(index).locator('.dial');
      const position = async () => (await bridge.value(param.id)).value;
      const near = (target) => (v) => Math.abs(v - target) < 1e-6;
      const box = await dial.boundingBox();
      const [x, y] = [box.x + box.width / 2, box.y + box.height / 2];
      /** Drags by `dy` px; the parameter events until the gesture's end. */
      async function drag(dy) {
        await bridge.paramEvents(); // what earlier gestures left
        await page.mouse.move(x, y);
        await page.mouse.down();
        for (const to of [dy / 2, dy]) await page.mouse.move(x, y + to, { steps: 5 });
        await page.mouse.up();
        return eventsUntil(param.id, (x) => x.type === 'end');
      }
      // 50 px: a fifth of the range, towards the middle; one gesture whose last value is where the drag ended.
      const start = await position();
      const up = start < 0.5;
      const dragged = start + (up ? 0.2 : -0.2);
      const events = await drag(up ? -50 : 50);
      assert.deepEqual([events[0].type, events.at(-1).type], ['begin', 'end']);
      const values = events.filter((e) => e.type === 'value');
      assert.ok(values.length >= 1 && near(dragged)(values.at(-1).value), `last value event ${values.at(-1)?.value}, wanted ${dragged}`);
      assert.ok(near(dragged)(await position()), 'params_get_value after the drag');
      await showsPluginText(index);
      // A second gesture is one too, though the page may hold a stale "gesture": true from the last reply.
      await sleep(300);
      const back = (await drag(up ? 50 : -50)).map((e) => e.type);
      assert.ok(back[0] === 'begin' && back.indexOf('end') > 0, back.join());
      await until(position, near(start), `${param.name} dragged back to ${start}`);
      // A wheel step of 25 is a tenth of the range, opposite to the drag's sign.
      const scrolled = start + (up ? 0.1 : -0.1);
      await dial.hover();
      await page.mouse.wheel(0, up ? 25 : -25);
      await until(position, near(scrolled), `${param.name} scrolled to ${scrolled}`);
      await showsPluginText(index);
      await sleep(600); // the scroll's gesture ends 500 ms after the wheel stops
      // A double press returns it to its default; a value the host sets shows on the dial.
      await dial.dblclick();
      await until(position, near(param.default), `${param.name} back at its default ${param.default}`);
      await showsPluginText(index);
      await page.screenshot({ path: file('-after-dial') });
      for (const value of [1, param.default]) {
        await bridge.automate(param.id, value);
        await until(position, near(value), `the automated value ${value}`);
        await showsPluginText(index);
      }
    });

    test('the stepper buttons of the first stepped parameter step it in the plug-in', async (t) => {
      const index = params.findIndex((p) => p.stepped);
      if (index < 0) return t.skip('no stepped parameter');
      const param = params[index];
      const label = control(index);
      const value = async () => (await bridge.value(param.id)).value;
      const marked = async (button) => /\bdisabled\b/.test(await label.locator(`button.${button}`).getAttribute('class'));
      async function press(button, expected) {
        await label.locator(`button.${button}`).click();
        await eventsUntil(param.id, (x) => x.type === 'value' && x.value === expected);
        assert.equal(await value(), expected);
        await showsPluginText(index);
        await until(async () => [await marked('up'), await marked('down')],
          (marked) => marked[0] === (expected >= param.max) && marked[1] === (expected <= param.min), 'a button at an end is marked');
      }
      const start = await value();
      const [first, second] = start < param.max ? ['up', 'down'] : ['down', 'up'];
      await press(first, start + (first === 'up' ? 1 : -1));
      await press(second, start);
    });

    test('?compact&columns: both classes, a 9pt font, controls in a column, no header', async () => {
      await page.setViewportSize({ width: 500, height: 300 });
      await open('&compact&columns');
      const style = await page.evaluate(() => [document.documentElement.matches('.compact.columns'),
        ...[document.documentElement, document.body, document.getElementById('params'), document.getElementById('header')]
          .map((e, i) => getComputedStyle(e)[['fontSize', 'flexDirection', 'flexDirection', 'display'][i]])]);
      assert.deepEqual(style, [true, '12px', 'row', 'column', 'none']);
      assert.equal((await drawnControls(page)).length, params.length);
      await page.screenshot({ path: file('-compact-columns') });
    });
  });
}
