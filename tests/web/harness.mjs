// What the editor's browser tests share: their arguments, a `qfforms edit` of their own on
// a copy of the form in a temporary folder, Debian's chromium, and the wait for the page
// to settle.

import {spawn} from 'node:child_process';
import fs from 'node:fs';
import {createRequire} from 'node:module';
import os from 'node:os';
import path from 'node:path';
import {test} from 'node:test';
import {fileURLToPath} from 'node:url';
import {parseArgs} from 'node:util';

export const root = path.resolve(path.dirname(fileURLToPath(import.meta.url)), '../..');
const {chromium} = createRequire(path.join(root, 'Web', 'package.json'))('playwright-core');

// --qfforms BIN --form FORM.pdf (or --sample) --artifacts DIR; the form is copied to
// name in a new temporary folder. Also the options themselves (a test may take both forms).
export function setUp(name) {
  const {values} = parseArgs({options: {qfforms: {type: 'string'}, form: {type: 'string'},
    sample: {type: 'string'}, artifacts: {type: 'string'}}});
  const form = values.sample ?? values.form;
  for (const [key, value] of [['qfforms', values.qfforms], ['form', form],
    ['artifacts', values.artifacts]]) {
    if (!value) throw new Error(`--${key} is needed`);
  }
  const artifacts = path.resolve(values.artifacts);
  fs.mkdirSync(artifacts, {recursive: true});
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'qf-web-'));
  const file = path.join(folder, name);
  fs.copyFileSync(form, file);
  return {qfforms: path.resolve(values.qfforms), artifacts, folder, file, options: values};
}

// `qfforms edit file` with settings and a clipboard of its own: {proc, exited, url, port,
// token}; exited settles with {code, signal}. With log, what it prints goes to that file.
export async function startEditor(qfforms, file, folder, {log} = {}) {
  const proc = spawn(qfforms, ['edit', file, '--port', '0'], {
    cwd: folder, stdio: ['ignore', 'pipe', log ? 'pipe' : 'inherit'],
    env: {...process.env, XDG_CONFIG_HOME: `${folder}/config`, XDG_STATE_HOME: `${folder}/state`,
      QF_CLIPBOARD: `${folder}/clipboard.json`},
  });
  const logFile = log && fs.createWriteStream(log);
  if (logFile) proc.stderr.pipe(logFile);
  const exited = new Promise((resolve) => proc.on('exit', (code, signal) =>
    resolve({code, signal})));
  let out = '';
  const found = await new Promise((resolve, reject) => {
    setTimeout(() => reject(new Error(`no address within 30 s: ${out}`)), 30000).unref();
    exited.then(({code}) => reject(new Error(`qfforms edit exited with ${code}: ${out}`)));
    proc.stdout.on('data', (d) => {
      logFile?.write(d);
      const m = /http:\/\/127\.0\.0\.1:(\d+)\/\?token=([0-9a-f]+)/.exec(out += d);
      if (m) resolve({url: m[0], port: Number(m[1]), token: m[2]});
    });
  });
  return {...found, proc, exited};
}

export function launch() {
  return chromium.launch(
    {executablePath: '/usr/bin/chromium', headless: true, args: ['--no-sandbox']});
}

// Waits until the page has no request or drawing under way and every page in sight shows
// the overlay of the host's latest revision.
export function settled(page) {
  return page.waitForFunction(() => {
    const view = document.getElementById('view');
    const shown = [...document.querySelectorAll('.page[data-visible] .overlay')];
    return view.dataset.revision !== undefined && !document.body.hasAttribute('data-busy') &&
      shown.length > 0 && shown.every((o) => o.dataset.revision === view.dataset.revision);
  }, null, {timeout: 15000});
}

// The server's state as the page would fetch it.
export function stateOf(page) {
  return page.evaluate(async () => {
    const token = new URLSearchParams(location.search).get('token');
    return (await (await fetch('/api/state', {headers: {'X-QF-Token': token}})).json()).state;
  });
}

// A test named name that leaves a picture of the page in artifacts when it fails (the
// steps of one session, run in order).
export function stage(name, f, page, artifacts, prefix = '') {
  test(name, async () => {
    try {
      await f();
    } catch (e) {
      await page().screenshot({path: path.join(artifacts,
        `${prefix}failed-${name.replace(/\W+/g, '-')}.png`)}).catch(() => {});
      throw e;
    }
  });
}

// A form written directly: pages is a list of pages, each a list of text fields
// {name, rect: [x0, y0, x1, y1]} on US Letter.
export function formOf(pages) {
  const objects = ['<< /Type /Catalog /Pages 2 0 R /AcroForm 3 0 R >>', null, null];
  const pageRefs = [], fieldRefs = [];
  for (const fields of pages) {
    const pageNo = objects.length + 1;
    pageRefs.push(`${pageNo} 0 R`);
    objects.push(null);
    const annots = [];
    for (const {name, rect} of fields) {
      const no = objects.length + 1;
      objects.push(`<< /Type /Annot /Subtype /Widget /FT /Tx /T (${name}) ` +
        `/Rect [${rect.join(' ')}] /P ${pageNo} 0 R /F 4 /DA (/Helv 9 Tf 0 g) >>`);
      annots.push(`${no} 0 R`);
      fieldRefs.push(`${no} 0 R`);
    }
    objects[pageNo - 1] = `<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] ` +
      `/Annots [${annots.join(' ')}] >>`;
  }
  objects[1] = `<< /Type /Pages /Count ${pages.length} /Kids [${pageRefs.join(' ')}] >>`;
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

// n text fields, 50 to a page in a column, named group<page>.f<k>.
export function manyFields(n) {
  const pages = [];
  for (let i = 0; i < n; ++i) {
    const k = i % 50, y = 760 - k * 14;
    if (k === 0) pages.push([]);
    pages.at(-1).push({name: `group${pages.length - 1}.f${k}`, rect: [72, y - 12, 300, y]});
  }
  return formOf(pages);
}
