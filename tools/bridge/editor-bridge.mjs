// Opens a live Lumbrel plug-in's editor in an ordinary browser.
//
// It starts lumbrel-editor-host (tools/bridge), which loads the built bundle
// through the CLAP ABI, runs one plug-in on a test signal in real time and
// carries its editor's webview/3 side over framed stdin/stdout. This program
// serves the page's files on 127.0.0.1 from the plug-in's own get_resource,
// so the page shown is the one embedded in the bundle, and carries messages
// both ways over a WebSocket: the page's `?ws=PORT` transport.
//
//   lumbrel-editor swell                     installed: opens the editor in the browser
//   node tools/bridge/editor-bridge.mjs [--plugin swell] [--port 8123] [--verbose]
//   import { startEditorBridge } from '.../editor-bridge.mjs'   for tests
//
// Installed (lumbrel-editor), it sits beside lumbrel-editor-host, cbor.min.js
// and its own node_modules, and uses the installed bundle. In the repository
// the build is found in --build DIR, else $LUMBREL_BUILD_DIR, else build/.
import { spawn, execFileSync } from 'node:child_process';
import { existsSync } from 'node:fs';
import { homedir } from 'node:os';
import { createServer } from 'node:http';
import { createRequire } from 'node:module';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { WebSocketServer } from 'ws';

const here = dirname(fileURLToPath(import.meta.url));
export const repoDir = resolve(here, '..', '..');
const installed = existsSync(join(here, 'lumbrel-editor-host'));
const CBOR = createRequire(import.meta.url)(installed ? join(here, 'cbor.min.js') : join(repoDir, 'src', 'web', 'page', 'cbor.min.js'));

/** The installed bundle, where lumbrel-render looks too. */
function installedBundle() {
  const candidates = [join(homedir(), '.clap', 'Lumbrel.clap'), '/usr/local/lib/clap/Lumbrel.clap', '/usr/lib/clap/Lumbrel.clap'];
  return candidates.find((p) => existsSync(p)) || candidates[0];
}

/**
 * The programs of a build: `{ buildDir, hostProgram, bundle }`, from `buildDir`,
 * else $LUMBREL_BUILD_DIR, else build/ in the repository. `missing` lists what
 * isn't there.
 */
export function findBuild(buildDir) {
  if (installed && !buildDir && !process.env.LUMBREL_BUILD_DIR) {
    const found = { buildDir: null, hostProgram: join(here, 'lumbrel-editor-host'), bundle: installedBundle() };
    found.missing = [found.hostProgram, found.bundle].filter((p) => !existsSync(p));
    return found;
  }
  const dir = resolve(repoDir, buildDir || process.env.LUMBREL_BUILD_DIR || 'build');
  const found = {
    buildDir: dir,
    hostProgram: join(dir, 'tools', 'lumbrel-editor-host'),
    bundle: join(dir, 'Lumbrel.clap'),
  };
  found.missing = [found.hostProgram, found.bundle].filter((p) => !existsSync(p));
  return found;
}

/** The bundle's plug-ins: [{ id, name }], in the factory's order. */
export function listPlugins({ buildDir, hostProgram, bundle } = {}) {
  const build = findBuild(buildDir);
  const out = execFileSync(hostProgram || build.hostProgram, ['--bundle', bundle || build.bundle, '--list'],
    { encoding: 'utf8' });
  return JSON.parse(out);
}

/** Cuts the host's frames (u32 LE count, kind byte, payload) out of its output. */
class FrameReader {
  constructor(onFrame) {
    this.onFrame = onFrame;
    this.buffer = Buffer.alloc(0);
  }

  push(chunk) {
    this.buffer = this.buffer.length ? Buffer.concat([this.buffer, chunk]) : chunk;
    while (this.buffer.length >= 4) {
      const length = this.buffer.readUInt32LE(0);
      if (this.buffer.length < 4 + length) break;
      const kind = String.fromCharCode(this.buffer[4]);
      const payload = this.buffer.subarray(5, 4 + length);
      this.buffer = this.buffer.subarray(4 + length);
      this.onFrame(kind, payload);
    }
  }
}

function frame(kind, ...parts) {
  const body = Buffer.concat([Buffer.from(kind, 'latin1'), ...parts]);
  const head = Buffer.alloc(4);
  head.writeUInt32LE(body.length, 0);
  return Buffer.concat([head, body]);
}

const u32 = (n) => { const b = Buffer.alloc(4); b.writeUInt32LE(n >>> 0, 0); return b; };
const f64 = (x) => { const b = Buffer.alloc(8); b.writeDoubleLE(x, 0); return b; };

/** One message's bytes, decoded for logs and tests; a message that won't decode gives `{ error }`. */
export function decode(bytes) {
  try {
    return CBOR.decode(new Uint8Array(bytes));
  } catch (e) {
    return { error: e.message };
  }
}

/**
 * Starts a bridge to one plug-in: spawns the editor host, waits for it to
 * report, and listens on 127.0.0.1 (`port` 0 picks a free one). Resolves to
 * the bridge:
 *
 * - `url`: the page, with `?ws=PORT`; `plugin`: the host's hello ({ id, name, latency, ... })
 * - `params()`: the parameter list (id, name, stepped, min, max, default, value, text, keys, groups)
 * - `value(id)`: { ok, value, text } by params_get_value; `text(id, value)`: value_to_text
 * - `automate(id, value)`: a value event with the next block, as a host's automation
 * - `paramEvents()`: the parameter events the plug-in sent the host since the last call
 * - `received`: every message from a page, decoded, in order; `sent`: every
 *   message from the plug-in as `{ bytes, message }` (message decoded on first use)
 * - `waitFor(predicate, ms)`: the first received message for which it holds
 * - `restart()`: deactivates and activates the plug-in again
 * - `close()`: stops the host and the server; `done`: resolves with { code, signal } when the host ends
 *
 * Each page that connects gets the plug-in freshly activated, unless
 * `restartOnConnect` is false: the plug-in sends "hz", without which the page
 * draws no spectrum, only in the first message after a configuration.
 * `verbose` logs the page's messages (but meter requests) and the plug-in's
 * message kinds; `stderr` receives the host's error stream (default: this process's).
 */
export async function startEditorBridge({
  plugin, buildDir, hostProgram, bundle, port = 0, verbose = false, restartOnConnect = true,
  stderr = (text) => process.stderr.write(text),
} = {}) {
  const build = findBuild(buildDir);
  hostProgram ||= build.hostProgram;
  bundle ||= build.bundle;
  for (const path of [hostProgram, bundle]) {
    if (!existsSync(path)) {
      throw new Error(`editor-bridge: ${path} not found; ${installed ? 'install Lumbrel first (scripts/demo.sh)' : 'build first (scripts/build.sh)'}`);
    }
  }
  const args = ['--bundle', bundle];
  if (plugin) args.push('--plugin', plugin);
  // A group of its own, so that Ctrl-C in a terminal reaches only this
  // program, which then stops the host in order; the host also stops by
  // itself when its input closes, however this program ends.
  const child = spawn(hostProgram, args, { stdio: ['pipe', 'pipe', 'pipe'], detached: true });
  // Until the host is ready its errors are held back: if it stops then, its
  // own line becomes the one error this program reports.
  let stderrText = '';
  let ready = false;
  child.stderr.on('data', (d) => {
    if (ready) stderr(String(d));
    else stderrText += d;
  });

  const bridge = {
    received: [],
    sent: [],
    sockets: new Set(),
    exited: null,
  };
  const pending = new Map();
  let nextRequest = 1;
  let hello;
  const helloPromise = new Promise((resolveHello, rejectHello) => { hello = { resolve: resolveHello, reject: rejectHello }; });

  const reader = new FrameReader((kind, payload) => {
    if (kind === 'h') {
      hello.resolve(JSON.parse(payload.toString('utf8')));
    } else if (kind === 's') {
      const bytes = Buffer.from(payload);
      const entry = { bytes };
      Object.defineProperty(entry, 'message', { get() { return (this.decoded ??= decode(bytes)); } });
      bridge.sent.push(entry);
      for (const socket of bridge.sockets) if (socket.readyState === 1) socket.send(bytes);
      if (verbose) {
        const m = entry.message;
        const kindOf = Array.isArray(m) ? m[0] : m && typeof m === 'object' && 'name' in m ? 'whole state' : 'update';
        if (kindOf !== 'meters') console.log(`plug-in: ${kindOf}, ${bytes.length} bytes`);
      }
    } else if (kind === 'r' || kind === 'j') {
      const request = payload.readUInt32LE(0);
      const waiting = pending.get(request);
      if (!waiting) return;
      pending.delete(request);
      if (kind === 'j') {
        waiting.resolve(JSON.parse(payload.subarray(4).toString('utf8')));
      } else {
        const found = payload[4] === 1;
        const typeLength = payload[5];
        waiting.resolve({
          found,
          mediaType: payload.subarray(6, 6 + typeLength).toString('latin1'),
          bytes: Buffer.from(payload.subarray(6 + typeLength)),
        });
      }
    }
  });
  child.stdout.on('data', (chunk) => reader.push(chunk));
  bridge.done = new Promise((resolveDone) => child.once('exit', (code, signal) => resolveDone({ code, signal })));
  child.on('exit', (code, signal) => {
    bridge.exited = { code, signal };
    for (const waiting of pending.values()) waiting.reject(stopped());
    pending.clear();
  });
  // After 'close' the host's error stream has been read to its end.
  child.once('close', (code, signal) => {
    const said = stderrText.trim();
    hello.reject(new Error(said.startsWith('lumbrel-editor-host: ') && !said.includes('\n') ? said
      : `editor-bridge: lumbrel-editor-host stopped (${signal || code}) before it was ready${said ? ': ' + said : ''}`));
  });
  child.stdin.on('error', () => {}); // a host that has gone shows in 'exit'

  const stopped = () => new Error(`editor-bridge: lumbrel-editor-host has stopped (${bridge.exited.signal || 'exit ' + bridge.exited.code})`);
  const request = (kind, ...parts) => new Promise((resolveRequest, rejectRequest) => {
    if (bridge.exited) {
      rejectRequest(stopped());
      return;
    }
    const id = nextRequest++;
    pending.set(id, { resolve: resolveRequest, reject: rejectRequest });
    child.stdin.write(frame(kind, u32(id), ...parts));
  });

  try {
    bridge.plugin = await helloPromise;
    ready = true;
    if (stderrText) stderr(stderrText);
  } catch (e) {
    child.kill();
    throw e;
  }

  bridge.resource = (path) => request('g', Buffer.from(path, 'utf8'));
  bridge.params = () => request('p');
  bridge.value = (id) => request('v', u32(id));
  bridge.text = (id, value) => request('t', u32(id), f64(value));
  bridge.automate = (id, value) => request('a', u32(id), f64(value));
  bridge.paramEvents = () => request('e');
  bridge.restart = () => request('R');
  bridge.toPlugin = (bytes) => child.stdin.write(frame('m', Buffer.from(bytes)));
  bridge.waitFor = async (predicate, timeoutMs = 5000) => {
    const until = Date.now() + timeoutMs;
    for (;;) {
      const found = bridge.received.find(predicate);
      if (found !== undefined) return found;
      if (Date.now() > until) throw new Error(`editor-bridge: no such message from the page within ${timeoutMs} ms`);
      await new Promise((r) => setTimeout(r, 20));
    }
  };

  const allowedHosts = () => new Set([`127.0.0.1:${bridge.port}`, `localhost:${bridge.port}`]);
  const server = createServer(async (req, res) => {
    // Only this machine's names: a page elsewhere can't reach in by DNS tricks.
    if (!allowedHosts().has(req.headers.host)) {
      res.writeHead(403);
      res.end();
      return;
    }
    const path = new URL(req.url, 'http://127.0.0.1').pathname;
    if (path === '/') {
      res.writeHead(302, { Location: `${bridge.plugin.uri || '/index.html'}?ws=${bridge.port}` });
      res.end();
      return;
    }
    if (path === '/favicon.ico') {
      res.writeHead(204);
      res.end();
      return;
    }
    try {
      const found = await bridge.resource(path);
      if (!found.found) {
        res.writeHead(404, { 'Content-Type': 'text/plain' });
        res.end(`${path}: not a file of the page\n`);
        return;
      }
      res.writeHead(200, {
        'Content-Type': found.mediaType,
        'Content-Length': found.bytes.length,
        'Cache-Control': 'no-store',
      });
      res.end(found.bytes);
    } catch (e) {
      res.writeHead(502, { 'Content-Type': 'text/plain' });
      res.end(e.message + '\n');
    }
  });
  const wss = new WebSocketServer({
    server,
    // Only the page this bridge serves may talk to the plug-in.
    verifyClient: ({ origin }) => [...allowedHosts()].some((h) => origin === `http://${h}`),
  });
  wss.on('error', () => {}); // the server's own errors, which the listening below reports
  wss.on('connection', (socket) => {
    // The plug-in sends its bands' frequencies once after each configuration,
    // and a page without them draws no plot; so each page that connects gets a
    // fresh activation, as after a host's restart. Frames keep their order, so
    // this happens before the page's "ready" reaches the plug-in.
    if (restartOnConnect) bridge.restart().catch(() => {});
    bridge.sockets.add(socket);
    socket.on('message', (data, isBinary) => {
      if (!isBinary) return;
      const bytes = Buffer.isBuffer(data) ? data : Buffer.concat([].concat(data));
      const message = decode(bytes);
      bridge.received.push(message);
      if (verbose && !(Array.isArray(message) && message[0] === 'meters')) console.log('page:', JSON.stringify(message));
      bridge.toPlugin(bytes);
    });
    socket.on('close', () => bridge.sockets.delete(socket));
  });
  try {
    await new Promise((resolveListen, rejectListen) => {
      server.once('error', rejectListen);
      server.listen(port, '127.0.0.1', resolveListen);
    });
  } catch (e) {
    child.kill();
    throw new Error(`editor-bridge: cannot listen on 127.0.0.1:${port}: ${e.message}`);
  }
  bridge.port = server.address().port;
  bridge.url = `http://127.0.0.1:${bridge.port}${bridge.plugin.uri || '/index.html'}?ws=${bridge.port}`;

  bridge.close = async () => {
    for (const socket of bridge.sockets) socket.terminate();
    await new Promise((r) => wss.close(r));
    await new Promise((r) => server.close(r));
    if (!bridge.exited) {
      const gone = new Promise((r) => child.once('exit', r));
      child.stdin.end(frame('q'));
      const timer = setTimeout(() => child.kill('SIGKILL'), 5000);
      await gone;
      clearTimeout(timer);
    }
  };
  return bridge;
}

function usage() {
  return `usage: lumbrel-editor [PLUGIN] [--no-open] [--port N] [--bundle PATH] [--verbose]
       lumbrel-editor --list

Shows a Lumbrel effect's editor in your web browser, with no plug-in host:
the effect runs live on a test signal, and the page is the one a host shows.

  lumbrel-editor swell          opens Swell's editor in the default browser
  lumbrel-editor --list         the effects you can name

It serves the page on 127.0.0.1 and keeps running until Ctrl-C.

  PLUGIN, --plugin NAME  an id, a name or the id's last part, e.g. swell,
                         octaver, frequency-snap (default: the first effect)
  --no-open      print the page's address instead of opening a browser
                 (the browser is $BROWSER, else xdg-open, or open on macOS)
  --port N       port to listen on (default: a free one)
  --bundle PATH  another .clap file (default: ~/.clap/Lumbrel.clap, then
                 /usr/local/lib/clap, /usr/lib/clap; in the repository, build/)
  --build DIR    in the repository: the CMake build (default: build/)
  --verbose      log the page's messages
  --keep-active  don't re-activate the effect for each page that connects
  -h, --help     this text

Exit status: 0 stopped by Ctrl-C or done; 1 the effect or the page server
could not start, or the command line is wrong.`;
}

/** Opens `url` in the user's browser: $BROWSER, else the system's opener. */
function openBrowser(url) {
  const command = process.env.BROWSER || (process.platform === 'darwin' ? 'open' : 'xdg-open');
  const child = spawn(command, [url], { stdio: 'ignore', detached: true });
  child.on('error', () => console.error(`editor-bridge: cannot start ${command}; open ${url} yourself`));
  child.unref();
}

async function main(argv) {
  const options = { port: 0 };
  let list = false, open = true;
  for (let i = 0; i < argv.length; ++i) {
    let arg = argv[i], attached;
    if (arg.startsWith('--') && arg.includes('=')) [arg, attached] = [arg.slice(0, arg.indexOf('=')), arg.slice(arg.indexOf('=') + 1)];
    const value = () => {
      if (attached !== undefined) return attached;
      if (i + 1 >= argv.length) throw new Error(`${arg} needs a value`);
      return argv[++i];
    };
    if (arg === '--plugin') options.plugin = value();
    else if (arg === '--port') {
      options.port = Number(value());
      if (!Number.isInteger(options.port) || options.port < 0 || options.port > 65535) throw new Error('--port needs a port number');
    }
    else if (arg === '--build') options.buildDir = value();
    else if (arg === '--bundle') options.bundle = resolve(value());
    else if (arg === '--verbose') options.verbose = true;
    else if (arg === '--keep-active') options.restartOnConnect = false;
    else if (arg === '--no-open') open = false;
    else if (arg === '--list') list = true;
    else if (arg === '--help' || arg === '-h') {
      console.log(usage());
      return 0;
    } else if (!arg.startsWith('-') && !options.plugin) {
      options.plugin = arg;
    } else {
      throw new Error(`unknown argument ${arg} (see --help)`);
    }
  }
  if (list) {
    for (const p of listPlugins(options)) console.log(`${p.id}\t${p.name}`);
    return 0;
  }
  const bridge = await startEditorBridge(options);
  console.log(`${bridge.plugin.name} (${bridge.plugin.id}), ${bridge.plugin.sampleRate} Hz, blocks of ${bridge.plugin.blockSize}`);
  console.log(`${open ? 'opening' : 'open'} ${bridge.url}   (Ctrl-C stops)`);
  if (open) openBrowser(bridge.url);
  const stop = async () => {
    await bridge.close();
    process.exit(0);
  };
  process.on('SIGINT', stop);
  process.on('SIGTERM', stop);
  bridge.done.then(({ code, signal }) => {
    if (signal === null && code === 0) return;
    console.error(`editor-bridge: lumbrel-editor-host stopped (${signal || 'exit ' + code})`);
    process.exit(1);
  });
  return null;
}

if (process.argv[1] && resolve(process.argv[1]) === fileURLToPath(import.meta.url)) {
  main(process.argv.slice(2)).then((code) => {
    if (code !== null) process.exitCode = code;
  }, (e) => {
    console.error(/^(editor-bridge|lumbrel-editor-host): /.test(e.message) ? e.message : `editor-bridge: ${e.message}`);
    process.exitCode = 1;
  });
}
