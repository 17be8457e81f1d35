// The page's CBOR codec as shipped (cbor.min.js).
import { test, describe } from 'node:test';
import assert from 'node:assert/strict';
import { createRequire } from 'node:module';

const CBOR = createRequire(import.meta.url)('../../../src/web/page/cbor.min.js');

const fromHex = (hex) => new Uint8Array(Buffer.from(hex, 'hex')); // a copy: its own buffer, at offset 0
const toHex = (buffer) => Buffer.from(new Uint8Array(buffer)).toString('hex');
const decodeHex = (hex) => CBOR.decode(fromHex(hex));
const bytesOf = (buffer) => Array.from(new Uint8Array(buffer));
const map = (entries) => Object.assign(Object.create(null), entries); // as the decoder makes maps

// RFC 8949 Appendix A: [value as decoded, hex, encodes to the same hex].
const appendixA = [
  [0, '00', true], [1, '01', true], [10, '0a', true], [23, '17', true], [24, '1818', true], [25, '1819', true],
  [100, '1864', true], [1000, '1903e8', true], [1000000, '1a000f4240', true],
  [1000000000000, '1b000000e8d4a51000', true], [18446744073709551615n, '1bffffffffffffffff', true],
  [18446744073709551616n, 'c249010000000000000000', true], [-18446744073709551616n, '3bffffffffffffffff', true],
  [-18446744073709551617n, 'c349010000000000000000', true], [-1, '20', true], [-10, '29', true], [-100, '3863', true],
  [-1000, '3903e7', true], [0, 'f90000', false], [-0, 'f98000', false], [1, 'f93c00', false],
  [1.1, 'fb3ff199999999999a', true], [1.5, 'f93e00', false], [65504, 'f97bff', false], [100000, 'fa47c35000', false],
  [3.4028234663852886e+38, 'fa7f7fffff', false], [1.0e+300, 'fb7e37e43c8800759c', true],
  [5.960464477539063e-8, 'f90001', false], [0.00006103515625, 'f90400', false], [-4, 'f9c400', false],
  [-4.1, 'fbc010666666666666', true], [Infinity, 'f97c00', false], [NaN, 'f97e00', false], [-Infinity, 'f9fc00', false],
  [Infinity, 'fa7f800000', false], [NaN, 'fa7fc00000', false], [-Infinity, 'faff800000', false],
  [Infinity, 'fb7ff0000000000000', true], [NaN, 'fb7ff8000000000000', true], [-Infinity, 'fbfff0000000000000', true],
  [false, 'f4', true], [true, 'f5', true], [null, 'f6', true], [undefined, 'f7', true],
  [new CBOR.Simple(16), 'f0', true], [new CBOR.Simple(255), 'f8ff', true],
  [new Date('2013-03-21T20:04:00Z'), 'c074323031332d30332d32315432303a30343a30305a', false],
  [new Date(1363896240000), 'c11a514b67b0', true], [new Date(1363896240500), 'c1fb41d452d9ec200000', true],
  [new Uint8Array([1, 2, 3, 4]).buffer, 'd74401020304', false], // unknown tag: the item itself
  [new Uint8Array([0x64, 0x49, 0x45, 0x54, 0x46]).buffer, 'd818456449455446', false],
  [new URL('http://www.example.com'), 'd82076687474703a2f2f7777772e6578616d706c652e636f6d', false],
  [new ArrayBuffer(0), '40', true], [new Uint8Array([1, 2, 3, 4]).buffer, '4401020304', true], ['', '60', true],
  ['a', '6161', true], ['IETF', '6449455446', true], ['"\\', '62225c', true], ['\u00fc', '62c3bc', true],
  ['\u6c34', '63e6b0b4', true], ['\ud800\udd51', '64f0908591', true], [[], '80', true], [[1, 2, 3], '83010203', true],
  [[1, [2, 3], [4, 5]], '8301820203820405', true],
  [Array.from({ length: 25 }, (_, i) => i + 1), '98190102030405060708090a0b0c0d0e0f101112131415161718181819', true],
  [map({}), 'a0', true], [map({ 1: 2, 3: 4 }), 'a201020304', false],
  [map({ a: 1, b: [2, 3] }), 'a26161016162820203', true], [['a', map({ b: 'c' })], '826161a161626163', true],
  [map({ a: 'A', b: 'B', c: 'C', d: 'D', e: 'E' }), 'a56161614161626142616361436164614461656145', true],
  [new Uint8Array([1, 2, 3, 4, 5]).buffer, '5f42010243030405ff', false],
  ['streaming', '7f657374726561646d696e67ff', false], [[], '9fff', false],
  [[1, [2, 3], [4, 5]], '9f018202039f0405ffff', false], [[1, [2, 3], [4, 5]], '9f01820203820405ff', false],
  [[1, [2, 3], [4, 5]], '83018202039f0405ff', false], [[1, [2, 3], [4, 5]], '83019f0203ff820405', false],
  [Array.from({ length: 25 }, (_, i) => i + 1), '9f0102030405060708090a0b0c0d0e0f101112131415161718181819ff', false],
  [map({ a: 1, b: [2, 3] }), 'bf61610161629f0203ffff', false], [['a', map({ b: 'c' })], '826161bf61626163ff', false],
  [map({ Fun: true, Amt: -2 }), 'bf6346756ef563416d7421ff', false],
];

/** Deep equality that also compares ArrayBuffers by content, Dates by time and URLs by text. */
function assertSame(actual, expected, message) {
  if (expected instanceof ArrayBuffer) assert.deepEqual(bytesOf(actual), bytesOf(expected), message);
  else if (expected instanceof Date || expected instanceof URL) assert.equal(String(actual), String(expected), message);
  else assert.deepStrictEqual(actual, expected, message); // NaN and -0 as themselves
  if (typeof expected === 'object' && expected) assert.equal(actual.constructor, expected.constructor, message);
}

test('RFC 8949 Appendix A: every example decodes; those in the encoder\'s own forms encode to the same bytes', () => {
  for (const [value, hex, encodes] of appendixA) {
    assertSame(decodeHex(hex), value, hex);
    if (encodes) assert.equal(toHex(CBOR.encode(value)), hex, hex);
  }
  assert.ok(Object.is(decodeHex('f98000'), -0) && Object.is(CBOR.decode(CBOR.encode(-0)), -0));
  // Maps are objects without a prototype, keys stringified.
  const m = decodeHex('a3f5016161f6f6a0');
  assert.equal(Object.getPrototypeOf(m), null);
  assert.deepEqual(Object.keys(m), ['true', 'a', 'null']);
  assert.equal(decodeHex('a1695f5f70726f746f5f5f01').__proto__, 1); // {"__proto__": 1}
  assert.deepEqual(Object.keys(decodeHex('a1a001')), ['[object Object]']);
});

test('shortest integer heads; beyond the safe range and fractions 64-bit floats; bigints with tags 2 and 3', () => {
  const cases = [[23, '17'], [24, '1818'], [255, '18ff'], [256, '190100'], [65535, '19ffff'],
    [65536, '1a00010000'], [4294967295, '1affffffff'], [4294967296, '1b0000000100000000'],
    [Number.MAX_SAFE_INTEGER, '1b001fffffffffffff'], [-24, '37'], [-25, '3818'],
    [-4294967297, '3b0000000100000000'], [2 ** 53, 'fb4340000000000000'], [0.5, 'fb3fe0000000000000'],
    [5n, '05'], [-5n, '24'], [2n ** 64n - 1n, '1bffffffffffffffff'], [2n ** 72n, 'c24a01' + '00'.repeat(9)]];
  for (const [value, hex] of cases) assert.equal(toHex(CBOR.encode(value)), hex, String(value));
  assert.equal(CBOR.decode(CBOR.encode(-(2n ** 100n))), -(2n ** 100n));
});

test('large objects get a longer head and come out whole, into a caller\'s scratch buffer too', () => {
  const big = Object.fromEntries(Array.from({ length: 300 }, (_, i) => ['k' + i, i * 1000.5]));
  big.text = 'x'.repeat(5000);
  const bytes = new Uint8Array(CBOR.encode(big));
  assert.deepEqual(Array.from(bytes.slice(0, 3)), [0xb9, 0x01, 0x2d]);
  assert.deepEqual({ ...CBOR.decode(bytes) }, big);
  assert.deepEqual({ ...CBOR.decode(CBOR.encode(big, new ArrayBuffer(16))) }, big);
});

// RFC 8746 tag, element type, values; bytes are made for the tag's own byte order.
const kinds = [
  [64, Uint8Array, [0, 1, 255]], [65, Uint16Array, [0, 1, 65535]], [69, Uint16Array, [0, 258, 65535]],
  [66, Uint32Array, [1, 4294967295]], [70, Uint32Array, [1, 16909060]],
  [67, BigUint64Array, [1n, 2n ** 64n - 1n]], [71, BigUint64Array, [1n, 2n ** 40n]], [72, Int8Array, [-128, 0, 127]],
  [73, Int16Array, [-32768, 1, 32767]], [77, Int16Array, [-2, 300]], [74, Int32Array, [-2147483648, 7]],
  [78, Int32Array, [-5, 1 << 30]], [75, BigInt64Array, [-(2n ** 63n), 5n]], [79, BigInt64Array, [-1n, 2n ** 62n]],
  [81, Float32Array, [1.5, -0.25, 3e38]], [85, Float32Array, [1.5, -0.25, 1e-30]],
  [82, Float64Array, [Math.PI, -1e300]], [86, Float64Array, [Math.E, 5e-324]],
];

test('each RFC 8746 tag decodes to its typed array in either byte order and encodes with the platform\'s tag', () => {
  for (const [tag, Type, values] of kinds) {
    const data = new DataView(new ArrayBuffer(values.length * Type.BYTES_PER_ELEMENT));
    values.forEach((v, i) => data['set' + Type.name.slice(0, -5)](i * Type.BYTES_PER_ELEMENT, v, (tag & 4) !== 0));
    const decoded = CBOR.decode(new Uint8Array([0xd8, tag, 0x40 + data.byteLength, ...new Uint8Array(data.buffer)]));
    assert.equal(decoded.constructor, Type, 'tag ' + tag);
    assert.deepEqual(Array.from(decoded), Array.from(Type.from(values)), 'tag ' + tag);
    if (tag & 4 || tag === 64 || tag === 72) {
      const bytes = new Uint8Array(CBOR.encode(decoded));
      assert.deepEqual(Array.from(bytes.slice(0, 2)), [0xd8, tag], Type.name);
      assert.deepEqual(Array.from(CBOR.decode(bytes)), Array.from(decoded));
    }
  }
  // A view into a larger buffer writes only its own elements.
  assert.equal(toHex(CBOR.encode(new Float32Array([1, 2, 3, 4]).subarray(1, 3))), 'd8554800000040' + '00004040');
});

test('tag 85 views the message\'s buffer when aligned, else copies; half floats decode; a partial element is left out', () => {
  // The array data stands 14 bytes into the message: 82, "meters", a1, "a", tag, head.
  const message = fromHex('8266' + '6d6574657273' + 'a1' + '6161' + 'd855' + '48' + '0000c03f' + '000080be');
  const whole = new Uint8Array(64);
  whole.set(message, 2); // data at 16 in the buffer
  const rows = CBOR.decode(whole.subarray(2, 2 + message.length))[1].a;
  assert.ok(rows instanceof Float32Array && rows.buffer === whole.buffer && rows.byteOffset % 4 === 0);
  assert.deepEqual(Array.from(rows), [1.5, -0.25]);
  const le = fromHex('d855480000c03f000080be');
  assert.equal(CBOR.decode(le).buffer === le.buffer, false, 'data at offset 3 is not aligned');
  assert.deepEqual(Array.from(CBOR.decode(le)), [1.5, -0.25]);
  assert.deepEqual(Array.from(CBOR.decode(fromHex('d85446' + '003c' + '00c4' + '007c'))), [1, -4, Infinity]);
  assert.deepEqual(Array.from(CBOR.decode(fromHex('d85044' + '3c00' + '3e00'))), [1, 1.5]);
  assert.deepEqual(Array.from(CBOR.decode(fromHex('d8554500008040ff'))), [4]);
});

const cases = {
  'end of CBOR': ['', '19', '1901', '6261', '83 01 02', '9f 01', 'a1 01', 'bf 6161', 'd855', '5f 41'],
  'invalid additional CBOR code': ['1c', '1d', '1e', '3c', '5d', '7e', '9c', 'bd', 'dc', 'fc', 'fd', 'fe'],
  'invalid indefinite type': ['1f', '3f', 'df', 'ff', '81 ff', 'bf 6161 ff', 'a1 ff 01'],
  'indefinite bytes with non-byte item': ['5f 6161 ff', '5f 01 ff', '5f 5f ff ff'],
  'indefinite string with non-string item': ['7f 4161 ff', '7f 80 ff', '7f 7f ff ff'],
  'unsupported type for 8-byte length': ['5b 0000000000000001 00', '7b 0000000000000000',
    '9b 0000000000000000', 'bb 0000000000000000'],
  'invalid simple value': ['f8 00', 'f8 14', 'f8 1f'],
};
for (const [message, inputs] of Object.entries(cases)) {
  test(`"${message}"`, () => {
    for (const hex of inputs) assert.throws(() => decodeHex(hex.replace(/ /g, '')), { message }, hex);
  });
}

test('8-byte integers and tags are fine; what follows the first item is ignored; only bytes are read', () => {
  for (const hex of ['1b0000000000000005', 'db00000000000003e805']) assert.equal(decodeHex(hex), 5, hex);
  assert.equal(decodeHex('f820').value, 32);
  assert.equal(decodeHex('657265616479000000'), 'ready', 'as in a zero-padded base64 message');
  assert.throws(() => CBOR.decode('a0'), TypeError);
});
