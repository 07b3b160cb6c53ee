// How fast the editor's page lets a person find their way, in Debian's chromium:
//   - opening a form to the first painted page (the IRS 1040 of the corpus by default);
//   - a zoom step to a sharp view (every page in sight drawn at the new zoom);
//   - the field list of a form of 2,000 fields (made here): drawn after the page asks for
//     it, and filtered as a person types.
//
//   node bench/editor_navigation.mjs [--qfforms build/Tools/qfforms/qfforms]
//                                    [--form FORM.pdf] [--runs 5] [--fields 2000]
//
// Prints the median and worst of each in milliseconds.

import {spawn} from 'node:child_process';
import {mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {tmpdir} from 'node:os';
import {dirname, join, resolve} from 'node:path';
import {fileURLToPath} from 'node:url';

const root = resolve(dirname(fileURLToPath(import.meta.url)), '..');
const args = process.argv.slice(2);
const option = (name, fallback) => {
  const i = args.indexOf(name);
  return i >= 0 ? args[i + 1] : fallback;
};
const qfforms = resolve(option('--qfforms', join(root, 'build/Tools/qfforms/qfforms')));
const form = resolve(option('--form', join(root, '../shared/corpus/pdfjs-irs-f1040-prefilled.pdf')));
const runs = Number(option('--runs', '5'));
const fieldCount = Number(option('--fields', '2000'));
const {chromium} = createRequire(join(root, 'Web', 'package.json'))('playwright-core');

// A form of n text fields, 50 to a page, written directly.
function manyFields(n) {
  const pages = Math.ceil(n / 50);
  const objects = ['<< /Type /Catalog /Pages 2 0 R /AcroForm 3 0 R >>', null, null];
  const pageRefs = [], fieldRefs = [];
  for (let p = 0; p < pages; ++p) {
    const pageNo = objects.length + 1;
    pageRefs.push(`${pageNo} 0 R`);
    objects.push(null);
    const annots = [];
    for (let k = 0; k < 50 && p * 50 + k < n; ++k) {
      const no = objects.length + 1;
      const y = 760 - k * 14;
      objects.push(`<< /Type /Annot /Subtype /Widget /FT /Tx /T (group${p}.f${k}) ` +
        `/Rect [72 ${y - 12} 300 ${y}] /P ${pageNo} 0 R /F 4 /DA (/Helv 9 Tf 0 g) >>`);
      annots.push(`${no} 0 R`);
      fieldRefs.push(`${no} 0 R`);
    }
    objects[pageNo - 1] = `<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] ` +
      `/Annots [${annots.join(' ')}] >>`;
  }
  objects[1] = `<< /Type /Pages /Count ${pages} /Kids [${pageRefs.join(' ')}] >>`;
  objects[2] = `<< /Fields [${fieldRefs.join(' ')}] /DA (/Helv 0 Tf 0 g) ` +
    '/DR << /Font << /Helv << /Type /Font /Subtype /Type1 /BaseFont /Helvetica >> >> >> >>';
  let out = '%PDF-1.7\n';
  const offsets = [];
  objects.forEach((o, i) => {
    offsets.push(out.length);
    out += `${i + 1} 0 obj\n${o}\nendobj\n`;
  });
  const xref = out.length;
  out += `xref\n0 ${objects.length + 1}\n0000000000 65535 f \n`;
  for (const o of offsets) out += `${String(o).padStart(10, '0')} 00000 n \n`;
  out += `trailer\n<< /Size ${objects.length + 1} /Root 1 0 R >>\nstartxref\n${xref}\n%%EOF\n`;
  return out;
}

async function startEditor(file) {
  const proc = spawn(qfforms, ['edit', file, '--port', '0'], {stdio: ['ignore', 'pipe', 'inherit']});
  const url = await new Promise((ok, fail) => {
    let out = '';
    proc.on('exit', (code) => fail(new Error(`qfforms edit exited with ${code}`)));
    proc.stdout.on('data', (d) => {
      const m = /http:\/\/127\.0\.0\.1:\d+\/\?token=[0-9a-f]+/.exec(out += d);
      if (m) ok(m[0]);
    });
  });
  return {proc, url};
}

const sharp = () => [...document.querySelectorAll('.page[data-visible]')].every((e) => {
  const c = e.querySelector('canvas');
  return c.width > 0 && Math.abs(c.width / devicePixelRatio - e.getBoundingClientRect().width) < 2;
}) && !document.body.hasAttribute('data-busy');

function summary(name, values) {
  const sorted = [...values].sort((a, b) => a - b);
  const median = sorted[Math.floor(sorted.length / 2)];
  console.log(`${name.padEnd(34)} median ${median.toFixed(1).padStart(7)} ms   worst ` +
    `${sorted.at(-1).toFixed(1).padStart(7)} ms   (${values.length} runs)`);
}

const folder = mkdtempSync(join(tmpdir(), 'qf-bench-nav-'));
const browser = await chromium.launch(
  {executablePath: '/usr/bin/chromium', headless: true, args: ['--no-sandbox']});
try {
  const firstPaint = [], zoom = [], listDrawn = [], filtered = [];
  const editor = await startEditor(form);
  for (let r = 0; r < runs; ++r) {
    const page = await browser.newPage({viewport: {width: 1280, height: 1000}});
    const start = Date.now();
    await page.goto(editor.url);
    await page.waitForFunction(() =>
      document.querySelector('.page[data-page="0"] canvas')?.width > 0, null, {timeout: 30000});
    firstPaint.push(Date.now() - start);
    await page.waitForFunction(sharp);
    for (const button of ['#zoom-in', '#zoom-out']) {
      const t0 = Date.now();
      await page.click(button);
      await page.waitForFunction(sharp, null, {polling: 'raf'});
      zoom.push(Date.now() - t0);
    }
    await page.close();
  }
  editor.proc.kill();

  const many = join(folder, 'many.pdf');
  writeFileSync(many, manyFields(fieldCount), 'latin1');
  const big = await startEditor(many);
  for (let r = 0; r < runs; ++r) {
    const page = await browser.newPage({viewport: {width: 1280, height: 1000}});
    await page.goto(big.url);
    // From the page's load to the list's items in it (the request for the list included).
    const drawn = await page.evaluate((n) => new Promise((ok) => {
      const started = performance.now();
      const check = () => document.querySelectorAll('#fields li[data-field]').length >= n ?
        ok(performance.now() - started) : requestAnimationFrame(check);
      check();
    }), fieldCount);
    listDrawn.push(drawn);
    for (const text of ['group1', 'f4', 'group39.f49']) {
      filtered.push(await page.evaluate((value) => {
        const input = document.getElementById('field-filter');
        const t0 = performance.now();
        input.value = value;
        input.dispatchEvent(new Event('input'));
        document.body.getBoundingClientRect(); // the layout it leads to
        return performance.now() - t0;
      }, text));
    }
    await page.close();
  }
  big.proc.kill();
  summary('open to first painted page', firstPaint);
  summary('zoom step to a sharp view', zoom);
  summary(`field list of ${fieldCount}, after load`, listDrawn);
  summary(`filter ${fieldCount} fields`, filtered);
} finally {
  await browser.close();
  rmSync(folder, {recursive: true, force: true});
}
