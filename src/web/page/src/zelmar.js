/**
 * Zelmar: a small reactive template library for the editor page.
 *
 * - `Zelmar.replace(element, data)` compiles `element` as a template, builds it
 *   over `data` and puts the result in its place. The returned state has
 *   `data` (a tracking proxy), `merge(m)` and `trackMerges(fn)`.
 * - Every binding records the (object, key) pairs it reads through the proxy
 *   and re-runs only when one of them changes.
 * - Writes through the proxy become merges for the trackers, batched per tick.
 *
 * Loads as a plain browser script (global `Zelmar`) and as a CommonJS module;
 * it needs a DOM only for `replace`.
 */
(function (root) {
  'use strict';

  const ITERATE = Symbol('zelmar.iterate'); // key set of an object or array
  const RAW = Symbol('zelmar.raw');
  const hasOwn = (o, k) => Object.prototype.hasOwnProperty.call(o, k);

  // ------------------------------------------------------------------ values

  /** A map in the sense of a merge: a plain object, from any realm, not an array or buffer. */
  function isMap(v) {
    return v !== null && typeof v === 'object' && !Array.isArray(v) && !ArrayBuffer.isView(v) &&
      Object.prototype.toString.call(v) === '[object Object]';
  }

  /** Objects that get tracking proxies: maps and arrays. Typed arrays and buffers stay raw. */
  const isTrackable = (v) => Array.isArray(v) || isMap(v);

  const isIndexKey = (k) => /^(0|[1-9]\d*)$/.test(k);

  /** The unproxied object behind a tracking proxy; anything else as it is. */
  function getRaw(v) {
    return v !== null && typeof v === 'object' && v[RAW] ? v[RAW] : v;
  }

  // ------------------------------------------------------------------ merges

  /**
   * Applies `merge` to `target` in place and returns the result. Maps merge
   * recursively, everything else replaces, a null deletes unless `keepNulls`
   * (then it stays, as when combining two merges). A map merged onto an array
   * sets the elements named by its index keys. `changed(obj, key, keysChanged)`
   * hears of every key whose value is new.
   */
  function applyMerge(target, merge, keepNulls, changed) {
    if (!isMap(merge)) return merge;
    if (Array.isArray(target)) {
      applyToArray(target, merge, keepNulls, changed);
      return target;
    }
    if (!isMap(target)) {
      target = {};
      changed = null; // a new object: nobody can have read it yet
    }
    for (const key of Object.keys(merge)) {
      const m = merge[key];
      const had = hasOwn(target, key);
      const old = target[key];
      if (m === null && !keepNulls) {
        if (had) {
          delete target[key];
          if (changed) changed(target, key, true);
        }
        continue;
      }
      if (isMap(m) && (isMap(old) || Array.isArray(old))) {
        applyMerge(old, m, keepNulls, changed);
        continue;
      }
      const value = isMap(m) ? applyMerge(undefined, m, keepNulls, null) : m;
      if (had && Object.is(old, value)) continue;
      target[key] = value;
      if (changed) changed(target, key, !had);
    }
    followOrder(target, merge, changed);
    return target;
  }

  /**
   * A merge that names every key of an object (a whole state) also sets their
   * order, so that what arrived before it, such as a spectrum, doesn't stay
   * first. Index-like keys are left alone: objects always put those first.
   */
  function followOrder(target, merge, changed) {
    const keys = Object.keys(target);
    if (keys.length < 2 || keys.some(isIndexKey)) return;
    const order = Object.keys(merge).filter((k) => hasOwn(target, k));
    if (order.length !== keys.length || order.every((k, i) => k === keys[i])) return;
    for (const key of order) {
      const value = target[key];
      delete target[key];
      target[key] = value;
    }
    if (changed) changed(target, ITERATE, false);
  }

  function applyToArray(array, merge, keepNulls, changed) {
    const oldLength = array.length;
    for (const key of Object.keys(merge)) {
      if (!isIndexKey(key)) continue;
      const index = Number(key);
      const m = merge[key];
      const old = array[index];
      if (m === null && !keepNulls) {
        if (index >= array.length) continue;
        if (index === array.length - 1) array.length = index;
        else delete array[index];
        if (changed) changed(array, key, false);
        continue;
      }
      if (isMap(m) && (isMap(old) || Array.isArray(old))) {
        applyMerge(old, m, keepNulls, changed);
        continue;
      }
      const value = isMap(m) ? applyMerge(undefined, m, keepNulls, null) : m;
      if (index < array.length && Object.is(old, value)) continue;
      array[index] = value;
      if (changed) changed(array, key, false);
    }
    if (changed && array.length !== oldLength) changed(array, 'length', true);
  }

  // -------------------------------------------------------------- reactivity

  const subscribers = new WeakMap(); // raw object -> Map(key -> Set(effect))
  const proxies = new WeakMap();     // raw object -> its proxy
  const parents = new WeakMap();     // raw object -> [parent raw, key], learnt on access
  const states = new WeakMap();      // root raw object -> State

  let activeEffect = null;
  let nextEffectId = 0;
  const pendingEffects = new Set();
  let flushing = false;

  function track(raw, key) {
    if (!activeEffect) return;
    let byKey = subscribers.get(raw);
    if (!byKey) subscribers.set(raw, byKey = new Map());
    let set = byKey.get(key);
    if (!set) byKey.set(key, set = new Set());
    if (!set.has(activeEffect)) {
      set.add(activeEffect);
      activeEffect.deps.push(set);
    }
  }

  function trigger(raw, key) {
    const byKey = subscribers.get(raw);
    const set = byKey && byKey.get(key);
    if (set) for (const effect of set) pendingEffects.add(effect);
  }

  /** Marks a change of `raw[key]`; `keysChanged` when keys came or went. */
  function changedKey(raw, key, keysChanged) {
    trigger(raw, key);
    if (keysChanged) {
      trigger(raw, ITERATE);
      if (Array.isArray(raw)) trigger(raw, 'length');
    }
  }

  /** Runs the pending effects, oldest first so that owners go before what they own. */
  function flush() {
    if (flushing) return;
    flushing = true;
    const runs = new Map();
    try {
      while (pendingEffects.size) {
        const batch = Array.from(pendingEffects).sort((a, b) => a.id - b.id);
        pendingEffects.clear();
        for (const effect of batch) {
          if (!effect.alive) continue;
          const count = (runs.get(effect) || 0) + 1;
          runs.set(effect, count);
          if (count > 100) {
            console.error('Zelmar: a binding keeps changing what it reads; stopped', effect);
            continue;
          }
          effect.run();
        }
      }
    } finally {
      flushing = false;
    }
  }

  function untracked(fn) {
    const previous = activeEffect;
    activeEffect = null;
    try { return fn(); } finally { activeEffect = previous; }
  }

  /** A binding: `fn` re-runs when anything it read last time changes. First run is queued. */
  class Effect {
    constructor(owner, fn) {
      this.id = ++nextEffectId;
      this.fn = fn;
      this.deps = [];
      this.alive = true;
      owner.effects.push(this);
      pendingEffects.add(this);
    }

    run() {
      this.clear();
      const previous = activeEffect;
      activeEffect = this;
      try {
        this.fn();
      } catch (e) {
        console.error(e);
      } finally {
        activeEffect = previous;
      }
    }

    clear() {
      for (const set of this.deps) set.delete(this);
      this.deps.length = 0;
    }

    dispose() {
      this.alive = false;
      this.clear();
    }
  }

  /** Owns the effects and clean-ups of one built piece of DOM, and of the pieces inside it. */
  class Owner {
    constructor(parent) {
      this.parent = parent;
      this.effects = [];
      this.children = [];
      this.cleanups = [];
      if (parent) parent.children.push(this);
    }

    dispose() {
      for (const child of this.children.splice(0)) {
        child.parent = null; // no need to leave a list that is gone
        child.dispose();
      }
      for (const effect of this.effects.splice(0)) effect.dispose();
      for (const fn of this.cleanups.splice(0)) {
        try { fn(); } catch (e) { console.error(e); }
      }
      // Pieces come and go for as long as the page lives: let go of this one.
      if (this.parent) {
        const i = this.parent.children.indexOf(this);
        if (i >= 0) this.parent.children.splice(i, 1);
        this.parent = null;
      }
    }
  }

  /** Turns a local write into a merge for the trackers of the state the object lives in. */
  function recordWrite(raw, key, value) {
    if (typeof key === 'symbol') return;
    let path = [];
    let merge;
    let leaf = raw;
    if (Array.isArray(raw)) {
      merge = Array.from(raw); // arrays travel whole
    } else {
      path = [key];
      merge = value === undefined ? null : value;
    }
    for (let guard = 0; !states.has(leaf); ++guard) {
      const link = parents.get(leaf);
      if (!link || guard > 10000) return; // not reachable from a state: nothing to tell
      path.unshift(link[1]);
      leaf = link[0];
    }
    for (let i = path.length - 1; i >= 0; --i) merge = { [path[i]]: merge };
    states.get(leaf).queueMerge(merge);
  }

  const proxyHandler = {
    get(target, key) {
      if (key === RAW) return target;
      track(target, key);
      const value = target[key];
      if (isTrackable(value)) {
        parents.set(value, [target, key]);
        return reactive(value);
      }
      return value;
    },
    has(target, key) {
      track(target, key);
      return key in target;
    },
    ownKeys(target) {
      track(target, ITERATE);
      if (Array.isArray(target)) track(target, 'length');
      return Reflect.ownKeys(target);
    },
    set(target, key, value) {
      value = getRaw(value);
      const had = hasOwn(target, key);
      if (had && Object.is(target[key], value)) return true;
      const isArray = Array.isArray(target);
      const oldLength = isArray ? target.length : 0;
      target[key] = value;
      changedKey(target, key, !had);
      if (isArray && target.length !== oldLength) changedKey(target, 'length', true);
      recordWrite(target, key, value);
      flush();
      return true;
    },
    deleteProperty(target, key) {
      if (!hasOwn(target, key)) return true;
      delete target[key];
      changedKey(target, key, true);
      recordWrite(target, key, undefined);
      flush();
      return true;
    },
  };

  /** The tracking proxy of a map or array (one per object); other values as they are. */
  function reactive(value) {
    value = getRaw(value);
    if (!isTrackable(value)) return value;
    let proxy = proxies.get(value);
    if (!proxy) proxies.set(value, proxy = new Proxy(value, proxyHandler));
    return proxy;
  }

  /** A wrapped data tree: the proxy, incoming merges, and outgoing merges. */
  class State {
    constructor(data) {
      this.raw = isTrackable(getRaw(data)) ? getRaw(data) : {};
      this.data = reactive(this.raw);
      this.trackers = [];
      this.pending = null;
      this.frame = 0;
      this.timer = 0;
      states.set(this.raw, this);
    }

    /** Applies a merge from outside and redraws what read the changed keys. Tells no tracker. */
    merge(merge) {
      if (!isMap(merge)) return; // the root stays what it is
      applyMerge(this.raw, merge, false, changedKey);
      flush();
    }

    /** Calls `fn(merge)` with the local changes, batched until the next frame or timer. */
    trackMerges(fn) {
      this.trackers.push(fn);
      return () => {
        const i = this.trackers.indexOf(fn);
        if (i >= 0) this.trackers.splice(i, 1);
      };
    }

    queueMerge(merge) {
      this.pending = applyMerge(this.pending || {}, merge, true);
      if (this.timer) return;
      const deliver = () => {
        if (this.frame && root.cancelAnimationFrame) root.cancelAnimationFrame(this.frame);
        clearTimeout(this.timer);
        this.frame = this.timer = 0;
        const pending = this.pending;
        this.pending = null;
        if (!pending) return;
        for (const fn of this.trackers.slice()) {
          try { fn(pending); } catch (e) { console.error(e); }
        }
      };
      this.timer = setTimeout(deliver, 0);
      if (root.requestAnimationFrame) this.frame = root.requestAnimationFrame(deliver);
    }
  }

  // ---------------------------------------------------------------- parsing

  // Sticky, so that they match at `lastIndex` and nowhere else.
  const PATH_RE = /\{(=|[A-Za-z_$][\w$]*(?:\.[\w$]+)*)\}/y;
  const APPLY_RE = /\$([A-Za-z_][\w-]*)\{(=|[A-Za-z_$][\w$]*(?:\.[\w$]+)*)\}/y;

  const toPath = (text) => (text === '=' ? [] : text.split('.'));

  function matchAt(re, text, i) {
    re.lastIndex = i;
    return re.exec(text);
  }

  /** Index of the `}` that closes the brace opened just before `start`, skipping strings. */
  function closingBrace(text, start) {
    let depth = 1;
    for (let i = start; i < text.length; ++i) {
      const c = text[i];
      if (c === '"' || c === "'" || c === '`') {
        for (++i; i < text.length && text[i] !== c; ++i) if (text[i] === '\\') ++i;
      } else if (c === '{') {
        ++depth;
      } else if (c === '}' && --depth === 0) {
        return i;
      }
    }
    return -1;
  }

  /**
   * Cuts a text into parts: strings, `{path}`, `${expression}` and, where
   * `allowApply`, `$template{path}`. Anything else, stray braces included, is text.
   */
  function parseParts(text, compiler, allowApply) {
    const parts = [];
    let literal = '';
    const flushLiteral = () => {
      if (literal) parts.push({ text: literal });
      literal = '';
    };
    for (let i = 0; i < text.length;) {
      let m;
      if (text.startsWith('${', i)) {
        const end = closingBrace(text, i + 2);
        if (end > 0) {
          flushLiteral();
          parts.push({ expr: compiler.expression(text.slice(i + 2, end)) });
          i = end + 1;
          continue;
        }
      } else if (allowApply && text[i] === '$' && (m = matchAt(APPLY_RE, text, i))) {
        flushLiteral();
        parts.push({ apply: m[1], path: toPath(m[2]) });
        i += m[0].length;
        continue;
      } else if (text[i] === '{' && (m = matchAt(PATH_RE, text, i))) {
        flushLiteral();
        parts.push({ path: toPath(m[1]) });
        i += m[0].length;
        continue;
      }
      literal += text[i++];
    }
    flushLiteral();
    return parts;
  }

  const isDynamic = (parts) => parts.some((p) => !('text' in p));

  // --------------------------------------------------------------- compiling

  /**
   * Compiles a DOM tree into plans. Expressions and `<script>`s are gathered
   * per template scope into one generated function, so that an expression
   * sees the functions of the scripts of its template and of those around it.
   */
  class Compiler {
    constructor() {
      this.sources = [];   // expression source by id
      this.values = [];    // expression value by id, after `finish`
      this.scope = null;
    }

    expression(source) {
      this.sources.push(source);
      const id = this.sources.length - 1;
      this.scope.exprs.push(id);
      return id;
    }

    /** Opens a scope below the present one, with the named templates found in `node`. */
    enterScope(node) {
      const scope = { parent: this.scope, templates: new Map(), scripts: [], exprs: [], children: [] };
      if (this.scope) this.scope.children.push(scope);
      else this.rootScope = scope;
      this.scope = scope;
      // Named templates are visible in the whole scope, before and after their definition.
      const named = [];
      this.findNamed(node, named);
      for (const el of named) {
        scope.templates.set(el.getAttribute('name'), { name: el.getAttribute('name'), source: el, plan: null });
      }
      for (const def of scope.templates.values()) def.plan = this.compileTemplate(def.source);
    }

    leaveScope() {
      this.scope = this.scope.parent;
    }

    /** The element handed to `replace`: its own scripts have run already, those in its templates not. */
    compileRoot(el) {
      this.enterScope(el);
      const plan = el.localName === 'template'
        ? this.compileTemplate(el)
        : this.compileAttributes(el, { kind: 'element', source: el, attributes: [], dynamic: [], children: this.compileChildren(el, true), foreach: null, condition: null });
      plan.foreach = null;
      plan.condition = null;
      this.leaveScope();
      return plan;
    }

    findNamed(node, out) {
      for (let child = node.firstChild; child; child = child.nextSibling) {
        if (child.nodeType !== 1) continue;
        if (child.localName === 'template') {
          if (child.hasAttribute('name')) out.push(child);
        } else {
          this.findNamed(child, out);
        }
      }
    }

    lookup(name) {
      for (let s = this.scope; s; s = s.parent) {
        const def = s.templates.get(name);
        if (def) return def;
      }
      return null;
    }

    /** A `<template>`'s content as a fragment plan with its own scope. */
    compileTemplate(el) {
      const fragment = {
        kind: 'fragment',
        children: null,
        foreach: directivePath(el, '@foreach'),
        condition: null,
      };
      if (el.hasAttribute('@if')) fragment.condition = parseParts(el.getAttribute('@if'), this, false);
      const content = el.content || el;
      this.enterScope(content);
      fragment.children = this.compileChildren(content, false);
      this.leaveScope();
      return fragment;
    }

    compileChildren(node, skipScripts) {
      const plans = [];
      for (let child = node.firstChild; child; child = child.nextSibling) {
        const plan = this.compileNode(child, skipScripts);
        if (plan) plans.push(plan);
      }
      return plans;
    }

    compileNode(node, skipScripts) {
      if (node.nodeType === 3) return this.compileText(node);
      if (node.nodeType !== 1) return null;
      const tag = node.localName;
      if (tag === 'script') {
        if (!skipScripts && !node.src) this.scope.scripts.push(node.textContent);
        return null;
      }
      if (tag === 'template') {
        if (node.hasAttribute('name')) return null; // a definition, used by `$name{...}`
        return this.compileTemplate(node);
      }
      return this.compileElement(node, skipScripts);
    }

    compileText(node) {
      const text = node.data;
      if (!text.trim() && text.includes('\n')) return null; // indentation between tags
      const parts = parseParts(text, this, true);
      if (!isDynamic(parts)) return { kind: 'static', node };
      // Consecutive text parts share one text node; each `$name{...}` is a block of its own.
      const segments = [];
      for (const part of parts) {
        if (part.apply) {
          segments.push({ kind: 'apply', def: this.lookup(part.apply), name: part.apply, path: part.path });
        } else if (segments.length && segments[segments.length - 1].kind === 'text') {
          segments[segments.length - 1].parts.push(part);
        } else {
          segments.push({ kind: 'text', parts: [part] });
        }
      }
      return { kind: 'segments', segments };
    }

    compileElement(el, skipScripts) {
      const plan = this.compileAttributes(el, {
        kind: 'element',
        source: el,
        attributes: [],
        dynamic: [],
        children: null,
        foreach: directivePath(el, '@foreach'),
        condition: null,
      });
      if (el.localName === 'style' || el.localName === 'textarea') {
        plan.children = Array.from(el.childNodes).map((node) => ({ kind: 'static', node }));
      } else {
        plan.children = this.compileChildren(el, skipScripts);
      }
      // Cloned whole only if nothing inside was left out (scripts, definitions, indentation).
      if (!plan.dynamic.length && !plan.condition && plan.foreach === null &&
          plan.children.length === el.childNodes.length && plan.children.every((c) => c.kind === 'static')) {
        return { kind: 'static', node: el };
      }
      return plan;
    }

    /** `@if`, `$name` bindings and plain attributes of an element. */
    compileAttributes(el, plan) {
      for (const attr of Array.from(el.attributes)) {
        const name = attr.name;
        if (name === '@if') plan.condition = parseParts(attr.value, this, false);
        else if (name === '@foreach') continue;
        else if (name[0] === '$') plan.dynamic.push({ name: name.slice(1), parts: parseParts(attr.value, this, false) });
        else plan.attributes.push(attr);
      }
      return plan;
    }

    /** Generates and runs the function that evaluates every expression in its scope. */
    finish(rootScope) {
      const body = (scope) => '{\n' + scope.scripts.join('\n;\n') + '\n' +
        scope.exprs.map((id) => `try { $values[${id}] = (${this.sources[id]}\n); } catch (e) { $error(e, ${id}); }`).join('\n') +
        '\n' + scope.children.map(body).join('\n') + '\n}';
      const report = (e, id) => console.error('Zelmar: expression failed: ${' + this.sources[id] + '}', e);
      let run;
      try {
        run = new Function('$values', '$error', '"use strict";\n' + body(rootScope));
      } catch (e) {
        // A syntax error somewhere: evaluate each expression alone so that the rest still works.
        console.error('Zelmar: template scripts do not compile', e);
        run = (values, error) => this.sources.forEach((source, id) => {
          try { values[id] = new Function('return (' + source + '\n);')(); } catch (err) { error(err, id); }
        });
      }
      run(this.values, report);
    }
  }

  /** `@foreach` with no value iterates the data itself; a value names a path below it. */
  function directivePath(el, name) {
    if (!el.hasAttribute || !el.hasAttribute(name)) return null;
    const value = el.getAttribute(name).trim().replace(/^\{(.*)\}$/, '$1');
    return value === '' || value === '=' ? [] : value.split('.');
  }

  // ---------------------------------------------------------------- building

  function resolve(data, path) {
    let value = data;
    for (const key of path) {
      if (value === null || value === undefined) return undefined;
      value = value[key];
    }
    return value;
  }

  const call = (value, data, element) => (typeof value === 'function' ? value(data, element) : value);

  /** The value of attribute or text parts: a lone expression keeps its type, anything else is text. */
  function evaluate(parts, compiler, data, element) {
    if (parts.length === 1 && 'expr' in parts[0]) return call(compiler.values[parts[0].expr], data, element);
    let text = '';
    for (const part of parts) {
      let v;
      if ('text' in part) v = part.text;
      else if ('expr' in part) v = call(compiler.values[part.expr], data, element);
      else v = resolve(data, part.path);
      if (v !== null && v !== undefined) text += v;
    }
    return text;
  }

  /** Start and end markers of a piece of DOM that comes and goes. */
  function makeBlock(parent) {
    const doc = parent.ownerDocument || parent;
    const block = { start: doc.createComment(''), end: doc.createComment('') };
    parent.appendChild(block.start);
    parent.appendChild(block.end);
    return block;
  }

  function clearBlock(block) {
    const parent = block.start.parentNode;
    while (block.start.nextSibling && block.start.nextSibling !== block.end) parent.removeChild(block.start.nextSibling);
  }

  function fillBlock(block, build) {
    const doc = block.start.ownerDocument;
    const fragment = doc.createDocumentFragment();
    build(fragment);
    block.end.parentNode.insertBefore(fragment, block.end);
  }

  class Builder {
    constructor(compiler, doc) {
      this.compiler = compiler;
      this.doc = doc;
    }

    /** Builds `plans` over `data` into `parent`; bindings belong to `owner`. */
    buildAll(plans, data, parent, owner) {
      for (const plan of plans) this.build(plan, data, parent, owner);
    }

    build(plan, data, parent, owner) {
      switch (plan.kind) {
        case 'static':
          parent.appendChild(this.doc.importNode(plan.node, true));
          return;
        case 'segments':
          for (const segment of plan.segments) {
            if (segment.kind === 'text') this.buildText(segment.parts, data, parent, owner);
            else this.buildApply(segment, data, parent, owner);
          }
          return;
        default:
          this.buildRepeated(plan, data, parent, owner);
      }
    }

    buildText(parts, data, parent, owner) {
      const node = this.doc.createTextNode('');
      parent.appendChild(node);
      new Effect(owner, () => {
        const text = evaluate(parts, this.compiler, data, node);
        const value = text === null || text === undefined ? '' : String(text);
        if (node.data !== value) node.data = value;
      });
    }

    buildApply(segment, data, parent, owner) {
      if (!segment.def) {
        parent.appendChild(this.doc.createTextNode('Template not found: ' + segment.name));
        return;
      }
      const block = makeBlock(parent);
      let child = null;
      let shown;
      new Effect(owner, () => {
        const value = resolve(data, segment.path);
        if (child && getRaw(value) === shown) return;
        shown = getRaw(value);
        if (child) child.dispose();
        child = new Owner(owner);
        const current = child;
        untracked(() => {
          clearBlock(block);
          fillBlock(block, (fragment) => this.buildRepeated(segment.def.plan, value, fragment, current));
        });
      });
    }

    /** `@foreach` around `@if` around the element or fragment itself. */
    buildRepeated(plan, data, parent, owner) {
      if (plan.foreach === null) {
        this.buildConditional(plan, data, parent, owner);
        return;
      }
      const block = makeBlock(parent);
      let items = new Map(); // key -> { raw, owner, block }
      new Effect(owner, () => {
        const collection = resolve(data, plan.foreach);
        const raw = getRaw(collection);
        let keys = [];
        if (Array.isArray(raw)) {
          const length = collection.length; // tracks 'length'
          for (let i = 0; i < length; ++i) if (i in raw) keys.push(String(i));
          Object.keys(collection); // tracks the key set
        } else if (isMap(raw)) {
          keys = Object.keys(collection);
        }
        const next = new Map();
        for (const key of keys) {
          const value = collection[key];
          const item = items.get(key);
          if (item && item.raw === getRaw(value)) {
            next.set(key, item);
            items.delete(key);
          } else {
            next.set(key, { raw: getRaw(value), value, owner: null, block: null });
          }
        }
        untracked(() => {
          for (const item of items.values()) removeItem(item);
          items = next;
          let cursor = block.start;
          for (const item of items.values()) {
            if (!item.block) {
              item.owner = new Owner(owner);
              const fragment = this.doc.createDocumentFragment();
              item.block = makeBlock(fragment);
              const content = this.doc.createDocumentFragment();
              this.buildConditional(plan, item.value, content, item.owner);
              fragment.insertBefore(content, item.block.end);
              cursor.parentNode.insertBefore(fragment, cursor.nextSibling);
            } else if (item.block.start.previousSibling !== cursor) {
              moveItem(item, cursor);
            }
            cursor = item.block.end;
          }
        });
      });
    }

    buildConditional(plan, data, parent, owner) {
      if (!plan.condition) {
        this.buildPlain(plan, data, parent, owner);
        return;
      }
      const block = makeBlock(parent);
      let child = null;
      new Effect(owner, () => {
        const show = !!evaluate(plan.condition, this.compiler, data, null);
        if (show === !!child) return;
        untracked(() => {
          if (child) {
            child.dispose();
            child = null;
            clearBlock(block);
          } else {
            child = new Owner(owner);
            const current = child;
            fillBlock(block, (fragment) => this.buildPlain(plan, data, fragment, current));
          }
        });
      });
    }

    buildPlain(plan, data, parent, owner) {
      if (plan.kind === 'fragment') {
        this.buildAll(plan.children, data, parent, owner);
        return;
      }
      const source = plan.source;
      const el = this.doc.createElementNS(source.namespaceURI, source.localName);
      for (const attr of plan.attributes) {
        try { el.setAttributeNS(attr.namespaceURI, attr.name, attr.value); } catch (e) { /* a name the DOM refuses */ }
      }
      this.buildAll(plan.children, data, el, owner);
      for (const binding of plan.dynamic) this.bindAttribute(el, binding, data, owner);
      parent.appendChild(el);
    }

    bindAttribute(el, binding, data, owner) {
      const compiler = this.compiler;
      const name = binding.name;
      const parts = binding.parts;
      const compute = () => evaluate(parts, compiler, data, el);
      if (name[0] === '-') {
        new Effect(owner, () => setAttribute(el, name.slice(1), compute()));
        return;
      }
      const special = Zelmar.global.attributes;
      if (hasOwn(special, name) && typeof special[name] === 'function') {
        const fn = parts.length === 1 && 'expr' in parts[0] ? compiler.values[parts[0].expr] : undefined;
        const handler = (...args) => {
          if (typeof fn !== 'function') return undefined;
          const result = untracked(() => fn(data, ...args));
          flush();
          return result;
        };
        const setter = special[name](el, handler, (cleanup) => owner.cleanups.push(cleanup));
        if (typeof setter === 'function') new Effect(owner, () => setter(compute()));
        return;
      }
      if (('on' + name) in el) {
        const fn = compiler.values[parts.length === 1 && 'expr' in parts[0] ? parts[0].expr : -1];
        if (typeof fn !== 'function') return;
        el.addEventListener(name, (event) => {
          untracked(() => fn(data, event, el));
          flush();
        });
        return;
      }
      if (name in el) {
        new Effect(owner, () => {
          const value = compute();
          if (value === null || value === undefined) el.removeAttribute(name); // as for attributes
          else if (el[name] !== value) el[name] = value;
        });
        return;
      }
      new Effect(owner, () => setAttribute(el, name, compute()));
    }
  }

  function setAttribute(el, name, value) {
    try {
      if (value === null || value === undefined || value === false) el.removeAttribute(name);
      else el.setAttribute(name, value === true ? '' : String(value));
    } catch (e) { /* a name the DOM refuses */ }
  }

  function itemNodes(item) {
    const nodes = [];
    for (let n = item.block.start; n; n = n.nextSibling) {
      nodes.push(n);
      if (n === item.block.end) break;
    }
    return nodes;
  }

  function removeItem(item) {
    if (item.owner) item.owner.dispose();
    if (item.block) for (const n of itemNodes(item)) n.parentNode.removeChild(n);
  }

  function moveItem(item, after) {
    const parent = after.parentNode;
    let before = after.nextSibling;
    for (const n of itemNodes(item)) parent.insertBefore(n, before);
  }

  // ----------------------------------------------------------- interactions

  const interactions = new WeakMap();

  function now() {
    return root.performance ? root.performance.now() : Date.now();
  }

  /** Fine steps with Ctrl or Shift, an infinite step with Meta or Alt. */
  function modifiedStep(value, event) {
    if (event.metaKey || event.altKey) return value === 0 ? 0 : value > 0 ? Infinity : -Infinity;
    if (event.ctrlKey || event.shiftKey) return value * 0.1;
    return value;
  }

  const KEY_STEPS = {
    ArrowLeft: [-15, 0], ArrowRight: [15, 0], ArrowUp: [0, -15], ArrowDown: [0, 15],
    PageUp: [0, -Infinity], PageDown: [0, Infinity],
    Home: [-Infinity, Infinity], End: [Infinity, -Infinity],
  };

  function makeFocusable(el) {
    if (!el.hasAttribute('tabindex') && !(el.tabIndex >= 0)) el.tabIndex = 0;
  }

  /**
   * The press/unpress/move state of one element, with its listeners installed
   * once whatever combination of the three it has.
   */
  function interaction(el) {
    let st = interactions.get(el);
    if (st) return st;
    st = { handlers: {}, pointer: null, x: 0, y: 0, pressed: false, pressTime: 0, lastPress: -Infinity, count: 0, key: null };
    interactions.set(el, st);
    makeFocusable(el);

    const press = (event) => {
      const t = now();
      st.count = t - st.lastPress < 300 ? st.count + 1 : 1;
      st.lastPress = t;
      st.pressed = true;
      st.pressTime = t;
      if (st.handlers.press) st.handlers.press(st.count, event, el);
    };
    const unpress = (event) => {
      if (!st.pressed) return;
      st.pressed = false;
      if (st.handlers.unpress) st.handlers.unpress(event, (now() - st.pressTime) / 1000, el);
    };
    const endPointer = (event) => {
      if (st.pointer === null || (event.pointerId !== undefined && event.pointerId !== st.pointer)) return;
      try { if (el.hasPointerCapture && el.hasPointerCapture(st.pointer)) el.releasePointerCapture(st.pointer); } catch (e) { /* gone */ }
      st.pointer = null;
      unpress(event);
    };

    el.addEventListener('pointerdown', (event) => {
      if (event.button > 0 || st.pointer !== null) return;
      st.pointer = event.pointerId === undefined ? 1 : event.pointerId;
      st.x = event.clientX;
      st.y = event.clientY;
      try { if (el.setPointerCapture) el.setPointerCapture(st.pointer); } catch (e) { /* synthetic event */ }
      if (st.handlers.move) event.preventDefault(); // no text selection or scrolling while dragging
      if (el.focus) el.focus({ preventScroll: true });
      press(event);
    });
    el.addEventListener('pointermove', (event) => {
      if (st.pointer === null || (event.pointerId !== undefined && event.pointerId !== st.pointer)) return;
      const dx = event.clientX - st.x;
      const dy = event.clientY - st.y;
      st.x = event.clientX;
      st.y = event.clientY;
      if (st.handlers.move && (dx || dy)) st.handlers.move(modifiedStep(dx, event), modifiedStep(dy, event), el);
    });
    el.addEventListener('pointerup', endPointer);
    el.addEventListener('pointercancel', endPointer);
    el.addEventListener('lostpointercapture', endPointer);
    el.addEventListener('keydown', (event) => {
      if ((event.key === 'Enter' || event.key === ' ') && (st.handlers.press || st.handlers.unpress)) {
        event.preventDefault();
        if (event.repeat || st.key) return;
        st.key = event.key;
        press(event);
        return;
      }
      const step = KEY_STEPS[event.key];
      if (step && st.handlers.move) {
        event.preventDefault();
        st.handlers.move(modifiedStep(step[0], event), modifiedStep(step[1], event), el);
      }
    });
    el.addEventListener('keyup', (event) => {
      if (event.key !== st.key) return;
      st.key = null;
      unpress(event);
    });
    el.addEventListener('blur', (event) => {
      st.key = null;
      unpress(event);
    });
    return st;
  }

  const attributes = {
    /** (data, count, event, element): pointer down, Enter or Space; `count` counts presses < 300 ms apart. */
    press(el, handler) { interaction(el).handlers.press = handler; },
    /** (data, event, seconds, element): pointer up, Enter or Space released, or blur. */
    unpress(el, handler) { interaction(el).handlers.unpress = handler; },
    /** (data, dx, dy, element): drag with pointer capture; arrows 15 px, Page, Home, End infinite. */
    move(el, handler) { interaction(el).handlers.move = handler; },
    /** (data, dx, dy, element): wheel; `dy` is `deltaY`. */
    scroll(el, handler) {
      makeFocusable(el);
      el.addEventListener('wheel', (event) => {
        event.preventDefault();
        handler(modifiedStep(event.deltaX, event), modifiedStep(event.deltaY, event), el);
      }, { passive: false });
    },
    /** (data, element, width, height): window resize, and the element's own size change. */
    resize(el, handler, onDispose) {
      const win = el.ownerDocument.defaultView;
      const onResize = () => handler(el, win.innerWidth, win.innerHeight);
      win.addEventListener('resize', onResize);
      let observer = null;
      if (typeof win.ResizeObserver === 'function') {
        observer = new win.ResizeObserver((entries) => {
          const box = entries[entries.length - 1].contentRect;
          handler(el, box.width, box.height);
        });
        observer.observe(el);
      }
      onDispose(() => {
        win.removeEventListener('resize', onResize);
        if (observer) observer.disconnect();
      });
    },
    /** Class list from a string; classes written in the markup stay. */
    class(el) {
      let added = [];
      return (value) => {
        const next = value === null || value === undefined ? [] : String(value).split(/\s+/).filter(Boolean);
        for (const c of added) if (!next.includes(c)) el.classList.remove(c);
        for (const c of next) el.classList.add(c);
        added = next;
      };
    },
  };

  // ---------------------------------------------------------------- the API

  /**
   * Compiles `element` as a template, builds it over `data` and puts the
   * result in its place. Returns the state: `data`, `merge`, `trackMerges`,
   * and `element`, the built replacement.
   */
  function replace(element, data) {
    const state = new State(data);
    const doc = element.ownerDocument;
    const compiler = new Compiler();
    const rootPlan = compiler.compileRoot(element);
    compiler.finish(compiler.rootScope);

    const owner = new Owner(null);
    const builder = new Builder(compiler, doc);
    const fragment = doc.createDocumentFragment();
    builder.build(rootPlan, state.data, fragment, owner);
    state.element = element.localName === 'template' ? null : fragment.firstElementChild;
    element.replaceWith(fragment);
    flush();
    state.owner = owner;
    return state;
  }

  const Zelmar = {
    replace,
    getRaw,
    merge: { apply: (target, merge, keepNulls) => applyMerge(target, merge, !!keepNulls, null) },
    global: { attributes },
  };
  root.Zelmar = Zelmar;
  if (typeof module === 'object' && module.exports) module.exports = Zelmar;
})(typeof globalThis !== 'undefined' ? globalThis : this);
