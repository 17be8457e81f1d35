// A stand-in for a plug-in's editor side, for testing the page in a browser
// without the plug-in: it serves the three page files on 127.0.0.1 over http
// and speaks the page's message protocol over a WebSocket, with a state tree
// shaped like the Pitch Shifter's and a moving test spectrum.
//
// The bytes it sends are shaped like the effect's: indefinite maps, single-pair
// maps along an update's path, 0x82 wrappers, tag 85 float arrays.
//
//   node tests/web/page/fake-effect.mjs [--port N]   serves until stopped
//   import { startFakeEffect } from './fake-effect.mjs'  for tests
import { createServer } from 'node:http';
import { readFile } from 'node:fs/promises';
import { createRequire } from 'node:module';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { WebSocketServer } from 'ws';

const here = dirname(fileURLToPath(import.meta.url));
export const pageDir = join(here, '..', '..', '..', 'src', 'web', 'page');
const CBOR = createRequire(import.meta.url)(join(pageDir, 'cbor.min.js'));

// ------------------------------------------------------------- the writer

/** Appends CBOR the way the effect writes it. */
class EffectWriter {
  constructor() { this.bytes = []; }

  head(major, n) {
    const m = major << 5;
    if (n < 24) this.bytes.push(m | n);
    else if (n < 0x100) this.bytes.push(m | 24, n);
    else if (n < 0x10000) this.bytes.push(m | 25, n >> 8, n & 0xff);
    else this.bytes.push(m | 26, (n >>> 24) & 0xff, (n >> 16) & 0xff, (n >> 8) & 0xff, n & 0xff);
  }

  text(s) {
    const b = Buffer.from(s, 'utf8');
    this.head(3, b.length);
    this.bytes.push(...b);
  }

  int(n) { if (n >= 0) this.head(0, n); else this.head(1, -1 - n); }

  double(v) {
    const b = Buffer.alloc(8);
    b.writeDoubleBE(v);
    this.bytes.push(0xfb, ...b);
  }

  bool(v) { this.bytes.push(v ? 0xf5 : 0xf4); }
  beginMap() { this.bytes.push(0xbf); }
  end() { this.bytes.push(0xff); }

  /** RFC 8746 tag 85: little-endian float32. */
  floats(values) {
    const b = Buffer.alloc(values.length * 4);
    values.forEach((v, i) => b.writeFloatLE(v, i * 4));
    this.head(6, 85);
    this.head(2, b.length);
    this.bytes.push(...b);
  }

  finish() { return Uint8Array.from(this.bytes); }
}

// --------------------------------------------------------------- parameters

/** Number text with `precision` decimals, trailing zeros cut, as the effect prints it. */
export function formatNumber(value, precision) {
  const nudge = 0.45 * 10 ** -precision;
  const d = value + (value < 0 || Object.is(value, -0) ? -nudge : nudge);
  if (precision < 1) return String(Math.trunc(d));
  let text = d.toFixed(precision);
  if (text.includes('.')) text = text.replace(/0+$/, '').replace(/\.$/, '');
  return text;
}

class RangeParam {
  constructor(key, name, [low, mid, high], unit, precision, defaultValue) {
    Object.assign(this, { key, name, unit, precision, defaultValue, value: defaultValue, gesture: false });
    // The rational curve through (0, low), (0.5, mid), (1, high).
    this.b = low;
    this.c = (low + high - 2 * mid) / (mid - high);
    this.a = high * (this.c + 1) - low;
  }

  unitOf(v) { return (v - this.b) / (this.a - this.c * v); }
  valueOf(u) { return (this.a * u + this.b) / (this.c * u + 1); }

  write(w) {
    w.beginMap();
    w.text('value'); w.double(this.value);
    w.text('$type'); w.text('ParamRange');
    w.text('name'); w.text(this.name);
    w.text('defaultValue'); w.double(this.defaultValue);
    w.text('text'); w.text(formatNumber(this.value, this.precision));
    w.text('textUnits'); w.text(this.unit);
    w.text('gesture'); w.bool(this.gesture);
    w.text('rangeUnit'); w.double(this.unitOf(this.value));
    w.end();
  }

  /** A page merge at this parameter; returns whether the value changed. */
  read(merge, effect) {
    const before = this.value;
    const gestureBefore = this.gesture;
    if (typeof merge.value === 'number' && merge.value !== this.value) this.value = merge.value;
    if ('gesture' in merge) this.gesture = !!merge.gesture;
    const unit = this.unitOf(this.value);
    if (typeof merge.rangeUnit === 'number' && merge.rangeUnit !== unit) this.value = this.valueOf(merge.rangeUnit);
    if (this.gesture !== gestureBefore) effect.gestures.push({ key: this.key, gesture: this.gesture });
    return this.value !== before;
  }
}

class SteppedParam {
  constructor(key, name, low, high, labels, defaultValue) {
    Object.assign(this, { key, name, low, high, labels, defaultValue, value: defaultValue });
  }

  write(w) {
    w.beginMap();
    w.text('value'); w.int(this.value);
    w.text('$type'); w.text('ParamStepped');
    w.text('low'); w.int(this.low);
    w.text('high'); w.int(this.high);
    w.text('name'); w.text(this.name);
    w.text('text'); w.text(this.labels[this.value] ?? String(this.value));
    w.end();
  }

  read(merge) {
    const before = this.value;
    if (typeof merge.value === 'number') this.value = Math.trunc(merge.value);
    return this.value !== before;
  }
}

class Group {
  constructor(key, name, members) {
    Object.assign(this, { key, name, members });
  }
}

/** The Pitch Shifter's tree, in its declaration order. */
export function pitchShifterTree() {
  const range = (...a) => new RangeParam(...a);
  const stepped = (...a) => new SteppedParam(...a);
  return new Group('', 'Lumbrel: Pitch Shifter', [
    new Group('engineConfig', 'Engine', [
      range('latencyMs', 'latency', [2, 8, 15], 'ms', 1, 10),
      range('overlap', 'overlap', [3, 4, 6], '', 1, 4),
      range('resolution', 'resolution', [5, 20, 40], '', 0, 20),
      stepped('iterationsLog2', 'iterations', 0, 3, ['1', '2', '4', '8'], 2),
      stepped('directCopy', 'direct', 0, 1, ['off', 'on'], 1),
    ]),
    stepped('channelMode', 'channels', 0, 1, ['mono', 'full'], 1),
    new Group('peaksConfig', 'Spectral peaks', [
      range('smoothing', 'smoothing', [0, 2, 10], '%', 1, 1),
    ]),
    new Group('gainsConfig', 'Output gains', [
      range('phaseSmoothing', 'phase', [0, 1, 10], '%', 2, 1),
      range('detailBoost', 'detail', [-0.95, 0, 0.95], '', 2, 0.8),
      range('transientReset', 'tr. reset', [0, 1, 4], '', 2, 2),
      range('transientBoost', 'tr. boost', [0, 1, 4], '', 2, 0),
    ]),
    new Group('peakShifterConfig', 'Transpose', [
      stepped('semitones', 'semitones', -24, 24, { 0: 'none' }, 0),
      range('tonalityLimit', 'tonality limit', [4000, 8000, 24000], 'Hz', 0, 8000),
    ]),
    new Group('timbreConfig', 'Timbre', [
      range('smoothing', 'smoothing', [0, 1, 2], '', 1, 1),
    ]),
    range('timbreCorrection', 'timbre', [0, 0.5, 0.95], '', 2, 0),
  ]);
}

/** Every parameter with its path: [{ path: ['engineConfig', 'latencyMs'], param }]. */
export function listParams(group, path = []) {
  const out = [];
  for (const m of group.members) {
    if (m instanceof Group) out.push(...listParams(m, [...path, m.key]));
    else out.push({ path: [...path, m.key], param: m });
  }
  return out;
}

// ------------------------------------------------------------ the spectrum

/** Band centres evenly spread on the page's frequency scale, 0 Hz to 24 kHz. */
function bandFrequencies(count) {
  const top = 24000 / (1500 + 24000);
  return Array.from({ length: count }, (_, k) => {
    const v = (k / (count - 1)) * top;
    return (1500 * v) / (1 - v);
  });
}

/** A harmonic tone whose pitch glides, with a noise floor; row 1 is row 0 after a gain. */
function testSpectrum(hz, seconds, semitones) {
  const f0 = 110 * 2 ** (Math.sin(seconds * 0.7) + 1);
  const row0 = hz.map((f) => {
    let e = 1e-7 * (1 + 0.5 * Math.sin(f * 0.01 + seconds * 3));
    for (let h = 1; h <= 24; ++h) {
      const width = 4 + f0 * h * 0.01;
      e += (0.3 / h ** 1.5) * Math.exp(-(((f - f0 * h) / width) ** 2));
    }
    return e;
  });
  const gain = 2 ** (semitones / 12);
  const row1 = hz.map((f, k) => row0[k] * (0.5 + 0.4 * Math.cos(f / 2000 + gain)));
  return [row0, row1];
}

// -------------------------------------------------------------- the effect

class FakeEffect {
  constructor() {
    this.root = pitchShifterTree();
    this.params = listParams(this.root);
    this.hz = bandFrequencies(256);
    this.hzChanged = true;
    this.energy = [];
    this.received = [];   // every decoded message from a page, in order
    this.sent = [];       // every message to a page: { kind, bytes }
    this.gestures = [];   // gesture changes, as the CLAP layer would hear them
    this.sockets = new Set();
    this.leaseEnd = 0;
    this.intervalMs = 50;
    this.meterTimer = null;
    this.started = Date.now();
  }

  param(path) {
    const key = path.join('.');
    const entry = this.params.find((p) => p.path.join('.') === key);
    if (!entry) throw new Error('no parameter ' + key);
    return entry.param;
  }

  /** What the host would read with params_get_value. */
  getValue(path) { return this.param(path).value; }

  /** A host event: sets a value and sends its update, as automation does. */
  setValue(path, value) {
    this.param(path).value = value;
    this.sendUpdate(path);
  }

  /** Makes the next whole state or spectrum carry "$type" and "hz" again. */
  reconfigure() { this.hzChanged = true; }

  writeSpectrum(w) {
    w.beginMap();
    if (this.hzChanged) {
      w.text('$type'); w.text('Spectrum');
      w.text('hz'); w.floats(this.hz);
      this.hzChanged = false;
    }
    w.text('energy');
    w.head(4, this.energy.length);
    for (const row of this.energy) w.floats(row);
    w.end();
  }

  writeGroup(w, group, only) {
    w.beginMap();
    if (!only) {
      w.text('name'); w.text(group.name);
      w.text('desc'); w.text('');
    }
    for (const m of group.members) {
      if (only && !only.has(m)) continue;
      w.text(m.key);
      if (m instanceof Group) this.writeGroup(w, m, only);
      else m.write(w);
    }
    w.end();
  }

  send(kind, bytes, socket) {
    this.sent.push({ kind, bytes });
    for (const s of socket ? [socket] : this.sockets) if (s.readyState === 1) s.send(bytes);
  }

  /** The parameters alone; the next spectrum brings the bands again. */
  sendWholeState(socket) {
    const w = new EffectWriter();
    this.writeGroup(w, this.root, null);
    this.send('state', w.finish(), socket);
    this.hzChanged = true;
  }

  /** A bare map of single-pair maps down to the parameter, which comes in full. */
  sendUpdate(path) {
    const w = new EffectWriter();
    for (const key of path.slice(0, -1)) { w.head(5, 1); w.text(key); }
    w.head(5, 1);
    w.text(path[path.length - 1]);
    this.param(path).write(w);
    this.send('update', w.finish());
  }

  sendMeters() {
    const semitones = this.getValue(['peakShifterConfig', 'semitones']);
    this.energy = testSpectrum(this.hz, (Date.now() - this.started) / 1000, semitones);
    const w = new EffectWriter();
    w.head(4, 2);
    w.text('meters');
    w.beginMap();
    w.text('analysisSpectrum');
    this.writeSpectrum(w);
    w.end();
    this.send('meters', w.finish());
  }

  /** A spectrum every interval while the page's last request lasts. */
  meterTick() {
    this.meterTimer = null;
    if (Date.now() >= this.leaseEnd) return;
    this.sendMeters();
    this.meterTimer = setTimeout(() => this.meterTick(), this.intervalMs);
  }

  /** Applies a merge; returns the changed parameters' set (with their groups), in tree order. */
  applyMerge(merge, group = this.root, path = [], changed = []) {
    for (const m of group.members) {
      if (!Object.prototype.hasOwnProperty.call(merge, m.key)) continue;
      const value = merge[m.key];
      if (!value || typeof value !== 'object' || Array.isArray(value)) continue;
      if (m instanceof Group) {
        this.applyMerge(value, m, [...path, m.key], changed);
      } else if (m.read(value, this)) {
        changed.push({ path: [...path, m.key], param: m });
      }
    }
    return changed;
  }

  receive(bytes, socket) {
    let message;
    try {
      message = CBOR.decode(bytes);
    } catch (e) {
      this.received.push({ error: e.message });
      return;
    }
    this.received.push(message);
    if (message === 'ready' || (Array.isArray(message) && message[0] === 'ready')) {
      this.sendWholeState(socket);
    } else if (Array.isArray(message) && message[0] === 'meters') {
      const interval = Number(message[1]) || 0;
      const duration = Number(message[2]) || 0;
      this.intervalMs = Math.max(interval * 1000, 5);
      this.leaseEnd = Date.now() + duration * 1000;
      if (!this.meterTimer) this.meterTick();
    } else if (message && typeof message === 'object') {
      const merge = Array.isArray(message) ? (message[0] === 'state' ? message[1] : null) : message;
      if (!merge || typeof merge !== 'object') return;
      const changed = this.applyMerge(merge);
      if (!changed.length) return;
      for (const { path } of changed) this.sendUpdate(path);
      // The reply: only the changed branches, each changed parameter in full.
      const only = new Set();
      for (const { path, param } of changed) {
        let group = this.root;
        for (const key of path.slice(0, -1)) {
          group = group.members.find((m) => m.key === key);
          only.add(group);
        }
        only.add(param);
      }
      const w = new EffectWriter();
      w.head(4, 2);
      w.text('state');
      this.writeGroup(w, this.root, only);
      this.send('reply', w.finish());
    }
  }

  /** Resolves with the first received message for which `predicate` holds. */
  async waitFor(predicate, timeoutMs = 5000) {
    const until = Date.now() + timeoutMs;
    for (;;) {
      const found = this.received.find(predicate);
      if (found !== undefined) return found;
      if (Date.now() > until) throw new Error('fake effect: no such message within ' + timeoutMs + ' ms');
      await new Promise((r) => setTimeout(r, 20));
    }
  }
}

const mediaTypes = {
  '/index.html': 'text/html;charset=utf-8',
  '/cbor.min.js': 'text/javascript;charset=utf-8',
  '/zelmar-bundle.min.js': 'text/javascript;charset=utf-8',
};

/**
 * Starts a fake effect on 127.0.0.1 (`port` 0 picks a free one). Returns the
 * effect with `port`, `url` (the page, with `?ws=`), and `close()`.
 */
export async function startFakeEffect({ port = 0 } = {}) {
  const effect = new FakeEffect();
  const server = createServer(async (request, response) => {
    const path = new URL(request.url, 'http://127.0.0.1').pathname;
    if (path === '/') {
      response.writeHead(302, { Location: `/index.html?ws=${effect.port}` });
      response.end();
      return;
    }
    const type = mediaTypes[path];
    if (path === '/favicon.ico') {
      response.writeHead(204);
      response.end();
      return;
    }
    if (!type) {
      response.writeHead(404);
      response.end();
      return;
    }
    const bytes = await readFile(join(pageDir, path.slice(1)));
    response.writeHead(200, {
      'Content-Type': type,
      'Content-Length': bytes.length,
      'Cache-Control': 'no-store',
    });
    response.end(bytes);
  });
  const wss = new WebSocketServer({ server });
  wss.on('connection', (socket) => {
    effect.sockets.add(socket);
    socket.on('message', (data) => effect.receive(new Uint8Array(data), socket));
    socket.on('close', () => effect.sockets.delete(socket));
  });
  await new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(port, '127.0.0.1', resolve);
  });
  effect.port = server.address().port;
  effect.url = `http://127.0.0.1:${effect.port}/index.html?ws=${effect.port}`;
  effect.close = async () => {
    clearTimeout(effect.meterTimer);
    effect.leaseEnd = 0;
    for (const s of effect.sockets) s.terminate();
    await new Promise((r) => wss.close(r));
    await new Promise((r) => server.close(r));
  };
  return effect;
}

async function main() {
  const i = process.argv.indexOf('--port');
  const effect = await startFakeEffect({ port: i > 0 ? Number(process.argv[i + 1]) : 0 });
  const originalReceive = effect.receive.bind(effect);
  effect.receive = (bytes, socket) => {
    originalReceive(bytes, socket);
    const message = effect.received[effect.received.length - 1];
    if (!(Array.isArray(message) && message[0] === 'meters')) console.log('page:', JSON.stringify(message));
  };
  console.log(`fake Pitch Shifter: open ${effect.url}  (Ctrl-C stops)`);
}

if (process.argv[1] && fileURLToPath(import.meta.url) === process.argv[1]) await main();
