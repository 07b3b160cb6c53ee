// The editor's pointer-move round trip on a page of 500 widgets: a widget is selected and
// dragged, and every pointer move is what the page does for it, one event to the server
// and the page's overlay fetched again. With a browser (the default) the moves are real
// pointer events in Debian's chromium and each is timed until the page shows the new
// overlay; with --no-browser the same requests are made from here.
//
//   node bench/editor_roundtrip.mjs [--qfforms build/Tools/qfforms/qfforms] [--moves 300]
//                                   [--widgets 500] [--no-browser] [--web DIR]
//
// Prints the median, 95th percentile and worst time per move in milliseconds.

import { spawn, spawnSync } from 'node:child_process';
import { mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const root = resolve(dirname(fileURLToPath(import.meta.url)), '..');
const args = process.argv.slice(2);
const option = (name, fallback) => {
  const i = args.indexOf(name);
  return i >= 0 ? args[i + 1] : fallback;
};
const qfforms = resolve(option('--qfforms', join(root, 'build/Tools/qfforms/qfforms')));
const moves = Number(option('--moves', '300'));
const count = Number(option('--widgets', '500'));
const browser = !args.includes('--no-browser');
const web = option('--web', null);

// A one-page form of `count` text fields on a grid, drawn with the creation tool.
function makeForm(folder) {
  const steps = [{ new: { pages: 1 } }, { tool: 'TextFieldCreate' }];
  const columns = 20;
  for (let i = 0; i < count; i++) {
    const x = 20 + (i % columns) * 29;
    const y = 770 - Math.floor(i / columns) * 29;
    steps.push({ drag: { page: 0, from: [x, y], to: [x + 24, y - 12] } });
  }
  const script = join(folder, 'form.json');
  const pdf = join(folder, 'form.pdf');
  writeFileSync(script, JSON.stringify(steps));
  const run = spawnSync(qfforms, ['run', script, '--out', pdf], { encoding: 'utf8' });
  if (run.status !== 0) throw new Error(`qfforms run: ${run.stderr}`);
  return pdf;
}

function startEditor(pdf) {
  return new Promise((resolvePromise, reject) => {
    const child = spawn(qfforms, ['edit', pdf, '--port', '0', ...(web ? ['--web', web] : [])],
                        { stdio: ['ignore', 'pipe', 'inherit'] });
    let out = '';
    child.stdout.on('data', (chunk) => {
      out += chunk;
      const match = out.match(/http:\/\/127\.0\.0\.1:(\d+)\/\?token=([0-9a-f]+)/);
      if (match) resolvePromise({ child, url: match[0], base: `http://127.0.0.1:${match[1]}`, token: match[2] });
    });
    child.on('exit', (code) => reject(new Error(`qfforms edit exited with ${code}`)));
  });
}

function summary(times) {
  times.sort((a, b) => a - b);
  const at = (q) => times[Math.min(times.length - 1, Math.floor(q * times.length))];
  return { moves: times.length, median: at(0.5), p95: at(0.95), worst: times[times.length - 1] };
}

async function withoutBrowser(editor) {
  const headers = { 'X-QF-Token': editor.token, 'Content-Type': 'application/json' };
  const post = (path, body) =>
    fetch(editor.base + path, { method: 'POST', headers, body: JSON.stringify(body) }).then((r) => r.json());
  const state = (await post('/api/step', { tool: '' })).state;
  const page = state.layout.pages[0];
  const x0 = page.left + 32, y0 = page.top + 792 - 764; // inside the first widget
  await post('/api/event', { type: 2, code: 0, x: x0, y: y0, modifiers: 0 });
  const times = [];
  for (let i = 1; i <= moves; i++) {
    const t0 = performance.now();
    await post('/api/event', { type: 4, code: 0, x: x0 + (i % 200), y: y0 + (i % 150), modifiers: 0 });
    await (await fetch(`${editor.base}/api/overlay/0.svg`, { headers })).text();
    times.push(performance.now() - t0);
  }
  await post('/api/event', { type: 3, code: 0, x: x0, y: y0, modifiers: 0 });
  return summary(times);
}

async function withBrowser(editor) {
  const require = createRequire(join(root, 'Web/package.json'));
  const { chromium } = require('playwright-core');
  const instance = await chromium.launch({ executablePath: '/usr/bin/chromium', headless: true, args: ['--no-sandbox'] });
  try {
    const page = await instance.newPage({ viewport: { width: 1400, height: 1000 } });
    await page.goto(editor.url);
    await page.waitForFunction(() => document.querySelector('[data-field="Text1"]'));
    const view = await page.locator('#view').boundingBox();
    const state = await (await fetch(`${editor.base}/api/state`, { headers: { 'X-QF-Token': editor.token } })).json();
    const p = state.state.layout.pages[0];
    const x0 = view.x + p.left + 32, y0 = view.y + p.top + 792 - 764;
    await page.mouse.move(x0, y0);
    await page.mouse.down();
    // Timed inside the page: from the moment the browser took the pointer move (the
    // event's time stamp) to the moment the page's overlay shows the answer to it.
    await page.evaluate(() => {
      const view = document.querySelector('#view');
      window.__moves = [];
      view.addEventListener('pointermove', (e) => window.__moves.push({ at: e.timeStamp, shown: 0 }), true);
      new MutationObserver(() => {
        const pending = window.__moves.filter((m) => !m.shown);
        for (const m of pending) m.shown = performance.now();
      }).observe(view, { subtree: true, childList: true });
    });
    for (let i = 1; i <= moves; i++) {
      await page.mouse.move(x0 + (i % 200), y0 + (i % 150));
      await page.waitForFunction((n) => window.__moves.length >= n && window.__moves[n - 1].shown > 0, i,
                                 { polling: 5 });
    }
    const times = await page.evaluate(() => window.__moves.map((m) => m.shown - m.at));
    await page.mouse.up();
    return summary(times);
  } finally {
    await instance.close();
  }
}

const folder = mkdtempSync(join(tmpdir(), 'qf-roundtrip-'));
let editor;
try {
  const pdf = makeForm(folder);
  editor = await startEditor(pdf);
  const result = browser ? await withBrowser(editor) : await withoutBrowser(editor);
  const ms = (v) => v.toFixed(2);
  console.log(`pointer-move round trip, ${count} widgets, ${browser ? 'chromium' : 'HTTP only'}: ` +
              `${result.moves} moves, median ${ms(result.median)} ms, p95 ${ms(result.p95)} ms, worst ${ms(result.worst)} ms`);
} finally {
  if (editor) editor.child.kill('SIGINT');
  rmSync(folder, { recursive: true, force: true });
}
