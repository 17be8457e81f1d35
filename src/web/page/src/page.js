'use strict';
/*
 * The generic editor page. It knows no effect: it draws whatever state tree
 * the effect sends, a dial per ParamRange, a stepper per ParamStepped, a box
 * per group and a plot per spectrum, and sends back merges of what the user
 * changed. The template is the body of index.html; the functions named in its
 * `${...}` expressions are the globals below.
 */

/** Position of a dial during a gesture, kept apart from what the effect sends back. */
const gestureUnit = Symbol('gestureUnit');
/** The timer that ends a scroll gesture, on the dial's element. */
const scrollTimeout = Symbol('scrollTimeout');
const plotColours = ['#8CF', '#FC8', '#8D8', '#F9B'];

let state = null;

// ------------------------------------------------------------ what is what

function isObject(d) {
  return Object.prototype.toString.call(Zelmar.getRaw(d)) === '[object Object]';
}
function isGroup(d) { return isObject(d) && !d.$type; }
function isRange(d) { return isObject(d) && d.$type === 'ParamRange'; }
function isStepped(d) { return isObject(d) && d.$type === 'ParamStepped'; }
function isSpectrum(d) { return isObject(d) && d.$type === 'Spectrum'; }
function isGraph(d) { return isObject(d) && d.$type === 'GraphXY'; }

// ------------------------------------------------------------------- dials

const clampUnit = (u) => Math.min(Math.max(u, 0), 1);

/** Where the dial stands: the stored position while the page holds it, else the effect's. */
function dialPosition(d) {
  if (d.gesture && typeof d[gestureUnit] === 'number') return d[gestureUnit];
  return d.rangeUnit;
}

function setDialPosition(d, unit) {
  if (Number.isNaN(unit)) return;
  d[gestureUnit] = unit;
  d.rangeUnit = unit;
}

/** Drag: 250 pixels cover the whole range, upward increasing. */
function dialMove(d, dx, dy) {
  setDialPosition(d, clampUnit(dialPosition(d) - dy / 250));
}

/**
 * Starts a gesture, and says so even when the state already holds
 * `gesture: true`: the effect's reply to the last position of a drag can
 * arrive after the release, so a stale `true` must not swallow the next press.
 */
function beginGesture(d) {
  if (d.gesture) d.gesture = false;
  d.gesture = true;
}

/** Wheel: a gesture that ends 500 ms after the last step. */
function dialScroll(d, dx, dy, element) {
  const start = dialPosition(d);
  clearTimeout(element[scrollTimeout]);
  if (!element[scrollTimeout]) beginGesture(d);
  element[scrollTimeout] = setTimeout(() => {
    element[scrollTimeout] = null;
    d.gesture = false;
  }, 500);
  setDialPosition(d, clampUnit(start + dy / 250));
}

/** Press starts a gesture; a double press returns to the default. */
function dialPress(d, count, event, element) {
  clearTimeout(element[scrollTimeout]);
  element[scrollTimeout] = null;
  beginGesture(d);
  d[gestureUnit] = d.rangeUnit;
  if (count === 2) {
    d.value = d.defaultValue;
    d.gesture = false;
  }
}

function dialUnpress(d) {
  d.gesture = false;
}

/** Canvas 2D context sized to `side` device pixels square, or null without canvas support. */
function dialContext(canvas) {
  const side = Math.max(1, Math.round(canvas.offsetWidth * (window.devicePixelRatio || 1)));
  if (canvas.width !== side) canvas.width = side;
  if (canvas.height !== side) canvas.height = side;
  const ctx = canvas.getContext && canvas.getContext('2d');
  if (ctx) {
    ctx.setTransform(side / 2, 0, 0, side / 2, side / 2, side / 2); // -1 to 1 on both axes
    ctx.clearRect(-1, -1, 2, 2);
  }
  return ctx;
}

function drawDial(d, canvas) {
  const position = clampUnit(Number(dialPosition(d)) || 0);
  const ctx = dialContext(canvas);
  if (!ctx) return;
  ctx.fillStyle = '#FFF';
  ctx.beginPath();
  ctx.arc(0, 0, 0.8, 0, 2 * Math.PI);
  ctx.fill();
  ctx.lineWidth = 0.2;
  ctx.lineCap = 'round';
  ctx.strokeStyle = '#0001';
  ctx.beginPath();
  ctx.arc(0, 0, 0.9, -1.25 * Math.PI, 0.25 * Math.PI);
  ctx.stroke();
  // Starting at -1.249 keeps a dot visible at the bottom of the range.
  ctx.strokeStyle = '#000';
  ctx.beginPath();
  ctx.arc(0, 0, 0.9, -1.25 * Math.PI, (-1.249 + position * 1.499) * Math.PI);
  ctx.stroke();
}

// ---------------------------------------------------------------- steppers

function stepUp(d) { d.value = Math.min(d.value + 1, d.high); }
function stepDown(d) { d.value = Math.max(d.value - 1, d.low); }
function upClass(d) { return d.value >= d.high ? 'disabled' : ''; }
function downClass(d) { return d.value <= d.low ? 'disabled' : ''; }

// ------------------------------------------------------------------- plots

/** Sizes a plot canvas to its CSS box and returns the context in CSS pixels, with the box. */
function plotContext(canvas) {
  const ratio = window.devicePixelRatio || 1;
  const width = canvas.clientWidth;
  const height = canvas.clientHeight;
  canvas.width = Math.max(1, Math.round(width * ratio)); // also clears
  canvas.height = Math.max(1, Math.round(height * ratio));
  const ctx = canvas.getContext && canvas.getContext('2d');
  if (ctx) ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
  return { ctx, width, height };
}

const spectrumWarp = (f) => f / (1500 + f);

/** Energy to height: p = e^0.12, then a curve through (0,0), (0.5,0.6) and (1,1). */
function spectrumY(e, height) {
  const p = Math.pow(e, 0.12);
  const q = p * 0.6 / (1 - 0.6 - p + 2 * p * 0.6);
  return height * (1 - q);
}

/** Grid lines and labels fall on 1..9 times each power of ten from 100 Hz below the top. */
function gridDecades(high) {
  const decades = [];
  for (let b = 100; b < high; b *= 10) decades.push(b);
  return decades;
}

/** One function for the three canvases of a spectrum plot; the class says which layer. */
function drawSpectrum(d, canvas) {
  const layer = canvas.classList.contains('plot-data') ? 'data'
    : canvas.classList.contains('plot-labels') ? 'labels' : 'grid';
  const hz = Zelmar.getRaw(d.hz);
  const energy = layer === 'data' ? d.energy : null;
  const { ctx, width, height } = plotContext(canvas);
  if (!ctx || !hz || hz.length < 2) return;
  const low = spectrumWarp(hz[0]);
  const span = spectrumWarp(hz[hz.length - 1]) - low;
  const x = (f) => width * (spectrumWarp(f) - low) / span;
  const high = hz[hz.length - 1];

  if (layer === 'grid') {
    ctx.strokeStyle = '#555';
    ctx.lineWidth = 1;
    ctx.beginPath();
    for (const b of gridDecades(high)) {
      for (let i = 1; i <= 9; ++i) {
        const px = Math.round(x(i * b)) + 0.5;
        ctx.moveTo(px, 0);
        ctx.lineTo(px, height);
      }
    }
    for (let db = 0; db >= -240; db -= 12) {
      const py = Math.round(spectrumY(Math.pow(10, db / 10), height)) + 0.5;
      ctx.moveTo(0, py);
      ctx.lineTo(width, py);
    }
    ctx.stroke();
  } else if (layer === 'data') {
    if (!energy) return;
    const xs = Array.prototype.map.call(hz, x);
    ctx.lineWidth = 1.5;
    ctx.lineCap = 'round';
    ctx.lineJoin = 'round';
    for (let i = 0; i < energy.length; ++i) {
      const row = Zelmar.getRaw(energy[i]);
      if (!row || !row.length) continue;
      const count = Math.min(row.length, xs.length);
      ctx.strokeStyle = ctx.fillStyle = plotColours[i % 4];
      ctx.beginPath();
      for (let k = 0; k < count; ++k) {
        const py = spectrumY(row[k], height);
        if (k) ctx.lineTo(xs[k], py); else ctx.moveTo(xs[k], py);
      }
      ctx.globalAlpha = 6 / (6 + i);
      ctx.stroke();
      ctx.lineTo(width, height);
      ctx.lineTo(0, height);
      ctx.globalAlpha = 2 / (10 + i);
      ctx.fill();
    }
    ctx.globalAlpha = 1;
  } else {
    ctx.lineWidth = 2;
    ctx.strokeStyle = '#0006';
    ctx.fillStyle = '#DDD';
    ctx.lineJoin = 'round';
    ctx.font = '11px system-ui, sans-serif';
    const label = (text, px, py) => {
      ctx.strokeText(text, px, py);
      ctx.fillText(text, px, py);
    };
    // On a small plot, labels that would run into the previous one are left out.
    let freeX = -Infinity;
    for (const b of gridDecades(high)) {
      const text = b < 1000 ? b + 'Hz' : b / 1000 + 'kHz';
      const px = x(b) + 2;
      if (px < freeX) continue;
      label(text, px, height - 2);
      freeX = px + ctx.measureText(text).width + 4;
    }
    let freeY = -Infinity;
    for (let db = 0; db > -105; db -= db > -48 ? 12 : 24) {
      const py = spectrumY(Math.pow(10, db / 10), height) + (db === 0 ? 8 : 4);
      if (py < freeY || py > height - 14) continue;
      label(db + 'dB', 2, py);
      freeY = py + 11;
    }
  }
}

/** An x/y plot: rows of `y` over `x`, between `minY` (bottom) and `maxY` (top). */
function drawGraph(d, canvas) {
  const xs = Zelmar.getRaw(d.x);
  const rows = d.y;
  const minY = d.minY;
  const maxY = d.maxY;
  const { ctx, width, height } = plotContext(canvas);
  if (!ctx || !xs || xs.length < 2 || !rows) return;
  const x0 = xs[0];
  const xSpan = xs[xs.length - 1] - x0;
  ctx.lineWidth = 1.5;
  ctx.lineCap = 'round';
  ctx.lineJoin = 'round';
  for (let i = 0; i < rows.length; ++i) {
    const row = Zelmar.getRaw(rows[i]);
    if (!row) continue;
    ctx.strokeStyle = plotColours[i % 4];
    ctx.globalAlpha = 6 / (6 + i);
    ctx.beginPath();
    const count = Math.min(row.length, xs.length);
    for (let k = 0; k < count; ++k) {
      const px = width * (xs[k] - x0) / xSpan;
      const py = height * (row[k] - maxY) / (minY - maxY);
      if (k) ctx.lineTo(px, py); else ctx.moveTo(px, py);
    }
    ctx.stroke();
  }
  ctx.globalAlpha = 1;
}

/** A double press on a plot toggles it between full screen and its place. */
Zelmar.global.attributes.fullscreentoggle = (element) => Zelmar.global.attributes.press(element, (count) => {
  if (count !== 2) return;
  element.classList.toggle('fullscreen');
  window.dispatchEvent(new Event('resize'));
});

// --------------------------------------------------------------- transport

/**
 * The one place that knows how messages travel. `receive(bytes)` gets each
 * message from the effect; the result sends one to it.
 *
 * - `?ws=PORT` on an http(s) page: a WebSocket to 127.0.0.1:PORT, one binary
 *   frame per message (the browser rig and the plug-in bridge).
 * - Otherwise the page posts to `window.parent`: a native web view's injected
 *   script catches that in the top frame, and a host's iframe gets it. Both
 *   answer with `message` events carrying an ArrayBuffer.
 */
function openTransport(receive) {
  const port = new URLSearchParams(location.search).get('ws');
  if (port && /^https?:$/.test(location.protocol)) {
    const socket = new WebSocket('ws://127.0.0.1:' + Number(port) + '/');
    socket.binaryType = 'arraybuffer';
    const waiting = [];
    socket.addEventListener('open', () => {
      for (const bytes of waiting.splice(0)) socket.send(bytes);
    });
    socket.addEventListener('message', (event) => receive(event.data));
    return (bytes) => {
      if (socket.readyState === WebSocket.OPEN) socket.send(bytes);
      else if (socket.readyState === WebSocket.CONNECTING) waiting.push(bytes);
    };
  }
  window.addEventListener('message', (event) => {
    if (event.source === window) return; // our own post, in a top frame with nobody to catch it
    receive(event.data);
  });
  return (bytes) => window.parent.postMessage(bytes, '*');
}

// ---------------------------------------------------------------- start-up

let pendingMerge = null;

/** A message from the effect: arrays carry their merge at index 1; merges of one frame combine. */
function receiveMessage(bytes) {
  let merge = CBOR.decode(bytes);
  if (Array.isArray(merge)) merge = merge[1];
  if (!isObject(merge)) return;
  if (pendingMerge) {
    Zelmar.merge.apply(pendingMerge, merge, true);
    return;
  }
  pendingMerge = merge;
  requestAnimationFrame(() => {
    const next = pendingMerge;
    pendingMerge = null;
    state.merge(next);
  });
}

function start() {
  for (const key of new URLSearchParams(location.search).keys()) {
    if (/^-?[A-Za-z_][\w-]*$/.test(key)) document.documentElement.classList.add(key);
  }
  state = Zelmar.replace(document.body, { name: '...' });
  let send = null;
  state.trackMerges((merge) => {
    console.log(JSON.stringify(merge));
    send(CBOR.encode(merge));
  });
  send = openTransport(receiveMessage);
  send(CBOR.encode('ready'));

  // Ask for one spectrum per frame for the next 0.3 s, about every 200 ms. A
  // hidden page gets no frames, asks for nothing, and the meters lapse.
  let frameMs = 100;
  let prevFrame = performance.now();
  let prevSent = 100;
  const frame = () => {
    const now = performance.now();
    const delta = now - prevFrame;
    // The rate grows with the frame time, so a slow page adapts quickly; at
    // most a full step, so that a long pause can't throw it past zero.
    frameMs += (delta - frameMs) * Math.min(frameMs / 1000, 1);
    prevFrame = now;
    prevSent += delta;
    if (prevSent > 200) {
      send(CBOR.encode(['meters', frameMs / 1000, 0.3]));
      prevSent = 0;
    }
    requestAnimationFrame(frame);
  };
  requestAnimationFrame(frame);
}

if (document.readyState === 'loading') document.addEventListener('DOMContentLoaded', start);
else start();
