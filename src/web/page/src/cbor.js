/**
 * CBOR (RFC 8949) codec for the editor page: one global `CBOR` with
 * `encode(value, buffer?)` -> ArrayBuffer and `decode(bytes)` -> value.
 *
 * Written for the traffic between an effect and its page: merges as maps,
 * float32 spectra as RFC 8746 typed arrays (tag 85), indefinite maps from the
 * effect. Loads as a plain browser script and as a CommonJS module.
 */
(function (root) {
  'use strict';

  const encodeTag = Symbol('CBOR.encodeTag');
  const littleEndianPlatform = new Uint8Array(new Uint16Array([1]).buffer)[0] === 1;
  const utf8Encoder = new TextEncoder();
  const utf8Decoder = new TextDecoder('utf-8');

  // Tags rather than instanceof, so that buffers from another frame or realm count too.
  const typeTag = (v) => Object.prototype.toString.call(v);
  const isArrayBuffer = (v) => typeTag(v) === '[object ArrayBuffer]';

  /** An unassigned simple value (major type 7), kept so that it can be re-encoded. */
  class Simple {
    constructor(value) { this.value = value; }
  }

  // ---------------------------------------------------------------- encoding

  /**
   * Appends bytes to a list of chunks that grow geometrically; `finish` joins
   * them once, so a large message costs one copy at the end.
   */
  class Writer {
    constructor(buffer) {
      this.chunks = [];
      this.start(isArrayBuffer(buffer) ? buffer : new ArrayBuffer(256));
    }

    start(buffer) {
      this.bytes = new Uint8Array(buffer);
      this.view = new DataView(buffer);
      this.pos = 0;
      this.chunks.push(this);
    }

    /** Makes room for `n` contiguous bytes and returns their offset. */
    reserve(n) {
      if (this.pos + n > this.bytes.length) {
        this.chunks[this.chunks.length - 1] = this.bytes.subarray(0, this.pos);
        this.start(new ArrayBuffer(Math.max(n, this.bytes.length * 2)));
      }
      const at = this.pos;
      this.pos += n;
      return at;
    }

    u8(v) {
      const at = this.reserve(1); // may start a new chunk: take `bytes` after it
      this.bytes[at] = v;
    }

    raw(source) {
      const at = this.reserve(source.length);
      this.bytes.set(source, at);
    }

    /** Head of a major type with a plain number argument; 8-byte form above 32 bits. */
    head(major, n) {
      const m = major << 5;
      if (n < 24) this.u8(m | n);
      else if (n < 0x100) { const at = this.reserve(2); this.bytes[at] = m | 24; this.bytes[at + 1] = n; }
      else if (n < 0x10000) { const at = this.reserve(3); this.bytes[at] = m | 25; this.view.setUint16(at + 1, n); }
      else if (n < 0x100000000) { const at = this.reserve(5); this.bytes[at] = m | 26; this.view.setUint32(at + 1, n); }
      else {
        const at = this.reserve(9);
        this.bytes[at] = m | 27;
        this.view.setUint32(at + 1, Math.floor(n / 0x100000000));
        this.view.setUint32(at + 5, n >>> 0);
      }
    }

    /** Head with a bigint argument below 2^64. */
    headBig(major, n) {
      if (n < 0x100000000n) { this.head(major, Number(n)); return; }
      const at = this.reserve(9);
      this.bytes[at] = (major << 5) | 27;
      this.view.setBigUint64(at + 1, n);
    }

    float64(v) {
      const at = this.reserve(9);
      this.bytes[at] = 0xfb;
      this.view.setFloat64(at + 1, v);
    }

    finish() {
      const last = this.chunks.length - 1;
      this.chunks[last] = this.bytes.subarray(0, this.pos);
      let total = 0;
      for (const c of this.chunks) total += c.length;
      const out = new Uint8Array(total);
      let at = 0;
      for (const c of this.chunks) { out.set(c, at); at += c.length; }
      return out.buffer;
    }
  }

  function encodeBigInt(w, v) {
    const negative = v < 0n;
    const n = negative ? -1n - v : v;
    if (n < 0x10000000000000000n) { w.headBig(negative ? 1 : 0, n); return; }
    // Bignum: tag 2 or 3 with the magnitude as big-endian bytes.
    let hex = n.toString(16);
    if (hex.length & 1) hex = '0' + hex;
    const bytes = new Uint8Array(hex.length / 2);
    for (let i = 0; i < bytes.length; ++i) bytes[i] = parseInt(hex.substr(i * 2, 2), 16);
    w.head(6, negative ? 3 : 2);
    w.head(2, bytes.length);
    w.raw(bytes);
  }

  function encodeItem(w, v) {
    switch (typeof v) {
      case 'number':
        if (Number.isSafeInteger(v) && !Object.is(v, -0)) {
          if (v >= 0) w.head(0, v); else w.head(1, -1 - v);
        } else {
          w.float64(v);
        }
        return;
      case 'bigint': encodeBigInt(w, v); return;
      case 'boolean': w.u8(v ? 0xf5 : 0xf4); return;
      case 'undefined': w.u8(0xf7); return;
      case 'string': {
        const bytes = utf8Encoder.encode(v);
        w.head(3, bytes.length);
        w.raw(bytes);
        return;
      }
      case 'object': break;
      default: w.u8(0xf7); return; // functions and symbols have no CBOR form
    }
    if (v === null) { w.u8(0xf6); return; }
    if (isArrayBuffer(v)) {
      w.head(2, v.byteLength);
      w.raw(new Uint8Array(v));
      return;
    }
    if (typeTag(v) === '[object DataView]') {
      w.head(2, v.byteLength);
      w.raw(new Uint8Array(v.buffer, v.byteOffset, v.byteLength));
      return;
    }
    if (Array.isArray(v)) {
      w.head(4, v.length);
      for (let i = 0; i < v.length; ++i) encodeItem(w, v[i]);
      return;
    }
    if (v instanceof Simple) {
      if (v.value < 24) w.u8(0xe0 | v.value); else { w.u8(0xf8); w.u8(v.value); }
      return;
    }
    if (typeof v[encodeTag] === 'function') {
      const [tag, value] = v[encodeTag]();
      if (typeof tag === 'bigint') w.headBig(6, tag); else w.head(6, tag);
      encodeItem(w, value);
      return;
    }
    if (typeTag(v) === '[object Map]') {
      w.head(5, v.size);
      for (const [key, value] of v) { encodeItem(w, key); encodeItem(w, value); }
      return;
    }
    const keys = Object.keys(v);
    w.head(5, keys.length);
    for (const key of keys) { encodeItem(w, key); encodeItem(w, v[key]); }
  }

  /**
   * Encodes one value as one CBOR item. `buffer`, an optional ArrayBuffer, is
   * used as the first scratch chunk. Returns a new ArrayBuffer of exact size.
   */
  function encode(value, buffer) {
    const w = new Writer(buffer);
    encodeItem(w, value);
    return w.finish();
  }

  // Tag methods of the built-in types.
  function defineTag(type, fn) {
    if (type) Object.defineProperty(type.prototype, encodeTag, { value: fn, configurable: true, writable: true });
  }
  defineTag(Date, function () { return [1, this.getTime() / 1000]; });
  defineTag(root.URL, function () { return [32, this.href]; });
  defineTag(Set, function () { return [258, Array.from(this)]; });

  // RFC 8746: tag = 64 + (float << 4) + (signed << 3) + (littleEndian << 2) + size code.
  const typedArrayTags = [
    // [constructor, big-endian tag, little-endian tag]
    [Uint8Array, 64, 64],
    [Uint8ClampedArray, 68, 68],
    [Int8Array, 72, 72],
    [Uint16Array, 65, 69],
    [Uint32Array, 66, 70],
    [root.BigUint64Array, 67, 71],
    [Int16Array, 73, 77],
    [Int32Array, 74, 78],
    [root.BigInt64Array, 75, 79],
    [root.Float16Array, 80, 84],
    [Float32Array, 81, 85],
    [Float64Array, 82, 86],
  ];
  const typedArrayByTag = new Map();
  for (const [type, be, le] of typedArrayTags) {
    // Half floats become a Float32Array where the platform has no Float16Array.
    const half = be === 80 && !type;
    if (!type && !half) continue;
    const entry = { type: type || Float32Array, half, size: half ? 2 : type.BYTES_PER_ELEMENT };
    // Data in the other byte order than the platform's is swapped on decoding.
    typedArrayByTag.set(be, Object.assign({ swap: be !== le && littleEndianPlatform, little: be === le }, entry));
    typedArrayByTag.set(le, Object.assign({ swap: be !== le && !littleEndianPlatform, little: true }, entry));
    if (!type) continue;
    const tag = littleEndianPlatform ? le : be;
    defineTag(type, function () {
      return [tag, new DataView(this.buffer, this.byteOffset, this.byteLength)];
    });
  }

  // ---------------------------------------------------------------- decoding

  function halfToNumber(h) {
    const exponent = (h >> 10) & 0x1f;
    const mantissa = h & 0x3ff;
    let v;
    if (exponent === 0) v = mantissa * 2 ** -24;
    else if (exponent === 31) v = mantissa ? NaN : Infinity;
    else v = (1024 + mantissa) * 2 ** (exponent - 25);
    return h & 0x8000 ? -v : v;
  }

  const BREAK = Symbol('break');

  /** Map keys become property names; a key with no text form of its own gets the generic one. */
  function keyText(key) {
    try { return String(key); } catch (e) { return Object.prototype.toString.call(key); }
  }

  class Reader {
    constructor(bytes) {
      if (isArrayBuffer(bytes)) bytes = new Uint8Array(bytes);
      else if (ArrayBuffer.isView(bytes)) bytes = new Uint8Array(bytes.buffer, bytes.byteOffset, bytes.byteLength);
      else throw new TypeError('CBOR.decode takes an ArrayBuffer or a view');
      this.bytes = bytes;
      this.view = new DataView(bytes.buffer, bytes.byteOffset, bytes.byteLength);
      this.pos = 0;
    }

    need(n) {
      if (this.pos + n > this.bytes.length) throw new Error('end of CBOR');
      const at = this.pos;
      this.pos += n;
      return at;
    }

    /**
     * Reads the argument of a head with additional info `info`: a number, or
     * a bigint for 8-byte values beyond the safe range, or -1 for indefinite.
     */
    argument(major, info) {
      if (info < 24) return info;
      switch (info) {
        case 24: return this.bytes[this.need(1)];
        case 25: return this.view.getUint16(this.need(2));
        case 26: return this.view.getUint32(this.need(4));
        case 27: {
          if (major >= 2 && major <= 5) throw new Error('unsupported type for 8-byte length');
          const n = this.view.getBigUint64(this.need(8));
          return n <= BigInt(Number.MAX_SAFE_INTEGER) ? Number(n) : n;
        }
        case 31:
          if (major === 0 || major === 1 || major === 6) throw new Error('invalid indefinite type');
          return -1;
        default: throw new Error('invalid additional CBOR code');
      }
    }

    bytesOf(length) {
      const at = this.need(length);
      return this.bytes.subarray(at, at + length);
    }

    /** Joins the chunks of an indefinite byte or text string. */
    chunks(major) {
      const parts = [];
      for (;;) {
        const initial = this.bytes[this.need(1)];
        if (initial === 0xff) break;
        const info = initial & 31;
        if (initial >> 5 !== major || info === 31) {
          throw new Error(major === 2 ? 'indefinite bytes with non-byte item' : 'indefinite string with non-string item');
        }
        parts.push(this.bytesOf(this.argument(major, info)));
      }
      let total = 0;
      for (const p of parts) total += p.length;
      const joined = new Uint8Array(total);
      let at = 0;
      for (const p of parts) { joined.set(p, at); at += p.length; }
      return joined;
    }

    item() {
      const value = this.itemOrBreak();
      if (value === BREAK) throw new Error('invalid indefinite type');
      return value;
    }

    itemOrBreak() {
      const initial = this.bytes[this.need(1)];
      const major = initial >> 5;
      const info = initial & 31;
      switch (major) {
        case 0: return this.argument(major, info);
        case 1: {
          const n = this.argument(major, info);
          return typeof n === 'bigint' ? -1n - n : (n >= Number.MAX_SAFE_INTEGER ? -1n - BigInt(n) : -1 - n);
        }
        case 2: {
          const n = this.argument(major, info);
          const bytes = n < 0 ? this.chunks(2) : this.bytesOf(n);
          return bytes.slice().buffer;
        }
        case 3: {
          const n = this.argument(major, info);
          return utf8Decoder.decode(n < 0 ? this.chunks(3) : this.bytesOf(n));
        }
        case 4: {
          const n = this.argument(major, info);
          const out = [];
          if (n < 0) {
            for (let v = this.itemOrBreak(); v !== BREAK; v = this.itemOrBreak()) out.push(v);
          } else {
            for (let i = 0; i < n; ++i) out.push(this.item());
          }
          return out;
        }
        case 5: {
          const n = this.argument(major, info);
          const out = Object.create(null);
          if (n < 0) {
            for (let k = this.itemOrBreak(); k !== BREAK; k = this.itemOrBreak()) out[keyText(k)] = this.item();
          } else {
            for (let i = 0; i < n; ++i) { const k = this.item(); out[keyText(k)] = this.item(); }
          }
          return out;
        }
        case 6: return this.tagged(this.argument(major, info));
        default: return this.simple(info);
      }
    }

    simple(info) {
      switch (info) {
        case 20: return false;
        case 21: return true;
        case 22: return null;
        case 23: return undefined;
        case 24: {
          const v = this.bytes[this.need(1)];
          if (v < 32) throw new Error('invalid simple value');
          return new Simple(v);
        }
        case 25: return halfToNumber(this.view.getUint16(this.need(2)));
        case 26: return this.view.getFloat32(this.need(4));
        case 27: return this.view.getFloat64(this.need(8));
        case 28: case 29: case 30: throw new Error('invalid additional CBOR code');
        case 31: return BREAK;
        default: return new Simple(info);
      }
    }

    tagged(tag) {
      const start = this.pos;
      const initial = this.bytes[this.need(1)];
      this.pos = start;
      const major = initial >> 5;
      const info = initial & 31;
      // Typed arrays are built from the message's own bytes where possible.
      const typed = typedArrayByTag.get(tag);
      if (typed && major === 2) {
        this.pos++;
        const n = this.argument(2, info);
        const bytes = n < 0 ? this.chunks(2) : this.bytesOf(n);
        return makeTypedArray(typed, bytes);
      }
      const value = this.item();
      switch (tag) {
        case 0: return typeof value === 'string' ? new Date(value) : value;
        case 1: return typeof value === 'number' ? new Date(value * 1000) : value;
        case 2: case 3: {
          if (!isArrayBuffer(value)) return value;
          let n = 0n;
          for (const b of new Uint8Array(value)) n = (n << 8n) | BigInt(b);
          return tag === 2 ? n : -1n - n;
        }
        case 32:
          if (typeof value === 'string' && typeof root.URL === 'function') {
            try { return new root.URL(value); } catch (e) { return value; }
          }
          return value;
        case 258: return Array.isArray(value) ? new Set(value) : value;
        default: return value;
      }
    }
  }

  function makeTypedArray(typed, bytes) {
    const size = typed.size;
    const count = Math.floor(bytes.length / size);
    if (typed.half) {
      const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.length);
      const out = new Float32Array(count);
      for (let i = 0; i < count; ++i) out[i] = halfToNumber(view.getUint16(i * 2, typed.little));
      return out;
    }
    if (!typed.swap && bytes.byteOffset % size === 0) {
      return new typed.type(bytes.buffer, bytes.byteOffset, count);
    }
    const copy = bytes.slice(0, count * size);
    if (typed.swap) {
      for (let i = 0; i < copy.length; i += size) {
        for (let a = i, b = i + size - 1; a < b; ++a, --b) {
          const t = copy[a]; copy[a] = copy[b]; copy[b] = t;
        }
      }
    }
    return new typed.type(copy.buffer, 0, count);
  }

  /** Decodes the first CBOR item of `bytes` (ArrayBuffer or view); what follows is ignored. */
  function decode(bytes) {
    return new Reader(bytes).item();
  }

  const CBOR = { encode, decode, encodeTag, Simple };
  root.CBOR = CBOR;
  if (typeof module === 'object' && module.exports) module.exports = CBOR;
})(typeof globalThis !== 'undefined' ? globalThis : this);
