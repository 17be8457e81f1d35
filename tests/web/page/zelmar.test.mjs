// The templating library as shipped (zelmar-bundle.min.js), in jsdom.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { JSDOM } from 'jsdom';

const zelmarCode = readFileSync(new URL('../../../src/web/page/zelmar-bundle.min.js', import.meta.url), 'utf8');

/** A window with Zelmar loaded, `body` as its body, and `window.vars` set; `state` if `data` is given. */
function page(body, data, vars = {}) {
  const { window } = new JSDOM('<!doctype html><body></body>', { runScripts: 'outside-only', pretendToBeVisual: true });
  Object.defineProperty(window.performance, 'now', { value: () => 0 }); // a still clock: presses last 0 s
  window.eval(zelmarCode);
  Object.assign(window, vars);
  window.document.body.innerHTML = body;
  const p = { window, document: window.document, Zelmar: window.Zelmar };
  if (data !== undefined) p.state = p.Zelmar.replace(p.document.body, data);
  return p;
}

const nextTick = () => new Promise((resolve) => setTimeout(resolve, 30));
/** By content across realms (the library makes its objects in the window's). */
const plain = (v) => JSON.parse(JSON.stringify(v));
const same = (actual, expected, message) => assert.deepEqual(plain(actual), expected, message);
const texts = (p, selector) => Array.from(p.document.querySelectorAll(selector), (e) => e.textContent);

describe('Zelmar.merge.apply', () => {
  const apply = page('').Zelmar.merge.apply;

  test('maps merge in place; other values replace; index keys set array elements', () => {
    const target = { a: { x: 1, y: 2 }, b: 3, c: [1, 2, 3], d: 1, rows: [{ v: 1 }, { v: 2 }, 'c'] };
    const [inner, first, floats] = [target.a, target.rows[0], new Float32Array([1, 2])];
    assert.equal(apply(target, { a: { y: 5, z: 6 }, c: [9], d: floats, e: { n: 1 },
      rows: { 0: { v: 10 }, '2': 'C', 3: 'd', x: 'ignored' } }), target);
    assert.equal(target.a, inner, 'the nested object is kept');
    assert.equal(target.rows[0], first);
    assert.equal(target.d, floats);
    same(target, { a: { x: 1, y: 5, z: 6 }, b: 3, c: [9], d: { 0: 1, 1: 2 }, e: { n: 1 },
      rows: [{ v: 10 }, { v: 2 }, 'C', 'd'] });
    apply(target, { rows: { 3: null } });
    assert.equal(target.rows.length, 3, 'a null at the last index shortens the array');
    assert.equal(apply({ a: 1 }, 5), 5);
    same(apply(undefined, { a: { b: 1 } }), { a: { b: 1 } });
  });

  test('null deletes, also inside a map that is taken whole; kept when combining merges', () => {
    const target = { a: 1, b: { c: 2, d: 3 } };
    apply(target, { a: null, b: { c: null }, n: { keep: 1, drop: null } });
    same(target, { b: { d: 3 }, n: { keep: 1 } });
    const pending = { x: { y: 1 } };
    apply(pending, { x: { y: null }, z: null }, true);
    assert.deepEqual(pending, { x: { y: null }, z: null });
  });
});

test('an update re-runs only when a key it read changes, and stops hearing what it no longer reads', () => {
  const runs = { a: 0, b: 0, plot: 0 };
  const { state } = page(`
    <i $update="\${d => { counts.a++; d.a.value; }}"></i>
    <i $update="\${d => { counts.b++; d.b.value; }}"></i>
    <i $update="\${d => { counts.plot++; d.spectrum.energy; }}"></i>`,
  { a: { value: 1, text: 'x' }, b: { value: 2 }, spectrum: { hz: [1, 2], energy: [[1]] } }, { counts: runs });
  const steps = [[{ a: { value: 5 } }, [2, 1, 1]], [{ a: { value: 5 } }, [2, 1, 1]], [{ a: { text: 'y' } }, [2, 1, 1]],
    [{ spectrum: { energy: [[2]] } }, [2, 1, 2]], [{ spectrum: { hz: [3] } }, [2, 1, 2]], [{ b: null }, [2, 2, 2]]];
  for (const [merge, expected] of steps) {
    state.merge(merge);
    assert.deepEqual([runs.a, runs.b, runs.plot], expected, JSON.stringify(merge));
  }
  const seen = [];
  const q = page(`<i $update="\${d => seen.push(d.useA ? d.a : d.b)}"></i>`, { useA: true, a: 1, b: 2 }, { seen });
  for (const merge of [{ useA: false }, { a: 10 }, { b: 20 }]) q.state.merge(merge);
  assert.deepEqual(seen, [1, 2, 20]);
});

test('text bindings follow their paths; {=} is the data itself', () => {
  const p = page(`<p id=x>{a.b} and {c}</p><p id=y>$t{a.b}</p><template name=t>[{=}]</template>`, { a: { b: 'one' }, c: 2 });
  assert.deepEqual(texts(p, 'p'), ['one and 2', '[one]']);
  p.state.merge({ a: { b: 'two' }, c: null });
  assert.deepEqual(texts(p, 'p'), ['two and ', '[two]']);
});

test('items come and go by key, keep their elements, and a merge naming every key sets the order', () => {
  const p = page(`<ul><li @foreach>{name}</li></ul>`, { a: { name: 'A' }, b: { name: 'B' } });
  const [liA, liB] = p.document.querySelectorAll('li');
  for (const merge of [{ c: { name: 'C' } }, { a: null }]) p.state.merge(merge);
  assert.deepEqual(texts(p, 'li'), ['B', 'C']);
  assert.equal(p.document.querySelector('li'), liB, 'the other items keep their elements');
  assert.equal(liA.isConnected, false);
  p.state.merge({ b: { name: 'B2' } });
  assert.equal(liB.textContent, 'B2', 'a merged item updates in place');
  p.state.merge({ a: { name: 'A' }, b: { name: 'B' }, c: { name: 'C' } });
  assert.deepEqual(texts(p, 'li'), ['A', 'B', 'C']);
  assert.equal(p.document.querySelectorAll('li')[1], liB, 'moved, not rebuilt');
  p.state.merge({ b: 'now text' });
  assert.equal(liB.isConnected, false, 'an item whose value is replaced is rebuilt');
  assert.deepEqual(Object.keys(p.Zelmar.merge.apply({ s: 1 }, { name: 'x', s: 2 }, true)), ['name', 's']);
});

test('arrays: append, index-key merge touching only that item, shorten, replace', () => {
  const builds = [0, 0, 0];
  const p = page(`<div><span @foreach="rows" $update="\${d => ++builds[d.id]}">{label}</span></div>`,
    { rows: [{ id: 0, label: 'x' }, { id: 1, label: 'y' }] }, { builds });
  p.state.data.rows.push({ id: 2, label: 'z' });
  p.state.merge({ rows: { 1: { label: 'Y' } } });
  assert.deepEqual(texts(p, 'span'), ['x', 'Y', 'z']);
  assert.deepEqual(builds, [1, 1, 1], '$update read only id, which did not change');
  p.state.data.rows.length = 1;
  assert.deepEqual(texts(p, 'span'), ['x']);
  p.state.merge({ rows: [{ id: 2, label: 'only' }] });
  assert.deepEqual(texts(p, 'span'), ['only']);
});

test('@if: present only while true, built on demand, in its place, and let go when taken away', () => {
  const builds = { n: 0 };
  const p = page(`<p id=before></p><b @if="\${d => d.show}"><i $update="\${d => ++builds.n}">{label}</i></b>
    <div><template @if="\${d => d.show}"><em>{label}</em><em>more</em></template></div>`, { show: false, label: 'hi' }, { builds });
  assert.deepEqual([p.document.querySelector('b'), builds.n], [null, 0], 'not built while hidden');
  p.state.merge({ show: true });
  assert.equal(p.document.querySelector('b').previousElementSibling.id, 'before', 'in its place');
  assert.deepEqual(texts(p, 'b, em'), ['hi', 'hi', 'more']);
  p.state.merge({ show: 1 });
  assert.equal(builds.n, 1, 'still true: not rebuilt');
  p.state.merge({ show: false });
  p.state.merge({ label: 'changed while hidden' });
  assert.deepEqual([texts(p, 'b, em'), builds.n], [[], 1], 'a hidden inside does not run');
  const count = (owner) => owner.effects.length + owner.children.reduce((n, c) => n + count(c), 0);
  const before = count(p.state.owner);
  for (let i = 0; i < 50; ++i) p.state.merge({ show: i % 2 === 0 });
  assert.ok(count(p.state.owner) <= before + 4, 'what was taken away is let go');
});

test('$attr: $class, listener, property, attribute, "-" attribute, $update, mixed parts', () => {
  const p = page(`<input id=i class="fixed" $class="c-{kind}" $value="{text}" $title="\${d => d.tip}"
      $-value="{text}!" $click="\${(d, e, el) => { d.clicked = el.id; }}" $update="\${d => { d.text; }}">
      <div id=d $-data-b="n=\${d => d.n + 1} {n}"></div>`, { kind: 'a', text: 'hello', tip: 'tip', n: 4 });
  const input = p.document.getElementById('i');
  assert.deepEqual([Array.from(input.classList), input.value, input.getAttribute('value'), input.getAttribute('title')],
    [['fixed', 'c-a'], 'hello', 'hello!', 'tip']);
  assert.equal(input.hasAttribute('update'), false, 'an undefined result sets nothing');
  assert.equal(p.document.getElementById('d').getAttribute('data-b'), 'n=5 4');
  p.state.merge({ kind: 'b', text: 'bye', tip: null });
  assert.deepEqual([Array.from(input.classList), input.value], [['fixed', 'c-b'], 'bye']);
  assert.equal(input.hasAttribute('title'), false, 'null removes the attribute');
  input.click();
  assert.equal(p.state.data.clicked, 'i');
});

test('trackMerges: writes through the proxy become merges by path, combined per tick, nulls kept; state.merge tells no tracker', async () => {
  const p = page(`<b>{list.length}</b>`, { engineConfig: { latencyMs: { gesture: false, rangeUnit: 0.2 } }, list: [1, 2], gone: 1 });
  const merges = [];
  p.state.trackMerges((m) => merges.push(plain(m)));
  const latency = p.state.data.engineConfig.latencyMs;
  latency.gesture = true;
  latency.rangeUnit = 0.3;
  latency.rangeUnit = 0.4;
  latency[Symbol.for('local')] = 1;
  p.state.data.list.push(3);
  assert.equal(p.document.querySelector('b').textContent, '3', 'a local write redraws at once');
  delete p.state.data.gone;
  assert.equal(merges.length, 0, 'delivered later, not at once');
  await nextTick();
  assert.deepEqual(merges, [{ engineConfig: { latencyMs: { gesture: true, rangeUnit: 0.4 } }, list: [1, 2, 3], gone: null }]);
  latency.rangeUnit = 0.4;
  p.state.merge({ list: [5] });
  await nextTick();
  assert.equal(merges.length, 1, 'the same value, or a merge from outside, is no change to send');
  const raw = p.Zelmar.getRaw(latency);
  assert.deepEqual([p.Zelmar.getRaw(raw), p.Zelmar.getRaw(7)], [raw, 7]);
});

function control() {
  const p = page(`<div id=c $press="\${(d, count, e, el) => d.log.push(['press', count, e.type, el.id])}"
    $unpress="\${(d, e, seconds) => d.log.push(['unpress', e.type, seconds])}"
    $move="\${(d, dx, dy, el) => d.log.push(['move', dx, dy, el.id])}"></div>`, { log: [] });
  const el = p.document.getElementById('c');
  const key = (type, k, init = {}) => el.dispatchEvent(new p.window.KeyboardEvent(type, { key: k, bubbles: true, cancelable: true, ...init }));
  const log = () => Array.from(p.Zelmar.getRaw(p.state.data.log), (e) => Array.from(e.slice(0, 3), String));
  return { ...p, el, key, log };
}

test('keyboard: Enter and Space press and release; arrows step 15 px; Page, Home, End are infinite', () => {
  const c = control();
  for (const [type, k, init] of [['keydown', 'Enter'], ['keydown', 'Enter', { repeat: true }], ['keyup', 'Enter'], ['keydown', ' '],
    ['keyup', ' '], ['keydown', 'ArrowUp'], ['keydown', 'ArrowDown'], ['keydown', 'ArrowLeft'], ['keydown', 'ArrowRight'],
    ['keydown', 'ArrowUp', { ctrlKey: true }], ['keydown', 'ArrowDown', { metaKey: true }], ['keydown', 'PageUp'],
    ['keydown', 'PageDown'], ['keydown', 'Home'], ['keydown', 'End']]) c.key(type, k, init);
  assert.deepEqual(c.log(), [
    ['press', 1, 'keydown'], ['unpress', 'keyup', 0], ['press', 2, 'keydown'], ['unpress', 'keyup', 0],
    ['move', 0, -15], ['move', 0, 15], ['move', -15, 0], ['move', 15, 0], ['move', 0, -1.5], ['move', 0, Infinity],
    ['move', 0, -Infinity], ['move', 0, Infinity], ['move', -Infinity, Infinity], ['move', Infinity, -Infinity],
  ].map((e) => e.map(String)));
});

test('blur ends a press; no unpress without a press', () => {
  const c = control();
  const blur = () => c.el.dispatchEvent(new c.window.FocusEvent('blur'));
  blur(), c.key('keydown', 'Enter'), blur(), c.key('keyup', 'Enter');
  assert.deepEqual(c.log().map((e) => e.slice(0, 2)), [['press', '1'], ['unpress', 'blur']]);
});

test('$resize hears the window until removed; a page defines its own attribute on top of press', () => {
  const p = page(`<div id=r $resize="\${(d, el, w, h) => d.sizes.push([el.id, w, h])}" @if="\${d => d.on}" $toggle></div>`);
  p.Zelmar.global.attributes.toggle = (el) => p.Zelmar.global.attributes.press(el, (count) => count === 2 && el.classList.toggle('big'));
  const state = p.Zelmar.replace(p.document.body, { sizes: [], on: true });
  p.window.dispatchEvent(new p.window.Event('resize'));
  const el = p.document.getElementById('r');
  const click = (type) => el.dispatchEvent(new p.window.MouseEvent(type, { bubbles: true }));
  ['pointerdown', 'pointerup', 'pointerdown', 'pointerup'].forEach(click);
  assert.ok(el.classList.contains('big'));
  state.merge({ on: false });
  p.window.dispatchEvent(new p.window.Event('resize'));
  same(p.Zelmar.getRaw(state.data.sizes), [['r', p.window.innerWidth, p.window.innerHeight]]);
});
