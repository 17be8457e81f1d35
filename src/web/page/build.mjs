// Regenerates the three files the plug-in embeds from the readable sources in src/:
//   src/cbor.js                          -> cbor.min.js
//   src/zelmar.js                        -> zelmar-bundle.min.js
//   src/index.html + page.css + page.js  -> index.html (style and script inlined)
// The outputs are committed, so that the C++ build never needs Node.
//
// Usage: node src/web/page/build.mjs           writes the files
//        node src/web/page/build.mjs --check   exits 1 if a committed file is stale
import { readFile, writeFile } from 'node:fs/promises';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';
import { minify } from 'terser';

const here = dirname(fileURLToPath(import.meta.url));
const source = (name) => readFile(join(here, 'src', name), 'utf8');

// Top-level names stay: the page's template expressions refer to them.
const terserOptions = {
  ecma: 2020,
  compress: { passes: 2 },
  mangle: true,
  format: { comments: false, inline_script: true },
};

async function minifyScript(code) {
  const result = await minify(code, terserOptions);
  return result.code + '\n';
}

/** Comments out, white space collapsed; the stylesheet has no strings that care. */
function minifyCss(css) {
  return css
    .replace(/\/\*[\s\S]*?\*\//g, '')
    .replace(/\s+/g, ' ')
    .replace(/\s*([{};:,>])\s*/g, '$1')
    .replace(/;}/g, '}')
    .trim();
}

/** Builds every output in memory: { file name: text }. */
export async function buildPage() {
  const [cbor, zelmar, html, css, page] = await Promise.all(
    ['cbor.js', 'zelmar.js', 'index.html', 'page.css', 'page.js'].map(source));
  const pageScript = (await minifyScript(page)).trim();
  const index = html
    .replace('/*@include page.css*/', () => minifyCss(css))
    .replace('/*@include page.js*/', () => pageScript);
  return {
    'cbor.min.js': await minifyScript(cbor),
    'zelmar-bundle.min.js': await minifyScript(zelmar),
    'index.html': index,
  };
}

async function main() {
  const check = process.argv.includes('--check');
  const outputs = await buildPage();
  let stale = 0;
  for (const [name, text] of Object.entries(outputs)) {
    const path = join(here, name);
    if (check) {
      const current = await readFile(path, 'utf8').catch(() => null);
      if (current !== text) {
        console.error(`stale: src/web/page/${name} differs from its sources; run npm run build`);
        ++stale;
      }
    } else {
      await writeFile(path, text);
      console.log(`wrote src/web/page/${name} (${Buffer.byteLength(text)} bytes)`);
    }
  }
  if (stale) process.exit(1);
}

if (process.argv[1] && fileURLToPath(import.meta.url) === process.argv[1]) await main();
