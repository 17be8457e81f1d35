// The generic page as shipped (index.html with both scripts) in jsdom; in Chromium in bridge.test.mjs.
import { test, describe, afterEach } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { JSDOM, VirtualConsole } from 'jsdom';
import { buildPage } from '../../../src/web/page/build.mjs';

const here = dirname(fileURLToPath(import.meta.url));
const pageDir = join(here, '..', '..', '..', 'src', 'web', 'page');
const read = (name) => readFileSync(join(pageDir, name), 'utf8');
const CBOR = createRequire(import.meta.url)(join(pageDir, 'cbor.min.js'));

test('the committed page files are what the sources build to, and load nothing from outside', async () => {
  for (const [name, text] of Object.entries(await buildPage())) assert.equal(read(name), text, `${name} is stale: run npm run build`);
  assert.doesNotMatch(read('index.html'), /(src|href)="(https?:)?\/\//);
});

// A page keeps asking for frames; each test's windows close after it.
const openWindows = [];
afterEach(() => openWindows.splice(0).forEach((window) => window.close()));

/** The page in jsdom at `query`: what it posts decoded into `sent`; `deliver(value)` a message from the effect. */
async function openPage(query = '') {
  const html = read('index.html').replace(/<script src="([\w.-]+)"><\/script>/g, (_, name) => `<script>${read(name)}</script>`);
  const sent = [];
  const virtualConsole = new VirtualConsole(); // jsdom has no canvas; the page copes
  const errors = [];
  virtualConsole.on('jsdomError', (e) => { if (!/getContext/.test(e.message)) errors.push(e); });
  const dom = new JSDOM(html, {
    url: 'http://127.0.0.1/index.html' + query, runScripts: 'dangerously', pretendToBeVisual: true, virtualConsole,
    beforeParse(window) {
      Object.assign(window, { TextEncoder, TextDecoder }); // browsers have them; jsdom does not
      window.postMessage = (bytes) => sent.push(CBOR.decode(new Uint8Array(bytes)));
    },
  });
  const window = dom.window;
  openWindows.push(window);
  const deliver = (value) => {
    const bytes = new window.Uint8Array(new Uint8Array(CBOR.encode(value)));
    window.dispatchEvent(new window.MessageEvent('message', { data: bytes.buffer }));
  };
  const frame = () => new Promise((resolve) => window.requestAnimationFrame(() => setTimeout(resolve, 0)));
  await new Promise((resolve) => window.addEventListener('load', resolve));
  assert.deepEqual(errors, []);
  const merges = () => sent.filter((m) => m && typeof m === 'object' && !Array.isArray(m)).map((m) => JSON.parse(JSON.stringify(m)));
  return { window, document: window.document, sent, deliver, frame, merges };
}

const range = (name, value, rangeUnit, text) =>
  ({ value, $type: 'ParamRange', name, defaultValue: 10, text, textUnits: 'ms', gesture: false, rangeUnit });
const stepped = (name, value, low, high, text) => ({ value, $type: 'ParamStepped', low, high, name, text });
const wholeState = () => ({
  name: 'Test Effect', desc: '', // members in page order
  engineConfig: { name: 'Engine', desc: '', latencyMs: range('latency', 12, 0.5, '12'), iterations: stepped('iterations', 3, 0, 3, '8') },
  mode: stepped('mode', 0, 0, 1, 'off'), analysisSpectrum: { energy: [] },
});

test('draws the whole state and the merges that follow, in one frame together; drops a bad message', async () => {
  const p = await openPage();
  assert.equal(p.document.getElementById('header').textContent, '...');
  assert.equal(p.document.title, 'Generic QUORL UI');
  p.deliver(wholeState());
  await p.frame();
  assert.equal(p.document.getElementById('header').textContent, 'Test Effect');
  const controls = Array.from(p.document.querySelectorAll('label.param-range, label.param-stepped'),
    (l) => Array.from(l.querySelectorAll('.name, output, .units'), (e) => e.textContent));
  assert.deepEqual(controls, [['12', 'ms', 'latency'], ['8', 'iterations'], ['off', 'mode']]); // in page order
  // The spectrum without "$type" yet is an empty box with no legend.
  assert.deepEqual(Array.from(p.document.querySelectorAll('fieldset legend'), (l) => l.textContent), ['Engine', '']);
  assert.equal(p.document.querySelector('.plot'), null);
  // Arrays carry their merge at index 1; merges of one frame apply together; a bad message is dropped.
  p.deliver(['state', { engineConfig: { latencyMs: { text: '11' } } }]);
  p.deliver({ engineConfig: { latencyMs: { textUnits: 's' } } });
  const bad = new p.window.Uint8Array([0x1c]).buffer;
  assert.doesNotThrow(() => p.window.dispatchEvent(new p.window.MessageEvent('message', { data: bad })));
  p.deliver(['meters', { analysisSpectrum: { $type: 'Spectrum', hz: new Float32Array([0, 100, 20000]), energy: [new Float32Array([1, 0.5, 0.1])] } }]);
  await p.frame();
  const dial = p.document.querySelector('label.param-range');
  assert.equal(dial.querySelector('output').textContent + dial.querySelector('.units').textContent, '11s');
  assert.equal(p.document.querySelectorAll('.plot canvas').length, 3, 'the spectrum now has its plot');
  assert.equal(p.document.querySelectorAll('fieldset').length, 1, 'and no longer a box');
  assert.equal(p.merges().length, 0, 'nothing echoes back');
});

async function ready() {
  const p = await openPage();
  p.deliver(wholeState());
  await p.frame();
  const W = p.window;
  const dial = p.document.querySelector('.dial');
  const pointer = (type, y, init = {}) => dial.dispatchEvent(new (W.PointerEvent || W.MouseEvent)(type,
    { bubbles: true, cancelable: true, clientX: 0, clientY: y, button: 0, pointerId: 1, ...init }));
  const wheel = (deltaY) => dial.dispatchEvent(new W.WheelEvent('wheel', { bubbles: true, cancelable: true, deltaY }));
  const settle = () => new Promise((resolve) => setTimeout(resolve, 40));
  return { ...p, dial, pointer, wheel, settle };
}
const at = (merge) => merge.engineConfig.latencyMs;

test('a drag sends gesture and rangeUnit, 250 px for the whole range, upward increasing', async () => {
  const p = await ready();
  p.pointer('pointerdown', 100);
  for (const [type, y] of [['pointermove', 50], ['pointermove', -500], ['pointerup', -500]]) p.pointer(type, y), await p.settle();
  // The second is clamped at the top.
  assert.deepEqual(p.merges().map(at).slice(0, 3), [{ gesture: true, rangeUnit: 0.7 }, { rangeUnit: 1 }, { gesture: false }]);
});

test('the stored position keeps a gesture smooth while the effect answers', async () => {
  const p = await ready();
  p.pointer('pointerdown', 0);
  p.pointer('pointermove', -25); // 0.5 + 0.1
  await p.settle();
  p.deliver({ engineConfig: { latencyMs: { rangeUnit: 0.55, gesture: true } } }); // an older answer
  await p.frame();
  p.wheel(25); // a scroll during the drag continues from the stored 0.6
  await p.settle();
  assert.deepEqual(p.merges().map(at).map((m) => m.rangeUnit), [0.6, 0.7]);
});

test('steppers move by one within low and high, and mark the end they stand at', async () => {
  const p = await ready();
  const [iterations, mode] = p.document.querySelectorAll('label.param-stepped');
  const press = (button) => ['pointerdown', 'pointerup'].forEach((type) =>
    button.dispatchEvent(new p.window.MouseEvent(type, { bubbles: true, button: 0 }))) ?? p.settle();
  const marked = (label) => ['.up', '.down'].map((b) => label.querySelector(b).classList.contains('disabled'));
  assert.deepEqual(marked(iterations), [true, false]);
  await press(iterations.querySelector('.up'));
  assert.equal(p.merges().length, 0, 'at the top already');
  await press(mode.querySelector('.up'));
  assert.deepEqual(p.merges(), [{ mode: { value: 1 } }]);
  assert.deepEqual(marked(mode), [true, false]);
  await press(iterations.querySelector('.down'));
  assert.deepEqual(p.merges()[1], { engineConfig: { iterations: { value: 2 } } });
});
