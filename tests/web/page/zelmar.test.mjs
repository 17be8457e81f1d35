// The templating library on its own, as shipped (zelmar-bundle.min.js), in
// jsdom: merges, change tracking, the template language, the interaction
// attributes.
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { JSDOM } from 'jsdom';

const here = dirname(fileURLToPath(import.meta.url));
const zelmarCode = readFileSync(join(here, '..', '..', '..', 'src', 'web', 'page', 'zelmar-bundle.min.js'), 'utf8');

/** A window with Zelmar loaded and `body` as its body, plus a clock the library reads. */
function page(body) {
  const dom = new JSDOM(`<!doctype html><html><body>${body}</body></html>`, {
    runScripts: 'outside-only',
    pretendToBeVisual: true,
  });
  const window = dom.window;
  const clock = { now: 0 };
  Object.defineProperty(window.performance, 'now', { value: () => clock.now, configurable: true });
  window.eval(zelmarCode);
  return { window, document: window.document, Zelmar: window.Zelmar, clock };
}

const nextTick = () => new Promise((resolve) => setTimeout(resolve, 30));
/** Compares by content across realms (the library makes its objects in the window's). */
const same = (actual, expected, message) => assert.deepEqual(JSON.parse(JSON.stringify(actual)), expected, message);
const texts = (document, selector) => Array.from(document.querySelectorAll(selector), (e) => e.textContent);

describe('Zelmar.merge.apply', () => {
  const { Zelmar } = page('');
  const apply = Zelmar.merge.apply;

  test('maps merge recursively and leave unnamed keys alone', () => {
    const target = { a: { x: 1, y: 2 }, b: 3 };
    const inner = target.a;
    const result = apply(target, { a: { y: 5, z: 6 } });
    assert.equal(result, target);
    assert.equal(target.a, inner, 'the nested object is kept, not replaced');
    assert.deepEqual(target, { a: { x: 1, y: 5, z: 6 }, b: 3 });
  });

  test('a map where the target has none is taken; scalars, arrays, typed arrays and buffers replace', () => {
    const buffer = new ArrayBuffer(2);
    const floats = new Float32Array([1, 2]);
    const target = { a: 1, b: [1, 2, 3], c: new Float32Array(1), d: 'x', e: null };
    apply(target, { a: { n: 1 }, b: [9], c: floats, d: buffer, e: 7 });
    same(target.a, { n: 1 });
    assert.deepEqual(target.b, [9]);
    assert.equal(target.c, floats);
    assert.equal(target.d, buffer);
    assert.equal(target.e, 7);
  });

  test('null deletes, also inside a map that is taken whole; kept when combining merges', () => {
    const target = { a: 1, b: { c: 2, d: 3 } };
    apply(target, { a: null, b: { c: null }, n: { keep: 1, drop: null } });
    same(target, { b: { d: 3 }, n: { keep: 1 } });
    const pending = { x: { y: 1 } };
    apply(pending, { x: { y: null }, z: null }, true);
    assert.deepEqual(pending, { x: { y: null }, z: null });
  });

  test('index keys, integer or decimal text, set array elements', () => {
    const target = { rows: [{ v: 1 }, { v: 2 }, 'c'] };
    const first = target.rows[0];
    apply(target, { rows: { 0: { v: 10 }, '2': 'C', 3: 'd', x: 'ignored' } });
    assert.equal(target.rows[0], first);
    assert.deepEqual(target.rows, [{ v: 10 }, { v: 2 }, 'C', 'd']);
    apply(target, { rows: { 3: null } });
    assert.equal(target.rows.length, 3, 'a null at the last index shortens the array');
  });

  test('non-maps: a merge that is not a map is the result; a target that is not a map becomes one', () => {
    assert.equal(apply({ a: 1 }, 5), 5);
    same(apply(undefined, { a: { b: 1 } }), { a: { b: 1 } });
    const fromOtherRealm = JSON.parse('{"a":{"b":2}}');
    assert.deepEqual(apply({ a: { c: 1 } }, fromOtherRealm), { a: { c: 1, b: 2 } });
  });
});

describe('change tracking', () => {
  test('an update re-runs only when a key it read changes', () => {
    const p = page(`<script></script>`);
    const runs = { a: 0, b: 0, plot: 0 };
    p.window.counts = runs;
    p.document.body.innerHTML = `
      <i id=a $update="\${d => { counts.a++; d.a.value; }}"></i>
      <i id=b $update="\${d => { counts.b++; d.b.value; }}"></i>
      <i id=p $update="\${d => { counts.plot++; d.spectrum.energy; }}"></i>`;
    const state = p.Zelmar.replace(p.document.body,
      { a: { value: 1, text: 'x' }, b: { value: 2 }, spectrum: { hz: [1, 2], energy: [[1]] } });
    assert.deepEqual(runs, { a: 1, b: 1, plot: 1 });
    state.merge({ a: { value: 5 } });
    assert.deepEqual(runs, { a: 2, b: 1, plot: 1 });
    state.merge({ a: { value: 5 } });
    assert.deepEqual(runs, { a: 2, b: 1, plot: 1 }, 'an equal value is no change');
    state.merge({ a: { text: 'y' } });
    assert.deepEqual(runs, { a: 2, b: 1, plot: 1 }, 'a key nobody read');
    state.merge({ spectrum: { energy: [[2]] } });
    assert.deepEqual(runs, { a: 2, b: 1, plot: 2 }, 'a replaced array');
    state.merge({ spectrum: { hz: [3] } });
    assert.deepEqual(runs, { a: 2, b: 1, plot: 2 });
    state.merge({ b: null });
    assert.equal(runs.b, 2, 'a deleted object');
  });

  test('what a run no longer reads stops triggering it', () => {
    const p = page('');
    const runs = [];
    p.window.seen = runs;
    p.document.body.innerHTML = `<i $update="\${d => seen.push(d.useA ? d.a : d.b)}"></i>`;
    const state = p.Zelmar.replace(p.document.body, { useA: true, a: 1, b: 2 });
    state.merge({ useA: false });
    state.merge({ a: 10 });
    assert.deepEqual(runs, [1, 2]);
    state.merge({ b: 20 });
    assert.deepEqual(runs, [1, 2, 20]);
  });

  test('text bindings follow their paths; {=} is the data itself', () => {
    const p = page(`<p id=x>{a.b} and {c}</p><p id=y>$t{a.b}</p><template name=t>[{=}]</template>`);
    const state = p.Zelmar.replace(p.document.body, { a: { b: 'one' }, c: 2 });
    assert.equal(p.document.getElementById('x').textContent, 'one and 2');
    assert.equal(p.document.getElementById('y').textContent, '[one]');
    state.merge({ a: { b: 'two' }, c: null });
    assert.equal(p.document.getElementById('x').textContent, 'two and ');
    assert.equal(p.document.getElementById('y').textContent, '[two]');
  });
});

describe('@foreach', () => {
  const html = `<ul id=list><li @foreach $class="\${d => d.cls}">{name}</li></ul>`;

  test('repeats for each value of an object, in order, inserting and removing as keys come and go', () => {
    const p = page(html);
    const state = p.Zelmar.replace(p.document.body, { a: { name: 'A' }, b: { name: 'B' } });
    assert.deepEqual(texts(p.document, 'li'), ['A', 'B']);
    const [liA, liB] = p.document.querySelectorAll('li');
    state.merge({ c: { name: 'C' } });
    assert.deepEqual(texts(p.document, 'li'), ['A', 'B', 'C']);
    state.merge({ a: null });
    assert.deepEqual(texts(p.document, 'li'), ['B', 'C']);
    assert.equal(p.document.querySelector('li'), liB, 'the other items keep their elements');
    assert.equal(liA.isConnected, false);
    state.merge({ b: { name: 'B2' } });
    assert.equal(p.document.querySelector('li'), liB, 'a merged item updates in place');
    assert.equal(liB.textContent, 'B2');
    state.merge({ b: 'now text' });
    assert.equal(liB.isConnected, false, 'an item whose value is replaced is rebuilt');
    assert.equal(p.document.querySelectorAll('li').length, 2);
  });

  test('a merge naming every key, as a whole state does, also sets their order', () => {
    const p = page(html);
    const state = p.Zelmar.replace(p.document.body, { spectrum: { name: 'S' } });
    const spectrum = p.document.querySelector('li');
    state.merge({ a: { name: 'A' }, b: { name: 'B' }, spectrum: { name: 'S' } });
    assert.deepEqual(texts(p.document, 'li'), ['A', 'B', 'S']);
    assert.equal(p.document.querySelectorAll('li')[2], spectrum, 'moved, not rebuilt');
    state.merge({ b: { name: 'B2' } });
    assert.deepEqual(texts(p.document, 'li'), ['A', 'B2', 'S'], 'a partial merge keeps the order');
    const pending = { spectrum: 1 };
    assert.deepEqual(Object.keys(p.Zelmar.merge.apply(pending, { name: 'x', spectrum: 2 }, true)), ['name', 'spectrum']);
  });

  test('arrays: append, index-key merge, shorten, replace', () => {
    const p = page(`<ol><template @foreach><li>{=}</li></template></ol>`);
    const listState = p.Zelmar.replace(p.document.querySelector('ol'), ['a', 'b']);
    assert.deepEqual(texts(p.document, 'li'), ['a', 'b']);
    listState.data.push('c');
    assert.deepEqual(texts(p.document, 'li'), ['a', 'b', 'c']);
    listState.data.length = 1;
    assert.deepEqual(texts(p.document, 'li'), ['a']);
    listState.merge({ 0: 'A', 1: 'B' });
    assert.deepEqual(texts(p.document, 'li'), ['A', 'B']);
  });

  test('a path names the collection; index-key merges touch only that item', () => {
    const p = page(`<div><span @foreach="rows" $update="\${d => ++builds[d.id]}">{label}</span></div>`);
    p.window.builds = [0, 0, 0];
    const state = p.Zelmar.replace(p.document.body,
      { rows: [{ id: 0, label: 'x' }, { id: 1, label: 'y' }, { id: 2, label: 'z' }] });
    state.merge({ rows: { 1: { label: 'Y' } } });
    assert.deepEqual(texts(p.document, 'span'), ['x', 'Y', 'z']);
    assert.deepEqual(Array.from(p.window.builds), [1, 1, 1], '$update read only id, which did not change');
    state.merge({ rows: [{ id: 2, label: 'only' }] });
    assert.deepEqual(texts(p.document, 'span'), ['only']);
  });

  test('a named template with @foreach recurses through nested objects', () => {
    const p = page(`<main>$tree{=}</main>
      <template name=tree @foreach><section @if="\${d => typeof d === 'object'}"><h2>{name}</h2>$tree{=}</section></template>`);
    const state = p.Zelmar.replace(p.document.body, {});
    state.merge({ g: { name: 'G', h: { name: 'H' } }, k: { name: 'K' } });
    assert.deepEqual(texts(p.document, 'h2'), ['G', 'H', 'K']);
    state.merge({ g: { h: null } });
    assert.deepEqual(texts(p.document, 'h2'), ['G', 'K']);
  });
});

describe('@if', () => {
  test('the element is present only while the function is true; its inside is built on demand', () => {
    const p = page(`<p id=before></p><b @if="\${d => d.show}"><i $update="\${d => ++builds.n}">{label}</i></b><p id=after></p>`);
    p.window.builds = { n: 0 };
    const state = p.Zelmar.replace(p.document.body, { show: false, label: 'hi' });
    assert.equal(p.document.querySelector('b'), null);
    assert.equal(p.window.builds.n, 0, 'not built while hidden');
    state.merge({ show: true });
    assert.equal(p.document.querySelector('b').textContent, 'hi');
    assert.equal(p.document.querySelector('b').previousElementSibling.id, 'before', 'in its place');
    assert.equal(p.window.builds.n, 1);
    state.merge({ show: 1 });
    assert.equal(p.window.builds.n, 1, 'still true: not rebuilt');
    state.merge({ show: false });
    assert.equal(p.document.querySelector('b'), null);
    state.merge({ label: 'changed while hidden' });
    assert.equal(p.window.builds.n, 1, 'a hidden inside does not run');
    const count = (owner) => owner.effects.length + owner.children.reduce((n, c) => n + count(c), 0);
    const before = count(state.owner);
    for (let i = 0; i < 50; ++i) state.merge({ show: i % 2 === 0 });
    assert.ok(count(state.owner) <= before + 2, 'what was taken away is let go');

    // On a template its content comes and goes.
    const t = page(`<div><template @if="\${d => d.n > 1}"><em>{n}</em><em>more</em></template></div>`);
    const tState = t.Zelmar.replace(t.document.body, { n: 1 });
    assert.equal(t.document.querySelectorAll('em').length, 0);
    tState.merge({ n: 2 });
    assert.deepEqual(texts(t.document, 'em'), ['2', 'more']);
  });

});

describe('$attr', () => {
  test('special handler ($class), listener, property, attribute, "-" attribute, $update', () => {
    const p = page(`<input id=i class="fixed" $class="c-{kind}" $value="{text}" $title="\${d => d.tip}"
        $-value="{text}!" $click="\${(d, e, el) => { d.clicked = el.id; }}" $update="\${d => { d.text; }}">`);
    const state = p.Zelmar.replace(p.document.body, { kind: 'a', text: 'hello', tip: 'tip' });
    const input = p.document.getElementById('i');
    assert.deepEqual(Array.from(input.classList), ['fixed', 'c-a']);
    assert.equal(input.value, 'hello');
    assert.equal(input.getAttribute('value'), 'hello!');
    assert.equal(input.getAttribute('title'), 'tip');
    assert.equal(input.hasAttribute('update'), false, 'an undefined result sets nothing');
    state.merge({ kind: 'b', text: 'bye', tip: null });
    assert.deepEqual(Array.from(input.classList), ['fixed', 'c-b']);
    assert.equal(input.value, 'bye');
    assert.equal(input.hasAttribute('title'), false, 'null removes the attribute');
    input.click();
    assert.equal(state.data.clicked, 'i');
    // Mixed parts make text.
    const d = page(`<div id=d $-data-b="n=\${d => d.n + 1} {n}"></div>`);
    d.Zelmar.replace(d.document.body, { n: 4 });
    assert.equal(d.document.getElementById('d').getAttribute('data-b'), 'n=5 4');
  });


  test('expressions see the functions of the scripts of their template and of the templates around it', () => {
    const p = page(`<div id=out>$outer{=}</div>
      <template name=outer>
        <script>function shout(d) { return String(d.word || d).toUpperCase(); }</script>
        <template @foreach><b $-title="\${shout}">{=}</b></template>
        <template name=inner><script>const suffix = '!';</script><i $-title="\${d => shout(d) + suffix}"></i></template>
        $inner{=}
      </template>
      <p>$missing{=}</p>`);
    p.Zelmar.replace(p.document.body, { word: 'hey' });
    assert.equal(p.document.querySelector('b').getAttribute('title'), 'HEY');
    assert.equal(p.document.querySelector('i').getAttribute('title'), 'HEY!');
    assert.equal(p.document.querySelector('p').textContent, 'Template not found: missing');
  });
});

describe('trackMerges', () => {
  test('writes through the proxy become merges by path, combined per tick, nulls kept', async () => {
    const p = page('');
    const state = p.Zelmar.replace(p.document.body,
      { engineConfig: { latencyMs: { gesture: false, rangeUnit: 0.2 } }, list: [1, 2], gone: 1 });
    const merges = [];
    state.trackMerges((m) => merges.push(JSON.parse(JSON.stringify(m))));
    const latency = state.data.engineConfig.latencyMs;
    latency.gesture = true;
    latency.rangeUnit = 0.3;
    latency.rangeUnit = 0.4;
    latency[Symbol.for('local')] = 1;
    state.data.list.push(3);
    delete state.data.gone;
    assert.equal(merges.length, 0, 'delivered later, not at once');
    await nextTick();
    assert.deepEqual(merges, [{
      engineConfig: { latencyMs: { gesture: true, rangeUnit: 0.4 } },
      list: [1, 2, 3],
      gone: null,
    }]);
    latency.rangeUnit = 0.4;
    await nextTick();
    assert.equal(merges.length, 1, 'writing the same value is no change');
  });

  test('state.merge redraws and tells no tracker', async () => {
    const p = page(`<b>{v}</b>`);
    const state = p.Zelmar.replace(p.document.body, { v: 1 });
    let calls = 0;
    state.trackMerges(() => ++calls);
    state.merge({ v: 2 });
    await nextTick();
    assert.equal(p.document.querySelector('b').textContent, '2');
    assert.equal(calls, 0);
  });

  test('a local write redraws at once; getRaw gives the plain object', () => {
    const p = page(`<b>{v.x}</b>`);
    const state = p.Zelmar.replace(p.document.body, { v: { x: 1 } });
    state.data.v.x = 5;
    assert.equal(p.document.querySelector('b').textContent, '5');
    const raw = p.Zelmar.getRaw(state.data.v);
    assert.equal(p.Zelmar.getRaw(raw), raw);
    assert.deepEqual({ ...raw }, { x: 5 });
    assert.equal(p.Zelmar.getRaw(7), 7);
  });
});

describe('interaction attributes', () => {
  function control(extra = '') {
    const p = page(`<div id=c $press="\${(d, count, e, el) => d.log.push(['press', count, e.type, el.id])}"
      $unpress="\${(d, e, seconds) => d.log.push(['unpress', e.type, seconds])}"
      $move="\${(d, dx, dy, el) => d.log.push(['move', dx, dy, el.id])}"
      $scroll="\${(d, dx, dy) => d.log.push(['scroll', dx, dy])}" ${extra}></div>`);
    const state = p.Zelmar.replace(p.document.body, { log: [] });
    const el = p.document.getElementById('c');
    const W = p.window;
    const pointer = (type, x, y, init = {}) => el.dispatchEvent(new (W.PointerEvent || W.MouseEvent)(type,
      { bubbles: true, cancelable: true, clientX: x, clientY: y, button: 0, pointerId: 1, ...init }));
    const key = (type, k, init = {}) => el.dispatchEvent(new W.KeyboardEvent(type, { key: k, bubbles: true, cancelable: true, ...init }));
    const log = () => JSON.parse(JSON.stringify(p.Zelmar.getRaw(state.data.log)));
    return { ...p, state, el, pointer, key, log };
  }

  test('keyboard: Enter and Space press and release; arrows step 15 px; Page, Home, End are infinite', () => {
    const c = control();
    c.key('keydown', 'Enter');
    c.key('keydown', 'Enter', { repeat: true });
    c.key('keyup', 'Enter');
    c.key('keydown', ' ');
    c.key('keyup', ' ');
    for (const k of ['ArrowUp', 'ArrowDown', 'ArrowLeft', 'ArrowRight']) c.key('keydown', k);
    c.key('keydown', 'ArrowUp', { ctrlKey: true });
    c.key('keydown', 'ArrowDown', { metaKey: true });
    for (const k of ['PageUp', 'PageDown', 'Home', 'End']) c.key('keydown', k);
    const raw = c.Zelmar.getRaw(c.state.data.log);
    assert.deepEqual(raw.map((e) => e.slice(0, 3)).map((e) => JSON.stringify(e, (k, v) => (typeof v === 'number' && !Number.isFinite(v) ? String(v) : v))), [
      ['press', 1, 'keydown'], ['unpress', 'keyup', 0], ['press', 2, 'keydown'], ['unpress', 'keyup', 0],
      ['move', 0, -15], ['move', 0, 15], ['move', -15, 0], ['move', 15, 0],
      ['move', 0, -1.5], ['move', 0, 'Infinity'],
      ['move', 0, '-Infinity'], ['move', 0, 'Infinity'], ['move', '-Infinity', 'Infinity'], ['move', 'Infinity', '-Infinity'],
    ].map((e) => JSON.stringify(e)));
  });

  test('blur ends a press; no unpress without a press', () => {
    const c = control();
    c.el.dispatchEvent(new c.window.FocusEvent('blur'));
    c.key('keydown', 'Enter');
    c.el.dispatchEvent(new c.window.FocusEvent('blur'));
    c.key('keyup', 'Enter');
    assert.deepEqual(c.log().map((e) => e.slice(0, 2)), [['press', 1], ['unpress', 'blur']]);
  });

  test('$resize hears the window; a page defines its own attribute on top of press', () => {
    const p = page(`<div id=r $resize="\${(d, el, w, h) => d.sizes.push([el.id, w, h])}" $toggle></div>`);
    p.Zelmar.global.attributes.toggle = (el) => p.Zelmar.global.attributes.press(el, (count) => {
      if (count === 2) el.classList.toggle('big');
    });
    const state = p.Zelmar.replace(p.document.body, { sizes: [] });
    p.window.dispatchEvent(new p.window.Event('resize'));
    assert.deepEqual(JSON.parse(JSON.stringify(p.Zelmar.getRaw(state.data.sizes))),
      [['r', p.window.innerWidth, p.window.innerHeight]]);
    const el = p.document.getElementById('r');
    for (let i = 0; i < 2; ++i) {
      el.dispatchEvent(new p.window.MouseEvent('pointerdown', { bubbles: true }));
      el.dispatchEvent(new p.window.MouseEvent('pointerup', { bubbles: true }));
    }
    assert.ok(el.classList.contains('big'));
  });

  test('removed elements stop hearing the window', () => {
    const p = page(`<i @if="\${d => d.on}" $resize="\${d => { d.count++; }}"></i>`);
    const state = p.Zelmar.replace(p.document.body, { on: true, count: 0 });
    p.window.dispatchEvent(new p.window.Event('resize'));
    state.merge({ on: false });
    p.window.dispatchEvent(new p.window.Event('resize'));
    assert.equal(state.data.count, 1);
  });
});
